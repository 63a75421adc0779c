// The lock vocabulary of the family (nParallel) and its once-only holders.
//
// cMutex: a plain mutex over RWMutexLock. Its read and write names let it
//   stand where code is written against a reader-writer lock; readers then
//   exclude each other. A re-acquire by the owner does not block.
// cMutexRecursive: an owner-tracking mutex that counts its holds in depth.
// cReadersWriter, cReadersFixer, cCondvar: reached through their proxies,
//   which only operator() of the lock gives out. A proxy is one word and its
//   lock must outlive it.
// cInitHolder: built-once state; after initialisation a use costs one acquire
//   load. cAccompletionFlag: a one-byte flag, cheaper still for readers that
//   need not wait.
//
// Thread safety: all of these are meant to be shared between threads.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <shared_mutex>

#include "CorvanthExport.h"
#include "DebugSection.h"
#include "FrimTime.h"
#include "Log.dec.h"
#include "RWMutexLock.h"

namespace nParallel {

namespace nOnce {

class CORVANTH_EXPORT cInitHolder {
 public:
  constexpr cInitHolder() noexcept = default;
  cInitHolder(cInitHolder const&) = delete;
  cInitHolder& operator=(cInitHolder const&) = delete;

  bool fCheckAcquire() const noexcept { return mState.load(std::memory_order_acquire) >= 0; }

  // 1: found done, init not called; 3: this caller's init completed it;
  // 2: another thread completed it while this one waited.
  template <class Init>
  int fUseImpl(Init&& init, int spinCount) {
    if (mState.load(std::memory_order_acquire) >= 0) return 1;
    return fInitAcquire(init, spinCount, mState) ? 3 : 2;
  }
  template <class Init>
  bool fUseBlock(Init&& init) {
    return fUseImpl(init, 0) == 3;
  }
  template <class Init>
  bool fUseSpin(Init&& init) {
    return fUseImpl(init, 100) == 3;
  }
  template <class Init>
  bool fUseZ1(Init&& init, int spinCount) {
    return fUseImpl(init, spinCount) == 3;
  }
  bool fUseEmpty() {
    return fUseImpl([] {}, 400) == 3;
  }
  void fReadBlock() const {
    if (mState.load(std::memory_order_acquire) < 0) fWaitAcquire(mState, 0);
  }

  // One thread wins and runs init, then publishes completion with release
  // order; the others spin spinCount times and then block until it is out.
  // If init raises, the holder stays open and the exception passes on.
  template <class Init>
  bool fInitAcquire(Init& init, int spinCount, std::atomic<int> const&) {
    return fInitAcquireErased([](void* context) { (*static_cast<Init*>(context))(); }, &init, spinCount);
  }
  void fWaitAcquire(std::atomic<int> const& seen, int spinCount) const;

 private:
  static constexpr int kNotStarted = -1;
  static constexpr int kRunning = -2;
  bool fInitAcquireErased(void (*call)(void*), void* context, int spinCount);
  std::atomic<int> mState{kNotStarted};
};

class cAccompletionFlag {
 public:
  constexpr cAccompletionFlag() noexcept = default;
  void fUse() noexcept { mFlag.store(1, std::memory_order_release); }
  bool fCheckAcquire() const noexcept {
    bool set = mFlag.load(std::memory_order_relaxed) != 0;
    if (set) std::atomic_thread_fence(std::memory_order_acquire);
    return set;
  }

 private:
  std::atomic<std::uint8_t> mFlag{0};
};

}  // namespace nOnce

namespace nImplementation_sho {

// A proxy: a reference to its lock, handed out only by the lock.
template <class T>
class eip {
 public:
  T& fGet() const { return *mLock; }
  eip(eip const&) = default;
  eip& operator=(eip const&) = default;

 protected:
  explicit eip(T& lock) : mLock(&lock) {}

