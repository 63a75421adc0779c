#include "LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

#include "FrimCoreError.h"

namespace corvanth::test {

cLogCapture::cLogCapture(std::string_view selection) {
  EXPECT_TRUE(nLog::gAttachTarget(mTarget, selection)) << selection;
}
cLogCapture::~cLogCapture() { nLog::gDetachTarget(mTarget); }

std::vector<nLog::cRecord> cLogCapture::fAt(std::string_view source, long line) const {
  std::vector<nLog::cRecord> out;
  for (auto& r : fRecords()) {
    if (r.source == source && r.line == line) out.push_back(r);
  }
  return out;
}

std::vector<nLog::cRecord> cLogCapture::fWithText(std::string_view piece) const {
  std::vector<nLog::cRecord> out;
  for (auto& r : fRecords()) {
    if (r.text.find(piece) != std::string::npos) out.push_back(r);
  }
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
  {
    std::lock_guard lock(gReportsMutex);
    gReports.clear();
  }
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
