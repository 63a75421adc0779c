// Frames over TCP loopback: StreamSocket, one send per frame and in batches of
// 16 and 64 frames per SendTypedMessagesZ2, beside a plain POSIX loop (header
// and payload written by one send, read back with exact reads) and beside
// ZeroMQ PAIR sockets, in the same run.
//
// Throughput and round trip as FrameBench.h measures them.
//
// The ratios at the end are speeds, StreamSocket's over the other's, from the
// medians of the repetitions: above 1.00x StreamSocket is faster.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#if CORVANTH_HAVE_ZEROMQ
#include <zmq.h>
#endif

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "FrameBench.h"
#include "LintelSocket.h"
#include "streamsocket.h"

namespace {

namespace nSock = nCommunication::nSocket;

using namespace corvanth::bench;

// --- StreamSocket ----------------------------------------------------------

struct cStreamPair {
  std::unique_ptr<StreamSocket> mListener;
  StreamSocket mClient;
  std::unique_ptr<StreamSocket> mServer;

  cStreamPair() {
    nSock::cHandleValid const listener = nSock::gCreateListenerOn("127.0.0.1", 0);
    unsigned short const port = nSock::gLocalPort(listener);
    mListener = std::make_unique<StreamSocket>(listener, false, nullptr, false, false, "");
    mClient.Connect("127.0.0.1", port, nSock::cSocketOptions());
    auto [accepted, ssl, ignored] = mListener->Accept(nSock::cSocketOptions());
    mServer =
        std::make_unique<StreamSocket>(nSock::gValidate(accepted), false, ssl, false, false, "");
  }
};

void BM_StreamSocket_Throughput(benchmark::State& state) {
  cStreamPair pair;
  gStreamThroughput(state, pair.mClient, *pair.mServer);
}

// The same frames in SendTypedMessagesZ2 calls of 16 and of 64 frames.
void BM_StreamSocket_Batched16_Throughput(benchmark::State& state) {
  cStreamPair pair;
  gStreamBatchedThroughput(state, pair.mClient, *pair.mServer, 16);
}

void BM_StreamSocket_Batched64_Throughput(benchmark::State& state) {
  cStreamPair pair;
  gStreamBatchedThroughput(state, pair.mClient, *pair.mServer, 64);
}

void BM_StreamSocket_RoundTrip(benchmark::State& state) {
  cStreamPair pair;
  gStreamRoundTrip(state, pair.mClient, *pair.mServer);
}

// --- a plain POSIX loop ------------------------------------------------------

struct cPlainPair {
  int mClient = -1;
  int mServer = -1;

  cPlainPair() {
    int const listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listener, 1) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("plain listener");
    }
    mClient = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(mClient, reinterpret_cast<sockaddr*>(&address), length) != 0) {
      throw std::runtime_error("plain connect");
    }
    mServer = accept(listener, nullptr, nullptr);
    close(listener);
    int const one = 1;
    setsockopt(mClient, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    setsockopt(mServer, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  }
  ~cPlainPair() {
    close(mClient);
    close(mServer);
  }
};

// Header and payload in one buffer, one send.
class cPlainSender {
 public:
  explicit cPlainSender(int socket) : mSocket(socket) {}
  bool fSend(short type, char const* payload, std::size_t size) {
    mFrame.resize(size + 8);
    std::uint32_t const length = htonl(static_cast<std::uint32_t>(size));
    std::uint16_t const types[2] = {htons(static_cast<std::uint16_t>(type)), 0};
    std::memcpy(mFrame.data(), &length, 4);
    std::memcpy(mFrame.data() + 4, types, 4);
    std::memcpy(mFrame.data() + 8, payload, size);
    std::size_t done = 0;
    while (done < mFrame.size()) {
      ssize_t const sent = send(mSocket, mFrame.data() + done, mFrame.size() - done, MSG_NOSIGNAL);
      if (sent <= 0) return false;
      done += static_cast<std::size_t>(sent);
    }
    return true;
  }

 private:
  int mSocket;
  std::vector<char> mFrame;
};

