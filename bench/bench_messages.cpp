// Packing and unpacking the example message, each against a hand-written
// baseline that produces or reads the same 57 bytes with snprintf, strtol and
// memcpy. Prints "ratio <ours> / <baseline>: X.XXx" at the end.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "BenchRatio.h"
#include "netmsg.h"

namespace {

const char kToHost[] = "host2";
const char kToClient[] = "agent";
const char kFromHost[] = "host1";
const char kFromClient[] = "console";
const char kData[] = "hello";

const std::string kExample =
    std::string("8 6 6 6 8 2 5 2 4 ") + std::string(
                                            "host2\0agent\0host1\0console\0"
                                            "3\0hello7\0"
                                            "352\0",
                                            39);

void BM_Pack(benchmark::State& state) {
  for (auto _ : state) {
    cCorvanthMessage message(7, kToHost, kToClient, kFromHost, kFromClient, static_cast<QType>(3),
                             5, 2, kData, 5);
    benchmark::DoNotOptimize(message.getPackedBuf());
  }
}
BENCHMARK(BM_Pack);

void BM_PackBaseline(benchmark::State& state) {
  for (auto _ : state) {
    char qtype[12];
    char id[12];
    char stamp[12];
    const int qtypeLength = std::snprintf(qtype, sizeof qtype, "%d", 3) + 1;
    const int idLength = std::snprintf(id, sizeof id, "%d", 7) + 1;
    const int stampLength = std::snprintf(stamp, sizeof stamp, "%d", 352) + 1;
    const char* fields[8] = {kToHost, kToClient, kFromHost, kFromClient, qtype, kData, id, stamp};
    const int lengths[8] = {static_cast<int>(std::strlen(kToHost) + 1),
                            static_cast<int>(std::strlen(kToClient) + 1),
                            static_cast<int>(std::strlen(kFromHost) + 1),
                            static_cast<int>(std::strlen(kFromClient) + 1),
                            qtypeLength,
                            5,
                            idLength,
                            stampLength};
    char header[128];
    const int headerLength = std::snprintf(header, sizeof header, "%d %d %d %d %d %d %d %d %d ", 8,
                                           lengths[0], lengths[1], lengths[2], lengths[3],
                                           lengths[4], lengths[5], lengths[6], lengths[7]);
    int total = headerLength;
    for (int length : lengths) total += length;
    char* block = new char[total];
    std::memcpy(block, header, headerLength);
    char* out = block + headerLength;
    for (int i = 0; i < 8; ++i) {
      std::memcpy(out, fields[i], lengths[i]);
      out += lengths[i];
    }
    benchmark::DoNotOptimize(block);
    delete[] block;
  }
}
BENCHMARK(BM_PackBaseline);

void BM_Unpack(benchmark::State& state) {
  for (auto _ : state) {
    cCorvanthMessage message(kExample.data(), static_cast<unsigned int>(kExample.size()), 5, 2);
    benchmark::DoNotOptimize(message.getMessageId());
    benchmark::DoNotOptimize(message.getData());
  }
}
BENCHMARK(BM_Unpack);

void BM_UnpackBaseline(benchmark::State& state) {
  struct cView {
    const char* fields[8];
    long lengths[8];
    int qtype;
    unsigned int id;
    int stamp;
  };
  for (auto _ : state) {
    const auto size = kExample.size();
    char* block = new char[size];
    std::memcpy(block, kExample.data(), size);
    cView view;
    char* at = block;
    const long count = std::strtol(at, &at, 10);
    ++at;
    for (long i = 0; i < count; ++i) {
      view.lengths[i] = std::strtol(at, &at, 10);
      ++at;
    }
    for (long i = 0; i < count; ++i) {
      view.fields[i] = at;
      at += view.lengths[i];
    }
    view.qtype = std::atoi(view.fields[4]);
    view.id = static_cast<unsigned int>(std::atoi(view.fields[6]));
    view.stamp = std::atoi(view.fields[7]);
    benchmark::DoNotOptimize(view);
    delete[] block;
  }
}
BENCHMARK(BM_UnpackBaseline);

}  // namespace

int main(int argc, char** argv) {
  return corvanth::bench::gRunAndPrintRatios(
      argc, argv, {{"BM_Pack", "BM_PackBaseline"}, {"BM_Unpack", "BM_UnpackBaseline"}});
}
