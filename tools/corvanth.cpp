// corvanth: the library's front for people and scripts.
//
//   corvanth --version        print the library's version
//   corvanth log-demo         write one log record of each tag to standard output
//   corvanth group ...        start commands as one named group, kill it newest first
//   corvanth serve ...        answer messages whose data is a parameter string form
//   corvanth send ...         send one such message and print the answer
//   corvanth local_thr ...    frame throughput between two processes, with remote_thr
//   corvanth help             this text
//
// Exit codes: 0 success, 1 failure while running, 2 bad usage.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "CorvanthUtil.h"
#include "corvanth_net.h"
#include "corvanth_text.h"
#include "corvanth_host.h"
#include "corvanth_window.h"

namespace {

int gUsage(FILE* out) {
  std::fprintf(
      out,
      "usage: corvanth <command>\n"
      "\n"
      "commands:\n"
      "  --version    print the library's version\n"
      "  log-demo     write one log record of each tag to standard output, one line each:\n"
      "               UTC time, pid, thread id, tag, module, source:line, text (tab-separated)\n"
      "  group [--name <name>] <seconds> -- <command> [<arg>...] [';' <command> [<arg>...]]...\n"
      "               start the commands as one named group, each in a process group of its\n"
      "               own; on SIGINT, SIGTERM, the time-out or when all have ended, kill them\n"
      "               newest first, each with the processes it started, and print each kill\n"
      "               step's outcome (exit 1 unless every kill step succeeded)\n"
      "%s%s%s%s%s%s"
      "  help         print this text\n"
      "\n"
      "environment:\n"
      "  CORVANTH_LOG       tags or groups that reach the default log target\n"
      "                     (comma list, 'all' or 'none'; default: errors,warnings)\n"
      "  CORVANTH_LOG_FILE  append log records to this file instead of standard error\n",
      nCorvanthTool::gNetUsage().c_str(), nCorvanthTool::gSettingsUsage().c_str(),
      nCorvanthTool::gConvertUsage().c_str(), nCorvanthTool::gWindowUsage().c_str(),
      nCorvanthTool::gServiceUsage().c_str(), nCorvanthTool::gReportUsage().c_str());
  return out == stdout ? 0 : 2;
}

int gLogDemo() {
  // Every tag to standard output, and nothing twice through the default target.
  nLog::gDetachTarget(nLog::gDefaultTarget());
  nLog::cDescriptorTarget out(1);
  if (!nLog::gAttachTarget(out, "all")) return 1;
  CORVANTH_LOG(nLog::nBasic::sErrorTag_, "corvanth", "an error record");
  CORVANTH_LOG(nLog::nBasic::sErrorPerformanceTag_, "corvanth", "an error record about performance");
  CORVANTH_LOG(nLog::nBasic::sWarningTag_, "corvanth", "a warning record");
  CORVANTH_LOG(nLog::nBasic::sWarningPerformanceTag_, "corvanth", "a warning record about performance");
  CORVANTH_LOG(nLog::nBasic::sIncompleteTag_, "corvanth", "a path marked incomplete");
  CORVANTH_LOG(nLog::nBasic::sExecutionTag_, "corvanth", "an execution record");
  CORVANTH_LOG(nLog::nBasic::sTraceTag_, "corvanth", "a trace record");
  CORVANTH_LOG(nLog::nBasic::sTraceDebugInfoTag_, "corvanth", "a trace record with debug information");
  CORVANTH_LOG(nCorvanth::sTraceTag_, "corvanth", "a transport trace record");
  CORVANTH_ASSERT_AT(false, "PACKMSG", 54);
  nLog::gDetachTarget(out);
  return 0;
}

// --- group: start commands as one named group, kill it newest first ----------

// Prints each kill step of the group as "kill <pid>: <outcome>".
class cKillStepPrinter : public nLog::iTargetUnit {
 public:
  // The pid of each handle, which the kill step's text names by its value.
  std::vector<std::pair<std::uintptr_t, pid_t>> pids;

