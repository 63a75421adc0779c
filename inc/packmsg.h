// c_Pack: up to ten byte fields packed into one contiguous byte string, and
// the same string split back into its fields. It is the format under every
// routable message (netmsg.h) on a wire or in a window message.
//
// Packed field format. All numbers are ASCII decimal as "%d " prints them
// (digits, then one blank); there is no binary integer, padding or
// terminator. For N fields:
//
//   count token      "N "                     number of fields
//   length tokens    "L0 " "L1 " ... "LN-1 "  byte length of each field
//   field bytes      field 0, field 1, ...    raw, binary safe, nothing between
//
// The first data byte stands right behind the blank of the last length token.
// A text keeps its NUL only if the writer counts it in the length. Example,
// three fields "abc\0", an empty one and 01 20 00 FF, 16 bytes:
//
//   33 20 34 20 30 20 34 20 | 61 62 63 00 | 01 20 00 FF
//   "3 "  "4 "  "0 "  "4 "    field 0       field 2
//
// The string carries no length of its own beyond its header, so carriers
// frame it (Nvspackmsg.h). Its readers are exact only for strings laid out as
// the writer lays them: a token moves the read position by its own text and
// exactly one blank.
//
// Ownership: a c_Pack owns nothing and its destructor does nothing. The
// writing constructor allocates the block with array new (gPackAllocate) and
// whoever takes thePackedMsg() frees it with array delete (gPackRelease);
// nobody taking it leaks it. A reading c_Pack points into the caller's bytes,
// which must outlive it. Copies are bitwise and point at the same bytes.
//
// Thread safety: none needed; a c_Pack is a stack helper of one thread.
#pragma once

#include <cstdint>

#include "CorvanthExport.h"

class CORVANTH_EXPORT c_Pack {
 public:
  static constexpr int kMaxFields = 10;

  // Selects the reader that is given the size of its input.
  struct zBounded {};

  // Writes the fields at once. After the first pair come further pairs of a
  // const char* and an int length, ended by a null pointer. The first pair is
  // taken as given, even null or zero (logged). An eleventh pair is logged
  // and ends the list; the storage holds ten.
  c_Pack(const char* first, int firstLength, ...);

  // Reads the header of a packed string from the writer. It is given no size:
  // the input is trusted to be as long as its header says.
  explicit c_Pack(const char* packed);

  // Reads a packed string of packedLength bytes that may come from anyone:
  // a count above 10 keeps ten fields, a negative one none, and a field that
  // runs past the end is cut at the end (later fields are empty there).
  // Well-formed strings read exactly as with the reader above.
  c_Pack(zBounded, const char* packed, unsigned int packedLength);

  // The start of field index, not NUL-terminated by the format. An index of
  // 10 or more is logged and gives null.
  const char* field(unsigned int index) const {
    return index < kMaxFields ? mField[index] : fFieldOutOfRange(index);
  }
  int fieldLen(unsigned int index) const { return index < kMaxFields ? mFieldLen[index] : 0; }
  int getNumOfPacks() const { return mNumOfPacks; }
  const char* thePackedMsg() const { return mPackedMsg; }
  int thePackedMsgLen() const { return mPackedLen; }
  int valid() const { return mPackedMsg != nullptr ? 1 : 0; }

 private:
  void fRead(const char* packed, std::uint64_t limit);
  const char* fFieldOutOfRange(unsigned int index) const;

  char* mPackedMsg = nullptr;
  const char* mField[kMaxFields] = {};
  std::int32_t mFieldLen[kMaxFields] = {};
  std::int32_t mNumOfPacks = 0;
  std::int32_t mPackedLen = 0;
};

// The number a packed text stands for, read as atoi and "%d" read it: white
// space, a sign and digits, within length bytes. No digits give 0; a value
// beyond 32 bits is cut to them as the C library stores it.
CORVANTH_EXPORT std::int32_t gPackNumber(const char* text, std::uint64_t length);

// The allocation pair of packed blocks: array new and array delete. A size of
// zero and a null block are logged, and the call goes on.
CORVANTH_EXPORT char* gPackAllocate(std::uint64_t size);
CORVANTH_EXPORT void gPackRelease(char* block);
