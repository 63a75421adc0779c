#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
extern "C" {
#include <sys/pidfd.h>
}

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "ProcessHelpers.h"

extern char** environ;

namespace {

using corvanth::test::gEnded;
using corvanth::test::gWithin;
using tLines = std::vector<std::string>;

struct cRun {
  int exitCode = -1;
  tLines lines, kills, started;  // all output; "kill " lines; "kill <pid>: " of each started, newest first
  bool fHas(std::string const& line) const {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }
  tLines fExpectedKills(std::string const& outcome) const {
    tLines expected;
    for (std::string const& kill : started) expected.push_back(kill + outcome);
    return expected;
  }
};

// Runs the tool with its output on a pipe; once the "waiting" line came, runs
// `atWaiting` and sends `signal` (0: none), then reads on to the end.
cRun gRunTool(tLines arguments, int signal = 0, std::function<void()> const& atWaiting = {}) {
  arguments.insert(arguments.begin(), CORVANTH_TOOL);
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  int out[2];
  EXPECT_EQ(::pipe(out), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  pid_t pid = 0;
  EXPECT_EQ(posix_spawn(&pid, CORVANTH_TOOL, &actions, nullptr, argv.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);

  cRun run;
  std::string pending;
  char buffer[512];
  for (ssize_t got; (got = ::read(out[0], buffer, sizeof buffer)) != 0;) {
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) break;
    pending.append(buffer, static_cast<std::size_t>(got));
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos;
         pending.erase(0, end + 1)) {
      std::string const line = pending.substr(0, end);
      run.lines.push_back(line);
      if (line.rfind("kill ", 0) == 0) run.kills.push_back(line);
      if (line.rfind("started ", 0) == 0)
        run.started.insert(run.started.begin(), "kill " + line.substr(8, line.find(':') - 7) + " ");
      if (line.rfind("waiting ", 0) != 0) continue;
      if (atWaiting) atWaiting();
      if (signal != 0) ::kill(pid, signal);
    }
  }
  ::close(out[0]);
  int status = 0;
  EXPECT_EQ(::waitpid(pid, &status, 0), pid);
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

TEST(CorvanthGroup, ASignalOrATimeOutKillsEachCommandWithWhatItStartedNewestFirst) {
  // Two shells each start a sleep of their own and tell its pid.
  std::string const files[2] = {::testing::TempDir() + "grandchild-1",
                                ::testing::TempDir() + "grandchild-2"};
  std::vector<int> grandchildren;
  auto const watch = [&] {
    for (std::string const& file : files) {
      int pid = 0;
      EXPECT_TRUE(gWithin(5000, [&] { return (std::ifstream(file) >> pid) && pid > 0; })) << file;
      grandchildren.push_back(::pidfd_open(pid, 0));
      EXPECT_GE(grandchildren.back(), 0);
    }
  };
  for (std::string const& file : files) std::remove(file.c_str());
  cRun const signalled = gRunTool(
      {"group", "--name", "three", "1000", "--", "sh", "-c", "sleep 97 & echo $! >" + files[0] + "; wait",
       ";", "sh", "-c", "sleep 97 & echo $! >" + files[1] + "; wait", ";", "sleep", "1002"},
      SIGTERM, watch);
  EXPECT_EQ(signalled.exitCode, 0);
  EXPECT_EQ(signalled.kills.size(), 3u);
  EXPECT_EQ(signalled.kills, signalled.fExpectedKills("killed"));
  EXPECT_TRUE(signalled.fHas("stopping group three: SIGTERM"));
  ASSERT_FALSE(signalled.lines.empty());
  EXPECT_EQ(signalled.lines.back(), "group three: every process killed");
  for (int grandchild : grandchildren) {
    EXPECT_TRUE(gEnded(grandchild, 5000)) << "a command's own child lives on";
    ::close(grandchild);
  }

  cRun const timedOut = gRunTool({"group", "0.05", "--", "sleep", "1000", ";", "sleep", "1000"});
  EXPECT_EQ(timedOut.exitCode, 0);
  EXPECT_EQ(timedOut.kills.size(), 2u);
  EXPECT_EQ(timedOut.kills, timedOut.fExpectedKills("killed"));
  EXPECT_TRUE(timedOut.fHas("stopping group corvanth-group: time-out"));
}

TEST(CorvanthGroup, CommandsThatEndedByThemselvesOrNeverStartedFailTheGroup) {
  cRun const ended = gRunTool({"group", "1000", "--", "true", ";", "true"});
  EXPECT_EQ(ended.exitCode, 1);
  EXPECT_TRUE(ended.fHas("stopping group corvanth-group: all commands ended"));
  EXPECT_EQ(ended.kills.size(), 2u);
  EXPECT_EQ(ended.kills, ended.fExpectedKills("already terminated"));

  cRun const missing = gRunTool({"group", "5", "--", "sleep", "1000", ";", "/nonexistent/program"});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_EQ(missing.kills.size(), 1u);
  EXPECT_EQ(missing.kills, missing.fExpectedKills("killed"));

  for (tLines const& usage : std::vector<tLines>{{"group"},
                                                 {"group", "soon", "--", "true"},
                                                 {"group", "-1", "--", "true"},
                                                 {"group", "5", "true"},
                                                 {"group", "5", "--"},
                                                 {"group", "5", "--", "true", ";"}})
    EXPECT_EQ(gRunTool(usage).exitCode, 2) << usage.size();
}

}  // namespace
