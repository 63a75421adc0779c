// corvanth convert: a string form or plain text from standard input, from one
// code page to another, to standard output, as the library converts forms at
// a process border.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "AssociativeArray.h"
#include "Uzend.h"
#include "corvanth_text.h"

namespace nCorvanthTool {

namespace {

bool gNumber(char const* text, long low, long high, long& value) {
  char* end = nullptr;
  errno = 0;
  value = std::strtol(text, &end, 10);
  return *text != '\0' && *end == '\0' && errno == 0 && value >= low && value <= high;
}

// Two blanks read in any code page that Uzend knows, UTF-16 ones included.
bool gKnownCodePage(unsigned codePage) {
  char16_t wide[2];
  return UL_MultiByteToWideChar(codePage, 0, "  ", 2, wide, 2) > 0;
}

bool gReadAll(int descriptor, std::string& out) {
  char buffer[65536];
  for (;;) {
    ssize_t const got = ::read(descriptor, buffer, sizeof buffer);
    if (got > 0) {
      out.append(buffer, std::size_t(got));
    } else if (got == 0) {
      return true;
    } else if (errno != EINTR) {
      return false;
    }
  }
}

bool gWriteAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t const put = ::write(descriptor, bytes.data(), bytes.size());
    if (put > 0) {
      bytes.remove_prefix(std::size_t(put));
    } else if (put < 0 && errno != EINTR) {
      return false;
    }
  }
  return true;
}

int gBadUsage(char const* why, char const* what) {
  std::fprintf(stderr, "corvanth convert: %s%s\n\n%s", why, what, gConvertUsage().c_str());
  return 2;
}

}  // namespace

std::string gConvertUsage() {
  return "  convert --from <code page> --to <code page> [--mode 0|1|2]\n"
         "               convert a string form or plain text read from standard input and\n"
         "               write it to standard output; code pages are Windows numbers (1252,\n"
         "               65001 for UTF-8, ...). Every leaf value of a form is converted at any\n"
         "               depth and the lengths follow; text that is no form is one leaf, and\n"
         "               a leaf ends at its first zero byte. Mode 0 copies, 1 rewrites with\n"
         "               the first variant (\"0 apples\" becomes \"0 \"), 2 with the mended\n"
         "               one; without --mode, CorvanthAnsiConversion_patch of kestrun.ini\n";
}

int gConvert(int argc, char** argv) {
  long from = -1, to = -1, mode = -1;
  for (int i = 2; i < argc; ++i) {
    std::string_view const flag = argv[i];
    long* target = flag == "--from" ? &from : flag == "--to" ? &to : flag == "--mode" ? &mode : nullptr;
    if (target == nullptr) return gBadUsage("unknown argument ", argv[i]);
    if (i + 1 == argc) return gBadUsage("no value after ", argv[i]);
    long const high = target == &mode ? 2 : 0xFFFFFFFFL;
    if (!gNumber(argv[++i], 0, high, *target)) return gBadUsage("bad value ", argv[i]);
  }
  if (from < 0 || to < 0) return gBadUsage("--from and --to are needed", "");
  for (long const codePage : {from, to}) {
    if (!gKnownCodePage(unsigned(codePage))) {
      std::fprintf(stderr, "corvanth convert: code page %ld is not known\n", codePage);
      return 2;
    }
  }
  std::string input;
  if (!gReadAll(0, input)) {
    std::fprintf(stderr, "corvanth convert: reading standard input: %s\n", std::strerror(errno));
    return 1;
  }
  if (input.size() > 0x7FFFFFFF) {
    std::fprintf(stderr, "corvanth convert: the input is longer than 2 GiB\n");
    return 1;
  }
  RWCString output;
  int const length = static_cast<int>(input.size());
  bool const converted =
      mode < 0 ? CAssociativeArray::ConvertX0(unsigned(from), unsigned(to), input.c_str(), length, output)
      : mode == 0
          ? (output.assign(input), true)
          : CAssociativeArray::gConvertX1(int(mode), unsigned(from), unsigned(to), input.c_str(), length, output);
  if (!converted) {
    std::fprintf(stderr, "corvanth convert: the conversion mode %d of kestrun.ini is none of 0, 1, 2\n",
                 CAssociativeArray::gAnsiConversionMode());
    return 1;
  }
  if (!gWriteAll(1, output)) {
    std::fprintf(stderr, "corvanth convert: writing standard output: %s\n", std::strerror(errno));
    return 1;
  }
  return 0;
}

}  // namespace nCorvanthTool
