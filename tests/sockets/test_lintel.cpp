// The socket library and c_Socket: handles and their two-step end, exact reads
// over the read-ahead, limits, options and the texts of failures.
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <numeric>
#include <vector>

#include "LogCapture.h"
#include "SocketKit.h"
#include "basesocket.h"

namespace {

using namespace corvanth::test;
using nSock::cHandleValid;
using cSystemError = nCommunication::nSystemSocket::cUnspecifiedError;
using testing::AllOf;
using testing::HasSubstr;

// Both ends of a loopback connection as bare handles, deleted at the end.
struct cRawPair {
  cHandleValid mListener = nSock::gCreateListenerOn("127.0.0.1", 0);
  cHandleValid mClient;
  cHandleValid mServer;

  explicit cRawPair(nSock::cSocketOptions options = gBounded())
      : mClient(nSock::gCreateConnected("127.0.0.1", nSock::gLocalPort(mListener), options)),
        mServer(nSock::gValidate(nSock::gAccept(mListener, options))) {}
  ~cRawPair() {
    for (auto const& handle : {mClient, mServer, mListener}) nSock::gDelete(handle);
  }
};

TEST(LintelTransfer, ExactReadsAcrossTheReadAheadThenCloseKeepsTheHandleUntilDelete) {
  cRawPair pair;
  // Small and large pieces sent as one block, so that pieces straddle what one
  // receive takes from the kernel.
  std::vector<int> const sizes = {1, 7, 8, 100, 16383, 16384, 70000, 3, 200000, 5, 65536};
  std::string stream(std::size_t(std::accumulate(sizes.begin(), sizes.end(), 0)), '\0');
  std::uint32_t state = 1;
  for (auto& byte : stream) byte = char((state = state * 1664525u + 1013904223u) >> 24);
  auto sender =
      gAsync([&] { return nSock::gSend(pair.mClient, int(stream.size()), stream.data()); });
  std::size_t offset = 0;
  for (int size : sizes) {
    std::string piece(std::size_t(size), '\0');
    ASSERT_TRUE(nSock::gReceive(pair.mServer, size, piece.data(), true, nullptr));
    ASSERT_EQ(piece, stream.substr(offset, piece.size())) << "piece of " << size;
    offset += piece.size();
  }
  EXPECT_TRUE(sender.fJoin());
  char none = 0;
  EXPECT_TRUE(nSock::gReceive(pair.mServer, 0, &none, false, nullptr));
  EXPECT_FALSE(nSock::gReceive(pair.mServer, -1, &none, false, nullptr));
  EXPECT_FALSE(nSock::gSend(pair.mClient, -1, "x"));
  EXPECT_TRUE(nSock::gSend(pair.mClient, 0, nullptr));

  // Closed, not deleted (waking a blocked receive or accept is StreamSocket's
  // test): still valid, the descriptor still ours, and every later operation fails.
  nSock::gClose(pair.mServer);
  nSock::gClose(pair.mListener);
  EXPECT_TRUE(nSock::gIsValid(pair.mServer));
  EXPECT_TRUE(gOpen(pair.mServer.fHolder()->fDescriptor()));
  char byte = 0;
  EXPECT_FALSE(nSock::gReceive(pair.mServer, 1, &byte, false, nullptr));
  EXPECT_FALSE(nSock::gSend(pair.mServer, 1, "x"));
  EXPECT_FALSE(nSock::gAccept(pair.mListener, nSock::cSocketOptions()).fIsValid());
  nSock::gClose(pair.mServer);  // twice is harmless
}

TEST(LintelErrors, SystemErrorsNameTheAddressAndErrno) {
  cLogCapture capture;
  cHandleValid const taken = nSock::gCreateListenerOn("127.0.0.1", 0);
  unsigned short const port = nSock::gLocalPort(taken);
  std::string const address = "127.0.0.1:" + std::to_string(port);
  EXPECT_THAT(gWhat<nSock::cAlreadyInUse>([&] { nSock::gCreateListenerOn("127.0.0.1", port); }),
              HasSubstr("EADDRINUSE"));
  // The wildcard listener cannot share the port of a loopback one either.
  EXPECT_THROW(nSock::gCreateListener(port), nSock::cAlreadyInUse);
  EXPECT_FALSE(capture.fWithText(address).empty());
  nSock::gDelete(taken);
  EXPECT_THAT(gWhat<cSystemError>([&] { nSock::gCreateConnected("127.0.0.1", port, nSock::cSocketOptions()); }),
              AllOf(HasSubstr(address), HasSubstr("errno " + std::to_string(ECONNREFUSED))));
}

// Counts the reports of receive times.
struct cLatencyProbe : nSock::iLatencyConfiguration {
  cLatencyProbe(nTime::cDiff idle, nTime::cDiff frame, nTime::cDiff reportFrom)
      : iLatencyConfiguration(idle, frame, reportFrom) {}
  int mReports = 0;
  void vCurrent(nTime::cDiff took) override {
    EXPECT_GE(took, nTime::cDiff());
    ++mReports;
  }
};

TEST(LintelLimits, OptionsReachBothEndsAndTimeOutsAndLatencyLimitsGiveFalseWithoutEndingTheConnection) {
  nSock::cSocketOptions options;
  options.fSetReceiveTimeout(nTime::cDiff::gMilliseconds(30));
  options.fSetKeepAlive(nTime::cDiff::gSeconds(30), 4, nTime::cDiff::gMilliseconds(1500));
  cRawPair pair(options);
  int const wanted[][3] = {{IPPROTO_TCP, TCP_NODELAY, 1},  {SOL_SOCKET, SO_KEEPALIVE, 1},
                           {IPPROTO_TCP, TCP_KEEPIDLE, 30}, {IPPROTO_TCP, TCP_KEEPCNT, 4},
                           {IPPROTO_TCP, TCP_KEEPINTVL, 2}};
  for (cHandleValid handle : {pair.mClient, pair.mServer}) {
    for (auto [level, name, value] : wanted) {
      int got = -1;
      socklen_t length = sizeof got;
      getsockopt(handle.fHolder()->fDescriptor(), level, name, &got, &length);
      EXPECT_EQ(got, value) << level << "/" << name;
    }
  }
  char buffer[4];
  auto const start = std::chrono::steady_clock::now();
  EXPECT_FALSE(nSock::gReceive(pair.mServer, 4, buffer, false, nullptr));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
  // The idle limit bounds the wait for the first bytes of a frame, the frame
  // limit the rest; neither is reported when nothing came.
  auto const ms20 = nTime::cDiff::gMilliseconds(20);
  cLatencyProbe idle(ms20, nTime::cDiff(), nTime::cDiff());
  EXPECT_FALSE(nSock::gReceive(pair.mServer, 4, buffer, false, &idle));
  cLatencyProbe inside(nTime::cDiff(), ms20, nTime::cDiff());
  EXPECT_FALSE(nSock::gReceive(pair.mServer, 4, buffer, true, &inside));
  EXPECT_EQ(idle.mReports + inside.mReports, 0);

  ASSERT_TRUE(nSock::gSend(pair.mClient, 8, "abcdefgh"));
  EXPECT_TRUE(nSock::gReceive(pair.mServer, 4, buffer, true, &inside));
  EXPECT_EQ(inside.mReports, 1);
  EXPECT_TRUE(nSock::gReceive(pair.mServer, 4, buffer, false, nullptr));
  EXPECT_EQ(std::string(buffer, 4), "efgh");
}

TEST(LintelActivationReadLock, EachCopyHoldsAndGivesBackOneShare) {
  nParallel::nImplementation_sho::cReadersFixer fixer;
  {
    nSock::cActivationReadLock const first(fixer());
    nSock::cActivationReadLock const second(first);
  }
  // With every share given back a fix is taken at once; a share left over
  // would keep it waiting.
  auto fix = gAsync([&] {
    bool const taken = fixer().fFixAcquireOrWait();
    if (taken) fixer().fFixRelease();
    return taken;
  });
  EXPECT_TRUE(fix.fJoin());
}

struct cProbeSocket : c_Socket {
  nSock::cHandleOptional fHandle() const { return handle; }
};

// A closed handle stays until the destructor deletes it; a new listener
// leaves the older one open and listening. A wildcard listener takes IPv4,
// IPv6 and host names.
TEST(BaseSocket, ListenersStayOpenUntilTheObjectEnds) {
  cProbeSocket().CloseSocket();  // nothing to close
  auto socket = std::make_unique<cProbeSocket>();
  socket->CreateListenerSocket(0);
  cHandleValid const older = nSock::gValidate(socket->fHandle());
  socket->CreateListenerSocket(0);
  cHandleValid const newer = nSock::gValidate(socket->fHandle());
  EXPECT_NE(newer, older);
  std::vector<std::string> hosts = {"127.0.0.1", "localhost"};
  // Only where this host has an IPv6 loopback.
  if (gWhat<cSystemError>([] { nSock::gDelete(nSock::gCreateListenerOn("::1", 0)); }).empty()) hosts.push_back("::1");
  for (cHandleValid const& listener : {older, newer}) {
    for (auto const& host : hosts) {
      cHandleValid const client =
          nSock::gCreateConnected(host, nSock::gLocalPort(listener), nSock::cSocketOptions());
      nSock::cHandleOptional const server = nSock::gAccept(listener, nSock::cSocketOptions());
      EXPECT_TRUE(server.fIsValid()) << host;
      nSock::gDelete(server);
      nSock::gDelete(client);
    }
  }
  socket->CloseSocket();
  socket->CloseSocket();
  EXPECT_EQ(socket->fHandle(), nSock::cHandleOptional(newer));
  EXPECT_TRUE(gOpen(newer.fHolder()->fDescriptor()));
  EXPECT_THROW(nSock::gCreateConnected("127.0.0.1", nSock::gLocalPort(newer), nSock::cSocketOptions()),
               cSystemError);
  int const descriptor = newer.fHolder()->fDescriptor();
  socket.reset();
  EXPECT_FALSE(gOpen(descriptor));
  EXPECT_TRUE(gOpen(older.fHolder()->fDescriptor()));
  nSock::gDelete(older);
}

}  // namespace
