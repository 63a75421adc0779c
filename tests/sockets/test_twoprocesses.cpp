// Frames between this process and socket_peer, a process of its own, both ways.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "ChildProcess.h"
#include "SocketKit.h"
#include "streamsocket.h"

namespace {

using namespace corvanth::test;
namespace nSock = nCommunication::nSocket;

TEST(StreamSocketProcesses, TwoProcessesExchangeFramesBothWays) {
  cChildProcess peer({CORVANTH_SOCKET_PEER});
  ASSERT_TRUE(peer.fStarted());
  std::string const line = peer.fReadLine(kBound);
  ASSERT_EQ(line.rfind("port ", 0), 0u) << line;
  auto const port = static_cast<unsigned short>(std::stoul(line.substr(5)));

  int answered = 0;
  {
    StreamSocket socket;
    socket.Connect("127.0.0.1", port, nSock::cSocketOptions());
    cFrame const greeting = gReceiveFrame(socket);
    ASSERT_TRUE(greeting.mOk);
    EXPECT_EQ(greeting.mType, 77);
    EXPECT_EQ(greeting.mPayload,
              "hello from pid " + std::to_string(peer.fPid()) + std::string(1, '\0'));

    for (int i = 0; i < 40; ++i) {
      std::string payload(std::size_t(i * i * 97 % 70000), '\0');
      for (std::size_t j = 0; j < payload.size(); ++j) payload[j] = char(j * 7 + i);
      ASSERT_TRUE(
          socket.SendTypedMessageZ2(short(i), short(i * 3), payload.data(), int(payload.size())));
      cFrame const answer = gReceiveFrame(socket);
      ASSERT_TRUE(answer.mOk) << i;
      std::reverse(payload.begin(), payload.end());
      EXPECT_EQ(answer.mType, i);
      EXPECT_EQ(answer.mSubtype, i * 3 + 1);
      EXPECT_EQ(answer.mPayload, payload) << i;
      ++answered;
    }
    socket.CloseSocket();
  }
  EXPECT_EQ(peer.fWait(kBound), answered);
}

}  // namespace
