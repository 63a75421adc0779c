// The exceptions of the parameter dictionary. Each is a KRErrorException
// under its own type, with its text from "loadengine.frm": key 10 for a
// string form that cannot be read (one parameter: the faulty input), key 11
// for a key that is not there (the key, and the whole array as its string
// form). Catch them as CAssociativeArrayException, KRErrorException or
// std::exception alike; what() gives the formatted text.
#pragma once

#include "CorvanthExport.h"
#include "KRErrorException.h"

class CORVANTH_EXPORT CAssociativeArrayException : public KRErrorException {
 public:
  // `source` under this type: how the raising code builds these.
  explicit CAssociativeArrayException(KRErrorException const& source) : KRErrorException(source) {}
  CAssociativeArrayException(CAssociativeArrayException const&) = default;
  CAssociativeArrayException& operator=(CAssociativeArrayException const&) = default;
  ~CAssociativeArrayException() override;
};

class CORVANTH_EXPORT CIllegalAssoSyntaxException : public CAssociativeArrayException {
 public:
  explicit CIllegalAssoSyntaxException(char const* parameter);
  CIllegalAssoSyntaxException(CIllegalAssoSyntaxException const&) = default;
  CIllegalAssoSyntaxException& operator=(CIllegalAssoSyntaxException const&) = default;
  ~CIllegalAssoSyntaxException() override;
};

class CORVANTH_EXPORT CAssoKeyDoesNotExistException : public CAssociativeArrayException {
 public:
  CAssoKeyDoesNotExistException(char const* key, char const* array);
  CAssoKeyDoesNotExistException(CAssoKeyDoesNotExistException const&) = default;
  CAssoKeyDoesNotExistException& operator=(CAssoKeyDoesNotExistException const&) = default;
  ~CAssoKeyDoesNotExistException() override;
};
