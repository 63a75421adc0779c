// The logging facility: tag registry, attachments, targets and the collector.
#include "FrimLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <locale>
#include <memory>

#include "FrimCoreError.h"
#include "FrimException.h"
#include "internal/WriteAll.h"

namespace nLog {

namespace {

std::string gLower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

std::vector<std::string> gSplitSelection(std::string_view selection) {
  std::vector<std::string> items;
  std::size_t start = 0;
  while (start <= selection.size()) {
    std::size_t comma = selection.find(',', start);
    if (comma == std::string_view::npos) comma = selection.size();
    std::string_view item = selection.substr(start, comma - start);
    while (!item.empty() && std::isspace(static_cast<unsigned char>(item.front()))) item.remove_prefix(1);
    while (!item.empty() && std::isspace(static_cast<unsigned char>(item.back()))) item.remove_suffix(1);
    if (!item.empty()) items.push_back(gLower(item));
    start = comma + 1;
  }
  return items;
}

void gWriteAll(int fd, std::string const& line) { nFrimInternal::gWriteAll(fd, line.data(), line.size()); }

// Names that a selection may use before the tag itself exists.
constexpr char const* kKnownNames[] = {
    "all",       "none",        "error",   "errorperformance", "warning",  "warningperformance",
    "incomplete", "execution",  "trace",   "tracedebuginfo",   "corvantht", "errors",
    "warnings",  "traces"};

}  // namespace

// One attachment of a target. A commit counts itself in `active` while it
// runs; a detach marks the link and then waits until the commits that other
// threads have under way are out, so a target may go once it is detached.
struct cTargetLink_ {
  explicit cTargetLink_(iTargetUnit& unit) : target(&unit) {}
  iTargetUnit* const target;
  std::atomic<int> active{0};
  std::atomic<bool> detached{false};
};

namespace {

using tLinks = std::vector<std::shared_ptr<cTargetLink_>>;

// The links whose commit runs on this thread, innermost last: a detach from
// inside a commit must not wait for the commit it stands in.
// Plain storage, so that it has no destructor to outlive; nesting deeper than
// the array is not remembered (tags' recursion limits stay far below it).
constexpr int kMaxCommitNesting = 64;
thread_local cTargetLink_* tCommitting[kMaxCommitNesting];
thread_local int tCommittingDepth = 0;

class cCommitMark {
 public:
  explicit cCommitMark(cTargetLink_& link) : mLink(link) {
    mLink.active.fetch_add(1, std::memory_order_seq_cst);
    if (tCommittingDepth < kMaxCommitNesting) tCommitting[tCommittingDepth] = &mLink;
    ++tCommittingDepth;
  }
  ~cCommitMark() {
    --tCommittingDepth;
    mLink.active.fetch_sub(1, std::memory_order_release);
    mLink.active.notify_all();
  }
  cCommitMark(cCommitMark const&) = delete;
  cCommitMark& operator=(cCommitMark const&) = delete;

 private:
  cTargetLink_& mLink;
};

void gWaitForOtherCommits(cTargetLink_& link) {
  int const depth = std::min(tCommittingDepth, kMaxCommitNesting);
  int const own = static_cast<int>(std::count(tCommitting, tCommitting + depth, &link));
  for (int seen = link.active.load(std::memory_order_acquire); seen > own;
       seen = link.active.load(std::memory_order_acquire)) {
    link.active.wait(seen, std::memory_order_acquire);
  }
}

}  // namespace

// All live tags and all attachments. The lock guards attaching and
// detaching only; commits read the tags' snapshots and never take it.
class cTagRegistry {
 public:
  static cTagRegistry& gGet() {
    // Never destroyed: statements may run during static destruction.
    static cTagRegistry* registry = new cTagRegistry();
    return *registry;
  }

  void fAdd(iTagControlled& tag) {
    std::lock_guard lock(mMutex);
    mTags.push_back(&tag);
    for (auto const& attachment : mAttachments) {
      if (gMatches(tag, attachment.items)) fLink(tag, attachment.link);
    }
  }

  void fRemove(iTagControlled& tag) {
    std::lock_guard lock(mMutex);
    mTags.erase(std::remove(mTags.begin(), mTags.end(), &tag), mTags.end());
  }

