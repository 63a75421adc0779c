// The string form against JSON libraries on the equivalent object of strings:
// writing (ToString against RapidJSON's Writer and nlohmann's dump) and
// reading (FromString into a fresh array against RapidJSON's Document::Parse
// and nlohmann's parse), for 20 and 1,000 couples. Then reading 100,000
// couples into an array of the default size, whose 11 buckets never grow (the
// bucket count decides the order of the string form), and looking keys up in it.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "AssociativeArray.h"
#include "BenchRatio.h"

// The JSON peers are optional: a missing one drops its comparison.
#if CORVANTH_HAVE_RAPIDJSON
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#endif
#if CORVANTH_HAVE_NLOHMANN
#include <nlohmann/json.hpp>
#endif

namespace {

using tCouples = std::vector<std::pair<std::string, std::string>>;

// Printable keys of 8-24 bytes and values of 16-256 bytes, the same for every run.
tCouples const& gCouples(int count) {
  static std::vector<std::pair<int, tCouples>> cache;
  for (auto const& [n, couples] : cache) {
    if (n == count) return couples;
  }
  std::mt19937 rng(count);
  auto text = [&](int low, int high) {
    std::string s(std::size_t(low + int(rng() % unsigned(high - low + 1))), ' ');
    for (char& c : s) c = static_cast<char>('a' + rng() % 26);
    return s;
  };
  tCouples couples;
  for (int i = 0; i < count; ++i) couples.emplace_back(text(8, 24) + std::to_string(i), text(16, 256));
  cache.emplace_back(count, std::move(couples));
  return cache.back().second;
}

void gFill(CAssociativeArray& array, tCouples const& couples) {
  for (auto const& [k, v] : couples) array.AddCouple(k.c_str(), v.data(), int(v.size()));
}

#if CORVANTH_HAVE_RAPIDJSON || CORVANTH_HAVE_NLOHMANN
// The couples as one JSON object; keys and values are letters and digits,
// which JSON takes as they are.
std::string gJsonText(tCouples const& couples) {
  std::string text = "{";
  for (auto const& [k, v] : couples) {
    text += (text.size() > 1 ? ",\"" : "\"") + k + "\":\"" + v + "\"";
  }
  return text + "}";
}
#endif

void BM_ToString(benchmark::State& state) {
  CAssociativeArray array(int(state.range(0)) * 2);
  gFill(array, gCouples(int(state.range(0))));
  for (auto _ : state) {
    char const* text;
    int length;
    array.ToString(text, length, false, false);
    benchmark::DoNotOptimize(text);
  }
}

#if CORVANTH_HAVE_RAPIDJSON
void BM_RapidJsonWriter(benchmark::State& state) {
  rapidjson::Document doc;
  doc.Parse(gJsonText(gCouples(int(state.range(0)))).c_str());
  rapidjson::StringBuffer buffer;
  for (auto _ : state) {
    buffer.Clear();
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    doc.Accept(writer);
    benchmark::DoNotOptimize(buffer.GetString());
  }
}
#endif

#if CORVANTH_HAVE_NLOHMANN
void BM_NlohmannDump(benchmark::State& state) {
  nlohmann::json json = nlohmann::json::parse(gJsonText(gCouples(int(state.range(0)))));
  for (auto _ : state) {
    std::string text = json.dump();
    benchmark::DoNotOptimize(text.data());
  }
}
#endif

void BM_FromString(benchmark::State& state) {
  CAssociativeArray source(int(state.range(0)) * 2);
  gFill(source, gCouples(int(state.range(0))));
  std::string const form = source.ToStringRef(false, false);
  for (auto _ : state) {
    CAssociativeArray array(int(state.range(0)) * 2);
    array.FromStringZ1(form);
    benchmark::DoNotOptimize(array.entries());
  }
}

#if CORVANTH_HAVE_RAPIDJSON
void BM_RapidJsonParse(benchmark::State& state) {
  std::string const text = gJsonText(gCouples(int(state.range(0))));
  for (auto _ : state) {
    rapidjson::Document doc;
    doc.Parse(text.c_str(), text.size());
    benchmark::DoNotOptimize(doc.MemberCount());
  }
}
#endif

#if CORVANTH_HAVE_NLOHMANN
void BM_NlohmannParse(benchmark::State& state) {
  std::string const text = gJsonText(gCouples(int(state.range(0))));
  for (auto _ : state) {
    nlohmann::json json = nlohmann::json::parse(text);
    benchmark::DoNotOptimize(json.size());
  }
}
#endif

// Couples as the reader of a message meets them: a fresh array of the default size.
void BM_FromStringDefaultSize(benchmark::State& state) {
  CAssociativeArray source(int(state.range(0)) * 2);
  gFill(source, gCouples(int(state.range(0))));
  std::string const form = source.ToStringRef(false, false);
  for (auto _ : state) {
    CAssociativeArray array;
    array.FromStringZ1(form);
    benchmark::DoNotOptimize(array.entries());
  }
}

void BM_GetValueDefaultSize(benchmark::State& state) {
  tCouples const& couples = gCouples(int(state.range(0)));
  CAssociativeArray array;
  gFill(array, couples);
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(array.GetValueOfParameter(couples[i].first.c_str(), nullptr));
    if (++i == couples.size()) i = 0;
  }
}

BENCHMARK(BM_ToString)->Arg(20)->Arg(1000);
BENCHMARK(BM_FromString)->Arg(20)->Arg(1000);
#if CORVANTH_HAVE_RAPIDJSON
BENCHMARK(BM_RapidJsonWriter)->Arg(20)->Arg(1000);
BENCHMARK(BM_RapidJsonParse)->Arg(20)->Arg(1000);
#endif
#if CORVANTH_HAVE_NLOHMANN
BENCHMARK(BM_NlohmannDump)->Arg(20)->Arg(1000);
BENCHMARK(BM_NlohmannParse)->Arg(20)->Arg(1000);
#endif
BENCHMARK(BM_FromStringDefaultSize)->Arg(20)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetValueDefaultSize)->Arg(20)->Arg(100000);

}  // namespace

int main(int argc, char** argv) {
#if !CORVANTH_HAVE_RAPIDJSON
  std::printf("RapidJSON was not found when this program was built: no comparison with it\n");
#endif
#if !CORVANTH_HAVE_NLOHMANN
  std::printf("nlohmann-json was not found when this program was built: no comparison with it\n");
#endif
  std::vector<std::pair<std::string, std::string>> pairs;
  for (char const* n : {"20", "1000"}) {
    std::string s = std::string("/") + n;
    pairs.emplace_back("BM_ToString" + s, "BM_RapidJsonWriter" + s);
    pairs.emplace_back("BM_ToString" + s, "BM_NlohmannDump" + s);
    pairs.emplace_back("BM_FromString" + s, "BM_RapidJsonParse" + s);
    pairs.emplace_back("BM_FromString" + s, "BM_NlohmannParse" + s);
  }
  return corvanth::bench::gRunAndPrintRatios(argc, argv, pairs);
}
