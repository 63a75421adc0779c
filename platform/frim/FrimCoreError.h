// The last-resort report of the foundation: one line on standard error with a
// plain write(2), using nothing of the logging facility, so it works while a
// log statement is failing or before the facility exists.
#pragma once

#include "CorvanthExport.h"

namespace n_debug::nCoreError {

// Writes "core error\t<module>\t<source>:<line>\t<text>" to standard error.
// The three flags are kept for callers of the original facility; the Linux
// report has no break-in and no dialog, so they change nothing here.
CORVANTH_EXPORT void gPosition(bool assertion, char const* text, bool breakIn, bool dialog,
                               char const* module, char const* source, int line) noexcept;

// Observers see every report after it is written (tests count reports this
// way). One observer at a time; null removes it.
using tPositionObserver = void (*)(char const* text, char const* source, int line);
CORVANTH_EXPORT void gSetPositionObserver(tPositionObserver observer) noexcept;

}  // namespace n_debug::nCoreError
