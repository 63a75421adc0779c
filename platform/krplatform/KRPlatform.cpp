#include "KRPlatform.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
// glibc 2.36 declares the pidfd calls without C linkage.
extern "C" {
#include <sys/pidfd.h>
}
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

extern char** environ;

namespace {

// How long a killed process may take to be gone before we stop watching it;
// SIGKILL is final, so the answer is "killed" all the same.
constexpr int kGoneWaitMilliseconds = 30000;

// Pids this module reaped lately: a later kill of one of them is "already
// terminated", not "cannot find". Bounded; the oldest is forgotten first.
class cReapedPids {
 public:
  void fNote(pid_t pid) {
    std::lock_guard<std::mutex> lock(mMutex);
    mPids[mNext] = pid;
    mNext = (mNext + 1) % kSize;
  }
  void fForget(pid_t pid) {
    std::lock_guard<std::mutex> lock(mMutex);
    for (pid_t& known : mPids)
      if (known == pid) known = 0;
  }
  bool fHas(pid_t pid) {
    std::lock_guard<std::mutex> lock(mMutex);
    for (pid_t known : mPids)
      if (known == pid) return true;
    return false;
  }

 private:
  static constexpr std::size_t kSize = 64;
  std::mutex mMutex;
  pid_t mPids[kSize] = {};
  std::size_t mNext = 0;
};

cReapedPids& gReaped() {
  static cReapedPids reaped;
  return reaped;
}

class cDescriptor {
 public:
  explicit cDescriptor(int fd) : mFd(fd) {}
  cDescriptor(cDescriptor const&) = delete;
  cDescriptor& operator=(cDescriptor const&) = delete;
  ~cDescriptor() {
    if (mFd >= 0) ::close(mFd);
  }
  int fGet() const { return mFd; }

 private:
  int mFd;
};

// A pidfd turns readable when its process has exited.
bool gHasExited(int pidfd, int timeoutMilliseconds) {
  pollfd watch{pidfd, POLLIN, 0};
  for (;;) {
    int const ready = ::poll(&watch, 1, timeoutMilliseconds);
    if (ready >= 0) return ready > 0;
    if (errno != EINTR) return false;
  }
}

// Reaps the process if it is our child; ECHILD says it is someone else's.
void gReapIfChild(int pidfd, pid_t pid) {
  siginfo_t info{};
  for (;;) {
    if (::waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(pidfd), &info,
                 WEXITED | WNOHANG) == 0) {
      if (info.si_pid != 0) gReaped().fNote(pid);
      return;
    }
    if (errno != EINTR) return;
  }
}

// Words as a POSIX shell splits them, without expansions. False when a quote is left open.
bool gSplitWords(char const* text, std::vector<std::string>& words) {
  std::string word;
  bool inWord = false;
  for (char const* at = text; *at != '\0'; ++at) {
    char const c = *at;
    if (c == ' ' || c == '\t' || c == '\n') {
      if (inWord) words.push_back(word);
      word.clear();
      inWord = false;
      continue;
    }
    inWord = true;
    if (c == '\\') {
      if (at[1] == '\0') {
        word += c;
      } else if (at[1] == '\n') {
        ++at;  // a line continuation
      } else {
        word += *++at;
      }
    } else if (c == '\'') {
      for (++at; *at != '\'' && *at != '\0'; ++at) word += *at;
      if (*at == '\0') return false;
    } else if (c == '"') {
      for (++at; *at != '"' && *at != '\0'; ++at) {
        if (*at == '\\' && (at[1] == '"' || at[1] == '\\' || at[1] == '$' || at[1] == '`')) {
          word += *++at;
        } else if (*at == '\\' && at[1] == '\n') {
          ++at;
        } else {
          word += *at;
        }
      }
      if (*at == '\0') return false;
    } else {
      word += c;
    }
  }
  if (inWord) words.push_back(word);
  return true;
}

}  // namespace

tMXPKillProcess_ gMXPKillProcess(void* const& handle) {
  auto const raw = reinterpret_cast<std::intptr_t>(handle);
  // 0 and negative values would name process groups, never one process.
  if (raw <= 0 || raw > INT32_MAX) return eMXPKillProcessCannotFind;
  auto const pid = static_cast<pid_t>(raw);

  // A pidfd pins the process, so the checks and the signal below all reach
  // the same one even if the pid is freed and reused meanwhile.
  cDescriptor const pidfd(::pidfd_open(pid, 0));
  if (pidfd.fGet() < 0) {
    if (errno == ESRCH)
      return gReaped().fHas(pid) ? eMXPKillProcessAlreadyTerminated : eMXPKillProcessCannotFind;
    return eMXPKillProcessCannotKill;
  }
  gReaped().fForget(pid);  // the pid stands for a living process again
  if (gHasExited(pidfd.fGet(), 0)) {
    gReapIfChild(pidfd.fGet(), pid);
    return eMXPKillProcessAlreadyTerminated;
  }
  if (::pidfd_send_signal(pidfd.fGet(), SIGKILL, nullptr, 0) != 0) {
    if (errno == ESRCH) return eMXPKillProcessAlreadyTerminated;
    return eMXPKillProcessCannotKill;
  }
  gHasExited(pidfd.fGet(), kGoneWaitMilliseconds);
  gReapIfChild(pidfd.fGet(), pid);
  return eMXPKillProcessKilled;
}

int MXPExecApplication(const char* program, const char* arguments) {
  if (program == nullptr || *program == '\0') return 0;
  std::vector<std::string> words{program};
  if (arguments != nullptr && !gSplitWords(arguments, words)) return 0;
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  pid_t pid = 0;
  if (::posix_spawnp(&pid, program, nullptr, nullptr, argv.data(), environ) != 0) return 0;
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return 0;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 1 : 0;
}
