// Small helpers shared by the container tests.
#pragma once

#include <memory>
#include <string>
#include <type_traits>
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

// A collection's integers or texts (a dictionary's keys) in iteration order.
template <class tValue = std::string>
std::vector<tValue> gWalk(RWCollection& collection) {
  std::vector<tValue> values;
  std::unique_ptr<RWIterator> const next(collection.newIterator());
  while (RWCollectable* element = (*next)()) {
    if constexpr (std::is_same_v<tValue, int>) values.push_back(gInt(element));
    else values.push_back(gText(element));
  }
  return values;
}

}  // namespace corvanth::test
