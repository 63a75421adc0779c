#include "CKRErrorInfo.h"

CKRErrorInfo::CKRErrorInfo(char const* name) : mName(name != nullptr ? name : "") {}
CKRErrorInfo::~CKRErrorInfo() = default;

void CKRErrorInfo::SetErrorId(int id) {
  mId = id;
  mMessage.clear();
}

void CKRErrorInfo::SetErrorMsg(char const* message) {
  mMessage = message != nullptr ? message : "";
  mId = 0;
}
