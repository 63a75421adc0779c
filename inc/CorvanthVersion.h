// The library's version, as built.
#pragma once

#include "CorvanthExport.h"

namespace nCorvanth {
// "major.minor.patch" of the loaded library.
CORVANTH_EXPORT char const* gVersion() noexcept;
}  // namespace nCorvanth
