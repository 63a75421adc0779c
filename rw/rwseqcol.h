// RWSequenceable: a collection whose elements stand in an order, reachable by
// index. Index access beyond the entries throws RWBoundsErr; index() gives
// RW_NPOS when nothing is found.
#pragma once

#include <cstddef>

#include "CorvanthExport.h"
#include "rwcollection.h"

class CORVANTH_EXPORT RWSequenceable : public RWCollection {
 public:
  static constexpr RWClassID classIsA = 32797;

  RWSequenceable() = default;
  RWSequenceable(RWSequenceable const&) = default;
  RWSequenceable& operator=(RWSequenceable const&) = default;
  ~RWSequenceable() override;
  RWClassID isA() const override;

  virtual RWCollectable* append(RWCollectable* element) = 0;
  virtual RWCollectable* at(std::size_t index) const = 0;
  virtual RWCollectable*& at(std::size_t index) = 0;
  // Null when the collection is empty.
  virtual RWCollectable* first() const = 0;
  // The index of the first element equal to `probe`, or RW_NPOS.
  virtual std::size_t index(RWCollectable const* probe) const = 0;
  // REQUIRES: index <= entries(); otherwise RWBoundsErr.
  virtual RWCollectable* insertAt(std::size_t index, RWCollectable* element) = 0;
  virtual RWCollectable* last() const = 0;
  virtual RWCollectable* prepend(RWCollectable* element) = 0;
};
