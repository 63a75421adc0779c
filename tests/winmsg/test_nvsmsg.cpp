// The local message transport: records, the queue of a window of this thread,
// typed messages both ways with a forked process, and the corvanth tool's
// window verbs.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>

#include "../sockets/ChildProcess.h"
#include "AssociativeArray.h"
#include "LogCapture.h"
#include "NVSMSG.h"
#include "netmsg.h"

namespace {

using namespace corvanth::test;

std::string gBytes(const COPYDATASTRUCT* record) {
  return std::string(NVSGetDataConst(record), record->cbData);
}

std::string gWindowName(char const* what) { return std::string(what) + "-" + std::to_string(getpid()); }

TEST(NvsRecords, FrameInFrontOfThePayloadAndEveryCheckAtItsLine) {
  cLogCapture capture;
  std::string payload(57, '\0');
  for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(250 + i);
  COPYDATASTRUCT* record = NVSPackData(payload.data(), 57, 5, 2);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(gBytes(record), std::string("\0\0\0\x39\0\x05\0\x02", 8) + payload);
  const char* data = nullptr;
  long length = 0;
  short type = 0, subtype = 0;
  NVSUnPackData(record, data, length, type, subtype);
  EXPECT_EQ(data, NVSGetData(record) + 8);
  EXPECT_EQ(length, 57);
  EXPECT_EQ(type, 5);
  EXPECT_EQ(subtype, 2);
  EXPECT_EQ(NVSReleaseData(record), 1);
  // A header that announces more than arrived never reaches past the record.
  record->cbData = 20;
  NVSUnPackData(record, data, length, type, subtype);
  EXPECT_EQ(length, 12);
  record->cbData = 7;
  NVSUnPackData(record, data, length, type, subtype);
  EXPECT_TRUE(data == nullptr && length == 0 && type == 0 && subtype == 0);
  record->cbData = 65;
  record->dwData = 77;
  EXPECT_EQ(NVSSendMsg(record, nullptr, 9), 0);
  EXPECT_EQ(record->dwData, 77u);
  EXPECT_EQ(NVSFreeData(record), 1);

  COPYDATASTRUCT* empty = NVSPackData("", 0, -1, 256);
  EXPECT_EQ(gBytes(empty), std::string("\0\0\0\0\xff\xff\x01\x00", 8));
  EXPECT_EQ(NVSPackData(nullptr, -1, 0, 0), nullptr);
  EXPECT_TRUE(capture.fRecords().empty());

  COPYDATASTRUCT* nothing = NVSAlloc(0);
  EXPECT_EQ(nothing->cbData, 0u);
  EXPECT_EQ(NVSGetData(nullptr), nullptr);
  EXPECT_EQ(NVSGetDataConst(nullptr), nullptr);
  EXPECT_EQ(NVSReleaseData(nullptr), 1);
  EXPECT_EQ(NVSFreeData(nullptr), 1);
  for (long line : {227, 256, 251, 276, 297}) {
    ASSERT_EQ(capture.fAt("NVSMSG", line).size(), 1u) << line;
    EXPECT_EQ(capture.fAt("NVSMSG", line)[0].text, "");
  }
  EXPECT_EQ(NVSFreeData(nothing) + NVSFreeData(empty), 2);
}

TEST(NvsQueue, PeekDrainsToTheCopyDataMessageAndWaitGivesAnyLParam) {
  cLogCapture capture;
  HWND window = CreateWindowA(gWindowName("queue").c_str());
  ASSERT_NE(window, nullptr);
  EXPECT_EQ(NVSPeekMsg(window, 0), 0);
  PostMessageA(window, 0x401, 0, 11);
  PostMessageA(window, 0x402, 0, 12);
  ASSERT_EQ(NVSSendMsg(nullptr, window, 9), 1);  // a send to a window of this thread is queued
  EXPECT_EQ(NVSPeekMsg(window, 0), 1);
  MSG front{};
  ASSERT_EQ(PeekMessageA(&front, window, 0, 0, PM_NOREMOVE), 1);
  EXPECT_EQ(front.message, WM_COPYDATA);
  const COPYDATASTRUCT* record = NVSWaitMsg(window, 1);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->dwData, 9u);
  EXPECT_EQ(record->cbData, 0u);
  NVSFreeData(record);
  EXPECT_EQ(PeekMessageA(&front, window, 0, 0, PM_NOREMOVE), 0);

