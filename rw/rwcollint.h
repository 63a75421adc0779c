// RWInteger holds one signed 32-bit integer; RWCollectableInt is that integer
// as a collectable: it hashes to its value, orders by difference and equals
// another object of the same class id with the same value. The product's
// event and client classes derive from it and use the value as they see fit.
#pragma once

#include <cstdint>

#include "CorvanthExport.h"
#include "rwcollect.h"

class CORVANTH_EXPORT RWInteger {
 public:
  RWInteger(int value = 0) : mValue(static_cast<std::int32_t>(value)) {}  // NOLINT: implicit
  int value() const noexcept { return mValue; }
  int value(int newValue) noexcept {
    int const old = mValue;
    mValue = static_cast<std::int32_t>(newValue);
    return old;
  }
  operator int() const noexcept { return mValue; }  // NOLINT: implicit

 private:
  std::int32_t mValue;
};

class CORVANTH_EXPORT RWCollectableInt : public RWCollectable, public RWInteger {
 public:
  static constexpr RWClassID classIsA = 32778;
  static constexpr char const className[] = "RWCollectableInt";

  RWCollectableInt(int value = 0) : RWInteger(value) {}  // NOLINT: implicit
  RWCollectableInt(RWCollectableInt const&) = default;
  RWCollectableInt& operator=(RWCollectableInt const&) = default;

  RWCollectable* newSpecies() const override;
  RWCollectable* copy() const override;
  RWClassID isA() const override;
  ~RWCollectableInt() override;
  RWspace binaryStoreSize() const override;
  // This value minus the other's, in 32-bit arithmetic. REQUIRES: `other` is an RWCollectableInt.
  int compareTo(RWCollectable const* other) const override;
  unsigned hash() const override;
  bool isEqual(RWCollectable const* other) const override;
};
