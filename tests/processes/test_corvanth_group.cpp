#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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

bool gHasLine(cRun const& run, std::string const& line) {
  return std::find(run.lines.begin(), run.lines.end(), line) != run.lines.end();
}

// The kill lines expected for the started commands, newest first, each with `outcome`.
std::vector<std::string> gExpectedKills(cRun const& run, std::string const& outcome) {
  std::vector<std::string> kills;
  for (std::string const& line : run.lines)
    if (line.rfind("started ", 0) == 0)
      kills.insert(kills.begin(), "kill " + line.substr(8, line.find(':') - 8) + ": " + outcome);
  return kills;
}

std::vector<std::string> gKillLines(cRun const& run) {
  std::vector<std::string> kills;
  for (std::string const& line : run.lines)
    if (line.rfind("kill ", 0) == 0) kills.push_back(line);
  return kills;
}

TEST(CorvanthGroup, ASignalOrATimeOutKillsTheGroupNewestFirst) {
  cRun const signalled = gRunTool({"group", "--name", "three", "1000", "--", "sleep", "1000", ";",
                                   "sleep", "1001", ";", "sleep", "1002"},
                                  SIGTERM);
  EXPECT_EQ(signalled.exitCode, 0);
  EXPECT_EQ(gExpectedKills(signalled, "killed").size(), 3u);
  EXPECT_EQ(gKillLines(signalled), gExpectedKills(signalled, "killed"));
  EXPECT_TRUE(gHasLine(signalled, "stopping group three: SIGTERM"));
  ASSERT_FALSE(signalled.lines.empty());
  EXPECT_EQ(signalled.lines.back(), "group three: every process killed");

  cRun const timedOut = gRunTool({"group", "0.05", "--", "sleep", "1000", ";", "sleep", "1000"});
  EXPECT_EQ(timedOut.exitCode, 0);
  EXPECT_EQ(gExpectedKills(timedOut, "killed").size(), 2u);
  EXPECT_EQ(gKillLines(timedOut), gExpectedKills(timedOut, "killed"));
  EXPECT_TRUE(gHasLine(timedOut, "stopping group corvanth-group: time-out"));
}

TEST(CorvanthGroup, CommandsThatEndedByThemselvesOrNeverStartedFailTheGroup) {
  cRun const ended = gRunTool({"group", "1000", "--", "true", ";", "true"});
  EXPECT_EQ(ended.exitCode, 1);
  EXPECT_TRUE(gHasLine(ended, "stopping group corvanth-group: all commands ended"));
  EXPECT_EQ(gExpectedKills(ended, "already terminated").size(), 2u);
  EXPECT_EQ(gKillLines(ended), gExpectedKills(ended, "already terminated"));

  cRun const missing = gRunTool({"group", "5", "--", "sleep", "1000", ";", "/nonexistent/program"});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_EQ(gExpectedKills(missing, "killed").size(), 1u);
  EXPECT_EQ(gKillLines(missing), gExpectedKills(missing, "killed"));

  for (std::vector<std::string> const& usage :
       std::vector<std::vector<std::string>>{{"group"},
                                             {"group", "soon", "--", "true"},
                                             {"group", "-1", "--", "true"},
                                             {"group", "5", "true"},
                                             {"group", "5", "--"},
                                             {"group", "5", "--", "true", ";"}})
    EXPECT_EQ(gRunTool(usage).exitCode, 2) << usage.size();
}

}  // namespace
