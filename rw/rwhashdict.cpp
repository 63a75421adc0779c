#include "rwhashdict.h"

#include <algorithm>
#include <cstring>
#include <typeinfo>
#include <unordered_map>
#include <vector>

#include "internal/rwiterators.h"
#include "rwcollstr.h"

namespace {
RWRegisterCollectable<RWHashDictionary> const gRegister;

RWCollectableAssociation* gAssociation(RWCollectable* item) {
  return static_cast<RWCollectableAssociation*>(item);  // a dictionary stores nothing else
}

bool gIsPlainPair(RWCollectableAssociation const* pair) {
  RWCollectable const* const key = pair->key();
  return typeid(*pair) == typeid(RWCollectableAssociation) && key != nullptr &&
         typeid(*key) == typeid(RWCollectableString);
}

// The bytes of a plain pair's key.
std::string_view gKeyText(RWCollectableAssociation const* pair) {
  auto const* const key = static_cast<RWCollectableString const*>(pair->key());
  return std::string_view(key->data(), key->size());
}

// Chains shorter than this walk faster than a second hash table answers.
constexpr std::size_t kIndexPerBucket = 2;
constexpr std::size_t kIndexFrom = 32;
}  // namespace

struct RWHashDictionary::TextIndex {
  std::unordered_map<std::string_view, RWCollectableAssociation*> pairs;
  std::size_t changes = 0;  // the table's change count when the index last matched it
};

RWHashDictionary::RWHashDictionary(std::size_t capacity) : RWSet(capacity) {}

RWHashDictionary::RWHashDictionary(RWHashDictionary const& other)
    : RWSet(other.buckets()), mPlainStringPairs(other.mPlainStringPairs) {
  copyAssociations(other);
  refreshIndex();
}

RWHashDictionary& RWHashDictionary::operator=(RWHashDictionary const& other) {
  if (this != &other) {
    freeAssociations();
    mIndex.reset();
    resetBuckets(other.buckets());
    mPlainStringPairs = other.mPlainStringPairs;
    copyAssociations(other);
    refreshIndex();
  }
  return *this;
}

RWHashDictionary::~RWHashDictionary() { freeAssociations(); }

RWCollectable* RWHashDictionary::newSpecies() const { return new RWHashDictionary; }
RWCollectable* RWHashDictionary::copy() const { return new RWHashDictionary(*this); }
RWClassID RWHashDictionary::isA() const { return classIsA; }

void RWHashDictionary::apply(RWapplyCollectable function, void* data) {
  for (RWSlistCollectables* list : mBuckets)
    if (list != nullptr)
      for (auto const* link = list->head(); link != nullptr; link = link->next)
        function(gAssociation(link->item)->key(), data);
}

void RWHashDictionary::clear() {
  freeAssociations();
  mIndex.reset();
  RWSet::clear();
  mPlainStringPairs = true;
}

void RWHashDictionary::clearAndDestroy() {
  RWIdentitySet objects(std::max<std::size_t>(DEFAULT_CAPACITY, 2 * mEntries));
  for (RWSlistCollectables* list : mBuckets) {
    if (list == nullptr) continue;
    for (auto const* link = list->head(); link != nullptr; link = link->next) {
      RWCollectableAssociation const* const pair = gAssociation(link->item);
      objects.insert(pair->key());
      objects.insert(pair->value());
    }
  }
  clear();
  objects.clearAndDestroy();
}

RWCollectable* RWHashDictionary::find(RWCollectable const* key) const {
  RWCollectableAssociation const* const pair = RWHashDictionary::findAssociation(key);
  return pair != nullptr ? pair->key() : nullptr;
}

RWCollectable* RWHashDictionary::insert(RWCollectable* element) {
  if (element == nullptr) return nullptr;
  if (auto* pair = dynamic_cast<RWCollectableAssociation*>(element)) return insertAssociation(pair);
  if (RWCollectable* key = insertKeyAndValue(element, nullptr)) return key;
  return find(element);
}

RWCollectable* RWHashDictionary::remove(RWCollectable const* key) {
  RWCollectableAssociation* const pair = removeAssociation(key);
  if (pair == nullptr) return nullptr;
  RWCollectable* const stored = pair->key();
  delete pair;
  return stored;
}

void RWHashDictionary::removeAndDestroy(RWCollectable const* key) {
  RWCollectableAssociation* const pair = removeAssociation(key);
  if (pair == nullptr) return;
  RWCollectable* const storedKey = pair->key();
  RWCollectable* const value = pair->value();
  delete value;
  if (storedKey != value) delete storedKey;
  delete pair;
}

RWIterator* RWHashDictionary::newIterator() { return new RWHashDictionaryIterator(*this); }

