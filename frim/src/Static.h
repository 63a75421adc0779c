// Static instances: process-wide objects whose construction and destruction
// are checked by a small state machine. The state word holds the object's own
// address plus a code, so zeroed or stray memory never passes for a valid
// state. Every check reports on the error tag (source "Static") and the work
// goes on.
//
//   not constructed   0, or anything not listed
//   in construction   address + 1000
//   constructed       address + 1001
//   in destruction    address + 1002
//   destructed        address + 1003
//
// ecOnceStatic<T> puts a static instance behind a once-only holder: built at
// the first use from any thread, ended with the process, null after its end.
#pragma once

#include <cstdint>
#include <new>
#include <utility>

#include "Log.dec.h"
#include "Synch.h"

namespace nStatic_sho {

// How construction was reached: 0 normal, 1 forced, 2 expected to have been
// done already; anything else is an error.
struct cConstructionRequest_debug {
  int value = 0;
  static constexpr int kNormal = 0;
  static constexpr int kForced = 1;
  static constexpr int kExpected = 2;
};

enum class tInstanceState { eNotConstructed, eInConstruction, eConstructed, eInDestruction, eDestructed };

template <class T>
class ecStaticInstance {
 public:
  // Zero state and counter: the first step of construction, done by the
  // static storage itself before any constructor runs.
  constexpr ecStaticInstance() noexcept = default;
  ecStaticInstance(ecStaticInstance const&) = delete;
  ecStaticInstance& operator=(ecStaticInstance const&) = delete;

  tInstanceState fState() const noexcept {
    std::uintptr_t const base = reinterpret_cast<std::uintptr_t>(this);
    switch (mState - base) {
      case 1000: return tInstanceState::eInConstruction;
      case 1001: return tInstanceState::eConstructed;
      case 1002: return tInstanceState::eInDestruction;
      case 1003: return tInstanceState::eDestructed;
      default: return tInstanceState::eNotConstructed;
    }
  }
  int fForcedCount() const noexcept { return mForced; }

  // make(void* where) builds the payload in place and returns it.
  template <class Make>
  T* fConstruct(cConstructionRequest_debug request, Make&& make) {
    fReportUnless(tInstanceState::eNotConstructed, 0);
    fSet(tInstanceState::eInConstruction);
    if (request.value == cConstructionRequest_debug::kForced) {
      if (++mForced != 1) {
        CORVANTH_LOG(::nLog::nBasic::sErrorTag_, "Static", "Instance forced constructed\t" << mForced);
      }
    } else if (request.value == cConstructionRequest_debug::kExpected) {
      CORVANTH_LOG(::nLog::nBasic::sErrorTag_, "Static", "Instance expected be constructed");
    } else if (request.value != cConstructionRequest_debug::kNormal) {
      CORVANTH_LOG(::nLog::nBasic::sErrorTag_, "Static", "Instance construction request " << request.value);
    }
    T* payload = std::forward<Make>(make)(static_cast<void*>(mPayload));
    fReportUnless(tInstanceState::eInConstruction, 1);
    fSet(tInstanceState::eConstructed);
    return payload;
  }

  T& fGet() noexcept {
    fReportUnless(tInstanceState::eConstructed, 2);
    return *std::launder(reinterpret_cast<T*>(mPayload));
  }

  void fDestruct() {
    bool const built = fState() == tInstanceState::eConstructed;
    fReportUnless(tInstanceState::eConstructed, 2);
    fSet(tInstanceState::eInDestruction);
    // The check lets the work go on, but a payload that was never built (or
    // is already gone) is not destroyed a second time.
    if (built) std::launder(reinterpret_cast<T*>(mPayload))->~T();
    fReportUnless(tInstanceState::eInDestruction, 3);
    fSet(tInstanceState::eDestructed);
  }

 private:
  void fSet(tInstanceState state) noexcept {
    static constexpr std::uintptr_t kCodes[] = {0, 1000, 1001, 1002, 1003};
    mState = state == tInstanceState::eNotConstructed
                 ? 0
                 : reinterpret_cast<std::uintptr_t>(this) + kCodes[static_cast<int>(state)];
  }

  // phase 0: start of construction, 1: end of construction,
  // 2: use or start of destruction, 3: end of destruction.
  void fReportUnless(tInstanceState expected, int phase) const noexcept {
    tInstanceState const state = fState();
    if (state == expected) return;
    char const* text = nullptr;
    switch (state) {
      case tInstanceState::eInConstruction: text = "Instance in construction"; break;
      case tInstanceState::eConstructed: text = "Instance already constructed"; break;
      case tInstanceState::eInDestruction: text = "Instance in destruction"; break;
      case tInstanceState::eDestructed: text = "Instance already destructed"; break;
      case tInstanceState::eNotConstructed:
        text = phase == 1 ? "Instance not in construction"
               : phase == 3 ? "Instance not destructed"
                            : "Instance not constructed";
        break;
    }
    if (phase == 3 && state != tInstanceState::eInConstruction && state != tInstanceState::eDestructed) {
      text = "Instance not destructed";
    }
    try {
      CORVANTH_LOG(::nLog::nBasic::sErrorTag_, "Static", text);
    } catch (...) {
    }
  }

  std::uintptr_t mState = 0;
  int mForced = 0;
  alignas(T) unsigned char mPayload[sizeof(T)] = {};
};

// A static instance built once at first use and ended at process end.
template <class T>
class ecOnceStatic {
 public:
  constexpr ecOnceStatic() noexcept = default;
  ~ecOnceStatic() {
    if (mInstance.fState() == tInstanceState::eConstructed) mInstance.fDestruct();
  }
  ecOnceStatic(ecOnceStatic const&) = delete;
  ecOnceStatic& operator=(ecOnceStatic const&) = delete;

  // The instance, built by make(void*) at the first call; null after its end.
  template <class Make>
  T* fUse(Make&& make) {
    mHolder.fUseBlock([&] { mInstance.fConstruct(cConstructionRequest_debug{}, make); });
    return mInstance.fState() == tInstanceState::eConstructed ? &mInstance.fGet() : nullptr;
  }

 private:
  ::nParallel::nOnce::cInitHolder mHolder;
  ecStaticInstance<T> mInstance;
};

}  // namespace nStatic_sho
