// The foundation's exception family. nException::iMessage carries the text
// that what() gives out; n_debug::iBrokenModuleException adds debug
// information and is the base of internal faults: cBrokenModuleException for a
// broken invariant, cIllegalUsageException for a caller that broke a contract.
// The egThrow_ function objects are how a failed assertion becomes one of them.
#pragma once

#include <exception>
#include <utility>

#include "CorvanthExport.h"
#include "FrimString.h"

namespace nException {

class CORVANTH_EXPORT i : public std::exception {
 public:
  i() = default;
  i(i const&) = default;
  i& operator=(i const&) = default;
  ~i() override;
  char const* what() const noexcept override;
};

class CORVANTH_EXPORT iMessage : public i {
 public:
  explicit iMessage(cStringCoeImpl message = cStringCoeImpl()) : mMessage(std::move(message)) {}
  iMessage(iMessage const&) = default;
  iMessage& operator=(iMessage const&) = default;
  ~iMessage() override;

  // The text of v_iMessage_nException, so a subclass that overrides it is
  // what callers see; kept here until the next call.
  char const* what() const noexcept override;
  cStringCoeImpl fMessage() const { return v_iMessage_nException(); }

 protected:
  void fSetMessage(cStringCoeImpl message) { mMessage = std::move(message); }

 private:
  virtual cStringCoeImpl v_iMessage_nException() const;
  cStringCoeImpl mMessage;
  mutable cStringCoeImpl mWhat;
};

}  // namespace nException

namespace n_debug {

class CORVANTH_EXPORT iBrokenModuleException : public nException::iMessage {
 public:
  iBrokenModuleException(cStringCoeImpl message, cStringCoeImpl debugInfo)
      : iMessage(std::move(message)), mDebugInfo(std::move(debugInfo)) {}
  iBrokenModuleException(iBrokenModuleException const&) = default;
  iBrokenModuleException& operator=(iBrokenModuleException const&) = default;
  ~iBrokenModuleException() override;

  cStringCoeImpl fReason() const { return vReason_iBrokenModuleException(); }
  cStringCoeImpl const& fGetDebugInfo() const { return mDebugInfo; }

 private:
  virtual cStringCoeImpl vReason_iBrokenModuleException() const;
  cStringCoeImpl mDebugInfo;
};

// The two texts are the reason and the place (or other debug information).
class CORVANTH_EXPORT cBrokenModuleException : public iBrokenModuleException {
 public:
  cBrokenModuleException(cStringCoeImpl reason, cStringCoeImpl position);
  cBrokenModuleException(cBrokenModuleException const&) = default;
  cBrokenModuleException& operator=(cBrokenModuleException const&) = default;
  ~cBrokenModuleException() override;

  cStringCoeImpl const& fFirst() const { return mFirst; }
  cStringCoeImpl const& fSecond() const { return mSecond; }

 private:
  cStringCoeImpl vReason_iBrokenModuleException() const override;
  cStringCoeImpl mFirst;
  cStringCoeImpl mSecond;
};

class CORVANTH_EXPORT iIllegalUsageException : public iBrokenModuleException {
 public:
  using iBrokenModuleException::iBrokenModuleException;
  iIllegalUsageException(iIllegalUsageException const&) = default;
  iIllegalUsageException& operator=(iIllegalUsageException const&) = default;
  ~iIllegalUsageException() override;
};

class CORVANTH_EXPORT cIllegalUsageException : public iIllegalUsageException {
 public:
  cIllegalUsageException(cStringCoeImpl reason, cStringCoeImpl position);
  cIllegalUsageException(cIllegalUsageException const&) = default;
  cIllegalUsageException& operator=(cIllegalUsageException const&) = default;
  ~cIllegalUsageException() override;

  cStringCoeImpl const& fFirst() const { return mFirst; }
  cStringCoeImpl const& fSecond() const { return mSecond; }

 private:
  cStringCoeImpl vReason_iBrokenModuleException() const override;
  cStringCoeImpl mFirst;
  cStringCoeImpl mSecond;
};

}  // namespace n_debug

namespace nFunctional_sho {

template <class Exception>
struct egThrow_ {
  [[noreturn]] void operator()(cStringCoeImpl const& first, cStringCoeImpl const& second) const {
    throw Exception(first, second);
  }
};

}  // namespace nFunctional_sho
