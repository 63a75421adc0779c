// Lookup in an RWHashDictionary of string pairs against
// std::unordered_map<std::string, std::string>, at 10, 100 and 10,000 pairs,
// for present and for absent keys. Ours is measured three ways: with a probe
// RWCollectableString made beforehand (findValue(const RWCollectable*)), by
// text (findValue(std::string_view)), and by text in a dictionary left at its
// default 64 buckets (no growth on insertion, so long chains at 10,000). The
// sized dictionaries are resized once after filling (resize(0): 3/2 buckets
// per entry), as an owner of a large table does. Prints "ratio ...: X.XXx".
#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "BenchRatio.h"
#include "rwcollstr.h"
#include "rwhashdict.h"

namespace {

constexpr int kSizes[] = {10, 100, 10000};

std::string gKey(int i) { return "Parameter" + std::to_string(i); }
std::string gAbsentKey(int i) { return "Parameter" + std::to_string(i) + "x"; }

// One set of data per size: the stored pairs and probes in a shuffled order.
struct cData {
  explicit cData(int size, bool sized) : dictionary(RWCollection::DEFAULT_CAPACITY) {
    std::vector<int> order(static_cast<std::size_t>(size));
    for (int i = 0; i < size; ++i) order[static_cast<std::size_t>(i)] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(42));
    for (int i = 0; i < size; ++i) {
      auto* key = new RWCollectableString(gKey(i));
      auto* value = new RWCollectableString("value of " + std::to_string(i));
      dictionary.insertKeyAndValue(key, value);
      map.emplace(gKey(i), *value);
    }
    if (sized) dictionary.resize(0);
    for (int i : order) {
      present.push_back(gKey(i));
      absent.push_back(gAbsentKey(i));
      presentProbes.emplace_back(gKey(i));
      absentProbes.emplace_back(gAbsentKey(i));
    }
  }
  ~cData() { dictionary.clearAndDestroy(); }

  RWHashDictionary dictionary;
  std::unordered_map<std::string, std::string> map;
  std::vector<std::string> present, absent;
  std::vector<RWCollectableString> presentProbes, absentProbes;
};

cData& gData(int size, bool sized) {
  static std::map<std::pair<int, bool>, std::unique_ptr<cData>> all;
  auto& data = all[{size, sized}];
  if (data == nullptr) data = std::make_unique<cData>(size, sized);
  return *data;
}

template <bool kPresent>
void BM_RWProbe(benchmark::State& state) {
  cData& data = gData(static_cast<int>(state.range(0)), true);
  auto const& probes = kPresent ? data.presentProbes : data.absentProbes;
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(data.dictionary.findValue(&probes[i]));
    if (++i == probes.size()) i = 0;
  }
}

template <bool kPresent, bool kSized>
void BM_RWText(benchmark::State& state) {
  cData& data = gData(static_cast<int>(state.range(0)), kSized);
  auto const& keys = kPresent ? data.present : data.absent;
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(data.dictionary.findValue(std::string_view(keys[i])));
    if (++i == keys.size()) i = 0;
  }
}

template <bool kPresent>
void BM_StdMap(benchmark::State& state) {
  cData& data = gData(static_cast<int>(state.range(0)), true);
  auto const& keys = kPresent ? data.present : data.absent;
  std::size_t i = 0;
  for (auto _ : state) {
    auto const found = data.map.find(keys[i]);
    benchmark::DoNotOptimize(found == data.map.end() ? nullptr : &found->second);
    if (++i == keys.size()) i = 0;
  }
}

void gSizes(benchmark::internal::Benchmark* benchmark) {
  for (int size : kSizes) benchmark->Arg(size);
}

BENCHMARK_TEMPLATE(BM_RWProbe, true)->Name("RWProbe/present")->Apply(gSizes);
BENCHMARK_TEMPLATE(BM_RWText, true, true)->Name("RWText/present")->Apply(gSizes);
BENCHMARK_TEMPLATE(BM_RWText, true, false)->Name("RWTextDefault64/present")->Apply(gSizes);
BENCHMARK_TEMPLATE(BM_StdMap, true)->Name("StdMap/present")->Apply(gSizes);
BENCHMARK_TEMPLATE(BM_RWProbe, false)->Name("RWProbe/absent")->Apply(gSizes);
BENCHMARK_TEMPLATE(BM_RWText, false, true)->Name("RWText/absent")->Apply(gSizes);
BENCHMARK_TEMPLATE(BM_RWText, false, false)->Name("RWTextDefault64/absent")->Apply(gSizes);
BENCHMARK_TEMPLATE(BM_StdMap, false)->Name("StdMap/absent")->Apply(gSizes);

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::pair<std::string, std::string>> pairs;
  for (char const* kind : {"present", "absent"})
    for (int size : kSizes)
      for (char const* ours : {"RWProbe", "RWText", "RWTextDefault64"})
        pairs.push_back({std::string(ours) + "/" + kind + "/" + std::to_string(size),
                         std::string("StdMap/") + kind + "/" + std::to_string(size)});
  return corvanth::bench::gRunAndPrintRatios(argc, argv, pairs);
}
