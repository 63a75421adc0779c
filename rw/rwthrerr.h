// Errors of the toolkit's thread layer: a lock that cannot be made, taken or
// released (RWTHRInternalError) and a lock used against its contract
// (RWTHRIllegalUsage), such as a release by a thread that does not own it.
#pragma once

#include <string>

#include "CorvanthExport.h"
#include "rwxmsg.h"

class CORVANTH_EXPORT RWTHRxmsg : public RWxmsg {
 public:
  using RWxmsg::RWxmsg;
  ~RWTHRxmsg() override;
};

class CORVANTH_EXPORT RWTHRInternalError : public RWTHRxmsg {
 public:
  using RWTHRxmsg::RWTHRxmsg;
  ~RWTHRInternalError() override;
};

class CORVANTH_EXPORT RWTHRIllegalUsage : public RWTHRxmsg {
 public:
  using RWTHRxmsg::RWTHRxmsg;
  ~RWTHRIllegalUsage() override;
};
