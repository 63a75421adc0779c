// RWCString: the byte string of the container layer and the type of text in
// the product's signatures. It is a standard string (it owns its bytes, may
// hold NULs and has the whole standard interface) with the few operations of
// the toolkit on top: the layer's string hash, a signed byte-wise compareTo,
// and RWCSubString, a piece of a string given by start and length.
//
// Value type; one object belongs to one thread at a time.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "CorvanthExport.h"
#include "rwdefs.h"

class RWCString;

// A piece of a string: start and length inside a text that outlives it. The
// null piece has no start; it is what a tokenizer gives at the end of its text.
class CORVANTH_EXPORT RWCSubString {
 public:
  RWCSubString() = default;
  RWCSubString(std::string_view text, std::size_t start, std::size_t length)
      : mText(text), mStart(start), mLength(length) {}

  bool isNull() const noexcept { return mStart == RW_NPOS; }
  std::size_t start() const noexcept { return mStart; }
  std::size_t length() const noexcept { return mLength; }
  std::string_view view() const noexcept {
    return isNull() ? std::string_view() : mText.substr(mStart, mLength);
  }

  friend bool operator==(RWCSubString const& piece, std::string_view text) noexcept {
    return piece.view() == text;
  }

 private:
  std::string_view mText;
  std::size_t mStart = RW_NPOS;
  std::size_t mLength = 0;
};

class CORVANTH_EXPORT RWCString : public std::string {
 public:
  using std::string::string;
  using std::string::operator=;

  RWCString() = default;
  RWCString(RWCString const&) = default;
  RWCString(RWCString&&) noexcept = default;
  RWCString& operator=(RWCString const&) = default;
  RWCString& operator=(RWCString&&) noexcept = default;
  RWCString(std::string const& text) : std::string(text) {}                 // NOLINT: implicit
  RWCString(std::string&& text) noexcept : std::string(std::move(text)) {}  // NOLINT: implicit
  RWCString(std::string_view text) : std::string(text) {}                   // NOLINT: implicit
  RWCString(RWCSubString const& piece) : std::string(piece.view()) {}       // NOLINT: implicit
  ~RWCString() = default;

  // The layer's string hash (see rwcstring.cpp); containers choose buckets by it.
  static unsigned hash(char const* data, std::size_t length) noexcept;
  unsigned hash() const noexcept { return hash(data(), size()); }

  // Byte-wise, case-sensitive, bytes taken as unsigned: negative, 0 or positive.
  int compareTo(RWCString const& other) const noexcept { return compare(other); }
  int compareTo(std::string_view other) const noexcept { return compare(other); }

  bool isNull() const noexcept { return empty(); }
  std::size_t index(std::string_view pattern, std::size_t start = 0) const noexcept {
    std::size_t const at = find(pattern, start);
    return at == npos ? RW_NPOS : at;
  }
  bool contains(std::string_view pattern) const noexcept { return find(pattern) != npos; }
  RWCString& prepend(std::string_view text) {
    insert(0, text);
    return *this;
  }
  // The piece [start, start + length), clipped to the text; null when start lies beyond it.
  RWCSubString operator()(std::size_t start, std::size_t length) const noexcept {
    if (start > size()) return RWCSubString();
    return RWCSubString(*this, start, std::min(length, size() - start));
  }
};
