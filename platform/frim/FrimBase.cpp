// Thread ids, the core error report and the foundation exceptions.
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "FrimCoreError.h"
#include "FrimException.h"
#include "FrimThread.h"
#include "internal/WriteAll.h"

namespace {
// Read once per thread; 0 until then. A child of fork() starts again from 0,
// or it would write its parent's thread id.
thread_local long tThreadId = 0;
[[maybe_unused]] int const gForgetThreadIdInChild =
    ::pthread_atfork(nullptr, nullptr, [] { tThreadId = 0; });
}  // namespace

long GetCurrentThreadId() noexcept {
  if (tThreadId == 0) tThreadId = static_cast<long>(static_cast<std::int32_t>(::gettid()));
  return tThreadId;
}

namespace n_debug::nCoreError {
namespace {
std::atomic<tPositionObserver> gObserver{nullptr};

}  // namespace

void gPosition(bool assertion, char const* text, bool, bool, char const* module, char const* source,
               int line) noexcept {
  // Built in a fixed buffer: this report must not depend on the heap.
  char buffer[1024];
  int n = std::snprintf(buffer, sizeof buffer, "core %s\t%s\t%s:%d\t%s\n",
                        assertion ? "assertion" : "error", module ? module : "",
                        source ? source : "", line, text ? text : "");
  if (n > 0) {
    std::size_t size = std::min<std::size_t>(std::size_t(n), sizeof buffer - 1);
    if (size == sizeof buffer - 1) buffer[size - 1] = '\n';
    nFrimInternal::gWriteAll(STDERR_FILENO, buffer, size);
  }
  if (tPositionObserver observer = gObserver.load(std::memory_order_acquire)) {
    observer(text ? text : "", source ? source : "", line);
  }
}

void gSetPositionObserver(tPositionObserver observer) noexcept {
  gObserver.store(observer, std::memory_order_release);
}

}  // namespace n_debug::nCoreError

namespace nException {
i::~i() = default;
char const* i::what() const noexcept { return "nException::i"; }
iMessage::~iMessage() = default;
char const* iMessage::what() const noexcept {
  try {
    mWhat = v_iMessage_nException();
  } catch (...) {
    return "nException::iMessage";
  }
  return mWhat.c_str();
}
cStringCoeImpl iMessage::v_iMessage_nException() const { return mMessage; }
}  // namespace nException

namespace n_debug {
iBrokenModuleException::~iBrokenModuleException() = default;
cStringCoeImpl iBrokenModuleException::vReason_iBrokenModuleException() const { return fMessage(); }

cBrokenModuleException::cBrokenModuleException(cStringCoeImpl reason, cStringCoeImpl position)
    : iBrokenModuleException(reason, position), mFirst(std::move(reason)), mSecond(std::move(position)) {}
cBrokenModuleException::~cBrokenModuleException() = default;
cStringCoeImpl cBrokenModuleException::vReason_iBrokenModuleException() const { return mFirst; }

iIllegalUsageException::~iIllegalUsageException() = default;

cIllegalUsageException::cIllegalUsageException(cStringCoeImpl reason, cStringCoeImpl position)
    : iIllegalUsageException(reason, position), mFirst(std::move(reason)), mSecond(std::move(position)) {}
cIllegalUsageException::~cIllegalUsageException() = default;
cStringCoeImpl cIllegalUsageException::vReason_iBrokenModuleException() const { return mFirst; }
}  // namespace n_debug
