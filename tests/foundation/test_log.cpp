#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FrimException.h"
#include "LogCapture.h"
#include "Log.dec.h"
#include "rwxmsg.h"

namespace {

using corvanth::test::cCoreReports;
using corvanth::test::cLogCapture;

int gInserted = 0;
struct cCounted {};
std::ostream& operator<<(std::ostream& os, cCounted) {
  ++gInserted;
  return os << "counted";
}

struct cRaising {};
std::ostream& operator<<(std::ostream&, cRaising) { throw std::runtime_error("inserter broke"); }

struct cRaisingOther {};
std::ostream& operator<<(std::ostream&, cRaisingOther) { throw 42; }

class cThrowingTarget : public nLog::iTargetUnit {
 public:
  enum tWhat { eStd, eRw, eOther } what = eStd;

 private:
  void vCommitRecord(nLog::cRecord const&) override {
    if (what == eStd) throw std::runtime_error("target broke");
    if (what == eRw) throw RWxmsg("target broke");
    throw 7;
  }
};

TEST(LogStatement, RecordCarriesTagModuleSourceLineThreadAndText) {
  cLogCapture capture("Warning");
  CORVANTH_LOG_AT(nLog::nBasic::sWarningTag_, "streamsocket", 321, "peer " << 17 << " closed");
  auto records = capture.fRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].tag, "Warning");
  EXPECT_EQ(records[0].group, "warnings");
  EXPECT_EQ(records[0].module, "CorvanthUtil");
  EXPECT_EQ(records[0].source, "streamsocket");
  EXPECT_EQ(records[0].line, 321);
  EXPECT_EQ(records[0].thread, static_cast<long>(::syscall(SYS_gettid)));
  EXPECT_EQ(records[0].text, "peer 17 closed");
  EXPECT_EQ(records[0].pid, ::getpid());

  // One line per record, fields in the documented order.
  std::string line = nLog::gFormatRecord(records[0]);
  std::string tail = "\t" + std::to_string(::getpid()) + "\t" + std::to_string(records[0].thread) +
                     "\tWarning\tCorvanthUtil\tstreamsocket:321\tpeer 17 closed\n";
  ASSERT_GT(line.size(), tail.size());
  EXPECT_EQ(line.substr(line.size() - tail.size()), tail);
  EXPECT_EQ(line[4], '-');
  EXPECT_EQ(line.find("Z\t"), 26u);  // 2026-11-21T05:00:19.123456Z

  nLog::cRecord multi = records[0];
  multi.text = "a\nb";
  EXPECT_NE(nLog::gFormatRecord(multi).find("\ta\\nb\n"), std::string::npos);
}

TEST(LogStatement, CitedAssertionKeepsItsSourceAndLineAndCarriesOn) {
  cLogCapture capture;
  int after = 0;
  int count = 11;
  CORVANTH_ASSERT_AT(count <= 10, "PACKMSG", 54);
  ++after;
  CORVANTH_ASSERT_AT(count > 10, "PACKMSG", 55);  // holds: nothing written
  EXPECT_EQ(after, 1);
  auto at = capture.fAt("PACKMSG", 54);
  ASSERT_EQ(at.size(), 1u);
  EXPECT_EQ(at[0].tag, "Error");
  EXPECT_EQ(at[0].text, "");
  EXPECT_TRUE(capture.fAt("PACKMSG", 55).empty());
}

TEST(LogStatement, NullProxyAndSilentTagComposeNothing) {
  nLog::iTagControlled const* nullProxy = nullptr;
  nLog::cTagSimple quiet("QuietTestTag", 2, 0, false, nLog::gDebugInfoConfiguration(false, false),
                         nLog::nBasic::sTraceTargetGroup_);
  gInserted = 0;
  CORVANTH_LOG(nullProxy, "test", cCounted());
  CORVANTH_LOG(&quiet, "test", cCounted());
  EXPECT_EQ(gInserted, 0);
  EXPECT_EQ(quiet.fRecursionLimit(), -1);

  // The same statement composes once a target listens.
  cLogCapture capture("QuietTestTag");
  CORVANTH_LOG(&quiet, "test", cCounted());
  EXPECT_EQ(gInserted, 1);
  EXPECT_EQ(capture.fRecords().size(), 1u);
}

