// The road of one request through the corvanth tool: parameters in a string
// form, in a message, in a frame, to `corvanth serve` in a process of its own
// and back, byte for byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "AssociativeArray.h"
#include "ChildProcess.h"
#include "SocketKit.h"
#include "TlsKit.h"
#include "netmsg.h"

namespace {

using namespace corvanth::test;
using testing::HasSubstr;

std::string gForm(CAssociativeArray const& array) {
  char const* text = nullptr;
  int length = 0;
  array.ToString(text, length, false, false);
  return std::string(text, std::size_t(length));
}

// The lines of text that start with the given piece, sorted.
std::vector<std::string> gLines(std::string const& text, std::string const& start) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);)
    if (line.rfind(start, 0) == 0) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

// The port at the end of the first line a serving tool prints.
std::string gListeningPort(cChildProcess& tool) {
  std::string const line = tool.fReadLine(kBound);
  EXPECT_THAT(line, testing::StartsWith("listening on 127.0.0.1:"));
  return line.substr(line.rfind(':') + 1);
}

TEST(CorvanthTool, ServeAndSendCarryTheParametersByteForByteBothWays) {
  cChildProcess server({CORVANTH_TOOL, "serve", "--name", "agent", "--count", "2"});
  std::string const port = gListeningPort(server);

  // From this process: the answer, taken apart here, holds every byte.
  CAssociativeArray nested, parameters;
  nested.AddCouple("inner", std::string("x\0y", 3).c_str(), 3);
  nested.AddCouple("count", 42L);
  std::string const nestedForm = gForm(nested);
  parameters.AddCouple("user", "alice");
  parameters.AddCouple("blob", std::string("a\0b\0\xff", 5).c_str(), 5);
  parameters.AddCouple("script", nestedForm.data(), int(nestedForm.size()));
  std::string const form = gForm(parameters);
  cCorvanthMessage const request(41, "host2", "agent", "host1", "console", static_cast<QType>(3), 5,
                                 2, form.data(), unsigned(form.size()));
  StreamSocket socket;
  socket.Connect("127.0.0.1", static_cast<unsigned short>(std::stoul(port)), gBounded());
  ASSERT_TRUE(socket.SendTypedMessageZ2(5, 2, request.getPackedBuf(), int(request.getPackedBufLen())));
  cFrame const frame = gReceiveFrame(socket);
  ASSERT_TRUE(frame.mOk);
  socket.CloseSocket();
  cCorvanthMessage const answer(frame.mPayload.data(), unsigned(frame.mLength), frame.mType, frame.mSubtype);
  EXPECT_EQ(std::to_string(answer.getMessageId()) + " " + answer.getToClient() + "@" + answer.getToHost() +
                " from " + answer.getFromClient() + " " + std::string(answer.getData(), answer.getDatalen()),
            "41 console@host1 from agent " + form);  // string form to string form

  // From `corvanth send`, a process of its own: the parameters as sent, as
  // served and as answered print alike, bytes escaped one to one.
  auto const [sendStatus, sent] =
      cChildProcess({CORVANTH_TOOL, "send", "--port", port, "--to", "agent@localhost", "--from", "console@test",
                     "--type", "7", "--id", "9", "user=bob", "zero=a\\0b\\xff",
                     "script={name=checkout,inner={k=\\x00\\x2c}}"})
          .fFinish(kBound);
  EXPECT_EQ(sendStatus, 0) << sent;
  auto const [serveStatus, served] = server.fFinish(kBound);
  EXPECT_EQ(serveStatus, 0) << served;
  EXPECT_THAT(served, HasSubstr("received message 41 from console@host1 to agent@host2, queue type 3, "
                                "type 5, subtype 2"));
  EXPECT_THAT(served, HasSubstr("    blob (5 bytes) = a\\x00b\\x00\\xff\n"));
  std::size_t const second = served.find("received message 9 ");
  ASSERT_NE(second, std::string::npos) << served;
  std::vector<std::string> const printed = gLines(served.substr(second), "    ");
  ASSERT_EQ(printed.size(), 3u) << served;
  EXPECT_EQ(printed[2], "    zero (4 bytes) = a\\x00b\\xff");
  std::vector<std::string> twice;
  for (auto const& line : printed) twice.insert(twice.end(), {line, line});
  EXPECT_EQ(gLines(sent, "    "), twice) << sent;
  EXPECT_THAT(sent, HasSubstr("answer: message 9 from agent@localhost to console@test, queue type 0, type 7"));
}

