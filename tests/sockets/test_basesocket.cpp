// c_Socket: the two-step end of its handle, and listeners that replace it.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "LogCapture.h"
#include "SocketKit.h"
#include "basesocket.h"

namespace {

using namespace corvanth::test;
namespace nSock = nCommunication::nSocket;

class cProbeSocket : public c_Socket {
 public:
  cProbeSocket() = default;
  explicit cProbeSocket(nSock::cHandleValid const& handle) : c_Socket(handle) {}
  nSock::cHandleOptional fHandle() const { return handle; }
};

bool gOpen(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

std::size_t gTraces(cLogCapture const& capture) {
  std::size_t count = 0;
  for (auto const& record : capture.fRecords()) {
    if (record.source == "basesocket" && record.tag == "CorvanthT" && record.text.empty()) ++count;
  }
  return count;
}

TEST(BaseSocket, DefaultObjectHoldsNothingAndOnlyTracesItsClose) {
  cLogCapture capture;
  {
    cProbeSocket socket;
    EXPECT_FALSE(socket.fHandle().fIsValid());
    socket.CloseSocket();
    socket.CloseSocket();
    EXPECT_EQ(gTraces(capture), 2u);
  }
  EXPECT_EQ(gTraces(capture), 3u);  // and the destructor's
}

TEST(BaseSocket, ClosedHandleStaysUntilTheDestructorDeletesIt) {
  cLogCapture capture;
  nSock::cHandleValid const listener = nSock::gCreateListenerOn("127.0.0.1", 0);
  int const descriptor = listener.fHolder()->fDescriptor();
  {
    cProbeSocket socket(listener);
    EXPECT_EQ(gTraces(capture), 1u);
    socket.CloseSocket();
    socket.CloseSocket();
    EXPECT_TRUE(socket.fHandle().fIsValid());
    EXPECT_EQ(socket.fHandle(), nSock::cHandleOptional(listener));
    EXPECT_TRUE(gOpen(descriptor));
    // Closed: connecting to it is refused.
    EXPECT_THROW(
        nSock::gCreateConnected("127.0.0.1", nSock::gLocalPort(listener), nSock::cSocketOptions()),
        nCommunication::nSystemSocket::cUnspecifiedError);
  }
  EXPECT_FALSE(gOpen(descriptor));
}

TEST(BaseSocket, NewListenerLeavesTheOlderOneOpenAndListening) {
  auto socket = std::make_unique<cProbeSocket>();
  socket->CreateListenerSocket(0);
  nSock::cHandleValid const older = nSock::gValidate(socket->fHandle());
  unsigned short const olderPort = nSock::gLocalPort(older);
  socket->CreateListenerSocket(0);
  nSock::cHandleValid const newer = nSock::gValidate(socket->fHandle());
  EXPECT_NE(newer, older);

  for (auto const& [listener, port] :
       {std::pair(older, olderPort), std::pair(newer, nSock::gLocalPort(newer))}) {
    nSock::cHandleValid const client =
        nSock::gCreateConnected("127.0.0.1", port, nSock::cSocketOptions());
    nSock::cHandleOptional const accepted = nSock::gAccept(listener, nSock::cSocketOptions());
    EXPECT_TRUE(accepted.fIsValid());
    nSock::gDelete(accepted);
    nSock::gDelete(client);
  }
  socket.reset();
  EXPECT_TRUE(gOpen(older.fHolder()->fDescriptor()));
  nSock::gDelete(older);
}

}  // namespace
