#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "ProcessHelpers.h"

namespace {

using namespace corvanth::test;
using tLines = std::vector<std::string>;
using ::testing::Contains;

struct cRun {
  int exitCode = -1;
  tLines lines, started, kills;  // all; "kill <pid>: " of each started, newest first; outcomes
};

// Runs the tool with `arguments` as a shell gives them, showing `atLine` each
// line and the tool's pid. A kill line out of the order newest first is kept whole.
cRun gRunTool(std::string const& arguments,
              std::function<void(pid_t, std::string const&)> const& atLine = {}) {
  cRun run;
  FILE* const out = ::popen(("echo $$; exec " CORVANTH_TOOL " " + arguments).c_str(), "r");
  pid_t tool = 0;  // the shell's pid, which exec hands on to the tool
  if (out == nullptr || std::fscanf(out, "%d\n", &tool) != 1) return run;
  for (char text[512]; std::fgets(text, sizeof text, out) != nullptr;) {
    std::string const line(text, std::strcspn(text, "\n"));
    run.lines.push_back(line);
    if (line.rfind("started ", 0) == 0)
      run.started.insert(run.started.begin(), "kill " + line.substr(8, line.find(':') - 7) + " ");
    std::size_t const next = run.kills.size();
    if (next < run.started.size() && line.rfind(run.started[next], 0) == 0)
      run.kills.push_back(line.substr(run.started[next].size()));
    else if (line.rfind("kill ", 0) == 0)
      run.kills.push_back(line);
    if (atLine) atLine(tool, line);
  }
  int const status = ::pclose(out);
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

TEST(CorvanthGroup, ASignalOrATimeOutKillsEachCommandWithWhatItStartedAndEndedOnesFail) {
  // Two shells each start a sleep of their own and tell its pid; the tool is stopped once
  // both did and it waits.
  std::string const command = "sh -c 'sleep 97 >/dev/null & echo child $!; wait' ';' ";
  std::vector<int> grandchildren;
  bool waiting = false, stopped = false;
  auto const stop = [&](pid_t tool, std::string const& line) {
    if (line.rfind("child ", 0) == 0)
      grandchildren.push_back(::pidfd_open(std::stoi(line.substr(6)), 0));
    waiting = waiting || line.rfind("waiting ", 0) == 0;
    if (waiting && grandchildren.size() == 2 && !stopped) stopped = ::kill(tool, SIGTERM) == 0;
  };
  // The group's own time-out bounds a run whose stop never comes.
  cRun const signalled =
      gRunTool("group --name three 20 -- " + command + command + "sleep 1002", stop);
  EXPECT_EQ(signalled.exitCode, 0);
  EXPECT_EQ(signalled.kills, tLines(3, "killed"));
  EXPECT_THAT(signalled.lines, Contains("stopping group three: SIGTERM"));
  EXPECT_THAT(signalled.lines, Contains("group three: every process killed"));
  for (int grandchild : grandchildren) {
    EXPECT_TRUE(grandchild >= 0 && gEnded(grandchild, 5000)) << "a command's own child lives on";
    ::close(grandchild);
  }

  cRun const timedOut = gRunTool("group 0.05 -- sleep 1000 ';' sleep 1000");
  EXPECT_EQ(timedOut.exitCode, 0);
  EXPECT_EQ(timedOut.kills, tLines(2, "killed"));
  EXPECT_THAT(timedOut.lines, Contains("stopping group corvanth-group: time-out"));

  // Commands that ended by themselves or never started fail the group.
  cRun const ended = gRunTool("group 1000 -- true ';' true");
  EXPECT_EQ(ended.exitCode, 1);
  EXPECT_THAT(ended.lines, Contains("stopping group corvanth-group: all commands ended"));
  EXPECT_EQ(ended.kills, tLines(2, "already terminated"));

  cRun const missing = gRunTool("group 5 -- sleep 1000 ';' /nonexistent/program 2>/dev/null");
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_EQ(missing.kills, tLines(1, "killed"));

  for (char const* usage : {"group", "group soon -- true", "group -1 -- true", "group 5 true",
                            "group 5 --", "group 5 -- true ';'"})
    EXPECT_EQ(gRunTool(usage + std::string(" 2>/dev/null")).exitCode, 2) << usage;
}

}  // namespace
