// Real processes for the process tests: children that live until they are
// killed, each with a handle and a pidfd of the test's own to see it end.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
extern "C" {
#include <sys/pidfd.h>
}

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "KRPlatform.h"

namespace corvanth::test {

struct cChild {
  pid_t pid = -1;
  int pidfd = -1;          // the test's own view of the child
  void* handle = nullptr;  // made when it was started
};

// True once the process of `pidfd` has ended, waiting at most `milliseconds`.
inline bool gEnded(int pidfd, int milliseconds = 0) {
  pollfd watch{pidfd, POLLIN, 0};
  return ::poll(&watch, 1, milliseconds) == 1;
}

// True once `done` holds, asking every 10 ms for at most `milliseconds`.
inline bool gWithin(int milliseconds, std::function<bool()> const& done) {
  auto const pause = std::chrono::milliseconds(10);
  for (int waited = 0; !done(); waited += 10, std::this_thread::sleep_for(pause))
    if (waited >= milliseconds) return false;
  return true;
}

// A child that waits for a signal, and dies with its parent; `exitAtOnce` makes it _exit(0).
inline pid_t gFork(bool exitAtOnce = false) {
  pid_t const pid = ::fork();
  if (pid == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (exitAtOnce) ::_exit(0);
    for (;;) ::pause();
  }
  return pid;
}

// Children started by a test; what nobody reaped yet is killed at the end.
class cChildren {
 public:
  ~cChildren() {
    for (cChild const& child : mChildren) {
      // Only a child that nobody reaped yet is still ours to kill: its pid cannot have been reused.
      if (::waitpid(child.pid, nullptr, WNOHANG) == 0 && ::kill(child.pid, SIGKILL) == 0)
        ::waitpid(child.pid, nullptr, 0);
      ::close(child.pidfd);
      MXPCloseProcess(child.handle);
    }
  }
  cChild fStart(bool exitAtOnce = false) {
    pid_t const pid = gFork(exitAtOnce);
    return mChildren.emplace_back(cChild{pid, ::pidfd_open(pid, 0), MXPOpenProcess(pid)});
  }

 private:
  std::vector<cChild> mChildren;
};

}  // namespace corvanth::test
