// The corvanth tool's text verbs: settings prints where kestrun.ini was found
// and what each key resolves to; convert rewrites a string form or plain text
// from one code page to another. Each takes the whole command line and gives
// the process's exit status: 0 success, 1 failure while running, 2 bad usage.
#pragma once

#include <string>

namespace nCorvanthTool {

// Usage lines of each verb, for the tool's help text.
std::string gSettingsUsage();
std::string gConvertUsage();

int gSettings(int argc, char** argv);
int gConvert(int argc, char** argv);

}  // namespace nCorvanthTool
