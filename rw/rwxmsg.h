// Error classes of the container toolkit. RWxmsg carries one message text;
// everything the toolkit raises derives from it, and it derives from
// std::exception so that one catch clause serves the whole library.
#pragma once

#include <exception>
#include <string>

#include "CorvanthExport.h"

class CORVANTH_EXPORT RWxmsg : public std::exception {
 public:
  explicit RWxmsg(char const* message);
  explicit RWxmsg(std::string message);
  RWxmsg(RWxmsg const&) = default;
  RWxmsg& operator=(RWxmsg const&) = default;
  ~RWxmsg() override;

  char const* why() const noexcept { return mMessage.c_str(); }
  char const* what() const noexcept override;

 private:
  std::string mMessage;
};
