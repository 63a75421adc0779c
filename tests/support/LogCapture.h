// A capture target attached for the life of a test, and helpers that count
// core error reports.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "FrimLog.h"

namespace corvanth::test {

class cLogCapture {
 public:
  explicit cLogCapture(std::string_view selection = "all");
  ~cLogCapture();
  cLogCapture(cLogCapture const&) = delete;
  cLogCapture& operator=(cLogCapture const&) = delete;

  std::vector<nLog::cRecord> fRecords() const { return mTarget.fRecords(); }
  // Records whose source and line are those given.
  std::vector<nLog::cRecord> fAt(std::string_view source, long line) const;
  // Records whose text contains the given piece.
  std::vector<nLog::cRecord> fWithText(std::string_view piece) const;
  void fClear() { mTarget.fClear(); }

 private:
  nLog::cCaptureTarget mTarget;
};

// Collects the texts of core error reports for its lifetime.
class cCoreReports {
 public:
  cCoreReports();
  ~cCoreReports();
  cCoreReports(cCoreReports const&) = delete;
  cCoreReports& operator=(cCoreReports const&) = delete;
  std::vector<std::string> fTexts() const;
  bool fHas(std::string_view text) const;
};

}  // namespace corvanth::test
