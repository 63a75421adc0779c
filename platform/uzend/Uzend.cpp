#include "Uzend.h"

#include <iconv.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <mutex>
#include <utility>
#include <vector>

namespace {

struct cCodePageName {
  unsigned codePage;
  char const* name;  // as glibc's iconv knows it
};

// 28602 (ISO-8859-12) never existed, so it stays unknown.
constexpr cCodePageName kCodePages[] = {
    {65001, "UTF-8"},       {1250, "CP1250"},       {1251, "CP1251"},       {1252, "CP1252"},
    {1253, "CP1253"},       {1254, "CP1254"},       {1255, "CP1255"},       {1256, "CP1256"},
    {1257, "CP1257"},       {1258, "CP1258"},       {437, "CP437"},         {850, "CP850"},
    {866, "CP866"},         {874, "CP874"},         {932, "CP932"},         {936, "CP936"},
    {949, "CP949"},         {950, "CP950"},         {1361, "JOHAB"},        {10000, "MACINTOSH"},
    {20127, "ASCII"},       {20866, "KOI8-R"},      {21866, "KOI8-U"},      {28591, "ISO-8859-1"},
    {28592, "ISO-8859-2"},  {28593, "ISO-8859-3"},  {28594, "ISO-8859-4"},  {28595, "ISO-8859-5"},
    {28596, "ISO-8859-6"},  {28597, "ISO-8859-7"},  {28598, "ISO-8859-8"},  {28599, "ISO-8859-9"},
    {28600, "ISO-8859-10"}, {28601, "ISO-8859-11"}, {28603, "ISO-8859-13"}, {28604, "ISO-8859-14"},
    {28605, "ISO-8859-15"}, {51932, "EUC-JP"},      {51949, "EUC-KR"},      {54936, "GB18030"},
    {1200, "UTF-16LE"},     {1201, "UTF-16BE"},
};
constexpr std::size_t kCodePageCount = std::size(kCodePages);

// char16_t values in host order, whatever the host.
constexpr char const* kWideName =
    std::endian::native == std::endian::little ? "UTF-16LE" : "UTF-16BE";

constexpr std::size_t kNotFound = static_cast<std::size_t>(-1);

std::size_t gCodePageIndex(unsigned codePage) {
  for (std::size_t i = 0; i < kCodePageCount; ++i)
    if (kCodePages[i].codePage == codePage) return i;
  return kNotFound;
}

bool gIsUnicode(unsigned codePage) {
  return codePage == 65001 || codePage == 1200 || codePage == 1201;
}
bool gIsUtf16(unsigned codePage) { return codePage == 1200 || codePage == 1201; }

enum tDirection { eToWide = 0, eFromWide = 1 };

constexpr std::size_t kSlotCount = kCodePageCount * 2;  // a code page in each direction

// Descriptors no thread holds. More than this many idle ones of a slot are
// closed rather than kept.
constexpr std::size_t kMaxIdle = 64;
struct cPool {
  std::mutex lock;
  std::vector<iconv_t> idle;
};

// Never destroyed: a thread may still give descriptors back while the process exits.
cPool* gPools() {
  static cPool* const pools = new cPool[kSlotCount];
  return pools;
}

iconv_t const kNoDescriptor = reinterpret_cast<iconv_t>(-1);

// The descriptors one thread holds, without a lock since no other thread
// sees them. When the thread ends they go back to the pool, so threads that
// come and go reuse them rather than open new ones.
struct cThreadDescriptors {
  iconv_t held[kSlotCount];
  cThreadDescriptors() { std::fill(std::begin(held), std::end(held), kNoDescriptor); }
  ~cThreadDescriptors() {
    for (std::size_t slot = 0; slot < kSlotCount; ++slot) {
      if (held[slot] == kNoDescriptor) continue;
      iconv_t const cd = std::exchange(held[slot], kNoDescriptor);
      cPool& pool = gPools()[slot];
      std::unique_lock<std::mutex> guard(pool.lock);
      if (pool.idle.size() < kMaxIdle) {
        pool.idle.push_back(cd);
      } else {
        guard.unlock();
        ::iconv_close(cd);
      }
    }
  }
  cThreadDescriptors(cThreadDescriptors const&) = delete;
  cThreadDescriptors& operator=(cThreadDescriptors const&) = delete;
};

// The calling thread's descriptor for a code page and direction, in its
// initial state; kNoDescriptor when iconv cannot open it.
iconv_t gDescriptor(std::size_t index, tDirection direction) {
  thread_local cThreadDescriptors mine;
  std::size_t const slot = index * 2 + direction;
  iconv_t& cd = mine.held[slot];
  if (cd != kNoDescriptor) {
    // A call that failed half way may have left state behind.
    ::iconv(cd, nullptr, nullptr, nullptr, nullptr);
    return cd;
  }
  cPool& pool = gPools()[slot];
  {
    std::lock_guard<std::mutex> guard(pool.lock);
    if (!pool.idle.empty()) {
      cd = pool.idle.back();
      pool.idle.pop_back();
      return cd;
    }
  }
  char const* name = kCodePages[index].name;
  cd = direction == eToWide ? ::iconv_open(kWideName, name) : ::iconv_open(name, kWideName);
  return cd;
}

// Length of the maximal part of an ill-formed UTF-8 sequence at `p` that
// could have begun a character: that part becomes one U+FFFD, as on Win32.
std::size_t gUtf8IllFormedLength(unsigned char const* p, std::size_t n) {
  unsigned char const lead = p[0];
  unsigned char low = 0x80, high = 0xBF;
  std::size_t trail;
  if (lead >= 0xC2 && lead <= 0xDF) {
    trail = 1;
  } else if (lead == 0xE0) {
    trail = 2, low = 0xA0;
  } else if (lead == 0xED) {
    trail = 2, high = 0x9F;
  } else if (lead >= 0xE1 && lead <= 0xEF) {
    trail = 2;
  } else if (lead == 0xF0) {
    trail = 3, low = 0x90;
  } else if (lead == 0xF4) {
    trail = 3, high = 0x8F;
  } else if (lead >= 0xF1 && lead <= 0xF3) {
    trail = 3;
  } else {
    return 1;
  }
  std::size_t i = 1;
  for (; i <= trail && i < n; ++i) {
    if (p[i] < low || p[i] > high) break;
    low = 0x80, high = 0xBF;
  }
  return i;
}

// How many input bytes an invalid or unconvertible sequence spans.
std::size_t gSkipLength(tDirection direction, unsigned codePage, char const* in, std::size_t left,
                        int error) {
  if (direction == eFromWide) {
    // A surrogate pair is one character and gets one replacement.
    if (left >= 4) {
      char16_t units[2];
      std::memcpy(units, in, sizeof units);
      if (units[0] >= 0xD800 && units[0] <= 0xDBFF && units[1] >= 0xDC00 && units[1] <= 0xDFFF)
        return 4;
    }
    return left < 2 ? left : 2;
  }
  if (codePage == 65001)
    return gUtf8IllFormedLength(reinterpret_cast<unsigned char const*>(in), left);
  if (error == EINVAL) return left;  // a character cut short by the end of the input
  if (gIsUtf16(codePage)) return left < 2 ? left : 2;
  return 1;
}

// Converts `size` bytes at `source` into `target`, or counts the bytes the
// result needs when `targetSize` is 0. Gives the byte count, or kNotFound
// when the target is too small or no descriptor opens.
//
// Counting goes through a scratch block. So does the end of a conversion into
// a real target once iconv finds too little room there: some converters
// (EUC-JP) ask for room for their longest character even when the next one
// is shorter, so an exact target must take the tail from the scratch.
std::size_t gConvert(std::size_t index, tDirection direction, char const* source, std::size_t size,
                     char* target, std::size_t targetSize, char const* replacement,
                     std::size_t replacementSize, bool& replaced) {
  iconv_t const cd = gDescriptor(index, direction);
  if (cd == kNoDescriptor) return kNotFound;
  unsigned const codePage = kCodePages[index].codePage;
  bool const counting = targetSize == 0;
  char scratch[1024];
  bool staged = counting;
  char* out = staged ? scratch : target;
  std::size_t outLeft = staged ? sizeof scratch : targetSize;
  char* tail = target;  // where staged bytes go in a real target
  std::size_t tailLeft = targetSize;
  std::size_t total = 0;  // bytes moved out of the scratch
  // Empties the scratch (the first time for a real target: starts staging);
  // false when the target cannot take what the scratch holds.
  auto const makeRoom = [&]() {
    if (!staged) {
      staged = true;
      total = static_cast<std::size_t>(out - target);
      tail = out;
      tailLeft = outLeft;
    } else {
      std::size_t const produced = static_cast<std::size_t>(out - scratch);
      if (!counting) {
        if (produced > tailLeft) return false;
        std::memcpy(tail, scratch, produced);
        tail += produced;
        tailLeft -= produced;
      }
      total += produced;
    }
    out = scratch;
    outLeft = sizeof scratch;
    return true;
  };
  // 1255 and 1258 hold back a base letter in case a combining mark follows:
  // it goes out before a replacement and at the end.
  auto const flush = [&]() {
    while (::iconv(cd, nullptr, nullptr, &out, &outLeft) == static_cast<std::size_t>(-1)) {
      if (errno != E2BIG || !makeRoom()) return false;
    }
    return true;
  };
  char* in = const_cast<char*>(source);  // iconv's prototype; it never writes the input
  std::size_t inLeft = size;
  while (inLeft > 0) {
    if (::iconv(cd, &in, &inLeft, &out, &outLeft) != static_cast<std::size_t>(-1)) break;
    int const error = errno;
    if (error == E2BIG) {
      if (!makeRoom()) return kNotFound;
      continue;
    }
    if ((error != EILSEQ && error != EINVAL) || !flush()) return kNotFound;
    if (outLeft < replacementSize && !makeRoom()) return kNotFound;
    std::memcpy(out, replacement, replacementSize);
    out += replacementSize;
    outLeft -= replacementSize;
    std::size_t const skip = gSkipLength(direction, codePage, in, inLeft, error);
    in += skip;
    inLeft -= skip;
    replaced = true;
  }
  if (!flush()) return kNotFound;
  if (!staged) return static_cast<std::size_t>(out - target);
  return makeRoom() ? total : kNotFound;
}

std::size_t gWideLength(char16_t const* text) {
  std::size_t n = 0;
  while (text[n] != 0) ++n;
  return n;
}

}  // namespace

