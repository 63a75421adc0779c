// RWOrdered: a growable array of collectable pointers in insertion order.
// insert is append. When the array is full it grows by the growth policy
// (64 more, at least one more); clear shrinks a capacity above 64 back to 64.
// Index access at or beyond the entries throws RWBoundsErr; find, remove and
// occurrencesOf compare with each stored element's isEqual, from index 0 on.
#pragma once

#include <cstddef>

#include "CorvanthExport.h"
#include "rwseqcol.h"

class CORVANTH_EXPORT RWOrdered : public RWSequenceable {
 public:
  static constexpr RWClassID classIsA = 32808;
  static constexpr char const className[] = "RWOrdered";
  static constexpr std::size_t GROWTH_STEP = 64;

  explicit RWOrdered(std::size_t capacity = DEFAULT_CAPACITY);
  // Shares the elements: the pointers are copied, not the objects.
  RWOrdered(RWOrdered const& other);
  RWOrdered& operator=(RWOrdered const& other);
  // Frees the array, never the elements.
  ~RWOrdered() override;

  RWCollectable* newSpecies() const override;
  RWCollectable* copy() const override;
  RWClassID isA() const override;

  void apply(RWapplyCollectable function, void* data) override;
  void clear() override;
  void clearAndDestroy() override;
  std::size_t entries() const override { return mEntries; }
  RWCollectable* find(RWCollectable const* probe) const override;
  RWCollectable* insert(RWCollectable* element) override;
  bool isEmpty() const override { return mEntries == 0; }
  std::size_t occurrencesOf(RWCollectable const* probe) const override;
  RWCollectable* remove(RWCollectable const* probe) override;
  RWIterator* newIterator() override;
  RWConstIterator* newConstIterator() const override;

  RWCollectable* append(RWCollectable* element) override;
  RWCollectable* at(std::size_t index) const override;
  RWCollectable*& at(std::size_t index) override;
  RWCollectable* first() const override;
  std::size_t index(RWCollectable const* probe) const override;
  RWCollectable* insertAt(std::size_t index, RWCollectable* element) override;
  RWCollectable* last() const override;
  RWCollectable* prepend(RWCollectable* element) override;

  // insertAt(index + 1, element).
  virtual RWCollectable* insertAfter(std::size_t index, RWCollectable* element);
  // The capacity to grow to when the array is full: capacity + 64, all ones on overflow.
  virtual std::size_t growthCapacity() const;

  // Removes and gives the element at `index`; the later ones move down.
  RWCollectable* removeAt(std::size_t index);
  RWCollectable*& operator[](std::size_t index) { return at(index); }
  RWCollectable* operator[](std::size_t index) const { return at(index); }
  std::size_t capacity() const noexcept { return mCapacity; }

 private:
  void setCapacity(std::size_t capacity);

  std::size_t mEntries = 0;
  std::size_t mCapacity = 0;
  RWCollectable** mArray = nullptr;
};

class CORVANTH_EXPORT RWOrderedIterator : public RWIterator {
 public:
  explicit RWOrderedIterator(RWOrdered& ordered) : mOrdered(&ordered) {}
  ~RWOrderedIterator() override;

  RWCollectable* findNext(RWCollectable const* probe) override;
  RWCollectable* key() const override;
  RWCollectable* operator()() override;
  void reset() override { mPosition = RW_NPOS; }

 private:
  RWOrdered* mOrdered;
  std::size_t mPosition = RW_NPOS;  // RW_NPOS before the walk
};
