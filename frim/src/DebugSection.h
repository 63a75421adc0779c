// The debug guard at the head of every lock: it catches use of an object
// outside its lifetime. A live object shows level 1001; the guard reports a
// mismatch as "Debug section failed" on the error tag and lets the operation go
// on, so it costs at most two compares and stays in release builds.
#pragma once

#include "Log.dec.h"

namespace nDebugSection_debug {

template <class T = void>
class cXtor_templatedef {
 public:
  cXtor_templatedef() noexcept : mLevel(kIdle), mOwner(&mLevel) { ++*mOwner; }
  // A copy takes the level and the pointer as they stand: it still points at
  // the original's level.
  cXtor_templatedef(cXtor_templatedef const&) = default;
  cXtor_templatedef& operator=(cXtor_templatedef const&) = default;
  ~cXtor_templatedef() {
    --*mOwner;
    if (*mOwner != kIdle) fReport();
  }

  void fCheck() const noexcept {
    if (mLevel != kLive) fReport();
  }
  int fLevel() const noexcept { return mLevel; }

  static constexpr int kIdle = 1000;
  static constexpr int kLive = 1001;

 private:
  static void fReport() noexcept {
    try {
      CORVANTH_LOG(::nLog::nBasic::sErrorTag_, "DebugSection", "Debug section failed");
    } catch (...) {
    }
  }

  int mLevel;
  int* mOwner;
};

}  // namespace nDebugSection_debug
