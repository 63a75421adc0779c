// Lifetime boards and scopes. A board is an ordered list of notes; going
// through it touches each note, which builds what was noted. A scope records
// constructed values and destroys them in reverse order at its end: when the
// first note holder ends (static destruction has begun) or when the scope
// itself ends, whichever comes first.
//
// Thread safety: all operations may run on any thread.
#pragma once

#include <cstddef>
#include <mutex>
#include <vector>

#include "CorvanthExport.h"

namespace nLifetime_sho {

class CORVANTH_EXPORT iNote {
 public:
  void f() { vTouch(); }

 protected:
  iNote() = default;
  ~iNote() = default;

 private:
  virtual void vTouch() = 0;
};

class CORVANTH_EXPORT iConstructed {
 public:
  void fDestructConstructed() { vDestructConstructed(); }

 protected:
  iConstructed() = default;
  ~iConstructed() = default;

 private:
  virtual void vDestructConstructed() = 0;
};

class CORVANTH_EXPORT cBoard {
 public:
  cBoard() = default;
  cBoard(cBoard const&) = delete;
  cBoard& operator=(cBoard const&) = delete;

  void fAdd(iNote& note);
  void fRemove(iNote& note);
  // Touches every note in the order they were added.
  void fGoThrough();
  std::size_t fSize() const;

 private:
  mutable std::mutex mMutex;
  std::vector<iNote*> mNotes;
};

class CORVANTH_EXPORT cScope {
 public:
  cScope() = default;
  ~cScope();
  cScope(cScope const&) = delete;
  cScope& operator=(cScope const&) = delete;

  // A note holder's construction and destruction.
  void fCtor();
  void fDtor();
  void fAddConstructed(iConstructed& value);
  // Forgets a value that its holder destroyed itself.
  void fRemoveConstructed(iConstructed& value);
  // Destroys every recorded value, newest first; later calls find nothing left.
  void fEnd();
  int fHolders() const;
  std::size_t fConstructedCount() const;

 private:
  mutable std::recursive_mutex mMutex;
  std::vector<iConstructed*> mConstructed;
  int mHolders = 0;
};

}  // namespace nLifetime_sho

namespace nMainLifetime_sho {
CORVANTH_EXPORT nLifetime_sho::cBoard* guConfigurationBoard_();
CORVANTH_EXPORT nLifetime_sho::cBoard* guProcessBoard_();
CORVANTH_EXPORT nLifetime_sho::cBoard* guFirstThreadBoard_();
CORVANTH_EXPORT nLifetime_sho::cBoard* guGeneralBoard_();
CORVANTH_EXPORT nLifetime_sho::cScope* guScope_();
}  // namespace nMainLifetime_sho
