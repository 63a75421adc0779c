#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "LogCapture.h"
#include "MessageHelpers.h"
#include "Nvspackmsg.h"

namespace {

using namespace corvanth::test;

// Tells the test when the object is gone.
class cWatchedObject : public cTypedMessageObject {
 public:
  cWatchedObject(char* buffer, unsigned int length, bool& deleted)
      : cTypedMessageObject(5, 2, buffer, length), mDeleted(deleted) {}
  ~cWatchedObject() override { mDeleted = true; }

 private:
  bool& mDeleted;
};

TEST(TypedObjects, MessageTakesTheObjectsBufferOverAndKeepsHostileBuffersInside) {
  cLogCapture capture;
  bool deleted = false;
  char* buffer = gCopy(kExample);
  cCorvanthMessage* message = NVSTmo2Cvm(new cWatchedObject(buffer, 57, deleted));
  ASSERT_NE(message, nullptr);
  EXPECT_TRUE(deleted);
  EXPECT_EQ(message->getPackedBuf(), buffer);
  EXPECT_EQ(message->getPackedBufLen(), 57u);
  EXPECT_EQ(gFields(*message), "agent@host2 from console@host1 q3 t5/2 id7 data hello");
  NVSDeleteMsg(message);
  NVSDeleteMsg(nullptr);
  EXPECT_EQ(NVSTmo2Cvm(nullptr), nullptr);

  const std::string noData = gZ("6 2 2 3 3 2 0 h|c|fh|fc|1|");
  cCorvanthMessage empty(new cTypedMessageObject(0, 0, gCopy(noData), 26));
  EXPECT_EQ(capture.fAt("NETMSG", 63).size(), 1u);
  EXPECT_STREQ(empty.getFromHost(), "fh");

  // The to-host field lacks its NUL and the buffer holds no zero to spare, so
  // the message reads it from a copy with a zero behind it.
  const std::string noNul("2 5 3 host2abc", 14);
  cCorvanthMessage hostile(new cTypedMessageObject(0, 0, gCopy(noNul), 14));
  EXPECT_EQ(gBlock(hostile), noNul);
  EXPECT_EQ(hostile.getToHost(), hostile.getPackedBuf() + 14);
  EXPECT_EQ(gFields(hostile), "@ from @ q0 t0/0 id4294967295 data (null)");

  cCorvanthMessage nothing(new cTypedMessageObject(0, 0, nullptr, 40));
  EXPECT_EQ(nothing.getPackedBufLen(), 0u);
  EXPECT_EQ(gFields(nothing), "@ from @ q0 t0/0 id4294967295 data (null)");
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
  ASSERT_EQ(capture.fAt("Nvspackmsg", 28).size(), 1u);
  EXPECT_EQ(capture.fAt("Nvspackmsg", 28)[0].text, "message end failed");
  ASSERT_EQ(capture.fAt("Nvspackmsg", 32).size(), 1u);
  EXPECT_EQ(capture.fAt("Nvspackmsg", 32)[0].text, "");
}

}  // namespace
