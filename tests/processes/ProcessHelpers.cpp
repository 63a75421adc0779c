#include "ProcessHelpers.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <sstream>
#include <stdexcept>

namespace corvanth::test {

void* cChild::fHandle() const { return reinterpret_cast<void*>(static_cast<std::intptr_t>(pid)); }

bool gIsGone(cChild const& child) {
  pollfd watch{child.lifeFd, POLLIN, 0};
  return ::poll(&watch, 1, 0) == 1 && (watch.revents & (POLLHUP | POLLIN)) != 0;
}

void gWaitZombie(cChild const& child) {
  siginfo_t info{};
  while (::waitid(P_PID, static_cast<id_t>(child.pid), &info, WEXITED | WNOWAIT) != 0 &&
         errno == EINTR) {
  }
}

cChildren::~cChildren() {
  for (cChild const& child : mChildren) {
    // Only a child that nobody reaped yet is still ours to kill: its pid cannot have been reused.
    if (::waitpid(child.pid, nullptr, WNOHANG) == 0) {
      ::kill(child.pid, SIGKILL);
      ::waitpid(child.pid, nullptr, 0);
    }
    ::close(child.lifeFd);
  }
}

cChild cChildren::fStart(bool exitAtOnce) {
  int life[2];
  if (::pipe(life) != 0) throw std::runtime_error("pipe");
  pid_t const pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork");
  if (pid == 0) {
    // Only async-signal-safe calls here; the child never outlives the test.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::close(life[0]);
    if (exitAtOnce) ::_exit(0);
    for (;;) ::pause();
  }
  ::close(life[1]);
  mChildren.push_back(cChild{pid, life[0]});
  return mChildren.back();
}

cDeathWitness::cDeathWitness(std::vector<cChild> watched) : mWatched(std::move(watched)) {}
cDeathWitness::~cDeathWitness() = default;

void cDeathWitness::vCommitRecord(nLog::cRecord const& record) {
  if (record.text.rfind("gKillProcess", 0) != 0) return;
  cSeen seen{record.text, {}};
  for (cChild const& child : mWatched) seen.gone += gIsGone(child) ? 'x' : '-';
  mSeen.push_back(seen);
}

std::string gKillText(char const* message, cChild const& child) {
  std::ostringstream text;
  text << message << '\t' << child.fHandle();
  return text.str();
}

}  // namespace corvanth::test
