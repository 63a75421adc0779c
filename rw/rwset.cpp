#include "rwset.h"

#include <vector>

namespace {
RWRegisterCollectable<RWSet> const gRegisterSet;
RWRegisterCollectable<RWIdentitySet> const gRegisterIdentitySet;
}  // namespace

RWSet::~RWSet() = default;
RWCollectable* RWSet::newSpecies() const { return new RWSet; }
RWCollectable* RWSet::copy() const { return new RWSet(*this); }
RWClassID RWSet::isA() const { return classIsA; }

RWCollectable* RWSet::insert(RWCollectable* element) {
  if (element == nullptr) return nullptr;
  unsigned const hash = element->hash();
  if (RWCollectable* stored = findInBucket(hash, element)) return stored;
  appendToBucket(hash, element);
  return element;
}

RWIterator* RWSet::newIterator() { return new RWSetIterator(*this); }

RWSetIterator::~RWSetIterator() = default;
void RWSetIterator::settle() {}

// --- identity set -----------------------------------------------------------

RWIdentitySet::~RWIdentitySet() = default;
RWCollectable* RWIdentitySet::newSpecies() const { return new RWIdentitySet; }
RWCollectable* RWIdentitySet::copy() const { return new RWIdentitySet(*this); }
RWClassID RWIdentitySet::isA() const { return classIsA; }

void RWIdentitySet::clearAndDestroy() {
  std::vector<RWCollectable*> items;
  items.reserve(mEntries);
  for (RWSlistCollectables* list : mBuckets)
    if (list != nullptr)
      for (auto const* link = list->head(); link != nullptr; link = link->next)
        items.push_back(link->item);
  clear();
  for (RWCollectable* item : items) delete item;
}

RWCollectable* RWIdentitySet::find(RWCollectable const* probe) const {
  if (probe == nullptr) return nullptr;
  RWSlistCollectables const* const list = bucketOf(identityHash(probe));
  if (list == nullptr) return nullptr;
  for (auto const* link = list->head(); link != nullptr; link = link->next)
    if (link->item == probe) return link->item;
  return nullptr;
}

RWCollectable* RWIdentitySet::insert(RWCollectable* element) {
  if (element == nullptr) return nullptr;
  if (RWCollectable* stored = RWIdentitySet::find(element)) return stored;
  appendToBucket(identityHash(element), element);
  return element;
}

std::size_t RWIdentitySet::occurrencesOf(RWCollectable const* probe) const {
  return RWIdentitySet::find(probe) != nullptr ? 1 : 0;
}

RWCollectable* RWIdentitySet::remove(RWCollectable const* probe) {
  if (probe == nullptr) return nullptr;
  RWSlistCollectables* const list = bucketOf(identityHash(probe));
  if (list == nullptr) return nullptr;
  std::size_t position = 0;
  for (auto const* link = list->head(); link != nullptr; link = link->next, ++position) {
    if (link->item == probe) {
      --mEntries;
      ++mChanges;
      return list->removeAt(position);
    }
  }
  return nullptr;
}
