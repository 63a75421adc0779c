#include <gtest/gtest.h>
#include <sched.h>
#include <sys/ptrace.h>

#include <cerrno>
#include <cstdint>
#include <fstream>

#include "ProcessHelpers.h"

namespace {

using namespace corvanth::test;

// Runs `body` in a child process; its result, or -1 when it did not exit.
int gInChild(std::function<int()> const& body) {
  pid_t const pid = ::fork();
  if (pid == 0) ::_exit(body());
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Inside a pid namespace of its own, where ns_last_pid hands the pid out again.
int gKillAfterThePidWasReused() {
  if (::unshare(CLONE_NEWPID) != 0) return 100;
  return gInChild([] {
    pid_t const first = gFork();
    void* const handle = MXPOpenProcess(first);
    ::kill(first, SIGKILL);
    ::waitpid(first, nullptr, 0);
    if (!(std::ofstream("/proc/sys/kernel/ns_last_pid") << first - 1 << std::flush)) return 100;
    pid_t const second = gFork();
    if (second != first) return 100;
    int const result = gMXPKillProcess(handle);
    return result * 2 + (::waitpid(second, nullptr, WNOHANG) == 0 ? 1 : 0);
  });
}

TEST(KillProcess, AHandleStaysBoundToItsProcessHoweverItEndedAndNeverReachesALaterOne) {
  cChildren children;
  cChild const live = children.fStart();
  EXPECT_EQ(gMXPKillProcess(live.handle), eMXPKillProcessKilled);
  EXPECT_EQ(::waitpid(live.pid, nullptr, WNOHANG), -1);  // reaped
  EXPECT_EQ(gMXPKillProcess(live.handle), eMXPKillProcessAlreadyTerminated);

  // Ended by itself: a zombie (which the kill reaps), or reaped by the test.
  cChild const zombie = children.fStart(true), reaped = children.fStart(true);
  ASSERT_TRUE(gEnded(zombie.pidfd, 10000));
  ASSERT_EQ(::waitpid(reaped.pid, nullptr, 0), reaped.pid);
  EXPECT_EQ(gMXPKillProcess(zombie.handle), eMXPKillProcessAlreadyTerminated);
  EXPECT_EQ(::waitpid(zombie.pid, nullptr, WNOHANG), -1);
  EXPECT_EQ(gMXPKillProcess(reaped.handle), eMXPKillProcessAlreadyTerminated);

  // No handle: null and values that cannot be one; pids of no process.
  for (std::intptr_t value : {std::intptr_t{0}, std::intptr_t{-1}, std::intptr_t{1} << 40})
    EXPECT_EQ(gMXPKillProcess(reinterpret_cast<void*>(value)), eMXPKillProcessCannotFind) << value;
  for (int pid : {0, -1, reaped.pid}) EXPECT_EQ(MXPOpenProcess(pid), nullptr) << pid;

  // A host that ignores SIGCHLD: the kernel reaps a child that ended without our kill.
  EXPECT_EQ(gInChild([] {
              ::signal(SIGCHLD, SIG_IGN);
              pid_t const pid = gFork();
              void* const handle = MXPOpenProcess(pid);
              ::kill(pid, SIGTERM);
              if (!gWithin(5000, [pid] { return ::kill(pid, 0) != 0 && errno == ESRCH; }))
                return 101;
              return static_cast<int>(gMXPKillProcess(handle));
            }),
            eMXPKillProcessAlreadyTerminated);

  cChild const victim = children.fStart();
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a caller of another user";
  EXPECT_EQ(gInChild([&] {
              if (::setgid(65534) != 0 || ::setuid(65534) != 0) return 100;
              return static_cast<int>(gMXPKillProcess(victim.handle));
            }),
            eMXPKillProcessCannotKill);
  int const reused = gInChild(gKillAfterThePidWasReused);
  if (reused == 100) GTEST_SKIP() << "cannot hand a pid out again here";
  EXPECT_EQ(reused, eMXPKillProcessAlreadyTerminated * 2 + 1) << "result * 2 + later one alive";
}

TEST(KillProcess, AProcessThatOutlivesTheWaitIsNotKilledAndNeverLeftAZombie) {
  cChildren children;
  cChild const held = children.fStart();
  // Traced for its exit, a killed process waits at the exit stop until we let it go.
  if (::ptrace(PTRACE_SEIZE, held.pid, nullptr, PTRACE_O_TRACEEXIT) != 0)
    GTEST_SKIP() << "cannot trace a process here";
  EXPECT_EQ(gMXPKillProcessWithin(held.handle, 100), eMXPKillProcessCannotKill);
  siginfo_t stop{};
  EXPECT_TRUE(gWithin(5000, [&] {
    return ::waitid(P_PID, static_cast<id_t>(held.pid), &stop, WSTOPPED | WNOHANG | WNOWAIT) == 0 &&
           stop.si_pid == held.pid;
  })) << "no exit stop";
  ::ptrace(PTRACE_DETACH, held.pid, nullptr, nullptr);
  // Once it ends, it is reaped without us.
  EXPECT_TRUE(gWithin(5000, [&] {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(held.pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 &&
           errno == ECHILD;
  }));
}

TEST(ExecApplication, RunsToTheEndAndSplitsArgumentsAsAShellSplitsWords) {
  EXPECT_NE(MXPExecApplication("true", nullptr), 0);
  for (char const* failing : {"-c 'exit 3'", "-c 'kill -9 $$'", "'open quote"})
    EXPECT_EQ(MXPExecApplication("/bin/sh", failing), 0) << failing;
  EXPECT_EQ(MXPExecApplication("/nonexistent/program", ""), 0);
  // The script succeeds only if it gets exactly these five words.
  char const* const fiveWords =
      R"(-c '[ $# -eq 5 ] && [ "$1" = "a b" ] && [ -z "$2" ] && [ "$3" = "c\"d" ] && )"
      R"([ "$4" = "e f" ] && [ "$5" = "\$HOME" ]' sh "a b" "" "c\"d" e\ f '$HOME')";
  EXPECT_NE(MXPExecApplication("/bin/sh", fiveWords), 0);
}

}  // namespace
