// (being written)
#include <cstdio>

#include "corvanth_host.h"

namespace nCorvanthTool {

std::string gReportUsage() { return ""; }

int gReport(int, char**) {
  std::fprintf(stderr, "corvanth: report is not built yet\n");
  return 1;
}

}  // namespace nCorvanthTool
