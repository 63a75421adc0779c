#include "rwslist.h"

#include <vector>

#include "internal/rwiterators.h"
#include "rwerr.h"

namespace {
RWRegisterCollectable<RWSlistCollectables> const gRegister;
}

RWSlistCollectables::RWSlistCollectables(RWSlistCollectables const& other) : RWSequenceable(other) {
  for (Link const* link = other.mHead; link != nullptr; link = link->next) append(link->item);
}

RWSlistCollectables& RWSlistCollectables::operator=(RWSlistCollectables const& other) {
  if (this != &other) {
    clear();
    for (Link const* link = other.mHead; link != nullptr; link = link->next) append(link->item);
  }
  return *this;
}

RWSlistCollectables::~RWSlistCollectables() { RWSlistCollectables::clear(); }

RWCollectable* RWSlistCollectables::newSpecies() const { return new RWSlistCollectables; }
RWCollectable* RWSlistCollectables::copy() const { return new RWSlistCollectables(*this); }
RWClassID RWSlistCollectables::isA() const { return classIsA; }

void RWSlistCollectables::apply(RWapplyCollectable function, void* data) {
  for (Link* link = mHead; link != nullptr; link = link->next) function(link->item, data);
}

void RWSlistCollectables::clear() {
  for (Link* link = mHead; link != nullptr;) {
    Link* const next = link->next;
    freeLink(link);
    link = next;
  }
  mHead = mTail = nullptr;
  mEntries = 0;
}

void RWSlistCollectables::clearAndDestroy() {
  std::vector<RWCollectable*> items;
  items.reserve(mEntries);
  for (Link* link = mHead; link != nullptr; link = link->next) items.push_back(link->item);
  clear();
  rwDestroyDistinct(items.data(), items.size());
}

RWCollectable* RWSlistCollectables::find(RWCollectable const* probe) const {
  for (Link* link = mHead; link != nullptr; link = link->next)
    if (link->item != nullptr && link->item->isEqual(probe)) return link->item;
  return nullptr;
}

RWCollectable* RWSlistCollectables::insert(RWCollectable* element) { return append(element); }

std::size_t RWSlistCollectables::occurrencesOf(RWCollectable const* probe) const {
  std::size_t count = 0;
  for (Link* link = mHead; link != nullptr; link = link->next)
    if (link->item != nullptr && link->item->isEqual(probe)) ++count;
  return count;
}

RWCollectable* RWSlistCollectables::remove(RWCollectable const* probe) {
  for (Link *previous = nullptr, *link = mHead; link != nullptr; previous = link, link = link->next)
    if (link->item != nullptr && link->item->isEqual(probe)) return unlink(previous, link);
  return nullptr;
}

RWIterator* RWSlistCollectables::newIterator() { return new RWSlistCollectablesIterator(*this); }

RWConstIterator* RWSlistCollectables::newConstIterator() const {
  return rwMakeConstIterator(
      new RWSlistCollectablesIterator(const_cast<RWSlistCollectables&>(*this)));
}

RWCollectable* RWSlistCollectables::append(RWCollectable* element) {
  Link* const link = newLink(nullptr, element);
  if (mTail != nullptr)
    mTail->next = link;
  else
    mHead = link;
  mTail = link;
  ++mEntries;
  return element;
}

RWCollectable* RWSlistCollectables::at(std::size_t index) const {
  return const_cast<RWSlistCollectables*>(this)->at(index);
}

RWCollectable*& RWSlistCollectables::at(std::size_t index) {
  if (index >= mEntries) rwThrowBoundsErr(index, mEntries);
  Link* link = mHead;
  while (index-- > 0) link = link->next;
  return link->item;
}

std::size_t RWSlistCollectables::index(RWCollectable const* probe) const {
  std::size_t position = 0;
  for (Link* link = mHead; link != nullptr; link = link->next, ++position)
    if (link->item != nullptr && link->item->isEqual(probe)) return position;
  return RW_NPOS;
}

RWCollectable* RWSlistCollectables::insertAt(std::size_t index, RWCollectable* element) {
  if (index > mEntries) rwThrowBoundsErr(index, mEntries);
  if (index == mEntries) return append(element);
  if (index == 0) return prepend(element);
  Link* previous = mHead;
  while (--index > 0) previous = previous->next;
  previous->next = newLink(previous->next, element);
  ++mEntries;
  return element;
}

RWCollectable* RWSlistCollectables::prepend(RWCollectable* element) {
  mHead = newLink(mHead, element);
  if (mTail == nullptr) mTail = mHead;
  ++mEntries;
  return element;
}

RWCollectable* RWSlistCollectables::get() {
  return mHead != nullptr ? unlink(nullptr, mHead) : nullptr;
}

RWCollectable* RWSlistCollectables::removeAt(std::size_t index) {
  if (index >= mEntries) rwThrowBoundsErr(index, mEntries);
  Link* previous = nullptr;
  Link* link = mHead;
  while (index-- > 0) {
    previous = link;
    link = link->next;
  }
  return unlink(previous, link);
}

RWCollectable* RWSlistCollectables::unlink(Link* previous, Link* link) {
  (previous != nullptr ? previous->next : mHead) = link->next;
  if (mTail == link) mTail = previous;
  --mEntries;
  RWCollectable* const item = link->item;
  freeLink(link);
  return item;
}

RWSlistCollectables::Link* RWSlistCollectables::newLink(Link* next, RWCollectable* item) {
  if (mInlineInUse) return new Link{next, item};
  mInlineInUse = true;
  mInline = Link{next, item};
  return &mInline;
}

void RWSlistCollectables::freeLink(Link* link) {
  if (link == &mInline)
    mInlineInUse = false;
  else
    delete link;
}

// --- iterator ---------------------------------------------------------------

RWSlistCollectablesIterator::~RWSlistCollectablesIterator() = default;

RWCollectable* RWSlistCollectablesIterator::operator()() {
  switch (mState) {
    case eBefore:
      mPrevious = nullptr;
      mCurrent = mList != nullptr ? mList->mHead : nullptr;
      break;
    case eOn:
      mPrevious = mCurrent;
      mCurrent = mCurrent->next;
      break;
    case eRemoved:
      mCurrent = mPrevious != nullptr ? mPrevious->next : mList->mHead;
      break;
    case eEnd:
      return nullptr;
  }
  if (mCurrent == nullptr) {
    mState = eEnd;
    return nullptr;
  }
  mState = eOn;
  return mCurrent->item;
}

RWCollectable* RWSlistCollectablesIterator::findNext(RWCollectable const* probe) {
  while (RWCollectable* element = (*this)())
    if (element->isEqual(probe)) return element;
  return nullptr;
}

RWCollectable* RWSlistCollectablesIterator::key() const {
  return mState == eOn ? mCurrent->item : nullptr;
}

RWCollectable* RWSlistCollectablesIterator::remove() {
  if (mState != eOn) return nullptr;
  RWCollectable* const item = mList->unlink(mPrevious, mCurrent);
  mCurrent = nullptr;
  mState = eRemoved;
  return item;
}
