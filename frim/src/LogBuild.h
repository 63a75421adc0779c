// Guarded insertion into a statement's text. Whatever an inserter raises is
// reported by the core error report, marked in the text as
// "<expression parse throws>", and passed on to the statement's outer clause,
// which adds "(" what ")" and lets the statement complete.
#pragma once

#include <cstddef>
#include <ostream>
#include <string_view>

#include "FrimCoreError.h"

namespace nLog::nImplementation_sho {

inline void gInsertValue(std::ostream& stream, char const* text) { stream << (text != nullptr ? text : "(null)"); }
inline void gInsertValue(std::ostream& stream, char* text) { gInsertValue(stream, static_cast<char const*>(text)); }
inline void gInsertValue(std::ostream& stream, std::nullptr_t) { stream << "(null)"; }
template <class T>
void gInsertValue(std::ostream& stream, T const& value) {
  stream << value;
}

template <class T>
void gGuardedInsert(std::ostream& stream, T const& value, char const* module, long line) {
  try {
    gInsertValue(stream, value);
  } catch (...) {
    // The core report is noexcept here, so "core error message throws" has no path to take.
    n_debug::nCoreError::gPosition(true, "Log expression parse throws", false, false, module, "LogBuild",
                                   static_cast<int>(line));
    try {
      stream << "<expression parse throws>";
    } catch (...) {
      n_debug::nCoreError::gPosition(true, "Log expression parse throws again", false, false, module,
                                     "LogBuild", static_cast<int>(line));
    }
    throw;
  }
}

}  // namespace nLog::nImplementation_sho