  bool fAttach(iTargetUnit& target, std::string_view selection) {
    std::vector<std::string> items = gSplitSelection(selection);
    std::lock_guard lock(mMutex);
    for (std::string const& item : items) {
      bool known = std::find(std::begin(kKnownNames), std::end(kKnownNames), item) != std::end(kKnownNames);
      for (iTagControlled* tag : mTags) known = known || gLower(tag->fName()) == item;
      if (!known) return false;
    }
    fDetachLocked(target);
    auto link = std::make_shared<cTargetLink_>(target);
    mAttachments.push_back({link, items});
    for (iTagControlled* tag : mTags) {
      if (gMatches(*tag, items)) fLink(*tag, link);
    }
    return true;
  }

  void fDetach(iTargetUnit& target) {
    std::shared_ptr<cTargetLink_> link;
    {
      std::lock_guard lock(mMutex);
      link = fDetachLocked(target);
    }
    if (link) gWaitForOtherCommits(*link);
  }

  iTargetUnit& fDefault() { return *mDefault; }

  static void fDeliver(iTagControlled const& tag, cRecord const& record) {
    std::shared_ptr<tLinks const> links;
    {
      std::lock_guard lock(tag.mTargetsMutex);
      links = tag.mTargets;
    }
    if (!links) return;
    for (auto const& link : *links) {
      cCommitMark const mark(*link);
      if (!link->detached.load(std::memory_order_seq_cst)) link->target->fCommit(record);
    }
  }

 private:
  struct cAttachment {
    std::shared_ptr<cTargetLink_> link;
    std::vector<std::string> items;
  };

  cTagRegistry() {
    char const* selection = std::getenv("CORVANTH_LOG");
    char const* file = std::getenv("CORVANTH_LOG_FILE");
    if (file != nullptr && *file != '\0') {
      auto target = std::make_unique<cFileTarget>(file);
      if (target->fIsOpen()) mDefault = std::move(target);
    }
    if (!mDefault) mDefault = std::make_unique<cDescriptorTarget>(STDERR_FILENO);
    if (!fAttach(*mDefault, selection != nullptr ? selection : "errors,warnings")) {
      n_debug::nCoreError::gPosition(false, "CORVANTH_LOG names an unknown tag or group; using errors,warnings",
                                     false, false, "CorvanthUtil", "FrimLog", __LINE__);
      fAttach(*mDefault, "errors,warnings");
    }
  }

  static bool gMatches(iTagControlled const& tag, std::vector<std::string> const& items) {
    for (std::string const& item : items) {
      if (item == "all" || item == gLower(tag.fName()) || item == gLower(tag.fGroup().fName())) return true;
    }
    return false;
  }

  // Copy on write: commits under way keep walking the list they took.
  template <class Edit>
  static void fEditTargets(iTagControlled& tag, Edit&& edit) {
    std::lock_guard lock(tag.mTargetsMutex);
    auto links = tag.mTargets ? std::make_shared<tLinks>(*tag.mTargets) : std::make_shared<tLinks>();
    edit(*links);
    tag.mActiveLimit.store(links->empty() ? -1 : tag.mRecursionLimit, std::memory_order_relaxed);
    tag.mTargets = links->empty() ? nullptr : std::move(links);
  }

  static void fLink(iTagControlled& tag, std::shared_ptr<cTargetLink_> const& link) {
    fEditTargets(tag, [&](tLinks& links) { links.push_back(link); });
  }

  std::shared_ptr<cTargetLink_> fDetachLocked(iTargetUnit& target) {
    auto found = std::find_if(mAttachments.begin(), mAttachments.end(),
                              [&](cAttachment const& a) { return a.link->target == &target; });
    if (found == mAttachments.end()) return nullptr;
    std::shared_ptr<cTargetLink_> link = std::move(found->link);
    mAttachments.erase(found);
    link->detached.store(true, std::memory_order_seq_cst);
    for (iTagControlled* tag : mTags) {
      if (!tag->mTargets) continue;
      fEditTargets(*tag, [&](tLinks& links) { links.erase(std::remove(links.begin(), links.end(), link), links.end()); });
    }
    return link;
  }