RWConstIterator* RWHashDictionary::newConstIterator() const {
  return rwMakeConstIterator(new RWHashDictionaryIterator(const_cast<RWHashDictionary&>(*this)));
}

RWHashDictionary* RWHashDictionary::selectKey(RWtestCollectable tester, void const* data) const {
  return select(tester, data, true);
}

RWHashDictionary* RWHashDictionary::selectValue(RWtestCollectable tester, void const* data) const {
  return select(tester, data, false);
}

RWCollectableAssociation* RWHashDictionary::findAssociation(RWCollectable const* key) const {
  if (mPlainStringPairs && key != nullptr && typeid(*key) == typeid(RWCollectableString))
    return findPlainString(*static_cast<RWCollectableString const*>(key));
  return gAssociation(RWSet::find(key));
}

RWCollectableAssociation* RWHashDictionary::newAssociation(RWCollectable* key,
                                                           RWCollectable* value) const {
  return new RWCollectableAssociation(key, value);
}

RWCollectableAssociation* RWHashDictionary::removeAssociation(RWCollectable const* key) {
  bool const current = indexCurrent();
  RWCollectableAssociation* const pair = gAssociation(RWSet::remove(key));
  if (current && pair != nullptr) {
    mIndex->pairs.erase(gKeyText(pair));
    mIndex->changes = mChanges;
  }
  return pair;
}

RWCollectable* RWHashDictionary::insertKeyAndValue(RWCollectable* key, RWCollectable* value) {
  if (key == nullptr) return nullptr;
  RWCollectableAssociation* const pair = newAssociation(key, value);
  if (insertAssociation(pair) != pair) {
    delete pair;
    return nullptr;
  }
  return key;
}

RWCollectable* RWHashDictionary::findValue(RWCollectable const* key) const {
  RWCollectableAssociation const* const pair = findAssociation(key);
  return pair != nullptr ? pair->value() : nullptr;
}

RWCollectable* RWHashDictionary::findValue(RWCollectable const* key, RWCollectable* newValue) {
  RWCollectableAssociation* const pair = findAssociation(key);
  if (pair == nullptr) return nullptr;
  ++mValueExchanges;
  return pair->value(newValue);
}

void RWHashDictionary::applyToKeyAndValue(RWapplyKeyAndValue function, void* data) {
  ++mValueExchanges;
  for (RWSlistCollectables* list : mBuckets) {
    if (list == nullptr) continue;
    for (auto const* link = list->head(); link != nullptr; link = link->next) {
      RWCollectableAssociation* const pair = gAssociation(link->item);
      RWCollectable* value = pair->value();
      function(pair->key(), value, data);
      pair->value(value);
    }
  }
}

RWCollectableAssociation* RWHashDictionary::findAssociation(std::string_view key) const {
  if (mPlainStringPairs) return findPlainString(key);
  RWSlistCollectables const* const list = bucketOf(RWCString::hash(key.data(), key.size()));
  if (list == nullptr) return nullptr;
  for (auto const* link = list->head(); link != nullptr; link = link->next) {
    RWCollectable* const item = link->item;
    if (typeid(*item) == typeid(RWCollectableAssociation)) {
      // The plain pair asks the probe about its key, which for a string probe
      // is a class id and byte compare: no probe object needed.
      if (RWCollectableString::equalsText(gAssociation(item)->key(), key))
        return gAssociation(item);
    } else {
      RWCollectableString const probe(key);
      if (item->isEqual(&probe)) return gAssociation(item);
    }
  }
  return nullptr;
}

RWCollectable* RWHashDictionary::findValue(std::string_view key) const {
  RWCollectableAssociation const* const pair = findAssociation(key);
  return pair != nullptr ? pair->value() : nullptr;
}

RWCollectable* RWHashDictionary::findKey(std::string_view key) const {
  RWCollectableAssociation const* const pair = findAssociation(key);
  return pair != nullptr ? pair->key() : nullptr;
}

RWCollectable* RWHashDictionary::insertAssociation(RWCollectableAssociation* pair) {
  bool const plain = gIsPlainPair(pair);
  if (mPlainStringPairs && plain) {
    if (!indexCurrent()) refreshIndex();
    if (indexCurrent()) {
      std::string_view const text = gKeyText(pair);
      auto const [slot, added] = mIndex->pairs.try_emplace(text, pair);
      if (!added) return slot->second;
      try {
        appendToBucket(RWCString::hash(text.data(), text.size()), pair);
      } catch (...) {
        mIndex->pairs.erase(slot);
        throw;
      }
      mIndex->changes = mChanges;
      return pair;
    }
  }
  RWCollectable* const stored = RWSet::insert(pair);
  if (stored == pair && mPlainStringPairs && !plain) {
    mPlainStringPairs = false;
    mIndex.reset();
  }
  return stored;
}

