// StreamSocket: frames on the wire, refused and lying headers, the end of a
// blocked read, the two roles, and many connections at once.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "SocketKit.h"
#include "streamsocket.h"

namespace {

using namespace corvanth::test;

// Bytes waiting unread on a socket.
int gPending(StreamSocket const& socket) {
  int count = -1;
  EXPECT_EQ(ioctl(gHandleOf(socket).fHolder()->fDescriptor(), FIONREAD, &count), 0);
  return count;
}

TEST(StreamSocketFrames, BigEndianHeadersEmptyAndBinaryFramesAndRefusedLengths) {
  cPair pair;
  cLogCapture capture;
  std::string const binary("a\0b\xff", 4);
  std::string const longer(0x102, 'q');
  ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(-1, 256, longer.data(), 0x102));
  EXPECT_EQ(gReceiveRaw(*pair.mServer, 8 + 0x102),
            std::string("\0\0\x01\x02\xFF\xFF\x01\0", 8) + longer);
  char const none = 0;
  ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(7, -3, &none, 0));
  // A null pointer or a negative length is an error: the first still sends
  // its header, the second sends nothing.
  ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(8, 9, nullptr, 0));
  EXPECT_FALSE(pair.mClient->SendTypedMessageZ2(1, 1, "x", -100));
  std::size_t errors = 0;
  for (auto const& record : capture.fRecords()) {
    errors += record.source == "streamsocket" && record.tag == "Error";
  }
  EXPECT_EQ(errors, 2u);
  // Lengths with the top bit set are refused after their header alone.
  ASSERT_TRUE(gSendRaw(*pair.mClient, gHeader(0x80000000u, 5, 6) + gHeader(0xFFFFFFFFu, 5, 6)));
  ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(-32768, 32767, binary.data(), 4));

  struct {
    bool ok;
    short type;
    short subtype;
    std::string payload;
  } const expected[] = {{true, 7, -3, ""},
                        {true, 8, 9, ""},
                        {false, 0, 0, ""},
                        {false, 0, 0, ""},
                        {true, -32768, 32767, binary}};
  for (auto const& want : expected) {
    cFrame const frame = gReceiveFrame(*pair.mServer);
    EXPECT_EQ(frame.mOk, want.ok);
    EXPECT_EQ(frame.mType, want.type);
    EXPECT_EQ(frame.mSubtype, want.subtype);
    EXPECT_EQ(frame.mLength, int(want.payload.size()));
    EXPECT_EQ(frame.mNull, want.payload.empty());
    EXPECT_EQ(frame.mPayload, want.payload);
  }
  EXPECT_EQ(gPending(*pair.mServer), 0);
}

// The growth of this process's peak resident size across a piece of work, in
// bytes. Without a resettable peak, the peak of the whole run stands in.
template <class Work>
long long gPeakGrowth(Work&& work) {
  auto peak = [] {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("VmHWM:", 0) == 0) return std::stoll(line.substr(6)) * 1024;
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss * 1024LL;
  };
  std::ofstream("/proc/self/clear_refs") << "5" << std::flush;
  long long const before = peak();
  work();
  return peak() - before;
}

#if defined(__SANITIZE_ADDRESS__)
// AddressSanitizer marks a freed block in its shadow, one byte for every
// eight of the block: for an announced 2 GiB that is 256 MiB of its own.
constexpr long long kShadow = 0x7FFFFFFFLL / 8;
#else
constexpr long long kShadow = 0;
#endif

TEST(StreamSocketFrames, HeaderAnnouncingTwoGigabytesThenCloseCostsOnlyWhatArrived) {
  cPair pair;
  std::string const lie = gHeader(0x7FFFFFFF, 1, 2) + std::string(4 << 20, 'z');
  long long const growth = gPeakGrowth([&] {
    auto liar = gAsync([&] {
      bool const sent = gSendRaw(*pair.mClient, lie);
      pair.mClient->CloseSocket();
      return sent;
    });
    try {
      cFrame const frame = gReceiveFrame(*pair.mServer);
      EXPECT_FALSE(frame.mOk);
      EXPECT_TRUE(frame.mNull);
    } catch (std::bad_alloc const&) {
      // A host that does not overcommit refuses the array: no memory either.
      pair.mServer->CloseSocket();
    }
    gJoin(liar);
  });
  EXPECT_LT(growth, (64LL << 20) + kShadow);
}

