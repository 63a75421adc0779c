#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "rwcollint.h"
#include "rwcollstr.h"
#include "rwerr.h"
#include "rwhashtab.h"
#include "rwset.h"

namespace {

std::vector<std::string> gWalk(RWCollection& collection) {
  std::vector<std::string> texts;
  std::unique_ptr<RWIterator> const next(collection.newIterator());
  while (RWCollectable* element = (*next)())
    texts.push_back(*static_cast<RWCollectableString*>(element));
  return texts;
}

// The bucket of every element, as the table holds them.
std::vector<unsigned> gBucketsOf(RWHashTable const& table, std::size_t entries) {
  std::vector<unsigned> buckets(entries, 0);
  for (unsigned index = 0; index < table.buckets(); ++index)
    if (auto const* list = table.bucketList(index))
      for (auto const* link = list->head(); link != nullptr; link = link->next)
        buckets.at(static_cast<std::size_t>(static_cast<RWCollectableInt*>(link->item)->value())) =
            index;
  return buckets;
}

TEST(HashTable, PlacesByHashModuloBucketsAndIteratesByBucketThenInsertionOrder) {
  RWCollectableString a("a"), abcd("abcd"), abcde("abcde");
  RWHashTable table(11);
  table.insert(&a);
  table.insert(&abcd);
  table.insert(&abcde);
  ASSERT_EQ(table.buckets(), 11u);
  ASSERT_NE(table.bucketList(10), nullptr);
  EXPECT_EQ(table.bucketList(10)->first(), &a);
  ASSERT_NE(table.bucketList(7), nullptr);
  EXPECT_EQ(table.bucketList(7)->first(), &abcd);
  EXPECT_EQ(table.bucketList(7)->last(), &abcde);
  EXPECT_EQ(table.bucketList(0), nullptr);  // lists appear at the first insertion only
  EXPECT_EQ(gWalk(table), (std::vector<std::string>{"abcd", "abcde", "a"}));

  RWHashTable reversed(11);
  reversed.insert(&abcde);
  reversed.insert(&abcd);
  reversed.insert(&a);
  EXPECT_EQ(gWalk(reversed), (std::vector<std::string>{"abcde", "abcd", "a"}));
}

TEST(HashTable, NeverGrowsOnInsertionAndCapacityZeroMeansTwoBuckets) {
  RWHashTable zero(0);
  EXPECT_EQ(zero.buckets(), 2u);
  std::vector<std::unique_ptr<RWCollectableInt>> values;
  for (int i = 0; i < 100; ++i) {
    values.push_back(std::make_unique<RWCollectableInt>(i));
    zero.insert(values.back().get());
  }
  EXPECT_EQ(zero.buckets(), 2u);
  EXPECT_EQ(zero.entries(), 100u);
  for (auto const& value : values) EXPECT_EQ(zero.find(value.get()), value.get());
  EXPECT_EQ(RWHashTable().buckets(), 64u);
  EXPECT_EQ(RWHashTable(11).buckets(), 11u);
}

TEST(HashTable, ResizeReinsertsInOldBucketOrderAndPicksItsOwnCount) {
  std::vector<std::unique_ptr<RWCollectableInt>> values;
  RWHashTable table(5);
  for (int i = 0; i < 11; ++i) {
    values.push_back(std::make_unique<RWCollectableInt>(i));
    table.insert(values.back().get());
  }
  table.resize(0);
  EXPECT_EQ(table.buckets(), 16u);  // fewer than 12 entries
  EXPECT_EQ(table.entries(), 11u);
  auto const buckets = gBucketsOf(table, 11);
  for (int i = 0; i < 11; ++i) EXPECT_EQ(buckets[static_cast<std::size_t>(i)], unsigned(i) % 16);

  values.push_back(std::make_unique<RWCollectableInt>(11));
  table.insert(values.back().get());
  table.resize(0);
  EXPECT_EQ(table.buckets(), 18u);  // 12 * 3 / 2
  table.resize(3);
  EXPECT_EQ(table.buckets(), 3u);
  // Bucket 0 of 3 holds 0, 3, 6, 9 in that order: they came from old buckets 0, 3, 6, 9.
  auto const* list = table.bucketList(0);
  ASSERT_NE(list, nullptr);
  std::vector<int> order;
  for (auto const* link = list->head(); link != nullptr; link = link->next)
    order.push_back(static_cast<RWCollectableInt*>(link->item)->value());
  EXPECT_EQ(order, (std::vector<int>{0, 3, 6, 9}));
}

TEST(HashTable, InsertAlwaysAddsWhileASetKeepsTheFirstOfEqualElements) {
  RWCollectableString first("k"), second("k");
  RWHashTable table;
  EXPECT_EQ(table.insert(&first), &first);
  EXPECT_EQ(table.insert(&second), &second);
  EXPECT_EQ(table.entries(), 2u);
  EXPECT_EQ(table.occurrencesOf(&second), 2u);
  EXPECT_EQ(table.find(&second), &first);  // the first equal one in bucket order

  RWSet set;
  EXPECT_EQ(set.insert(&first), &first);
  EXPECT_EQ(set.insert(&second), &first);  // nothing inserted: the stored one comes back
  EXPECT_EQ(set.entries(), 1u);
  EXPECT_EQ(set.isA(), 32811);

  EXPECT_EQ(table.remove(&second), &first);
  EXPECT_EQ(table.entries(), 1u);
  EXPECT_EQ(table.remove(&second), &second);
  EXPECT_TRUE(table.isEmpty());
  EXPECT_EQ(table.remove(&second), nullptr);
  EXPECT_EQ(table.find(&second), nullptr);
  EXPECT_FALSE(table.contains(&second));
}

TEST(HashTable, IteratorRemovalUncountsAndTheWalkGoesOnBehindIt) {
  std::vector<std::unique_ptr<RWCollectableInt>> values;
  RWHashTable table(2);
  for (int i = 0; i < 6; ++i) {
    values.push_back(std::make_unique<RWCollectableInt>(i));
    table.insert(values.back().get());
  }
  // Order: 0 2 4 | 1 3 5. Take out every element divisible by 4, and the last of a bucket.
  RWHashTableIterator next(table);
  std::vector<int> seen;
  while (RWCollectable* element = next()) {
    int const value = static_cast<RWCollectableInt*>(element)->value();
    seen.push_back(value);
    if (value % 4 == 0 || value == 5) {
      EXPECT_EQ(next.remove(), element);
      EXPECT_EQ(next.key(), nullptr);
      EXPECT_EQ(next.remove(), nullptr);  // nothing current after a removal
    }
  }
  EXPECT_EQ(seen, (std::vector<int>{0, 2, 4, 1, 3, 5}));
  EXPECT_EQ(table.entries(), 3u);
  EXPECT_EQ(next(), nullptr);  // stays at the end
  next.reset();
  std::vector<int> left;
  while (RWCollectable* element = next())
    left.push_back(static_cast<RWCollectableInt*>(element)->value());
  EXPECT_EQ(left, (std::vector<int>{2, 1, 3}));
  // Appending after removal of a bucket's tail must extend the right list.
  RWCollectableInt seven(7);
  table.insert(&seven);
  EXPECT_EQ(table.bucketList(1)->last(), &seven);

  RWCollectableInt three(3);
  next.reset();
  EXPECT_EQ(next.removeNext(&three), values[3].get());
  EXPECT_EQ(table.entries(), 3u);
}

TEST(HashTable, ClearAndDestroyDestroysAnObjectInsertedTwiceOnce) {
  RWHashTable table;
  auto* twice = new RWCollectableString("twice");
  table.insert(twice);
  table.insert(twice);
  table.insert(new RWCollectableString("once"));
  table.clearAndDestroy();  // a double delete would show under the address sanitizer
  EXPECT_TRUE(table.isEmpty());
  EXPECT_EQ(table.buckets(), 64u);
}

TEST(HashTable, CopiesShareElementsAndKeepBucketsAndOrder) {
  RWCollectableString a("a"), abcd("abcd");
  RWHashTable table(11);
  table.insert(&abcd);
  table.insert(&a);
  RWHashTable copy(table);
  EXPECT_EQ(copy.buckets(), 11u);
  EXPECT_EQ(copy.find(&a), &a);
  copy.remove(&a);
  EXPECT_EQ(table.entries(), 2u);  // the original keeps its own lists
  RWHashTable assigned;
  assigned = table;
  EXPECT_EQ(gWalk(assigned), gWalk(table));
  std::unique_ptr<RWCollectable> const viaCopy(table.copy());
  EXPECT_EQ(static_cast<RWHashTable*>(viaCopy.get())->entries(), 2u);
}

TEST(IdentitySet, HoldsEqualButDistinctObjectsAndFindsOnlyByAddress) {
  RWCollectableString first("same"), second("same");
  RWIdentitySet set;
  EXPECT_EQ(set.insert(&first), &first);
  EXPECT_EQ(set.insert(&second), &second);
  EXPECT_EQ(set.insert(&first), &first);
  EXPECT_EQ(set.entries(), 2u);
  RWCollectableString probe("same");
  EXPECT_EQ(set.find(&probe), nullptr);
  EXPECT_EQ(set.find(&second), &second);
  EXPECT_EQ(set.occurrencesOf(&first), 1u);
  EXPECT_EQ(set.remove(&first), &first);
  EXPECT_EQ(set.remove(&first), nullptr);
  EXPECT_EQ(set.entries(), 1u);
  set.resize(0);
  EXPECT_EQ(set.find(&second), &second);
}

TEST(SlistCollectables, KeepsOrderAndChecksIndexes) {
  RWCollectableInt zero(0), one(1), two(2), three(3);
  RWSlistCollectables list;
  list.append(&one);
  list.prepend(&zero);
  list.append(&three);
  list.insertAt(2, &two);
  EXPECT_EQ(list.entries(), 4u);
  EXPECT_EQ(list.at(2), &two);
  EXPECT_EQ(list.index(&three), 3u);
  EXPECT_EQ(list.removeAt(3), &three);
  EXPECT_EQ(list.last(), &two);
  list.append(&three);  // the tail moved back correctly
  EXPECT_EQ(list.last(), &three);
  EXPECT_EQ(list.get(), &zero);
  EXPECT_EQ(list.first(), &one);
  EXPECT_THROW(list.at(3), RWBoundsErr);
  EXPECT_THROW(list.insertAt(4, &zero), RWBoundsErr);
}

}  // namespace
