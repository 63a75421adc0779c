// Frames over TCP loopback: StreamSocket beside a plain POSIX loop (header and
// payload written by one send, read back with exact reads) and beside ZeroMQ
// PAIR sockets, in the same run.
//
// Throughput: one iteration sends a batch of frames from the benchmark thread
// and ends when a receiving thread has taken all of them; the counters give
// frames per second (items) and bytes per second of payload. Round trip: one
// iteration sends a 64-byte frame and waits for its echo.
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

#include "BenchRatio.h"
#include "LintelSocket.h"
#include "streamsocket.h"

namespace {

namespace nSock = nCommunication::nSocket;

constexpr short kData = 0;
constexpr short kStop = 1;

int gBatch(std::size_t size) {
  return static_cast<int>(std::clamp<std::size_t>((8u << 20) / size, 8, 2000));
}

// Batches taken by the receiving side, for the sender to wait on.
class cBatchCounter {
 public:
  void fTook() {
    mDone.fetch_add(1, std::memory_order_release);
    mDone.notify_one();
  }
  void fWaitFor(long batches) {
    long seen = mDone.load(std::memory_order_acquire);
    while (seen < batches) {
      mDone.wait(seen);
      seen = mDone.load(std::memory_order_acquire);
    }
  }

 private:
  std::atomic<long> mDone{0};
};

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
  std::size_t const size = static_cast<std::size_t>(state.range(0));
  int const batch = gBatch(size);
  std::vector<char> const payload(size, 'x');
  cStreamPair pair;
  cBatchCounter counter;
  std::thread receiver([&] {
    int taken = 0;
    for (;;) {
      short type = 0;
      short subtype = 0;
      char* message = nullptr;
      int length = 0;
      if (!pair.mServer->WaitTypedMessageZ1(type, subtype, message, length, nullptr)) return;
      pair.mServer->FreeMessage(message);
      if (type == kStop) return;
      if (++taken == batch) {
        taken = 0;
        counter.fTook();
      }
    }
  });
  long batches = 0;
  for (auto _ : state) {
    for (int i = 0; i < batch; ++i) {
      if (!pair.mClient.SendTypedMessageZ2(kData, 0, payload.data(), int(size))) {
        state.SkipWithError("send failed");
      }
    }
    counter.fWaitFor(++batches);
  }
  pair.mClient.SendTypedMessageZ2(kStop, 0, "", 0);
  receiver.join();
  state.SetItemsProcessed(state.iterations() * batch);
  state.SetBytesProcessed(state.iterations() * batch * static_cast<std::int64_t>(size));
}

