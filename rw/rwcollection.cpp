#include "rwcollection.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "internal/rwiterators.h"
#include "rwseqcol.h"
#include "rwset.h"

RWIterator::~RWIterator() = default;
RWConstIterator::~RWConstIterator() = default;

RWCollection::~RWCollection() = default;
RWClassID RWCollection::isA() const { return classIsA; }

void RWCollection::clearAndDestroy() {
  std::vector<RWCollectable*> items;
  items.reserve(entries());
  std::unique_ptr<RWIterator> const walk(newIterator());
  while (RWCollectable* element = (*walk)()) items.push_back(element);
  clear();
  rwDestroyDistinct(items.data(), items.size());
}

bool RWCollection::contains(RWCollectable const* probe) const { return find(probe) != nullptr; }
bool RWCollection::isEmpty() const { return entries() == 0; }

void RWCollection::removeAndDestroy(RWCollectable const* probe) { delete remove(probe); }

RWSequenceable::~RWSequenceable() = default;
RWClassID RWSequenceable::isA() const { return classIsA; }

namespace {

class cConstIterator final : public RWConstIterator {
 public:
  explicit cConstIterator(RWIterator* iterator) : mIterator(iterator) {}
  RWCollectable const* findNext(RWCollectable const* probe) override {
    return mIterator->findNext(probe);
  }
  RWCollectable const* key() const override { return mIterator->key(); }
  RWCollectable const* operator()() override { return (*mIterator)(); }
  void reset() override { mIterator->reset(); }

 private:
  std::unique_ptr<RWIterator> mIterator;
};

}  // namespace

RWConstIterator* rwMakeConstIterator(RWIterator* iterator) { return new cConstIterator(iterator); }

void rwDestroyDistinct(RWCollectable* const* objects, std::size_t count) {
  RWIdentitySet distinct(std::max<std::size_t>(RWCollection::DEFAULT_CAPACITY, 2 * count));
  for (std::size_t i = 0; i < count; ++i) distinct.insert(objects[i]);
  distinct.clearAndDestroy();
}
