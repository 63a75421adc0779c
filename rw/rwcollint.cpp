#include "rwcollint.h"

#include <cstdint>

namespace {
RWRegisterCollectable<RWCollectableInt> const gRegister;
}

RWCollectable* RWCollectableInt::newSpecies() const { return new RWCollectableInt; }
RWCollectable* RWCollectableInt::copy() const { return new RWCollectableInt(*this); }
RWClassID RWCollectableInt::isA() const { return classIsA; }
RWCollectableInt::~RWCollectableInt() = default;
RWspace RWCollectableInt::binaryStoreSize() const { return 4; }

int RWCollectableInt::compareTo(RWCollectable const* other) const {
  auto const* integer = dynamic_cast<RWCollectableInt const*>(other);
  // Another class has no value to subtract; order it as identity does rather than read garbage.
  if (integer == nullptr) return RWCollectable::compareTo(other);
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(value()) -
                                   static_cast<std::uint32_t>(integer->value()));
}

unsigned RWCollectableInt::hash() const { return static_cast<unsigned>(value()); }

bool RWCollectableInt::isEqual(RWCollectable const* other) const {
  return other != nullptr && other->isA() == isA() && compareTo(other) == 0;
}
