#include "CorvanthVersion.h"

namespace nCorvanth {
char const* gVersion() noexcept { return CORVANTH_VERSION_TEXT; }
}  // namespace nCorvanth
