#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "LogCapture.h"
#include "packmsg.h"

namespace {

using corvanth::test::cLogCapture;

std::string gBytes(const char* data, int length) { return std::string(data, length); }

// The writer's block goes to whoever asks for it; the tests are that owner.
struct cTakenBlock {
  explicit cTakenBlock(const c_Pack& pack) : block(pack.thePackedMsg()) {}
  ~cTakenBlock() { delete[] block; }
  const char* block;
};

TEST(PackedFields, ThreeFieldExampleIsByteExactAndReadsBack) {
  const char first[] = {'a', 'b', 'c', '\0'};
  const char third[] = {'\x01', ' ', '\0', '\xFF'};
  cLogCapture capture;
  c_Pack pack(first, 4, "", 0, third, 4, static_cast<const char*>(nullptr));
  cTakenBlock taken(pack);

  const std::string expected("3 4 0 4 abc\0\x01 \0\xFF", 16);
  EXPECT_EQ(pack.thePackedMsgLen(), 16);
  EXPECT_EQ(gBytes(pack.thePackedMsg(), 16), expected);
  EXPECT_EQ(pack.getNumOfPacks(), 3);
  // The fields now live in the block, not in the caller's arrays.
  EXPECT_EQ(pack.field(0), pack.thePackedMsg() + 8);
  EXPECT_EQ(pack.field(2), pack.thePackedMsg() + 12);
  EXPECT_EQ(pack.field(1), pack.field(2));
  EXPECT_TRUE(capture.fRecords().empty());

  c_Pack reader(taken.block);
  EXPECT_EQ(reader.valid(), 1);
  EXPECT_EQ(reader.getNumOfPacks(), 3);
  EXPECT_EQ(reader.thePackedMsgLen(), 16);
  EXPECT_EQ(gBytes(reader.field(0), reader.fieldLen(0)), gBytes(first, 4));
  EXPECT_EQ(reader.fieldLen(1), 0);
  EXPECT_EQ(gBytes(reader.field(2), reader.fieldLen(2)), gBytes(third, 4));

  c_Pack bounded(c_Pack::zBounded{}, taken.block, 16);
  for (unsigned int i = 0; i < 3; ++i) {
    EXPECT_EQ(bounded.field(i), reader.field(i));
    EXPECT_EQ(bounded.fieldLen(i), reader.fieldLen(i));
  }
  EXPECT_EQ(bounded.thePackedMsgLen(), 16);
}

TEST(PackedFields, NullPointerEndsTheListAndUnsetSlotsReadEmpty) {
  c_Pack pack("hello", 5, static_cast<const char*>(nullptr), "ignored", 7);
  cTakenBlock taken(pack);
  EXPECT_EQ(pack.getNumOfPacks(), 1);
  EXPECT_EQ(pack.thePackedMsgLen(), 9);
  EXPECT_EQ(gBytes(pack.thePackedMsg(), 9), "1 5 hello");
  EXPECT_EQ(pack.field(1), nullptr);
  EXPECT_EQ(pack.fieldLen(1), 0);
}

TEST(PackedFields, TenFieldsPassAndAnEleventhIsLoggedAndDropped) {
  cLogCapture capture;
  {
    c_Pack ten("0", 1, "1", 1, "2", 1, "3", 1, "4", 1, "5", 1, "6", 1, "7", 1, "8", 1, "9", 1,
               static_cast<const char*>(nullptr));
    cTakenBlock taken(ten);
    EXPECT_EQ(ten.getNumOfPacks(), 10);
    EXPECT_EQ(gBytes(ten.thePackedMsg(), ten.thePackedMsgLen()),
              "10 1 1 1 1 1 1 1 1 1 1 0123456789");
    EXPECT_TRUE(capture.fRecords().empty());
  }
  c_Pack eleven("0", 1, "1", 1, "2", 1, "3", 1, "4", 1, "5", 1, "6", 1, "7", 1, "8", 1, "9", 1, "X",
                1, static_cast<const char*>(nullptr));
  cTakenBlock taken(eleven);
  ASSERT_EQ(capture.fAt("PACKMSG", 74).size(), 1u);
  EXPECT_EQ(capture.fAt("PACKMSG", 74)[0].tag, "Error");
  EXPECT_EQ(capture.fAt("PACKMSG", 74)[0].text, "");
  EXPECT_EQ(eleven.getNumOfPacks(), 10);
  EXPECT_EQ(gBytes(eleven.thePackedMsg(), eleven.thePackedMsgLen()),
            "10 1 1 1 1 1 1 1 1 1 1 0123456789");
}

TEST(PackedFields, WriterChecksAreLoggedAndTheWriteGoesOn) {
  cLogCapture capture;
  {
    // An empty or absent first field is still packed.
    c_Pack empty("", 0, static_cast<const char*>(nullptr));
    cTakenBlock taken(empty);
    EXPECT_EQ(gBytes(empty.thePackedMsg(), empty.thePackedMsgLen()), "1 0 ");
    c_Pack absent(static_cast<const char*>(nullptr), 3, static_cast<const char*>(nullptr));
    cTakenBlock takenAbsent(absent);
    EXPECT_EQ(gBytes(absent.thePackedMsg(), absent.thePackedMsgLen()),
              std::string("1 3 \0\0\0", 7));
  }
  EXPECT_EQ(capture.fAt("PACKMSG", 54).size(), 2u);

  // A negative length leaves the header past the room reserved for it.
  c_Pack negative("x", -200, static_cast<const char*>(nullptr));
  cTakenBlock taken(negative);
  EXPECT_EQ(capture.fAt("PACKMSG", 114).size(), 1u);
  EXPECT_EQ(capture.fAt("PACKMSG", 123).size(), 1u);
  EXPECT_EQ(gBytes(negative.thePackedMsg(), negative.thePackedMsgLen()), "1 -200 ");
  c_Pack reader(c_Pack::zBounded{}, taken.block, 7);
  EXPECT_EQ(reader.fieldLen(0), 0);

  char* block = gPackAllocate(0);
  EXPECT_EQ(capture.fAt("PACKMSG", 134).size(), 1u);
  gPackRelease(block);
  gPackRelease(nullptr);
  EXPECT_EQ(capture.fAt("PACKMSG", 151).size(), 1u);
  EXPECT_EQ(capture.fAt("PACKMSG", 151)[0].module, "CorvanthUtil");
}

TEST(PackedFields, FieldIndexIsCheckedAndTheExtraSlotReadsNull) {
  c_Pack pack("abc", 3, static_cast<const char*>(nullptr));
  cTakenBlock taken(pack);
  cLogCapture capture;
  EXPECT_NE(pack.field(0), nullptr);
  EXPECT_EQ(pack.field(9), nullptr);
  EXPECT_TRUE(capture.fRecords().empty());
  EXPECT_EQ(pack.field(10), nullptr);
  EXPECT_EQ(pack.field(4000000000u), nullptr);
  EXPECT_EQ(capture.fAt("packmsg", 38).size(), 2u);
  EXPECT_EQ(pack.fieldLen(4000000000u), 0);
}

TEST(PackedFields, NullReaderIsInvalid) {
  c_Pack reader(static_cast<const char*>(nullptr));
  EXPECT_EQ(reader.valid(), 0);
  EXPECT_EQ(reader.thePackedMsg(), nullptr);
  EXPECT_EQ(reader.getNumOfPacks(), 0);
  c_Pack bounded(c_Pack::zBounded{}, nullptr, 40);
  EXPECT_EQ(bounded.valid(), 0);
}

TEST(PackedFields, NumbersReadAsTheCLibraryReadsThem) {
  for (const char* text :
       {"0", "352", "-1", "+7", "  42", "\t-12ab", "4294967295", "2147483648", "-2147483649",
        "99999999999999999999", "-99999999999999999999", "x1", "-", ""}) {
    EXPECT_EQ(gPackNumber(text, std::strlen(text)), std::atoi(text)) << text;
  }
  // The length bounds the read even where a NUL would not.
  EXPECT_EQ(gPackNumber("12345", 2), 12);
}

// Every field of a bounded reader lies inside the bytes it was given.
void gExpectInside(const std::string& bytes) {
  c_Pack reader(c_Pack::zBounded{}, bytes.data(), static_cast<unsigned int>(bytes.size()));
  const char* begin = bytes.data();
  const char* end = begin + bytes.size();
  ASSERT_GE(reader.getNumOfPacks(), 0) << bytes;
  ASSERT_LE(reader.getNumOfPacks(), 10) << bytes;
  for (int i = 0; i < reader.getNumOfPacks(); ++i) {
    EXPECT_GE(reader.field(i), begin) << bytes;
    EXPECT_GE(reader.fieldLen(i), 0) << bytes;
    EXPECT_LE(reader.field(i) + reader.fieldLen(i), end) << bytes;
  }
  EXPECT_LE(reader.thePackedMsgLen(), static_cast<int>(bytes.size())) << bytes;
}

TEST(PackedFields, BoundedReaderStaysInsideHostileHeaders) {
  gExpectInside("12 1 1 1 1 1 1 1 1 1 1 1 1 abcdefghijkl");
  gExpectInside("3 4 99999 4 abcd");
  gExpectInside("2 2147483647 2147483647 ab");
  gExpectInside("2 -5 3 abc");
  gExpectInside("-4 1 1 ab");
  gExpectInside("99999999999999999999 1 a");
  gExpectInside("8 6 6");
  gExpectInside("x y z");
  gExpectInside(std::string("5\0 1 1", 6));
  gExpectInside("   ");
  gExpectInside("");

  const std::string tooMany("12 1 1 1 1 1 1 1 1 1 1 1 1 abcdefghijkl");
  c_Pack reader(c_Pack::zBounded{}, tooMany.data(), static_cast<unsigned int>(tooMany.size()));
  EXPECT_EQ(reader.getNumOfPacks(), 10);

  const std::string cut("3 4 99999 4 abcdXYZ");
  c_Pack cutReader(c_Pack::zBounded{}, cut.data(), static_cast<unsigned int>(cut.size()));
  EXPECT_EQ(gBytes(cutReader.field(0), cutReader.fieldLen(0)), "abcd");
  EXPECT_EQ(gBytes(cutReader.field(1), cutReader.fieldLen(1)), "XYZ");
  EXPECT_EQ(cutReader.fieldLen(2), 0);
  EXPECT_EQ(cutReader.thePackedMsgLen(), static_cast<int>(cut.size()));
}

}  // namespace
