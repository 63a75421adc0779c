// StreamSocket: frames on the wire, refused and lying headers, the end of a
// blocked read, the two roles, and many connections at once.
#include <sys/ioctl.h>
#include <sys/mman.h>

#include <algorithm>
#include <new>
#include <random>
#include <vector>

#include "LogCapture.h"
#include "SocketKit.h"

namespace {

using namespace corvanth::test;

// Bytes waiting unread on a socket.
int gPending(StreamSocket const& socket) {
  int count = -1;
  EXPECT_EQ(ioctl(gHandleOf(socket).fHolder()->fDescriptor(), FIONREAD, &count), 0);
  return count;
}

// The growth of this process's peak resident size across a piece of work, in bytes.
template <class Work>
long long gPeakGrowth(Work&& work) {
  auto peak = [] {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
      if (line.rfind("VmHWM:", 0) == 0) return std::stoll(line.substr(6)) * 1024;
    ADD_FAILURE() << "no peak resident size in /proc/self/status";
    return 0LL;
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

TEST(StreamSocketFrames, HeadersRefusedLengthsLyingHeadersAndAGonePeer) {
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
  auto const records = capture.fRecords();
  EXPECT_EQ(std::count_if(records.begin(), records.end(),
                          [](auto const& r) { return r.source == "streamsocket" && r.tag == "Error"; }),
            2);
  // Lengths with the top bit set are refused after their header alone.
  ASSERT_TRUE(gSendRaw(*pair.mClient, gHeader(0x80000000u, 5, 6) + gHeader(0xFFFFFFFFu, 5, 6)));
  ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(-32768, 32767, binary.data(), 4));

  cFrame const expected[] = {{true, 7, -3, 0, true, ""}, {true, 8, 9, 0, true, ""},
                             {false, 0, 0, 0, true, ""}, {false, 0, 0, 0, true, ""},
                             {true, -32768, 32767, 4, false, binary}};
  for (cFrame const& want : expected) EXPECT_EQ(gReceiveFrame(*pair.mServer), want);
  EXPECT_EQ(gPending(*pair.mServer), 0);

  // Payloads whose frame length no longer fits the count of a write: refused
  // before any copy. The source is untouched zero pages, so a copy would show.
  std::size_t const size = 0x7FFFFFFF;
  void* const source =
      mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(source, MAP_FAILED);
  long long growth = gPeakGrowth([&] {
    for (int length : {0x7FFFFFF8, 0x7FFFFFFF})
      EXPECT_FALSE(pair.mClient->SendTypedMessageZ2(1, 2, static_cast<char*>(source), length));
  });
  munmap(source, size);
  EXPECT_LT(growth, 64LL << 20);
  ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(3, 4, "ok", 2));
  EXPECT_EQ(gReceiveFrame(*pair.mServer).mPayload, "ok");  // nothing of the refused frames went out

  // A header announcing 2 GiB, then 4 MiB and the end: the reader holds no more than what came.
  std::string const lie = gHeader(0x7FFFFFFF, 1, 2) + std::string(4 << 20, 'z');
  growth = gPeakGrowth([&] {
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
    liar.fJoin();
  });
  EXPECT_LT(growth, (64LL << 20) + kShadow);

  // A peer that has gone: the write fails, and SIGPIPE, whose default action
  // would end this process, is never raised.
  pair.mClient.reset();
  bool refused = false;
  for (int i = 0; i < 1000 && !refused; ++i) refused = !pair.mServer->SendTypedMessageZ2(1, 1, "x", 1);
  EXPECT_TRUE(refused);
}

TEST(StreamSocketRoles, ConnectionsAcceptsAndTheirEnds) {
  cLoopbackListener listener;
  StreamSocket client;
  // Connect again or ConnectLocal: earlier connections stay open. Accept
  // gives no port while the listener has none set.
  std::vector<nSock::cHandleOptional> handles;
  std::vector<std::unique_ptr<StreamSocket>> servers;
  for (char const* host : {"127.0.0.1", "localhost", ""}) {
    *host != '\0' ? client.Connect(host, listener.mPort, gBounded()) : client.ConnectLocal(listener.mPort, gBounded());
    EXPECT_EQ(client.getPort(), listener.mPort);
    EXPECT_EQ(client.getPortType(), StreamSocket::ConnectedPort);
    handles.push_back(client.f_GetInternal_debug());
    auto const [accepted, ssl, port] = listener.mSocket->Accept(gBounded());
    EXPECT_EQ(port, 0);
    servers.push_back(gAdopt(accepted));
  }
  // Every connection carries frames both ways, the newest through the object.
  auto first = gAdopt(handles[0]);
  auto second = gAdopt(handles[1]);
  StreamSocket* const ends[] = {first.get(), second.get(), &client};
  for (short i = 0; i < 3; ++i) {
    std::string const text = "frame " + std::to_string(i);
    ASSERT_TRUE(ends[i]->SendTypedMessageZ2(1, i, text.data(), int(text.size())));
    EXPECT_EQ(gReceiveFrame(*servers[std::size_t(i)]), (cFrame{true, 1, i, int(text.size()), false, text}));
    ASSERT_TRUE(servers[std::size_t(i)]->SendTypedMessageZ2(2, i, text.data(), int(text.size())));
    EXPECT_EQ(gReceiveFrame(*ends[i]).mPayload, text);
  }

  // CloseSocket wakes a blocked reader.
  std::atomic<long> reader{0};
  auto wait = gAsync([&] {
    reader = gThreadId();
    return gReceiveFrame(client);
  });
  ASSERT_TRUE(gWaitUntilBlocked(reader, {SYS_recvfrom, SYS_poll}));
  client.CloseSocket();
  cFrame const woken = wait.fJoin();
  EXPECT_TRUE(!woken.mOk && woken.mNull);

  // Even on a fresh connection the shut object neither reads nor writes: the
  // frame stays in the socket, and nothing reaches the other end.
  nSock::cHandleOptional const older = client.f_GetInternal_debug();
  client.Connect("127.0.0.1", listener.mPort, gBounded());
  auto fresh = listener.fAccept();
  ASSERT_TRUE(fresh->SendTypedMessageZ2(1, 2, "abc", 3));
  EXPECT_FALSE(gReceiveFrame(client).mOk);
  EXPECT_FALSE(client.SendTypedMessageZ2(1, 2, "abc", 3));
  EXPECT_EQ(gReceiveRaw(client, 11), gHeader(3, 1, 2) + "abc");
  // By the time the frame was taken the refused write would long have crossed loopback.
  EXPECT_EQ(gPending(*fresh), 0);
  client.CloseSocket();  // twice is harmless
  nSock::gDelete(older);

  // CloseSocket wakes a blocked Accept, which gives the port set on the listener.
  listener.mSocket->setPort(4242, StreamSocket::ListeningPort);
  std::atomic<long> acceptor{0};
  auto waiting = gAsync([&] {
    acceptor = gThreadId();
    return listener.mSocket->Accept(nSock::cSocketOptions());
  });
  ASSERT_TRUE(gWaitUntilBlocked(acceptor, {SYS_accept4}));
  listener.mSocket->CloseSocket();
  auto const [none, noSsl, samePort] = waiting.fJoin();
  EXPECT_FALSE(none.fIsValid());
  EXPECT_EQ(samePort, 4242);
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
  std::vector<std::unique_ptr<StreamSocket>> clients, servers;
  for (int c = 0; c < kConnections; ++c) {
    clients.push_back(std::make_unique<StreamSocket>());
    clients.back()->Connect("127.0.0.1", listener.mPort, gBounded());
    servers.push_back(listener.fAccept());
  }
  // Each task gives the count of frames it got through; a sender ends only
  // once its receiver has answered.
  std::vector<cTask<int>> senders, receivers;
  for (int c = 0; c < kConnections; ++c) {
    senders.push_back(gAsync([&, c] {
      StreamSocket& socket = *clients[c];
      for (int k = 0; k < kFrames; ++k)
        if (!socket.SendTypedMessageZ2(short(c), short(k), data(c, k), int(size(c, k)))) return k;
      return gReceiveFrame(socket).mPayload == "all" ? kFrames : -1;
    }));
    receivers.push_back(gAsync([&, c] {
      StreamSocket& socket = *servers[c];
      for (int k = 0; k < kFrames; ++k) {
        cFrame const frame = gReceiveFrame(socket);
        std::size_t const want = size(c, k);
        if (!frame.mOk || frame.mType != c || frame.mSubtype != k || frame.mNull != (want == 0) ||
            frame.mPayload != std::string_view(data(c, k), want))
          return k;
      }
      return socket.SendTypedMessageZ2(0, 0, "all", 3) ? kFrames : -1;
    }));
  }
  // A transfer not over in time is cut short by closing every socket.
  auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(45);
  bool inTime = true;
  for (int c = 0; c < kConnections; ++c) inTime = inTime && receivers[c].fReadyBy(end) && senders[c].fReadyBy(end);
  EXPECT_TRUE(inTime) << "the transfer did not end in time";
  for (int c = 0; c < kConnections; ++c) {
    if (!inTime) for (auto* socket : {servers[c].get(), clients[c].get()}) socket->CloseSocket();
    EXPECT_EQ(receivers[c].fJoin(), kFrames) << "receiver " << c;
    EXPECT_EQ(senders[c].fJoin(), kFrames) << "sender " << c;
  }
}

}  // namespace
