// Arbitrary bytes through both rewriters of the code page conversion and
// through the settings reader. The first byte picks the two code pages, the
// rest is the text, in a block of its exact size plus the terminator the
// rewriters take it by, so a rewriter that looks past it is caught. Then all
// the bytes are the product's kestrun.ini, read through the settings library's
// public entry under a product home of the fuzzer's own.
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "AssociativeArray.h"
#include "AssociativeArrayExceptions.h"
#include "KREnvironment.h"

namespace {

unsigned const kCodePages[] = {1252, 65001, 932, 936, 949, 950, 1251, 1200, 1201, 20127, 437, 28591};
constexpr std::size_t kCount = sizeof kCodePages / sizeof kCodePages[0];

std::string gHome;

void gRemoveHome() {
  std::error_code ignored;
  std::filesystem::remove_all(gHome, ignored);
}

void gReadSettings(std::uint8_t const* data, std::size_t size) {
  std::string const path = gHome + "/config/kestrun.ini";
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) std::abort();
  if (size != 0 && std::fwrite(data, 1, size, file) != size) std::abort();
  std::fclose(file);

  MXEnvContainerClass container;
  int handle = 0;
  nEnvSettings::gFileInitTable(container, "kestrun.ini", handle);
  // A key the input itself names: what stands before the first '=' or ':'.
  std::string_view const bytes(reinterpret_cast<char const*>(data), size);
  std::string const named(bytes.substr(0, bytes.find_first_of("=:\n")));
  for (char const* key : {"CorvanthAnsiConversion_patch", named.c_str()}) {
    char const* const value = nEnvSettings::gGetPropertyStream(handle, key);
    if (value == nullptr) __builtin_trap();
    (void)std::strlen(value);
    if (char const* environment = container.MXEGetEnv(key)) (void)std::strlen(environment);
  }
}

// Both rewrites as their algorithm is written: recursive, leaf by leaf through
// gConvertLeaf. The library's walk, which converts all leaves at once, must
// give the same bytes.
struct cReference {
  unsigned source, target;
  bool mended;

  static bool fInt(std::string_view text, std::size_t& pos, int& value) {
    std::size_t const blank = text.find(' ', pos);
    if (blank == std::string_view::npos || blank == pos || blank - pos > 18) return false;
    std::string const field(text.substr(pos, blank - pos));
    pos = blank + 1;
    value = static_cast<int>(static_cast<std::uint32_t>(std::strtol(field.c_str(), nullptr, 10)));
    return value != 0 || field == "0";
  }
  static bool fToken(std::string_view text, std::size_t& pos, std::string_view& token) {
    int length = 0;
    if (pos >= text.size() || text[pos] != '\'' || !fInt(text, ++pos, length) || length < 0 ||
        std::size_t(length) > text.size() - pos)
      return false;
    token = text.substr(pos, std::size_t(length));
    pos += std::size_t(length) + 1;
    return true;
  }
  static std::string_view fUpToZero(std::string_view text) { return text.substr(0, std::strlen(std::string(text).c_str())); }

  std::string fLeaf(std::string_view text) const {
    std::string const terminated(fUpToZero(text));
    int const size = CAssociativeArray::gConvertLeaf(source, target, terminated.c_str(), -1, nullptr, 0);
    if (size <= 0) return "";
    std::string out(std::size_t(size), '\0');
    CAssociativeArray::gConvertLeaf(source, target, terminated.c_str(), -1, out.data(), size);
    return std::string(fUpToZero(out));
  }
  std::string fRewrite(std::string_view text) const {
    std::size_t pos = 0;
    int count = 0;
    if (!fInt(text, pos, count) || (mended && count <= 0)) return fLeaf(text);
    std::string out = std::to_string(count);
    for (int i = 0; i < count; ++i) {
      std::string_view key, value;
      if (!fToken(text, pos, key)) return fLeaf(text);
      out += " '" + std::to_string(key.size()) + " ";
      out += mended ? key : fUpToZero(key);
      if (!fToken(text, pos, value)) return fLeaf(text);
      std::string const converted = fRewrite(mended ? value : fUpToZero(value));
      out += " '" + std::to_string(converted.size()) + " " + converted;
    }
    return out + " ";
  }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char home[] = "/tmp/fuzz_conversion-XXXXXX";
  if (::mkdtemp(home) == nullptr) std::abort();
  gHome = home;
  if (::mkdir((gHome + "/config").c_str(), 0700) != 0) std::abort();
  ::setenv("KESTRUN_HOME", home, 1);
  std::atexit(&gRemoveHome);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  if (size == 0) return 0;
  unsigned const source = kCodePages[data[0] % kCount];
  unsigned const target = kCodePages[data[0] / kCount % kCount];
  std::size_t const length = size - 1;
  std::unique_ptr<char[]> const text(new char[length + 1]);
  std::memcpy(text.get(), data + 1, length);
  text[length] = '\0';

  RWCString out[2];
  for (int mode : {1, 2}) {
    if (!CAssociativeArray::gConvertX1(mode, source, target, text.get(), static_cast<int>(length), out[mode - 1]))
      __builtin_trap();
  }
  // gConvertLeaf takes a UTF-16 text to its zero unit, which these texts lack.
  bool const wide = source == 1200 || source == 1201;
  for (bool mended : {false, true}) {
    if (wide) break;
    std::string_view const input(text.get(), mended ? length : std::strlen(text.get()));
    if (cReference{source, target, mended}.fRewrite(input) != out[mended ? 1 : 0]) __builtin_trap();
  }
  RWCString terminated;
  if (!CAssociativeArray::ConvertZ38(source, target, text.get(), terminated)) __builtin_trap();
  // Within ASCII, a form the reader takes couples from stays a form with as
  // many couples. (A count of 0 or below makes a leaf, cut at its first zero.)
  if (source == 20127 && target == 20127) {
    CAssociativeArray before;
    bool read = true;
    try {
      before.FromString(text.get(), static_cast<int>(length));
    } catch (CIllegalAssoSyntaxException const&) {
      read = false;
    }
    if (read && before.entries() != 0) {
      CAssociativeArray after;
      after.FromStringRef(out[1]);
      if (after.entries() != before.entries()) __builtin_trap();
    }
  }
  gReadSettings(data, size);
  return 0;
}
