// RWSet: a hash table that holds no two equal elements. insert of an element
// equal to a stored one inserts nothing and gives the stored one, so a caller
// tells success by comparing the result with what it passed.
#pragma once

#include <cstddef>

#include "CorvanthExport.h"
#include "rwhashtab.h"

class CORVANTH_EXPORT RWSet : public RWHashTable {
 public:
  static constexpr RWClassID classIsA = 32811;
  static constexpr char const className[] = "RWSet";

  explicit RWSet(std::size_t capacity = DEFAULT_CAPACITY) : RWHashTable(capacity) {}
  RWSet(RWSet const&) = default;
  RWSet& operator=(RWSet const&) = default;
  ~RWSet() override;

  RWCollectable* newSpecies() const override;
  RWCollectable* copy() const override;
  RWClassID isA() const override;
  RWCollectable* insert(RWCollectable* element) override;
  RWIterator* newIterator() override;
};

class CORVANTH_EXPORT RWSetIterator : public RWHashTableIterator {
 public:
  explicit RWSetIterator(RWSet& set) : RWHashTableIterator(set) {}
  ~RWSetIterator() override;
  // Does nothing: a slot that the set and dictionary iterators carry in their tables.
  virtual void settle();
};

// RWIdentitySet: a set by address. Membership ignores what the elements make of
// hash and isEqual: an object is found only by itself, and two equal but
// distinct objects are both held. It is what destroys "each distinct object
// once" in the ...AndDestroy operations.
class CORVANTH_EXPORT RWIdentitySet : public RWSet {
 public:
  static constexpr RWClassID classIsA = 32805;
  static constexpr char const className[] = "RWIdentitySet";

  explicit RWIdentitySet(std::size_t capacity = DEFAULT_CAPACITY) : RWSet(capacity) {}
  RWIdentitySet(RWIdentitySet const&) = default;
  RWIdentitySet& operator=(RWIdentitySet const&) = default;
  ~RWIdentitySet() override;

  RWCollectable* newSpecies() const override;
  RWCollectable* copy() const override;
  RWClassID isA() const override;
  // Each element is already distinct: each is destroyed as it stands.
  void clearAndDestroy() override;
  RWCollectable* find(RWCollectable const* probe) const override;
  RWCollectable* insert(RWCollectable* element) override;
  std::size_t occurrencesOf(RWCollectable const* probe) const override;
  RWCollectable* remove(RWCollectable const* probe) override;
};
