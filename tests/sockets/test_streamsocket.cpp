// StreamSocket: frames on the wire, refused and lying headers, the end of a
// blocked read, the two roles, and many connections at once.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "BlockedThread.h"
#include "LogCapture.h"
#include "SocketKit.h"
#include "streamsocket.h"

namespace {

using namespace corvanth::test;
namespace nSock = nCommunication::nSocket;

// Bytes waiting unread on a socket.
int gPending(StreamSocket const& socket) {
  int count = -1;
  EXPECT_EQ(ioctl(gHandleOf(socket).fHolder()->fDescriptor(), FIONREAD, &count), 0);
  return count;
}

std::string gReceiveRaw(StreamSocket const& socket, int count) {
  std::string bytes(static_cast<std::size_t>(count), '\0');
  EXPECT_TRUE(nSock::gReceive(gHandleOf(socket), count, bytes.data(), false, nullptr));
  return bytes;
}

std::size_t gRecordsOn(cLogCapture const& capture, std::string const& tag) {
  std::size_t count = 0;
  for (auto const& record : capture.fRecords()) {
    if (record.source == "streamsocket" && record.tag == tag) ++count;
  }
  return count;
}

TEST(StreamSocketFrames, HeaderAndPayloadGoOutBigEndianInOneFrame) {
  cPair pair;
  std::string const payload(57, 'p');
  ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(5, 2, payload.data(), 57));
  EXPECT_EQ(gReceiveRaw(*pair.mServer, 65),
            std::string("\x00\x00\x00\x39\x00\x05\x00\x02", 8) + payload);
  std::string const longer(0x102, 'q');
  ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(-1, 256, longer.data(), 0x102));
  EXPECT_EQ(gReceiveRaw(*pair.mServer, 8), std::string("\x00\x00\x01\x02\xFF\xFF\x01\x00", 8));
  EXPECT_EQ(gReceiveRaw(*pair.mServer, 0x102), longer);
}

TEST(StreamSocketFrames, PayloadsWithZeroBytesRoundTripWithTypesAndATrace) {
  cPair pair;
  cLogCapture capture;
  std::string const payload("a\0b\xff", 4);
  ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(-32768, 32767, payload.data(), 4));
  cFrame const frame = gReceiveFrame(*pair.mServer);
  EXPECT_TRUE(frame.mOk);
  EXPECT_EQ(frame.mType, -32768);
  EXPECT_EQ(frame.mSubtype, 32767);
  EXPECT_EQ(frame.mPayload, payload);
  auto const traced = capture.fWithText("StreamSocket:WaitTypedMessageZ1\t");
  ASSERT_EQ(traced.size(), 1u);
  EXPECT_EQ(traced[0].text, "StreamSocket:WaitTypedMessageZ1\t4\t" + payload);
  EXPECT_EQ(traced[0].tag, "CorvanthT");
  EXPECT_EQ(gRecordsOn(capture, "Error"), 0u);
}

TEST(StreamSocketFrames, EmptyFrameArrivesAsTrueNullZeroWithItsTypes) {
  cPair pair;
  cLogCapture capture;
  char const none = 0;
  ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(7, -3, &none, 0));
  EXPECT_EQ(gRecordsOn(capture, "Error"), 0u);
  // A null pointer is logged as an error and the header still goes out.
  ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(8, 9, nullptr, 0));
  EXPECT_EQ(gRecordsOn(capture, "Error"), 1u);

  for (short expected : {7, 8}) {
    short type = 1;
    short subtype = 1;
    char* message = reinterpret_cast<char*>(&type);
    int length = 1;
    ASSERT_TRUE(pair.mServer->WaitTypedMessageZ1(type, subtype, message, length, nullptr));
    EXPECT_EQ(message, nullptr);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(type, expected);
    EXPECT_EQ(subtype, expected == 7 ? -3 : 9);
  }
  EXPECT_EQ(gPending(*pair.mServer), 0);
}

