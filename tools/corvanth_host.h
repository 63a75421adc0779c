// The corvanth tool's host verbs: `service` drives the service configurator,
// `report` builds the support report; gHostService is the tool run by the
// service manager as the product's host service. Exit status: 0 success,
// 1 failure while running, 2 bad usage.
#pragma once

#include <string>

namespace nCorvanthTool {

// Usage lines of each verb, for the tool's help text.
std::string gServiceUsage();
std::string gReportUsage();

int gService(int argc, char** argv);
int gReport(int argc, char** argv);
int gHostService();

}  // namespace nCorvanthTool
