// CKRErrorInfo: the record that stands for one error in a report. It carries
// either a text key (id) or a literal message, never both: the last setter
// wins. Value type; copies carry every field.
#pragma once

#include "CorvanthExport.h"
#include "KRLogMessage.h"
#include "rwcstring.h"

class CORVANTH_EXPORT CKRErrorInfo {
 public:
  explicit CKRErrorInfo(char const* name = "");
  CKRErrorInfo(CKRErrorInfo const&) = default;
  CKRErrorInfo& operator=(CKRErrorInfo const&) = default;
  virtual ~CKRErrorInfo();

  // Sets the id and empties the message.
  void SetErrorId(int id);
  // Sets the message and the id to 0.
  void SetErrorMsg(char const* message);
  void SetErrorSeverity(tKRLogMessageSeverity severity) { mSeverity = severity; }
  int GetErrorId() const { return mId; }

  RWCString const& GetName() const { return mName; }
  RWCString const& GetErrorMsg() const { return mMessage; }
  tKRLogMessageSeverity GetErrorSeverity() const { return mSeverity; }

 private:
  RWCString mName;
  RWCString mMessage;
  tKRLogMessageSeverity mSeverity;
  int mId = 0;
};
