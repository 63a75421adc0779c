// RWCollectableString: an RWCString that is also a collectable. It hashes by
// the string hash, orders byte-wise (case-sensitive) and equals only another
// object whose class id is RWCollectableString's, with the same bytes; so a
// key of another class never equals a string, whatever their hashes.
//
// A probe for a lookup can live on the stack: building one costs no heap
// block for texts of up to 15 bytes.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "CorvanthExport.h"
#include "rwcollect.h"
#include "rwcstring.h"

class CORVANTH_EXPORT RWCollectableString : public RWCollectable, public RWCString {
 public:
  static constexpr RWClassID classIsA = 32779;
  static constexpr char const className[] = "RWCollectableString";

  RWCollectableString() = default;
  RWCollectableString(char const* text) : RWCString(text != nullptr ? text : "") {}  // NOLINT
  RWCollectableString(char const* text, std::size_t length) : RWCString(text, length) {}
  RWCollectableString(std::string_view text) : RWCString(text) {}    // NOLINT: implicit
  RWCollectableString(std::string const& text) : RWCString(text) {}  // NOLINT: implicit
  RWCollectableString(std::string&& text) noexcept : RWCString(std::move(text)) {}  // NOLINT
  RWCollectableString(RWCString const& text) : RWCString(text) {}  // NOLINT: implicit
  RWCollectableString(RWCString&& text) noexcept : RWCString(std::move(text)) {}  // NOLINT
  RWCollectableString(RWCollectableString const&) = default;
  RWCollectableString& operator=(RWCollectableString const&) = default;
  using RWCString::operator=;

  RWCollectable* newSpecies() const override;
  RWCollectable* copy() const override;
  RWClassID isA() const override;
  ~RWCollectableString() override;
  RWspace binaryStoreSize() const override;
  // Byte-wise against the other's bytes. An object that is no string at all is
  // ordered by identity.
  int compareTo(RWCollectable const* other) const override;
  unsigned hash() const override;
  bool isEqual(RWCollectable const* other) const override;
  // The one operation this class adds to the table: forwards to compareTo.
  virtual int compareToString(RWCollectable const* other) const;

  using RWCString::compareTo;
  using RWCString::hash;

  // True when `other` is an RWCollectableString by class id and holds exactly
  // `text`: what isEqual of a probe with these bytes would answer.
  static bool equalsText(RWCollectable const* other, std::string_view text);
};
