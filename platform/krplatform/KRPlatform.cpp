#include "KRPlatform.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
// glibc 2.36 declares the pidfd calls without C linkage.
extern "C" {
#include <sys/pidfd.h>
}
#include <fcntl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

extern char** environ;

namespace {

// How long a killed process may take to be gone; one that takes longer is
// reported as not killed.
constexpr int kGoneWaitMilliseconds = 30000;

// A handle is the pidfd's descriptor, with this bit set when the kill is to
// reach the process's group too; descriptors never reach it.
constexpr std::uintptr_t kGroupBit = std::uintptr_t{1} << 31;

// Not defined by the C library's headers yet (Linux 6.9).
constexpr unsigned kSignalProcessGroup = 1u << 2;

struct cHandle {
  int pidfd = -1;  // -1: the value is no handle
  bool group = false;
};

cHandle gHandleOf(void* handle) {
  auto const raw = reinterpret_cast<std::uintptr_t>(handle);
  std::uintptr_t const fd = raw & ~kGroupBit;
  if (fd == 0 || fd > INT_MAX) return {};
  return {static_cast<int>(fd), (raw & kGroupBit) != 0};
}

void* gOpen(int pid, bool group) {
  if (pid <= 0) return nullptr;
  int fd = ::pidfd_open(pid, 0);
  if (fd < 0) return nullptr;
  if (fd == 0) {
    // 0 would read as a null handle.
    int const moved = ::fcntl(fd, F_DUPFD_CLOEXEC, 1);
    ::close(fd);
    if (moved < 0) return nullptr;
    fd = moved;
  }
  return reinterpret_cast<void*>(static_cast<std::uintptr_t>(fd) | (group ? kGroupBit : 0));
}

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
void gReapIfChild(int pidfd) {
  siginfo_t info{};
  while (::waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(pidfd), &info,
                  WEXITED | WNOHANG) != 0 &&
         errno == EINTR) {
  }
}

bool gIsUnreapedChild(int pidfd) {
  siginfo_t info{};
  return ::waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(pidfd), &info,
                  WEXITED | WNOHANG | WNOWAIT) == 0;
}

// A child of ours that outlived the wait after SIGKILL still ends some day;
// someone must reap it then, or it stays a zombie of ours. The thread waits
// on the pidfd rather than in waitid, which would take the stops that a
// tracer of the child waits for.
void gReapWhenGone(int pidfd) {
  if (!gIsUnreapedChild(pidfd)) return;
  int const kept = ::fcntl(pidfd, F_DUPFD_CLOEXEC, 0);
  if (kept < 0) return;
  try {
    std::thread([kept] {
      gHasExited(kept, -1);
      gReapIfChild(kept);
      ::close(kept);
    }).detach();
  } catch (std::system_error const&) {
    ::close(kept);
  }
}

// The pid behind a pidfd, as the kernel shows it; 0 when unknown.
pid_t gPidOf(int pidfd) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/self/fdinfo/%d", pidfd);
  FILE* const info = std::fopen(path, "re");
  if (info == nullptr) return 0;
  int pid = 0;
  char line[128];
  while (std::fgets(line, sizeof line, info) != nullptr)
    if (std::sscanf(line, "Pid: %d", &pid) == 1) break;
  std::fclose(info);
  return pid > 0 ? pid : 0;
}

// Ends what is left of the group that the process leads. Through the pidfd
// the group stays the one the handle was made for; older kernels need the
// group id, safe only while our unreaped child holds it.
void gKillGroup(int pidfd) {
  if (::pidfd_send_signal(pidfd, SIGKILL, nullptr, kSignalProcessGroup) == 0 || errno != EINVAL)
    return;
  if (!gIsUnreapedChild(pidfd)) return;
  if (pid_t const leader = gPidOf(pidfd); leader > 0) ::kill(-leader, SIGKILL);
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

void* MXPOpenProcess(int pid) { return gOpen(pid, false); }

void* MXPOpenProcessGroup(int pid) { return gOpen(pid, true); }

void MXPCloseProcess(void* handle) {
  if (cHandle const bound = gHandleOf(handle); bound.pidfd > 0) ::close(bound.pidfd);
}

tMXPKillProcess_ gMXPKillProcess(void* const& handle) {
  return gMXPKillProcessWithin(handle, kGoneWaitMilliseconds);
}

tMXPKillProcess_ gMXPKillProcessWithin(void* const& handle, int milliseconds) {
  cHandle const bound = gHandleOf(handle);
  if (bound.pidfd < 0) return eMXPKillProcessCannotFind;
  // Signal 0 tells a pidfd from any other descriptor; ESRCH means the
  // process was reaped, and a pidfd never names another process.
  bool reaped = false;
  if (::pidfd_send_signal(bound.pidfd, 0, nullptr, 0) != 0) {
    if (errno == ESRCH) {
      reaped = true;
    } else if (errno != EPERM) {
      return eMXPKillProcessCannotFind;
    }
  }
  bool const ended = reaped || gHasExited(bound.pidfd, 0);
  // A leader that ended by itself may have left its children running.
  if (bound.group) gKillGroup(bound.pidfd);
  if (ended) {
    gReapIfChild(bound.pidfd);
    return eMXPKillProcessAlreadyTerminated;
  }
  if (::pidfd_send_signal(bound.pidfd, SIGKILL, nullptr, 0) != 0)
    return errno == ESRCH ? eMXPKillProcessAlreadyTerminated : eMXPKillProcessCannotKill;
  if (!gHasExited(bound.pidfd, milliseconds < 0 ? 0 : milliseconds)) {
    gReapWhenGone(bound.pidfd);
    return eMXPKillProcessCannotKill;
  }
  gReapIfChild(bound.pidfd);
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
