// Private helpers of the container layer; not installed.
#pragma once

#include <cstddef>

#include "rwcollection.h"

// A read-only iterator over the walk of `iterator`, which it takes over.
RWConstIterator* rwMakeConstIterator(RWIterator* iterator);

// Deletes each distinct object among `count` pointers once (null ones are skipped).
void rwDestroyDistinct(RWCollectable* const* objects, std::size_t count);
