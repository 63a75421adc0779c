// The tags a log statement names. Each of the eight basic tags is reached
// through this module's proxy, a pointer that the facility keeps pointing at
// the live tag and null before it exists and after it ended, so a statement at
// any phase of the process only tests a pointer. Every translation unit that
// includes this header counts itself a user of the proxies for its lifetime.
//
// nCorvanth::sTraceTag_ ("CorvanthT") is this library's own trace tag, built
// once at first use; it converts to a null tag after its end.
#pragma once

#include <atomic>

#include "CorvanthExport.h"
#include "FrimLog.h"

namespace nLog::nBasic {

extern CORVANTH_EXPORT iTagControlled const* sErrorTag_;
extern CORVANTH_EXPORT iTagControlled const* sErrorPerformanceTag_;
extern CORVANTH_EXPORT iTagControlled const* sWarningTag_;
extern CORVANTH_EXPORT iTagControlled const* sWarningPerformanceTag_;
extern CORVANTH_EXPORT iTagControlled const* sIncompleteTag_;
extern CORVANTH_EXPORT iTagControlled const* sExecutionTag_;
extern CORVANTH_EXPORT iTagControlled const* sTraceTag_;
extern CORVANTH_EXPORT iTagControlled const* sTraceDebugInfoTag_;

namespace nImplementation_sho {

// Adds (start) or takes (end) one user of every proxy; the first user
// registers the proxies with their roots, the last one removes them.
CORVANTH_EXPORT void gProxyUse(bool start) noexcept;

struct cProxyUser_ {
  cProxyUser_() noexcept { gProxyUse(true); }
  ~cProxyUser_() { gProxyUse(false); }
  cProxyUser_(cProxyUser_ const&) = delete;
  cProxyUser_& operator=(cProxyUser_ const&) = delete;
};

}  // namespace nImplementation_sho
}  // namespace nLog::nBasic

namespace {
[[maybe_unused]] ::nLog::nBasic::nImplementation_sho::cProxyUser_ const sCorvanthProxyUser_;
}

namespace nCorvanth {

namespace nImplementation_sho {
// The tag once built; null before its first use and after its end. A statement
// reads it with one load, as it reads a basic tag's proxy.
extern CORVANTH_EXPORT std::atomic<nLog::iTagControlled const*> gTraceTagBuilt_;
// Builds the tag once (the first caller wins, the others wait) and gives it,
// or null after its end.
CORVANTH_EXPORT nLog::iTagControlled const* gTraceTagFirstUse_() noexcept;
}  // namespace nImplementation_sho

class cTraceTag_ {
 public:
  constexpr cTraceTag_() = default;
  // The tag, built at the first call; null once it has ended.
  nLog::iTagControlled const* fGet() const noexcept {
    nLog::iTagControlled const* tag = nImplementation_sho::gTraceTagBuilt_.load(std::memory_order_acquire);
    return tag != nullptr ? tag : nImplementation_sho::gTraceTagFirstUse_();
  }
  operator nLog::iTagControlled const*() const noexcept { return fGet(); }  // NOLINT
};

inline constexpr cTraceTag_ sTraceTag_{};

}  // namespace nCorvanth
