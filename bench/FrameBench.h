// What the frame benchmarks share: batches of frames with a counter the
// sender waits on, the StreamSocket throughput (one send per frame, or
// gathered sends of several) and round-trip loops, and a run of five
// repetitions in random order whose medians give the ratios.
//
// Throughput: one iteration sends a batch of frames from the benchmark thread
// and ends when a receiving thread has taken all of them; the counters give
// frames per second (items) and bytes per second of payload. Round trip: one
// iteration sends a 64-byte frame and waits for its echo.
#pragma once

#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "BenchRatio.h"
#include "streamsocket.h"

namespace corvanth::bench {

inline constexpr short kData = 0;
inline constexpr short kStop = 1;

inline int gBatch(std::size_t size) {
  return static_cast<int>(std::clamp<std::size_t>((8u << 20) / size, 8, 2000));
}

inline void gSizes(benchmark::internal::Benchmark* benchmark) {
  for (int size : {64, 1024, 64 * 1024, 1024 * 1024}) benchmark->Arg(size);
  benchmark->UseRealTime()->Unit(benchmark::kMicrosecond);
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

// One frame into type and the caller-freed message; false when the connection ended.
inline bool gTake(StreamSocket& socket, short& type, char*& message, int& length) {
  short subtype = 0;
  return socket.WaitTypedMessageZ1(type, subtype, message, length, nullptr);
}

// A frame as the baselines read it: exact reads of the header, then of the payload into a
// reused buffer; read(buffer, count) fills exactly or gives false.
template <class ReadExactly>
bool gReceiveFrame(ReadExactly&& read, std::vector<char>& payload, short& type) {
  char header[8];
  if (!read(header, 8)) return false;
  std::uint32_t length = 0;
  std::uint16_t rawType = 0;
  std::memcpy(&length, header, 4);
  std::memcpy(&rawType, header + 4, 2);
  type = static_cast<short>(ntohs(rawType));
  payload.resize(ntohl(length));
  return read(payload.data(), payload.size());
}

// Throughput: sendAll(type, data, size, count) sends count equal frames on
// this thread, and receive(buffer, type) takes one on a thread of its own.
template <class SendAll, class Receive>
void gThroughput(benchmark::State& state, SendAll&& sendAll, Receive&& receive) {
  std::size_t const size = static_cast<std::size_t>(state.range(0));
  int const batch = gBatch(size);
  std::vector<char> const payload(size, 'x');
  cBatchCounter counter;
  std::thread receiver([&] {
    std::vector<char> buffer;
    short type = 0;
    for (int taken = 0; receive(buffer, type) && type != kStop;) {
      if (++taken == batch) {
        taken = 0;
        counter.fTook();
      }
    }
  });
  long batches = 0;
  for (auto _ : state) {
    if (!sendAll(kData, payload.data(), size, batch)) state.SkipWithError("send failed");
    counter.fWaitFor(++batches);
  }
  sendAll(kStop, "", 0, 1);
  receiver.join();
  state.SetItemsProcessed(state.iterations() * batch);
  state.SetBytesProcessed(state.iterations() * batch * static_cast<std::int64_t>(size));
}

// The same with send(type, data, size), one frame per call.
template <class Send, class Receive>
void gBaselineThroughput(benchmark::State& state, Send&& send, Receive&& receive) {
  gThroughput(
      state,
      [&](short type, char const* data, std::size_t size, int count) {
        bool sent = true;
        for (int i = 0; i < count; ++i) sent = send(type, data, size) && sent;
        return sent;
      },
      receive);
}

inline bool gTakeAndFree(StreamSocket& socket, short& type) {
  char* message = nullptr;
  int length = 0;
  if (!gTake(socket, type, message, length)) return false;
  socket.FreeMessage(message);
  return true;
}

inline void gStreamThroughput(benchmark::State& state, StreamSocket& client, StreamSocket& server) {
  gBaselineThroughput(
      state,
      [&](short type, char const* data, std::size_t size) { return client.SendTypedMessageZ2(type, 0, data, int(size)); },
      [&](std::vector<char>&, short& type) { return gTakeAndFree(server, type); });
}

// The frames of an iteration in SendTypedMessagesZ2 calls of perCall frames
// each (the last call takes the rest); the receiver reads one frame at a time.
inline void gStreamBatchedThroughput(benchmark::State& state, StreamSocket& client, StreamSocket& server,
                                     int perCall) {
  std::vector<StreamSocket::TypedFrame> frames;
  gThroughput(
      state,
      [&](short type, char const* data, std::size_t size, int count) {
        frames.assign(static_cast<std::size_t>(perCall), StreamSocket::TypedFrame{type, 0, data, int(size)});
        bool sent = true;
        for (int at = 0; at < count; at += perCall) {
          std::size_t const now = static_cast<std::size_t>(std::min(perCall, count - at));
          sent = client.SendTypedMessagesZ2({frames.data(), now}) && sent;
        }
        return sent;
      },
      [&](std::vector<char>&, short& type) { return gTakeAndFree(server, type); });
}

inline void gStreamRoundTrip(benchmark::State& state, StreamSocket& client, StreamSocket& server) {
  std::vector<char> const payload(64, 'r');
  std::thread echo([&] {
    short type = 0;
    char* message = nullptr;
    int length = 0;
    while (gTake(server, type, message, length)) {
      bool const stop = type == kStop;
      if (!stop) server.SendTypedMessageZ2(type, 0, message, length);
      server.FreeMessage(message);
      if (stop) return;
    }
  });
  for (auto _ : state) {
    client.SendTypedMessageZ2(kData, 0, payload.data(), 64);
    short type = 0;
    char* message = nullptr;
    int length = 0;
    if (!gTake(client, type, message, length)) state.SkipWithError("no echo");
    client.FreeMessage(message);
  }
  client.SendTypedMessageZ2(kStop, 0, "", 0);
  echo.join();
  state.SetItemsProcessed(state.iterations());
}

// Collects the median of each benchmark's repetitions (or its single run).
class cMedianReporter : public cCollectingReporter {
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
  // Prints the speed of ours over theirs: above 1.00x ours is faster.
  void fRatio(std::string const& what, std::string const& ours, std::string const& theirs) const {
    double const a = fTime(ours);
    double const b = fTime(theirs);
    if (a > 0 && b > 0) std::printf("ratio %s: %.2fx\n", what.c_str(), b / a);
  }

 private:
  std::map<std::string, double> mMedians;
  std::map<std::string, double> mSingles;
};

// By default five repetitions in random order, so that a machine whose load
// drifts meets every contender alike, and medians; flags given on the command
// line come later and win. False on an unknown flag.
inline bool gRunWithMedians(int argc, char** argv, cMedianReporter& reporter) {
  std::string repetitions = "--benchmark_repetitions=5";
  std::string interleaving = "--benchmark_enable_random_interleaving=true";
  std::string aggregates = "--benchmark_report_aggregates_only=true";
  std::vector<char*> arguments = {argv[0], repetitions.data(), interleaving.data(), aggregates.data()};
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return false;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\n");
  return true;
}

}  // namespace corvanth::bench
