// A program started by a test, its output read and the program waited for
// within a bound. Its standard error shares the output pipe, or, when the
// test talks to it through its standard input, goes nowhere.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace corvanth::test {

class cChildProcess {
 public:
  explicit cChildProcess(std::vector<std::string> arguments, bool withInput = false) {
    int out[2] = {-1, -1}, in[2] = {-1, -1};  // close-on-exec: no other child inherits them
    if (pipe2(out, O_CLOEXEC) != 0 || (withInput && pipe2(in, O_CLOEXEC) != 0)) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    if (withInput) posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    if (withInput) posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    if (!withInput) posix_spawn_file_actions_adddup2(&actions, out[1], 2);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    if (posix_spawnp(&mPid, argv[0], &actions, nullptr, argv.data(), environ) != 0) mPid = -1;
    posix_spawn_file_actions_destroy(&actions);
    for (int end : {out[1], in[0]}) close(end);
    mOutput = out[0];
    mInput = in[1];
  }
  cChildProcess(cChildProcess const&) = delete;
  cChildProcess& operator=(cChildProcess const&) = delete;
  ~cChildProcess() {
    if (mInput >= 0) close(mInput);
    fFinish(std::chrono::seconds(0));
    if (mOutput >= 0) close(mOutput);
  }

  bool fWrite(std::string const& bytes) {
    return ::write(mInput, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  }
  // All the output so far, once there are at least count bytes, or at the end or the bound.
  std::string const& fRead(std::size_t count, std::chrono::seconds bound) {
    auto const end = std::chrono::steady_clock::now() + bound;
    while (mPending.size() < count && fReadSome(end)) {}
    return mPending;
  }
  // The next line without its end, or what came before the bound or the end.
  std::string fReadLine(std::chrono::seconds bound) {
    auto const end = std::chrono::steady_clock::now() + bound;
    while (mPending.find('\n') == std::string::npos && fReadSome(end)) {}
    std::size_t const newline = std::min(mPending.find('\n'), mPending.size());
    std::string line = mPending.substr(0, newline);
    mPending.erase(0, newline + 1);
    return line;
  }
  // The exit status (-1 when the child did not end its output within the
  // bound, it is killed then, or did not exit normally) and the rest of its output.
  std::pair<int, std::string> fFinish(std::chrono::seconds bound) {
    auto const end = std::chrono::steady_clock::now() + bound;
    while (fReadSome(end)) {}
    int status = -1;
    if (mPid > 0) {
      if (!mEnded) kill(mPid, SIGKILL);
      if (waitpid(mPid, &status, 0) != mPid || !WIFEXITED(status) || !mEnded) status = -1;
      mPid = -1;
    }
    return {status == -1 ? -1 : WEXITSTATUS(status), std::exchange(mPending, {})};
  }

 private:
  bool fReadSome(std::chrono::steady_clock::time_point end) {
    auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    pollfd entry{mOutput, POLLIN, 0};
    if (mOutput < 0 || mEnded || poll(&entry, 1, int(std::max<long>(left.count(), 0))) <= 0) return false;
    char buffer[65536];
    ssize_t const got = read(mOutput, buffer, sizeof buffer);
    mEnded = got <= 0;
    if (!mEnded) mPending.append(buffer, static_cast<std::size_t>(got));
    return !mEnded;
  }

  pid_t mPid = -1;
  int mInput = -1;
  int mOutput = -1;
  bool mEnded = false;
  std::string mPending;
};

}  // namespace corvanth::test