nLog::iTagControlled const* gNestTag = nullptr;
struct cNested {};
std::ostream& operator<<(std::ostream& os, cNested) {
  CORVANTH_LOG(gNestTag, "test", "inner");
  return os << "outer";
}

TEST(LogStatement, NestingStopsAtTheTagsRecursionLimit) {
  nLog::cTagSimple flat("FlatTestTag", 0, 0, false, nLog::gDebugInfoConfiguration(false, false),
                        nLog::nBasic::sTraceTargetGroup_);
  nLog::cTagSimple deep("DeepTestTag", 1, 0, false, nLog::gDebugInfoConfiguration(false, false),
                        nLog::nBasic::sTraceTargetGroup_);
  cLogCapture capture("FlatTestTag,DeepTestTag");

  gNestTag = &flat;
  CORVANTH_LOG(gNestTag, "test", cNested());
  auto records = capture.fRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].text, "outer");

  capture.fClear();
  gNestTag = &deep;
  CORVANTH_LOG(gNestTag, "test", cNested());
  records = capture.fRecords();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].text, "inner");  // the inner statement commits first
  EXPECT_EQ(records[1].text, "outer");
  EXPECT_EQ(nLog::nImplementation_sho::gRecursionLevel(), 0);
}

TEST(LogStatement, RaisingInserterIsMarkedAndTheStatementCompletes) {
  cLogCapture capture("Error");
  cCoreReports reports;
  CORVANTH_LOG(nLog::nBasic::sErrorTag_, "test", "before " << cRaising() << " never");
  CORVANTH_LOG(nLog::nBasic::sErrorTag_, "test", "x" << cRaisingOther());
  auto records = capture.fRecords();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].text, "before <expression parse throws>(inserter broke)");
  EXPECT_EQ(records[1].text, "x<expression parse throws>(...)");
  EXPECT_TRUE(reports.fHas("Log expression parse throws"));
  EXPECT_TRUE(reports.fHas("Log expression parse threw"));
}

TEST(LogStatement, RaisingCommitReachesTheCallerAsPlainException) {
  nLog::cTagSimple tag("CommitTestTag", 2, 0, false, nLog::gDebugInfoConfiguration(false, false),
                       nLog::nBasic::sTraceTargetGroup_);
  cThrowingTarget target;
  ASSERT_TRUE(nLog::gAttachTarget(target, "CommitTestTag"));
  cCoreReports reports;
  for (auto what : {cThrowingTarget::eStd, cThrowingTarget::eRw, cThrowingTarget::eOther}) {
    target.what = what;
    try {
      CORVANTH_LOG(&tag, "test", "text");
      ADD_FAILURE() << "commit did not raise";
    } catch (std::exception const& error) {
      EXPECT_TRUE(typeid(error) == typeid(std::exception)) << typeid(error).name();
    }
  }
  nLog::gDetachTarget(target);
  EXPECT_TRUE(reports.fHas("Log failed. fCommit operation of a logger is not allowed to throw std::exception"));
  EXPECT_TRUE(reports.fHas("Log failed. fCommit operation of a logger is not allowed to throw RWxmsg"));
  EXPECT_TRUE(reports.fHas("Log failed. fCommit operation of a logger is not allowed to throw ..."));
  EXPECT_EQ(nLog::nImplementation_sho::gRecursionLevel(), 0);
}

TEST(LogStatement, FormattedStyleJoinsFieldsWithTabs) {
  cLogCapture capture("Trace");
  CORVANTH_LOG_FORMAT(nLog::nBasic::sTraceTag_, "test", "name", 1, "two");
  CORVANTH_LOG_FORMAT(nLog::nBasic::sTraceTag_, "test", "alone");
  nLog::nDeprecated1::zFormatStringType_patch::gSetHasRegular(false);
  CORVANTH_LOG_FORMAT(nLog::nBasic::sTraceTag_, "test", "name", 1, "two");
  nLog::nDeprecated1::zFormatStringType_patch::gSetHasRegular(true);
  auto records = capture.fRecords();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].text, "name\t1\ttwo\t");
  EXPECT_EQ(records[1].text, "alone");
  EXPECT_EQ(records[2].text, "name");
}

