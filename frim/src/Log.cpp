// Out-of-line parts of the log statement, the basic tag proxies and the
// library's own trace tag.
#include <exception>

#include "Log.dec.h"
#include "Static.h"
#include "rwxmsg.h"

namespace nLog {

namespace {
thread_local cStreamCollector* gCurrentLogger = nullptr;
}

cStreamCollector::cStreamCollector(iTagControlled const* tag, char const* module, char const* source,
                                   long line, tStatementKind kind)
    : mThread(GetCurrentThreadId()),
      mModule(module),
      mCollector(tag, module, source, line, mThread, std::nullopt, kind),
      mUncaughtAtStart(std::uncaught_exceptions()),
      mPrevious(gCurrentLogger) {
  gCurrentLogger = this;
}

cStreamCollector::~cStreamCollector() {
  if (!mCommitted && fIsExceptionElliminate()) {
    n_debug::nCoreError::gPosition(true, "Log expression throws.", false, false, mModule,
                                   mCollector.fSource(), static_cast<int>(mCollector.fLine()));
  }
  gCurrentLogger = mPrevious;
}

bool cStreamCollector::fIsExceptionElliminate() const noexcept {
  return std::uncaught_exceptions() > mUncaughtAtStart;
}

cStreamCollector* cStreamCollector::hgCurrent() noexcept {
  if (gCurrentLogger == nullptr) {
    n_debug::nCoreError::gPosition(true, "Log failed", false, false, CORVANTH_LOG_MODULE, "Log.dec", __LINE__);
  }
  return gCurrentLogger;
}

void cStreamCollector::fCommit() {
  char const* const kOwnSource = "Log.dec";
  int const line = static_cast<int>(mCollector.fLine());
  if (mCommitted) {
    n_debug::nCoreError::gPosition(true, "Log failed. Already commited", false, false, mModule, kOwnSource, line);
  }
  mCommitted = true;
  // A target must not raise; if one does, the caller sees a plain
  // std::exception and nothing of the target's own type.
  try {
    vCompleteText();
    mCollector.fCommit();
  } catch (RWxmsg const&) {
    n_debug::nCoreError::gPosition(true, "Log failed. fCommit operation of a logger is not allowed to throw RWxmsg",
                                   false, false, mModule, kOwnSource, line);
    throw std::exception();
  } catch (std::exception const&) {
    n_debug::nCoreError::gPosition(
        true, "Log failed. fCommit operation of a logger is not allowed to throw std::exception", false, false,
        mModule, kOwnSource, line);
    throw std::exception();
  } catch (...) {
    n_debug::nCoreError::gPosition(true, "Log failed. fCommit operation of a logger is not allowed to throw ...",
                                   false, false, mModule, kOwnSource, line);
    throw std::exception();
  }
  nImplementation_sho::gAssertLocaleChanges_debug(mLocale);
  mCollector.fThrow();
}

namespace nBasic {

iTagControlled const* sErrorTag_ = nullptr;
iTagControlled const* sErrorPerformanceTag_ = nullptr;
iTagControlled const* sWarningTag_ = nullptr;
iTagControlled const* sWarningPerformanceTag_ = nullptr;
iTagControlled const* sIncompleteTag_ = nullptr;
iTagControlled const* sExecutionTag_ = nullptr;
iTagControlled const* sTraceTag_ = nullptr;
iTagControlled const* sTraceDebugInfoTag_ = nullptr;

namespace nImplementation_sho {

namespace {
iTagControlled const** const gProxies[eBasicTagCount] = {
    &sErrorTag_,    &sErrorPerformanceTag_, &sWarningTag_, &sWarningPerformanceTag_,
    &sIncompleteTag_, &sExecutionTag_,      &sTraceTag_,   &sTraceDebugInfoTag_};
constinit int gUseCounters[eBasicTagCount] = {};
}  // namespace

// Static start and end run one unit at a time under the loader, so the
// counters need no lock.
void gProxyUse(bool start) noexcept {
  for (int i = 0; i < eBasicTagCount; ++i) {
    nStaticTag::cRoot& root = guBasicRoot(static_cast<tBasicTag>(i));
    if (start) {
      if (++gUseCounters[i] == 1) root.fAddProxy(gProxies[i]);
    } else {
      if (--gUseCounters[i] == 0) root.fRemoveProxy(gProxies[i]);
    }
  }
}

}  // namespace nImplementation_sho
}  // namespace nBasic
}  // namespace nLog

namespace nCorvanth {

namespace nImplementation_sho {

constinit std::atomic<nLog::iTagControlled const*> gTraceTagBuilt_{nullptr};

namespace {
// The tag takes itself off the fast path before it ends.
class cCorvanthTraceTag : public nLog::cTagSimple {
 public:
  cCorvanthTraceTag()
      : cTagSimple("CorvanthT", 0, 4, false, nLog::gDebugInfoConfiguration(false, false),
                   nLog::nBasic::sTraceTargetGroup_) {}
  ~cCorvanthTraceTag() override { gTraceTagBuilt_.store(nullptr, std::memory_order_release); }
};
constinit nStatic_sho::ecOnceStatic<cCorvanthTraceTag> gTraceTag;
}  // namespace

nLog::iTagControlled const* gTraceTagFirstUse_() noexcept {
  return gTraceTag.fUse([](void* where) {
    auto* tag = new (where) cCorvanthTraceTag();
    gTraceTagBuilt_.store(tag, std::memory_order_release);
    return tag;
  });
}

}  // namespace nImplementation_sho
}  // namespace nCorvanth
