#include <gtest/gtest.h>
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

TEST(KillProcess, TellsKilledAlreadyTerminatedAndCannotFindApartAndReaps) {
  cChildren children;
  cChild const live = children.fStart();
  EXPECT_EQ(gMXPKillProcess(live.fHandle()), eMXPKillProcessKilled);
  EXPECT_TRUE(gIsGone(live));
  EXPECT_FALSE(gIsOurChild(live.pid));
  // The pid was reaped here, so it is known as terminated rather than unknown.
  EXPECT_EQ(gMXPKillProcess(live.fHandle()), eMXPKillProcessAlreadyTerminated);

  cChild const exited = children.fStart(true);
  gWaitZombie(exited);
  EXPECT_EQ(gMXPKillProcess(exited.fHandle()), eMXPKillProcessAlreadyTerminated);
  EXPECT_FALSE(gIsOurChild(exited.pid));

  cChild const reapedElsewhere = children.fStart(true);
  ASSERT_EQ(::waitpid(reapedElsewhere.pid, nullptr, 0), reapedElsewhere.pid);
  EXPECT_EQ(gMXPKillProcess(reapedElsewhere.fHandle()), eMXPKillProcessCannotFind);
  // 0 and -1 would reach whole process groups; they name no process.
  for (std::intptr_t value : {std::intptr_t{0}, std::intptr_t{-1}, std::intptr_t{1} << 40})
    EXPECT_EQ(gMXPKillProcess(reinterpret_cast<void*>(value)), eMXPKillProcessCannotFind);
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
