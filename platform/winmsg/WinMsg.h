// Our Linux build of the window system's message calls, as far as the local
// message transport needs them. A window is a named endpoint owned by the
// thread that creates it (a Unix-domain socket in the abstract namespace, its
// name qualified by the owner's user id); its queue is read by that thread.
#pragma once

#include <cstdint>

#include "CorvanthExport.h"

struct cWindow_;
using HWND = cWindow_*;
using UINT = unsigned int;
using DWORD = std::uint32_t;
using BOOL = int;
using WPARAM = std::uintptr_t;
using LPARAM = std::intptr_t;
using LRESULT = std::intptr_t;
using DWORD_PTR = std::uintptr_t;

// The copy-data record: dwData and cbData are 32 bits wide.
struct COPYDATASTRUCT {
  std::uint32_t dwData;
  std::uint32_t cbData;
  void* lpData;
};

struct MSG {
  HWND hwnd;
  UINT message;
  WPARAM wParam;
  LPARAM lParam;
  DWORD time;
};

inline constexpr UINT WM_QUIT = 0x0012;
inline constexpr UINT WM_COPYDATA = 0x004A;
inline constexpr UINT SMTO_BLOCK = 0x0001;
inline constexpr UINT PM_NOREMOVE = 0x0000;
inline constexpr UINT PM_REMOVE = 0x0001;
inline constexpr UINT PM_NOYIELD = 0x0002;

// A window named `name` owned by the calling thread; null when the name is
// taken or cannot be bound.
CORVANTH_EXPORT HWND CreateWindowA(char const* name);
// Ends a window of the calling thread; 0 when it is none.
CORVANTH_EXPORT BOOL DestroyWindow(HWND window);
// A handle to the window named `windowName` of this user, from any thread or
// process; null when there is none. `className` is not used.
CORVANTH_EXPORT HWND FindWindowA(char const* className, char const* windowName);

CORVANTH_EXPORT BOOL IsWindow(HWND window);
CORVANTH_EXPORT LRESULT SendMessageTimeoutA(HWND window, UINT message, WPARAM wParam, LPARAM lParam,
                                            UINT flags, UINT timeoutMilliseconds, DWORD_PTR* result);
CORVANTH_EXPORT BOOL PostMessageA(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
CORVANTH_EXPORT BOOL PeekMessageA(MSG* message, HWND window, UINT first, UINT last, UINT flags);
CORVANTH_EXPORT BOOL GetMessageA(MSG* message, HWND window, UINT first, UINT last);