TEST(StreamSocketFrames, WritesThatCannotGoOutAreRefusedAtNoCostAndRaiseNoSignal) {
  cPair pair;
  // Payloads whose frame length no longer fits the count of a write: refused
  // before any copy. The source is untouched zero pages, so a copy would show.
  std::size_t const size = 0x7FFFFFFF;
  void* const source =
      mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(source, MAP_FAILED);
  long long const growth = gPeakGrowth([&] {
    for (int length : {0x7FFFFFF8, 0x7FFFFFFF}) {
      EXPECT_FALSE(pair.mClient->SendTypedMessageZ2(1, 2, static_cast<char*>(source), length));
    }
  });
  munmap(source, size);
  EXPECT_LT(growth, 64LL << 20);
  ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(3, 4, "ok", 2));
  EXPECT_EQ(gReceiveFrame(*pair.mServer).mPayload, "ok");  // nothing of the refused frames went out

  // A peer that has gone: the write fails, and SIGPIPE, whose default action
  // would end this process, is never raised.
  pair.mServer.reset();
  bool refused = false;
  for (int i = 0; i < 1000 && !refused; ++i) refused = !pair.mClient->SendTypedMessageZ2(1, 1, "x", 1);
  EXPECT_TRUE(refused);
}

TEST(StreamSocketShutdown, CloseWakesABlockedReaderAndTheObjectNeverTouchesASocketAgain) {
  cLoopbackListener listener;
  StreamSocket client;
  client.Connect("127.0.0.1", listener.mPort, nSock::cSocketOptions());
  auto first = listener.fAccept();
  std::atomic<long> reader{0};
  auto wait = gAsync([&] {
    reader = gThreadId();
    return gReceiveFrame(client);
  });
  ASSERT_TRUE(gWaitUntilBlocked(reader, {SYS_recvfrom, SYS_poll}));
  client.CloseSocket();
  cFrame const woken = gJoin(wait);
  EXPECT_FALSE(woken.mOk);
  EXPECT_TRUE(woken.mNull);

  // Even on a fresh connection the shut object neither reads nor writes: the
  // frame stays in the socket, and nothing reaches the other end.
  nSock::cHandleOptional const older = client.f_GetInternal_debug();
  client.Connect("127.0.0.1", listener.mPort, gBounded());
  auto second = listener.fAccept();
  ASSERT_TRUE(second->SendTypedMessageZ2(1, 2, "abc", 3));
  EXPECT_FALSE(gReceiveFrame(client).mOk);
  EXPECT_FALSE(client.SendTypedMessageZ2(1, 2, "abc", 3));
  EXPECT_EQ(gReceiveRaw(client, 11), gHeader(3, 1, 2) + "abc");
  // By the time the frame was taken the refused write would long have crossed loopback.
  EXPECT_EQ(gPending(*second), 0);
  client.CloseSocket();  // twice is harmless
  nSock::gDelete(older);
}

TEST(StreamSocketRoles, AcceptGivesTheListenersPortAndNothingOnceClosed) {
  cLoopbackListener listener;
  StreamSocket client;
  client.Connect("127.0.0.1", listener.mPort, nSock::cSocketOptions());
  auto [accepted, ssl, port] = listener.mSocket->Accept(nSock::cSocketOptions());
  EXPECT_TRUE(accepted.fIsValid());
  EXPECT_EQ(port, 0);  // no setPort on this listener
  nSock::gDelete(accepted);

  listener.mSocket->setPort(4242, StreamSocket::ListeningPort);
  std::atomic<long> acceptor{0};
  auto waiting = gAsync([&] {
    acceptor = gThreadId();
    return listener.mSocket->Accept(nSock::cSocketOptions());
  });
  ASSERT_TRUE(gWaitUntilBlocked(acceptor, {SYS_accept4}));
  listener.mSocket->CloseSocket();
  auto [none, noSsl, samePort] = gJoin(waiting);
  EXPECT_FALSE(none.fIsValid());
  EXPECT_EQ(samePort, 4242);
}

