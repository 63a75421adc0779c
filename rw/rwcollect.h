// RWCollectable: the base of everything that goes into a container of this
// layer. Containers hold pointers to collectables and ask the objects
// themselves for equality (isEqual), order (compareTo) and hash. The base
// behaviour is identity: an object equals only itself, and hashes its address.
//
// Each class has a 16-bit class id (isA, from its static classIsA) and a class
// name; the concrete classes of this layer register a default creator under
// both at load time, so that an object can be made from its id or its name.
//
// The order of the virtual operations below is part of the interface (derived
// classes of the product extend these tables); do not reorder or insert.
// No class of this layer locks; an object belongs to one thread at a time.
#pragma once

#include "CorvanthExport.h"
#include "rwdefs.h"
#include "rwstore.h"

class CORVANTH_EXPORT RWCollectable {
 public:
  static constexpr RWClassID classIsA = 32775;
  static constexpr char const className[] = "RWCollectable";

  RWCollectable() = default;
  RWCollectable(RWCollectable const&) = default;
  RWCollectable& operator=(RWCollectable const&) = default;

  // A new default object of the same class, and a new object with a copy of the value.
  virtual RWCollectable* newSpecies() const;
  virtual RWCollectable* copy() const;
  virtual RWClassID isA() const;
  // The object itself, seen as a collectable.
  virtual RWCollectable const* asCollectable() const;
  virtual RWCollectable* asCollectable();
  virtual ~RWCollectable();
  virtual RWspace binaryStoreSize() const;
  // Identity order: 0 for the same object, 1 when `other` lies at a lower address, else -1.
  virtual int compareTo(RWCollectable const* other) const;
  // Identity hash: the address x folded as (x >> 3) ^ x, arithmetic shift, low 32 bits.
  virtual unsigned hash() const;
  virtual bool isEqual(RWCollectable const* other) const;
  virtual void restoreGuts(RWvistream& stream);
  virtual void restoreGuts(RWFile& file);
  virtual void saveGuts(RWvostream& stream) const;
  virtual void saveGuts(RWFile& file) const;

  // The identity hash of any object, whatever its class makes of hash().
  static unsigned identityHash(RWCollectable const* object) noexcept;
};

// --- creator registry --------------------------------------------------------
// Thread-safe. A registration under an id or a name that is already known
// replaces the earlier creator.
using RWuserCreator = RWCollectable* (*)();

CORVANTH_EXPORT void rwAddToFactory(RWuserCreator creator, RWClassID id, char const* name);
// A new default object of the class, or null when nothing is registered under it.
CORVANTH_EXPORT RWCollectable* rwCreateFromFactory(RWClassID id);
CORVANTH_EXPORT RWCollectable* rwCreateFromFactory(char const* name);
// The registered name of an id (null when unknown), and the id of a name (0 when unknown).
CORVANTH_EXPORT char const* rwClassNameOf(RWClassID id);
CORVANTH_EXPORT RWClassID rwClassIdOf(char const* name);

// Registers `Class` at load time: define one static instance per class, in its source file.
template <class Class>
struct RWRegisterCollectable {
  RWRegisterCollectable() {
    rwAddToFactory([]() -> RWCollectable* { return new Class; }, Class::classIsA, Class::className);
  }
};
