#include <gtest/gtest.h>

#include "ContainerHelpers.h"
#include "CorvanthAddress.h"
#include "rwcstring.h"
#include "rwtoken.h"

namespace {

using corvanth::test::cOtherId;

TEST(StringHash, MatchesTheWorkedExamplesAndSignExtendsHighBytes) {
  EXPECT_EQ(RWCString("").hash(), 0u);
  EXPECT_EQ(RWCString("a").hash(), 0x00000041u);
  EXPECT_EQ(RWCString("abcd").hash(), 0x646362E1u);
  EXPECT_EQ(RWCString("abcde").hash(), 0x8C6C5849u);
  // In the tail a high byte is sign-extended, before and after the shift of earlier bytes.
  EXPECT_EQ(RWCString("\x80").hash(), 0x20u ^ 0xFFFFFF80u);
  EXPECT_EQ(RWCString("A\x80").hash(), (2u << 5) ^ 0xFFFFFF80u);
  EXPECT_EQ(RWCString("\x80\101").hash(), (2u << 5) ^ 0xFFFF8041u);  // "\x80" then "A"
  // Inside a whole group of four it is read unsigned.
  EXPECT_EQ(RWCString("\xFF\x00\x00\x00", 4).hash(), (4u << 5) ^ 0x000000FFu);
}

TEST(Collectables, CompareByBytesOrValueAndEqualOnlyWithinTheirClass) {
  RWCollectableString const abc("abc"), abc2(std::string("abc"));
  EXPECT_TRUE(abc.isEqual(&abc2));
  EXPECT_FALSE(RWCollectableString("a\0b", 3).isEqual(&abc));
  EXPECT_GT(RWCollectableString("\xE9").compareTo(&abc), 0);  // bytes compare unsigned
  // Equal hashes or equal bytes never make objects of two classes equal.
  RWCollectableInt const sameHash(static_cast<int>(abc.hash()));
  EXPECT_FALSE(abc.isEqual(&sameHash));
  EXPECT_FALSE(sameHash.isEqual(&abc));
  cOtherId const other("abc");
  EXPECT_FALSE(abc.isEqual(&other));
  RWCollectableInt const five(5), seven(7);  // integers order by their difference
  EXPECT_EQ(five.compareTo(&seven), -2);
}

TEST(Tokenizer, SkipsRunsOfDelimitersAndStaysAtTheEnd) {
  RWCTokenizer next(RWCString("@@a@@b"));
  EXPECT_EQ(next("@"), "a");
  RWCSubString const b = next("@");
  EXPECT_EQ(b, "b");
  EXPECT_EQ(b.start(), 5u);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(next("@").isNull());

  RWCString text(" one,two ,,three\t");
  RWCTokenizer several(text);
  text = "changed";  // the tokenizer works on its own copy
  for (char const* word : {"one", "two", "three"}) EXPECT_EQ(several(" ,\t"), word);
  EXPECT_TRUE(RWCTokenizer(RWCString("@@@"))("@").isNull());
}

TEST(CorvanthAddress, JoiningAndSplittingFollowTheTableRowByRow) {
  auto const expect = [](CCorvanthAddress const& address, char const* text, char const* client, char const* host) {
    SCOPED_TRACE(text);
    EXPECT_STREQ(address.Address(), text);
    EXPECT_STREQ(address.ClientName(), client);
    EXPECT_STREQ(address.HostName(), host);
  };
  expect(CCorvanthAddress("agent", "host1"), "agent@host1", "agent", "host1");
  expect(CCorvanthAddress("", "host"), "@host", "", "host");
  expect(CCorvanthAddress("client", ""), "client@", "client", "");
  expect(CCorvanthAddress("", ""), "@", "", "");
  expect(CCorvanthAddress("a@b", "c"), "a@b@c", "a@b", "c");
  expect(CCorvanthAddress("agent@host1"), "agent@host1", "agent", "host1");
  expect(CCorvanthAddress("agent"), "agent", "agent", "");
  expect(CCorvanthAddress("agent@"), "agent@", "agent", "");
  expect(CCorvanthAddress("@host1"), "@host1", "host1", "");
  expect(CCorvanthAddress("a@b@c"), "a@b@c", "a", "b");
  expect(CCorvanthAddress(""), "", "", "");
  expect(CCorvanthAddress("@@a@@b"), "@@a@@b", "a", "b");
}

}  // namespace
