#include "rwcollstr.h"

#include <typeinfo>

namespace {
RWRegisterCollectable<RWCollectableString> const gRegister;

// The string behind `other`, or null when it is none. The exact class is by far
// the common case and costs one type compare; only derived classes pay for the cast.
RWCollectableString const* gAsString(RWCollectable const* other) {
  if (other == nullptr) return nullptr;
  if (typeid(*other) == typeid(RWCollectableString))
    return static_cast<RWCollectableString const*>(other);
  return dynamic_cast<RWCollectableString const*>(other);
}
}  // namespace

RWCollectable* RWCollectableString::newSpecies() const { return new RWCollectableString; }
RWCollectable* RWCollectableString::copy() const { return new RWCollectableString(*this); }
RWClassID RWCollectableString::isA() const { return classIsA; }
RWCollectableString::~RWCollectableString() = default;
RWspace RWCollectableString::binaryStoreSize() const { return static_cast<RWspace>(size()) + 4; }

int RWCollectableString::compareTo(RWCollectable const* other) const {
  auto const* text = gAsString(other);
  if (text == nullptr) return RWCollectable::compareTo(other);
  int const order = compare(*text);
  return order < 0 ? -1 : (order > 0 ? 1 : 0);
}

unsigned RWCollectableString::hash() const { return RWCString::hash(data(), size()); }

bool RWCollectableString::isEqual(RWCollectable const* other) const {
  if (other == nullptr) return false;
  // The exact class answers isA and compareTo as this file does: compare the bytes at once.
  if (typeid(*other) == typeid(RWCollectableString) &&
      typeid(*this) == typeid(RWCollectableString)) {
    auto const* text = static_cast<RWCollectableString const*>(other);
    return size() == text->size() && compare(*text) == 0;
  }
  return other->isA() == classIsA && compareTo(other) == 0;
}

int RWCollectableString::compareToString(RWCollectable const* other) const {
  return compareTo(other);
}

bool RWCollectableString::equalsText(RWCollectable const* other, std::string_view text) {
  if (other == nullptr) return false;
  if (typeid(*other) == typeid(RWCollectableString)) {
    auto const* stored = static_cast<RWCollectableString const*>(other);
    return stored->size() == text.size() && stored->compare(text) == 0;
  }
  if (other->isA() != classIsA) return false;
  // An unusual class under the string's id: ask it through a real probe.
  RWCollectableString const probe(text);
  return probe.compareTo(other) == 0;
}
