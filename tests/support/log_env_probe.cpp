// Writes one record on each tag through the default target, which the
// environment configured at start; tests run it with CORVANTH_LOG settings.
#include "Log.dec.h"

int main() {
  CORVANTH_LOG(nLog::nBasic::sErrorTag_, "probe", "e");
  CORVANTH_LOG(nLog::nBasic::sErrorPerformanceTag_, "probe", "ep");
  CORVANTH_LOG(nLog::nBasic::sWarningTag_, "probe", "w");
  CORVANTH_LOG(nLog::nBasic::sWarningPerformanceTag_, "probe", "wp");
  CORVANTH_LOG(nLog::nBasic::sIncompleteTag_, "probe", "i");
  CORVANTH_LOG(nLog::nBasic::sExecutionTag_, "probe", "x");
  CORVANTH_LOG(nLog::nBasic::sTraceTag_, "probe", "t");
  CORVANTH_LOG(nLog::nBasic::sTraceDebugInfoTag_, "probe", "td");
  CORVANTH_LOG(nCorvanth::sTraceTag_, "probe", "ct");
  return 0;
}