 private:
  T* mLock;
};

enum class tAcquireResult : int { eAtOnce = 1, eAfterWait = 2, eTimedOut = 3 };

template <class Enum>
class ecEnumValue {
 public:
  constexpr ecEnumValue(Enum value) : mValue(value) {}  // NOLINT
  constexpr Enum fGet() const { return mValue; }
  constexpr int fInt() const { return static_cast<int>(mValue); }
  constexpr operator Enum() const { return mValue; }  // NOLINT

 private:
  Enum mValue;
};

template <class Mutex>
class ecpMutex : public eip<Mutex> {
 public:
  void fAcquire() const { this->fGet().fAcquire(); }
  void fRelease() const { this->fGet().fRelease(); }
  void fReadAcquire() const { this->fGet().fAcquire(); }
  void fReadRelease() const { this->fGet().fRelease(); }
  void fWriteAcquire() const { this->fGet().fAcquire(); }
  void fWriteRelease() const { this->fGet().fRelease(); }

 private:
  friend Mutex;
  explicit ecpMutex(Mutex& mutex) : eip<Mutex>(mutex) {}
};

class CORVANTH_EXPORT cMutex {
 public:
  cMutex() = default;
  ~cMutex();
  cMutex(cMutex const&) = delete;
  cMutex& operator=(cMutex const&) = delete;

  void fAcquire() {
    mGuard.fCheck();
    mRaw.acquire();
    mGuard.fCheck();
  }
  void fRelease() {
    mGuard.fCheck();
    mRaw.release();
  }
  void fReadAcquire() { fAcquire(); }
  void fWriteAcquire() { fAcquire(); }
  void fReadRelease() { fRelease(); }
  void fWriteRelease() { fRelease(); }
  RWMutexLock& fGetRaw() { return mRaw; }

  ecpMutex<cMutex> operator()() { return ecpMutex<cMutex>(*this); }

 private:
  nDebugSection_debug::cXtor_templatedef<void> mGuard;
  RWMutexLock mRaw;
};

class cMutexRecursive {
 public:
  cMutexRecursive() = default;
  cMutexRecursive(cMutexRecursive const&) = delete;
  cMutexRecursive& operator=(cMutexRecursive const&) = delete;

  void fAcquire() {
    mGuard.fCheck();
    mLock.acquire();
    fCount(1);
    mGuard.fCheck();
  }
  // Counts first: a release that the lock refuses has already taken its 1.
  // That release may come from a thread without the lock, hence the atomic.
  void fRelease() {
    mGuard.fCheck();
    fCount(-1);
    mLock.release();
  }
  // Only the holder may ask; its own hold is the 1 that does not count.
  bool fAlreadyAcquiredNTS() const {
    mGuard.fCheck();
    return mDepth.load(std::memory_order_relaxed) >= 2;
  }
  ecEnumValue<tAcquireResult> fTryAcquire(nTime::cDiff limit) {
    mGuard.fCheck();
    bool const atOnce = mLock.tryAcquire();
    if (!atOnce) {
      auto const milliseconds = static_cast<std::uint32_t>(nTime::gMillisecondsInt(limit));
      int const result = mLock.acquire(milliseconds);
      if (result == 0) return tAcquireResult::eTimedOut;
      if (result != 1) {
        CORVANTH_LOG(::nLog::nBasic::sErrorTag_, "Synch", "unexpected acquire result " << result);
        throw ::nLog::nImplementation_sho::cRet_();
      }
    }
    fCount(1);
    return atOnce ? tAcquireResult::eAtOnce : tAcquireResult::eAfterWait;
  }
  int fDepth() const { return mDepth.load(std::memory_order_relaxed); }

  ecpMutex<cMutexRecursive> operator()() { return ecpMutex<cMutexRecursive>(*this); }

 private:
  // A load and a store, not a locked instruction: apart from a release that
  // the lock then refuses, only the holder changes the depth.
  void fCount(int change) {
    mDepth.store(mDepth.load(std::memory_order_relaxed) + change, std::memory_order_relaxed);
  }

