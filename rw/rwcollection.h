// RWCollection: the common interface of the containers of this layer, and the
// iterator interfaces they hand out. A container stores pointers and owns
// nothing it points to: an element goes away only through an ...AndDestroy
// operation or through its owner. Lookups compare with the stored elements'
// own isEqual; what is not there gives null, never an error.
//
// An iterator is invalid after an insertion or removal that does not go
// through it. Nothing here locks.
#pragma once

#include <cstddef>

#include "CorvanthExport.h"
#include "rwcollect.h"

using RWapplyCollectable = void (*)(RWCollectable* element, void* data);
using RWtestCollectable = bool (*)(RWCollectable const* element, void const* data);

class CORVANTH_EXPORT RWIterator {
 public:
  virtual ~RWIterator();
  // Advances to the next element equal to `probe` and gives it, or null at the end.
  virtual RWCollectable* findNext(RWCollectable const* probe) = 0;
  // The current element, or null before the first advance, at the end or after a removal.
  virtual RWCollectable* key() const = 0;
  // Advances and gives the next element, or null at the end.
  virtual RWCollectable* operator()() = 0;
  virtual void reset() = 0;
};

class CORVANTH_EXPORT RWConstIterator {
 public:
  virtual ~RWConstIterator();
  virtual RWCollectable const* findNext(RWCollectable const* probe) = 0;
  virtual RWCollectable const* key() const = 0;
  virtual RWCollectable const* operator()() = 0;
  virtual void reset() = 0;
};

class CORVANTH_EXPORT RWCollection : public RWCollectable {
 public:
  static constexpr RWClassID classIsA = 32797;
  static constexpr std::size_t DEFAULT_CAPACITY = 64;

  RWCollection() = default;
  RWCollection(RWCollection const&) = default;
  RWCollection& operator=(RWCollection const&) = default;
  ~RWCollection() override;
  RWClassID isA() const override;

  // Calls `function` for each element in iteration order.
  virtual void apply(RWapplyCollectable function, void* data) = 0;
  // Removes all elements and destroys none.
  virtual void clear() = 0;
  // Removes all elements and destroys each distinct object once.
  virtual void clearAndDestroy();
  virtual bool contains(RWCollectable const* probe) const;
  virtual std::size_t entries() const = 0;
  // The first element equal to `probe`, or null.
  virtual RWCollectable* find(RWCollectable const* probe) const = 0;
  virtual RWCollectable* insert(RWCollectable* element) = 0;
  virtual bool isEmpty() const;
  virtual std::size_t occurrencesOf(RWCollectable const* probe) const = 0;
  // Removes the first element equal to `probe` and gives it, or null.
  virtual RWCollectable* remove(RWCollectable const* probe) = 0;
  // remove, then destroys what came back.
  virtual void removeAndDestroy(RWCollectable const* probe);
  // Iterators on the heap; the caller deletes them.
  virtual RWIterator* newIterator() = 0;
  virtual RWConstIterator* newConstIterator() const = 0;
};
