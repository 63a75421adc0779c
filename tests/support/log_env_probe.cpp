// Writes one record on each tag through the default target, which the
// environment configured at start; tests run it with CORVANTH_LOG settings.
#include "Log.dec.h"

int main() {
  using namespace nLog::nBasic;
  for (auto* tag : {sErrorTag_, sErrorPerformanceTag_, sWarningTag_, sWarningPerformanceTag_, sIncompleteTag_,
                    sExecutionTag_, sTraceTag_, sTraceDebugInfoTag_})
    CORVANTH_LOG(tag, "probe", "x");
  CORVANTH_LOG(nCorvanth::sTraceTag_, "probe", "ct");
  return 0;
}
