// Logs one statement into a capture target and prints what came back.
#include <cstdio>

#include "CorvanthUtil.h"

int main() {
  nLog::cCaptureTarget capture;
  if (!nLog::gAttachTarget(capture, "Warning")) return 1;
  CORVANTH_LOG_AT(nLog::nBasic::sWarningTag_, "consumer", 7, "hello from " << "a consumer");
  nLog::gDetachTarget(capture);
  auto records = capture.fRecords();
  if (records.size() != 1 || records[0].text != "hello from a consumer" || records[0].line != 7) return 1;
  std::printf("consumer ok: CorvanthUtil %s, record %s", nCorvanth::gVersion(),
              nLog::gFormatRecord(records[0]).c_str());
  return 0;
}
