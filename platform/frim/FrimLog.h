// The logging facility: tags, target groups, target units and the collector
// that a log statement opens and commits.
//
// A tag (cTagSimple) names a kind of statement and belongs to one target
// group. Target units are attached to tags by a selection text: "all", "none",
// or a comma list of tag names and group names, compared without regard to
// case. The process's default target is attached at start from CORVANTH_LOG
// (default "errors,warnings") and writes to CORVANTH_LOG_FILE when that is set,
// else to standard error.
//
// A tag with no target reports a recursion limit of -1, which no nesting level
// passes: a statement on it stops at its level test and composes nothing.
//
// Record layout, one line per record, fields separated by tabs:
//   <UTC time>\t<pid>\t<thread id>\t<tag>\t<module>\t<source>:<line>\t<text>
//   2026-11-21T05:00:19.123456Z	4711	4712	Error	CorvanthUtil	PACKMSG:54	
// Line breaks inside the text are written as "\n" so that a record stays one line.
//
// Thread safety: attaching, detaching and committing may run on any thread,
// also from inside a target's commit. A commit runs on a snapshot of the tag's
// targets and holds no lock of the facility, so a target may take its own
// locks and log. Detaching waits for the commits into that target that other
// threads have under way; every target detaches itself when destroyed. A
// target derived outside this header should detach in its own destructor if
// other threads may still be logging into it.
#pragma once

#include <atomic>
#include <cstdint>
#include <locale>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "CorvanthExport.h"
#include "FrimString.h"

namespace nLog {

class iTagControlled;
// One attachment of a target; defined with the registry.
struct cTargetLink_;

struct cDebugInfoConfiguration {
  bool fileInfo = false;
  bool stackInfo = false;
};
constexpr cDebugInfoConfiguration gDebugInfoConfiguration(bool fileInfo, bool stackInfo) {
  return cDebugInfoConfiguration{fileInfo, stackInfo};
}

class cTargetGroup {
 public:
  constexpr explicit cTargetGroup(char const* name) : mName(name) {}
  constexpr char const* fName() const { return mName; }

 private:
  char const* mName;
};

// What a target unit receives for one statement.
struct cRecord {
  std::string tag;
  std::string group;
  std::string module;
  std::string source;
  long line = 0;
  long thread = 0;
  int pid = 0;
  std::int64_t utcNanoseconds = 0;
  std::string text;
};

// The one-line form described at the top of this header.
CORVANTH_EXPORT std::string gFormatRecord(cRecord const& record);

class CORVANTH_EXPORT iTargetUnit {
 public:
  // Detaches, so that no tag keeps a pointer to a target that is gone.
  virtual ~iTargetUnit();
  void fCommit(cRecord const& record) { vCommitRecord(record); }

 private:
  virtual void vCommitRecord(cRecord const& record) = 0;
};

// A target that sees a statement as two events, its opening and its text.
class CORVANTH_EXPORT cTargetUnitControlledEvent : public iTargetUnit {
 public:
  ~cTargetUnitControlledEvent() override;

 protected:
  virtual void vStart(cStringCoeImpl const& tag, cStringCoeImpl const& group, char const* module,
                      char const* source, long line, long thread);
  virtual void vCommit(cStringCoeImpl const& tag, cStringCoeImpl const& group, char const* module,
                       char const* source, long line, long thread, char const* text) = 0;

 private:
  void vCommitRecord(cRecord const& record) final;
};

// Writes each record as one line with a single write(2) to a descriptor it
// does not own (standard error by default).
class CORVANTH_EXPORT cDescriptorTarget : public iTargetUnit {
 public:
  explicit cDescriptorTarget(int fd = 2) : mFd(fd) {}
  ~cDescriptorTarget() override;

 private:
  void vCommitRecord(cRecord const& record) override;
  int mFd;
};

// Appends records to a file, opened with O_APPEND so that processes sharing
// the file never overwrite each other's lines.
class CORVANTH_EXPORT cFileTarget : public iTargetUnit {
 public:
  explicit cFileTarget(std::string const& path);
  ~cFileTarget() override;
  bool fIsOpen() const { return mFd >= 0; }

