#include "rwhashtab.h"

#include <vector>

#include "internal/rwiterators.h"

namespace {
RWRegisterCollectable<RWHashTable> const gRegister;
}

RWHashTable::RWHashTable(std::size_t capacity) { resetBuckets(capacity); }

RWHashTable::RWHashTable(RWHashTable const& other) : RWCollection(other) { copyBuckets(other); }

RWHashTable& RWHashTable::operator=(RWHashTable const& other) {
  if (this != &other) copyBuckets(other);
  return *this;
}

RWHashTable::~RWHashTable() {
  for (RWSlistCollectables* list : mBuckets) delete list;
}

RWCollectable* RWHashTable::newSpecies() const { return new RWHashTable; }
RWCollectable* RWHashTable::copy() const { return new RWHashTable(*this); }
RWClassID RWHashTable::isA() const { return classIsA; }

void RWHashTable::apply(RWapplyCollectable function, void* data) {
  for (RWSlistCollectables* list : mBuckets)
    if (list != nullptr) list->apply(function, data);
}

void RWHashTable::clear() { resetBuckets(mBuckets.size()); }

void RWHashTable::clearAndDestroy() {
  std::vector<RWCollectable*> items;
  items.reserve(mEntries);
  for (RWSlistCollectables* list : mBuckets)
    if (list != nullptr)
      for (auto const* link = list->head(); link != nullptr; link = link->next)
        items.push_back(link->item);
  clear();
  rwDestroyDistinct(items.data(), items.size());
}

bool RWHashTable::contains(RWCollectable const* probe) const { return find(probe) != nullptr; }

RWCollectable* RWHashTable::find(RWCollectable const* probe) const {
  return probe != nullptr ? findInBucket(probe->hash(), probe) : nullptr;
}

RWCollectable* RWHashTable::insert(RWCollectable* element) {
  if (element == nullptr) return nullptr;
  appendToBucket(element->hash(), element);
  return element;
}

std::size_t RWHashTable::occurrencesOf(RWCollectable const* probe) const {
  if (probe == nullptr) return 0;
  RWSlistCollectables const* const list = bucketOf(probe->hash());
  return list != nullptr ? list->occurrencesOf(probe) : 0;
}

RWCollectable* RWHashTable::remove(RWCollectable const* probe) {
  return probe != nullptr ? removeFromBucket(bucketOf(probe->hash()), probe) : nullptr;
}

RWIterator* RWHashTable::newIterator() { return new RWHashTableIterator(*this); }

RWConstIterator* RWHashTable::newConstIterator() const {
  return rwMakeConstIterator(new RWHashTableIterator(const_cast<RWHashTable&>(*this)));
}

void RWHashTable::resize(unsigned int buckets) {
  if (buckets == 0) buckets = mEntries < 12 ? 16u : static_cast<unsigned int>(mEntries * 3 / 2);
  std::vector<RWSlistCollectables*> old(buckets, nullptr);
  old.swap(mBuckets);
  mEntries = 0;
  ++mChanges;
  for (RWSlistCollectables* list : old) {
    if (list == nullptr) continue;
    for (auto const* link = list->head(); link != nullptr; link = link->next) insert(link->item);
    delete list;
  }
}

void RWHashTable::appendToBucketAt(std::size_t index, RWCollectable* element) {
  RWSlistCollectables*& list = mBuckets[index];
  if (list == nullptr) list = new RWSlistCollectables;
  list->append(element);
  ++mEntries;
  ++mChanges;
}

RWCollectable* RWHashTable::findInBucket(unsigned hash, RWCollectable const* probe) const {
  RWSlistCollectables const* const list = bucketOf(hash);
  if (list == nullptr) return nullptr;
  for (auto const* link = list->head(); link != nullptr; link = link->next)
    if (link->item->isEqual(probe)) return link->item;
  return nullptr;
}

RWCollectable* RWHashTable::removeFromBucket(RWSlistCollectables* list,
                                             RWCollectable const* probe) {
  if (list == nullptr) return nullptr;
  RWCollectable* const removed = list->remove(probe);
  if (removed != nullptr) {
    --mEntries;
    ++mChanges;
  }
  return removed;
}

void RWHashTable::resetBuckets(std::size_t count) {
  for (RWSlistCollectables* list : mBuckets) delete list;
  mBuckets.assign(count != 0 ? count : 2, nullptr);
  mEntries = 0;
  ++mChanges;
}

void RWHashTable::copyBuckets(RWHashTable const& other) {
  resetBuckets(other.mBuckets.size());
  for (std::size_t index = 0; index < other.mBuckets.size(); ++index)
    if (other.mBuckets[index] != nullptr)
      mBuckets[index] = new RWSlistCollectables(*other.mBuckets[index]);
  mEntries = other.mEntries;
}

// --- iterator ---------------------------------------------------------------

RWHashTableIterator::RWHashTableIterator(RWHashTable& table) : mTable(&table), mIndex(RW_NPOS) {}
RWHashTableIterator::~RWHashTableIterator() = default;

RWCollectable* RWHashTableIterator::operator()() {
  std::size_t const count = mTable->mBuckets.size();
  if (mIndex == RW_NPOS) {
    mIndex = 0;
  } else if (mIndex < count) {
    if (RWCollectable* element = mBucket()) return element;
    ++mIndex;
  } else {
    return nullptr;
  }
  for (; mIndex < count; ++mIndex) {
    RWSlistCollectables* const list = mTable->mBuckets[mIndex];
    if (list == nullptr) continue;
    mBucket.reset(*list);
    if (RWCollectable* element = mBucket()) return element;
  }
  return nullptr;
}

RWCollectable* RWHashTableIterator::findNext(RWCollectable const* probe) {
  while (RWCollectable* element = RWHashTableIterator::operator()())
    if (element->isEqual(probe)) return element;
  return nullptr;
}

RWCollectable* RWHashTableIterator::key() const {
  return mIndex < mTable->mBuckets.size() ? mBucket.key() : nullptr;
}

void RWHashTableIterator::reset() { mIndex = RW_NPOS; }

RWCollectable* RWHashTableIterator::remove() {
  if (mIndex >= mTable->mBuckets.size()) return nullptr;
  RWCollectable* const removed = mBucket.remove();
  if (removed != nullptr) {
    --mTable->mEntries;
    ++mTable->mChanges;
  }
  return removed;
}

RWCollectable* RWHashTableIterator::removeNext(RWCollectable const* probe) {
  return RWHashTableIterator::findNext(probe) != nullptr ? remove() : nullptr;
}