  std::mutex mMutex;
  std::vector<iTagControlled*> mTags;
  std::vector<cAttachment> mAttachments;
  std::unique_ptr<iTargetUnit> mDefault;
};

std::string gFormatRecord(cRecord const& record) {
  std::time_t seconds = static_cast<std::time_t>(record.utcNanoseconds / 1000000000);
  long micros = static_cast<long>((record.utcNanoseconds % 1000000000) / 1000);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, micros);
  std::string line;
  line.reserve(96 + record.text.size());
  line += stamp;
  line += '\t';
  line += std::to_string(record.pid);
  line += '\t';
  line += std::to_string(record.thread);
  line += '\t';
  line += record.tag;
  line += '\t';
  line += record.module;
  line += '\t';
  line += record.source;
  line += ':';
  line += std::to_string(record.line);
  line += '\t';
  for (char c : record.text) {
    if (c == '\n') {
      line += "\\n";
    } else if (c == '\r') {
      line += "\\r";
    } else {
      line += c;
    }
  }
  line += '\n';
  return line;
}

iTargetUnit::~iTargetUnit() { gDetachTarget(*this); }

cTargetUnitControlledEvent::~cTargetUnitControlledEvent() { gDetachTarget(*this); }
void cTargetUnitControlledEvent::vStart(cStringCoeImpl const&, cStringCoeImpl const&, char const*,
                                        char const*, long, long) {}
void cTargetUnitControlledEvent::vCommitRecord(cRecord const& r) {
  cStringCoeImpl tag(r.tag), group(r.group);
  vStart(tag, group, r.module.c_str(), r.source.c_str(), r.line, r.thread);
  vCommit(tag, group, r.module.c_str(), r.source.c_str(), r.line, r.thread, r.text.c_str());
}

cDescriptorTarget::~cDescriptorTarget() { gDetachTarget(*this); }
void cDescriptorTarget::vCommitRecord(cRecord const& record) { gWriteAll(mFd, gFormatRecord(record)); }

cFileTarget::cFileTarget(std::string const& path)
    : mFd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)) {}
cFileTarget::~cFileTarget() {
  gDetachTarget(*this);
  if (mFd >= 0) ::close(mFd);
}
void cFileTarget::vCommitRecord(cRecord const& record) {
  if (mFd >= 0) gWriteAll(mFd, gFormatRecord(record));
}

cCaptureTarget::~cCaptureTarget() { gDetachTarget(*this); }
std::vector<cRecord> cCaptureTarget::fRecords() const {
  std::lock_guard lock(mMutex);
  return mRecords;
}
void cCaptureTarget::fClear() {
  std::lock_guard lock(mMutex);
  mRecords.clear();
}
void cCaptureTarget::vCommitRecord(cRecord const& record) {
  std::lock_guard lock(mMutex);
  mRecords.push_back(record);
}

bool gAttachTarget(iTargetUnit& target, std::string_view selection) {
  return cTagRegistry::gGet().fAttach(target, selection);
}
void gDetachTarget(iTargetUnit& target) { cTagRegistry::gGet().fDetach(target); }
iTargetUnit& gDefaultTarget() { return cTagRegistry::gGet().fDefault(); }

iTagControlled::iTagControlled(char const* name, long recursionLimit, cTargetGroup const& group)
    : mName(name), mRecursionLimit(recursionLimit), mGroup(&group) {}
iTagControlled::~iTagControlled() = default;
void iTagControlled::fDeliver(cRecord const& record) const { cTagRegistry::fDeliver(*this, record); }

cTagSimple::cTagSimple(char const* name, long recursionLimit, int breakpointMode, bool flag,
                       cDebugInfoConfiguration debugInfo, cTargetGroup const& group)
    : iTagControlled(name, recursionLimit, group),
      mBreakpointMode(breakpointMode),
      mFlag(flag),
      mDebugInfo(debugInfo) {
  cTagRegistry::gGet().fAdd(*this);
}
cTagSimple::~cTagSimple() { cTagRegistry::gGet().fRemove(*this); }

cLoggerCollector::cLoggerCollector(iTagControlled const* tag, char const* module, char const* source,
                                   long line, long const& thread,
                                   ecOptionalPlacerControlled<nDebugSystem::cState> const&,
                                   tStatementKind kind)
    : mTag(tag), mModule(module), mSource(source), mLine(line), mThread(thread), mKind(kind) {}
cLoggerCollector::~cLoggerCollector() = default;

void cLoggerCollector::fCommit() const {
  // Not cached: a child of fork() writes its own pid.
  int const pid = static_cast<int>(::getpid());
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  cRecord record;
  record.tag = mTag->fName();
  record.group = mTag->fGroup().fName();
  record.module = mModule != nullptr ? mModule : "";
  record.source = mSource != nullptr ? mSource : "";
  record.line = static_cast<std::int32_t>(mLine);
  record.thread = mThread;
  record.pid = pid;
  record.utcNanoseconds = std::int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
  record.text = mStream.str();
  mTag->fDeliver(record);
}

