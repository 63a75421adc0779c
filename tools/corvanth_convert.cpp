// (being written)
#include <cstdio>

#include "corvanth_text.h"

namespace nCorvanthTool {

std::string gConvertUsage() { return ""; }

int gConvert(int, char**) {
  std::fprintf(stderr, "corvanth: convert is not built yet\n");
  return 1;
}

}  // namespace nCorvanthTool