  PostMessageA(window, 0x403, 0, 1234);
  EXPECT_EQ(NVSWaitMsg(window, 0), reinterpret_cast<const COPYDATASTRUCT*>(1234));
  PostMessageA(window, 0x404, 0, 5678);  // dropped by a wait for copy-data only
  PostMessageA(window, WM_QUIT, 0, 0);
  EXPECT_EQ(NVSWaitMsg(window, 1), nullptr);
  // A null window is reported and then stands for every window of the thread.
  PostMessageA(window, 0x405, 0, 42);
  EXPECT_EQ(NVSWaitMsg(nullptr, 0), reinterpret_cast<const COPYDATASTRUCT*>(42));
  EXPECT_EQ(NVSPeekMsg(nullptr, 0), 0);
  EXPECT_EQ(capture.fAt("NVSMSG", 142).size(), 1u);
  EXPECT_EQ(capture.fAt("NVSMSG", 195).size(), 1u);
  EXPECT_TRUE(capture.fAt("NVSMSG", 66).empty());
  DestroyWindow(window);
}

// The forked peer sends every record back as it came: frame, type, subtype
// and code. On any failure it posts the quit message, so no wait here hangs.
[[noreturn]] void gEchoPeer(std::string const& name, std::string const& back, int ready) {
  HWND own = CreateWindowA(name.c_str());
  char const byte = 1;
  bool ok = own != nullptr && write(ready, &byte, 1) == 1;
  HWND const answer = FindWindowA(nullptr, back.c_str());
  while (ok) {
    COPYDATASTRUCT const* record = NVSWaitMsg(own, 1);
    if (record == nullptr) break;
    const char* data = nullptr;
    long length = 0;
    short type = 0, subtype = 0;
    NVSUnPackData(record, data, length, type, subtype);
    COPYDATASTRUCT* copy = data != nullptr ? NVSPackData(data, length, type, subtype) : nullptr;
    ok = NVSSendMsg(copy, answer, record->dwData) != 0;
    NVSFreeData(record);
    if (copy != nullptr) NVSFreeData(copy);
  }
  if (!ok) PostMessageA(answer, WM_QUIT, 0, 0);
  _exit(ok ? 0 : 1);
}

