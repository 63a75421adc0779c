#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ContainerHelpers.h"
#include "rwerr.h"
#include "rwhashtab.h"
#include "rwordered.h"
#include "rwset.h"

namespace {

using namespace corvanth::test;
using tInts = std::vector<int>;
using tTexts = std::vector<std::string>;

TEST(HashTable, IteratesByHashModuloBucketsThenInsertionOrderAndOnlyResizeRegroups) {
  RWCollectableString a("a"), abcd("abcd"), abcde("abcde");
  RWHashTable table(11);  // "a" in bucket 10, "abcd" and "abcde" in bucket 7
  for (RWCollectableString* each : {&a, &abcd, &abcde}) table.insert(each);
  EXPECT_EQ(gWalk(table), (tTexts{"abcd", "abcde", "a"}));

  auto const values = gOwnedInts(12);
  RWHashTable two(0);  // two buckets, however many entries
  for (auto const& value : values) two.insert(value.get());
  EXPECT_EQ(gWalk<int>(two), (tInts{0, 2, 4, 6, 8, 10, 1, 3, 5, 7, 9, 11}));
  two.resize(3);  // reinserted from the old buckets in order
  EXPECT_EQ(gWalk<int>(two), (tInts{0, 6, 3, 9, 4, 10, 1, 7, 2, 8, 5, 11}));
  two.resize(0);  // 12 entries: 18 buckets
  EXPECT_EQ(gWalk<int>(two), (tInts{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
  for (auto const& value : values) EXPECT_EQ(two.find(value.get()), value.get());
}

TEST(HashTable, IteratorRemovalUncountsAndTheWalkGoesOnBehindIt) {
  auto const values = gOwnedInts(6);
  RWHashTable table(2);
  for (auto const& value : values) table.insert(value.get());
  // Order: 0 2 4 | 1 3 5. Take out every element divisible by 4, and the last of a bucket.
  RWHashTableIterator next(table);
  tInts seen;
  while (RWCollectable* element = next()) {
    seen.push_back(gInt(element));
    if (gInt(element) % 4 == 0 || gInt(element) == 5) {
      EXPECT_EQ(next.remove(), element);
      EXPECT_EQ(next.remove(), nullptr);  // nothing current after a removal
    }
  }
  EXPECT_EQ(seen, (tInts{0, 2, 4, 1, 3, 5}));
  EXPECT_EQ(next(), nullptr);  // stays at the end
  RWCollectableInt seven(7), three(3);
  table.insert(&seven);  // after the removal of a bucket's tail, appends to the right list
  EXPECT_EQ(gWalk<int>(table), (tInts{2, 1, 3, 7}));
  next.reset();
  EXPECT_EQ(next.removeNext(&three), values[3].get());
  EXPECT_EQ(table.entries(), 3u);
}

// Matches a call that throws RWBoundsErr with exactly this text.
auto gThrowsBoundsErr(std::string const& text) {
  return testing::Throws<RWBoundsErr>(testing::Property(&RWxmsg::why, testing::StrEq(text)));
}

// Bad indexes raise with their exact texts; insertAt moves later elements and
// remove moves them back.
TEST(Ordered, IndexErrorsCarryTheirExactTextsAndInsertionsMoveLaterElements) {
  RWOrdered ordered(2);
  std::string const npos = "[NPOSINDEX] The value RW_NPOS cannot be used as an index.";
  EXPECT_THAT([&] { ordered.removeAt(0); },
              gThrowsBoundsErr("[INDEXERR] Illegal Index (0) for collection or string with 0 elements"));
  EXPECT_THAT([&] { ordered.removeAt(RW_NPOS); }, gThrowsBoundsErr(npos));
  RWCollectableInt one(1);
  ordered.insert(&one);
  EXPECT_THAT([&] { ordered.insertAt(2, &one); },
              gThrowsBoundsErr("[INDEXERR] Illegal Index (2) for collection or string with 1 elements"));
  EXPECT_THAT([&] { ordered.insertAfter(RW_NPOS, &one); }, gThrowsBoundsErr(npos));
  EXPECT_THROW(ordered[5], RWInternalErr);

  RWCollectableInt v0(0), v2(2), v3(3), v4(4), probe(2);
  ordered.append(&v3);
  ordered.prepend(&v0);  // grows past 2
  ordered.insertAt(2, &v2);
  ordered.insertAfter(3, &v4);
  EXPECT_EQ(gWalk<int>(ordered), (tInts{0, 1, 2, 3, 4}));
  EXPECT_EQ(ordered.remove(&probe), &v2);
  EXPECT_EQ(ordered.removeAt(0), &v0);
  EXPECT_EQ(gWalk<int>(ordered), (tInts{1, 3, 4}));
  EXPECT_EQ(ordered.index(&probe), RW_NPOS);
}

// Copies and assignments share the elements but keep lists of their own, and
// clearAndDestroy destroys an object inserted twice once.
template <class tCollection>
void gCheckCopiesAndClearAndDestroy() {
  cCounted::sDestroyed = 0;
  tCollection collection, assigned;
  auto* twice = new cCounted("twice");
  for (cCounted* each : {twice, twice, new cCounted("once")})
    collection.insert(each);  // a table or an ordered array always adds
  tCollection copy(collection);
  assigned = collection;
  EXPECT_EQ(copy.remove(twice), twice);
  EXPECT_EQ(gWalk(assigned), (tTexts{"twice", "twice", "once"}));
  EXPECT_EQ(gWalk(collection), (tTexts{"twice", "twice", "once"}));
  collection.clearAndDestroy();
  EXPECT_EQ(cCounted::sDestroyed, 2);
  EXPECT_TRUE(collection.isEmpty());
}

TEST(Collections, CopiesKeepTheirOwnListsAndClearAndDestroyDestroysEachOnce) {
  gCheckCopiesAndClearAndDestroy<RWOrdered>();
  gCheckCopiesAndClearAndDestroy<RWHashTable>();
  RWSet set;  // a set keeps the first of equal elements
  RWCollectableString first("x"), equal("x");
  EXPECT_EQ(set.insert(&first), &first);
  EXPECT_EQ(set.insert(&equal), &first);
  EXPECT_EQ(set.entries(), 1u);
}

}  // namespace
