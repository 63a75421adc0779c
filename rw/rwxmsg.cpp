#include "rwxmsg.h"

#include <utility>

#include "rwthrerr.h"

RWxmsg::RWxmsg(char const* message) : mMessage(message != nullptr ? message : "") {}
RWxmsg::RWxmsg(std::string message) : mMessage(std::move(message)) {}
RWxmsg::~RWxmsg() = default;
char const* RWxmsg::what() const noexcept { return mMessage.c_str(); }

RWTHRxmsg::~RWTHRxmsg() = default;
RWTHRInternalError::~RWTHRInternalError() = default;
RWTHRIllegalUsage::~RWTHRIllegalUsage() = default;
