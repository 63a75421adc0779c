#include <stdexcept>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "LogCapture.h"
#include "Nvspackmsg.h"
#include "netmsg.h"

namespace {

using corvanth::test::cLogCapture;

std::string gHeaderBytes(long length, short type, short subtype) {
  c_MessageHeader header{};
  SSMMakeMessageHeader(length, type, subtype, &header);
  return std::string(reinterpret_cast<const char*>(&header), sizeof header);
}

TEST(FrameHeader, NetworkOrderBytes) {
  EXPECT_EQ(gHeaderBytes(57, 5, 2), std::string("\x00\x00\x00\x39\x00\x05\x00\x02", 8));
  EXPECT_EQ(gHeaderBytes(1, -1, 256), std::string("\x00\x00\x00\x01\xFF\xFF\x01\x00", 8));
  EXPECT_EQ(gHeaderBytes(0, 0, 0), std::string(8, '\0'));

  c_MessageHeader header{};
  SSMMakeMessageHeader(0x12345678, -2, 300, &header);
  EXPECT_EQ(header.fLength(), 0x12345678);
  EXPECT_EQ(header.fType(), -2);
  EXPECT_EQ(header.fSubtype(), 300);
}

// Tells the test when the object is gone.
class cWatchedObject : public cTypedMessageObject {
 public:
  cWatchedObject(short type, short subtype, char* buffer, unsigned int length, bool& deleted)
      : cTypedMessageObject(type, subtype, buffer, length), mDeleted(deleted) {}
  ~cWatchedObject() override { mDeleted = true; }

 private:
  bool& mDeleted;
};

char* gCopy(const std::string& bytes) {
  char* buffer = new char[bytes.size()];
  std::memcpy(buffer, bytes.data(), bytes.size());
  return buffer;
}

const std::string kExample =
    std::string("8 6 6 6 8 2 5 2 4 ") + std::string(
                                            "host2\0agent\0host1\0console\0"
                                            "3\0hello7\0"
                                            "352\0",
                                            39);

TEST(TypedObjects, MessageTakesTheObjectsBufferOver) {
  bool deleted = false;
  char* buffer = gCopy(kExample);
  cCorvanthMessage* message = NVSTmo2Cvm(new cWatchedObject(5, 2, buffer, 57, deleted));
  ASSERT_NE(message, nullptr);
  EXPECT_TRUE(deleted);
  EXPECT_EQ(message->getPackedBuf(), buffer);
  EXPECT_EQ(message->getPackedBufLen(), 57u);
  EXPECT_EQ(message->getType(), 5);
  EXPECT_EQ(message->getSubtype(), 2);
  EXPECT_STREQ(message->getFromClient(), "console");
  EXPECT_EQ(message->getMessageId(), 7u);
  NVSDeleteMsg(message);
  NVSDeleteMsg(nullptr);
  EXPECT_EQ(NVSTmo2Cvm(nullptr), nullptr);
}

// A message whose end raises, as a derived message of a caller may.
template <class Raised>
class cRaisingMessage : public cCorvanthMessage {
 public:
  using cCorvanthMessage::cCorvanthMessage;
  ~cRaisingMessage() noexcept(false) override { throw Raised(); }
};
struct cNotAnException {};
struct cEndFailed : std::runtime_error {
  cEndFailed() : std::runtime_error("message end failed") {}
};

TEST(TypedObjects, DeletingAMessageNeverEndsTheCaller) {
  cLogCapture capture;
  NVSDeleteMsg(new cRaisingMessage<cEndFailed>());
  NVSDeleteMsg(new cRaisingMessage<cNotAnException>());
  auto caught = capture.fAt("Nvspackmsg", 28);
  ASSERT_EQ(caught.size(), 1u);
  EXPECT_EQ(caught[0].text, "message end failed");
  ASSERT_EQ(capture.fAt("Nvspackmsg", 32).size(), 1u);
  EXPECT_EQ(capture.fAt("Nvspackmsg", 32)[0].text, "");
}

TEST(TypedObjects, EmptyDataIsLoggedAndHostileBlocksAreKeptInside) {
  cLogCapture capture;
  const std::string noData(
      "6 2 2 3 3 2 0 h\0c\0fh\0fc\0"
      "1\0",
      26);
  cCorvanthMessage empty(new cTypedMessageObject(0, 0, gCopy(noData), 26));
  EXPECT_EQ(capture.fAt("NETMSG", 63).size(), 1u);
  EXPECT_STREQ(empty.getFromHost(), "fh");

  // The to-host field lacks its NUL and the block holds no zero to spare, so
  // the message reads it from a copy with a zero behind it.
  const std::string noNul("2 5 3 host2abc", 14);
  cCorvanthMessage hostile(new cTypedMessageObject(0, 0, gCopy(noNul), 14));
  EXPECT_EQ(std::string(hostile.getPackedBuf(), hostile.getPackedBufLen()), noNul);
  EXPECT_EQ(hostile.getToHost(), hostile.getPackedBuf() + 14);
  EXPECT_STREQ(hostile.getToHost(), "");
  EXPECT_STREQ(hostile.getFromClient(), "");

  cCorvanthMessage nothing(new cTypedMessageObject(0, 0, nullptr, 40));
  EXPECT_EQ(nothing.getPackedBufLen(), 0u);
  EXPECT_STREQ(nothing.getToClient(), "");
}

}  // namespace
