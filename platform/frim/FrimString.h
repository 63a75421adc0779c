// cStringCoeImpl: the foundation's text type, used by log statements and the
// foundation exceptions. A zero-terminated text with value semantics.
#pragma once

#include <string>
#include <string_view>
#include <utility>

class cStringCoeImpl {
 public:
  cStringCoeImpl() = default;
  cStringCoeImpl(char const* text) : mText(text != nullptr ? text : "") {}  // NOLINT: implicit by design
  cStringCoeImpl(std::string text) : mText(std::move(text)) {}              // NOLINT
  cStringCoeImpl(std::string_view text) : mText(text) {}                     // NOLINT

  char const* c_str() const noexcept { return mText.c_str(); }
  std::string const& fString() const noexcept { return mText; }
  bool fEmpty() const noexcept { return mText.empty(); }
  operator std::string() const { return mText; }  // NOLINT

  friend bool operator==(cStringCoeImpl const&, cStringCoeImpl const&) = default;

 private:
  std::string mText;
};