bool RWHashDictionary::indexCurrent() const noexcept {
  return mIndex != nullptr && mIndex->changes == mChanges;
}

void RWHashDictionary::refreshIndex() {
  if (!mPlainStringPairs || mEntries < kIndexFrom || mEntries <= kIndexPerBucket * mBuckets.size()) {
    mIndex.reset();
    return;
  }
  if (mIndex == nullptr) mIndex = std::make_unique<TextIndex>();
  mIndex->pairs.clear();
  mIndex->pairs.reserve(mEntries);
  // Bucket by bucket in chain order, so that of two equal keys the first found wins, as in a walk.
  for (RWSlistCollectables const* list : mBuckets)
    if (list != nullptr)
      for (auto const* link = list->head(); link != nullptr; link = link->next)
        mIndex->pairs.try_emplace(gKeyText(gAssociation(link->item)), gAssociation(link->item));
  mIndex->changes = mChanges;
}

RWCollectableAssociation* RWHashDictionary::findPlainString(std::string_view key) const {
  if (indexCurrent()) {
    auto const found = mIndex->pairs.find(key);
    return found != mIndex->pairs.end() ? found->second : nullptr;
  }
  RWSlistCollectables const* const list = bucketOf(RWCString::hash(key.data(), key.size()));
  if (list == nullptr) return nullptr;
  for (auto const* link = list->head(); link != nullptr; link = link->next) {
    RWCollectableAssociation* const pair = gAssociation(link->item);
    auto const* const stored = static_cast<RWCollectableString const*>(pair->key());
    if (stored->size() == key.size() &&
        (key.empty() || std::memcmp(stored->data(), key.data(), key.size()) == 0))
      return pair;
  }
  return nullptr;
}

void RWHashDictionary::freeAssociations() {
  for (RWSlistCollectables* list : mBuckets)
    if (list != nullptr)
      for (auto const* link = list->head(); link != nullptr; link = link->next)
        delete gAssociation(link->item);
}

void RWHashDictionary::copyAssociations(RWHashDictionary const& other) {
  for (std::size_t index = 0; index < other.mBuckets.size(); ++index) {
    if (other.mBuckets[index] == nullptr) continue;
    for (auto const* link = other.mBuckets[index]->head(); link != nullptr; link = link->next) {
      RWCollectableAssociation const* const pair = gAssociation(link->item);
      appendToBucketAt(index, new RWCollectableAssociation(pair->key(), pair->value()));
    }
  }
}

RWHashDictionary* RWHashDictionary::select(RWtestCollectable tester, void const* data,
                                           bool byKey) const {
  auto* const selection = new RWHashDictionary(buckets());
  selection->mPlainStringPairs = mPlainStringPairs;
  for (std::size_t index = 0; index < mBuckets.size(); ++index) {
    if (mBuckets[index] == nullptr) continue;
    for (auto const* link = mBuckets[index]->head(); link != nullptr; link = link->next) {
      RWCollectableAssociation const* const pair = gAssociation(link->item);
      if (tester(byKey ? pair->key() : pair->value(), data))
        selection->appendToBucketAt(index,
                                    new RWCollectableAssociation(pair->key(), pair->value()));
    }
  }
  selection->refreshIndex();
  return selection;
}

// --- iterator ---------------------------------------------------------------

RWHashDictionaryIterator::~RWHashDictionaryIterator() = default;

RWCollectableAssociation* RWHashDictionaryIterator::association() const {
  return gAssociation(RWSetIterator::key());
}

RWCollectable* RWHashDictionaryIterator::findNext(RWCollectable const* key) {
  RWCollectable* const item = RWSetIterator::findNext(key);
  return item != nullptr ? gAssociation(item)->key() : nullptr;
}

RWCollectable* RWHashDictionaryIterator::key() const {
  RWCollectableAssociation const* const pair = association();
  return pair != nullptr ? pair->key() : nullptr;
}

RWCollectable* RWHashDictionaryIterator::operator()() {
  RWCollectable* const item = RWSetIterator::operator()();
  return item != nullptr ? gAssociation(item)->key() : nullptr;
}

RWCollectable* RWHashDictionaryIterator::value() const {
  RWCollectableAssociation const* const pair = association();
  return pair != nullptr ? pair->value() : nullptr;
}

RWCollectable* RWHashDictionaryIterator::value(RWCollectable* newValue) const {
  RWCollectableAssociation* const pair = association();
  if (pair == nullptr) return nullptr;
  ++static_cast<RWHashDictionary*>(table())->mValueExchanges;
  return pair->value(newValue);
}

RWCollectable* RWHashDictionaryIterator::remove() {
  RWCollectableAssociation* const pair = gAssociation(RWSetIterator::remove());
  if (pair == nullptr) return nullptr;
  RWCollectable* const key = pair->key();
  delete pair;
  return key;
}
