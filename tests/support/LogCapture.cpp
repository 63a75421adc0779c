#include "LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

#include "FrimCoreError.h"

namespace corvanth::test {

cLogCapture::cLogCapture(std::string_view selection) {
  EXPECT_TRUE(nLog::gAttachTarget(mTarget, selection)) << selection;
}

std::vector<nLog::cRecord> cLogCapture::fWhere(bool (*keep)(nLog::cRecord const&, std::string_view, long),
                                               std::string_view text, long line) const {
  std::vector<nLog::cRecord> out = fRecords();
  std::erase_if(out, [&](nLog::cRecord const& r) { return !keep(r, text, line); });
  return out;
}

namespace {
std::mutex gReportsMutex;
std::vector<std::string> gReports;
void gObserve(char const* text, char const*, int) {
  std::lock_guard lock(gReportsMutex);
  gReports.emplace_back(text);
}
}  // namespace

cCoreReports::cCoreReports() {
  std::lock_guard lock(gReportsMutex);
  gReports.clear();
  n_debug::nCoreError::gSetPositionObserver(&gObserve);
}
cCoreReports::~cCoreReports() { n_debug::nCoreError::gSetPositionObserver(nullptr); }
std::vector<std::string> cCoreReports::fTexts() const {
  std::lock_guard lock(gReportsMutex);
  return gReports;
}
bool cCoreReports::fHas(std::string_view text) const {
  auto texts = fTexts();
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

}  // namespace corvanth::test
