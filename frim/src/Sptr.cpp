#include "Sptr.h"

#include <atomic>

#include "FrimCoreError.h"

namespace nSptr_sho {

namespace {
void gDefaultThrower(cStringCoeImpl const& reason, cStringCoeImpl const& position) {
  nFunctional_sho::egThrow_<n_debug::cIllegalUsageException>()(reason, position);
}
std::atomic<tThrower> gThrower{&gDefaultThrower};
}  // namespace

cBadException::~cBadException() = default;
char const* cBadException::what() const noexcept { return "bad exception"; }

void gSetThrower_test(tThrower thrower) noexcept {
  gThrower.store(thrower != nullptr ? thrower : &gDefaultThrower, std::memory_order_release);
}

void gFault(char const* reason) {
  gThrower.load(std::memory_order_acquire)(reason, "Sptr");
  n_debug::nCoreError::gPosition(true, "always-throws expression did not throw", false, false, "CorvanthUtil",
                                 "Sptr", __LINE__);
  throw cBadException();
}

}  // namespace nSptr_sho
