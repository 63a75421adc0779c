#include "rwordered.h"

#include <algorithm>
#include <limits>

#include "internal/rwiterators.h"
#include "rwerr.h"

namespace {
RWRegisterCollectable<RWOrdered> const gRegister;
}

RWOrdered::RWOrdered(std::size_t capacity) { setCapacity(capacity); }

RWOrdered::RWOrdered(RWOrdered const& other) : RWSequenceable(other) {
  setCapacity(other.mCapacity);
  std::copy_n(other.mArray, other.mEntries, mArray);
  mEntries = other.mEntries;
}

RWOrdered& RWOrdered::operator=(RWOrdered const& other) {
  if (this != &other) {
    auto** const array = new RWCollectable*[std::max<std::size_t>(other.mCapacity, 1)];
    std::copy_n(other.mArray, other.mEntries, array);
    delete[] mArray;
    mArray = array;
    mCapacity = other.mCapacity;
    mEntries = other.mEntries;
  }
  return *this;
}

RWOrdered::~RWOrdered() { delete[] mArray; }

RWCollectable* RWOrdered::newSpecies() const { return new RWOrdered; }
RWCollectable* RWOrdered::copy() const { return new RWOrdered(*this); }
RWClassID RWOrdered::isA() const { return classIsA; }

void RWOrdered::apply(RWapplyCollectable function, void* data) {
  for (std::size_t i = 0; i < mEntries; ++i) function(mArray[i], data);
}

void RWOrdered::clear() {
  mEntries = 0;
  if (mCapacity > DEFAULT_CAPACITY) setCapacity(DEFAULT_CAPACITY);
}

void RWOrdered::clearAndDestroy() {
  RWOrdered const items(*this);
  clear();
  rwDestroyDistinct(items.mArray, items.mEntries);
}

RWCollectable* RWOrdered::find(RWCollectable const* probe) const {
  std::size_t const at = index(probe);
  return at != RW_NPOS ? mArray[at] : nullptr;
}

RWCollectable* RWOrdered::insert(RWCollectable* element) { return append(element); }

std::size_t RWOrdered::occurrencesOf(RWCollectable const* probe) const {
  std::size_t count = 0;
  for (std::size_t i = 0; i < mEntries; ++i)
    if (mArray[i] != nullptr && mArray[i]->isEqual(probe)) ++count;
  return count;
}

RWCollectable* RWOrdered::remove(RWCollectable const* probe) {
  std::size_t const at = index(probe);
  return at != RW_NPOS ? removeAt(at) : nullptr;
}

RWIterator* RWOrdered::newIterator() { return new RWOrderedIterator(*this); }

RWConstIterator* RWOrdered::newConstIterator() const {
  return rwMakeConstIterator(new RWOrderedIterator(const_cast<RWOrdered&>(*this)));
}

RWCollectable* RWOrdered::append(RWCollectable* element) { return insertAt(mEntries, element); }

RWCollectable* RWOrdered::at(std::size_t index) const {
  if (index >= mEntries) rwThrowBoundsErr(index, mEntries);
  return mArray[index];
}

RWCollectable*& RWOrdered::at(std::size_t index) {
  if (index >= mEntries) rwThrowBoundsErr(index, mEntries);
  return mArray[index];
}

RWCollectable* RWOrdered::first() const { return mEntries != 0 ? mArray[0] : nullptr; }
RWCollectable* RWOrdered::last() const { return mEntries != 0 ? mArray[mEntries - 1] : nullptr; }

std::size_t RWOrdered::index(RWCollectable const* probe) const {
  for (std::size_t i = 0; i < mEntries; ++i)
    if (mArray[i] != nullptr && mArray[i]->isEqual(probe)) return i;
  return RW_NPOS;
}

RWCollectable* RWOrdered::insertAt(std::size_t index, RWCollectable* element) {
  if (index > mEntries) rwThrowBoundsErr(index, mEntries);
  if (mEntries == mCapacity) {
    std::size_t const grown = growthCapacity();
    setCapacity(grown > mCapacity ? grown : mCapacity + 1);
  }
  std::copy_backward(mArray + index, mArray + mEntries, mArray + mEntries + 1);
  mArray[index] = element;
  ++mEntries;
  return element;
}

RWCollectable* RWOrdered::prepend(RWCollectable* element) { return insertAt(0, element); }

RWCollectable* RWOrdered::insertAfter(std::size_t index, RWCollectable* element) {
  // All ones stays all ones, so that it is refused as "no position", not taken as 0.
  return insertAt(index == RW_NPOS ? RW_NPOS : index + 1, element);
}

std::size_t RWOrdered::growthCapacity() const {
  std::size_t constexpr most = std::numeric_limits<std::size_t>::max();
  return mCapacity > most - GROWTH_STEP ? most : mCapacity + GROWTH_STEP;
}

RWCollectable* RWOrdered::removeAt(std::size_t index) {
  if (index >= mEntries) rwThrowBoundsErr(index, mEntries);
  RWCollectable* const removed = mArray[index];
  std::copy(mArray + index + 1, mArray + mEntries, mArray + index);
  --mEntries;
  return removed;
}

void RWOrdered::setCapacity(std::size_t capacity) {
  // A capacity of 0 still gets an array, so that mArray is never null.
  auto** const array = new RWCollectable*[std::max<std::size_t>(capacity, 1)];
  std::copy_n(mArray, mEntries, array);
  delete[] mArray;
  mArray = array;
  mCapacity = capacity;
}

// --- iterator ---------------------------------------------------------------

RWOrderedIterator::~RWOrderedIterator() = default;

RWCollectable* RWOrderedIterator::operator()() {
  std::size_t const next = mPosition == RW_NPOS ? 0 : mPosition + 1;
  if (next >= mOrdered->entries()) {
    mPosition = mOrdered->entries();
    return nullptr;
  }
  mPosition = next;
  return mOrdered->at(mPosition);
}

RWCollectable* RWOrderedIterator::findNext(RWCollectable const* probe) {
  while (RWCollectable* element = RWOrderedIterator::operator()())
    if (element->isEqual(probe)) return element;
  return nullptr;
}

RWCollectable* RWOrderedIterator::key() const {
  return mPosition < mOrdered->entries() ? mOrdered->at(mPosition) : nullptr;
}
