// RWHashDictionary: a set of key/value associations, found by key. It owns
// its associations and nothing else: keys and values stay the caller's until
// an ...AndDestroy operation destroys them. find, remove and the iterator's
// advance give keys; insertKeyAndValue adds a pair only when no equal key is
// stored. Bucket choice and iteration order are those of RWHashTable, with the
// association hashing as its key.
//
// A lookup by text (findValue(std::string_view) and its kin) answers as a
// lookup with an RWCollectableString probe of those bytes would, without
// building one: no heap use at all.
//
// The bucket count never grows on insertion (it decides the iteration order),
// so a dictionary filled far beyond its buckets has long chains. While every
// key is a plain RWCollectableString and there are more than two entries per
// bucket, the dictionary keeps a side index from key bytes to pair: insertion
// and lookup by string then cost one hash probe however long the chains are.
// Buckets and order are untouched by it. Only the dictionary's own mutating
// operations build or update it; a const lookup never writes, and after a
// change made around the dictionary (an iterator's removal, a base class's
// operation) lookups walk the chains until the next insertion rebuilds it.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "CorvanthExport.h"
#include "rwassoc.h"
#include "rwset.h"

using RWapplyKeyAndValue = void (*)(RWCollectable* key, RWCollectable*& value, void* data);

class CORVANTH_EXPORT RWHashDictionary : public RWSet {
 public:
  static constexpr RWClassID classIsA = 32802;
  static constexpr char const className[] = "RWHashDictionary";

  explicit RWHashDictionary(std::size_t capacity = DEFAULT_CAPACITY);
  // New associations to the same keys and values, in the same buckets and order.
  RWHashDictionary(RWHashDictionary const& other);
  RWHashDictionary& operator=(RWHashDictionary const& other);
  // Frees the associations, never keys or values.
  ~RWHashDictionary() override;

  RWCollectable* newSpecies() const override;
  RWCollectable* copy() const override;
  RWClassID isA() const override;

  // Calls `function` with each key.
  void apply(RWapplyCollectable function, void* data) override;
  // Frees the associations; keys and values stay alive.
  void clear() override;
  // Destroys every key and every value once, also an object that is both.
  void clearAndDestroy() override;
  // The stored key equal to `key`, or null.
  RWCollectable* find(RWCollectable const* key) const override;
  // An association goes in as it is (in the set manner); anything else is taken
  // as a key with a null value, and the stored equal key comes back if there is one.
  RWCollectable* insert(RWCollectable* element) override;
  // Gives the stored key and frees the association; the value pointer is dropped.
  RWCollectable* remove(RWCollectable const* key) override;
  // Destroys the value, then the key if it is another object, then the association.
  void removeAndDestroy(RWCollectable const* key) override;
  RWIterator* newIterator() override;
  RWConstIterator* newConstIterator() const override;

  // New dictionaries (the caller's) of the pairs whose key, or value, passes `tester`.
  virtual RWHashDictionary* selectKey(RWtestCollectable tester, void const* data) const;
  virtual RWHashDictionary* selectValue(RWtestCollectable tester, void const* data) const;
  virtual RWCollectableAssociation* findAssociation(RWCollectable const* key) const;
  virtual RWCollectableAssociation* newAssociation(RWCollectable* key, RWCollectable* value) const;
  // Takes the association out and gives it to the caller.
  virtual RWCollectableAssociation* removeAssociation(RWCollectable const* key);

  // Adds the pair and gives the key; when an equal key is stored, changes
  // nothing and gives null (key and value stay the caller's).
  RWCollectable* insertKeyAndValue(RWCollectable* key, RWCollectable* value);
  RWCollectable* findValue(RWCollectable const* key) const;
  // Puts `newValue` in place and gives the old value; with no such key nothing changes.
  RWCollectable* findValue(RWCollectable const* key, RWCollectable* newValue);
  RWCollectable* findKey(RWCollectable const* key) const { return find(key); }
  void applyToKeyAndValue(RWapplyKeyAndValue function, void* data);

  RWCollectableAssociation* findAssociation(std::string_view key) const;
  RWCollectable* findValue(std::string_view key) const;
  RWCollectable* findKey(std::string_view key) const;

 protected:
  // How often a value was put in place around insertion: findValue with a new
  // value, applyToKeyAndValue, an iterator's value(newValue). An owner of the
  // values learns from it that one value object may now stand under two keys.
  std::size_t valueExchanges() const noexcept { return mValueExchanges; }

 private:
  friend class RWHashDictionaryIterator;
  struct TextIndex;

  void freeAssociations();
  void copyAssociations(RWHashDictionary const& other);
  RWHashDictionary* select(RWtestCollectable tester, void const* data, bool byKey) const;
  // Inserts in the set manner, and notes whether the pairs stay plain ones.
  RWCollectable* insertAssociation(RWCollectableAssociation* pair);
  RWCollectableAssociation* findPlainString(std::string_view key) const;
  bool indexCurrent() const noexcept;
  // Builds the index when the table is long enough for it, or drops a stale one.
  void refreshIndex();

  // True while every stored pair is a plain RWCollectableAssociation with a plain
  // RWCollectableString key: then a string lookup may compare bytes directly, which
  // is what the objects' isEqual would answer. Cleared for good by any other pair.
  bool mPlainStringPairs = true;
  std::unique_ptr<TextIndex> mIndex;
  std::size_t mValueExchanges = 0;
};

class CORVANTH_EXPORT RWHashDictionaryIterator : public RWSetIterator {
 public:
  explicit RWHashDictionaryIterator(RWHashDictionary& dictionary) : RWSetIterator(dictionary) {}
  ~RWHashDictionaryIterator() override;

  // Advances to the next pair whose key equals `key`, and gives its key.
  RWCollectable* findNext(RWCollectable const* key) override;
  // The current key.
  RWCollectable* key() const override;
  // Advances and gives the next key, or null at the end.
  RWCollectable* operator()() override;

  RWCollectable* value() const;
  // Sets the current pair's value and gives the old one (null without a current pair).
  RWCollectable* value(RWCollectable* newValue) const;
  // Removes the current pair, frees its association and gives its key.
  RWCollectable* remove();

 private:
  RWCollectableAssociation* association() const;
};
