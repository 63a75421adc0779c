#include <cstring>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../containers/ContainerHelpers.h"
#include "AssociativeArray.h"
#include "AssociativeArrayExceptions.h"
#include "rwcollstr.h"

namespace {

TEST(AssociativeArray, AddingReplacesValuesKeepTheirBytesAndAbsentKeysRaise) {
  CAssociativeArray array;
  array.AddCouple("k", "1");
  array.AddCouple("k", "2");
  EXPECT_THAT([&] { (void)array["missing"]; },
              testing::ThrowsMessage<CAssoKeyDoesNotExistException>(testing::StrEq(
                  "The parameter \"missing\" does not exist in the parameter string \"1 '1 k '1 2 \".")));
  EXPECT_EQ(array.entries(), 1u);  // replaced, and nothing inserted by the failed read
  EXPECT_THROW(array.GetValueOfParameterAndDecodeIf("missing", false), CAssoKeyDoesNotExistException);
  EXPECT_EQ(array.GetValueOfParameter("missing", nullptr), nullptr);
  EXPECT_STREQ(array.GetValueOfParameter("k"), "2");

  array.AddCouple("empty", "x", 0);
  EXPECT_STREQ(array.GetValueOfParameter("empty"), "");
  EXPECT_EQ(array.GetInt32ValueOfParameter("empty", 7), 0);  // presence decides, not content
  EXPECT_EQ(array.GetInt32ValueOfParameter("absent", 7), 7);

  array.AddCouple("z", "a\0b", 3);
  char const* bytes = nullptr;
  int length = 0;
  array.GetValueOfParameter("z", bytes, length);
  EXPECT_EQ(std::string(bytes, std::size_t(length)), std::string("a\0b", 3));
  array.AddCouple("c", cStringCoeImpl(std::string("p\0q", 3)));
  EXPECT_EQ(*array.GetStringValueOfParameter("c"), std::string("p\0q", 3));

  array.AddCouple("x", 2.5);
  EXPECT_EQ(std::string(array.GetValueOfParameter("x")), "2.5000000000000000000000000000000000000000e+00");
  array.AddCouple("n", -7L);
  EXPECT_EQ(array.GetInt32ValueOfParameter("n"), -7);

  array.AddArrayCouple("Name", "v", 0);
  array.AddArrayCouple("Speed", 3L, -1);
  EXPECT_STREQ(array.GetValueOfParameter("Name0"), "v");
  EXPECT_FALSE(array.KeyExists("Name"));
  EXPECT_EQ(array.GetInt32ValueOfParameterArray("Speed", -1), 3);
  EXPECT_STREQ(array.GetValueOfParameterArray("Name", 1, "dflt"), "dflt");
  array.AddCouple("ABC", "upper");
  EXPECT_FALSE(array.KeyExists("abc"));
}

TEST(AssociativeArray, EscapeInPlaceAgainOnEveryCallInLinearTime) {
  CAssociativeArray array;
  array.AddCouple("v", "a\n\xE9\"\\50%");
  array.AddCouple("empty", "");
  EXPECT_EQ(*array.GetValueOfParameterAndDecodeIf("v", false), "a\n\xE9\"\\50%");
  EXPECT_EQ(*array.GetValueOfParameterAndDecodeIf("v", true), "a%0a%e9%22%5c50%%");
  EXPECT_EQ(*array.GetValueOfParameterAndDecodeIf("v", true), "a%%0a%%e9%%22%%5c50%%%%");
  EXPECT_EQ(*array.GetValueOfParameterAndDecodeIf("empty", true), "");
  // Escaping byte by byte in place took hours here; the suite's time-out catches that.
  array.AddCouple("big", std::string(4000000, '\n').c_str());
  EXPECT_EQ(array.GetValueOfParameterAndDecodeIf("big", true)->size(), 12000000u);
}

TEST(AssociativeArray, CopiesMovesAssignmentAndResetShareSafely) {
  auto* original = new CAssociativeArray;
  original->AddCouple("k", "value");
  CAssociativeArray copy(*original);
  EXPECT_EQ(copy.GetValueOfParameter("k"), original->GetValueOfParameter("k"));  // shallow: one object
  delete original;  // the copy still reads what it shares
  EXPECT_STREQ(copy.GetValueOfParameter("k"), "value");

  CAssociativeArray moved(_typer_c<zc_move__deprecate>(), &copy);
  EXPECT_EQ(copy.entries(), 0u);
  CAssociativeArray assigned;
  assigned.AddCouple("gone", "soon");
  char const* gone = assigned["gone"];
  assigned = moved;
  assigned = assigned;
  EXPECT_FALSE(assigned.KeyExists("gone"));
  moved.AddCouple("k", "replaced");  // moved's old value object lives on in assigned
  EXPECT_STREQ(assigned.GetValueOfParameter("k"), "value");

  // What Reset and assignment give up stays readable as long as the array lives.
  char const* survivor = assigned.GetValueOfParameter("k");
  assigned.Reset();
  EXPECT_STREQ(assigned.ToString(false, false), " ");
  assigned.AddCouple("k", "again");
  char const* again = assigned["k"];
  assigned.Reset();
  assigned = moved;
  assigned = copy;
  EXPECT_STREQ(survivor, "value");
  EXPECT_STREQ(again, "again");
  EXPECT_STREQ(gone, "soon");
  RWCollectableString probe("k");
  moved.removeAndDestroy(&probe);
  EXPECT_EQ(moved.entries(), 0u);
}

TEST(AssociativeArray, AnObjectStoredInSeveralPlacesIsDestroyedOnce) {
  using corvanth::test::cCounted;
  for (bool const explicitly : {true, false}) {
    cCounted::sDestroyed = 0;
    {
      CAssociativeArray array;
      auto* shared = new cCounted("v");
      array.insertKeyAndValue(new cCounted("a"), shared);
      array.insertKeyAndValue(new cCounted("b"), shared);
      auto* both = new cCounted("both");
      array.insertKeyAndValue(both, both);
      array.AddCouple("a", "new");  // "b" still holds the old value
      EXPECT_STREQ(array["b"], "v");
      CAssociativeArray copy(array);
      if (explicitly) array.clearAndDestroy();
      EXPECT_STREQ(copy["b"], "v");
      EXPECT_EQ(cCounted::sDestroyed, 0);
    }
    EXPECT_EQ(cCounted::sDestroyed, 4);
  }
}

// Default size, so the chains run to thousands of couples; the suite's time-out
// catches a read that is quadratic again.
TEST(AssociativeArray, AHundredThousandCouplesReadInTheTablesOrder) {
  CAssociativeArray small;
  for (long i = 0; i < 40; ++i) small.AddCouple(std::string("k").append(std::to_string(i * 7)).c_str(), i);
  small.AddCouple("k0", "again");
  // The form as the table gave it before chains were indexed.
  std::string const pinned =
      "40 '2 k7 '1 1 '4 k231 '2 33 '3 k98 '2 14 '4 k105 '2 15 '4 k140 '2 20 '4 k217 '2 31 '4 k252 '2 36 '3 k28 "
      "'1 4 '3 k35 '1 5 '3 k42 '1 6 '4 k126 '2 18 '4 k161 '2 23 '4 k238 '2 34 '4 k273 '2 39 '4 k147 '2 21 '4 "
      "k182 '2 26 '4 k259 '2 37 '2 k0 '5 again '4 k168 '2 24 '3 k77 '2 11 '3 k84 '2 12 '3 k91 '2 13 '4 k189 '2 "
      "27 '4 k203 '2 29 '3 k14 '1 2 '3 k21 '1 3 '4 k112 '2 16 '4 k224 '2 32 '4 k133 '2 19 '4 k245 '2 35 '4 k119 "
      "'2 17 '4 k154 '2 22 '4 k266 '2 38 '3 k49 '1 7 '3 k56 '1 8 '3 k63 '1 9 '3 k70 '2 10 '4 k175 '2 25 '4 k196 "
      "'2 28 '4 k210 '2 30 ";
  EXPECT_EQ(small.ToStringRef(false, false), pinned);

  // Values of every byte, zero, blank and apostrophe included, come back as they went.
  auto const valueOf = [](int i) { return std::string(std::size_t(i % 7), char(i % 256)); };
  CAssociativeArray source(200000);
  for (int i = 0; i < 100000; ++i)
    source.AddCouple(std::string("key").append(std::to_string(i)).c_str(), valueOf(i).data(), i % 7);
  CAssociativeArray big;
  big.FromStringZ1(source.ToStringRef(false, false));
  EXPECT_EQ(big.entries(), 100000u);
  for (int i = 0; i < 100000; ++i)
    ASSERT_EQ(*big.GetStringValueOfParameter(std::string("key").append(std::to_string(i)).c_str()), valueOf(i));
  CAssociativeArray again;
  again.FromStringZ1(big.ToStringRef(false, false));
  EXPECT_EQ(again.ToStringRef(false, false), big.ToStringRef(false, false));
}

}  // namespace
