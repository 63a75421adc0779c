// RWSlistCollectables: a singly linked list of collectable pointers, with
// append at the tail in constant time. It is the bucket list of the hash
// tables, and a sequenceable collection of its own. Owns its links, never the
// elements. One link lives inside the list object itself: most buckets hold
// one element, and a lookup then reaches it without another cache miss.
#pragma once

#include <cstddef>

#include "CorvanthExport.h"
#include "rwseqcol.h"

class RWSlistCollectablesIterator;

class CORVANTH_EXPORT RWSlistCollectables : public RWSequenceable {
 public:
  static constexpr RWClassID classIsA = 32819;
  static constexpr char const className[] = "RWSlistCollectables";

  struct Link {
    Link* next;
    RWCollectable* item;
  };

  RWSlistCollectables() = default;
  RWSlistCollectables(RWSlistCollectables const& other);
  RWSlistCollectables& operator=(RWSlistCollectables const& other);
  ~RWSlistCollectables() override;

  RWCollectable* newSpecies() const override;
  RWCollectable* copy() const override;
  RWClassID isA() const override;

  void apply(RWapplyCollectable function, void* data) override;
  void clear() override;
  void clearAndDestroy() override;
  std::size_t entries() const override { return mEntries; }
  RWCollectable* find(RWCollectable const* probe) const override;
  RWCollectable* insert(RWCollectable* element) override;  // append
  std::size_t occurrencesOf(RWCollectable const* probe) const override;
  RWCollectable* remove(RWCollectable const* probe) override;
  RWIterator* newIterator() override;
  RWConstIterator* newConstIterator() const override;

  RWCollectable* append(RWCollectable* element) override;
  RWCollectable* at(std::size_t index) const override;
  RWCollectable*& at(std::size_t index) override;
  RWCollectable* first() const override { return mHead != nullptr ? mHead->item : nullptr; }
  std::size_t index(RWCollectable const* probe) const override;
  RWCollectable* insertAt(std::size_t index, RWCollectable* element) override;
  RWCollectable* last() const override { return mTail != nullptr ? mTail->item : nullptr; }
  RWCollectable* prepend(RWCollectable* element) override;

  // Removes and gives the first element, or null when empty.
  RWCollectable* get();
  // Removes and gives the element at `index`. REQUIRES: index < entries(); otherwise RWBoundsErr.
  RWCollectable* removeAt(std::size_t index);

  // The first link, for walks that must not pay a virtual call per element.
  Link const* head() const noexcept { return mHead; }

 private:
  friend class RWSlistCollectablesIterator;
  RWCollectable* unlink(Link* previous, Link* link);
  Link* newLink(Link* next, RWCollectable* item);
  void freeLink(Link* link);

  Link* mHead = nullptr;
  Link* mTail = nullptr;
  std::size_t mEntries = 0;
  Link mInline{nullptr, nullptr};
  bool mInlineInUse = false;
};

// Walks a list; can remove the current element and carry on behind it.
class CORVANTH_EXPORT RWSlistCollectablesIterator final : public RWIterator {
 public:
  RWSlistCollectablesIterator() = default;
  explicit RWSlistCollectablesIterator(RWSlistCollectables& list) : mList(&list) {}
  ~RWSlistCollectablesIterator() override;

  RWCollectable* findNext(RWCollectable const* probe) override;
  RWCollectable* key() const override;
  RWCollectable* operator()() override;
  void reset() override { mState = eBefore; }

  // Starts a new walk over `list`.
  void reset(RWSlistCollectables& list) {
    mList = &list;
    mState = eBefore;
  }
  // Removes the current element and gives it (null when there is none); the
  // next advance gives the element behind it.
  RWCollectable* remove();

 private:
  enum tState { eBefore, eOn, eRemoved, eEnd };
  RWSlistCollectables* mList = nullptr;
  RWSlistCollectables::Link* mPrevious = nullptr;  // the link before mCurrent, null at the head
  RWSlistCollectables::Link* mCurrent = nullptr;
  tState mState = eBefore;
};
