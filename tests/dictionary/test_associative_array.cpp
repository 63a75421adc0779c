#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "AssociativeArray.h"
#include "AssociativeArrayExceptions.h"
#include "rwcollstr.h"

namespace {

TEST(AssociativeArray, AddingReplacesAndValuesKeepTheirBytes) {
  CAssociativeArray array;
  array.AddCouple("k", "1");
  array.AddCouple("k", "2");
  EXPECT_EQ(array.entries(), 1u);
  EXPECT_STREQ(array.GetValueOfParameter("k"), "2");

  array.AddCouple("empty", "x", 0);
  EXPECT_TRUE(array.KeyExists("empty"));
  EXPECT_STREQ(array.GetValueOfParameter("empty"), "");
  EXPECT_EQ(array.GetInt32ValueOfParameter("empty", 7), 0);  // presence decides, not content
  EXPECT_EQ(array.GetInt32ValueOfParameter("absent", 7), 7);

  array.AddCouple("z", "a\0b", 3);
  char const* bytes = nullptr;
  int length = 0;
  array.GetValueOfParameter("z", bytes, length);
  EXPECT_EQ(length, 3);
  EXPECT_EQ(std::memcmp(bytes, "a\0b", 3), 0);
  EXPECT_EQ(array.GetStringValueOfParameter("z")->size(), 3u);

  array.AddCouple("x", 2.5);
  EXPECT_EQ(array.GetDoubleValueOfParameter("x"), 2.5);
  EXPECT_EQ(std::string(array.GetValueOfParameter("x")), "2.5000000000000000000000000000000000000000e+00");
  array.AddCouple("n", -7L);
  EXPECT_EQ(array.GetInt32ValueOfParameter("n"), -7);
  EXPECT_EQ(array.GetDoubleValueOfParameter("n"), -7.0);
  array.AddCouple("c", cStringCoeImpl(std::string("p\0q", 3)));
  EXPECT_EQ(array.GetStringValueOfParameter("c")->size(), 3u);

  array.AddArrayCouple("Name", "v", 0);
  array.AddArrayCouple("Speed", 3L, -1);
  array.AddArrayCouple("Ratio", 0.5, 2);
  EXPECT_STREQ(array.GetValueOfParameter("Name0"), "v");
  EXPECT_FALSE(array.KeyExists("Name"));
  EXPECT_EQ(array.GetInt32ValueOfParameterArray("Speed", -1), 3);
  EXPECT_EQ(array.GetDoubleValueOfParameterArray("Ratio", 2), 0.5);
  EXPECT_STREQ(array.GetValueOfParameterArray("Name", 1, "dflt"), "dflt");
  EXPECT_EQ(array.GetInt32ValueOfParameterArray("Name", 1, 9L), 9);

  array.AddCouple("abc", "lower");
  array.AddCouple("ABC", "upper");
  EXPECT_STREQ(array["abc"], "lower");
  EXPECT_STREQ(array["ABC"], "upper");
}

TEST(AssociativeArray, AbsentKeyRaisesWithKeyAndStringFormAndInsertsNothing) {
  CAssociativeArray array;
  array.AddCouple("a", "1");
  std::size_t const before = array.entries();
  try {
    (void)array["missing"];
    ADD_FAILURE() << "no exception";
  } catch (CAssoKeyDoesNotExistException const& e) {
    std::string what = e.what();
    EXPECT_NE(what.find("The parameter \"missing\" does not exist"), std::string::npos) << what;
    EXPECT_NE(what.find("1 '1 a '1 1 "), std::string::npos) << what;
  }
  EXPECT_EQ(array.entries(), before);
  // The raising path rebuilt the cached form.
  EXPECT_STREQ(array.ToStringRef(true, true).c_str(), "1 '1 a '1 1 ");
  EXPECT_THROW(array.GetValueOfParameterAndDecodeIf("missing", false), CAssoKeyDoesNotExistException);
  EXPECT_THROW(array.GetDoubleValueOfParameter("missing"), std::exception);
  EXPECT_EQ(array.GetValueOfParameter("missing", nullptr), nullptr);
}

TEST(AssociativeArray, EscapeInPlaceAgainOnEveryCall) {
  CAssociativeArray array;
  array.AddCouple("v", "a\n\xE9\"\\50%");
  array.AddCouple("empty", "");
  EXPECT_EQ(*array.GetValueOfParameterAndDecodeIf("v", false), "a\n\xE9\"\\50%");
  EXPECT_EQ(*array.GetValueOfParameterAndDecodeIf("v", true), "a%0a%e9%22%5c50%%");
  EXPECT_EQ(*array.GetValueOfParameterAndDecodeIf("v", true), "a%%0a%%e9%%22%%5c50%%%%");
  EXPECT_EQ(*array.GetValueOfParameterAndDecodeIf("empty", true), "");
}

TEST(AssociativeArray, CopiesMovesAssignmentAndResetShareSafely) {
  char const* survivor = nullptr;
  {
    auto* original = new CAssociativeArray;
    original->AddCouple("k", "value");
    original->AddCouple("long", std::string(100, 'x').c_str());
    CAssociativeArray copy(*original);
    EXPECT_EQ(copy.GetValueOfParameter("k"), original->GetValueOfParameter("k"));  // shallow: one object
    delete original;  // the copy still reads what it shares
    EXPECT_STREQ(copy.GetValueOfParameter("k"), "value");

    CAssociativeArray moved(_typer_c<zc_move__deprecate>(), &copy);
    EXPECT_EQ(copy.entries(), 0u);
    EXPECT_STREQ(moved.GetValueOfParameter("long"), std::string(100, 'x').c_str());

    CAssociativeArray assigned;
    assigned.AddCouple("gone", "soon");
    assigned = moved;
    assigned = assigned;
    EXPECT_FALSE(assigned.KeyExists("gone"));
    EXPECT_STREQ(assigned.GetValueOfParameter("k"), "value");
    moved.AddCouple("k", "replaced");  // moved's old value object lives on in assigned
    EXPECT_STREQ(assigned.GetValueOfParameter("k"), "value");

    survivor = assigned.GetValueOfParameter("k");
    assigned.Reset();
    EXPECT_EQ(assigned.entries(), 0u);
    EXPECT_STREQ(assigned.ToString(false, false), " ");
    EXPECT_STREQ(survivor, "value");  // readable after Reset
    assigned.AddCouple("k", "again");
    assigned.Reset();
    assigned.clearAndDestroy();
    RWCollectableString probe("k");
    moved.removeAndDestroy(&probe);
    EXPECT_FALSE(moved.KeyExists("k"));
    EXPECT_TRUE(moved.KeyExists("long"));
  }
}

}  // namespace
