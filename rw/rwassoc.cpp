#include "rwassoc.h"

namespace {
RWRegisterCollectable<RWCollectableAssociation> const gRegister;
}

RWCollectable* RWCollectableAssociation::newSpecies() const { return new RWCollectableAssociation; }
RWCollectable* RWCollectableAssociation::copy() const {
  return new RWCollectableAssociation(*this);
}
RWClassID RWCollectableAssociation::isA() const { return classIsA; }
RWCollectableAssociation::~RWCollectableAssociation() = default;

int RWCollectableAssociation::compareTo(RWCollectable const* probe) const {
  return probe != nullptr ? -probe->compareTo(mKey) : RWCollectable::compareTo(probe);
}

unsigned RWCollectableAssociation::hash() const { return mKey != nullptr ? mKey->hash() : 0; }

bool RWCollectableAssociation::isEqual(RWCollectable const* probe) const {
  return probe != nullptr && probe->isEqual(mKey);
}
