// A capture target attached for the life of a test (it detaches itself when
// it goes), and helpers that count core error reports.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "FrimLog.h"

namespace corvanth::test {

class cLogCapture {
 public:
  explicit cLogCapture(std::string_view selection = "all");

  std::vector<nLog::cRecord> fRecords() const { return mTarget.fRecords(); }
  // Records whose source and line are those given.
  std::vector<nLog::cRecord> fAt(std::string_view source, long line) const {
    return fWhere([](nLog::cRecord const& r, std::string_view s, long l) { return r.source == s && r.line == l; },
                  source, line);
  }
  // Records whose text contains the given piece.
  std::vector<nLog::cRecord> fWithText(std::string_view piece) const {
    return fWhere([](nLog::cRecord const& r, std::string_view p, long) { return r.text.find(p) != std::string::npos; },
                  piece, 0);
  }
  void fClear() { mTarget.fClear(); }

 private:
  std::vector<nLog::cRecord> fWhere(bool (*keep)(nLog::cRecord const&, std::string_view, long), std::string_view text,
                                    long line) const;
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
