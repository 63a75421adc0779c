// Helpers of the socket tests: loopback connections with both ends in hand,
// raw bytes on a handle, bounded joins, and a way to see that another thread
// really sits in a blocking call, without sleeping.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "LintelSocket.h"
#include "streamsocket.h"

namespace corvanth::test {

namespace nSock = nCommunication::nSocket;

inline constexpr auto kBound = std::chrono::seconds(20);

inline long gThreadId() { return static_cast<long>(::syscall(SYS_gettid)); }

// True once the thread (whose id it stores itself, 0 until then) sleeps in one
// of the system calls, as /proc tells; false after the bound.
inline bool gWaitUntilBlocked(std::atomic<long> const& thread, std::initializer_list<long> calls) {
  auto const end = std::chrono::steady_clock::now() + kBound;
  while (std::chrono::steady_clock::now() < end) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread.load()) + "/syscall");
    long call = -1;  // a running thread shows "running", which does not parse
    if (thread.load() != 0 && file >> call && std::find(calls.begin(), calls.end(), call) != calls.end())
      return true;
    std::this_thread::yield();
  }
  return false;
}

// Every receive of a test is bounded by its connection's receive time-out.
inline nSock::cSocketOptions gBounded() {
  nSock::cSocketOptions options;
  options.fSetReceiveTimeout(nTime::cDiff::gSeconds(20));
  return options;
}

// Work on a thread of its own, joined within a bound: by fJoin, or by the
// destructor when an assertion left the test early. A task that outlives the
// bound may be stuck inside the test's objects, which can be neither waited
// for nor left behind, so the test's process ends there with a message.
template <class Result>
class cTask {
 public:
  explicit cTask(std::future<Result> future) : mFuture(std::move(future)) {}
  cTask(cTask&&) noexcept = default;
  ~cTask() { if (mFuture.valid()) fEndOrExit(); }
  bool fReadyBy(std::chrono::steady_clock::time_point end) const {
    return mFuture.wait_until(end) == std::future_status::ready;
  }
  Result fJoin() {
    fEndOrExit();
    return mFuture.get();
  }

 private:
  void fEndOrExit() const {
    if (mFuture.wait_for(kBound) == std::future_status::ready) return;
    std::fprintf(stderr, "FAILED: a task of this test did not end within its bound\n");
    std::fflush(nullptr);
    std::_Exit(EXIT_FAILURE);
  }

  std::future<Result> mFuture;
};

template <class Work>
auto gAsync(Work&& work) {
  return cTask(std::async(std::launch::async, std::forward<Work>(work)));
}

// The text of the Error that work raised; empty when it raised none.
template <class Error = std::runtime_error, class Work>
std::string gWhat(Work&& work) {
  try {
    work();
  } catch (Error const& error) {
    return error.what();
  }
  return {};
}

inline bool gOpen(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

inline std::unique_ptr<StreamSocket> gAdopt(nSock::cHandleOptional const& handle) {
  return std::make_unique<StreamSocket>(nSock::gValidate(handle), false, nullptr, false, false, "");
}

// A listener on 127.0.0.1 at a port that the system picks; with TLS when
// given a certificate directory.
struct cLoopbackListener {
  nSock::cHandleValid mHandle = nSock::gCreateListenerOn("127.0.0.1", 0);
  unsigned short mPort = nSock::gLocalPort(mHandle);
  std::unique_ptr<StreamSocket> mSocket;

  explicit cLoopbackListener(std::string const& tls = "", bool verifyClient = false)
      : mSocket(std::make_unique<StreamSocket>(mHandle, !tls.empty(), nullptr, false, verifyClient, tls)) {}

  std::unique_ptr<StreamSocket> fAccept() {
    return gAdopt(std::get<0>(mSocket->Accept(gBounded())));
  }
};

// A connected client and server on loopback.
struct cPair {
  cLoopbackListener mListener;
  std::unique_ptr<StreamSocket> mClient = std::make_unique<StreamSocket>();
  std::unique_ptr<StreamSocket> mServer;

  cPair() {
    mClient->Connect("127.0.0.1", mListener.mPort, gBounded());
    mServer = mListener.fAccept();
  }
};

inline nSock::cHandleValid gHandleOf(StreamSocket const& socket) {
  return nSock::gValidate(socket.f_GetInternal_debug());
}

inline bool gSendRaw(StreamSocket const& socket, std::string const& bytes) {
  return nSock::gSend(gHandleOf(socket), static_cast<int>(bytes.size()), bytes.data());
}

inline std::string gReceiveRaw(StreamSocket const& socket, int count) {
  std::string bytes(static_cast<std::size_t>(count), '\0');
  EXPECT_TRUE(nSock::gReceive(gHandleOf(socket), count, bytes.data(), false, nullptr));
  return bytes;
}

// Length, type and subtype, each big-endian.
inline std::string gHeader(std::uint32_t length, std::uint16_t type, std::uint16_t subtype) {
  return {char(length >> 24), char(length >> 16), char(length >> 8),  char(length),
          char(type >> 8),    char(type),         char(subtype >> 8), char(subtype)};
}

// What one WaitTypedMessageZ1 gave, its outputs set to non-zero beforehand so
// that a result left unset shows.
struct cFrame {
  bool mOk = false;
  short mType = 1;
  short mSubtype = 1;
  int mLength = 1;
  bool mNull = false;
  std::string mPayload;
  bool operator==(cFrame const&) const = default;
  friend std::ostream& operator<<(std::ostream& out, cFrame const& frame) {
    return out << frame.mOk << ' ' << frame.mType << ' ' << frame.mSubtype << ' ' << frame.mLength
               << ' ' << frame.mNull << " \"" << frame.mPayload << '"';
  }
};

inline cFrame gReceiveFrame(StreamSocket& socket) {
  cFrame frame;
  char primed = 0;
  char* message = &primed;
  frame.mOk =
      socket.WaitTypedMessageZ1(frame.mType, frame.mSubtype, message, frame.mLength, nullptr);
  frame.mNull = message == nullptr;
  if (message != nullptr && message != &primed) {
    frame.mPayload.assign(message, static_cast<std::size_t>(frame.mLength));
    socket.FreeMessage(message);
  }
  return frame;
}

}  // namespace corvanth::test
