// ecNoteHolderSynch<Value, ScopeAccess>: a board note that owns one lazily
// built Value. The value is built at the first use (or when its board is gone
// through), exactly once also under concurrent first use, and recorded in the
// scope that ScopeAccess gives, which destroys it at the end. A holder that
// goes first takes only its own value with it: the other holders' values live
// on until the scope ends. A value whose
// destructor raises is logged ("dtor throws: ") and the exception goes no further.
#pragma once

#include <atomic>
#include <exception>
#include <string>
#include <typeinfo>

#include "FrimLifetime.h"
#include "Log.dec.h"
#include "Placer.h"
#include "RWMutexLock.h"

namespace nLifetime_sho {

template <class Value, cScope* (*ScopeAccess)()>
class ecNoteHolderSynch : public iNote, public iConstructed {
 public:
  using tInit = Value (*)();

  explicit ecNoteHolderSynch(tInit init) : mScope(ScopeAccess()), mInit(init) {
    CORVANTH_LOG_FORMAT(::nLog::nBasic::sTraceTag_, "Lifetime", "nLifetime:ecNoteHolderSynch:ctor",
                        static_cast<void const*>(this));
    mScope->fCtor();
  }
  ecNoteHolderSynch(ecNoteHolderSynch const&) = delete;
  ecNoteHolderSynch& operator=(ecNoteHolderSynch const&) = delete;
  ~ecNoteHolderSynch() {
    fDestructValue();
    CORVANTH_LOG_FORMAT(::nLog::nBasic::sTraceTag_, "Lifetime", "nLifetime:ecNoteHolderSynch:dtor",
                        static_cast<void const*>(this));
    mScope->fDtor();
  }

  Value& fGet() {
    if (!mPresent.load(std::memory_order_acquire)) fConstructSlow();
    return mPlacer.fGet();
  }
  bool fHasValue() const noexcept { return mPresent.load(std::memory_order_acquire); }

 private:
  void fConstructSlow() {
    mMutex.acquire();
    try {
      if (!mPresent.load(std::memory_order_relaxed)) {
        if (!mTouched) {
          CORVANTH_LOG_FORMAT(::nLog::nBasic::sTraceTag_, "Lifetime", "nLifetime:ecNoteHolderSynch:unused",
                              static_cast<void const*>(this), typeid(Value).name());
        }
        CORVANTH_LOG_FORMAT(::nLog::nBasic::sTraceTag_, "Lifetime", "nLifetime:ecNoteHolderSynch:construct",
                            static_cast<void const*>(this), typeid(Value).name());
        mTouched = true;
        mPlacer.fConstruct(mInit());
        mPresent.store(true, std::memory_order_release);
        mScope->fAddConstructed(*this);
      }
    } catch (...) {
      mMutex.release();
      throw;
    }
    mMutex.release();
  }

  void fDestructValue() noexcept {
    if (!mPresent.exchange(false, std::memory_order_acq_rel)) return;
    mScope->fRemoveConstructed(*this);
    CORVANTH_LOG_FORMAT(::nLog::nBasic::sTraceTag_, "Lifetime", "nLifetime:ecNoteHolderSynch:destruct",
                        static_cast<void const*>(this));
    try {
      mPlacer.fDestruct();
    } catch (std::exception const& error) {
      CORVANTH_LOG(::nLog::nBasic::sErrorTag_, "Lifetime", "dtor throws: " << error.what());
    } catch (...) {
      CORVANTH_LOG(::nLog::nBasic::sErrorTag_, "Lifetime", "dtor throws: ...");
    }
  }

  void vTouch() override { fGet(); }
  void vDestructConstructed() override { fDestructValue(); }

  cScope* mScope;
  tInit mInit;
  RWMutexLock mMutex;
  std::atomic<bool> mPresent{false};
  bool mTouched = false;
  ecPlacerEngineControlled<Value> mPlacer;
};

}  // namespace nLifetime_sho
