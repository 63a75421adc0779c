#include "rwcstring.h"

#include <cstdint>
#include <cstring>

// The string hash on 32-bit unsigned arithmetic, n being the byte length:
// h starts at n; each whole group of four bytes, read as a little-endian word w,
// gives h = rotl(h, 5) ^ w; a tail of 1 to 3 bytes is folded big-end first into
// t with each byte sign-extended (so a byte of 0x80 or above sets all upper
// bits of t), then h = rotl(h, 5) ^ t. The empty string hashes to 0.
// Worked example: "abcd" is 4 -> rotl(4, 5) = 0x80, ^ 0x64636261 = 0x646362E1.
// Bucket placement and so the iteration order of every table depend on this.
unsigned RWCString::hash(char const* data, std::size_t length) noexcept {
  if (length == 0) return 0;
  auto rotl5 = [](std::uint32_t v) { return (v << 5) | (v >> 27); };
  std::uint32_t h = static_cast<std::uint32_t>(length);
  std::size_t const whole = length & ~static_cast<std::size_t>(3);
  for (std::size_t i = 0; i < whole; i += 4) {
    auto const* p = reinterpret_cast<unsigned char const*>(data + i);
    std::uint32_t const w =
        static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
        static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
    h = rotl5(h) ^ w;
  }
  if (whole != length) {
    std::uint32_t t = 0;
    for (std::size_t i = whole; i < length; ++i) {
      auto const extended =
          static_cast<std::uint32_t>(static_cast<std::int32_t>(static_cast<signed char>(data[i])));
      t = (t << 8) | extended;
    }
    h = rotl5(h) ^ t;
  }
  return h;
}
