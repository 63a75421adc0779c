// RWCollectableAssociation: the dictionary's pair, a key and a value pointer,
// neither owned. It stands for its key in a table: it hashes as the key does,
// and isEqual(probe) asks the probe about the key (probe->isEqual(key)), so a
// dictionary finds the pair with a plain key.
#pragma once

#include "CorvanthExport.h"
#include "rwcollect.h"

class CORVANTH_EXPORT RWCollectableAssociation : public RWCollectable {
 public:
  static constexpr RWClassID classIsA = 32776;
  static constexpr char const className[] = "RWCollectableAssociation";

  RWCollectableAssociation() = default;
  RWCollectableAssociation(RWCollectable* key, RWCollectable* value) : mKey(key), mValue(value) {}
  RWCollectableAssociation(RWCollectableAssociation const&) = default;
  RWCollectableAssociation& operator=(RWCollectableAssociation const&) = default;

  RWCollectable* newSpecies() const override;
  RWCollectable* copy() const override;
  RWClassID isA() const override;
  ~RWCollectableAssociation() override;
  // The negated order of the probe against the key.
  int compareTo(RWCollectable const* probe) const override;
  unsigned hash() const override;
  bool isEqual(RWCollectable const* probe) const override;

  RWCollectable* key() const noexcept { return mKey; }
  RWCollectable* value() const noexcept { return mValue; }
  // Sets the value and gives the one it held.
  RWCollectable* value(RWCollectable* newValue) noexcept {
    RWCollectable* const old = mValue;
    mValue = newValue;
    return old;
  }

 private:
  RWCollectable* mKey = nullptr;
  RWCollectable* mValue = nullptr;
};
