// Basic types of the container layer: class ids, stored sizes and the "no
// position" index. Everything in rw/ includes this first.
#pragma once

#include <cstddef>
#include <cstdint>

// Class ids are 16 bits wide; the registry and every isA() use this type.
using RWClassID = std::uint16_t;

// The stored size of an object, as binaryStoreSize() gives it.
using RWspace = std::uint32_t;

// The index "nowhere": what index() gives when nothing is found, and an index
// that no element access accepts.
inline constexpr std::size_t RW_NPOS = static_cast<std::size_t>(-1);