bool gReadExactly(int socket, char* buffer, std::size_t count) {
  std::size_t done = 0;
  while (done < count) {
    ssize_t const got = recv(socket, buffer + done, count - done, 0);
    if (got <= 0) return false;
    done += static_cast<std::size_t>(got);
  }
  return true;
}

bool gPlainReceive(int socket, std::vector<char>& payload, short& type) {
  return gReceiveFrame([socket](char* buffer, std::size_t count) { return gReadExactly(socket, buffer, count); },
                       payload, type);
}

void BM_PlainLoop_Throughput(benchmark::State& state) {
  cPlainPair pair;
  cPlainSender sender(pair.mClient);
  gBaselineThroughput(
      state, [&](short type, char const* data, std::size_t size) { return sender.fSend(type, data, size); },
      [&](std::vector<char>& buffer, short& type) { return gPlainReceive(pair.mServer, buffer, type); });
}

void BM_PlainLoop_RoundTrip(benchmark::State& state) {
  std::vector<char> const payload(64, 'r');
  cPlainPair pair;
  std::thread echo([&] {
    cPlainSender back(pair.mServer);
    std::vector<char> buffer;
    short type = 0;
    while (gPlainReceive(pair.mServer, buffer, type) && type != kStop) {
      back.fSend(type, buffer.data(), buffer.size());
    }
  });
  cPlainSender sender(pair.mClient);
  std::vector<char> buffer;
  for (auto _ : state) {
    sender.fSend(kData, payload.data(), 64);
    short type = 0;
    if (!gPlainReceive(pair.mClient, buffer, type)) state.SkipWithError("no echo");
  }
  sender.fSend(kStop, "", 0);
  echo.join();
  state.SetItemsProcessed(state.iterations());
}

// Batching pays for small frames; 64 KiB shows what it costs for large ones.
void gBatchedSizes(benchmark::internal::Benchmark* benchmark) {
  for (int size : {64, 1024, 64 * 1024}) benchmark->Arg(size);
  benchmark->UseRealTime()->Unit(benchmark::kMicrosecond);
}

#if CORVANTH_HAVE_ZEROMQ
// --- ZeroMQ PAIR over TCP loopback -------------------------------------------

struct cZmqPair {
  void* mContext = zmq_ctx_new();
  void* mSender = zmq_socket(mContext, ZMQ_PAIR);
  void* mReceiver = zmq_socket(mContext, ZMQ_PAIR);

  cZmqPair() {
    int const zero = 0;
    zmq_setsockopt(mSender, ZMQ_LINGER, &zero, sizeof zero);
    zmq_setsockopt(mReceiver, ZMQ_LINGER, &zero, sizeof zero);
    if (zmq_bind(mReceiver, "tcp://127.0.0.1:*") != 0) throw std::runtime_error("zmq bind");
    char endpoint[256];
    std::size_t length = sizeof endpoint;
    zmq_getsockopt(mReceiver, ZMQ_LAST_ENDPOINT, endpoint, &length);
    if (zmq_connect(mSender, endpoint) != 0) throw std::runtime_error("zmq connect");
  }
  ~cZmqPair() {
    zmq_close(mSender);
    zmq_close(mReceiver);
    zmq_ctx_term(mContext);
  }
};

void BM_ZeroMQ_Throughput(benchmark::State& state) {
  std::size_t const size = static_cast<std::size_t>(state.range(0));
  int const batch = gBatch(size);
  std::vector<char> const payload(size, 'x');
  cZmqPair pair;
  cBatchCounter counter;
  std::thread receiver([&] {
    zmq_msg_t message;
    zmq_msg_init(&message);
    int taken = 0;
    // A frame of no bytes is the end.
    while (zmq_msg_recv(&message, pair.mReceiver, 0) > 0) {
      if (++taken == batch) {
        taken = 0;
        counter.fTook();
      }
    }
    zmq_msg_close(&message);
  });
  long batches = 0;
  for (auto _ : state) {
    for (int i = 0; i < batch; ++i) {
      if (zmq_send(pair.mSender, payload.data(), size, 0) < 0) state.SkipWithError("send failed");
    }
    counter.fWaitFor(++batches);
  }
  zmq_send(pair.mSender, "", 0, 0);
  receiver.join();
  state.SetItemsProcessed(state.iterations() * batch);
  state.SetBytesProcessed(state.iterations() * batch * static_cast<std::int64_t>(size));
}

