#include "rwerr.h"

#include <cstdio>

RWInternalErr::~RWInternalErr() = default;
RWBoundsErr::~RWBoundsErr() = default;

void rwThrowBoundsErr(std::size_t index, std::size_t entries) {
  if (index == static_cast<std::size_t>(-1))
    throw RWBoundsErr("[NPOSINDEX] The value RW_NPOS cannot be used as an index.");
  char text[128];
  std::snprintf(text, sizeof text,
                "[INDEXERR] Illegal Index (%lu) for collection or string with %lu elements",
                static_cast<unsigned long>(index), static_cast<unsigned long>(entries));
  throw RWBoundsErr(text);
}
