// Helpers of the socket tests: loopback connections with both ends in hand,
// raw bytes on a handle, and joins that give up after a bound.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include "LintelSocket.h"
#include "streamsocket.h"

namespace corvanth::test {

namespace nSock = nCommunication::nSocket;

inline constexpr auto kBound = std::chrono::seconds(20);

// A listener on 127.0.0.1 at a port that the system picks.
struct cLoopbackListener {
  std::unique_ptr<StreamSocket> mSocket;
  unsigned short mPort = 0;

  cLoopbackListener() {
    nSock::cHandleValid const handle = nSock::gCreateListenerOn("127.0.0.1", 0);
    mPort = nSock::gLocalPort(handle);
    mSocket = std::make_unique<StreamSocket>(handle, false, nullptr, false, false, "");
  }
  // The accepted connection as a StreamSocket of its own.
  std::unique_ptr<StreamSocket> fAccept() {
    auto [accepted, ssl, port] = mSocket->Accept(nSock::cSocketOptions());
    EXPECT_TRUE(accepted.fIsValid());
    EXPECT_EQ(ssl, nullptr);
    (void)port;
    return std::make_unique<StreamSocket>(nSock::gValidate(accepted), false, nullptr, false, false,
                                          "");
  }
};

// A connected client and server on loopback.
struct cPair {
  cLoopbackListener mListener;
  std::unique_ptr<StreamSocket> mClient = std::make_unique<StreamSocket>();
  std::unique_ptr<StreamSocket> mServer;

  explicit cPair(nSock::cSocketOptions options = nSock::cSocketOptions()) {
    mClient->Connect("127.0.0.1", mListener.mPort, options);
    mServer = mListener.fAccept();
  }
};

inline nSock::cHandleValid gHandleOf(StreamSocket const& socket) {
  return nSock::gValidate(socket.f_GetInternal_debug());
}

inline bool gSendRaw(StreamSocket const& socket, std::string const& bytes) {
  return nSock::gSend(gHandleOf(socket), static_cast<int>(bytes.size()), bytes.data());
}

inline std::string gHeader(std::uint32_t length, std::uint16_t type, std::uint16_t subtype) {
  unsigned char const bytes[8] = {
      static_cast<unsigned char>(length >> 24), static_cast<unsigned char>(length >> 16),
      static_cast<unsigned char>(length >> 8),  static_cast<unsigned char>(length),
      static_cast<unsigned char>(type >> 8),    static_cast<unsigned char>(type),
      static_cast<unsigned char>(subtype >> 8), static_cast<unsigned char>(subtype)};
  return std::string(reinterpret_cast<char const*>(bytes), 8);
}

// One received frame, its payload given back at once.
struct cFrame {
  bool mOk = false;
  short mType = 0;
  short mSubtype = 0;
  std::string mPayload;
  bool mNullPayload = true;
};

inline cFrame gReceiveFrame(StreamSocket& socket, nSock::iLatencyConfiguration* latency = nullptr) {
  cFrame frame;
  char* message = nullptr;
  int length = -1;
  frame.mOk = socket.WaitTypedMessageZ1(frame.mType, frame.mSubtype, message, length, latency);
  frame.mNullPayload = message == nullptr;
  if (message != nullptr) frame.mPayload.assign(message, static_cast<std::size_t>(length));
  socket.FreeMessage(message);
  return frame;
}

// Runs work on a thread of its own; fWait gives its result or fails the test
// once the bound has passed.
template <class Result>
class cBackground {
 public:
  template <class Work>
  explicit cBackground(Work&& work)
      : mFuture(std::async(std::launch::async, std::forward<Work>(work))) {}
  bool fDone(std::chrono::milliseconds within) {
    return mFuture.wait_for(within) == std::future_status::ready;
  }
  Result fGet() { return mFuture.get(); }

 private:
  std::future<Result> mFuture;
};

}  // namespace corvanth::test
