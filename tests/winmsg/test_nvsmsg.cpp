// The local message transport: records, the queue of a window of this thread,
// typed messages both ways with a forked process, and the corvanth tool's
// window verbs.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>

#include "../messages/MessageHelpers.h"
#include "../sockets/ChildProcess.h"
#include "AssociativeArray.h"
#include "LogCapture.h"
#include "NVSMSG.h"
#include "netmsg.h"

namespace {

using namespace corvanth::test;

std::string gBytes(const COPYDATASTRUCT* record) { return std::string(NVSGetDataConst(record), record->cbData); }
// A record as "code:bytes".
std::string gShown(const COPYDATASTRUCT* record) { return std::to_string(record->dwData) + ":" + gBytes(record); }

std::string gWindowName(char const* what) { return std::string(what) + "-" + std::to_string(getpid()); }

// "length type/subtype payload" as NVSUnPackData gives them.
std::string gUnpacked(const COPYDATASTRUCT* record, const char** at = nullptr) {
  const char* data = nullptr;
  long length = 0;
  short type = 0, subtype = 0;
  NVSUnPackData(record, data, length, type, subtype);
  if (at != nullptr) *at = data;
  return std::to_string(length) + " " + std::to_string(type) + "/" + std::to_string(subtype) + " " +
         (data != nullptr ? std::string(data, static_cast<std::size_t>(length)) : "(null)");
}

TEST(NvsRecords, FrameInFrontOfThePayloadAndEveryCheckAtItsLine) {
  cLogCapture capture;
  std::string const payload("\x01\xff\0yz", 5);
  COPYDATASTRUCT* record = NVSPackData(payload.data(), 5, 3, 4);
  EXPECT_EQ(gBytes(record), std::string("\0\0\0\5\0\3\0\4", 8) + payload);
  const char* at = nullptr;
  EXPECT_EQ(gUnpacked(record, &at), "5 3/4 " + payload);
  EXPECT_EQ(at, NVSGetData(record) + 8);
  EXPECT_EQ(NVSReleaseData(record), 1);
  // A header that announces more than arrived never reaches past the record.
  record->cbData = 10;
  EXPECT_EQ(gUnpacked(record), "2 3/4 " + payload.substr(0, 2));
  record->cbData = 7;
  EXPECT_EQ(gUnpacked(record), "0 0/0 (null)");
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
  EXPECT_EQ(NVSReleaseData(nullptr) + NVSFreeData(nullptr), 2);
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
  EXPECT_EQ(gShown(record), "9:");
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

// The forked peer sends every record back as it came: frame and code. On a
// failure it posts the quit message, so that no wait here hangs.
[[noreturn]] void gEchoPeer(std::string const& name, std::string const& back, int ready) {
  HWND own = CreateWindowA(name.c_str());
  bool ok = own != nullptr && write(ready, "!", 1) == 1;
  HWND const answer = FindWindowA(nullptr, back.c_str());
  while (COPYDATASTRUCT const* record = ok ? NVSWaitMsg(own, 1) : nullptr) {
    COPYDATASTRUCT copy = *record;  // the same bytes and code, sent from here
    ok = NVSSendMsg(record->cbData != 0 ? &copy : nullptr, answer, record->dwData) != 0;
    NVSFreeData(record);
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

  // A packed message of 57 bytes whose data is a string form with a zero byte.
  CAssociativeArray parameters;
  parameters.AddCouple("n", "z\0b", 3);
  char const* form = nullptr;
  int formLength = 0;
  parameters.ToString(form, formLength, false, false);
  cCorvanthMessage const message(7, "host", "ag", "h1", "user", QType{3}, -3, 300, form,
                                 static_cast<unsigned int>(formLength));
  COPYDATASTRUCT* record = NVSPackData(message.getPackedBuf(), message.getPackedBufLen(), -3, 300);
  ASSERT_NE(NVSSendMsg(record, window, 11), 0);
  COPYDATASTRUCT const* echo = NVSWaitMsg(own, 1);
  ASSERT_NE(echo, nullptr) << "the peer failed";
  EXPECT_EQ(echo->cbData, 65u);
  EXPECT_EQ(gShown(echo), "11:" + gBytes(record));
  const char* data = nullptr;
  EXPECT_EQ(gUnpacked(echo, &data), "57 -3/300 " + gBlock(message));
  cCorvanthMessage const arrived(data, 57, -3, 300);
  EXPECT_EQ(gFields(arrived), gFields(message));
  CAssociativeArray read;
  read.FromString(std::string(arrived.getData(), arrived.getDatalen()).c_str(), formLength);
  read.GetValueOfParameter("n", data, formLength);
  EXPECT_EQ(std::string(data, formLength), std::string("z\0b", 3));
  NVSFreeData(echo);

  ASSERT_NE(NVSSendMsg(nullptr, window, 42), 0);
  echo = NVSWaitMsg(own, 1);
  ASSERT_NE(echo, nullptr) << "the peer failed";
  EXPECT_EQ(gShown(echo), "42:");
  NVSFreeData(echo);

  // Once the peer has ended, a send fails with the code already stored.
  PostMessageA(window, WM_QUIT, 0, 0);
  int status = -1;
  ASSERT_EQ(waitpid(peer, &status, 0), peer);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
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
