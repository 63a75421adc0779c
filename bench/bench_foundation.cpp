// The costs every other subsystem pays: a statement on a silent tag (a basic
// one and the library's trace tag), the fast path of a once-only holder, and
// uncontended locks, each beside the standard library's or a hand-written
// equivalent.
#include <benchmark/benchmark.h>

#include <mutex>

#include "BenchRatio.h"
#include "Log.dec.h"
#include "Synch.h"

namespace {

// --- a statement on a tag that no target listens to -----------------------
nLog::cTagSimple gSilentTag("BenchSilentTag", 2, 0, false, nLog::gDebugInfoConfiguration(false, false),
                            nLog::nBasic::sTraceTargetGroup_);
nLog::iTagControlled const* gSilentProxy = &gSilentTag;
int gValue = 42;

void BM_LogSilentTag(benchmark::State& state) {
  for (auto _ : state) {
    CORVANTH_LOG(gSilentProxy, "bench", "value " << gValue);
    benchmark::ClobberMemory();  // the proxy is read again on every pass, as at a real call site
  }
}
BENCHMARK(BM_LogSilentTag);

// The library's own trace tag, which every send and receive writes to; no
// target listens to it here.
void BM_LogCorvanthTraceTag(benchmark::State& state) {
  for (auto _ : state) {
    CORVANTH_LOG(nCorvanth::sTraceTag_, "bench", "value " << gValue);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_LogCorvanthTraceTag);

struct cPlainSwitch {
  bool on = false;
};
cPlainSwitch gSwitch;
cPlainSwitch* gSwitchProxy = &gSwitch;

void BM_PointerAndFlagTest(benchmark::State& state) {
  for (auto _ : state) {
    if (gSwitchProxy != nullptr && gSwitchProxy->on) benchmark::DoNotOptimize(gValue);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_PointerAndFlagTest);

// --- once-only fast path ----------------------------------------------------
nParallel::nOnce::cInitHolder gHolder;
std::once_flag gOnceFlag;

void BM_InitHolderFastPath(benchmark::State& state) {
  gHolder.fUseBlock([] { gValue = 1; });
  for (auto _ : state) {
    benchmark::DoNotOptimize(gHolder.fUseBlock([] { gValue = 2; }));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_InitHolderFastPath);

void BM_StdCallOnceFastPath(benchmark::State& state) {
  std::call_once(gOnceFlag, [] { gValue = 1; });
  for (auto _ : state) {
    std::call_once(gOnceFlag, [] { gValue = 2; });
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_StdCallOnceFastPath);

// --- uncontended locks ------------------------------------------------------
void BM_cMutex(benchmark::State& state) {
  nParallel::nImplementation_sho::cMutex mutex;
  for (auto _ : state) {
    mutex.fAcquire();
    benchmark::ClobberMemory();
    mutex.fRelease();
  }
}
BENCHMARK(BM_cMutex);

void BM_StdMutex(benchmark::State& state) {
  std::mutex mutex;
  for (auto _ : state) {
    mutex.lock();
    benchmark::ClobberMemory();
    mutex.unlock();
  }
}
BENCHMARK(BM_StdMutex);

void BM_cMutexRecursive(benchmark::State& state) {
  nParallel::nImplementation_sho::cMutexRecursive mutex;
  for (auto _ : state) {
    mutex.fAcquire();
    benchmark::ClobberMemory();
    mutex.fRelease();
  }
}
BENCHMARK(BM_cMutexRecursive);

void BM_StdRecursiveMutex(benchmark::State& state) {
  std::recursive_mutex mutex;
  for (auto _ : state) {
    mutex.lock();
    benchmark::ClobberMemory();
    mutex.unlock();
  }
}
BENCHMARK(BM_StdRecursiveMutex);

}  // namespace

int main(int argc, char** argv) {
  return corvanth::bench::gRunAndPrintRatios(argc, argv,
                                             {{"BM_LogSilentTag", "BM_PointerAndFlagTest"},
                                              {"BM_LogCorvanthTraceTag", "BM_PointerAndFlagTest"},
                                              {"BM_InitHolderFastPath", "BM_StdCallOnceFastPath"},
                                              {"BM_cMutex", "BM_StdMutex"},
                                              {"BM_cMutexRecursive", "BM_StdRecursiveMutex"}});
}
