// Errors the container layer raises. RWInternalErr stands for a broken
// contract of a caller or of the layer itself; RWBoundsErr for an index
// outside a collection (its text names the index and the entry count).
#pragma once

#include <cstddef>
#include <string>

#include "CorvanthExport.h"
#include "rwxmsg.h"

class CORVANTH_EXPORT RWInternalErr : public RWxmsg {
 public:
  using RWxmsg::RWxmsg;
  RWInternalErr(RWInternalErr const&) = default;
  RWInternalErr& operator=(RWInternalErr const&) = default;
  ~RWInternalErr() override;
};

class CORVANTH_EXPORT RWBoundsErr : public RWInternalErr {
 public:
  using RWInternalErr::RWInternalErr;
  RWBoundsErr(RWBoundsErr const&) = default;
  RWBoundsErr& operator=(RWBoundsErr const&) = default;
  ~RWBoundsErr() override;
};

// Throws RWBoundsErr for `index` in a collection of `entries` elements, with
// the NPOS text when the index is all ones.
[[noreturn]] CORVANTH_EXPORT void rwThrowBoundsErr(std::size_t index, std::size_t entries);
