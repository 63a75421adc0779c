// Small helpers shared by the container tests.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "rwcollection.h"
#include "rwcollint.h"
#include "rwcollstr.h"

namespace corvanth::test {

// Counts its destructions, so that a test sees each object destroyed exactly once.
struct cCounted : RWCollectableString {
  static inline int sDestroyed = 0;
  using RWCollectableString::RWCollectableString;
  ~cCounted() override { ++sDestroyed; }
};

// A string class of its own id: equal bytes, but never equal to a plain string.
struct cOtherId : RWCollectableString {
  using RWCollectableString::RWCollectableString;
  RWClassID isA() const override { return 7; }
};

inline int gInt(RWCollectable const* element) {
  return static_cast<RWCollectableInt const*>(element)->value();
}

inline std::string gText(RWCollectable const* element) {
  return *static_cast<RWCollectableString const*>(element);
}

// The integers 0 .. count-1, owned by the test.
inline std::vector<std::unique_ptr<RWCollectableInt>> gOwnedInts(int count) {
  std::vector<std::unique_ptr<RWCollectableInt>> values;
  for (int i = 0; i < count; ++i) values.push_back(std::make_unique<RWCollectableInt>(i));
  return values;
}

// The values of a collection's integers in iteration order.
inline std::vector<int> gInts(RWCollection& collection) {
  std::vector<int> values;
  std::unique_ptr<RWIterator> const next(collection.newIterator());
  while (RWCollectable* element = (*next)()) values.push_back(gInt(element));
  return values;
}

// The texts of a collection's elements (a dictionary's keys) in iteration order.
inline std::vector<std::string> gWalk(RWCollection& collection) {
  std::vector<std::string> texts;
  std::unique_ptr<RWIterator> const next(collection.newIterator());
  while (RWCollectable* element = (*next)()) texts.push_back(gText(element));
  return texts;
}

}  // namespace corvanth::test
