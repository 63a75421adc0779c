// ecPlacerEngineControlled<T>: storage for one T that is constructed into it
// and destructed from it explicitly; it knows whether a value is there.
// Not thread-safe: its owner serialises construction and destruction.
#pragma once

#include <new>
#include <utility>

#include "FirstZ0.h"
#include "Log.dec.h"

template <class T>
class ecPlacerEngineControlled {
 public:
  ecPlacerEngineControlled() { CORVANTH_LOG(::nLog::nBasic::sTraceTag_, "Placer", "ecPlacerEngineControlled:ctor()"); }
  // A copy of the storage copies the value, if one is there.
  ecPlacerEngineControlled(ecPlacerEngineControlled const& other) {
    CORVANTH_LOG(::nLog::nBasic::sTraceTag_, "Placer", "ecPlacerEngineControlled:ctor(copy)");
    if (other.fHas()) fConstruct(other.fGet());
  }
  ecPlacerEngineControlled& operator=(ecPlacerEngineControlled const&) = delete;
  ~ecPlacerEngineControlled() { fDestruct(); }

  bool fHas() const noexcept { return mHas; }

  template <class... Args>
  T& fConstruct(Args&&... args) {
    fDestruct();
    T* value = new (mStorage.fAddress()) T(std::forward<Args>(args)...);
    mHas = true;
    return *value;
  }
  // Ends the value, if any. A destructor that raises leaves the storage empty.
  void fDestruct() noexcept(noexcept(std::declval<T&>().~T())) {
    if (!mHas) return;
    mHas = false;
    fPointer()->~T();
  }

  T& fGet() noexcept { return *fPointer(); }
  T const& fGet() const noexcept { return *std::launder(static_cast<T const*>(mStorage.fAddress())); }

 private:
  T* fPointer() noexcept { return std::launder(static_cast<T*>(mStorage.fAddress())); }
  ecAlignedStorage<sizeof(T), alignof(T)> mStorage;
  bool mHas = false;
};