TEST(StreamSocketRoles, ConnectAgainOrConnectLocalLeavesEarlierConnectionsOpen) {
  cLoopbackListener listener;
  StreamSocket client;
  std::vector<nSock::cHandleOptional> handles;
  std::vector<std::unique_ptr<StreamSocket>> servers;
  for (char const* host : {"127.0.0.1", "localhost", ""}) {
    if (*host != '\0') {
      client.Connect(host, listener.mPort, gBounded());
    } else {
      client.ConnectLocal(listener.mPort, gBounded());
    }
    EXPECT_EQ(client.getPort(), listener.mPort);
    EXPECT_EQ(client.getPortType(), StreamSocket::ConnectedPort);
    handles.push_back(client.f_GetInternal_debug());
    servers.push_back(listener.fAccept());
  }
  // Every connection carries frames both ways, the newest through the object.
  auto first = gAdopt(handles[0]);
  auto second = gAdopt(handles[1]);
  StreamSocket* const ends[] = {first.get(), second.get(), &client};
  for (short i = 0; i < 3; ++i) {
    std::string const text = "frame " + std::to_string(i);
    ASSERT_TRUE(ends[i]->SendTypedMessageZ2(1, i, text.data(), int(text.size())));
    cFrame const there = gReceiveFrame(*servers[std::size_t(i)]);
    EXPECT_EQ(there.mPayload, text);
    EXPECT_EQ(there.mSubtype, i);
    ASSERT_TRUE(servers[std::size_t(i)]->SendTypedMessageZ2(2, i, text.data(), int(text.size())));
    EXPECT_EQ(gReceiveFrame(*ends[i]).mPayload, text);
  }
}

// Frame k of connection c: a size from 0 to 64 KiB and an offset into a shared
// random pattern, both fixed by (c, k), so both ends know what to expect.
TEST(StreamSocketLoad, SixtyFourConnectionsDeliverEveryFrameWholeAndInOrder) {
  constexpr int kConnections = 64;
  constexpr int kFrames = 1000;
  constexpr std::uint64_t kMax = 64 * 1024;
  std::string pattern(2 * kMax, '\0');
  std::mt19937_64 random(20240611);
  for (auto& byte : pattern) byte = static_cast<char>(random());
  auto mix = [](int c, int k) {
    return (std::uint64_t(c) << 32 | unsigned(k)) * 0x9E3779B97F4A7C15ull;
  };
  auto size = [&](int c, int k) { return (mix(c, k) >> 20) % (kMax + 1); };
  auto data = [&](int c, int k) { return pattern.data() + (mix(c, k) >> 40) % kMax; };

  cLoopbackListener listener;
  std::vector<std::unique_ptr<StreamSocket>> clients;
  std::vector<std::unique_ptr<StreamSocket>> servers;
  for (int c = 0; c < kConnections; ++c) {
    clients.push_back(std::make_unique<StreamSocket>());
    clients.back()->Connect("127.0.0.1", listener.mPort, gBounded());
    servers.push_back(listener.fAccept());
  }
  // Each task gives the count of frames it got through; a sender ends only
  // once its receiver has answered.
  std::vector<cTask<int>> senders;
  std::vector<cTask<int>> receivers;
  for (int c = 0; c < kConnections; ++c) {
    senders.push_back(gAsync([&, c] {
      StreamSocket& socket = *clients[std::size_t(c)];
      for (int k = 0; k < kFrames; ++k) {
        if (!socket.SendTypedMessageZ2(short(c), short(k), data(c, k), int(size(c, k)))) return k;
      }
      return gReceiveFrame(socket).mPayload == "all" ? kFrames : -1;
    }));
    receivers.push_back(gAsync([&, c] {
      StreamSocket& socket = *servers[std::size_t(c)];
      for (int k = 0; k < kFrames; ++k) {
        cFrame const frame = gReceiveFrame(socket);
        std::size_t const want = size(c, k);
        if (!frame.mOk || frame.mType != c || frame.mSubtype != k || frame.mNull != (want == 0) ||
            frame.mPayload != std::string_view(data(c, k), want)) {
          return k;
        }
      }
      return socket.SendTypedMessageZ2(0, 0, "all", 3) ? kFrames : -1;
    }));
  }
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(45);
  bool inTime = true;
  for (auto* group : {&receivers, &senders}) {
    for (auto& task : *group) inTime = inTime && task.fReadyBy(end);
  }
  if (!inTime) {
    ADD_FAILURE() << "the transfer did not end in time";
    for (auto* group : {&servers, &clients}) {
      for (auto& socket : *group) socket->CloseSocket();
    }
  }
  for (int c = 0; c < kConnections; ++c) {
    EXPECT_EQ(gJoin(receivers[std::size_t(c)]), kFrames) << "receiver " << c;
    EXPECT_EQ(gJoin(senders[std::size_t(c)]), kFrames) << "sender " << c;
  }
}

}  // namespace
