#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "rwcollint.h"
#include "rwcollstr.h"
#include "rwcstring.h"
#include "rwtoken.h"

namespace {

TEST(StringHash, MatchesTheWorkedExamplesAndSignExtendsHighBytes) {
  EXPECT_EQ(RWCString("").hash(), 0u);
  EXPECT_EQ(RWCString("a").hash(), 0x00000041u);
  EXPECT_EQ(RWCString("abcd").hash(), 0x646362E1u);
  EXPECT_EQ(RWCString("abcde").hash(), 0x8C6C5849u);
  // Tail "\x80": t = 0xFFFFFF80; h = rotl(1, 5) ^ t.
  EXPECT_EQ(RWCString("\x80").hash(), 0x20u ^ 0xFFFFFF80u);
  // Tail "A\x80": the high byte is ORed in sign-extended after the shift.
  EXPECT_EQ(RWCString("A\x80").hash(), (2u << 5) ^ 0xFFFFFF80u);
  // Tail "\x80" "A": the upper bits set by the high byte survive the shift.
  EXPECT_EQ(RWCString("\x80"
                      "A")
                .hash(),
            (2u << 5) ^ 0xFFFF8041u);
  // A high byte inside a whole group is read unsigned.
  EXPECT_EQ(RWCString("\xFF\x00\x00\x00", 4).hash(), (4u << 5) ^ 0x000000FFu);
  // Embedded zero bytes count.
  EXPECT_NE(RWCString("a\0", 2).hash(), RWCString("a").hash());
}

TEST(CollectableString, HashesOrdersAndEqualsByBytesOnly) {
  RWCollectableString const abc("abc"), abc2(std::string("abc")), abd("abd"), upper("ABC");
  EXPECT_EQ(abc.hash(), RWCString("abc").hash());
  EXPECT_TRUE(abc.isEqual(&abc2));
  EXPECT_FALSE(abc.isEqual(&upper));
  EXPECT_LT(abc.compareTo(&abd), 0);
  EXPECT_GT(abd.compareTo(&abc), 0);
  EXPECT_EQ(abc.compareTo(&abc2), 0);
  EXPECT_EQ(abc.compareToString(&abd), abc.compareTo(&abd));
  EXPECT_GT(RWCollectableString("\xE9").compareTo(&abc), 0);  // bytes compare unsigned
  EXPECT_EQ(abc.binaryStoreSize(), 7u);
  EXPECT_EQ(abc.isA(), 32779);

  RWCollectableString const withZero("a\0b", 3);
  EXPECT_EQ(withZero.size(), 3u);
  EXPECT_FALSE(withZero.isEqual(&abc));
  EXPECT_FALSE(abc.isEqual(nullptr));
}

TEST(CollectableString, IsNeverEqualToAnIntegerWhateverTheHashes) {
  RWCollectableString const a("a");
  RWCollectableInt const same(static_cast<int>(a.hash()));
  ASSERT_EQ(a.hash(), same.hash());
  EXPECT_FALSE(a.isEqual(&same));
  EXPECT_FALSE(same.isEqual(&a));
}

// A class of its own under another id: equal bytes do not make it a string key.
struct cOtherId : RWCollectableString {
  using RWCollectableString::RWCollectableString;
  RWClassID isA() const override { return 7; }
};

TEST(CollectableString, EqualityAsksTheClassIdOfTheOther) {
  RWCollectableString const plain("k");
  cOtherId const other("k");
  EXPECT_FALSE(plain.isEqual(&other));
  EXPECT_FALSE(RWCollectableString::equalsText(&other, "k"));
  EXPECT_TRUE(RWCollectableString::equalsText(&plain, "k"));
}

TEST(CollectableInt, OrdersByDifferenceAndEqualsBySameIdAndValue) {
  RWCollectableInt const five(5), seven(7), otherFive(5);
  EXPECT_EQ(five.compareTo(&seven), -2);
  EXPECT_EQ(seven.compareTo(&five), 2);
  EXPECT_TRUE(five.isEqual(&otherFive));
  EXPECT_FALSE(five.isEqual(&seven));
  EXPECT_EQ(RWCollectableInt(-3).hash(), static_cast<unsigned>(-3));
  EXPECT_EQ(RWCollectableInt().value(), 0);
  EXPECT_EQ(five.binaryStoreSize(), 4u);
  // The difference wraps in 32 bits rather than overflowing.
  RWCollectableInt const low(INT32_MIN), one(1);
  EXPECT_EQ(low.compareTo(&one), INT32_MAX);
}

TEST(Collectable, BaseIsIdentity) {
  RWCollectable first, second;
  EXPECT_TRUE(first.isEqual(&first));
  EXPECT_FALSE(first.isEqual(&second));
  EXPECT_EQ(first.compareTo(&first), 0);
  RWCollectable* low = &first < &second ? &first : &second;
  RWCollectable* high = low == &first ? &second : &first;
  EXPECT_EQ(high->compareTo(low), 1);
  EXPECT_EQ(low->compareTo(high), -1);
  auto const x = reinterpret_cast<std::intptr_t>(&first);
  EXPECT_EQ(first.hash(), static_cast<unsigned>((x >> 3) ^ x));
  EXPECT_EQ(first.binaryStoreSize(), 0u);
  EXPECT_EQ(first.asCollectable(), &first);
}

TEST(Registry, CreatesEachClassOfTheLayerByIdAndName) {
  struct tRow {
    RWClassID id;
    char const* name;
  };
  for (tRow const row :
       {tRow{32775, "RWCollectable"}, tRow{32778, "RWCollectableInt"},
        tRow{32779, "RWCollectableString"}, tRow{32776, "RWCollectableAssociation"},
        tRow{32862, "RWHashTable"}, tRow{32811, "RWSet"}, tRow{32802, "RWHashDictionary"},
        tRow{32808, "RWOrdered"}, tRow{32819, "RWSlistCollectables"},
        tRow{32805, "RWIdentitySet"}}) {
    SCOPED_TRACE(row.name);
    std::unique_ptr<RWCollectable> const byId(rwCreateFromFactory(row.id));
    ASSERT_NE(byId, nullptr);
    EXPECT_EQ(byId->isA(), row.id);
    std::unique_ptr<RWCollectable> const byName(rwCreateFromFactory(row.name));
    ASSERT_NE(byName, nullptr);
    EXPECT_EQ(byName->isA(), row.id);
    EXPECT_STREQ(rwClassNameOf(row.id), row.name);
    std::unique_ptr<RWCollectable> const species(byId->newSpecies());
    EXPECT_EQ(species->isA(), row.id);
  }
  EXPECT_EQ(rwCreateFromFactory(RWClassID{1}), nullptr);
  EXPECT_EQ(rwCreateFromFactory("NoSuchClass"), nullptr);
  EXPECT_EQ(rwClassNameOf(RWClassID{1}), nullptr);
}

TEST(Tokenizer, SkipsRunsOfDelimitersAndStaysAtTheEnd) {
  RWCTokenizer next(RWCString("@@a@@b"));
  EXPECT_EQ(next("@"), "a");
  RWCSubString const b = next("@");
  EXPECT_EQ(b, "b");
  EXPECT_EQ(b.start(), 5u);
  for (int i = 0; i < 3; ++i) {
    RWCSubString const end = next("@");
    EXPECT_TRUE(end.isNull());
    EXPECT_EQ(end.length(), 0u);
  }
}

TEST(Tokenizer, TakesAnyOfSeveralDelimitersAndCopiesItsText) {
  RWCString text(" one,two ,,three\t");
  RWCTokenizer next(text);
  text = "changed";  // the tokenizer works on its own copy
  EXPECT_EQ(next(" ,\t"), "one");
  EXPECT_EQ(next(" ,\t"), "two");
  RWCString const third = next(" ,\t");
  EXPECT_EQ(third, "three");
  EXPECT_TRUE(next(" ,\t").isNull());
  EXPECT_TRUE(RWCTokenizer(RWCString(""))("@").isNull());
  EXPECT_TRUE(RWCTokenizer(RWCString("@@@"))("@").isNull());
}

TEST(CString, OffersTheToolkitOperationsOverTheStandardString) {
  RWCString text("hello world");
  EXPECT_EQ(text.index("world"), 6u);
  EXPECT_EQ(text.index("absent"), RW_NPOS);
  EXPECT_TRUE(text.contains("lo w"));
  text.prepend(">");
  EXPECT_EQ(text, ">hello world");
  EXPECT_EQ(RWCString(text(1, 5)), "hello");
  EXPECT_EQ(text(7, 100).view(), "world");
  EXPECT_TRUE(text(100, 1).isNull());
  EXPECT_LT(RWCString("a").compareTo(RWCString("b")), 0);
  EXPECT_TRUE(RWCString().isNull());
}

}  // namespace
