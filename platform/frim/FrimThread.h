// Thread identity: the kernel thread id (gettid) as a 32-bit value held in a
// long, as GetCurrentThreadId gives it on the original platform.
#pragma once

#include "CorvanthExport.h"

// The calling thread's id, read once per thread.
CORVANTH_EXPORT long GetCurrentThreadId() noexcept;
