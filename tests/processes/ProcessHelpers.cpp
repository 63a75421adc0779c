#include "ProcessHelpers.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
extern "C" {
#include <sys/pidfd.h>
}

#include <chrono>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "KRPlatform.h"

namespace corvanth::test {

bool gEnded(int pidfd, int milliseconds) {
  pollfd watch{pidfd, POLLIN, 0};
  return ::poll(&watch, 1, milliseconds) == 1;
}

bool gWithin(int milliseconds, std::function<bool()> const& done) {
  for (int waited = 0; !done(); waited += 10) {
    if (waited >= milliseconds) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

int gInChild(std::function<int()> const& body) {
  pid_t const pid = ::fork();
  if (pid == 0) ::_exit(body());
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

cChildren::~cChildren() {
  for (cChild const& child : mChildren) {
    // Only a child that nobody reaped yet is still ours to kill: its pid cannot have been reused.
    if (::waitpid(child.pid, nullptr, WNOHANG) == 0) {
      ::kill(child.pid, SIGKILL);
      ::waitpid(child.pid, nullptr, 0);
    }
    ::close(child.pidfd);
    MXPCloseProcess(child.handle);
  }
}

cChild cChildren::fStart(bool exitAtOnce) {
  pid_t const pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork");
  if (pid == 0) {
    // Only async-signal-safe calls here; the child never outlives the test.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    if (exitAtOnce) ::_exit(0);
    for (;;) ::pause();
  }
  mChildren.push_back(cChild{pid, ::pidfd_open(pid, 0), MXPOpenProcess(pid)});
  return mChildren.back();
}

void cDeathWitness::vCommitRecord(nLog::cRecord const& record) {
  if (record.text.rfind("gKillProcess", 0) != 0) return;
  cSeen seen{record.text, {}};
  for (cChild const& child : mWatched) seen.gone += gEnded(child.pidfd) ? 'x' : '-';
  mSeen.push_back(seen);
}

std::string gKillText(char const* message, cChild const& child) {
  std::ostringstream text;
  text << message << '\t' << child.handle;
  return text.str();
}

}  // namespace corvanth::test
