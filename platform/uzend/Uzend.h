// Our Linux build of the product's code page library (Uzend) over glibc iconv.
#pragma once

#include "CorvanthExport.h"

// Wide text is UTF-16LE in char16_t units.
CORVANTH_EXPORT int UL_MultiByteToWideChar(unsigned codePage, unsigned flags, char const* source,
                                           int sourceLength, char16_t* target, int targetUnits,
                                           int reserved1 = 0, int reserved2 = 0);
CORVANTH_EXPORT int UL_WideCharToMultiByte(unsigned codePage, unsigned flags, char16_t const* source,
                                           int sourceUnits, char* target, int targetSize,
                                           int reserved1 = 0, int reserved2 = 0);
