// Windows on Unix-domain sockets.
// Our Linux build of the window system's message calls, as far as the local
// message transport needs them. A window is a named endpoint owned by the
// thread that creates it (a Unix-domain socket in the abstract namespace, its
// name qualified by the owner's user id); its queue is read by that thread.
//
// Handles. An HWND is a process-wide record interned by window name; it stays
// valid (never freed) for the life of the process, so a handle of a destroyed
// window is simply a dead window. Any process that looks a name up with
// FindWindowA gets a handle that reaches the same endpoint.
//
// Queue. Each thread that owns windows has one queue; PeekMessageA and
// GetMessageA read it on that thread only (with a null window: every window of
// the thread). Other threads and processes reach the queue through the
// window's socket; the owner reads their bytes only while it is inside
// PeekMessageA, GetMessageA or WaitMessage, non-blocking and in bounded pieces,
// and queues a message only once its record is complete, so a peer that stops
// half-way holds up nobody else. An announced size costs memory only as its
// bytes arrive (the first block is at most 256 KiB, then it doubles).
//
// Delivery. SendMessageTimeoutA returns non-zero once the owner has taken the
// message out of its queue (GetMessageA, or PeekMessageA with PM_REMOVE), and 0
// when the time-out ran out first (give or take the 2 ms by which a kept
// connection's receive time-out may lag), the owner went away or refused the
// peer; it never reports an answer of the receiver. Each sending thread keeps
// one connection per window between sends. A send from the owning thread to
// its own window cannot wait for itself: it queues and returns 1 at once.
// There are no window procedures, so a thread that waits in a send reads
// nothing of its own queue meanwhile: two owners that send to each other at
// once both wait for their time-outs.
// PostMessageA does not wait; it fails at once when the owner's socket is full.
// WM_COPYDATA can only be sent, never posted. The owner accepts peers of its own
// user id and root (SO_PEERCRED), and logs and drops any other.
//
// Ownership. A WM_COPYDATA message taken out of the queue carries as lParam a
// COPYDATASTRUCT made by plain new whose lpData is an array new of cbData bytes:
// both belong to the receiver (NVSFreeData, or delete[] the bytes and delete the
// record). A look with PM_NOREMOVE shows the same pointer, which stays the
// queue's until the message is taken out or the window is destroyed.
//
// Threads. Every call may come from any thread. CreateWindowA makes the calling
// thread the owner; DestroyWindow, PeekMessageA, GetMessageA and WaitMessage act
// on the calling thread's own windows only. A thread's windows end with it. A
// forked child keeps none of its parent's windows or connections.
//
// Record on the socket, host byte order (both ends share one machine), sent in
// one piece by the sender:
//   offset 0  u32 kind: 1 post, 2 send (the owner answers one byte when taken)
//          4  u32 message
//          8  u64 wParam
//         16  u64 lParam (0 for WM_COPYDATA)
//         24  u32 dwData    (WM_COPYDATA only, else 0)
//         28  u32 cbData    (WM_COPYDATA only, else 0)
//         32  cbData bytes
// Example: a send of WM_COPYDATA with dwData 7 and the 3 bytes "abc" is
//   02 00 00 00 4A 00 00 00 | 16 x 00 | 07 00 00 00 03 00 00 00 | 61 62 63
// and, once the owner took it out, the one byte 01 comes back. A record with an
// unknown kind, or bytes for another message than WM_COPYDATA, ends the peer's
// connection.
#pragma once

#include <cstdint>
#include <string>

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
// Ends a window of the calling thread; 0 when it is none. Messages still in its
// queue are freed; senders waiting on them get 0.
CORVANTH_EXPORT BOOL DestroyWindow(HWND window);
// A handle to the window named `windowName` of this user, from any thread or
// process; null when there is none. `className` is not used.
CORVANTH_EXPORT HWND FindWindowA(char const* className, char const* windowName);

// Non-zero while the window's owner has its endpoint open, seen from any thread
// or process.
CORVANTH_EXPORT BOOL IsWindow(HWND window);
// `flags` are accepted and not used: a send always blocks its caller. `result`,
// when given, is set to 0.
CORVANTH_EXPORT LRESULT SendMessageTimeoutA(HWND window, UINT message, WPARAM wParam, LPARAM lParam,
                                            UINT flags, UINT timeoutMilliseconds, DWORD_PTR* result);
CORVANTH_EXPORT BOOL PostMessageA(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
// `first` and `last` filter by message number (both 0: all); WM_QUIT passes any
// filter. Without a message, or for a window not of this thread, the result is 0.
CORVANTH_EXPORT BOOL PeekMessageA(MSG* message, HWND window, UINT first, UINT last, UINT flags);
// Blocks until a message is there; 0 on WM_QUIT, -1 (and a zeroed MSG) when the
// window is not one of the calling thread's, or the thread has none.
CORVANTH_EXPORT BOOL GetMessageA(MSG* message, HWND window, UINT first, UINT last);
// Blocks until the calling thread's queue holds a message, which stays there; 0
// when the thread owns no window.
CORVANTH_EXPORT BOOL WaitMessage();

// The abstract socket address of the window `name` for the calling user, with
// its leading zero byte: what a raw peer connects to.
CORVANTH_EXPORT std::string gWindowAddress(char const* name);