TEST(LogStatement, AssertionRaisesOnlyWhenItsTagAsksForIt) {
  cLogCapture capture("Error");
  nLog::iTagControlled* error = const_cast<nLog::iTagControlled*>(nLog::nBasic::sErrorTag_);
  ASSERT_NE(error, nullptr);
  error->fSetAssertionsThrow(true);
  try {
    CORVANTH_ASSERT_AT(1 == 2, "PACKMSG", 74);
    ADD_FAILURE() << "assertion did not raise";
  } catch (n_debug::cBrokenModuleException const& e) {
    EXPECT_EQ(e.fGetDebugInfo().fString(), "PACKMSG:74");
  }
  error->fSetAssertionsThrow(false);
  CORVANTH_ASSERT_AT(1 == 2, "PACKMSG", 74);
  EXPECT_EQ(capture.fAt("PACKMSG", 74).size(), 2u);
}

TEST(LogFacility, SelectionsAndTheLibrarysTraceTag) {
  nLog::cCaptureTarget target;
  EXPECT_FALSE(nLog::gAttachTarget(target, "errors,nosuchtag"));
  ASSERT_TRUE(nLog::gAttachTarget(target, " TRACES "));
  CORVANTH_LOG(nCorvanth::sTraceTag_, "streamsocket", "built once");
  CORVANTH_LOG(nLog::nBasic::sErrorTag_, "test", "not a trace");
  nLog::gDetachTarget(target);
  CORVANTH_LOG(nCorvanth::sTraceTag_, "streamsocket", "after detach");
  auto records = target.fRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].tag, "CorvanthT");
  EXPECT_EQ(records[0].group, "traces");
  EXPECT_EQ(nCorvanth::sTraceTag_.fGet(), nCorvanth::sTraceTag_.fGet());
  EXPECT_EQ(nCorvanth::sTraceTag_.fGet()->fConfiguredRecursionLimit(), 0);
}

// Runs the probe with the given environment and gives the tag column of
// each line it wrote to its log file.
std::vector<std::string> gProbeTags(std::string const& selection, int runs = 1) {
  std::string path = ::testing::TempDir() + "corvanth_probe_log.txt";
  std::remove(path.c_str());
  std::string command = "CORVANTH_LOG='" + selection + "' CORVANTH_LOG_FILE='" + path + "' " LOG_ENV_PROBE;
  if (selection == "<unset>") command = "env -u CORVANTH_LOG CORVANTH_LOG_FILE='" + path + "' " LOG_ENV_PROBE;
  for (int i = 0; i < runs; ++i) EXPECT_EQ(std::system(command.c_str()), 0) << command;
  std::vector<std::string> tags;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    std::size_t a = 0;
    for (int i = 0; i < 3; ++i) a = line.find('\t', a) + 1;
    tags.push_back(line.substr(a, line.find('\t', a) - a));
  }
  std::remove(path.c_str());
  return tags;
}

TEST(LogFacility, EnvironmentChoosesTheDefaultTargetsTags) {
  using tTags = std::vector<std::string>;
  EXPECT_EQ(gProbeTags("<unset>"), (tTags{"Error", "ErrorPerformance", "Warning", "WarningPerformance"}));
  EXPECT_EQ(gProbeTags("none"), tTags{});
  EXPECT_EQ(gProbeTags("warnings, TRACE,corvantht"), (tTags{"Warning", "WarningPerformance", "Trace", "CorvanthT"}));
  EXPECT_EQ(gProbeTags("all").size(), 9u);
  EXPECT_EQ(gProbeTags("all", 2).size(), 18u);  // a second process appends to the file
  // An unknown name falls back to the default, with a core report on stderr.
  EXPECT_EQ(gProbeTags("nonsense").size(), 4u);
}

}  // namespace