TEST(NvsBetweenProcesses, TypedMessagesGoBothWaysByteForByte) {
  cLogCapture capture;
  std::string const name = gWindowName("echo"), back = gWindowName("back");
  HWND own = CreateWindowA(back.c_str());
  int ready[2];
  ASSERT_TRUE(own != nullptr && pipe(ready) == 0);
  pid_t const peer = fork();
  if (peer == 0) gEchoPeer(name, back, ready[1]);
  close(ready[1]);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  close(ready[0]);
  HWND const window = FindWindowA(nullptr, name.c_str());
  ASSERT_NE(window, nullptr);

  // Every byte value, a frame of type 5 / subtype 2, and then only a code.
  std::string raw(57, '\0');
  for (std::size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<char>(i * 37 % 256);
  CAssociativeArray parameters;
  parameters.AddCouple("user", "alice");
  parameters.AddCouple("note", "zero\0byte", 9);
  char const* form = nullptr;
  int formLength = 0;
  parameters.ToString(form, formLength, false, false);
  cCorvanthMessage const message(7, "host2", "agent", "host1", "console", QType{3}, -3, 300, form,
                                 static_cast<unsigned int>(formLength));
  struct {
    std::string payload;
    short type, subtype;
    unsigned int code;
    bool framed;
  } const sent[] = {
      {raw, 5, 2, 9, true},
      {std::string(message.getPackedBuf(), message.getPackedBufLen()), -3, 300, 11, true},
      {"", 0, 0, 42, false},
  };
  for (auto const& one : sent) {
    COPYDATASTRUCT* record =
        one.framed ? NVSPackData(one.payload.data(), static_cast<long>(one.payload.size()), one.type, one.subtype)
                   : nullptr;
    ASSERT_NE(NVSSendMsg(record, window, one.code), 0);
    if (record != nullptr) NVSFreeData(record);
    COPYDATASTRUCT const* echo = NVSWaitMsg(own, 1);
    ASSERT_NE(echo, nullptr) << "the peer failed";
    EXPECT_EQ(echo->dwData, one.code);
    EXPECT_EQ(echo->cbData, one.framed ? one.payload.size() + 8 : 0u);
    const char* data = nullptr;
    long length = 0;
    short type = 0, subtype = 0;
    NVSUnPackData(echo, data, length, type, subtype);
    EXPECT_EQ(std::string(data != nullptr ? data : "", static_cast<std::size_t>(length)), one.payload);
    EXPECT_EQ(type, one.type);
    EXPECT_EQ(subtype, one.subtype);
    if (one.code == 11) {
      cCorvanthMessage const arrived(data, static_cast<unsigned int>(length), type, subtype);
      EXPECT_EQ(std::string(arrived.getData(), arrived.getDatalen()), std::string(form, formLength));
      EXPECT_STREQ(arrived.getToClient(), "agent");
      EXPECT_EQ(arrived.getMessageId(), 7u);
      CAssociativeArray read;
      read.FromString(std::string(arrived.getData(), arrived.getDatalen()).c_str(), formLength);
      const char* value = nullptr;
      int valueLength = 0;
      read.GetValueOfParameter("note", value, valueLength);
      EXPECT_EQ(std::string(value, valueLength), std::string("zero\0byte", 9));
      EXPECT_STREQ(read.GetValueOfParameter("user"), "alice");
    }
    NVSFreeData(echo);
  }

  // Once the peer has ended, a send fails with the code already stored.
  PostMessageA(window, WM_QUIT, 0, 0);
  int status = -1;
  ASSERT_EQ(waitpid(peer, &status, 0), peer);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  COPYDATASTRUCT* record = NVSPackData("late", 4, 1, 1);
  EXPECT_EQ(NVSSendMsg(record, window, 13), 0);
  EXPECT_EQ(record->dwData, 13u);
  NVSFreeData(record);
  ASSERT_EQ(capture.fAt("NVSMSG", 66).size(), 1u);
  EXPECT_EQ(capture.fAt("NVSMSG", 66)[0].text, "");
  DestroyWindow(own);
}

TEST(NvsTool, WindowSendDeliversAMessageThatServePrints) {
  using std::chrono::seconds;
  std::string const name = gWindowName("tool");
  cChildProcess serve({CORVANTH_TOOL, "window", "serve", name, "--count", "2"});
  ASSERT_EQ(serve.fReadLine(seconds(20)), "window " + name + " open, for 2 message(s)");
  cChildProcess send({CORVANTH_TOOL, "window", "send", name, "--to", "agent@localhost", "--from",
                      "console@demo", "--type", "5", "--subtype", "2", "--id", "7", "--code", "3",
                      "user=alice", "note=zero\\0byte", "script={name=checkout,steps=3}"});
  auto const [sendStatus, sent] = send.fFinish(seconds(40));
  EXPECT_EQ(sendStatus, 0) << sent;
  std::string const parameters =
      "    note (9 bytes) = zero\\x00byte\n"
      "    script (36 bytes) = 2 '4 name '8 checkout '5 steps '1 3 \n"
      "    user (5 bytes) = alice\n";
  std::string const envelope =
      "message 7 from console@demo to agent@localhost, queue type 0, type 5, subtype 2, ";
  EXPECT_NE(sent.find("sending " + envelope), std::string::npos) << sent;
  EXPECT_NE(sent.find(parameters + "delivered with code 3 in a record of "), std::string::npos) << sent;
  HWND const window = FindWindowA(nullptr, name.c_str());
  ASSERT_NE(window, nullptr);
  EXPECT_EQ(NVSSendMsg(nullptr, window, 4), 1);
  auto const [serveStatus, served] = serve.fFinish(seconds(40));
  EXPECT_EQ(serveStatus, 0);
  EXPECT_NE(served.find("received " + envelope), std::string::npos) << served;
  EXPECT_NE(served.find(parameters + "received code 4 with 0 bytes, no frame\n"
                                     "stopped after 2 received message(s)\n"),
            std::string::npos)
      << served;
  auto const [goneStatus, gone] =
      cChildProcess({CORVANTH_TOOL, "window", "send", name, "a=b"}).fFinish(seconds(40));
  EXPECT_EQ(goneStatus, 1);
  EXPECT_NE(gone.find("there is no window " + name), std::string::npos) << gone;
}

}  // namespace
