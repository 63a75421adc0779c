// (being written)
#include <cstdio>

#include "corvanth_host.h"

namespace nCorvanthTool {

int gHostService() {
  std::fprintf(stderr, "corvanth: the host service is not built yet\n");
  return 1;
}

}  // namespace nCorvanthTool
