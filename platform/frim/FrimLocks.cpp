// The raw mutex, the reader-writer locks, the condition variable and the
// acquire steps of the once-only holder.
#include <pthread.h>
#include <sched.h>
#include <time.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "RWMutexLock.h"
#include "Synch.h"

std::atomic<RWMutexLock::tCheckHook> RWMutexLock::sCheckHook{nullptr};

RWMutexLock::~RWMutexLock() {
  if (mState.load(std::memory_order_acquire) == 2) {
    // Destroying a held mutex is undefined. The owner's holds are let go
    // first, with the one taken here; a mutex another thread holds is left as
    // it is, since a pthread mutex owns nothing outside its own bytes.
    if (pthread_mutex_trylock(&mMutex) == 0) {
      for (int holds = mHolds.load(std::memory_order_relaxed); holds >= 0; --holds) {
        pthread_mutex_unlock(&mMutex);
      }
      pthread_mutex_destroy(&mMutex);
    }
  }
  mHolds.store(0, std::memory_order_relaxed);
  mState.store(0, std::memory_order_release);
}

void RWMutexLock::fail(char const* what, int code) {
  throw RWTHRInternalError(what + std::generic_category().message(code));
}

void RWMutexLock::make() {
  for (;;) {
    int state = mState.load(std::memory_order_acquire);
    if (state == 2) return;
    if (state == 0 && mState.compare_exchange_strong(state, 1, std::memory_order_acq_rel)) {
      pthread_mutexattr_t attributes;
      pthread_mutexattr_init(&attributes);
      pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
      int rc = pthread_mutex_init(&mMutex, &attributes);
      pthread_mutexattr_destroy(&attributes);
      if (rc != 0) {
        mState.store(0, std::memory_order_release);
        fail("RWMutexLock::init - CreateMutex() - ", rc);
      }
      mState.store(2, std::memory_order_release);
      return;
    }
    sched_yield();
  }
}

int RWMutexLock::acquire(unsigned long milliseconds) {
  callCheckHook();
  ensure();
#if defined(__SANITIZE_THREAD__)
  // ThreadSanitizer does not see pthread_mutex_clocklock as an acquire; the
  // realtime form it does see differs only when the wall clock jumps.
  clockid_t const clock = CLOCK_REALTIME;
#else
  clockid_t const clock = CLOCK_MONOTONIC;
#endif
  timespec until{};
  clock_gettime(clock, &until);
  until.tv_sec += static_cast<time_t>(milliseconds / 1000);
  until.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
  if (until.tv_nsec >= 1000000000L) {
    until.tv_sec += 1;
    until.tv_nsec -= 1000000000L;
  }
#if defined(__SANITIZE_THREAD__)
  int rc = pthread_mutex_timedlock(&mMutex, &until);
#else
  int rc = pthread_mutex_clocklock(&mMutex, clock, &until);
#endif
  if (rc == 0) {
    fCountHold(1);
    return 1;
  }
  if (rc != ETIMEDOUT) fail("RWMutexLock::acquire - WaitForSingleObject() - ", rc);
  return 0;
}

namespace nParallel {

namespace nOnce {

bool cInitHolder::fInitAcquireErased(void (*call)(void*), void* context, int spinCount) {
  for (;;) {
    int expected = kNotStarted;
    if (mState.compare_exchange_strong(expected, kRunning, std::memory_order_acq_rel, std::memory_order_acquire)) {
      try {
        call(context);
      } catch (...) {
        // A failed init leaves the holder open for the next caller.
        mState.store(kNotStarted, std::memory_order_release);
        mState.notify_all();
        throw;
      }
      mState.store(0, std::memory_order_release);
      mState.notify_all();
      return true;
    }
    if (expected >= 0) return false;
    for (int i = 0; i < spinCount && mState.load(std::memory_order_acquire) == kRunning; ++i) sched_yield();
    while ((expected = mState.load(std::memory_order_acquire)) == kRunning) {
      mState.wait(kRunning, std::memory_order_acquire);
    }
    if (expected >= 0) return false;
  }
}

void cInitHolder::fWaitAcquire(std::atomic<int> const& seen, int spinCount) const {
  for (int i = 0; i < spinCount && seen.load(std::memory_order_acquire) < 0; ++i) sched_yield();
  int state;
  while ((state = seen.load(std::memory_order_acquire)) < 0) seen.wait(state, std::memory_order_acquire);
}

}  // namespace nOnce

namespace nImplementation_sho {

cReadersWriter::cReadersWriter() = default;
cReadersWriter::~cReadersWriter() = default;
void cReadersWriter::fReadAcquire() { mLock.lock_shared(); }
void cReadersWriter::fReadRelease() { mLock.unlock_shared(); }
void cReadersWriter::fWriteAcquire() { mLock.lock(); }
void cReadersWriter::fWriteRelease() { mLock.unlock(); }

cReadersFixer::cReadersFixer() = default;
cReadersFixer::~cReadersFixer() = default;
void cReadersFixer::fReadAcquire() { mReaders.lock_shared(); }
void cReadersFixer::fReadRelease() { mReaders.unlock_shared(); }

bool cReadersFixer::fFixAcquireOrWait() {
  {
    std::unique_lock lock(mFixMutex);
    if (mFixing) {
      mFixDone.wait(lock, [this] { return !mFixing; });
      return false;
    }
    mFixing = true;
  }
  mReaders.lock();
  return true;
}

void cReadersFixer::fFixRelease() {
  mReaders.unlock();
  {
    std::lock_guard lock(mFixMutex);
    mFixing = false;
  }
  mFixDone.notify_all();
}

void cReadersFixer::fWaitFix() {
  std::unique_lock lock(mFixMutex);
  mFixDone.wait(lock, [this] { return !mFixing; });
}

bool cReadersFixer::fWaitFix(nTime::cDiff limit) {
  std::unique_lock lock(mFixMutex);
  return mFixDone.wait_for(lock, limit.fChrono(), [this] { return !mFixing; });
}

cCondvar::cCondvar() = default;
cCondvar::~cCondvar() = default;
void cCondvar::fWait(cMutex& mutex) { mCondition.wait(mutex.fGetRaw()); }
bool cCondvar::fWait(cMutex& mutex, nTime::cDiff limit) {
  return mCondition.wait_for(mutex.fGetRaw(), limit.fChrono()) == std::cv_status::no_timeout;
}
void cCondvar::fSignal() { mCondition.notify_one(); }
void cCondvar::fBroadcast() { mCondition.notify_all(); }

cMutex::~cMutex() = default;

ecOptional<nTime::cDiff, nTime::zDiffEmpty> cBlockLimitExp_debug::vOperatorCall() {
  if (mFirst.fNanoseconds() <= 0) return nTime::zDiffEmpty{};
  // Each call allows twice the previous one, never more than the ceiling.
  std::int64_t allowed = mFirst.fNanoseconds();
  for (std::int32_t i = 0; i < mCalls && allowed < mCeiling.fNanoseconds(); ++i) allowed *= 2;
  if (mCeiling.fNanoseconds() > 0 && allowed > mCeiling.fNanoseconds()) allowed = mCeiling.fNanoseconds();
  ++mCalls;
  return nTime::cDiff::gNanoseconds(allowed);
}

}  // namespace nImplementation_sho
}  // namespace nParallel
