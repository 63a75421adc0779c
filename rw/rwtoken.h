// RWCTokenizer: splits a copy of a text into tokens. Each call skips a run of
// delimiters, then takes the longest run without one; so adjacent delimiters
// never give empty tokens. At the end of the text every call gives the null
// piece. Tokens are pieces of the tokenizer's own copy and live as long as it.
#pragma once

#include <cstddef>
#include <string_view>

#include "CorvanthExport.h"
#include "rwcstring.h"

class CORVANTH_EXPORT RWCTokenizer {
 public:
  explicit RWCTokenizer(RWCString const& text) : mText(text) {}

  // The next token between the bytes of the zero-terminated `delimiters`.
  RWCSubString operator()(char const* delimiters);
  RWCSubString operator()(char const* delimiters, std::size_t count);
  // The next token between blanks, tabs and line feeds.
  RWCSubString operator()() { return (*this)(" \t\n"); }

 private:
  RWCString mText;
  std::size_t mPosition = 0;
};