TEST(StreamSocketFrames, NegativeLengthIsLoggedAndRefusedByTheWrite) {
  cPair pair;
  cLogCapture capture;
  EXPECT_FALSE(pair.mClient->SendTypedMessageZ2(1, 1, "x", -100));
  EXPECT_EQ(gRecordsOn(capture, "Error"), 1u);
  // Nothing went out, and the connection carries on.
  ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(2, 3, "ok", 2));
  cFrame const frame = gReceiveFrame(*pair.mServer);
  EXPECT_TRUE(frame.mOk);
  EXPECT_EQ(frame.mPayload, "ok");
}

TEST(StreamSocketFrames, TopBitLengthIsRefusedWithZeroOutputsAndTheConnectionStays) {
  cPair pair;
  for (std::uint32_t bad : {0x80000000u, 0xFFFFFFFFu, 0x80000001u}) {
    ASSERT_TRUE(gSendRaw(*pair.mClient, gHeader(bad, 5, 6)));
    short type = 1;
    short subtype = 1;
    char* message = reinterpret_cast<char*>(&type);
    int length = 1;
    EXPECT_FALSE(pair.mServer->WaitTypedMessageZ1(type, subtype, message, length, nullptr));
    EXPECT_EQ(type, 0);
    EXPECT_EQ(subtype, 0);
    EXPECT_EQ(message, nullptr);
    EXPECT_EQ(length, 0);
  }
  ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(4, 4, "still here", 10));
  cFrame const frame = gReceiveFrame(*pair.mServer);
  EXPECT_TRUE(frame.mOk);
  EXPECT_EQ(frame.mPayload, "still here");
}

TEST(StreamSocketFrames, PeerClosingInsideAPayloadGivesFalseAndNoPartialMessage) {
  cPair pair;
  ASSERT_TRUE(gSendRaw(*pair.mClient, gHeader(100, 1, 1) + std::string(10, 'x')));
  pair.mClient->CloseSocket();
  cFrame const frame = gReceiveFrame(*pair.mServer);
  EXPECT_FALSE(frame.mOk);
  EXPECT_TRUE(frame.mNullPayload);
  EXPECT_EQ(frame.mType, 0);
  // The plain path marks nothing: later reads go to the socket again and fail there.
  cLogCapture capture;
  EXPECT_FALSE(gReceiveFrame(*pair.mServer).mOk);
  EXPECT_TRUE(capture.fWithText("aborted").empty());
}

// The peak resident size of this process since the last reset, in bytes, or
// -1 where the kernel keeps none.
long long gPeakResident() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stoll(line.substr(6)) * 1024;
  }
  return -1;
}
bool gResetPeakResident() {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5";
  clear.flush();
  return clear.good();
}

TEST(StreamSocketFrames, HeaderAnnouncingTwoGigabytesCostsOnlyWhatArrived) {
  cPair pair;
  std::string const header = gHeader(0x7FFFFFFF, 1, 2);
  std::string const arriving(4 << 20, 'z');
  bool const exact = gResetPeakResident();
  long long const before = exact ? gPeakResident() : 0;
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  long long const maxBefore = usage.ru_maxrss * 1024LL;

  cBackground<bool> liar([&] {
    bool const sent = gSendRaw(*pair.mClient, header + arriving);
    pair.mClient->CloseSocket();
    return sent;
  });
  try {
    cFrame const frame = gReceiveFrame(*pair.mServer);
    EXPECT_FALSE(frame.mOk);
    EXPECT_TRUE(frame.mNullPayload);
  } catch (std::bad_alloc const&) {
    // A host that does not overcommit refuses the array: no memory either.
    pair.mServer->CloseSocket();
  }
  ASSERT_TRUE(liar.fDone(kBound));
  liar.fGet();

  long long limit = 64LL << 20;
#if defined(__SANITIZE_ADDRESS__)
  // AddressSanitizer marks a freed block in its shadow, one byte for every
  // eight of the block: for the announced 2 GiB that is 256 MiB of its own.
  limit += 0x7FFFFFFFLL / 8;
#endif
  if (exact) {
    EXPECT_LT(gPeakResident() - before, limit);
  } else {
    getrusage(RUSAGE_SELF, &usage);
    EXPECT_LT(usage.ru_maxrss * 1024LL - maxBefore, limit);
  }
}

