// (being written)
#include <cstdio>

#include "corvanth_window.h"

namespace nCorvanthTool {

std::string gWindowUsage() { return ""; }

int gWindow(int, char**) {
  std::fprintf(stderr, "corvanth: window is not built yet\n");
  return 1;
}

}  // namespace nCorvanthTool
