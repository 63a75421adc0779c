#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ContainerHelpers.h"
#include "rwerr.h"
#include "rwordered.h"

namespace {

using namespace corvanth::test;

std::string gBoundsText(auto&& call) {
  try {
    call();
  } catch (RWBoundsErr const& error) {
    return error.why();
  }
  return "no RWBoundsErr";
}

TEST(Ordered, IndexErrorsCarryTheirExactTexts) {
  RWOrdered ordered;
  std::string const npos = "[NPOSINDEX] The value RW_NPOS cannot be used as an index.";
  EXPECT_EQ(gBoundsText([&] { ordered.removeAt(0); }),
            "[INDEXERR] Illegal Index (0) for collection or string with 0 elements");
  EXPECT_EQ(gBoundsText([&] { ordered.removeAt(RW_NPOS); }), npos);
  RWCollectableInt one(1);
  ordered.insert(&one);
  EXPECT_EQ(gBoundsText([&] { ordered.insertAt(2, &one); }),
            "[INDEXERR] Illegal Index (2) for collection or string with 1 elements");
  EXPECT_EQ(gBoundsText([&] { ordered.insertAfter(RW_NPOS, &one); }), npos);
  EXPECT_THROW(ordered[5], RWInternalErr);
}

TEST(Ordered, InsertAtMovesLaterElementsAndRemoveMovesThemBack) {
  RWCollectableInt v0(0), v1(1), v2(2), v3(3), v4(4), probe(2);
  RWOrdered ordered(2);
  for (RWCollectableInt* each : {&v1, &v3}) ordered.append(each);  // grows past 2
  ordered.prepend(&v0);
  ordered.insertAt(2, &v2);
  ordered.insertAfter(3, &v4);
  EXPECT_EQ(gInts(ordered), (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_EQ(ordered.remove(&probe), &v2);
  EXPECT_EQ(ordered.removeAt(0), &v0);
  EXPECT_EQ(gInts(ordered), (std::vector<int>{1, 3, 4}));
  EXPECT_EQ(ordered.index(&probe), RW_NPOS);
}

TEST(Ordered, CopiesShareElementsAndClearAndDestroyDestroysEachOnce) {
  cCounted::sDestroyed = 0;
  RWOrdered ordered;
  auto* twice = new cCounted("twice");
  ordered.insert(twice);
  ordered.insert(twice);
  ordered.insert(new cCounted("once"));
  RWOrdered copy(ordered);
  EXPECT_EQ(copy.removeAt(0), twice);
  EXPECT_EQ(ordered.entries(), 3u);
  RWOrdered assigned;
  assigned = ordered;
  EXPECT_EQ(gWalk(assigned), (std::vector<std::string>{"twice", "twice", "once"}));
  ordered.clearAndDestroy();
  EXPECT_EQ(cCounted::sDestroyed, 2);
  EXPECT_TRUE(ordered.isEmpty());
}

}  // namespace
