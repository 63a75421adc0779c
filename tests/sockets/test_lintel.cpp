// The socket library: handles, the two-step end of a socket, exact reads over
// the read-ahead, limits, options and the texts of its failures.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include "BlockedThread.h"
#include "LintelSocket.h"
#include "LogCapture.h"
#include "SocketKit.h"

namespace {

using namespace corvanth::test;
namespace nSock = nCommunication::nSocket;
using nSock::cHandleValid;

// Both ends of a loopback connection as bare handles, deleted at the end.
struct cRawPair {
  cHandleValid mListener = nSock::gCreateListenerOn("127.0.0.1", 0);
  cHandleValid mClient;
  cHandleValid mServer;

  explicit cRawPair(nSock::cSocketOptions options = nSock::cSocketOptions())
      : mClient(nSock::gCreateConnected("127.0.0.1", nSock::gLocalPort(mListener), options)),
        mServer(nSock::gValidate(nSock::gAccept(mListener, options))) {}
  ~cRawPair() {
    nSock::gDelete(mClient);
    nSock::gDelete(mServer);
    nSock::gDelete(mListener);
  }
};

std::string gPattern(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  std::uint32_t state = seed * 2654435761u + 1;
  for (auto& byte : bytes) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

bool gOpen(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

TEST(LintelListener, WildcardListenerTakesIpv4Ipv6AndHostNames) {
  cHandleValid const listener = nSock::gCreateListener(0);
  unsigned short const port = nSock::gLocalPort(listener);
  ASSERT_NE(port, 0);
  std::vector<std::string> hosts = {"127.0.0.1", "localhost"};
  try {
    nSock::gDelete(nSock::gCreateListenerOn("::1", 0));
    hosts.push_back("::1");
  } catch (nCommunication::nSystemSocket::cUnspecifiedError const&) {
    // No IPv6 loopback on this host.
  }
  for (auto const& host : hosts) {
    cHandleValid const client = nSock::gCreateConnected(host, port, nSock::cSocketOptions());
    cHandleValid const server = nSock::gValidate(nSock::gAccept(listener, nSock::cSocketOptions()));
    EXPECT_TRUE(nSock::gSend(client, 3, "abc"));
    char buffer[3];
    EXPECT_TRUE(nSock::gReceive(server, 3, buffer, false, nullptr)) << host;
    EXPECT_EQ(std::string(buffer, 3), "abc");
    nSock::gDelete(client);
    nSock::gDelete(server);
  }
  nSock::gDelete(listener);
}

TEST(LintelTransfer, ExactReadsAcrossTheReadAheadKeepEveryByteInOrder) {
  cRawPair pair;
  // Small and large pieces in one stream, sent as one block, so that pieces
  // straddle what one receive takes from the kernel.
  std::vector<std::size_t> const sizes = {1, 7, 8, 100, 16383, 16384, 70000, 3, 200000, 5, 65536};
  std::string stream;
  for (std::size_t i = 0; i < sizes.size(); ++i) stream += gPattern(sizes[i], unsigned(i));
  cBackground<bool> sender(
      [&] { return nSock::gSend(pair.mClient, static_cast<int>(stream.size()), stream.data()); });
  std::size_t offset = 0;
  for (std::size_t size : sizes) {
    std::string piece(size, '\0');
    ASSERT_TRUE(nSock::gReceive(pair.mServer, static_cast<int>(size), piece.data(), true, nullptr));
    ASSERT_EQ(piece, stream.substr(offset, size)) << "piece of " << size << " at " << offset;
    offset += size;
  }
  ASSERT_TRUE(sender.fDone(kBound));
  EXPECT_TRUE(sender.fGet());
  char none = 0;
  EXPECT_TRUE(nSock::gReceive(pair.mServer, 0, &none, false, nullptr));
  EXPECT_FALSE(nSock::gReceive(pair.mServer, -1, &none, false, nullptr));
  EXPECT_FALSE(nSock::gSend(pair.mClient, -1, "x"));
  EXPECT_TRUE(nSock::gSend(pair.mClient, 0, nullptr));
}

TEST(LintelClose, WakesBlockedReceiveAndAcceptAndKeepsTheHandleUntilDelete) {
  cRawPair pair;
  std::atomic<long> reader{0};
  cBackground<bool> receive([&] {
    reader = gThreadId();
    char buffer[8];
    return nSock::gReceive(pair.mServer, 8, buffer, false, nullptr);
  });
  std::atomic<long> acceptor{0};
  cBackground<bool> accept([&] {
    acceptor = gThreadId();
    return nSock::gAccept(pair.mListener, nSock::cSocketOptions()).fIsValid();
  });
  EXPECT_TRUE(gWaitUntilBlocked(reader, {SYS_recvfrom}));
  EXPECT_TRUE(gWaitUntilBlocked(acceptor, {SYS_accept4}));
  nSock::gClose(pair.mServer);
  nSock::gClose(pair.mListener);
  ASSERT_TRUE(receive.fDone(kBound));
  ASSERT_TRUE(accept.fDone(kBound));
  EXPECT_FALSE(receive.fGet());
  EXPECT_FALSE(accept.fGet());

  // Closed, not deleted: still valid, the descriptor still ours, and every
  // later operation fails.
  EXPECT_TRUE(nSock::gIsValid(pair.mServer));
  EXPECT_TRUE(gOpen(pair.mServer.fHolder()->fDescriptor()));
  char byte = 0;
  EXPECT_FALSE(nSock::gReceive(pair.mServer, 1, &byte, false, nullptr));
  EXPECT_FALSE(nSock::gSend(pair.mServer, 1, "x"));
  EXPECT_FALSE(nSock::gAccept(pair.mListener, nSock::cSocketOptions()).fIsValid());
  nSock::gClose(pair.mServer);  // twice is harmless
}

TEST(LintelErrors, RefusedConnectionNamesAddressAndErrno) {
  cHandleValid const listener = nSock::gCreateListenerOn("127.0.0.1", 0);
  unsigned short const port = nSock::gLocalPort(listener);
  nSock::gDelete(listener);
  try {
    nSock::gCreateConnected("127.0.0.1", port, nSock::cSocketOptions());
    FAIL() << "connected to a closed port";
  } catch (nCommunication::nSystemSocket::cUnspecifiedError const& error) {
    std::string const text = error.what();
    EXPECT_NE(text.find("127.0.0.1:" + std::to_string(port)), std::string::npos) << text;
    EXPECT_NE(text.find("errno " + std::to_string(ECONNREFUSED)), std::string::npos) << text;
    EXPECT_EQ(std::string(error.fMessage().c_str()), text);
    nCommunication::nSystemSocket::cUnspecifiedError const copy = error;
    EXPECT_STREQ(copy.what(), error.what());
  }
}

TEST(LintelErrors, TakenPortRaisesAlreadyInUse) {
  corvanth::test::cLogCapture capture;
  cHandleValid const first = nSock::gCreateListenerOn("127.0.0.1", 0);
  unsigned short const port = nSock::gLocalPort(first);
  EXPECT_THROW(nSock::gCreateListenerOn("127.0.0.1", port), nSock::cAlreadyInUse);
  // The wildcard listener cannot share the port of a loopback one either.
  EXPECT_THROW(nSock::gCreateListener(port), nSock::cAlreadyInUse);
  EXPECT_FALSE(capture.fWithText("127.0.0.1:" + std::to_string(port)).empty());
  try {
    nSock::gCreateListenerOn("127.0.0.1", port);
  } catch (nException::i const& error) {
    EXPECT_NE(std::string(error.what()).find("EADDRINUSE"), std::string::npos);
  }
  nSock::gDelete(first);
}

// Counts the reports of receive times.
class cLatencyProbe : public nSock::iLatencyConfiguration {
 public:
  cLatencyProbe(nTime::cDiff idle, nTime::cDiff frame, nTime::cDiff reportFrom)
      : iLatencyConfiguration(idle, frame, reportFrom) {}
  int mReports = 0;

 private:
  void vCurrent(nTime::cDiff took) override {
    EXPECT_GE(took, nTime::cDiff());
    ++mReports;
  }
};

TEST(LintelLimits, ReceiveTimeOutGivesFalseAndTheConnectionGoesOn) {
  nSock::cSocketOptions options;
  options.fSetReceiveTimeout(nTime::cDiff::gMilliseconds(30));
  cRawPair pair(options);
  char buffer[4];
  auto const start = std::chrono::steady_clock::now();
  EXPECT_FALSE(nSock::gReceive(pair.mServer, 4, buffer, false, nullptr));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
  ASSERT_TRUE(nSock::gSend(pair.mClient, 4, "late"));
  EXPECT_TRUE(nSock::gReceive(pair.mServer, 4, buffer, false, nullptr));
  EXPECT_EQ(std::string(buffer, 4), "late");
}

TEST(LintelLimits, LatencyObjectBoundsTheWaitItsKindAndHearsTheTime) {
  cRawPair pair;
  char buffer[4];
  // Idle limit for the first bytes of a frame; the frame limit is not asked.
  cLatencyProbe idle(nTime::cDiff::gMilliseconds(20), nTime::cDiff(), nTime::cDiff());
  EXPECT_FALSE(nSock::gReceive(pair.mServer, 4, buffer, false, &idle));
  cLatencyProbe inside(nTime::cDiff(), nTime::cDiff::gMilliseconds(20), nTime::cDiff());
  EXPECT_FALSE(nSock::gReceive(pair.mServer, 4, buffer, true, &inside));
  EXPECT_EQ(idle.mReports + inside.mReports, 0);

  ASSERT_TRUE(nSock::gSend(pair.mClient, 8, "abcdefgh"));
  EXPECT_TRUE(nSock::gReceive(pair.mServer, 4, buffer, true, &inside));
  EXPECT_EQ(inside.mReports, 1);
  cLatencyProbe quiet(nTime::cDiff(), nTime::cDiff(), nTime::cDiff::gSeconds(3600));
  EXPECT_TRUE(nSock::gReceive(pair.mServer, 4, buffer, false, &quiet));
  EXPECT_EQ(quiet.mReports, 0);
  EXPECT_EQ(std::string(buffer, 4), "efgh");
}

TEST(LintelOptions, ConnectionsCarryNoDelayKeepAliveAndSendLimit) {
  nSock::cSocketOptions options;
  options.fSetKeepAlive(nTime::cDiff::gSeconds(30), 4, nTime::cDiff::gMilliseconds(1500));
  options.fSetSendTimeout(nTime::cDiff::gMilliseconds(250));
  options.fSetConnectTimeout(nTime::cDiff::gSeconds(5));
  cRawPair pair(options);
  for (cHandleValid handle : {pair.mClient, pair.mServer}) {
    int const descriptor = handle.fHolder()->fDescriptor();
    auto get = [&](int level, int name) {
      int value = -1;
      socklen_t length = sizeof value;
      EXPECT_EQ(getsockopt(descriptor, level, name, &value, &length), 0);
      return value;
    };
    EXPECT_NE(get(IPPROTO_TCP, TCP_NODELAY), 0);
    EXPECT_NE(get(SOL_SOCKET, SO_KEEPALIVE), 0);
    EXPECT_EQ(get(IPPROTO_TCP, TCP_KEEPIDLE), 30);
    EXPECT_EQ(get(IPPROTO_TCP, TCP_KEEPCNT), 4);
    EXPECT_EQ(get(IPPROTO_TCP, TCP_KEEPINTVL), 2);
    timeval limit{};
    socklen_t length = sizeof limit;
    ASSERT_EQ(getsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, &length), 0);
    // The kernel keeps the limit in clock ticks.
    long const milliseconds = limit.tv_sec * 1000 + limit.tv_usec / 1000;
    EXPECT_GE(milliseconds, 250);
    EXPECT_LE(milliseconds, 260);
  }
  nSock::cSocketOptions const copy = options;
  EXPECT_EQ(copy.fKeepAliveProbes(), 4);
  EXPECT_FALSE(copy.fReceiveTimeout().fHas());
}

TEST(LintelActivationReadLock, EachCopyHoldsAndGivesBackOneShare) {
  corvanth::test::cLogCapture capture;
  nParallel::nImplementation_sho::cReadersFixer fixer;
  {
    nSock::cActivationReadLock const first(fixer());
    nSock::cActivationReadLock const second(first);
  }
  // With every share given back a fix is taken at once; a share left over
  // would keep it waiting.
  cBackground<bool> fix([&] {
    bool const taken = fixer().fFixAcquireOrWait();
    if (taken) fixer().fFixRelease();
    return taken;
  });
  ASSERT_TRUE(fix.fDone(kBound));
  EXPECT_TRUE(fix.fGet());
  EXPECT_TRUE(capture.fWithText("Debug section failed").empty());
}

}  // namespace
