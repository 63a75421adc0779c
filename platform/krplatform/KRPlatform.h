// Our Linux build of the product's process operations (KRWin32Platform):
// ending a process by its handle, and running a program to its end.
//
// A process handle stands for a process id: the handle's value is the pid.
// Handles are never opened or closed here. Every function may be called from
// any thread.
#pragma once

#include "CorvanthExport.h"

// What gMXPKillProcess found.
enum tMXPKillProcess_ {
  eMXPKillProcessKilled = 0,
  eMXPKillProcessAlreadyTerminated = 1,
  eMXPKillProcessCannotFind = 2,
  eMXPKillProcessCannotKill = 3,
};

// Ends the process of `handle` at once with SIGKILL and waits until it is
// gone; a child of the caller is reaped. Results:
// - killed: it was running and is gone now;
// - already terminated: it had exited (a zombie), or it is a child that this
//   module reaped before;
// - cannot find: no such process (a handle of 0 or less, which would name a
//   process group, counts as none);
// - cannot kill: the system refused the signal (EPERM) or the process could
//   not be watched.
// Needs Linux 5.3 or later (pidfd_open).
CORVANTH_EXPORT tMXPKillProcess_ gMXPKillProcess(void* const& handle);

// Runs `program` (looked up in PATH when it has no slash) with `arguments`
// split into words as a POSIX shell splits them, without any expansion:
// blanks separate words, '...' is literal, "..." is literal except that a
// backslash there escapes a double quote, a backslash, a dollar, a backquote
// or a newline, and a backslash outside quotes makes the next character
// literal. Waits for the program to end. Non-zero
// when it exited with status 0; 0 when it could not start, a quote is left
// open, or it ended otherwise.
CORVANTH_EXPORT int MXPExecApplication(const char* program, const char* arguments);