TEST(StreamSocketShutdown, CloseWakesABlockedReaderAndShutsTheObjectForGood) {
  cPair pair;
  std::atomic<long> reader{0};
  cBackground<cFrame> wait([&] {
    reader = gThreadId();
    return gReceiveFrame(*pair.mServer);
  });
  ASSERT_TRUE(gWaitUntilBlocked(reader, {SYS_recvfrom, SYS_poll}));
  pair.mServer->CloseSocket();
  ASSERT_TRUE(wait.fDone(kBound));
  cFrame const woken = wait.fGet();
  EXPECT_FALSE(woken.mOk);
  EXPECT_TRUE(woken.mNullPayload);

  cLogCapture capture;
  ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(1, 1, "unread", 6));
  EXPECT_FALSE(gReceiveFrame(*pair.mServer).mOk);
  EXPECT_FALSE(pair.mServer->SendTypedMessageZ2(1, 1, "x", 1));
  EXPECT_EQ(capture.fWithText("ReadDataZ1 aborted because shutdown is requested.").size(), 1u);
  EXPECT_EQ(capture.fWithText("WriteDataZ1 aborted because shutdown is requested.").size(), 1u);
  for (auto const& record : capture.fWithText("aborted because")) {
    EXPECT_EQ(record.tag, "TraceDebugInfo");
  }
  pair.mServer->CloseSocket();  // twice is harmless
}

TEST(StreamSocketShutdown, ReconnectedShutObjectNeitherReadsNorWrites) {
  cLoopbackListener listener;
  StreamSocket client;
  client.Connect("127.0.0.1", listener.mPort, nSock::cSocketOptions());
  auto first = listener.fAccept();
  client.CloseSocket();
  nSock::cHandleOptional const older = client.f_GetInternal_debug();

  client.Connect("127.0.0.1", listener.mPort, nSock::cSocketOptions());
  auto second = listener.fAccept();
  EXPECT_FALSE(client.SendTypedMessageZ2(1, 2, "abc", 3));
  ASSERT_TRUE(second->SendTypedMessageZ2(1, 2, "abc", 3));
  EXPECT_FALSE(gReceiveFrame(client).mOk);
  // The read left the frame in the socket, and by the time it is taken there
  // the refused write would long have crossed loopback.
  EXPECT_EQ(gReceiveRaw(client, 11), gHeader(3, 1, 2) + "abc");
  EXPECT_EQ(gPending(*second), 0);
  nSock::gDelete(older);
}

TEST(StreamSocketRoles, AcceptGivesTheListenersPortAndNothingOnceClosed) {
  cLoopbackListener listener;
  StreamSocket client;
  client.Connect("127.0.0.1", listener.mPort, nSock::cSocketOptions());
  auto [accepted, ssl, port] = listener.mSocket->Accept(nSock::cSocketOptions());
  EXPECT_TRUE(accepted.fIsValid());
  EXPECT_EQ(ssl, nullptr);
  EXPECT_EQ(port, 0);  // no setPort on this listener
  nSock::gDelete(accepted);

  listener.mSocket->setPort(4242, StreamSocket::ListeningPort);
  EXPECT_EQ(listener.mSocket->getPortType(), StreamSocket::ListeningPort);
  std::atomic<long> acceptor{0};
  cBackground<std::tuple<nSock::cHandleOptional, ssl_st*, int>> waiting([&] {
    acceptor = gThreadId();
    return listener.mSocket->Accept(nSock::cSocketOptions());
  });
  ASSERT_TRUE(gWaitUntilBlocked(acceptor, {SYS_accept4}));
  listener.mSocket->CloseSocket();
  ASSERT_TRUE(waiting.fDone(kBound));
  auto [none, noSsl, samePort] = waiting.fGet();
  EXPECT_FALSE(none.fIsValid());
  EXPECT_EQ(noSsl, nullptr);
  EXPECT_EQ(samePort, 4242);
}

