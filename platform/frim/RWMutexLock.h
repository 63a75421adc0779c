// RWMutexLock: the toolkit's plain mutex, over a recursive pthread mutex so
// that a re-acquire by the owner does not block, as the family's code expects.
// The system mutex is made on first use by a single compare-and-swap with a
// spin, so an RWMutexLock can be a static object used before constructors run.
//
// RWTRecursiveLock<Mutex>: counts the owner's re-entries itself and refuses a
// release by any thread but the owner.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cerrno>

#include "CorvanthExport.h"
#include "rwthrerr.h"

class CORVANTH_EXPORT RWMutexLock {
 public:
  using tCheckHook = void (*)();

  constexpr RWMutexLock() noexcept {}
  ~RWMutexLock();
  RWMutexLock(RWMutexLock const&) = delete;
  RWMutexLock& operator=(RWMutexLock const&) = delete;

  void acquire() {
    callCheckHook();
    ensure();
    if (int rc = pthread_mutex_lock(&mMutex); rc != 0) fail("RWMutexLock::acquire - WaitForSingleObject() - ", rc);
    fCountHold(1);
  }
  // 1 when the mutex was got within the limit, 0 when the limit ran out.
  int acquire(unsigned long milliseconds);
  bool tryAcquire() {
    callCheckHook();
    ensure();
    int rc = pthread_mutex_trylock(&mMutex);
    if (rc == 0) {
      fCountHold(1);
      return true;
    }
    if (rc != EBUSY) fail("RWMutexLock::tryAcquire - WaitForSingleObject() - ", rc);
    return false;
  }
  void release() {
    ensure();
    fCountHold(-1);  // while it is still ours
    if (int rc = pthread_mutex_unlock(&mMutex); rc != 0) {
      fCountHold(1);
      fail("RWMutexLock::release - ReleaseMutex() - ", rc);
    }
  }

  // BasicLockable, for the condition variables.
  void lock() { acquire(); }
  void unlock() { release(); }

  // Called at the start of every acquire of every mutex (tests watch waits with it).
  static void setCheckHook(tCheckHook hook) noexcept { sCheckHook.store(hook, std::memory_order_release); }
  static void callCheckHook() {
    if (tCheckHook hook = sCheckHook.load(std::memory_order_acquire)) hook();
  }

  // 0 not made, 1 being made, 2 made.
  int initState() const noexcept { return mState.load(std::memory_order_acquire); }

 private:
  void ensure() {
    if (mState.load(std::memory_order_acquire) != 2) make();
  }
  void make();
  [[noreturn]] static void fail(char const* what, int code);
  // Only the owner counts, so a load and a store do (no locked instruction).
  void fCountHold(int change) {
    mHolds.store(mHolds.load(std::memory_order_relaxed) + change, std::memory_order_relaxed);
  }

  static std::atomic<tCheckHook> sCheckHook;
  pthread_mutex_t mMutex{};
  std::atomic<int> mState{0};
  // Holds of the owner, so that the end can let them go (the mutex does not tell).
  std::atomic<int> mHolds{0};
};

template <class Mutex>
class RWTRecursiveLock {
 public:
  constexpr RWTRecursiveLock() noexcept = default;
  RWTRecursiveLock(RWTRecursiveLock const&) = delete;
  RWTRecursiveLock& operator=(RWTRecursiveLock const&) = delete;

  void acquire() {
    RWMutexLock::callCheckHook();
    if (isOwner()) {
      ++mCount;
      return;
    }
    mMutex.acquire();
    setOwner();
  }

  int acquire(unsigned long milliseconds) {
    RWMutexLock::callCheckHook();
    if (isOwner()) {
      ++mCount;
      return 1;
    }
    int result = mMutex.acquire(milliseconds);
    if (result == 1) setOwner();
    return result;
  }

  bool tryAcquire() {
    RWMutexLock::callCheckHook();
    if (isOwner()) {
      ++mCount;
      return true;
    }
    if (!mMutex.tryAcquire()) return false;
    setOwner();
    return true;
  }

  void release() {
    if (!isOwner()) throw RWTHRIllegalUsage("RWTRecursiveLock::release - Not owner");
    if (mCount >= 1) {
      --mCount;
      return;
    }
    mOwnerValid.store(false, std::memory_order_relaxed);
    mOwnerId.store(0, std::memory_order_relaxed);
    mMutex.release();
  }

  bool isOwner() const noexcept {
    // Only the owner can find its own id here, so relaxed loads suffice.
    return mOwnerValid.load(std::memory_order_relaxed) &&
           mOwnerId.load(std::memory_order_relaxed) == pthread_self();
  }
  unsigned reentries() const noexcept { return mCount; }

 private:
  void setOwner() noexcept {
    mOwnerId.store(pthread_self(), std::memory_order_relaxed);
    mOwnerValid.store(true, std::memory_order_relaxed);
    mCount = 0;
  }

  Mutex mMutex;
  // The owner's pthread_t: cheaper to read than the kernel thread id.
  std::atomic<pthread_t> mOwnerId{0};
  std::atomic<bool> mOwnerValid{false};
  unsigned mCount = 0;
};