  nDebugSection_debug::cXtor_templatedef<void> mGuard;
  RWTRecursiveLock<RWMutexLock> mLock;
  std::atomic<int> mDepth{0};
};

class cpReadersWriter;
class cpReadersFixer;
class cpCondvar;

// Shared holds for readers, an exclusive one for a writer.
class CORVANTH_EXPORT cReadersWriter {
 public:
  cReadersWriter();
  ~cReadersWriter();
  cReadersWriter(cReadersWriter const&) = delete;
  cReadersWriter& operator=(cReadersWriter const&) = delete;
  cpReadersWriter operator()();

 private:
  friend class cpReadersWriter;
  void fReadAcquire();
  void fReadRelease();
  void fWriteAcquire();
  void fWriteRelease();
  std::shared_mutex mLock;
};

// Shared holds for readers, and a fix: one thread takes the fix to repair the
// shared state while readers are kept out; a thread that finds a fix in
// progress waits for its end instead of fixing again.
class CORVANTH_EXPORT cReadersFixer {
 public:
  cReadersFixer();
  ~cReadersFixer();
  cReadersFixer(cReadersFixer const&) = delete;
  cReadersFixer& operator=(cReadersFixer const&) = delete;
  cpReadersFixer operator()();

 private:
  friend class cpReadersFixer;
  void fReadAcquire();
  void fReadRelease();
  // True: this thread now holds the fix. False: another fix was under way and has ended.
  bool fFixAcquireOrWait();
  void fFixRelease();
  void fWaitFix();
  // True if no fix is under way by the end of the limit.
  bool fWaitFix(nTime::cDiff limit);

  std::shared_mutex mReaders;
  std::mutex mFixMutex;
  std::condition_variable mFixDone;
  bool mFixing = false;
};

class CORVANTH_EXPORT cCondvar {
 public:
  cCondvar();
  ~cCondvar();
  cCondvar(cCondvar const&) = delete;
  cCondvar& operator=(cCondvar const&) = delete;
  cpCondvar operator()();

  // REQUIRES: the caller holds mutex once.
  void fWait(cMutex& mutex);
  // False if the limit ran out first.
  bool fWait(cMutex& mutex, nTime::cDiff limit);
  void fSignal();
  void fBroadcast();

 private:
  std::condition_variable_any mCondition;
};

class cpReadersWriter : public eip<cReadersWriter> {
 public:
  void fReadAcquire() const { fGet().fReadAcquire(); }
  void fReadRelease() const { fGet().fReadRelease(); }
  void fWriteAcquire() const { fGet().fWriteAcquire(); }
  void fWriteRelease() const { fGet().fWriteRelease(); }

 private:
  friend class cReadersWriter;
  explicit cpReadersWriter(cReadersWriter& lock) : eip(lock) {}
};

class cpReadersFixer : public eip<cReadersFixer> {
 public:
  void fReadAcquire() const { fGet().fReadAcquire(); }
  void fReadRelease() const { fGet().fReadRelease(); }
  bool fFixAcquireOrWait() const { return fGet().fFixAcquireOrWait(); }
  void fFixRelease() const { fGet().fFixRelease(); }
  void fWaitFix() const { fGet().fWaitFix(); }
  bool fWaitFix(nTime::cDiff limit) const { return fGet().fWaitFix(limit); }

 private:
  friend class cReadersFixer;
  explicit cpReadersFixer(cReadersFixer& lock) : eip(lock) {}
};

class cpCondvar : public eip<cCondvar> {
 public:
  void fWait(cMutex& mutex) const { fGet().fWait(mutex); }
  bool fWait(cMutex& mutex, nTime::cDiff limit) const { return fGet().fWait(mutex, limit); }
  void fSignal() const { fGet().fSignal(); }
  void fBroadcast() const { fGet().fBroadcast(); }