 private:
  void vCommitRecord(nLog::cRecord const& record) override {
    std::string_view text = record.text;
    std::string_view const prefix = "gKillProcess(%d) ";
    if (text.substr(0, prefix.size()) != prefix) return;
    text.remove_prefix(prefix.size());
    std::size_t const tab = text.find('\t');
    std::string const handle(text.substr(tab == std::string_view::npos ? text.size() : tab + 1));
    std::uintptr_t const value = std::strtoull(handle.c_str(), nullptr, 16);
    long long pid = -1;
    for (auto const& [known, itsPid] : pids)
      if (known == value) pid = itsPid;
    std::printf("kill %lld: %.*s\n", pid, static_cast<int>(text.substr(0, tab).size()),
                text.data());
    std::fflush(stdout);
  }
};

int gGroup(int argc, char** argv) {
  auto usage = [] {
    std::fputs(
        "usage: corvanth group [--name <name>] <seconds> -- <command> [<arg>...] [';' <command> "
        "...]\n",
        stderr);
    return 2;
  };
  RWCString name("corvanth-group");
  int at = 2;
  if (at + 1 < argc && std::string_view(argv[at]) == "--name") {
    name = argv[at + 1];
    at += 2;
  }
  if (at + 2 >= argc || std::string_view(argv[at + 1]) != "--") return usage();
  char* end = nullptr;
  double const seconds = std::strtod(argv[at], &end);
  if (end == argv[at] || *end != '\0' || !std::isfinite(seconds) || seconds <= 0 || seconds > 1e6)
    return usage();
  std::vector<std::vector<char*>> commands(1);
  for (at += 2; at < argc; ++at) {
    if (std::string_view(argv[at]) == ";") {
      commands.emplace_back();
    } else {
      commands.back().push_back(argv[at]);
    }
  }
  for (std::vector<char*>& command : commands) {
    if (command.empty()) return usage();
    command.push_back(nullptr);
  }

  // The signals wait in sigtimedwait; the children get default handling, and
  // each a process group of its own, so that a terminal's ^C reaches only us
  // and the kill of a command reaches the processes it started. An inherited
  // SIG_IGN would let ended commands vanish unseen.
  ::signal(SIGCHLD, SIG_DFL);
  sigset_t wanted;
  sigemptyset(&wanted);
  sigaddset(&wanted, SIGINT);
  sigaddset(&wanted, SIGTERM);
  sigaddset(&wanted, SIGCHLD);
  sigset_t previous;
  pthread_sigmask(SIG_BLOCK, &wanted, &previous);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &wanted);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&attributes, 0);

  ProcessesGroupManager manager;
  cKillStepPrinter printer;
  std::vector<pid_t> started;
  bool failed = false;
  for (std::vector<char*>& command : commands) {
    pid_t pid = 0;
    int const error = posix_spawnp(&pid, command[0], nullptr, &attributes, command.data(), environ);
    if (error != 0) {
      std::fprintf(stderr, "corvanth group: cannot start '%s': %s\n", command[0],
                   std::strerror(error));
      failed = true;
      break;
    }
    started.push_back(pid);
    // Nothing reaps the command before its kill step, so its pid is still its own here.
    void* handle = MXPOpenProcessGroup(pid);
    if (handle == nullptr) {
      ::kill(-pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
      failed = true;
      break;
    }
    printer.pids.emplace_back(reinterpret_cast<std::uintptr_t>(handle), pid);
    if (manager.AddProcessToGroup(name, handle) == nullptr) failed = true;
    std::printf("started %d: %s\n", static_cast<int>(pid), command[0]);
  }
  posix_spawnattr_destroy(&attributes);

  char const* reason = "a command could not be started";
  if (!failed) {
    std::printf("waiting up to %g s for group %s\n", seconds, name.c_str());
    std::fflush(stdout);
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(seconds);
    deadline.tv_nsec += static_cast<long>((seconds - std::floor(seconds)) * 1e9);
    if (deadline.tv_nsec >= 1000000000L) {
      ++deadline.tv_sec;
      deadline.tv_nsec -= 1000000000L;
    }
    for (reason = nullptr; reason == nullptr;) {
      timespec now;
      clock_gettime(CLOCK_MONOTONIC, &now);
      long long const left =
          (deadline.tv_sec - now.tv_sec) * 1000000000LL + (deadline.tv_nsec - now.tv_nsec);
      if (left <= 0) {
        reason = "time-out";
        break;
      }
      timespec const wait{static_cast<time_t>(left / 1000000000LL),
                          static_cast<long>(left % 1000000000LL)};
      int const signal = sigtimedwait(&wanted, nullptr, &wait);
      if (signal == SIGINT) reason = "SIGINT";
      if (signal == SIGTERM) reason = "SIGTERM";
      if (signal == SIGCHLD) {
        // Ended commands stay zombies until the kill step reaps them.
        std::size_t ended = 0;
        for (pid_t pid : started) {
          siginfo_t info{};
          if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
              info.si_pid != 0)
            ++ended;
        }
        if (ended == started.size()) reason = "all commands ended";
      }
    }
  }
  std::printf("stopping group %s: %s\n", name.c_str(), reason);
  std::fflush(stdout);

  nLog::gAttachTarget(printer, "Execution");
  bool const killed = !started.empty() && manager.TerminateGroup(name);
  nLog::gDetachTarget(printer);
  for (auto const& [handle, pid] : printer.pids) MXPCloseProcess(reinterpret_cast<void*>(handle));
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  std::printf("group %s: %s\n", name.c_str(),
              killed ? "every process killed" : "not every kill step succeeded");
  return killed && !failed ? 0 : 1;
}

}  // namespace

