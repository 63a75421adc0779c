// Our Linux build of the product's process operations (KRWin32Platform):
// process handles, ending a process by its handle, and running a program to
// its end.
//
// A process handle stays bound to one process, as a Windows process handle
// does: it holds a pidfd, opened when the handle is made, so no kill through
// it can reach a later process that reuses the pid. Handles are made by
// MXPOpenProcess or MXPOpenProcessGroup and closed by MXPCloseProcess, by
// whoever made them; a handle is not inherited across exec. Every function
// may be called from any thread. Needs Linux 5.3 or later (pidfd_open).
#pragma once

#include "CorvanthExport.h"

// What gMXPKillProcess found.
enum tMXPKillProcess_ {
  eMXPKillProcessKilled = 0,
  eMXPKillProcessAlreadyTerminated = 1,
  eMXPKillProcessCannotFind = 2,
  eMXPKillProcessCannotKill = 3,
};

// A handle bound to the process `pid`, or null when there is no such
// process (a pid of 0 or less, which would name a process group, is none).
// For a child of the caller, make the handle before anything reaps it: until
// then its pid cannot be reused.
CORVANTH_EXPORT void* MXPOpenProcess(int pid);

// The same for a process that leads a process group of its own: a kill
// through this handle also ends every process left in that group, the
// children the process started included. Before Linux 6.9 the group is
// reached only while the process is an unreaped child of the caller, since
// only then can its group id not be reused.
CORVANTH_EXPORT void* MXPOpenProcessGroup(int pid);

// Closes a handle made above; null is ignored.
CORVANTH_EXPORT void MXPCloseProcess(void* handle);

// Ends the process of `handle` at once with SIGKILL and waits until it is
// gone; a child of the caller is reaped. Results:
// - killed: it was running and is gone now;
// - already terminated: it had ended before, whether it is a zombie or was
//   reaped already (by us, its parent, or a host that ignores SIGCHLD);
// - cannot find: `handle` is no process handle;
// - cannot kill: the system refused the signal (EPERM), or the process
//   outlived the wait. A child of ours that outlives it is reaped by a
//   waiting thread once it ends, so it is never left a zombie.
CORVANTH_EXPORT tMXPKillProcess_ gMXPKillProcess(void* const& handle);

// As gMXPKillProcess, waiting at most `milliseconds` for the process to go
// (gMXPKillProcess waits 30 s).
CORVANTH_EXPORT tMXPKillProcess_ gMXPKillProcessWithin(void* const& handle, int milliseconds);

// Runs `program` (looked up in PATH when it has no slash) with `arguments`
// split into words as a POSIX shell splits them, without any expansion:
// blanks separate words, '...' is literal, "..." is literal except that a
// backslash there escapes a double quote, a backslash, a dollar, a backquote
// or a newline, and a backslash outside quotes makes the next character
// literal. Waits for the program to end. Non-zero
// when it exited with status 0; 0 when it could not start, a quote is left
// open, or it ended otherwise.
CORVANTH_EXPORT int MXPExecApplication(const char* program, const char* arguments);
