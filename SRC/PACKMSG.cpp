// The packed field format is described in packmsg.h.
#include "packmsg.h"

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <limits>

#include "Log.dec.h"

namespace {

// "10 " and ten "-2147483648 ".
constexpr std::size_t kMaxHeader = 3 + c_Pack::kMaxFields * 12;

// The room the format reserves for the header, on top of the field bytes.
constexpr std::int64_t kHeaderRoom = 100;

char* gPutToken(char* out, std::int32_t value) {
  out = std::to_chars(out, out + 11, value).ptr;
  *out = ' ';
  return out + 1;
}

bool gIsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool gIsDigit(char c) { return c >= '0' && c <= '9'; }

// One header token as "%s " reads it: white space before it is skipped, the
// token ends at white space, a NUL or the limit, and the position moves by
// the token's text and one blank from where it stood. Its value is what "%d"
// makes of it.
std::int32_t gReadToken(const char* packed, std::uint64_t limit, std::uint64_t& position) {
  std::uint64_t at = position;
  while (at < limit && gIsSpace(packed[at])) ++at;
  const std::uint64_t begin = at;
  std::uint32_t value = 0;
  while (at < limit && gIsDigit(packed[at])) {
    value = value * 10 + static_cast<std::uint32_t>(packed[at] - '0');
    ++at;
  }
  // The writer's tokens are up to nine plain digits: their value is read on
  // the way; anything else goes through the full conversion.
  const bool plain = at - begin <= 9 && (at == limit || packed[at] == '\0' || gIsSpace(packed[at]));
  while (at < limit && packed[at] != '\0' && !gIsSpace(packed[at])) ++at;
  const std::uint64_t length = at - begin;
  position = length + 1 > limit - position ? limit : position + length + 1;
  return plain ? static_cast<std::int32_t>(value) : gPackNumber(packed + begin, length);
}

}  // namespace

std::int32_t gPackNumber(const char* text, std::uint64_t length) {
  std::uint64_t at = 0;
  while (at < length && gIsSpace(text[at])) ++at;
  bool negative = false;
  if (at < length && (text[at] == '+' || text[at] == '-')) {
    negative = text[at] == '-';
    ++at;
  }
  // Saturates at the 64-bit range as strtol does; the cut to 32 bits follows.
  constexpr std::uint64_t kCeiling = std::uint64_t{1} << 63;
  std::uint64_t magnitude = 0;
  // Eighteen digits cannot reach the ceiling.
  const std::uint64_t plain = length - at > 18 ? at + 18 : length;
  for (; at < plain && gIsDigit(text[at]); ++at) {
    magnitude = magnitude * 10 + static_cast<std::uint64_t>(text[at] - '0');
  }
  for (; at < length && gIsDigit(text[at]); ++at) {
    const auto digit = static_cast<std::uint64_t>(text[at] - '0');
    magnitude = magnitude > (kCeiling - digit) / 10 ? kCeiling : magnitude * 10 + digit;
  }
  if (!negative && magnitude == kCeiling) --magnitude;
  const std::uint64_t bits = negative ? ~magnitude + 1 : magnitude;
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(bits));
}

char* gPackAllocate(std::uint64_t size) {
  CORVANTH_ASSERT_AT(size != 0, "PACKMSG", 134);
  return new char[size];
}

void gPackRelease(char* block) {
  CORVANTH_ASSERT_AT(block != nullptr, "PACKMSG", 151);
  delete[] block;
}

c_Pack::c_Pack(const char* first, int firstLength, ...) {
  CORVANTH_ASSERT_AT(first != nullptr && firstLength != 0, "PACKMSG", 54);
  mNumOfPacks = 1;
  mField[0] = first;
  mFieldLen[0] = firstLength;
  std::int64_t sum = firstLength;

  va_list arguments;
  va_start(arguments, firstLength);
  for (int slot = 1;; ++slot) {
    const char* next = va_arg(arguments, const char*);
    if (next == nullptr) break;
    CORVANTH_ASSERT_AT(slot < kMaxFields, "PACKMSG", 74);
    if (slot >= kMaxFields) break;
    ++mNumOfPacks;
    mField[slot] = next;
    mFieldLen[slot] = va_arg(arguments, int);
    sum += mFieldLen[slot];
  }
  va_end(arguments);

  char header[kMaxHeader];
  char* out = gPutToken(header, mNumOfPacks);
  std::uint64_t tokenEnd[kMaxFields];
  std::uint64_t payload = 0;
  for (int i = 0; i < mNumOfPacks; ++i) {
    out = gPutToken(out, mFieldLen[i]);
    tokenEnd[i] = static_cast<std::uint64_t>(out - header);
    payload += static_cast<std::uint64_t>(std::max(mFieldLen[i], 0));
  }
  const auto headerLength = static_cast<std::uint64_t>(out - header);

  // The format reserves sum + 100 bytes and the checks report against that
  // end. Only negative lengths or ten fields of some 10^8 bytes pass it; the
  // block is sized for what is really written, so passing it overruns nothing.
  const std::int64_t reserved = sum + kHeaderRoom;
  const std::uint64_t written = headerLength + payload;
  const std::uint64_t size = reserved > 0 && static_cast<std::uint64_t>(reserved) > written
                                 ? static_cast<std::uint64_t>(reserved)
                                 : written;
  mPackedMsg = gPackAllocate(size);

  std::memcpy(mPackedMsg, header, headerLength);
  for (int i = 0; i < mNumOfPacks; ++i) {
    CORVANTH_ASSERT_AT(static_cast<std::int64_t>(tokenEnd[i]) <= reserved, "PACKMSG", 114);
  }
  std::uint64_t position = headerLength;
  for (int i = 0; i < mNumOfPacks; ++i) {
    char* target = mPackedMsg + position;
    const auto length = static_cast<std::uint64_t>(std::max(mFieldLen[i], 0));
    if (length != 0) {
      if (mField[i] != nullptr) {
        std::memcpy(target, mField[i], length);
      } else {
        std::memset(target, 0, length);
      }
    }
    mField[i] = target;
    position += length;
    CORVANTH_ASSERT_AT(static_cast<std::int64_t>(position) <= reserved, "PACKMSG", 123);
  }
  mPackedLen = static_cast<std::int32_t>(position);
}

c_Pack::c_Pack(const char* packed) { fRead(packed, std::numeric_limits<std::uint64_t>::max()); }

c_Pack::c_Pack(zBounded, const char* packed, unsigned int packedLength) {
  fRead(packed, packedLength);
}

void c_Pack::fRead(const char* packed, std::uint64_t limit) {
  // The member is the writer's block type; a reader never writes through it.
  mPackedMsg = const_cast<char*>(packed);
  if (packed == nullptr) return;

  std::uint64_t position = 0;
  mNumOfPacks = std::clamp(gReadToken(packed, limit, position), 0, kMaxFields);
  for (int i = 0; i < mNumOfPacks; ++i) {
    mFieldLen[i] = std::max(gReadToken(packed, limit, position), 0);
  }
  for (int i = 0; i < mNumOfPacks; ++i) {
    mField[i] = packed + position;
    const std::uint64_t room = limit - position;
    if (static_cast<std::uint64_t>(mFieldLen[i]) > room) {
      mFieldLen[i] = static_cast<std::int32_t>(room);
    }
    position += static_cast<std::uint64_t>(mFieldLen[i]);
  }
  mPackedLen = static_cast<std::int32_t>(position);
}

const char* c_Pack::fFieldOutOfRange(unsigned int index) const {
  CORVANTH_ASSERT_AT(index < kMaxFields, "packmsg", 38);
  return nullptr;
}
