// The log facility's statements, records, targets and selections, and the
// error texts of a moved install.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <locale>
#include <stdexcept>
#include <string>
#include <vector>

#include "FrimException.h"
#include "Log.dec.h"
#include "LogCapture.h"
#include "rwxmsg.h"

namespace {

using corvanth::test::cCoreReports;
using corvanth::test::cLogCapture;
using tTexts = std::vector<std::string>;
constexpr auto kBound = std::chrono::seconds(20);

nLog::cTagSimple gTestTag(char const* name, long limit = 2) {
  return nLog::cTagSimple(name, limit, 0, false, nLog::gDebugInfoConfiguration(false, false),
                          nLog::nBasic::sTraceTargetGroup_);
}

tTexts gTextsOf(std::vector<nLog::cRecord> const& records) {
  tTexts texts;
  for (auto const& r : records) texts.push_back(r.text);
  return texts;
}

int gInserted = 0;
struct cCounted {};
std::ostream& operator<<(std::ostream& os, cCounted) { return os << ++gInserted; }

struct cRaising {};
std::ostream& operator<<(std::ostream&, cRaising) { throw std::runtime_error("inserter broke"); }
struct cRaisingOther {};
std::ostream& operator<<(std::ostream&, cRaisingOther) { throw 42; }
std::locale gChangeLocale() {
  return std::locale::global(std::locale(std::locale::classic(), new std::numpunct<char>));
}
struct cLocaleChanger {};
std::ostream& operator<<(std::ostream& os, cLocaleChanger) { return gChangeLocale(), os; }

TEST(LogStatement, RecordCarriesItsFieldsAndAForkedChildWritesItsOwnIds) {
  cLogCapture capture("Warning");
  CORVANTH_LOG_AT(nLog::nBasic::sWarningTag_, "streamsocket", 321, "peer " << 17 << " closed\n");
  // The text's newline is escaped: a record stays one line.
  std::string const line = nLog::gFormatRecord(capture.fRecords().at(0));
  std::string const tail = "\t" + std::to_string(::getpid()) + "\t" + std::to_string(::syscall(SYS_gettid)) +
                           "\tWarning\tCorvanthUtil\tstreamsocket:321\tpeer 17 closed\\n\n";
  EXPECT_EQ(line.substr(line.size() - tail.size()), tail);

  // The parent has logged; its child's records carry the child's own ids, and
  // its one thread has the process's id.
  pid_t const child = ::fork();
  if (child == 0) {
    CORVANTH_LOG(nLog::nBasic::sWarningTag_, "test", "child");
    nLog::cRecord const last = capture.fRecords().back();
    _exit(last.pid == ::getpid() && last.thread == ::getpid() ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

nLog::iTagControlled const* gNestTag = nullptr;
struct cNested {};
std::ostream& operator<<(std::ostream& os, cNested) {
  CORVANTH_LOG(gNestTag, "test", "inner");
  return os << "outer";
}

TEST(LogStatement, NullProxyAndSilentTagComposeNothingAndNestingStopsAtTheLimit) {
  auto flat = gTestTag("FlatTestTag", 0);
  auto deep = gTestTag("DeepTestTag", 1);
  gInserted = 0;
  nLog::iTagControlled const* nullProxy = nullptr;
  CORVANTH_LOG(nullProxy, "test", cCounted());
  CORVANTH_LOG(&flat, "test", cCounted());
  EXPECT_EQ(gInserted, 0);
  cLogCapture capture("FlatTestTag,DeepTestTag");
  for (auto* tag : {&flat, &deep}) {
    gNestTag = tag;
    CORVANTH_LOG(gNestTag, "test", cNested());
  }
  // The inner one commits first.
  EXPECT_EQ(gTextsOf(capture.fRecords()), (tTexts{"outer", "inner", "outer"}));
}

class cOwnText : public nException::iMessage {
  cStringCoeImpl v_iMessage_nException() const override { return "the subclass's own text"; }
};

TEST(LogStatement, MisbehavingPartsAreMarkedOrReportedOrRaisedAndEveryOtherPartStands) {
  cLogCapture capture("Error");
  cCoreReports reports;
  auto const tag = nLog::nBasic::sErrorTag_;
  CORVANTH_LOG(tag, "test", "before " << cRaising() << " never");
  CORVANTH_LOG(tag, "test", "x" << cRaisingOther());
  CORVANTH_LOG_FORMAT(tag, "test", "name", 1, "two");
  CORVANTH_LOG_FORMAT(tag, "test", "alone");
  CORVANTH_LOG_FORMAT(tag, "test", "name", cRaising(), "two", cRaisingOther());
  EXPECT_EQ(gTextsOf(capture.fRecords()),
            (tTexts{"before <expression parse throws>(inserter broke)", "x<expression parse throws>(...)",
                    "name\t1\ttwo\t", "alone",
                    "name\t<expression parse throws>\ttwo\t<expression parse throws>\t(inserter broke)"}));
  EXPECT_TRUE(reports.fHas("Log expression parse throws"));
  EXPECT_TRUE(reports.fHas("Log expression parse threw"));

  // The program's own change of the global locale is not a statement's doing.
  std::locale const original = gChangeLocale();
  CORVANTH_LOG(tag, "test", "after");
  EXPECT_FALSE(reports.fHas("Log changed the global locale"));
  CORVANTH_LOG(tag, "test", cLocaleChanger());
  std::locale::global(original);
  EXPECT_TRUE(reports.fHas("Log changed the global locale"));

  // A cited assertion raises when its tag asks, after its record is written.
  const_cast<nLog::iTagControlled*>(tag)->fSetAssertionsThrow(true);
  CORVANTH_ASSERT_AT(tag != nullptr, "PACKMSG", 55);  // holds: no raise
  try {
    CORVANTH_ASSERT_AT(tag == nullptr, "PACKMSG", 74);
    ADD_FAILURE() << "assertion did not raise";
  } catch (n_debug::cBrokenModuleException const& e) {
    EXPECT_EQ(e.fGetDebugInfo().fString() + " " + e.what(), "PACKMSG:74 assertion failed");
  }
  const_cast<nLog::iTagControlled*>(tag)->fSetAssertionsThrow(false);
  EXPECT_EQ(capture.fAt("PACKMSG", 74).size(), 1u);
  EXPECT_STREQ(cOwnText().what(), "the subclass's own text");  // the virtual's text
}

struct cThrowingTarget : nLog::iTargetUnit {
  int what = 0;
  void vCommitRecord(nLog::cRecord const&) override {
    if (what == 0) throw std::runtime_error("target broke");
    if (what == 1) throw RWxmsg("target broke");
    throw 7;
  }
};

// A target whose commit waits for a lock of its own, here a promise that the
// test keeps while it logs; bounded, so that a deadlock fails instead of hanging.
struct cLockingTarget : nLog::iTargetUnit {
  std::promise<void> entered, unlocked;
  bool gaveUp = false;
  void vCommitRecord(nLog::cRecord const&) override {
    entered.set_value();
    gaveUp = unlocked.get_future().wait_for(std::chrono::seconds(15)) != std::future_status::ready;
  }
};

// A user's target. Once given a follower, it hands over from inside its
// commit: it detaches itself and attaches the follower.
struct cUserTarget : nLog::cTargetUnitControlledEvent {
  tTexts texts;
  nLog::cCaptureTarget* follower = nullptr;
  void vCommit(cStringCoeImpl const& tag, cStringCoeImpl const&, char const*, char const* source,
               long, long, char const* text) override {
    texts.push_back(tag.fString() + " " + source + " " + text);
    if (follower == nullptr) return;
    nLog::gDetachTarget(*this);
    EXPECT_TRUE(nLog::gAttachTarget(*follower, tag.fString()));
  }
};

TEST(LogFacility, CommitsMayLockRaiseAndAttachOrDetachAndDestroyedTargetsLeave) {
  // A thread that holds a target's lock can log while that target waits for it.
  auto slowTag = gTestTag("SlowTestTag");
  cLockingTarget locking;
  ASSERT_TRUE(nLog::gAttachTarget(locking, "SlowTestTag"));
  cLogCapture capture("Warning");
  auto slow = std::async(std::launch::async, [&] { CORVANTH_LOG(&slowTag, "test", "waits"); });
  ASSERT_EQ(locking.entered.get_future().wait_for(kBound), std::future_status::ready);
  CORVANTH_LOG(nLog::nBasic::sWarningTag_, "test", "logged by the lock's holder");
  locking.unlocked.set_value();
  ASSERT_EQ(slow.wait_for(kBound), std::future_status::ready);
  EXPECT_FALSE(locking.gaveUp);
  EXPECT_EQ(capture.fRecords().size(), 1u);

  auto tag = gTestTag("HandOverTestTag");
  cThrowingTarget thrower;
  ASSERT_TRUE(nLog::gAttachTarget(thrower, "HandOverTestTag"));
  cCoreReports reports;
  for (char const* kind : {"std::exception", "RWxmsg", "..."}) {
    try {
      CORVANTH_LOG(&tag, "test", "text");
      ADD_FAILURE() << "commit did not raise";
    } catch (std::exception const& error) {
      EXPECT_TRUE(typeid(error) == typeid(std::exception)) << typeid(error).name();
    }
    ++thrower.what;
    EXPECT_TRUE(reports.fHas(
        std::string("Log failed. fCommit operation of a logger is not allowed to throw ") + kind));
  }
  nLog::gDetachTarget(thrower);

  // A hand-over from inside a commit; had the raises left nesting levels
  // behind, these statements would not be written.
  nLog::cCaptureTarget follower;
  EXPECT_FALSE(nLog::gAttachTarget(follower, "errors,nosuchtag"));  // one unknown name refuses all
  cUserTarget handOver;
  handOver.follower = &follower;
  ASSERT_TRUE(nLog::gAttachTarget(handOver, "HandOverTestTag"));
  cLogCapture stays("HandOverTestTag");  // committed after the hand-over
  CORVANTH_LOG_AT(&tag, "user", 5, "one");
  CORVANTH_LOG(&tag, "test", "two");
  EXPECT_EQ(handOver.texts, tTexts{"HandOverTestTag user one"});
  EXPECT_EQ(gTextsOf(stays.fRecords()), (tTexts{"one", "two"}));
  EXPECT_EQ(gTextsOf(follower.fRecords()), tTexts{"two"});

  auto quiet = gTestTag("DestroyTestTag");
  std::vector<nLog::iTargetUnit*> targets{new nLog::cFileTarget("/dev/null"),
                                          new nLog::cDescriptorTarget(-1), new cUserTarget};
  for (auto* target : targets) ASSERT_TRUE(nLog::gAttachTarget(*target, "DestroyTestTag"));
  for (auto* target : targets) delete target;
  EXPECT_EQ(quiet.fRecursionLimit(), -1);  // nothing listens any more
  CORVANTH_LOG(&quiet, "test", "after");
}

// Runs the probe `runs` times with the given environment and gives the tag
// column of each of its own lines (not the library's) in its log file.
tTexts gProbeTags(std::string const& environment, int runs = 1) {
  std::string const path = ::testing::TempDir() + "corvanth_probe_log.txt";
  std::string const command = environment + " CORVANTH_LOG_FILE=" + path + " " LOG_ENV_PROBE;
  std::filesystem::remove(path);
  for (int i = 0; i < runs; ++i) EXPECT_EQ(std::system(command.c_str()), 0);
  tTexts tags;
  std::ifstream in(path);
  for (std::string time, pid, tid, tag, module, source, rest;
       in >> time >> pid >> tid >> tag >> module >> source && std::getline(in, rest);)
    if (source.rfind("probe:", 0) == 0) tags.push_back(tag);
  std::filesystem::remove(path);
  return tags;
}

TEST(LogFacility, EnvironmentChoosesTheDefaultTargetsTags) {
  EXPECT_EQ(gProbeTags("env -u CORVANTH_LOG"),
            (tTexts{"Error", "ErrorPerformance", "Warning", "WarningPerformance"}));
  EXPECT_EQ(gProbeTags("CORVANTH_LOG=none"), tTexts{});
  EXPECT_EQ(gProbeTags("CORVANTH_LOG='warning, TRACES'"),
            (tTexts{"Warning", "Trace", "TraceDebugInfo", "CorvanthT"}));
  EXPECT_EQ(gProbeTags("CORVANTH_LOG=all", 2).size(), 18u);  // a second process appends to the file
  // An unknown name falls back to the default, with a core report on stderr.
  EXPECT_EQ(gProbeTags("CORVANTH_LOG=nonsense").size(), 4u);
}

TEST(ErrorTexts, AMovedInstallFindsItsOwnDataDirectory) {
  namespace fs = std::filesystem;
  fs::path const prefix =
      fs::path(::testing::TempDir()) / ("corvanth-moved-" + std::to_string(::getpid()));
  fs::path const lib = prefix / CORVANTH_INSTALL_LIBDIR,
                 data = prefix / CORVANTH_INSTALL_DATADIR / "CorvanthUtil";
  for (fs::path const& folder : {lib, data}) fs::create_directories(folder);
  fs::copy_file(CORVANTH_LIBRARY_FILE, lib / CORVANTH_LIBRARY_SONAME);
  std::ofstream(data / "moved.frm") << "1\tfound beside the library: %s\n";
  std::string const command = "env -u KESTRUN_HOME LD_LIBRARY_PATH='" + lib.string() +
                              "' " FRM_PROBE " moved.frm 1 x > " + (prefix / "out").string();
  EXPECT_EQ(std::system(command.c_str()), 0);
  std::string output;
  std::getline(std::ifstream(prefix / "out"), output);
  fs::remove_all(prefix);
  EXPECT_EQ(output, "found beside the library: x");
}

}  // namespace
