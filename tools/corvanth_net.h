// The corvanth tool's message verbs: serve and send carry cCorvanthMessages
// whose data is a CAssociativeArray string form over a StreamSocket;
// local_thr/remote_thr and local_lat/remote_lat measure frames between two
// processes or machines.
// Each takes the whole command line and gives the process's exit status:
// 0 success, 1 failure while running, 2 bad usage.
#pragma once

#include <string>

namespace nCorvanthTool {

// Usage lines of the verbs below, for the tool's help text.
std::string gNetUsage();

int gServe(int argc, char** argv);
int gSend(int argc, char** argv);
int gLocalThr(int argc, char** argv);
int gRemoteThr(int argc, char** argv);
int gLocalLat(int argc, char** argv);
int gRemoteLat(int argc, char** argv);

}  // namespace nCorvanthTool