 private:
  friend class cCondvar;
  explicit cpCondvar(cCondvar& lock) : eip(lock) {}
};

inline cpReadersWriter cReadersWriter::operator()() { return cpReadersWriter(*this); }
inline cpReadersFixer cReadersFixer::operator()() { return cpReadersFixer(*this); }
inline cpCondvar cCondvar::operator()() { return cpCondvar(*this); }

// A condition variable over a raw mutex that it does not own.
class cRawCondvar {
 public:
  explicit cRawCondvar(RWMutexLock& mutex) : mMutex(&mutex) {}
  explicit cRawCondvar(RWMutexLock* mutex) : mMutex(mutex) {}
  void fWait() { mCondition.wait(*mMutex); }
  void fSignal() { mCondition.notify_one(); }
  void fBroadcast() { mCondition.notify_all(); }

 private:
  RWMutexLock* mMutex;
  std::condition_variable_any mCondition;
};

// Block limits: how long a blocking call may still wait, or no limit.
class iBlockLimit_debug {
 public:
  ecOptional<nTime::cDiff, nTime::zDiffEmpty> operator()() { return vOperatorCall(); }

 protected:
  iBlockLimit_debug() = default;
  iBlockLimit_debug(iBlockLimit_debug const&) = default;
  iBlockLimit_debug& operator=(iBlockLimit_debug const&) = default;
  ~iBlockLimit_debug() = default;

 private:
  virtual ecOptional<nTime::cDiff, nTime::zDiffEmpty> vOperatorCall() = 0;
};

// Starts at first and doubles with each call, up to ceiling; a first of zero
// means no limit at all.
class CORVANTH_EXPORT cBlockLimitExp_debug : public iBlockLimit_debug {
 public:
  cBlockLimitExp_debug(nTime::cDiff first, std::int32_t calls, nTime::cDiff ceiling)
      : mFirst(first), mCalls(calls), mCeiling(ceiling) {}
  cBlockLimitExp_debug(cBlockLimitExp_debug const&) = default;
  cBlockLimitExp_debug& operator=(cBlockLimitExp_debug const&) = default;
  ~cBlockLimitExp_debug() = default;

 private:
  ecOptional<nTime::cDiff, nTime::zDiffEmpty> vOperatorCall() override;
  nTime::cDiff mFirst;
  std::int32_t mCalls;
  nTime::cDiff mCeiling;
};

// A one-shot event: once set it stays set and releases every waiter.
class cEvent {
 public:
  cEvent() = default;
  cEvent(cEvent const&) = delete;
  cEvent& operator=(cEvent const&) = delete;

  void fSet() {
    mMutex.fAcquire();
    mFlag.fUse();
    mMutex.fRelease();
    mCondvar.fBroadcast();
  }
  bool fIsSet() const { return mFlag.fCheckAcquire(); }
  void fWait() {
    if (mFlag.fCheckAcquire()) return;
    mMutex.fAcquire();
    while (!mFlag.fCheckAcquire()) mCondvar.fWait(mMutex);
    mMutex.fRelease();
  }
  // False if the limit ran out before the event was set.
  bool fWait(nTime::cDiff limit) {
    if (mFlag.fCheckAcquire()) return true;
    nTime::cPoint const until = nTime::cPoint::gNow() + limit;
    mMutex.fAcquire();
    while (!mFlag.fCheckAcquire()) {
      nTime::cDiff const left = until - nTime::cPoint::gNow();
      if (left <= nTime::cDiff()) break;
      mCondvar.fWait(mMutex, left);
    }
    bool const set = mFlag.fCheckAcquire();
    mMutex.fRelease();
    return set;
  }

 private:
  nOnce::cAccompletionFlag mFlag;
  cMutex mMutex;
  cCondvar mCondvar;
};

}  // namespace nImplementation_sho
}  // namespace nParallel