 private:
  void vCommitRecord(cRecord const& record) override;
  int mFd = -1;
};

// Keeps records in memory for tests to read back.
class CORVANTH_EXPORT cCaptureTarget : public iTargetUnit {
 public:
  ~cCaptureTarget() override;
  std::vector<cRecord> fRecords() const;
  void fClear();

 private:
  void vCommitRecord(cRecord const& record) override;
  mutable std::mutex mMutex;
  std::vector<cRecord> mRecords;
};

// Attaches a target to every live and future tag that the selection names.
// False, and nothing attached, if an item names no tag or group.
CORVANTH_EXPORT bool gAttachTarget(iTargetUnit& target, std::string_view selection);
CORVANTH_EXPORT void gDetachTarget(iTargetUnit& target);
// The target that CORVANTH_LOG and CORVANTH_LOG_FILE set up at start.
CORVANTH_EXPORT iTargetUnit& gDefaultTarget();

// The kind of a statement decides what fThrow does with it.
enum class tStatementKind { eLog, eAssertion, eIllegalUsage };

class CORVANTH_EXPORT iTagControlled {
 public:
  iTagControlled(iTagControlled const&) = delete;
  iTagControlled& operator=(iTagControlled const&) = delete;

  // The nesting allowed to statements on this tag; -1 while no target listens.
  long fRecursionLimit() const noexcept { return mActiveLimit.load(std::memory_order_relaxed); }
  long fConfiguredRecursionLimit() const noexcept { return mRecursionLimit; }
  char const* fName() const noexcept { return mName; }
  cTargetGroup const& fGroup() const noexcept { return *mGroup; }

  // Assertions on a tag raise from fThrow only when this is set.
  void fSetAssertionsThrow(bool on) noexcept { mAssertionsThrow.store(on, std::memory_order_relaxed); }
  bool fAssertionsThrow() const noexcept { return mAssertionsThrow.load(std::memory_order_relaxed); }

  // Hands the record to every target attached to this tag.
  void fDeliver(cRecord const& record) const;

 protected:
  iTagControlled(char const* name, long recursionLimit, cTargetGroup const& group);
  virtual ~iTagControlled();

 private:
  friend class cTagRegistry;
  char const* mName;
  long mRecursionLimit;
  cTargetGroup const* mGroup;
  std::atomic<long> mActiveLimit{-1};
  std::atomic<bool> mAssertionsThrow{false};
  // Replaced, never changed in place, so a commit walks a stable list.
  mutable std::mutex mTargetsMutex;
  std::shared_ptr<std::vector<std::shared_ptr<cTargetLink_>> const> mTargets;
};

class CORVANTH_EXPORT cTagSimple : public iTagControlled {
 public:
  cTagSimple(char const* name, long recursionLimit, int breakpointMode, bool flag,
             cDebugInfoConfiguration debugInfo, cTargetGroup const& group);
  ~cTagSimple() override;

  int fBreakpointMode() const { return mBreakpointMode; }
  bool fFlag() const { return mFlag; }
  cDebugInfoConfiguration fDebugInfo() const { return mDebugInfo; }

 private:
  int mBreakpointMode;
  bool mFlag;
  cDebugInfoConfiguration mDebugInfo;
};

}  // namespace nLog

namespace nDebugSystem {
// Debug state of a statement; this library never fills one.
struct cState {};
}  // namespace nDebugSystem

template <class T>
using ecOptionalPlacerControlled = std::optional<T>;

namespace nLog {

// Opens a record at the statement's position; the text goes to fStream().
class CORVANTH_EXPORT cLoggerCollector {
 public:
  cLoggerCollector(iTagControlled const* tag, char const* module, char const* source, long line,
                   long const& thread, ecOptionalPlacerControlled<nDebugSystem::cState> const& state,
                   tStatementKind kind = tStatementKind::eLog);
  cLoggerCollector(cLoggerCollector const&) = delete;
  cLoggerCollector& operator=(cLoggerCollector const&) = delete;
  ~cLoggerCollector();