void cLoggerCollector::fThrow() const {
  if (mKind == tStatementKind::eLog || !mTag->fAssertionsThrow()) return;
  std::string position = std::string(mSource != nullptr ? mSource : "") + ":" + std::to_string(mLine);
  std::string text = mStream.str();
  if (mKind == tStatementKind::eIllegalUsage) {
    nFunctional_sho::egThrow_<n_debug::cIllegalUsageException>()(text.empty() ? "illegal usage" : text, position);
  }
  nFunctional_sho::egThrow_<n_debug::cBrokenModuleException>()(text.empty() ? "assertion failed" : text, position);
}

namespace nImplementation_sho {

int& gRecursionLevel() noexcept {
  thread_local int level = 0;
  return level;
}

void gAssertLocaleChanges_debug(std::locale const& before) noexcept {
  // A statement's inserters must not leave the global locale changed: records
  // of later statements would be formatted differently. The program itself
  // may change it between statements.
  try {
    if (std::locale() != before) {
      n_debug::nCoreError::gPosition(true, "Log changed the global locale", false, false,
                                     "CorvanthUtil", "Log.dec", __LINE__);
    }
  } catch (...) {
  }
}

}  // namespace nImplementation_sho

namespace nDeprecated1::zFormatStringType_patch {
namespace {
std::atomic<bool> gRegular{true};
}
bool gHasRegular() noexcept { return gRegular.load(std::memory_order_relaxed); }
void gSetHasRegular(bool on) noexcept { gRegular.store(on, std::memory_order_relaxed); }
}  // namespace nDeprecated1::zFormatStringType_patch

}  // namespace nLog

namespace nStaticTag {

void cRoot::fAddProxy(nLog::iTagControlled const** proxy) noexcept {
  *proxy = mTag;
  if (mCount < kMaxProxies) {
    mProxies[mCount++] = proxy;
  } else {
    n_debug::nCoreError::gPosition(true, "too many modules on one tag root", false, false, "CorvanthUtil",
                                   "Tag.dec", __LINE__);
  }
}

void cRoot::fRemoveProxy(nLog::iTagControlled const** proxy) noexcept {
  *proxy = nullptr;
  for (int i = 0; i < mCount; ++i) {
    if (mProxies[i] == proxy) {
      mProxies[i] = mProxies[--mCount];
      mProxies[mCount] = nullptr;
      return;
    }
  }
}

void cRoot::fSetTag(nLog::iTagControlled const* tag) noexcept {
  mTag = tag;
  for (int i = 0; i < mCount; ++i) *mProxies[i] = tag;
}

}  // namespace nStaticTag

namespace nLog::nBasic {

namespace {
constinit nStaticTag::cRoot gRoots[eBasicTagCount];

// A basic tag announces itself to its root for its whole life.
class cBasicTag : public cTagSimple {
 public:
  cBasicTag(tBasicTag which, char const* name, cTargetGroup const& group)
      : cTagSimple(name, 2, 0, false, gDebugInfoConfiguration(false, false), group), mWhich(which) {
    gRoots[mWhich].fSetTag(this);
  }
  ~cBasicTag() override { gRoots[mWhich].fSetTag(nullptr); }

 private:
  tBasicTag mWhich;
};

cBasicTag const gErrorTag(eError, "Error", sErrorTargetGroup_);
cBasicTag const gErrorPerformanceTag(eErrorPerformance, "ErrorPerformance", sErrorTargetGroup_);
cBasicTag const gWarningTag(eWarning, "Warning", sWarningTargetGroup_);
cBasicTag const gWarningPerformanceTag(eWarningPerformance, "WarningPerformance", sWarningTargetGroup_);
cBasicTag const gIncompleteTag(eIncomplete, "Incomplete", sIncompleteTargetGroup_);
cBasicTag const gExecutionTag(eExecution, "Execution", sExecutionTargetGroup_);
cBasicTag const gTraceTag(eTrace, "Trace", sTraceTargetGroup_);
cBasicTag const gTraceDebugInfoTag(eTraceDebugInfo, "TraceDebugInfo", sTraceTargetGroup_);
}  // namespace

nStaticTag::cRoot& guBasicRoot(tBasicTag which) noexcept { return gRoots[which]; }

}  // namespace nLog::nBasic
