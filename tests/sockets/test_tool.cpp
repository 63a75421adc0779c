// The road of one request through the corvanth tool: parameters in a string
// form, in a message, in a frame, to `corvanth serve` in a process of its own
// and back, byte for byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "AssociativeArray.h"
#include "ChildProcess.h"
#include "SocketKit.h"
#include "netmsg.h"
#include "streamsocket.h"

namespace {

using namespace corvanth::test;
namespace nSock = nCommunication::nSocket;

std::string gForm(CAssociativeArray const& array) {
  char const* text = nullptr;
  int length = 0;
  array.ToString(text, length, false, false);
  return std::string(text, std::size_t(length));
}

std::string gValue(CAssociativeArray const& array, char const* key) {
  char const* value = nullptr;
  int length = 0;
  array.GetValueOfParameter(key, value, length);
  return std::string(value, std::size_t(length));
}

// The lines of text that start with the given piece.
std::vector<std::string> gLines(std::string const& text, std::string const& start) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    if (line.rfind(start, 0) == 0) lines.push_back(line);
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

// `corvanth serve` on a free port, for count messages.
struct cServer {
  cChildProcess mProcess;
  unsigned short mPort = 0;

  explicit cServer(int count)
      : mProcess({CORVANTH_TOOL, "serve", "--name", "agent", "--count", std::to_string(count)}) {
    std::string const first = mProcess.fReadLine(kBound);
    std::size_t const colon = first.rfind(':');
    EXPECT_EQ(first.rfind("listening on 127.0.0.1:", 0), 0u) << first;
    if (colon != std::string::npos)
      mPort = static_cast<unsigned short>(std::stoul(first.substr(colon + 1)));
  }
};

TEST(CorvanthTool, ServeAnswersWithTheParametersByteForByte) {
  cServer server(1);
  ASSERT_NE(server.mPort, 0);

  CAssociativeArray nested;
  nested.AddCouple("inner", std::string("x\0y", 3).c_str(), 3);
  nested.AddCouple("count", 42L);
  std::string const nestedForm = gForm(nested);
  CAssociativeArray parameters;
  parameters.AddCouple("user", "alice");
  parameters.AddCouple("blob", std::string("a\0b\0\xff", 5).c_str(), 5);
  parameters.AddCouple("script", nestedForm.data(), int(nestedForm.size()));
  std::string const form = gForm(parameters);
  cCorvanthMessage const request(41, "host2", "agent", "host1", "console", static_cast<QType>(3), 5,
                                 2, form.data(), unsigned(form.size()));

  StreamSocket socket;
  socket.Connect("127.0.0.1", server.mPort, nSock::cSocketOptions());
  ASSERT_TRUE(
      socket.SendTypedMessageZ2(5, 2, request.getPackedBuf(), int(request.getPackedBufLen())));
  short type = 0;
  short subtype = 0;
  char* bytes = nullptr;
  int length = 0;
  ASSERT_TRUE(socket.WaitTypedMessageZ1(type, subtype, bytes, length, nullptr));
  cCorvanthMessage const answer(bytes, unsigned(length), type, subtype);
  socket.FreeMessage(bytes);
  socket.CloseSocket();

  EXPECT_EQ(answer.getMessageId(), 41u);
  EXPECT_STREQ(answer.getToClient(), "console");
  EXPECT_STREQ(answer.getToHost(), "host1");
  EXPECT_STREQ(answer.getFromClient(), "agent");
  EXPECT_EQ(answer.getQtype(), static_cast<QType>(3));
  EXPECT_EQ(answer.getType(), 5);
  CAssociativeArray back;
  back.FromString(std::string(answer.getData(), answer.getDatalen()).c_str(),
                  int(answer.getDatalen()));
  EXPECT_EQ(gValue(back, "user"), "alice");
  EXPECT_EQ(gValue(back, "blob"), std::string("a\0b\0\xff", 5));
  EXPECT_EQ(gValue(back, "script"), nestedForm);
  CAssociativeArray nestedBack;
  nestedBack.FromString(nestedForm.c_str(), int(nestedForm.size()));
  EXPECT_EQ(gValue(nestedBack, "inner"), std::string("x\0y", 3));

  // The server's own reading of the parameters, bytes escaped one to one.
  std::string const printed = server.mProcess.fReadAll(kBound);
  EXPECT_EQ(server.mProcess.fWait(kBound), 0) << printed;
  EXPECT_NE(printed.find("received message 41 from console@host1 to agent@host2, queue type 3, "
                         "type 5, subtype 2"),
            std::string::npos)
      << printed;
  EXPECT_NE(printed.find("    blob (5 bytes) = a\\x00b\\x00\\xff\n"), std::string::npos) << printed;
  EXPECT_NE(printed.find("    script (" + std::to_string(nestedForm.size()) + " bytes) = "),
            std::string::npos)
      << printed;
}

TEST(CorvanthTool, SendAndServeSeeTheSameParametersAndExitCleanly) {
  cServer server(1);
  ASSERT_NE(server.mPort, 0);
  cChildProcess send({CORVANTH_TOOL, "send", "--port", std::to_string(server.mPort), "--to",
                      "agent@localhost", "--from", "console@test", "--type", "7", "--id", "9",
                      "user=bob", "zero=a\\0b", "script={name=checkout,inner={k=\\x00\\x2c}}"});
  std::string const sent = send.fReadAll(kBound);
  EXPECT_EQ(send.fWait(kBound), 0) << sent;
  std::string const served = server.mProcess.fReadAll(kBound);
  EXPECT_EQ(server.mProcess.fWait(kBound), 0) << served;

  EXPECT_NE(sent.find("the answer carries every parameter back byte for byte"), std::string::npos)
      << sent;
  std::vector<std::string> const parameters = gLines(served, "    ");
  ASSERT_EQ(parameters.size(), 3u) << served;
  EXPECT_EQ(parameters[2], "    zero (3 bytes) = a\\x00b");
  // Each side prints the same lines: the parameters as sent, and as answered.
  std::vector<std::string> twice;
  for (auto const& line : parameters) twice.insert(twice.end(), {line, line});
  EXPECT_EQ(gLines(sent, "    "), twice) << sent;
}

TEST(CorvanthTool, RefusedConnectionAndBadUsageHaveTheirExitCodes) {
  nSock::cHandleValid const closed = nSock::gCreateListenerOn("127.0.0.1", 0);
  std::string const port = std::to_string(nSock::gLocalPort(closed));
  nSock::gDelete(closed);
  cChildProcess refused({CORVANTH_TOOL, "send", "--port", port, "a=b"});
  std::string const refusal = refused.fReadAll(kBound);
  EXPECT_EQ(refused.fWait(kBound), 1);
  EXPECT_NE(refusal.find("Connection refused"), std::string::npos) << refusal;

  for (std::vector<std::string> arguments : {std::vector<std::string>{CORVANTH_TOOL, "send", "a=b"},
                                             {CORVANTH_TOOL, "send", "--port", "70000", "a=b"},
                                             {CORVANTH_TOOL, "send", "--port", port, "novalue"},
                                             {CORVANTH_TOOL, "send", "--port", port, "a=\\q"},
                                             {CORVANTH_TOOL, "send", "--port", port, "a={b=1"},
                                             {CORVANTH_TOOL, "serve", "--count", "x"},
                                             {CORVANTH_TOOL, "local_thr", "10"}}) {
    cChildProcess bad(arguments);
    std::string const text = bad.fReadAll(kBound);
    EXPECT_EQ(bad.fWait(kBound), 2) << arguments.back() << ": " << text;
    EXPECT_NE(text.find("usage:"), std::string::npos) << text;
  }
}

TEST(CorvanthTool, ThroughputVerbsCountEveryFrame) {
  cChildProcess local({CORVANTH_TOOL, "local_thr", "1000", "2000"});
  std::string const first = local.fReadLine(kBound);
  std::size_t const colon = first.rfind(':');
  ASSERT_NE(colon, std::string::npos) << first;
  cChildProcess remote(
      {CORVANTH_TOOL, "remote_thr", "--port", first.substr(colon + 1), "1000", "2000"});
  std::string const sent = remote.fReadAll(kBound);
  EXPECT_EQ(remote.fWait(kBound), 0) << sent;
  std::string const measured = local.fReadAll(kBound);
  EXPECT_EQ(local.fWait(kBound), 0) << measured;
  EXPECT_NE(measured.find("message size: 1000 [B]\nmessage count: 2000\nmean throughput: "),
            std::string::npos)
      << measured;
}

}  // namespace
