// RWHashTable: a vector of buckets, each null or a list of elements, and the
// entry count. The bucket of an element is its hash() modulo the bucket count.
//
// Behaviour that callers see in iteration order, and on which the string form
// of the product's dictionaries depends byte for byte:
// - insert appends at the end of the bucket's list and always adds, so equal
//   elements may stand side by side;
// - the bucket count stays what the constructor gave (capacity, or 2 for a
//   capacity of 0) until resize is called: a full table has longer chains;
// - iteration goes by rising bucket index, and within a bucket in insertion order.
// A lookup walks only the probe's bucket, in order, asking each stored
// element's isEqual with the probe. Null is never an element.
#pragma once

#include <cstddef>
#include <vector>

#include "CorvanthExport.h"
#include "rwcollection.h"
#include "rwslist.h"

class RWHashTableIterator;

class CORVANTH_EXPORT RWHashTable : public RWCollection {
 public:
  static constexpr RWClassID classIsA = 32862;
  static constexpr char const className[] = "RWHashTable";

  explicit RWHashTable(std::size_t capacity = DEFAULT_CAPACITY);
  RWHashTable(RWHashTable const& other);
  RWHashTable& operator=(RWHashTable const& other);
  ~RWHashTable() override;

  RWCollectable* newSpecies() const override;
  RWCollectable* copy() const override;
  RWClassID isA() const override;

  void apply(RWapplyCollectable function, void* data) override;
  void clear() override;
  void clearAndDestroy() override;
  bool contains(RWCollectable const* probe) const override;
  std::size_t entries() const override { return mEntries; }
  RWCollectable* find(RWCollectable const* probe) const override;
  RWCollectable* insert(RWCollectable* element) override;
  bool isEmpty() const override { return mEntries == 0; }
  std::size_t occurrencesOf(RWCollectable const* probe) const override;
  RWCollectable* remove(RWCollectable const* probe) override;
  RWIterator* newIterator() override;
  RWConstIterator* newConstIterator() const override;

  // A new bucket vector of `buckets` buckets (0: 16 below 12 entries, else
  // entries * 3 / 2); every element is inserted again through insert, from the
  // old buckets in index order.
  virtual void resize(unsigned int buckets = 0);

  unsigned int buckets() const noexcept { return static_cast<unsigned int>(mBuckets.size()); }
  // The list of bucket `index`, or null while nothing was ever put there.
  RWSlistCollectables const* bucketList(unsigned int index) const noexcept {
    return index < mBuckets.size() ? mBuckets[index] : nullptr;
  }

 protected:
  unsigned int bucketIndex(unsigned hash) const noexcept {
    return hash % static_cast<unsigned int>(mBuckets.size());
  }
  RWSlistCollectables* bucketOf(unsigned hash) const noexcept {
    return mBuckets[bucketIndex(hash)];
  }
  // Appends to the bucket of `hash` (or of that index), creating its list at
  // first use, and counts the entry.
  void appendToBucket(unsigned hash, RWCollectable* element) {
    appendToBucketAt(bucketIndex(hash), element);
  }
  void appendToBucketAt(std::size_t index, RWCollectable* element);
  // The first stored element of the probe's bucket for which stored->isEqual(probe).
  RWCollectable* findInBucket(unsigned hash, RWCollectable const* probe) const;
  // Removes the first element of `list` that equals `probe` and uncounts it; null when none does.
  RWCollectable* removeFromBucket(RWSlistCollectables* list, RWCollectable const* probe);
  // Frees the bucket lists and sets `count` empty buckets (0 means 2).
  void resetBuckets(std::size_t count);
  // Copies bucket count, order and element pointers of `other`.
  void copyBuckets(RWHashTable const& other);

  std::vector<RWSlistCollectables*> mBuckets;
  std::size_t mEntries = 0;
  // Counts every change of the buckets' contents, whoever makes it (the
  // iterator's removals included), so that a derived class can tell whether
  // what it keeps beside the buckets still matches them.
  std::size_t mChanges = 0;

 private:
  friend class RWHashTableIterator;
};

class CORVANTH_EXPORT RWHashTableIterator : public RWIterator {
 public:
  explicit RWHashTableIterator(RWHashTable& table);
  ~RWHashTableIterator() override;

  RWCollectable* findNext(RWCollectable const* probe) override;
  RWCollectable* key() const override;
  RWCollectable* operator()() override;
  void reset() override;

  // Removes the current element from the table and gives it; the next advance
  // gives the element behind it. Null when there is no current element.
  RWCollectable* remove();
  // Advances to the next element equal to `probe`, removes it and gives it.
  RWCollectable* removeNext(RWCollectable const* probe);

 protected:
  RWHashTable* table() const noexcept { return mTable; }

 private:
  RWHashTable* mTable;
  std::size_t mIndex;  // the bucket walked now: RW_NPOS before the walk, the bucket count after it
  RWSlistCollectablesIterator mBucket;
};