TEST(CorvanthTool, RefusedConnectionAndBadUsageHaveTheirExitCodes) {
  std::string const port = std::to_string(gFreePort());
  struct {
    std::vector<std::string> arguments;
    int status;
    char const* says;
  } const cases[] = {{{"send", "--port", port, "a=b"}, 1, "Connection refused"},
                     {{"send", "a=b"}, 2, "usage:"},
                     {{"send", "--port", "70000", "a=b"}, 2, "usage:"},
                     {{"send", "--port", port, "novalue"}, 2, "usage:"},
                     {{"send", "--port", port, "a=\\q"}, 2, "usage:"},
                     {{"send", "--port", port, "a={b=1"}, 2, "usage:"},
                     {{"serve", "--count", "x"}, 2, "usage:"},
                     {{"local_thr", "10"}, 2, "usage:"}};
  for (auto const& one : cases) {
    std::vector<std::string> arguments = {CORVANTH_TOOL};
    arguments.insert(arguments.end(), one.arguments.begin(), one.arguments.end());
    auto const [status, text] = cChildProcess(arguments).fFinish(kBound);
    EXPECT_EQ(status, one.status) << one.arguments.back() << ": " << text;
    EXPECT_THAT(text, HasSubstr(one.says));
  }
}

// Each side checks the other's certificate; a server under another CA fails
// the client's handshake, and both ends print the exception's text.
TEST(CorvanthTool, TlsServeAndSendCheckEachOtherAndAFailedHandshakeExitsOne) {
  for (std::string const& clientDirectory : {gCertificates(), gCertificates() + "/rogue"}) {
    bool const ok = clientDirectory == gCertificates();
    cChildProcess server({CORVANTH_TOOL, "serve", "--count", "1", "--tls", gCertificates(), "--verify-client"});
    auto const [sendStatus, sent] =
        cChildProcess({CORVANTH_TOOL, "send", "--port", gListeningPort(server), "--tls", clientDirectory,
                       "--verify-server", "--verify-client", "a=b"})
            .fFinish(kBound);
    auto const [serveStatus, served] = server.fFinish(kBound);
    EXPECT_EQ(std::make_pair(sendStatus, serveStatus), std::make_pair(int(!ok), int(!ok))) << sent << served;
    EXPECT_THAT(sent, HasSubstr(ok ? "Server certificate verified successfully!\nsending"
                                   : "corvanth send: SSL connection failed: "));
    EXPECT_THAT(served, HasSubstr(ok ? "Client certificate verified successfully!\nconnection accepted"
                                     : "corvanth serve: SSL accept failed"));
  }
}

TEST(CorvanthTool, ThroughputVerbsCountEveryFrame) {
  cChildProcess local({CORVANTH_TOOL, "local_thr", "1000", "2000"});
  auto const [sentStatus, sent] =
      cChildProcess({CORVANTH_TOOL, "remote_thr", "--port", gListeningPort(local), "1000", "2000"}).fFinish(kBound);
  EXPECT_EQ(sentStatus, 0) << sent;
  auto const [status, measured] = local.fFinish(kBound);
  EXPECT_EQ(status, 0) << measured;
  EXPECT_THAT(measured, HasSubstr("message size: 1000 [B]\nmessage count: 2000\nmean throughput: "));
}

}  // namespace
