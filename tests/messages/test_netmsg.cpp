#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "LogCapture.h"
#include "MessageHelpers.h"
#include "packmsg.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define CORVANTH_TEST_ASAN 1
#endif

namespace {

using namespace corvanth::test;

// Each text ends, with its NUL, inside the message's block (the zero just
// behind a received block included), and the data lies inside it.
void gExpectContained(const cCorvanthMessage& m) {
  const char *begin = m.getPackedBuf(), *end = begin + m.getPackedBufLen();
  for (const char* text : {m.getToHost(), m.getToClient(), m.getFromHost(), m.getFromClient()})
    EXPECT_TRUE(text >= begin && text <= end && std::memchr(text, '\0', end + 1 - text) != nullptr);
  const char* data = m.getData();
  EXPECT_TRUE(data == nullptr ? m.getDatalen() == 0
                              : data >= begin && data + m.getDatalen() <= end);
}

TEST(RoutableMessage, ExampleIsByteExactAndRoundTrips) {
  cLogCapture capture;
  cCorvanthMessage built = gExampleMessage();
  EXPECT_EQ(gBlock(built), kExample);
  EXPECT_EQ(built.getToHost(), built.getPackedBuf() + 18);  // not the caller's text
  EXPECT_TRUE(capture.fRecords().empty());

  cCorvanthMessage message(kExample.data(), 57, 5, 2);
  EXPECT_NE(message.getPackedBuf(), kExample.data());
  EXPECT_EQ(gBlock(message), kExample);
  EXPECT_EQ(gFields(message), "agent@host2 from console@host1 q3 t5/2 id7 data hello");

  // Ids travel signed and come back to the same bits.
  cCorvanthMessage sent = gExampleMessage(0x80000001u);
  EXPECT_NE(gBlock(sent).find(gZ("-2147483647|")), std::string::npos);
  EXPECT_EQ(cCorvanthMessage(sent.getPackedBuf(), sent.getPackedBufLen(), 1, 1).getMessageId(),
            0x80000001u);
}

TEST(RoutableMessage, SixFieldBlockHasNoIdAndIsResentWithEight) {
  c_Pack six("h", 2, "c", 2, "fh", 3, "fc", 3, "4", 2, "data", 4, nullptr);  // read as a char*
  std::unique_ptr<const char[]> block(six.thePackedMsg());
  cCorvanthMessage message(block.get(), static_cast<unsigned int>(six.thePackedMsgLen()), 1, 2);
  EXPECT_EQ(gFields(message), "c@h from fc@fh q4 t1/2 id4294967295 data data");
  message.rePackMe("h", "c");
  EXPECT_EQ(gBlock(message), gZ("8 2 2 3 3 2 4 3 3 h|c|fh|fc|4|data-1|-1|"));
}

TEST(RoutableMessage, MissingDataOrAddressesAreLoggedAndShapeTheBlock) {
  cLogCapture capture;
  cCorvanthMessage noData(9, "h", "c", "fh", "fc", QType{1}, 0, 0, nullptr, 5);
  EXPECT_EQ(capture.fAt("NETMSG", 47).size(), 1u);
  EXPECT_EQ(gBlock(noData), gZ("5 2 2 3 3 2 h|c|fh|fc|1|"));
  EXPECT_EQ(gFields(noData), "c@h from fc@fh q1 t0/0 id4294967295 data (null)");
  EXPECT_EQ(gFields(cCorvanthMessage(noData.getPackedBuf(), noData.getPackedBufLen(), 0, 0)),
            gFields(noData));

  cCorvanthMessage emptyData(9, "h", "c", "fh", "fc", QType{1}, 0, 0, "", 0);
  EXPECT_EQ(capture.fAt("NETMSG", 48).size(), 1u);
  EXPECT_EQ(capture.fAt("NETMSG", 108).size(), 1u);
  EXPECT_EQ(gBlock(emptyData), gZ("8 2 2 3 3 2 0 2 4 h|c|fh|fc|1|9|352|"));

  cCorvanthMessage nullBlock(nullptr, 57, 5, 2);
  EXPECT_EQ(capture.fAt("NETMSG", 146).size(), 1u);
  EXPECT_EQ(nullBlock.getPackedBufLen(), 0u);
  EXPECT_EQ(gFields(nullBlock), "@ from @ q0 t5/2 id4294967295 data (null)");
  for (auto& record : capture.fRecords()) EXPECT_EQ(record.tag + '/' + record.text, "Error/");

  // Empty and null addresses pack as one NUL each.
  cCorvanthMessage noAddress(1, "", nullptr, "fh", "fc", QType{0}, 0, 0, "d", 1);
  EXPECT_EQ(gBlock(noAddress).substr(0, 18), "8 1 1 3 3 2 1 2 4 ");
  cCorvanthMessage received(noAddress.getPackedBuf(), noAddress.getPackedBufLen(), 0, 0);
  EXPECT_STREQ(received.getToClient(), "");
}

TEST(RoutableMessage, RePackMeChangesOnlyTheAddressFreesTheOldBlockAndCopiesShareIt) {
  cCorvanthMessage message(kExample.data(), 57, 5, 2);
  const char* oldBlock = message.getPackedBuf();
  // The new address may come from the old block itself.
  message.rePackMe(message.getFromHost(), message.getFromClient());
  EXPECT_NE(message.getPackedBuf(), oldBlock);
  EXPECT_EQ(gBlock(message), gZ("8 6 8 6 8 2 5 2 4 host1|console|host1|console|3|hello7|352|"));
  EXPECT_STREQ(message.getFromHost(), "host1");
#ifdef CORVANTH_TEST_ASAN
  EXPECT_TRUE(__asan_address_is_poisoned(oldBlock));
#endif

  const std::string packed = gBlock(message);
  message.setSubtype(77);  // the block keeps the subtype it was packed with
  EXPECT_EQ(gBlock(message), packed);

  // Copies share the block, and each may go.
  auto* original = new cCorvanthMessage(gExampleMessage());
  cCorvanthMessage copy(*original);
  EXPECT_EQ(copy.getPackedBuf(), original->getPackedBuf());
  cCorvanthMessage assigned;
  assigned = *original;
  delete original;
  EXPECT_STREQ(copy.getToHost(), "host2");

  [[maybe_unused]] const char* shared = copy.getPackedBuf();
  copy.rePackMe("elsewhere", "someone");
  EXPECT_EQ(gBlock(assigned), kExample);
  EXPECT_STREQ(copy.getToHost(), "elsewhere");
  assigned = copy;  // the last holder of the first block lets it go
  EXPECT_STREQ(assigned.getToClient(), "someone");
#ifdef CORVANTH_TEST_ASAN
  EXPECT_TRUE(__asan_address_is_poisoned(shared));
#endif
}

TEST(RoutableMessage, PrintOnStringDescribesAndStaysInItsBuffer) {
  cCorvanthMessage message = gExampleMessage();
  EXPECT_STREQ(message.printOnString(),
               "CorvanthMessage: , Message len:5, type (5,2), QType=3 from console@host1 to "
               "agent@host2\n");
  const std::string longName(10000, 'n');
  cCorvanthMessage longMessage(1, longName.c_str(), "c", "fh", "fc", QType{0}, 0, 0, "d", 1);
  EXPECT_EQ(std::strlen(longMessage.printOnString()), 4095u);
}

// Bytes from outside never make a reader, of fields or of messages, leave them.
TEST(HostileBlocks, ReadersStayInsideTheBytesTheyAreGiven) {
  const std::string noNul = gZ("8 5 6 6 8 2 5 2 4 host2agent|host1|console|3|hello7|352");
  std::vector<std::string> blocks = {"12 1 1 1 1 1 1 1 1 1 1 1 1 abcdefghijkl",
                                     "3 4 99999 4 abcd",
                                     "2 2147483647 2147483647 ab",
                                     "2 -5 3 abc",
                                     "-4 1 1 ab",
                                     "99999999999999999999 1 a",
                                     "x y z",
                                     gZ("5| 1 1"),
                                     "   ",
                                     noNul,
                                     gZ("8 900 6 6 8 2 5 2 4 host2|agent|"),
                                     "8 -6 6 6 8 2 5 2 4 ",
                                     "8 5 5 5 7 1 5 1 3 host2agenthost1consolexhello73523"};
  // Every prefix of the example, as a short read would leave it.
  for (std::size_t length = 0; length < kExample.size(); ++length)
    blocks.push_back(kExample.substr(0, length));
  for (const std::string& bytes : blocks) {
    SCOPED_TRACE(bytes);
    c_Pack reader(c_Pack::zBounded{}, bytes.data(), static_cast<unsigned int>(bytes.size()));
    ASSERT_GE(reader.getNumOfPacks(), 0);
    ASSERT_LE(reader.getNumOfPacks(), 10);
    for (int i = 0; i < reader.getNumOfPacks(); ++i) {
      EXPECT_GE(reader.field(i), bytes.data());
      EXPECT_GE(reader.fieldLen(i), 0);
      EXPECT_LE(reader.field(i) + reader.fieldLen(i), bytes.data() + bytes.size());
    }
    EXPECT_LE(reader.thePackedMsgLen(), static_cast<int>(bytes.size()));

    cCorvanthMessage message(bytes.data(), static_cast<unsigned int>(bytes.size()), 0, 0);
    EXPECT_EQ(gBlock(message), bytes);
    gExpectContained(message);
    message.rePackMe(message.getToClient(), message.getToHost());
    gExpectContained(message);
  }
  EXPECT_EQ(c_Pack(c_Pack::zBounded{}, blocks[0].data(), 39).getNumOfPacks(), 10);
  // Lengths past the end are cut at it.
  const std::string cut("3 4 99999 4 abcdXYZ");
  c_Pack cutReader(c_Pack::zBounded{}, cut.data(), static_cast<unsigned int>(cut.size()));
  EXPECT_EQ(std::string(cutReader.field(1), cutReader.fieldLen(1)), "XYZ");
  EXPECT_EQ(cutReader.fieldLen(2), 0);
  EXPECT_EQ(cutReader.thePackedMsgLen(), static_cast<int>(cut.size()));
  // A text that lacks its NUL reads as empty; its neighbours are untouched.
  EXPECT_EQ(gFields(cCorvanthMessage(noNul.data(), static_cast<unsigned int>(noNul.size()), 0, 0)),
            "agent@ from console@host1 q3 t0/0 id7 data hello");
}

}  // namespace
