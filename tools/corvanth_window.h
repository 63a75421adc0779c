// The corvanth tool's window verbs: `window serve` receives messages through a
// window of this process, `window send` sends one through another's window.
// Exit status: 0 success, 1 failure while running, 2 bad usage.
#pragma once

#include <string>

namespace nCorvanthTool {

// Usage lines of the verb, for the tool's help text.
std::string gWindowUsage();

int gWindow(int argc, char** argv);

}  // namespace nCorvanthTool
