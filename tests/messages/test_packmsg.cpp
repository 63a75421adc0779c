#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "LogCapture.h"
#include "packmsg.h"

namespace {

using corvanth::test::cLogCapture;

constexpr char const* kEnd = nullptr;  // ends a list of fields

std::string gBytes(const char* data, int length) { return std::string(data, length); }

// The written block, taken by the test as its owner.
std::string gTaken(const c_Pack& pack) {
  std::unique_ptr<const char[]> const block(pack.thePackedMsg());
  return gBytes(block.get(), pack.thePackedMsgLen());
}

TEST(PackedFields, ThreeFieldExampleIsByteExactAndReadsBack) {
  const char first[] = {'a', 'b', 'c', '\0'};
  const char third[] = {'\x01', ' ', '\0', '\xFF'};
  cLogCapture capture;
  c_Pack pack(first, 4, "", 0, third, 4, kEnd);
  std::unique_ptr<const char[]> const block(pack.thePackedMsg());
  EXPECT_EQ(gBytes(block.get(), pack.thePackedMsgLen()),
            std::string("3 4 0 4 abc\0\x01 \0\xFF", 16));
  EXPECT_EQ(pack.field(0), block.get() + 8);  // the fields now live in the block
  EXPECT_TRUE(capture.fRecords().empty());

  c_Pack reader(block.get());
  c_Pack bounded(c_Pack::zBounded{}, block.get(), 16);
  for (c_Pack const* each : {&reader, &bounded}) {
    EXPECT_EQ(each->valid(), 1);
    EXPECT_EQ(each->getNumOfPacks(), 3);
    EXPECT_EQ(each->thePackedMsgLen(), 16);
    EXPECT_EQ(gBytes(each->field(0), each->fieldLen(0)), gBytes(first, 4));
    EXPECT_EQ(each->fieldLen(1), 0);
    EXPECT_EQ(gBytes(each->field(2), each->fieldLen(2)), gBytes(third, 4));
  }
  EXPECT_EQ(c_Pack(kEnd).valid(), 0);
  EXPECT_EQ(c_Pack(c_Pack::zBounded{}, nullptr, 40).valid(), 0);
}

TEST(PackedFields, ANullEndsTheListAndEachCheckedCallIsLoggedAndCarriesOn) {
  cLogCapture capture;
  EXPECT_EQ(gTaken(c_Pack("hello", 5, kEnd, "ignored", 7)), "1 5 hello");
  c_Pack ten("0", 1, "1", 1, "2", 1, "3", 1, "4", 1, "5", 1, "6", 1, "7", 1, "8", 1, "9", 1, kEnd);
  EXPECT_EQ(gTaken(ten), "10 1 1 1 1 1 1 1 1 1 1 0123456789");
  EXPECT_TRUE(capture.fRecords().empty());
  c_Pack eleven("0", 1, "1", 1, "2", 1, "3", 1, "4", 1, "5", 1, "6", 1, "7", 1, "8", 1, "9", 1, "X",
                1, kEnd);
  EXPECT_EQ(gTaken(eleven), "10 1 1 1 1 1 1 1 1 1 1 0123456789");
  EXPECT_EQ(capture.fAt("PACKMSG", 74).size(), 1u);

  // An empty or absent first field is still packed.
  EXPECT_EQ(gTaken(c_Pack("", 0, kEnd)), "1 0 ");
  EXPECT_EQ(gTaken(c_Pack(kEnd, 3, kEnd)), std::string("1 3 \0\0\0", 7));
  EXPECT_EQ(capture.fAt("PACKMSG", 54).size(), 2u);

  // A negative length leaves the header past the room reserved for it.
  const std::string negative = gTaken(c_Pack("x", -200, kEnd));
  EXPECT_EQ(capture.fAt("PACKMSG", 114).size(), 1u);
  EXPECT_EQ(capture.fAt("PACKMSG", 123).size(), 1u);
  EXPECT_EQ(negative, "1 -200 ");
  EXPECT_EQ(c_Pack(c_Pack::zBounded{}, negative.data(), 7).fieldLen(0), 0);

  gPackRelease(gPackAllocate(0));
  EXPECT_EQ(capture.fAt("PACKMSG", 134).size(), 1u);
  gPackRelease(nullptr);
  EXPECT_EQ(capture.fAt("PACKMSG", 151).size(), 1u);

  c_Pack pack("abc", 3, kEnd);
  std::unique_ptr<const char[]> const block(pack.thePackedMsg());
  EXPECT_EQ(pack.field(9), nullptr);  // the slots are ten
  EXPECT_TRUE(capture.fAt("packmsg", 38).empty());
  EXPECT_EQ(pack.field(10), nullptr);
  EXPECT_EQ(pack.field(4000000000u), nullptr);
  EXPECT_EQ(capture.fAt("packmsg", 38).size(), 2u);
  EXPECT_EQ(pack.fieldLen(4000000000u), 0);
  for (auto const& record : capture.fRecords())
    EXPECT_EQ(record.module + ' ' + record.tag + ' ' + record.text, "CorvanthUtil Error ");
}

}  // namespace
