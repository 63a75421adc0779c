#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ContainerHelpers.h"
#include "rwhashtab.h"
#include "rwset.h"

namespace {

using namespace corvanth::test;

TEST(HashTable, IteratesByHashModuloBucketsThenInsertionOrderAndOnlyResizeRegroups) {
  RWCollectableString a("a"), abcd("abcd"), abcde("abcde");
  RWHashTable table(11);  // "a" in bucket 10, "abcd" and "abcde" in bucket 7
  for (RWCollectableString* each : {&a, &abcd, &abcde}) table.insert(each);
  EXPECT_EQ(gWalk(table), (std::vector<std::string>{"abcd", "abcde", "a"}));

  auto const values = gOwnedInts(12);
  RWHashTable two(0);  // two buckets, however many entries
  for (auto const& value : values) two.insert(value.get());
  EXPECT_EQ(gInts(two), (std::vector<int>{0, 2, 4, 6, 8, 10, 1, 3, 5, 7, 9, 11}));
  two.resize(3);  // reinserted from the old buckets in order
  EXPECT_EQ(gInts(two), (std::vector<int>{0, 6, 3, 9, 4, 10, 1, 7, 2, 8, 5, 11}));
  two.resize(0);  // 12 entries: 18 buckets
  EXPECT_EQ(gInts(two), (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
  for (auto const& value : values) EXPECT_EQ(two.find(value.get()), value.get());
}

TEST(HashTable, IteratorRemovalUncountsAndTheWalkGoesOnBehindIt) {
  auto const values = gOwnedInts(6);
  RWHashTable table(2);
  for (auto const& value : values) table.insert(value.get());
  // Order: 0 2 4 | 1 3 5. Take out every element divisible by 4, and the last of a bucket.
  RWHashTableIterator next(table);
  std::vector<int> seen;
  while (RWCollectable* element = next()) {
    seen.push_back(gInt(element));
    if (gInt(element) % 4 == 0 || gInt(element) == 5) {
      EXPECT_EQ(next.remove(), element);
      EXPECT_EQ(next.remove(), nullptr);  // nothing current after a removal
    }
  }
  EXPECT_EQ(seen, (std::vector<int>{0, 2, 4, 1, 3, 5}));
  EXPECT_EQ(next(), nullptr);  // stays at the end
  RWCollectableInt seven(7), three(3);
  table.insert(&seven);  // after the removal of a bucket's tail, appends to the right list
  EXPECT_EQ(gInts(table), (std::vector<int>{2, 1, 3, 7}));
  next.reset();
  EXPECT_EQ(next.removeNext(&three), values[3].get());
  EXPECT_EQ(table.entries(), 3u);
}

TEST(HashTable, ClearAndDestroyDestroysAnObjectInsertedTwiceOnce) {
  cCounted::sDestroyed = 0;
  RWHashTable table;
  auto* twice = new cCounted("twice");
  table.insert(twice);
  table.insert(twice);
  table.insert(new cCounted("once"));  // a table always adds, a set keeps the first equal
  RWSet set;
  RWCollectableString equal("twice");
  EXPECT_EQ(set.insert(twice), twice);
  EXPECT_EQ(set.insert(&equal), twice);
  EXPECT_EQ(set.entries(), 1u);
  RWHashTable copy(table);
  copy.remove(twice);
  EXPECT_EQ(gWalk(table), (std::vector<std::string>{"twice", "twice", "once"}));  // its own lists
  table.clearAndDestroy();
  EXPECT_EQ(cCounted::sDestroyed, 2);
  EXPECT_TRUE(table.isEmpty());
}

}  // namespace
