#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "KRPlatform.h"
#include "ProcessHelpers.h"

namespace {

using namespace corvanth::test;

bool gIsOurChild(pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) != -1 || errno != ECHILD; }

TEST(KillProcess, AHandleStaysBoundToItsProcessHoweverItEnded) {
  cChildren children;
  cChild const live = children.fStart();
  EXPECT_EQ(gMXPKillProcess(live.handle), eMXPKillProcessKilled);
  EXPECT_TRUE(gEnded(live.pidfd));
  EXPECT_FALSE(gIsOurChild(live.pid));
  EXPECT_EQ(gMXPKillProcess(live.handle), eMXPKillProcessAlreadyTerminated);

  // Ended by itself: a zombie (which the kill reaps), or reaped by the test.
  cChild const zombie = children.fStart(true), reaped = children.fStart(true);
  ASSERT_TRUE(gEnded(zombie.pidfd, 10000));
  ASSERT_EQ(::waitpid(reaped.pid, nullptr, 0), reaped.pid);
  EXPECT_EQ(gMXPKillProcess(zombie.handle), eMXPKillProcessAlreadyTerminated);
  EXPECT_FALSE(gIsOurChild(zombie.pid));
  EXPECT_EQ(gMXPKillProcess(reaped.handle), eMXPKillProcessAlreadyTerminated);

  // No handle: null, values that cannot be one, a descriptor of another kind; pids of no process.
  int const other = ::open("/dev/null", O_RDONLY);
  for (std::intptr_t value : {std::intptr_t{0}, std::intptr_t{-1}, std::intptr_t{1} << 40,
                              std::intptr_t{other}})
    EXPECT_EQ(gMXPKillProcess(reinterpret_cast<void*>(value)), eMXPKillProcessCannotFind) << value;
  ::close(other);
  for (int pid : {0, -1, reaped.pid}) EXPECT_EQ(MXPOpenProcess(pid), nullptr) << pid;
}

// Inside a pid namespace of its own, where ns_last_pid hands the pid out again.
int gKillAfterThePidWasReused() {
  if (::unshare(CLONE_NEWPID) != 0) return 100;
  return gInChild([] {
    pid_t const first = ::fork();
    if (first == 0) for (;;) ::pause();
    void* const handle = MXPOpenProcess(first);
    ::kill(first, SIGKILL);
    ::waitpid(first, nullptr, 0);
    int const lastPid = ::open("/proc/sys/kernel/ns_last_pid", O_WRONLY);
    std::string const before = std::to_string(first - 1);
    if (::write(lastPid, before.data(), before.size()) != static_cast<ssize_t>(before.size()))
      return 100;
    pid_t const second = ::fork();
    if (second == 0) for (;;) ::pause();
    if (second != first) return 100;
    int const result = gMXPKillProcess(handle);
    return result * 2 + (::waitpid(second, nullptr, WNOHANG) == 0 ? 1 : 0);
  });
}

TEST(KillProcess, NeverReachesALaterProcessThatReusesThePidOrAHostThatIgnoresSigchld) {
  int const reused = gInChild(gKillAfterThePidWasReused);
  if (reused == 100) GTEST_SKIP() << "cannot hand a pid out again here (needs root)";
  EXPECT_EQ(reused, eMXPKillProcessAlreadyTerminated * 2 + 1) << "result * 2 + later one alive";

  // The kernel reaps an ignored child itself; the handle still knows it ended.
  EXPECT_EQ(gInChild([] {
              ::signal(SIGCHLD, SIG_IGN);
              int gate[2];
              if (::pipe(gate) != 0) return 100;
              pid_t const pid = ::fork();
              if (pid == 0) {
                ::close(gate[1]);
                ::_exit(static_cast<int>(::read(gate[0], gate, 1)));
              }
              void* const handle = MXPOpenProcess(pid);
              ::close(gate[1]);
              if (!gWithin(5000, [pid] { return ::kill(pid, 0) != 0 && errno == ESRCH; }))
                return 101;
              return static_cast<int>(gMXPKillProcess(handle));
            }),
            eMXPKillProcessAlreadyTerminated);
}

TEST(KillProcess, AProcessThatOutlivesTheWaitIsNotKilledAndNeverLeftAZombie) {
  cChildren children;
  cChild const held = children.fStart();
  // A tracer that asked to see the exit holds the killed process until it lets go.
  int ready[2], release[2];
  ASSERT_EQ(::pipe(ready), 0);
  ASSERT_EQ(::pipe(release), 0);
  pid_t const tracer = ::fork();
  if (tracer == 0) {
    ::close(release[1]);
    if (::ptrace(PTRACE_SEIZE, held.pid, nullptr, PTRACE_O_TRACEEXIT) == 0 &&
        ::write(ready[1], "x", 1) == 1)
      ::read(release[0], ready, 1);
    ::_exit(0);
  }
  ::close(ready[1]);
  char seized = 0;
  bool const traced = ::read(ready[0], &seized, 1) == 1;
  if (traced) {
    EXPECT_EQ(gMXPKillProcessWithin(held.handle, 100), eMXPKillProcessCannotKill);
    EXPECT_FALSE(gEnded(held.pidfd));
  }
  ::close(release[1]);
  ::waitpid(tracer, nullptr, 0);
  ::close(ready[0]);
  ::close(release[0]);
  if (!traced) GTEST_SKIP() << "cannot trace a process here";
  // Once it ends, it is reaped without us.
  EXPECT_TRUE(gWithin(5000, [&] {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(held.pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 &&
           errno == ECHILD;
  }));
}

TEST(KillProcess, AProcessOfAnotherUserCannotBeKilled) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a caller of another user";
  cChildren children;
  cChild const victim = children.fStart();
  EXPECT_EQ(gInChild([&] {
              if (::setgid(65534) != 0 || ::setuid(65534) != 0) return 100;
              return static_cast<int>(gMXPKillProcess(victim.handle));
            }),
            eMXPKillProcessCannotKill);
  EXPECT_FALSE(gEnded(victim.pidfd));
}

TEST(ExecApplication, RunsToTheEndAndSplitsArgumentsAsAShellSplitsWords) {
  EXPECT_NE(MXPExecApplication("true", nullptr), 0);
  // Failing, killed, missing and unparsable runs all give 0.
  struct tRun {
    char const *program, *arguments;
  };
  for (tRun const run :
       {tRun{"false", ""}, tRun{"/bin/sh", "-c 'exit 3'"}, tRun{"/bin/sh", "-c 'kill -9 $$'"},
        tRun{"/nonexistent/program", ""}, tRun{nullptr, ""}, tRun{"true", "'open quote"}})
    EXPECT_EQ(MXPExecApplication(run.program, run.arguments), 0) << run.arguments;
  // The script succeeds only if it gets exactly these five words.
  std::string const script =
      "-c '[ $# -eq 5 ] && [ \"$1\" = \"a b\" ] && [ -z \"$2\" ] && [ \"$3\" = \"c\\\"d\" ]"
      " && [ \"$4\" = \"e f\" ] && [ \"$5\" = \"\\$HOME\" ]' sh";
  EXPECT_NE(
      MXPExecApplication("/bin/sh", (script + " \"a b\" \"\" \"c\\\"d\" e\\ f '$HOME'").c_str()),
      0);
  EXPECT_EQ(MXPExecApplication("/bin/sh", (script + " \"a b\" x c d e").c_str()), 0);
}

}  // namespace
