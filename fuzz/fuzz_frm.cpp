// Arbitrary bytes as an error text file. The reader never reads outside the
// file, and every text it keeps formats with parameters without fault.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "KRErrorException.h"
#include "KRErrorsDictionary.h"

namespace {

char gRoot[] = "/tmp/corvanth-fuzz-frm-XXXXXX";

// A product home of this process's own, whose dat/ holds the file under test;
// removed at exit.
std::string const& gDatDirectory() {
  static std::string const directory = [] {
    if (::mkdtemp(gRoot) == nullptr) std::abort();
    std::string const dat = std::string(gRoot) + "/dat";
    if (::mkdir(dat.c_str(), 0700) != 0) std::abort();
    ::setenv("KESTRUN_HOME", gRoot, 1);
    std::atexit([] {
      std::remove((std::string(gRoot) + "/dat/fuzz.frm").c_str());
      std::remove((std::string(gRoot) + "/dat").c_str());
      std::remove(gRoot);
    });
    return dat;
  }();
  return directory;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const path = gDatDirectory() + "/fuzz.frm";
  if (FILE* file = std::fopen(path.c_str(), "wb")) {
    if (size > 0) std::fwrite(data, 1, size, file);
    std::fclose(file);
  }
  KRErrorsDictionary const texts("fuzz.frm");
  std::string_view const parameters[] = {"first", "%s"};
  // Keys a file is likely to hold: the small ones and the ends of the range.
  for (int key : {-1, 0, 1, 2, 3, 10, 11, 2147483647, -2147483647 - 1}) {
    RWCString text;
    if (texts.GetText(key, text)) {
      RWCString const formatted = KRFormatErrorText(text, parameters, 2);
      if (formatted.size() > text.size() + 64) __builtin_trap();
    }
  }
  return 0;
}