TEST(StreamSocketRoles, SecondConnectLeavesTheFirstConnectionOpen) {
  cLoopbackListener listener;
  StreamSocket client;
  EXPECT_EQ(client.getPortType(), StreamSocket::UnsetPort);
  EXPECT_EQ(client.getPort(), 0);
  client.Connect("127.0.0.1", listener.mPort, nSock::cSocketOptions());
  EXPECT_EQ(client.getPortType(), StreamSocket::ConnectedPort);
  EXPECT_EQ(client.getPort(), listener.mPort);
  nSock::cHandleOptional const first = client.f_GetInternal_debug();
  auto firstServer = listener.fAccept();

  client.Connect("localhost", listener.mPort, nSock::cSocketOptions());
  auto secondServer = listener.fAccept();
  EXPECT_NE(client.f_GetInternal_debug(), first);

  // The first connection still carries frames both ways.
  ASSERT_TRUE(nSock::gSend(nSock::gValidate(first), 8 + 3, (gHeader(3, 1, 1) + "one").c_str()));
  EXPECT_EQ(gReceiveFrame(*firstServer).mPayload, "one");
  ASSERT_TRUE(firstServer->SendTypedMessageZ2(1, 1, "back", 4));
  char back[12];
  ASSERT_TRUE(nSock::gReceive(nSock::gValidate(first), 12, back, false, nullptr));
  EXPECT_EQ(std::string(back + 8, 4), "back");

  ASSERT_TRUE(client.SendTypedMessageZ2(2, 2, "two", 3));
  EXPECT_EQ(gReceiveFrame(*secondServer).mPayload, "two");
  nSock::gDelete(first);
}

TEST(StreamSocketRoles, ConnectLocalReachesAListenerOnThisHost) {
  cLoopbackListener listener;
  StreamSocket client;
  client.ConnectLocal(listener.mPort, nSock::cSocketOptions());
  EXPECT_EQ(client.getPort(), listener.mPort);
  EXPECT_EQ(client.getPortType(), StreamSocket::ConnectedPort);
  auto server = listener.fAccept();
  ASSERT_TRUE(client.SendTypedMessageZ2(3, 4, "ping", 4));
  cFrame const ping = gReceiveFrame(*server);
  EXPECT_EQ(ping.mPayload, "ping");
  ASSERT_TRUE(server->SendTypedMessageZ2(ping.mType, ping.mSubtype, "pong", 4));
  cFrame const pong = gReceiveFrame(client);
  EXPECT_EQ(pong.mPayload, "pong");
  EXPECT_EQ(pong.mType, 3);
  EXPECT_EQ(pong.mSubtype, 4);
}

TEST(StreamSocketRoles, UnconnectedObjectFreesMessagesAndRefusesWork) {
  StreamSocket socket;
  socket.FreeMessage(nullptr);
  socket.FreeMessage(new char[3]);
  socket.CloseSocket();
  socket.CleanupSSL();
  StreamSocket fresh;
  short type = 0;
  short subtype = 0;
  char* message = nullptr;
  int length = 0;
  EXPECT_THROW(fresh.WaitTypedMessageZ1(type, subtype, message, length, nullptr),
               nCommunication::nSystemSocket::cUnspecifiedError);
  EXPECT_THROW(fresh.Connect("127.0.0.1", 1, nSock::cSocketOptions()),
               nCommunication::nSystemSocket::cUnspecifiedError);
}

