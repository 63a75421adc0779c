// (being written)
#include <cstdio>

#include "corvanth_host.h"

namespace nCorvanthTool {

std::string gServiceUsage() { return ""; }

int gService(int, char**) {
  std::fprintf(stderr, "corvanth: service is not built yet\n");
  return 1;
}

}  // namespace nCorvanthTool
