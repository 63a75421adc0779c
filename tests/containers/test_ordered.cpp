#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "rwcollint.h"
#include "rwerr.h"
#include "rwordered.h"

namespace {

std::vector<int> gValues(RWOrdered const& ordered) {
  std::vector<int> values;
  for (std::size_t i = 0; i < ordered.entries(); ++i)
    values.push_back(static_cast<RWCollectableInt*>(ordered.at(i))->value());
  return values;
}

std::string gBoundsText(auto&& call) {
  try {
    call();
  } catch (RWBoundsErr const& error) {
    return error.why();
  }
  return "no RWBoundsErr";
}

TEST(Ordered, GrowsBySixtyFourOnTheSixtyFifthInsertAndShrinksOnClear) {
  std::vector<std::unique_ptr<RWCollectableInt>> values;
  RWOrdered ordered;
  EXPECT_EQ(ordered.capacity(), 64u);
  for (int i = 0; i < 65; ++i) {
    values.push_back(std::make_unique<RWCollectableInt>(i));
    ordered.insert(values.back().get());
    EXPECT_EQ(ordered.capacity(), i < 64 ? 64u : 128u);
  }
  EXPECT_EQ(ordered.entries(), 65u);
  EXPECT_EQ(ordered.last(), values.back().get());
  ordered.clear();
  EXPECT_EQ(ordered.capacity(), 64u);
  EXPECT_TRUE(ordered.isEmpty());
  EXPECT_EQ(ordered.first(), nullptr);
  EXPECT_EQ(ordered.last(), nullptr);

  RWOrdered none(0);
  RWCollectableInt one(1);
  none.insert(&one);
  EXPECT_EQ(none.capacity(), 64u);
}

TEST(Ordered, IndexErrorsCarryTheirExactTexts) {
  RWOrdered ordered;
  EXPECT_EQ(gBoundsText([&] { ordered.removeAt(0); }),
            "[INDEXERR] Illegal Index (0) for collection or string with 0 elements");
  EXPECT_EQ(gBoundsText([&] { ordered.removeAt(RW_NPOS); }),
            "[NPOSINDEX] The value RW_NPOS cannot be used as an index.");
  RWCollectableInt one(1);
  ordered.insert(&one);
  EXPECT_EQ(gBoundsText([&] { ordered.at(1); }),
            "[INDEXERR] Illegal Index (1) for collection or string with 1 elements");
  EXPECT_EQ(gBoundsText([&] { ordered.insertAt(2, &one); }),
            "[INDEXERR] Illegal Index (2) for collection or string with 1 elements");
  EXPECT_EQ(gBoundsText([&] { ordered.insertAfter(RW_NPOS, &one); }),
            "[NPOSINDEX] The value RW_NPOS cannot be used as an index.");
  // The error is an RWInternalErr, an RWxmsg and a std::exception, with the same text.
  try {
    ordered[5];
    FAIL();
  } catch (std::exception const& error) {
    EXPECT_STREQ(error.what(),
                 "[INDEXERR] Illegal Index (5) for collection or string with 1 elements");
    EXPECT_NE(dynamic_cast<RWInternalErr const*>(&error), nullptr);
  }
  EXPECT_EQ(ordered.entries(), 1u);
}

TEST(Ordered, InsertAtMovesLaterElementsAndRemoveMovesThemBack) {
  RWCollectableInt v0(0), v1(1), v2(2), v3(3), v4(4);
  RWOrdered ordered(2);
  ordered.append(&v1);
  ordered.prepend(&v0);
  ordered.append(&v3);  // grows past 2
  ordered.insertAt(2, &v2);
  ordered.insertAfter(3, &v4);
  EXPECT_EQ(gValues(ordered), (std::vector<int>{0, 1, 2, 3, 4}));
  RWCollectableInt probe(2);
  EXPECT_EQ(ordered.index(&probe), 2u);
  EXPECT_EQ(ordered.find(&probe), &v2);
  EXPECT_EQ(ordered.remove(&probe), &v2);
  EXPECT_EQ(gValues(ordered), (std::vector<int>{0, 1, 3, 4}));
  EXPECT_EQ(ordered.removeAt(0), &v0);
  EXPECT_EQ(gValues(ordered), (std::vector<int>{1, 3, 4}));
  EXPECT_EQ(ordered.index(&probe), RW_NPOS);
  EXPECT_EQ(ordered.remove(&probe), nullptr);
  ordered.at(0) = &v2;  // a reference to the slot
  EXPECT_EQ(ordered.first(), &v2);
}

TEST(Ordered, CopiesShareElementsAndClearAndDestroyDestroysEachOnce) {
  RWOrdered ordered;
  auto* twice = new RWCollectableInt(7);
  ordered.insert(twice);
  ordered.insert(twice);
  ordered.insert(new RWCollectableInt(7));
  RWCollectableInt probe(7);
  EXPECT_EQ(ordered.occurrencesOf(&probe), 3u);

  RWOrdered copy(ordered);
  EXPECT_EQ(copy.at(0), twice);
  copy.removeAt(0);
  EXPECT_EQ(ordered.entries(), 3u);
  RWOrdered assigned;
  assigned = ordered;
  EXPECT_EQ(assigned.entries(), 3u);

  std::vector<int> walked;
  std::unique_ptr<RWIterator> const next(ordered.newIterator());
  while (RWCollectable* element = (*next)())
    walked.push_back(static_cast<RWCollectableInt*>(element)->value());
  EXPECT_EQ(walked.size(), 3u);
  EXPECT_EQ((*next)(), nullptr);

  ordered.clearAndDestroy();  // a double delete would show under the address sanitizer
  EXPECT_TRUE(ordered.isEmpty());
}

}  // namespace
