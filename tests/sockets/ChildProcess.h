// A program of this build started by a test, its standard output and error on
// one pipe, read and waited for within a bound.
#pragma once

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

extern char** environ;

namespace corvanth::test {

class cChildProcess {
 public:
  explicit cChildProcess(std::vector<std::string> arguments) {
    int out[2] = {-1, -1};
    if (pipe(out) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, out[1], 2);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    posix_spawn_file_actions_addclose(&actions, out[1]);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    if (posix_spawn(&mPid, argv[0], &actions, nullptr, argv.data(), environ) != 0) mPid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    mOutput = out[0];
  }
  cChildProcess(cChildProcess const&) = delete;
  cChildProcess& operator=(cChildProcess const&) = delete;
  ~cChildProcess() {
    if (mPid > 0 && !mReaped) {
      kill(mPid, SIGKILL);
      waitpid(mPid, nullptr, 0);
    }
    if (mOutput >= 0) close(mOutput);
  }

  bool fStarted() const { return mPid > 0; }
  pid_t fPid() const { return mPid; }

  // The next line without its end, or what came before the bound or the end.
  std::string fReadLine(std::chrono::seconds bound) {
    auto const end = std::chrono::steady_clock::now() + bound;
    while (mPending.find('\n') == std::string::npos && fReadSome(end)) {
    }
    std::size_t const newline = mPending.find('\n');
    std::string line = mPending.substr(0, newline);
    mPending.erase(0, newline == std::string::npos ? mPending.size() : newline + 1);
    return line;
  }
  // Everything up to the end of the output, or to the bound.
  std::string fReadAll(std::chrono::seconds bound) {
    auto const end = std::chrono::steady_clock::now() + bound;
    while (fReadSome(end)) {
    }
    std::string all;
    all.swap(mPending);
    return all;
  }
  // The exit status, or -1 when the child did not end within the bound (it
  // is killed then) or did not exit normally.
  int fWait(std::chrono::seconds bound) {
    if (mPid <= 0 || mReaped) return -1;
    int const watch = static_cast<int>(syscall(SYS_pidfd_open, mPid, 0));
    if (watch >= 0) {
      pollfd entry{watch, POLLIN, 0};
      int const ready = poll(&entry, 1, static_cast<int>(std::chrono::milliseconds(bound).count()));
      close(watch);
      if (ready <= 0) kill(mPid, SIGKILL);
    }
    int status = 0;
    mReaped = waitpid(mPid, &status, 0) == mPid;
    return mReaped && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  bool fReadSome(std::chrono::steady_clock::time_point end) {
    auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (mOutput < 0 || left.count() <= 0) return false;
    pollfd entry{mOutput, POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(left.count())) <= 0) return false;
    char buffer[4096];
    ssize_t const got = read(mOutput, buffer, sizeof buffer);
    if (got <= 0) return false;
    mPending.append(buffer, static_cast<std::size_t>(got));
    return true;
  }

  pid_t mPid = -1;
  int mOutput = -1;
  bool mReaped = false;
  std::string mPending;
};

}  // namespace corvanth::test