int UL_MultiByteToWideChar(unsigned codePage, unsigned /*flags*/, char const* source,
                           int sourceLength, char16_t* target, int targetUnits, int, int) {
  std::size_t const index = gCodePageIndex(codePage);
  if (index == kNotFound || source == nullptr || sourceLength == 0 || sourceLength < -1 ||
      targetUnits < 0 || (targetUnits > 0 && target == nullptr))
    return 0;
  std::size_t size;
  if (sourceLength != -1) {
    size = static_cast<std::size_t>(sourceLength);
  } else if (gIsUtf16(codePage)) {
    // The terminator of UTF-16 bytes is a whole zero unit.
    size = 0;
    while (source[size] != 0 || source[size + 1] != 0) size += 2;
    size += 2;
  } else {
    size = std::strlen(source) + 1;
  }
  static constexpr char16_t kReplacement = 0xFFFD;
  bool replaced = false;
  std::size_t const bytes =
      gConvert(index, eToWide, source, size, reinterpret_cast<char*>(target),
               static_cast<std::size_t>(targetUnits) * sizeof(char16_t),
               reinterpret_cast<char const*>(&kReplacement), sizeof kReplacement, replaced);
  if (bytes == kNotFound || bytes / sizeof(char16_t) > INT_MAX) return 0;
  return static_cast<int>(bytes / sizeof(char16_t));
}