  std::ostream& fStream() { return mStream; }
  std::string fText() const { return mStream.str(); }
  char const* fSource() const { return mSource; }
  long fLine() const { return mLine; }

  // Writes the record to the tag's targets. Whatever a target raises passes on.
  void fCommit() const;
  // Raises for an assertion whose tag asks for it (egThrow_), else returns.
  void fThrow() const;

 private:
  iTagControlled const* mTag;
  char const* mModule;
  char const* mSource;
  long mLine;
  long mThread;
  tStatementKind mKind;
  std::ostringstream mStream;
};

namespace nImplementation_sho {

// Nesting of log statements on the calling thread.
CORVANTH_EXPORT int& gRecursionLevel() noexcept;

// True if the thread's nesting is within limit; a negative limit never passes,
// and is tested first so that a silent tag costs no thread-local access.
inline bool gRecursionLevelTest(long limit) noexcept {
  return limit >= 0 && gRecursionLevel() <= limit;
}

class cRecursionGuard {
 public:
  explicit cRecursionGuard(bool count) noexcept : mCount(count) {
    if (mCount) ++gRecursionLevel();
  }
  ~cRecursionGuard() {
    if (mCount) --gRecursionLevel();
  }
  cRecursionGuard(cRecursionGuard const&) = delete;
  cRecursionGuard& operator=(cRecursionGuard const&) = delete;

 private:
  bool mCount;
};

// Checks that a statement left the global locale as it found it (`before`).
CORVANTH_EXPORT void gAssertLocaleChanges_debug(std::locale const& before) noexcept;

}  // namespace nImplementation_sho

namespace nDeprecated1::zFormatStringType_patch {
// Whether formatted statements carry their fields; on by default.
CORVANTH_EXPORT bool gHasRegular() noexcept;
CORVANTH_EXPORT void gSetHasRegular(bool on) noexcept;
}  // namespace nDeprecated1::zFormatStringType_patch

}  // namespace nLog

// Per-module tag proxies. A root stands for one tag from before the tag is
// built until after it ends; modules give it the address of their proxy, and
// the root keeps every proxy pointing at the live tag, or null.
namespace nStaticTag {

class CORVANTH_EXPORT cRoot {
 public:
  constexpr cRoot() = default;
  cRoot(cRoot const&) = delete;
  cRoot& operator=(cRoot const&) = delete;

  void fAddProxy(nLog::iTagControlled const** proxy) noexcept;
  void fRemoveProxy(nLog::iTagControlled const** proxy) noexcept;
  // The tag's birth (non-null) and end (null).
  void fSetTag(nLog::iTagControlled const* tag) noexcept;

 private:
  static constexpr int kMaxProxies = 16;
  nLog::iTagControlled const* mTag = nullptr;
  nLog::iTagControlled const** mProxies[kMaxProxies] = {};
  int mCount = 0;
};

}  // namespace nStaticTag

namespace nLog::nBasic {

inline constexpr cTargetGroup sErrorTargetGroup_{"errors"};
inline constexpr cTargetGroup sWarningTargetGroup_{"warnings"};
inline constexpr cTargetGroup sIncompleteTargetGroup_{"incomplete"};
inline constexpr cTargetGroup sExecutionTargetGroup_{"execution"};
inline constexpr cTargetGroup sTraceTargetGroup_{"traces"};

// The roots of the eight basic tags, in the order of tBasicTag.
enum tBasicTag {
  eError,
  eErrorPerformance,
  eWarning,
  eWarningPerformance,
  eIncomplete,
  eExecution,
  eTrace,
  eTraceDebugInfo,
  eBasicTagCount
};
CORVANTH_EXPORT nStaticTag::cRoot& guBasicRoot(tBasicTag which) noexcept;

}  // namespace nLog::nBasic