// Frame k of connection c: a size from 0 to 64 KiB and an offset into a shared
// random pattern, both fixed by (c, k), so both ends know what to expect.
struct cPlan {
  static constexpr int kConnections = 64;
  static constexpr int kFrames = 1000;
  static constexpr std::size_t kMax = 64 * 1024;
  std::string mPattern;

  cPlan() : mPattern(2 * kMax, '\0') {
    std::mt19937 random(20240611);
    for (auto& byte : mPattern) byte = static_cast<char>(random());
  }
  static std::uint64_t fMix(std::uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
  }
  std::size_t fSize(int c, int k) const {
    return fMix(std::uint64_t(c) << 32 | unsigned(k)) % (kMax + 1);
  }
  char const* fData(int c, int k) const {
    return mPattern.data() + fMix(~(std::uint64_t(c) << 32 | unsigned(k))) % kMax;
  }
};

TEST(StreamSocketLoad, SixtyFourConnectionsDeliverEveryFrameWholeAndInOrder) {
  cPlan const plan;
  cLoopbackListener listener;
  std::vector<std::unique_ptr<StreamSocket>> clients;
  std::vector<std::unique_ptr<StreamSocket>> servers;
  for (int c = 0; c < cPlan::kConnections; ++c) {
    clients.push_back(std::make_unique<StreamSocket>());
    clients.back()->Connect("127.0.0.1", listener.mPort, nSock::cSocketOptions());
    servers.push_back(listener.fAccept());
  }

  std::vector<std::unique_ptr<cBackground<int>>> senders;
  std::vector<std::unique_ptr<cBackground<int>>> receivers;
  for (int c = 0; c < cPlan::kConnections; ++c) {
    // Each sender waits for the receiver's answer before it ends.
    senders.push_back(std::make_unique<cBackground<int>>([&, c] {
      StreamSocket& socket = *clients[std::size_t(c)];
      for (int k = 0; k < cPlan::kFrames; ++k) {
        if (!socket.SendTypedMessageZ2(short(c), short(k), plan.fData(c, k),
                                       int(plan.fSize(c, k)))) {
          return k;
        }
      }
      cFrame const answer = gReceiveFrame(socket);
      return answer.mOk && answer.mPayload == "all" ? cPlan::kFrames : -1;
    }));
    // The count of frames that arrived whole and in order.
    receivers.push_back(std::make_unique<cBackground<int>>([&, c] {
      StreamSocket& socket = *servers[std::size_t(c)];
      for (int k = 0; k < cPlan::kFrames; ++k) {
        short type = 0;
        short subtype = 0;
        char* message = nullptr;
        int length = 0;
        if (!socket.WaitTypedMessageZ1(type, subtype, message, length, nullptr)) return k;
        std::size_t const size = plan.fSize(c, k);
        bool const whole =
            type == c && subtype == k && std::size_t(length) == size &&
            (size == 0 ? message == nullptr : std::memcmp(message, plan.fData(c, k), size) == 0);
        socket.FreeMessage(message);
        if (!whole) return k;
      }
      return socket.SendTypedMessageZ2(0, 0, "all", 3) ? cPlan::kFrames : -1;
    }));
  }
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(240);
  bool inTime = true;
  for (auto* group : {&receivers, &senders}) {
    for (auto& task : *group) {
      auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
          end - std::chrono::steady_clock::now());
      inTime = inTime && task->fDone(std::max(left, std::chrono::milliseconds(0)));
    }
  }
  if (!inTime) {
    ADD_FAILURE() << "the transfer did not end in time";
    for (auto& socket : servers) socket->CloseSocket();
    for (auto& socket : clients) socket->CloseSocket();
  }
  for (int c = 0; c < cPlan::kConnections; ++c) {
    EXPECT_EQ(receivers[std::size_t(c)]->fGet(), cPlan::kFrames) << "receiver " << c;
    EXPECT_EQ(senders[std::size_t(c)]->fGet(), cPlan::kFrames) << "sender " << c;
  }
}

}  // namespace
