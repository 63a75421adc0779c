// The log vocabulary of the error text library: the severity of an error and
// the log message record. In this library a KRLogMessage carries no data; the
// severity is a plain enumeration value in the foundation's enum wrapper.
#pragma once

#include <cstdint>

#include "CorvanthExport.h"

// The foundation's wrapper of an enumeration: `tDef` names the values in its
// nested enum `t`; the wrapper holds one such value and nothing else.
template <class tDef>
class etEnumDef : public tDef {
 public:
  using t = typename tDef::t;
  constexpr etEnumDef() noexcept : mValue(static_cast<t>(0)) {}
  constexpr etEnumDef(t value) noexcept : mValue(value) {}  // NOLINT: implicit by design
  constexpr operator t() const noexcept { return mValue; }  // NOLINT
  constexpr t fGet() const noexcept { return mValue; }

 private:
  t mValue;
};

struct tKRLogMessageSeverity__compiler {
  enum t : std::int32_t { eNone = 0, eInformation = 1, eWarning = 2, eError = 3, eFatal = 4 };
};
using tKRLogMessageSeverity = etEnumDef<tKRLogMessageSeverity__compiler>;

class CORVANTH_EXPORT KRLogMessage {
 public:
  KRLogMessage();
  KRLogMessage(KRLogMessage const& other);
  KRLogMessage& operator=(KRLogMessage const& other);
  ~KRLogMessage();
};
