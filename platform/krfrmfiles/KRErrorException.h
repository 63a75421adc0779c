// The product family of exceptions: iKRException, the interface, and
// KRErrorException, an error whose user-facing text comes from a numbered key
// in an error text file (see KRErrorsDictionary.h), with the parameters
// formatted in at construction. The text is final once raised. When the file
// or the key cannot be found the message still names the file, the key and
// every parameter: an error never loses its cause.
//
// Value types; a copy carries the text, the number and the reported flag.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

#include "CorvanthExport.h"
#include "rwcstring.h"

class CORVANTH_EXPORT iKRException : public std::exception {
 public:
  iKRException() = default;
  iKRException(iKRException const&) = default;
  iKRException& operator=(iKRException const&) = default;
  ~iKRException() override;

  // The message.
  char const* what() const noexcept override;
  char const* fGetErrorMsg() const noexcept { return vGetErrorMsg_iKRException(); }
  // Fills `out` with the stack at the raising, if one was taken; says whether it did.
  bool fStackTrace(RWCString& out) const { return vStackTrace_iKRException(out); }

 private:
  virtual char const* vGetErrorMsg_iKRException() const noexcept = 0;
  virtual bool vStackTrace_iKRException(RWCString& out) const = 0;
};

class CORVANTH_EXPORT KRErrorException : public iKRException {
 public:
  // Looks up `key` in the error text file `fileName` and formats the text
  // parameters (char const*, a null one reads "(null)", or standard strings) into it.
  template <class... tParameters>
  KRErrorException(char const* fileName, int key, tParameters const&... parameters)
      : KRErrorException(
            tFormat{}, fileName, key,
            std::array<std::string_view, sizeof...(tParameters)>{fParameterText(parameters)...}
                .data(),
            sizeof...(tParameters)) {}
  KRErrorException(KRErrorException const&) = default;
  KRErrorException& operator=(KRErrorException const&) = default;
  ~KRErrorException() override;

  bool GetReported() const noexcept { return mReported; }
  void SetReported(bool reported) noexcept { mReported = reported; }
  // The library's number of the error: the text key it was raised with.
  std::int32_t GetErrorNumber() const noexcept { return mNumber; }

 private:
  struct tFormat {};
  KRErrorException(tFormat, char const* fileName, int key, std::string_view const* parameters,
                   std::size_t count);

  static std::string_view fParameterText(char const* text) noexcept {
    return text != nullptr ? std::string_view(text) : std::string_view("(null)");
  }
  static std::string_view fParameterText(std::string const& text) noexcept { return text; }
  static std::string_view fParameterText(std::string_view text) noexcept { return text; }

  char const* vGetErrorMsg_iKRException() const noexcept override;
  bool vStackTrace_iKRException(RWCString& out) const override;

  RWCString mMessage;
  std::int32_t mNumber = 0;
  bool mReported = false;
};
