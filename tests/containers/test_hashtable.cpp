#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "ContainerHelpers.h"
#include "rwhashtab.h"
#include "rwset.h"

namespace {

using namespace corvanth::test;

// The values of a bucket's list, in list order.
std::vector<int> gBucket(RWHashTable const& table, unsigned index) {
  std::vector<int> values;
  if (auto const* list = table.bucketList(index))
    for (auto const* link = list->head(); link != nullptr; link = link->next)
      values.push_back(gInt(link->item));
  return values;
}

TEST(HashTable, PlacesByHashModuloBucketsAndIteratesByBucketThenInsertionOrder) {
  RWCollectableString a("a"), abcd("abcd"), abcde("abcde");
  RWHashTable table(11);
  for (RWCollectableString* each : {&a, &abcd, &abcde}) table.insert(each);
  ASSERT_NE(table.bucketList(10), nullptr);
  EXPECT_EQ(table.bucketList(10)->first(), &a);
  ASSERT_NE(table.bucketList(7), nullptr);
  EXPECT_EQ(table.bucketList(7)->first(), &abcd);
  EXPECT_EQ(table.bucketList(7)->last(), &abcde);
  EXPECT_EQ(gWalk(table), (std::vector<std::string>{"abcd", "abcde", "a"}));
  EXPECT_EQ(RWHashTable().buckets(), 64u);
}

TEST(HashTable, NeverGrowsOnInsertionAndResizeReinsertsInOldBucketOrder) {
  auto const values = gOwnedInts(12);
  RWHashTable zero(0);
  EXPECT_EQ(zero.buckets(), 2u);
  for (auto const& value : values) zero.insert(value.get());
  EXPECT_EQ(zero.buckets(), 2u);
  for (auto const& value : values) EXPECT_EQ(zero.find(value.get()), value.get());

  RWHashTable table(5);
  for (int i = 0; i < 11; ++i) table.insert(values[static_cast<std::size_t>(i)].get());
  table.resize(0);
  EXPECT_EQ(table.buckets(), 16u);  // fewer than 12 entries
  for (unsigned i = 0; i < 11; ++i) EXPECT_EQ(gBucket(table, i), std::vector<int>{int(i)});
  table.insert(values[11].get());
  table.resize(0);
  EXPECT_EQ(table.buckets(), 18u);  // 12 * 3 / 2
  table.resize(3);
  // Bucket 0 of 3 holds 0, 3, 6, 9 in that order: they came from old buckets 0, 3, 6, 9.
  EXPECT_EQ(gBucket(table, 0), (std::vector<int>{0, 3, 6, 9}));
  EXPECT_EQ(table.entries(), 12u);
}

TEST(HashTable, InsertAlwaysAddsWhileSetsKeepTheFirstEqualOrOnlyTheSameObject) {
  RWCollectableString first("k"), second("k"), probe("k");
  RWHashTable table;
  EXPECT_EQ(table.insert(&first), &first);
  EXPECT_EQ(table.insert(&second), &second);
  EXPECT_EQ(table.occurrencesOf(&probe), 2u);
  EXPECT_EQ(table.remove(&probe), &first);
  EXPECT_EQ(table.find(&probe), &second);

  RWSet set;
  EXPECT_EQ(set.insert(&first), &first);
  EXPECT_EQ(set.insert(&second), &first);  // nothing inserted: the stored one comes back
  EXPECT_EQ(set.entries(), 1u);

  RWIdentitySet identities;
  for (RWCollectableString* each : {&first, &second, &first}) identities.insert(each);
  EXPECT_EQ(identities.entries(), 2u);
  EXPECT_EQ(identities.find(&probe), nullptr);
  EXPECT_EQ(identities.remove(&first), &first);
  EXPECT_EQ(identities.find(&second), &second);
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
  EXPECT_EQ(gBucket(table, 0), std::vector<int>{2});
  EXPECT_EQ(gBucket(table, 1), (std::vector<int>{1, 3}));
  // Appending after removal of a bucket's tail must extend the right list.
  RWCollectableInt seven(7), three(3);
  table.insert(&seven);
  EXPECT_EQ(table.bucketList(1)->last(), &seven);
  next.reset();
  EXPECT_EQ(next.removeNext(&three), values[3].get());
  EXPECT_EQ(table.entries(), 3u);
}

TEST(HashTable, ClearAndDestroyDestroysAnObjectInsertedTwiceOnceAndCopiesShareElements) {
  cCounted::sDestroyed = 0;
  RWHashTable table;
  auto* twice = new cCounted("twice");
  table.insert(twice);
  table.insert(twice);
  table.insert(new cCounted("once"));

  RWHashTable copy(table);
  copy.remove(twice);
  EXPECT_EQ(table.entries(), 3u);  // the original keeps its own lists
  RWHashTable assigned(11);
  assigned = table;
  EXPECT_EQ(gWalk(assigned), gWalk(table));

  table.clearAndDestroy();
  EXPECT_EQ(cCounted::sDestroyed, 2);
  EXPECT_TRUE(table.isEmpty());
  EXPECT_EQ(table.buckets(), 64u);
}

}  // namespace
