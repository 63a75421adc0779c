#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

struct cRun {
  int exitCode = -1;
  std::vector<std::string> lines;
};

// Runs the tool with its output on a pipe; once the "waiting" line came,
// sends `signal` (0: none) and reads on to the end.
cRun gRunTool(std::vector<std::string> arguments, int signal = 0) {
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
  for (;;) {
    ssize_t const got = ::read(out[0], buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    pending.append(buffer, static_cast<std::size_t>(got));
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos;
         pending.erase(0, end + 1)) {
      run.lines.push_back(pending.substr(0, end));
      if (signal != 0 && run.lines.back().rfind("waiting ", 0) == 0) ::kill(pid, signal);
    }
  }
  ::close(out[0]);
  int status = 0;
  EXPECT_EQ(::waitpid(pid, &status, 0), pid);
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

std::vector<std::string> gStartedPids(cRun const& run) {
  std::vector<std::string> pids;
  for (std::string const& line : run.lines)
    if (line.rfind("started ", 0) == 0) pids.push_back(line.substr(8, line.find(':') - 8));
  return pids;
}

std::vector<std::string> gKillLines(cRun const& run) {
  std::vector<std::string> kills;
  for (std::string const& line : run.lines)
    if (line.rfind("kill ", 0) == 0) kills.push_back(line);
  return kills;
}

TEST(CorvanthGroup, ASignalKillsTheGroupNewestFirst) {
  cRun const run = gRunTool({"group", "--name", "three", "1000", "--", "sleep", "1000", ";",
                             "sleep", "1001", ";", "sleep", "1002"},
                            SIGTERM);
  EXPECT_EQ(run.exitCode, 0);
  auto const pids = gStartedPids(run);
  ASSERT_EQ(pids.size(), 3u);
  EXPECT_EQ(gKillLines(run), (std::vector<std::string>{"kill " + pids[2] + ": killed",
                                                       "kill " + pids[1] + ": killed",
                                                       "kill " + pids[0] + ": killed"}));
  ASSERT_FALSE(run.lines.empty());
  EXPECT_EQ(run.lines.back(), "group three: every process killed");
  EXPECT_NE(std::find(run.lines.begin(), run.lines.end(), "stopping group three: SIGTERM"),
            run.lines.end());
}

TEST(CorvanthGroup, ATimeOutKillsTheGroupAndACommandThatEndedByItselfFailsIt) {
  cRun const timedOut = gRunTool({"group", "0.05", "--", "sleep", "1000", ";", "sleep", "1000"});
  EXPECT_EQ(timedOut.exitCode, 0);
  auto const pids = gStartedPids(timedOut);
  ASSERT_EQ(pids.size(), 2u);
  EXPECT_EQ(gKillLines(timedOut), (std::vector<std::string>{"kill " + pids[1] + ": killed",
                                                            "kill " + pids[0] + ": killed"}));
  EXPECT_NE(std::find(timedOut.lines.begin(), timedOut.lines.end(),
                      "stopping group corvanth-group: time-out"),
            timedOut.lines.end());

  cRun const ended = gRunTool({"group", "1000", "--", "true", ";", "true"});
  EXPECT_EQ(ended.exitCode, 1);
  EXPECT_NE(std::find(ended.lines.begin(), ended.lines.end(),
                      "stopping group corvanth-group: all commands ended"),
            ended.lines.end());
  auto const endedPids = gStartedPids(ended);
  ASSERT_EQ(endedPids.size(), 2u);
  EXPECT_EQ(gKillLines(ended),
            (std::vector<std::string>{"kill " + endedPids[1] + ": already terminated",
                                      "kill " + endedPids[0] + ": already terminated"}));
}

TEST(CorvanthGroup, BadUsageGivesTwoAndAMissingProgramOne) {
  EXPECT_EQ(gRunTool({"group"}).exitCode, 2);
  EXPECT_EQ(gRunTool({"group", "soon", "--", "true"}).exitCode, 2);
  EXPECT_EQ(gRunTool({"group", "-1", "--", "true"}).exitCode, 2);
  EXPECT_EQ(gRunTool({"group", "5", "true"}).exitCode, 2);
  EXPECT_EQ(gRunTool({"group", "5", "--"}).exitCode, 2);
  EXPECT_EQ(gRunTool({"group", "5", "--", "true", ";"}).exitCode, 2);
  cRun const missing = gRunTool({"group", "5", "--", "sleep", "1000", ";", "/nonexistent/program"});
  EXPECT_EQ(missing.exitCode, 1);
  auto const pids = gStartedPids(missing);
  ASSERT_EQ(pids.size(), 1u);
  EXPECT_EQ(gKillLines(missing), std::vector<std::string>{"kill " + pids[0] + ": killed"});
}

}  // namespace
