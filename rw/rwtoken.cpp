#include "rwtoken.h"

#include <cstring>

RWCSubString RWCTokenizer::operator()(char const* delimiters) {
  return (*this)(delimiters, delimiters != nullptr ? std::strlen(delimiters) : 0);
}

RWCSubString RWCTokenizer::operator()(char const* delimiters, std::size_t count) {
  std::string_view const separators(delimiters != nullptr ? delimiters : "", count);
  std::size_t const start = mText.find_first_not_of(separators, mPosition);
  if (start == RWCString::npos) {
    mPosition = mText.size();
    return RWCSubString();
  }
  std::size_t end = mText.find_first_of(separators, start);
  if (end == RWCString::npos) end = mText.size();
  mPosition = end;
  return RWCSubString(mText, start, end - start);
}
