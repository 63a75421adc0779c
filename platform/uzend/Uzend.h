// Our Linux build of the product's code page library (Uzend) over glibc iconv.
//
// The two functions behave as the Win32 MultiByteToWideChar and
// WideCharToMultiByte without their strict flags. Wide text is UTF-16 in
// char16_t units (UTF-16LE in memory on our little-endian hosts).
//
// Code pages are Windows code page numbers: 1250-1258, 437, 850, 866, 874,
// 932, 936, 949, 950, 20127 (ASCII), 28591-28605 (ISO-8859-x, where one
// exists), 65001 (UTF-8), 1200 (UTF-16LE bytes), 1201 (UTF-16BE bytes),
// and a few more listed in Uzend.cpp. Any other number fails.
//
// Common contract:
// - A source length of -1 means up to and including the terminator (a zero
//   byte; a zero 16-bit unit for wide text and for 1200/1201 sources), and
//   the count then includes the terminator. A length of 0 or below -1 fails.
// - A target size of 0 asks for the size needed and writes nothing.
// - The result is the count of units or bytes written (or needed); 0 on
//   failure: unknown code page, null source, bad length, null target with a
//   size, or a target too small for the whole result. A failed call may have
//   written within the target's size, never beyond it.
// - Bytes invalid in the source code page become U+FFFD: one per byte (per
//   unit for 1200/1201; for UTF-8 one per maximal ill-formed part, as Win32
//   does), and one for a character cut short by the end of the source. A
//   character the target code page cannot hold, or a lone surrogate, becomes
//   one '?' (U+FFFD for the Unicode code pages 65001, 1200, 1201).
// - Flags are ignored.
//
// Thread safety: both functions may be called from any thread at once. A
// thread opens an iconv descriptor for a code page and direction on first
// need and keeps it for its later calls, with no lock; when the thread ends
// its descriptors go to a shared pool, where the next threads take them
// rather than open new ones. No descriptor is used by two threads at a time.
// Descriptors live until the process ends.
#pragma once

#include "CorvanthExport.h"

// `reserved1` and `reserved2` stand where Win32 has nothing; they are ignored.
CORVANTH_EXPORT int UL_MultiByteToWideChar(unsigned codePage, unsigned flags, char const* source,
                                           int sourceLength, char16_t* target, int targetUnits,
                                           int reserved1 = 0, int reserved2 = 0);

// `defaultChar`, when not null, gives in its first byte the replacement for a
// character the target cannot hold, in place of '?'; `usedDefaultChar`, when
// not null, is set to 1 if any replacement was made and to 0 otherwise. As on
// Win32, both must be null for 65001, 1200 and 1201, else the call fails.
CORVANTH_EXPORT int UL_WideCharToMultiByte(unsigned codePage, unsigned flags,
                                           char16_t const* source, int sourceUnits, char* target,
                                           int targetSize, char const* defaultChar = nullptr,
                                           int* usedDefaultChar = nullptr);