int UL_WideCharToMultiByte(unsigned codePage, unsigned /*flags*/, char16_t const* source,
                           int sourceUnits, char* target, int targetSize, char const* defaultChar,
                           int* usedDefaultChar) {
  std::size_t const index = gCodePageIndex(codePage);
  if (index == kNotFound || source == nullptr || sourceUnits == 0 || sourceUnits < -1 ||
      targetSize < 0 || (targetSize > 0 && target == nullptr))
    return 0;
  if (gIsUnicode(codePage) && (defaultChar != nullptr || usedDefaultChar != nullptr)) return 0;
  std::size_t const units =
      sourceUnits == -1 ? gWideLength(source) + 1 : static_cast<std::size_t>(sourceUnits);
  char const* replacement = "?";
  std::size_t replacementSize = 1;
  if (defaultChar != nullptr) {
    replacement = defaultChar;
  } else if (codePage == 65001) {
    replacement = "\xEF\xBF\xBD", replacementSize = 3;
  } else if (codePage == 1200) {
    replacement = "\xFD\xFF", replacementSize = 2;
  } else if (codePage == 1201) {
    replacement = "\xFF\xFD", replacementSize = 2;
  }
  bool replaced = false;
  std::size_t const bytes = gConvert(
      index, eFromWide, reinterpret_cast<char const*>(source), units * sizeof(char16_t), target,
      static_cast<std::size_t>(targetSize), replacement, replacementSize, replaced);
  if (bytes == kNotFound || bytes > INT_MAX) return 0;
  if (usedDefaultChar != nullptr) *usedDefaultChar = replaced ? 1 : 0;
  return static_cast<int>(bytes);
}