void BM_StreamSocket_RoundTrip(benchmark::State& state) {
  std::vector<char> const payload(64, 'r');
  cStreamPair pair;
  std::thread echo([&] {
    for (;;) {
      short type = 0;
      short subtype = 0;
      char* message = nullptr;
      int length = 0;
      if (!pair.mServer->WaitTypedMessageZ1(type, subtype, message, length, nullptr)) return;
      bool const stop = type == kStop;
      if (!stop) pair.mServer->SendTypedMessageZ2(type, subtype, message, length);
      pair.mServer->FreeMessage(message);
      if (stop) return;
    }
  });
  for (auto _ : state) {
    pair.mClient.SendTypedMessageZ2(kData, 0, payload.data(), 64);
    short type = 0;
    short subtype = 0;
    char* message = nullptr;
    int length = 0;
    if (!pair.mClient.WaitTypedMessageZ1(type, subtype, message, length, nullptr)) {
      state.SkipWithError("no echo");
    }
    pair.mClient.FreeMessage(message);
  }
  pair.mClient.SendTypedMessageZ2(kStop, 0, "", 0);
  echo.join();
  state.SetItemsProcessed(state.iterations());
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

// Exact reads of the header, then of the payload into a reused buffer.
bool gPlainReceive(int socket, std::vector<char>& payload, short& type) {
  char header[8];
  if (!gReadExactly(socket, header, 8)) return false;
  std::uint32_t length = 0;
  std::uint16_t rawType = 0;
  std::memcpy(&length, header, 4);
  std::memcpy(&rawType, header + 4, 2);
  type = static_cast<short>(ntohs(rawType));
  payload.resize(ntohl(length));
  return gReadExactly(socket, payload.data(), payload.size());
}

void BM_PlainLoop_Throughput(benchmark::State& state) {
  std::size_t const size = static_cast<std::size_t>(state.range(0));
  int const batch = gBatch(size);
  std::vector<char> const payload(size, 'x');
  cPlainPair pair;
  cBatchCounter counter;
  std::thread receiver([&] {
    std::vector<char> buffer;
    int taken = 0;
    short type = 0;
    while (gPlainReceive(pair.mServer, buffer, type) && type != kStop) {
      if (++taken == batch) {
        taken = 0;
        counter.fTook();
      }
    }
  });
  cPlainSender sender(pair.mClient);
  long batches = 0;
  for (auto _ : state) {
    for (int i = 0; i < batch; ++i) {
      if (!sender.fSend(kData, payload.data(), size)) state.SkipWithError("send failed");
    }
    counter.fWaitFor(++batches);
  }
  sender.fSend(kStop, "", 0);
  receiver.join();
  state.SetItemsProcessed(state.iterations() * batch);
  state.SetBytesProcessed(state.iterations() * batch * static_cast<std::int64_t>(size));
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

void gSizes(benchmark::internal::Benchmark* benchmark) {
  for (int size : {64, 1024, 64 * 1024, 1024 * 1024}) benchmark->Arg(size);
  benchmark->UseRealTime()->Unit(benchmark::kMicrosecond);
}

BENCHMARK(BM_StreamSocket_Throughput)->Apply(gSizes);
BENCHMARK(BM_PlainLoop_Throughput)->Apply(gSizes);
BENCHMARK(BM_StreamSocket_RoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PlainLoop_RoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);
#if CORVANTH_HAVE_ZEROMQ
BENCHMARK(BM_ZeroMQ_Throughput)->Apply(gSizes);
BENCHMARK(BM_ZeroMQ_RoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);
#endif

// Collects the median of each benchmark's repetitions (or its single run).
class cMedianReporter : public corvanth::bench::cCollectingReporter {
 public:
  void ReportRuns(std::vector<Run> const& runs) override {
    for (auto const& run : runs) {
      if (run.error_occurred) continue;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        mMedians[run.run_name.str()] = run.GetAdjustedRealTime();
      } else if (run.run_type == Run::RT_Iteration && !mMedians.count(run.run_name.str())) {
        mSingles[run.run_name.str()] = run.GetAdjustedRealTime();
      }
    }
    cCollectingReporter::ReportRuns(runs);
  }
  double fTime(std::string const& name) const {
    if (auto found = mMedians.find(name); found != mMedians.end()) return found->second;
    if (auto found = mSingles.find(name); found != mSingles.end()) return found->second;
    return 0;
  }

 private:
  std::map<std::string, double> mMedians;
  std::map<std::string, double> mSingles;
};

}  // namespace

// By default five repetitions in random order, so that a machine whose load
// drifts meets every transport alike, and medians; flags given on the command
// line come later and win.
int main(int argc, char** argv) {
#if !CORVANTH_HAVE_ZEROMQ
  std::printf("ZeroMQ was not found when this program was built: no comparison with it\n");
#endif
  std::string repetitions = "--benchmark_repetitions=5";
  std::string interleaving = "--benchmark_enable_random_interleaving=true";
  std::string aggregates = "--benchmark_report_aggregates_only=true";
  std::vector<char*> arguments = {argv[0], repetitions.data(), interleaving.data(),
                                  aggregates.data()};
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;
  cMedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  // Speed ratios: ours over the other's, above 1.00x StreamSocket is faster.
  std::printf("\n");
  auto ratio = [&](std::string const& what, std::string const& ours, std::string const& theirs) {
    double const a = reporter.fTime(ours);
    double const b = reporter.fTime(theirs);
    if (a > 0 && b > 0) std::printf("ratio %s: %.2fx\n", what.c_str(), b / a);
  };
  for (char const* size : {"64", "1024", "65536", "1048576"}) {
    std::string const ours = std::string("BM_StreamSocket_Throughput/") + size + "/real_time";
    ratio(std::string("StreamSocket / plain loop, frames per second at ") + size + " B", ours,
          std::string("BM_PlainLoop_Throughput/") + size + "/real_time");
    ratio(std::string("StreamSocket / ZeroMQ, frames per second at ") + size + " B", ours,
          std::string("BM_ZeroMQ_Throughput/") + size + "/real_time");
  }
  ratio("StreamSocket / plain loop, round trips per second at 64 B",
        "BM_StreamSocket_RoundTrip/real_time", "BM_PlainLoop_RoundTrip/real_time");
  ratio("StreamSocket / ZeroMQ, round trips per second at 64 B",
        "BM_StreamSocket_RoundTrip/real_time", "BM_ZeroMQ_RoundTrip/real_time");
  benchmark::Shutdown();
  return 0;
}
