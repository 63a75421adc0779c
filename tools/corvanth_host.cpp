// (being written)
#include <cstdio>

#include "corvanth_host.h"

namespace nCorvanthTool {

std::string gServiceUsage() { return ""; }
std::string gReportUsage() { return ""; }

int gService(int, char**) {
  std::fprintf(stderr, "corvanth: service is not built yet\n");
  return 1;
}

int gReport(int, char**) {
  std::fprintf(stderr, "corvanth: report is not built yet\n");
  return 1;
}

int gHostService() {
  std::fprintf(stderr, "corvanth: the host service is not built yet\n");
  return 1;
}

}  // namespace nCorvanthTool
