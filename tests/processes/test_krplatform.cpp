#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "KRPlatform.h"
#include "ProcessHelpers.h"

namespace {

using corvanth::test::cChild;
using corvanth::test::cChildren;
using corvanth::test::gIsGone;
using corvanth::test::gWaitZombie;

void* gHandle(std::intptr_t value) { return reinterpret_cast<void*>(value); }

bool gIsOurChild(pid_t pid) { return ::waitpid(pid, nullptr, WNOHANG) != -1 || errno != ECHILD; }

TEST(KillProcess, ALiveChildIsKilledAndReaped) {
  cChildren children;
  cChild const child = children.fStart();
  EXPECT_EQ(gMXPKillProcess(child.fHandle()), eMXPKillProcessKilled);
  EXPECT_TRUE(gIsGone(child));
  EXPECT_FALSE(gIsOurChild(child.pid));
  // The pid was reaped here, so it is known as terminated rather than unknown.
  EXPECT_EQ(gMXPKillProcess(child.fHandle()), eMXPKillProcessAlreadyTerminated);
}

TEST(KillProcess, AChildThatExitedByItselfIsAlreadyTerminatedAndReaped) {
  cChildren children;
  cChild const child = children.fStart(true);
  gWaitZombie(child);
  EXPECT_EQ(gMXPKillProcess(child.fHandle()), eMXPKillProcessAlreadyTerminated);
  EXPECT_FALSE(gIsOurChild(child.pid));
}

TEST(KillProcess, AProcessThatIsGoneOrNoProcessAtAllCannotBeFound) {
  cChild const child = corvanth::test::gStartChild(true);
  ASSERT_EQ(::waitpid(child.pid, nullptr, 0), child.pid);  // reaped by someone else
  ::close(child.lifeFd);
  EXPECT_EQ(gMXPKillProcess(child.fHandle()), eMXPKillProcessCannotFind);
  // 0 and -1 would reach whole process groups; they name no process.
  EXPECT_EQ(gMXPKillProcess(gHandle(0)), eMXPKillProcessCannotFind);
  EXPECT_EQ(gMXPKillProcess(gHandle(-1)), eMXPKillProcessCannotFind);
  EXPECT_EQ(gMXPKillProcess(gHandle(std::intptr_t{1} << 40)), eMXPKillProcessCannotFind);
}

TEST(KillProcess, AProcessOfAnotherUserCannotBeKilled) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a caller of another user";
  cChildren children;
  cChild const victim = children.fStart();
  pid_t const caller = ::fork();
  ASSERT_GE(caller, 0);
  if (caller == 0) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(100);
    ::_exit(static_cast<int>(gMXPKillProcess(victim.fHandle())));
  }
  int status = 0;
  ASSERT_EQ(::waitpid(caller, &status, 0), caller);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), eMXPKillProcessCannotKill);
  EXPECT_FALSE(gIsGone(victim));
}

TEST(ExecApplication, RunsToTheEndAndTellsSuccessByExitStatus) {
  EXPECT_NE(MXPExecApplication("true", nullptr), 0);
  EXPECT_EQ(MXPExecApplication("false", ""), 0);
  EXPECT_EQ(MXPExecApplication("/bin/sh", "-c 'exit 3'"), 0);
  EXPECT_EQ(MXPExecApplication("/bin/sh", "-c 'kill -9 $$'"), 0);
  EXPECT_EQ(MXPExecApplication("/nonexistent/program", ""), 0);
  EXPECT_EQ(MXPExecApplication(nullptr, ""), 0);
  EXPECT_EQ(MXPExecApplication("true", "'open quote"), 0);
}

TEST(ExecApplication, SplitsArgumentsAsAShellSplitsWords) {
  // The script succeeds only if it gets exactly these five words.
  char const* const script =
      "-c '[ $# -eq 5 ] && [ \"$1\" = \"a b\" ] && [ -z \"$2\" ] && [ \"$3\" = \"c\\\"d\" ]"
      " && [ \"$4\" = \"e f\" ] && [ \"$5\" = \"\\$HOME\" ]' sh";
  std::string const arguments = std::string(script) + " \"a b\" \"\" \"c\\\"d\" e\\ f '$HOME'";
  EXPECT_NE(MXPExecApplication("/bin/sh", arguments.c_str()), 0) << arguments;
  EXPECT_EQ(MXPExecApplication("/bin/sh", (std::string(script) + " \"a b\" x c d e").c_str()), 0);
}

}  // namespace
