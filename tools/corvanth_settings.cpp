// (being written)
#include <cstdio>

#include "corvanth_text.h"

namespace nCorvanthTool {

std::string gSettingsUsage() { return ""; }

int gSettings(int, char**) {
  std::fprintf(stderr, "corvanth: settings is not built yet\n");
  return 1;
}

}  // namespace nCorvanthTool