void BM_ZeroMQ_RoundTrip(benchmark::State& state) {
  std::vector<char> const payload(64, 'r');
  cZmqPair pair;
  std::thread echo([&] {
    zmq_msg_t message;
    zmq_msg_init(&message);
    while (zmq_msg_recv(&message, pair.mReceiver, 0) > 0) {
      zmq_msg_send(&message, pair.mReceiver, 0);
    }
    zmq_msg_close(&message);
  });
  zmq_msg_t answer;
  zmq_msg_init(&answer);
  for (auto _ : state) {
    zmq_send(pair.mSender, payload.data(), 64, 0);
    if (zmq_msg_recv(&answer, pair.mSender, 0) != 64) state.SkipWithError("no echo");
  }
  zmq_msg_close(&answer);
  zmq_send(pair.mSender, "", 0, 0);
  echo.join();
  state.SetItemsProcessed(state.iterations());
}

#endif

BENCHMARK(BM_StreamSocket_Throughput)->Apply(gSizes);
BENCHMARK(BM_PlainLoop_Throughput)->Apply(gSizes);
BENCHMARK(BM_StreamSocket_Batched16_Throughput)->Apply(gBatchedSizes);
BENCHMARK(BM_StreamSocket_Batched64_Throughput)->Apply(gBatchedSizes);
BENCHMARK(BM_StreamSocket_RoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PlainLoop_RoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);
#if CORVANTH_HAVE_ZEROMQ
BENCHMARK(BM_ZeroMQ_Throughput)->Apply(gSizes);
BENCHMARK(BM_ZeroMQ_RoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);
#endif

}  // namespace

int main(int argc, char** argv) {
#if !CORVANTH_HAVE_ZEROMQ
  std::printf("ZeroMQ was not found when this program was built: no comparison with it\n");
#endif
  cMedianReporter reporter;
  if (!gRunWithMedians(argc, argv, reporter)) return 1;
  for (char const* size : {"64", "1024", "65536", "1048576"}) {
    std::string const ours = std::string("BM_StreamSocket_Throughput/") + size + "/real_time";
    reporter.fRatio(std::string("StreamSocket / plain loop, frames per second at ") + size + " B", ours,
                    std::string("BM_PlainLoop_Throughput/") + size + "/real_time");
    reporter.fRatio(std::string("StreamSocket / ZeroMQ, frames per second at ") + size + " B", ours,
                    std::string("BM_ZeroMQ_Throughput/") + size + "/real_time");
  }
  for (char const* size : {"64", "1024", "65536"}) {
    for (char const* perCall : {"16", "64"}) {
      std::string const ours =
          std::string("BM_StreamSocket_Batched") + perCall + "_Throughput/" + size + "/real_time";
      std::string const what = std::string("StreamSocket batches of ") + perCall;
      reporter.fRatio(what + " / ZeroMQ, frames per second at " + size + " B", ours,
                      std::string("BM_ZeroMQ_Throughput/") + size + "/real_time");
      reporter.fRatio(what + " / plain loop, frames per second at " + size + " B", ours,
                      std::string("BM_PlainLoop_Throughput/") + size + "/real_time");
    }
  }
  reporter.fRatio("StreamSocket / plain loop, round trips per second at 64 B",
                  "BM_StreamSocket_RoundTrip/real_time", "BM_PlainLoop_RoundTrip/real_time");
  reporter.fRatio("StreamSocket / ZeroMQ, round trips per second at 64 B",
                  "BM_StreamSocket_RoundTrip/real_time", "BM_ZeroMQ_RoundTrip/real_time");
  benchmark::Shutdown();
  return 0;
}
