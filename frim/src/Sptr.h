// ecSptr<T>: a counted pointer whose kind decides what may be done with it.
//   unset   no object yet; using it is a fault
//   unique  one owner; it cannot be copied, only moved or shared
//   shared  an atomic count of owners; copies add to it
//   ghost   a count with no object; it cannot be given one
// A kind that must not reach an operation goes to an expression that always
// raises (n_debug::cIllegalUsageException with the fault's words). Should that
// expression ever return, the fault is reported and a "bad exception" raised.
//
// Thread safety: copies of one shared pointer may live on different threads;
// one ecSptr object is used by one thread at a time.
#pragma once

#include <atomic>
#include <exception>
#include <utility>

#include "CorvanthExport.h"
#include "FrimException.h"

namespace nSptr_sho {

enum tRefKind : int { eUnset = 0, eUnique = 1, eShared = 2, eGhost = 3 };

class CORVANTH_EXPORT cBadException : public std::exception {
 public:
  ~cBadException() override;
  char const* what() const noexcept override;
};

using tThrower = void (*)(cStringCoeImpl const& reason, cStringCoeImpl const& position);
// The always-raising expression; tests replace it to reach the last resort.
CORVANTH_EXPORT void gSetThrower_test(tThrower thrower) noexcept;
[[noreturn]] CORVANTH_EXPORT void gFault(char const* reason);

template <class T>
class ecSptr {
 public:
  ecSptr() noexcept = default;
  static ecSptr gUnique(T* object) { return ecSptr(eUnique, object, nullptr); }
  static ecSptr gShared(T* object) { return ecSptr(eShared, object, new std::atomic<long>(1)); }
  static ecSptr gGhost() { return ecSptr(eGhost, nullptr, new std::atomic<long>(1)); }
  // Any kind number, for tests of what a damaged pointer does.
  static ecSptr gWithKind_test(int kind) { return ecSptr(kind, nullptr, nullptr); }

  ecSptr(ecSptr const& other) : mKind(other.mKind), mObject(other.mObject), mCount(other.mCount) {
    switch (mKind) {
      case eUnset:
        return;
      case eUnique:
        fForget();
        gFault("cannot copy unique countref");
      case eShared:
      case eGhost:
        if (mCount == nullptr) {
          fForget();
          gFault("a shared ref did not already exist");
        }
        mCount->fetch_add(1, std::memory_order_relaxed);
        return;
      default:
        fForget();
        gFault("garbage refcount type");
    }
  }
  ecSptr(ecSptr&& other) noexcept : mKind(other.mKind), mObject(other.mObject), mCount(other.mCount) {
    other.fForget();
  }
  ecSptr& operator=(ecSptr other) noexcept {
    std::swap(mKind, other.mKind);
    std::swap(mObject, other.mObject);
    std::swap(mCount, other.mCount);
    return *this;
  }
  ~ecSptr() { fDrop(); }

  int fKind() const noexcept { return mKind; }
  long fUseCount() const noexcept {
    return mCount != nullptr ? mCount->load(std::memory_order_relaxed) : (mKind == eUnique ? 1 : 0);
  }

  T& operator*() const { return *fObject(); }
  T* operator->() const { return fObject(); }
  T* fGet() const { return fObject(); }

  // Unique-only: hands the object to the caller, leaving this unset.
  T* fReleaseUnique() {
    fRequireUnique();
    T* object = mObject;
    fForget();
    return object;
  }
  // Unique-only: from now on the object is counted and may be copied.
  void fShare() {
    fRequireUnique();
    mCount = new std::atomic<long>(1);
    mKind = eShared;
  }
  // Gives an unset pointer its object as sole owner.
  void fInit(T* object) {
    switch (mKind) {
      case eUnset:
        mKind = eUnique;
        mObject = object;
        return;
      case eGhost:
        gFault("ghost count don't have a ref object, there's no meaning for its being initialized");
      case eUnique:
      case eShared:
        gFault("not in unique state");
      default:
        gFault("garbage refcount type");
    }
  }

 private:
  ecSptr(int kind, T* object, std::atomic<long>* count) noexcept : mKind(kind), mObject(object), mCount(count) {}

  T* fObject() const {
    switch (mKind) {
      case eUnique:
      case eShared:
        return mObject;
      case eUnset:
      case eGhost:
        gFault("can't use uninitialized refs");
      default:
        gFault("garbage refcount type");
    }
  }
  void fRequireUnique() const {
    if (mKind == eUnique) return;
    if (mKind < eUnset || mKind > eGhost) gFault("garbage refcount type");
    gFault("not in unique state");
  }
  void fForget() noexcept {
    mKind = eUnset;
    mObject = nullptr;
    mCount = nullptr;
  }
  void fDrop() noexcept {
    if (mKind == eUnique) {
      delete mObject;
    } else if ((mKind == eShared || mKind == eGhost) && mCount != nullptr &&
               mCount->fetch_sub(1, std::memory_order_acq_rel) == 1) {
      delete mObject;
      delete mCount;
    }
    fForget();
  }

  int mKind = eUnset;
  T* mObject = nullptr;
  std::atomic<long>* mCount = nullptr;
};

}  // namespace nSptr_sho
