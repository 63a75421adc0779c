#include "FrimLifetime.h"

#include <algorithm>
#include <atomic>

namespace nLifetime_sho {

void cBoard::fAdd(iNote& note) {
  std::lock_guard lock(mMutex);
  mNotes.push_back(&note);
}
void cBoard::fRemove(iNote& note) {
  std::lock_guard lock(mMutex);
  mNotes.erase(std::remove(mNotes.begin(), mNotes.end(), &note), mNotes.end());
}
void cBoard::fGoThrough() {
  std::vector<iNote*> notes;
  {
    std::lock_guard lock(mMutex);
    notes = mNotes;
  }
  for (iNote* note : notes) note->f();
}
std::size_t cBoard::fSize() const {
  std::lock_guard lock(mMutex);
  return mNotes.size();
}

cScope::~cScope() { fEnd(); }
void cScope::fCtor() {
  std::lock_guard lock(mMutex);
  ++mHolders;
}
void cScope::fDtor() {
  std::lock_guard lock(mMutex);
  --mHolders;
}
void cScope::fAddConstructed(iConstructed& value) {
  std::lock_guard lock(mMutex);
  mConstructed.push_back(&value);
}
void cScope::fRemoveConstructed(iConstructed& value) {
  std::lock_guard lock(mMutex);
  mConstructed.erase(std::remove(mConstructed.begin(), mConstructed.end(), &value), mConstructed.end());
}
void cScope::fEnd() {
  std::lock_guard lock(mMutex);
  while (!mConstructed.empty()) {
    iConstructed* value = mConstructed.back();
    mConstructed.pop_back();
    value->fDestructConstructed();
  }
}
int cScope::fHolders() const {
  std::lock_guard lock(mMutex);
  return mHolders;
}
std::size_t cScope::fConstructedCount() const {
  std::lock_guard lock(mMutex);
  return mConstructed.size();
}

}  // namespace nLifetime_sho

namespace nMainLifetime_sho {

// Function statics: built at the first request, which during static start
// comes from a note holder's constructor, so each ends after that holder.
nLifetime_sho::cBoard* guConfigurationBoard_() {
  static nLifetime_sho::cBoard board;
  return &board;
}
nLifetime_sho::cBoard* guProcessBoard_() {
  static nLifetime_sho::cBoard board;
  return &board;
}
nLifetime_sho::cBoard* guFirstThreadBoard_() {
  static nLifetime_sho::cBoard board;
  return &board;
}
nLifetime_sho::cBoard* guGeneralBoard_() {
  static nLifetime_sho::cBoard board;
  return &board;
}
nLifetime_sho::cScope* guScope_() {
  static nLifetime_sho::cScope scope;
  return &scope;
}

}  // namespace nMainLifetime_sho
