// Rewriting string forms from Windows-1252 to UTF-8 in the mended mode, on a
// form of 20 couples and on one of 1,000 leaf couples nested three deep (ten
// forms of ten forms of ten couples), against a baseline that converts the
// same leaf values with one plain iconv call each on a descriptor opened once.
// The values are words with accents; every one of them is a leaf.
#include <benchmark/benchmark.h>
#include <iconv.h>

#include <random>
#include <string>
#include <vector>

#include "AssociativeArray.h"
#include "BenchRatio.h"

namespace {

// Windows-1252 bytes: é, à, ü, ç, ñ, ô, ß, è.
char const* const kWords[] = {"caf\xe9",     "\xe0 la carte", "M\xfcller", "gar\xe7on", "se\xf1or",
                              "h\xf4tel",    "Stra\xdf" "e",  "cr\xe8me",  "d\xe9j\xe0 vu", "na\xefve",
                              "r\xe9sum\xe9", "fa\xe7" "ade"};

struct cForm {
  std::string text;
  std::vector<std::string> leaves;
};

std::string gLeaf(std::mt19937& rng, std::vector<std::string>& leaves) {
  std::string value;
  for (int words = 2 + int(rng() % 4); words > 0; --words) {
    if (!value.empty()) value += ' ';
    value += kWords[rng() % (sizeof kWords / sizeof kWords[0])];
  }
  leaves.push_back(value);
  return value;
}

// depth 1: couples leaf values; deeper: couples values that are forms themselves.
std::string gBuild(int couples, int depth, std::mt19937& rng, std::vector<std::string>& leaves) {
  CAssociativeArray array(couples * 2);
  for (int i = 0; i < couples; ++i) {
    std::string const key = "key" + std::to_string(i);
    std::string const value = depth == 1 ? gLeaf(rng, leaves) : gBuild(couples, depth - 1, rng, leaves);
    array.AddCouple(key.c_str(), value.data(), int(value.size()));
  }
  return array.ToStringRef(false, false);
}

cForm const& gForm(int leafCouples) {
  static cForm const twenty = [] {
    cForm form;
    std::mt19937 rng(20);
    form.text = gBuild(20, 1, rng, form.leaves);
    return form;
  }();
  static cForm const thousand = [] {
    cForm form;
    std::mt19937 rng(1000);
    form.text = gBuild(10, 3, rng, form.leaves);
    return form;
  }();
  return leafCouples == 20 ? twenty : thousand;
}

void BM_Mode2(benchmark::State& state) {
  cForm const& form = gForm(int(state.range(0)));
  RWCString out;
  for (auto _ : state) {
    CAssociativeArray::gConvertX1(2, 1252, 65001, form.text.c_str(), int(form.text.size()), out);
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["leaves"] = double(form.leaves.size());
}

void BM_IconvPerLeaf(benchmark::State& state) {
  cForm const& form = gForm(int(state.range(0)));
  iconv_t const descriptor = iconv_open("UTF-8", "WINDOWS-1252");
  if (descriptor == iconv_t(-1)) {
    state.SkipWithError("iconv cannot convert from WINDOWS-1252");
    return;
  }
  std::string buffer(4096, '\0');
  for (auto _ : state) {
    for (std::string const& leaf : form.leaves) {
      char* in = const_cast<char*>(leaf.data());
      std::size_t inLeft = leaf.size();
      char* out = buffer.data();
      std::size_t outLeft = buffer.size();
      iconv(descriptor, &in, &inLeft, &out, &outLeft);
      benchmark::DoNotOptimize(out);
    }
  }
  iconv_close(descriptor);
  state.counters["leaves"] = double(form.leaves.size());
}

BENCHMARK(BM_Mode2)->Arg(20)->Arg(1000);
BENCHMARK(BM_IconvPerLeaf)->Arg(20)->Arg(1000);

}  // namespace

int main(int argc, char** argv) {
  return corvanth::bench::gRunAndPrintRatios(
      argc, argv, {{"BM_Mode2/20", "BM_IconvPerLeaf/20"}, {"BM_Mode2/1000", "BM_IconvPerLeaf/1000"}});
}
