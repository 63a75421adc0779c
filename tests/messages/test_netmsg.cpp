#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "netmsg.h"
#include "packmsg.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define CORVANTH_TEST_ASAN 1
#endif

namespace {

using corvanth::test::cLogCapture;

const std::string kExample =
    std::string("8 6 6 6 8 2 5 2 4 ") + std::string(
                                            "host2\0agent\0host1\0console\0"
                                            "3\0hello7\0"
                                            "352\0",
                                            39);

cCorvanthMessage gExampleMessage(unsigned int id = 7) {
  return cCorvanthMessage(id, "host2", "agent", "host1", "console", static_cast<QType>(3), 5, 2,
                          "hello", 5);
}

std::string gBlock(const cCorvanthMessage& message) {
  return std::string(message.getPackedBuf(), message.getPackedBufLen());
}

bool gInside(const cCorvanthMessage& message, const char* pointer) {
  return pointer >= message.getPackedBuf() &&
         pointer <= message.getPackedBuf() + message.getPackedBufLen();
}

// Each text ends, with its NUL, inside the message's block (the zero just
// behind a received block included), and the data lies inside it.
void gExpectContained(const cCorvanthMessage& message) {
  for (const char* text : {message.getToHost(), message.getToClient(), message.getFromHost(),
                           message.getFromClient()}) {
    ASSERT_TRUE(gInside(message, text));
    const void* nul =
        std::memchr(text, '\0', message.getPackedBuf() + message.getPackedBufLen() + 1 - text);
    EXPECT_NE(nul, nullptr);
  }
  if (message.getData() != nullptr) {
    EXPECT_TRUE(gInside(message, message.getData()));
    EXPECT_TRUE(gInside(message, message.getData() + message.getDatalen()));
  } else {
    EXPECT_EQ(message.getDatalen(), 0u);
  }
}

TEST(RoutableMessage, ExampleIsByteExactAndPointsIntoItsBlock) {
  cLogCapture capture;
  const std::string toHost = "host2";
  cCorvanthMessage message(7, toHost.c_str(), "agent", "host1", "console", static_cast<QType>(3), 5,
                           2, "hello", 5);
  EXPECT_EQ(message.getPackedBufLen(), 57u);
  EXPECT_EQ(gBlock(message), kExample);
  EXPECT_NE(message.getToHost(), toHost.c_str());
  EXPECT_EQ(message.getToHost(), message.getPackedBuf() + 18);
  EXPECT_EQ(message.getData(), message.getPackedBuf() + 18 + 28);
  EXPECT_EQ(message.getToList(), message.getToHost());
  EXPECT_STREQ(message.nameOf(), "CorvanthMessage");
  EXPECT_TRUE(capture.fRecords().empty());
}

TEST(RoutableMessage, ReceivedExampleRoundTrips) {
  cCorvanthMessage message(kExample.data(), 57, 5, 2);
  EXPECT_NE(message.getPackedBuf(), kExample.data());
  EXPECT_EQ(gBlock(message), kExample);
  EXPECT_STREQ(message.getToHost(), "host2");
  EXPECT_STREQ(message.getToClient(), "agent");
  EXPECT_STREQ(message.getFromHost(), "host1");
  EXPECT_STREQ(message.getFromClient(), "console");
  EXPECT_EQ(message.getQtype(), 3);
  EXPECT_EQ(message.getType(), 5);
  EXPECT_EQ(message.getSubtype(), 2);
  EXPECT_EQ(std::string(message.getData(), message.getDatalen()), "hello");
  EXPECT_EQ(message.getMessageId(), 7u);
  gExpectContained(message);
}

TEST(RoutableMessage, IdsTravelSignedAndComeBackToTheSameBits) {
  cCorvanthMessage sent = gExampleMessage(0x80000001u);
  EXPECT_NE(gBlock(sent).find(std::string("-2147483647\0", 12)), std::string::npos);
  cCorvanthMessage received(sent.getPackedBuf(), sent.getPackedBufLen(), 1, 1);
  EXPECT_EQ(received.getMessageId(), 0x80000001u);
}

TEST(RoutableMessage, SixFieldBlockHasNoIdAndIsResentWithEight) {
  c_Pack six("h", 2, "c", 2, "fh", 3, "fc", 3, "4", 2, "data", 4,
             static_cast<const char*>(nullptr));
  std::unique_ptr<const char[]> block(six.thePackedMsg());
  cCorvanthMessage message(block.get(), static_cast<unsigned int>(six.thePackedMsgLen()), 1, 2);
  EXPECT_EQ(message.getMessageId(), 0xFFFFFFFFu);
  EXPECT_STREQ(message.getToHost(), "h");
  EXPECT_STREQ(message.getFromClient(), "fc");
  EXPECT_EQ(message.getQtype(), 4);
  EXPECT_EQ(std::string(message.getData(), message.getDatalen()), "data");

  message.rePackMe("h", "c");
  EXPECT_EQ(gBlock(message), std::string("8 2 2 3 3 2 4 3 3 h\0c\0fh\0fc\0"
                                         "4\0data-1\0-1\0",
                                         40));
}

TEST(RoutableMessage, MissingOrEmptyDataIsLoggedAndShapesTheBlock) {
  cLogCapture capture;
  cCorvanthMessage noData(9, "h", "c", "fh", "fc", static_cast<QType>(1), 0, 0, nullptr, 5);
  EXPECT_EQ(capture.fAt("NETMSG", 47).size(), 1u);
  EXPECT_TRUE(capture.fAt("NETMSG", 48).empty());
  EXPECT_EQ(gBlock(noData), std::string("5 2 2 3 3 2 h\0c\0fh\0fc\0"
                                        "1\0",
                                        24));
  EXPECT_EQ(noData.getData(), nullptr);
  EXPECT_EQ(noData.getDatalen(), 0u);
  EXPECT_EQ(noData.getMessageId(), 0xFFFFFFFFu);
  cCorvanthMessage noDataReceived(noData.getPackedBuf(), noData.getPackedBufLen(), 0, 0);
  EXPECT_EQ(noDataReceived.getData(), nullptr);
  EXPECT_STREQ(noDataReceived.getFromClient(), "fc");

  cCorvanthMessage emptyData(9, "h", "c", "fh", "fc", static_cast<QType>(1), 0, 0, "", 0);
  EXPECT_EQ(capture.fAt("NETMSG", 48).size(), 1u);
  EXPECT_EQ(capture.fAt("NETMSG", 108).size(), 1u);
  EXPECT_EQ(gBlock(emptyData), std::string("8 2 2 3 3 2 0 2 4 h\0c\0fh\0fc\0"
                                           "1\0"
                                           "9\0"
                                           "352\0",
                                           36));
  EXPECT_EQ(emptyData.getMessageId(), 9u);
  for (auto& record : capture.fRecords()) {
    EXPECT_EQ(record.tag, "Error");
    EXPECT_EQ(record.text, "");
  }
}

TEST(RoutableMessage, EmptyAndNullAddressesPackAsOneNul) {
  cCorvanthMessage message(1, "", nullptr, "fh", "fc", static_cast<QType>(0), 0, 0, "d", 1);
  EXPECT_EQ(gBlock(message).substr(0, 18), "8 1 1 3 3 2 1 2 4 ");
  cCorvanthMessage received(message.getPackedBuf(), message.getPackedBufLen(), 0, 0);
  EXPECT_STREQ(received.getToHost(), "");
  EXPECT_STREQ(received.getToClient(), "");
}

TEST(RoutableMessage, RePackMeChangesOnlyTheAddressAndFreesTheOldBlock) {
  cCorvanthMessage message(kExample.data(), 57, 5, 2);
  const char* oldBlock = message.getPackedBuf();
  const char* oldFromHost = message.getFromHost();
  // The new address may come from the old block itself.
  message.rePackMe(message.getFromHost(), message.getFromClient());
  EXPECT_NE(message.getPackedBuf(), oldBlock);
  cCorvanthMessage expected(7, "host1", "console", "host1", "console", static_cast<QType>(3), 5, 2,
                            "hello", 5);
  EXPECT_EQ(gBlock(message), gBlock(expected));
  EXPECT_STREQ(message.getFromHost(), "host1");
  EXPECT_NE(message.getFromHost(), oldFromHost);
  EXPECT_EQ(message.getType(), 5);
#ifdef CORVANTH_TEST_ASAN
  EXPECT_TRUE(__asan_address_is_poisoned(oldBlock));
#endif

  const std::string packed = gBlock(message);
  message.setSubtype(77);
  EXPECT_EQ(message.getSubtype(), 77);
  EXPECT_EQ(gBlock(message), packed);
}

TEST(RoutableMessage, CopiesShareTheBlockAndEachMayGo) {
  auto* original = new cCorvanthMessage(gExampleMessage());
  cCorvanthMessage copy(*original);
  EXPECT_EQ(copy.getPackedBuf(), original->getPackedBuf());
  cCorvanthMessage assigned;
  assigned = copy;
  assigned = *original;
  EXPECT_EQ(assigned.getToHost(), original->getToHost());
  delete original;
  EXPECT_STREQ(copy.getToHost(), "host2");

  const char* shared = copy.getPackedBuf();
  copy.rePackMe("elsewhere", "someone");
  EXPECT_EQ(assigned.getPackedBuf(), shared);
  EXPECT_EQ(gBlock(assigned), kExample);
  EXPECT_STREQ(copy.getToHost(), "elsewhere");
  assigned = copy;
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
  cCorvanthMessage longMessage(1, longName.c_str(), "c", "fh", "fc", static_cast<QType>(0), 0, 0,
                               "d", 1);
  const char* text = longMessage.printOnString();
  EXPECT_EQ(std::strlen(text), 4095u);
  EXPECT_EQ(text, message.printOnString());
}

TEST(RoutableMessage, NullReceivedBlockIsLoggedAndGivesAnEmptyMessage) {
  cLogCapture capture;
  cCorvanthMessage message(nullptr, 57, 5, 2);
  EXPECT_EQ(capture.fAt("NETMSG", 146).size(), 1u);
  EXPECT_EQ(message.getPackedBufLen(), 0u);
  EXPECT_STREQ(message.getToHost(), "");
  EXPECT_EQ(message.getMessageId(), 0xFFFFFFFFu);
}

TEST(RoutableMessage, HostileBlocksKeepEveryGetterInside) {
  std::vector<std::string> blocks = {
      "12 1 1 1 1 1 1 1 1 1 1 1 1 abcdefghijkl",
      "8 6 6 6 8 2 5 2 4 host2",
      std::string("8 900 6 6 8 2 5 2 4 host2\0agent\0", 32),
      std::string("8 5 6 6 8 2 5 2 4 host2agent\0host1\0console\0"
                  "3\0hello7\0"
                  "352\0",
                  56),
      std::string("8 5 5 5 7 1 5 1 3 host2agenthost1consolexhello73523", 51),
      "8 -6 6 6 8 2 5 2 4 ",
      "-3",
      "",
  };
  // Every prefix of the example, as a short read would leave it.
  for (std::size_t length = 0; length < kExample.size(); ++length) {
    blocks.push_back(kExample.substr(0, length));
  }
  for (const std::string& bytes : blocks) {
    SCOPED_TRACE(bytes);
    cCorvanthMessage message(bytes.data(), static_cast<unsigned int>(bytes.size()), 0, 0);
    EXPECT_EQ(gBlock(message), bytes);
    gExpectContained(message);
    message.rePackMe(message.getToClient(), message.getToHost());
    gExpectContained(message);
  }

  // A text that lacks its NUL reads as empty; its neighbours are untouched.
  cCorvanthMessage noNul(blocks[3].data(), static_cast<unsigned int>(blocks[3].size()), 0, 0);
  EXPECT_STREQ(noNul.getToHost(), "");
  EXPECT_STREQ(noNul.getToClient(), "agent");
  EXPECT_EQ(noNul.getMessageId(), 7u);
}

}  // namespace