#if defined(__SANITIZE_ADDRESS__)
// A failed TLS accept leaves its accepted connection open and unreferenced by
// design, and serve ends right after one: no leak for the sanitizer to fail on.
extern "C" __attribute__((visibility("default"), used)) char const* __lsan_default_suppressions() {
  return "leak:StreamSocket::Accept\n";
}
#endif

int main(int argc, char** argv) {
  // Started by the service manager with no arguments: run as the host service.
  if (argc < 2 && std::getenv("INVOCATION_ID") != nullptr) return nCorvanthTool::gHostService();
  if (argc < 2) return gUsage(stderr);
  std::string_view const command = argv[1];
  if (command == "--version" || command == "version") {
    std::printf("corvanth %s (CorvanthUtil %s)\n", CORVANTH_VERSION_TEXT, nCorvanth::gVersion());
    return 0;
  }
  if (command == "help" || command == "--help" || command == "-h") return gUsage(stdout);
  if (command == "log-demo") return gLogDemo();
  if (command == "group") return gGroup(argc, argv);
  if (command == "serve") return nCorvanthTool::gServe(argc, argv);
  if (command == "send") return nCorvanthTool::gSend(argc, argv);
  if (command == "local_thr") return nCorvanthTool::gLocalThr(argc, argv);
  if (command == "remote_thr") return nCorvanthTool::gRemoteThr(argc, argv);
  if (command == "local_lat") return nCorvanthTool::gLocalLat(argc, argv);
  if (command == "remote_lat") return nCorvanthTool::gRemoteLat(argc, argv);
  if (command == "window") return nCorvanthTool::gWindow(argc, argv);
  if (command == "service") return nCorvanthTool::gService(argc, argv);
  if (command == "report") return nCorvanthTool::gReport(argc, argv);
  if (command == "settings") return nCorvanthTool::gSettings(argc, argv);
  if (command == "convert") return nCorvanthTool::gConvert(argc, argv);
  std::fprintf(stderr, "corvanth: unknown command '%s'\n\n", argv[1]);
  return gUsage(stderr);
}
