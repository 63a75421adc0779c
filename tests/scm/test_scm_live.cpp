// The service manager against a real systemd, booted as PID 1 of a private
// PID and mount namespace by boot.sh: unit files, the bus and the database
// lock live in that namespace's tmpfs mounts only. Checks run inside the
// namespace in a forked process (setns); the systemd is powered off at the
// end whatever happened, and killed with its namespace if the test program
// dies. Without root, or where the boot fails, every test skips and the
// first line says why.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Scm.h"

namespace {

struct cLive {
  pid_t mUnshare = -1;
  int mPidfd = -1;
  pid_t mSystemd = -1;
  std::string mScratch;
  std::string mSkip;
  unsigned short mPort = 0;
};
cLive gLive;

std::string gReadAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

unsigned short gFreePort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

// Waits for the unshare process to end, at most `milliseconds`.
bool gEnded(int milliseconds) {
  pollfd end{gLive.mPidfd, POLLIN, 0};
  return poll(&end, 1, milliseconds) == 1;
}

class cSystemdInNamespace : public ::testing::Environment {
 public:
  void SetUp() override {
    if (geteuid() != 0) return fSkip("not root: unshare and a systemd of our own need root");
    char scratch[] = CORVANTH_SCM_LIVE_DIR "/scm-live-XXXXXX";
    if (mkdtemp(scratch) == nullptr) return fSkip("no scratch directory");
    gLive.mScratch = scratch;
    const std::string ready = gLive.mScratch + "/ready";
    const std::string home = gLive.mScratch + "/home";
    std::filesystem::create_directories(home + "/config");
    gLive.mPort = gFreePort();
    std::ofstream(home + "/config/kestrun.ini")
        << "[Corvanth]\nCORVANTH_SERVICE_VERSION_NAME = 85\nCORVANTH_SERVICE_PORT = "
        << gLive.mPort << "\n";
    mkfifo(ready.c_str(), 0600);
    const int fifo = open(ready.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const std::string log = gLive.mScratch + "/boot.log";
    std::fflush(stdout);
    gLive.mUnshare = fork();
    if (gLive.mUnshare == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // our end takes the namespace along
      const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(out, 1);
      dup2(out, 2);
      execlp("unshare", "unshare", "--fork", "--pid", "--mount", "--mount-proc",
             "--propagation", "private", "--kill-child=SIGKILL", "sh", CORVANTH_SCM_BOOT,
             ready.c_str(), home.c_str(), static_cast<char*>(nullptr));
      std::perror("unshare");
      _exit(127);
    }
    gLive.mPidfd = static_cast<int>(syscall(SYS_pidfd_open, gLive.mUnshare, 0));
    pollfd waits[2] = {{fifo, POLLIN, 0}, {gLive.mPidfd, POLLIN, 0}};
    const int woken = poll(waits, 2, 20000);
    close(fifo);
    if (woken <= 0 || (waits[0].revents & POLLIN) == 0) {
      const bool ended = (waits[1].revents & POLLIN) != 0;
      fPowerOff();
      return fSkip((ended ? "systemd did not boot in the namespace: "
                          : "systemd was not up within 20 s: ") +
                   gReadAll(log));
    }
    const std::string children = gReadAll("/proc/" + std::to_string(gLive.mUnshare) + "/task/" +
                                          std::to_string(gLive.mUnshare) + "/children");
    gLive.mSystemd = std::atoi(children.c_str());
    std::printf("scm live: systemd runs as PID %d of a private namespace\n", gLive.mSystemd);
  }

  void TearDown() override {
    fPowerOff();
    if (!gLive.mScratch.empty()) std::filesystem::remove_all(gLive.mScratch);
  }

 private:
  void fSkip(const std::string& reason) {
    gLive.mSkip = reason;
    std::printf("scm live: skipped: %s\n", reason.c_str());
  }

  void fPowerOff() {
    if (gLive.mUnshare <= 0) return;
    if (gLive.mSystemd > 0) kill(gLive.mSystemd, SIGRTMIN + 4);
    const bool off = gLive.mSystemd > 0 && gEnded(15000);
    if (!off) kill(gLive.mUnshare, SIGKILL);  // --kill-child ends systemd with it
    waitpid(gLive.mUnshare, nullptr, 0);
    close(gLive.mPidfd);
    std::printf("scm live: systemd %s\n", off ? "powered off" : "killed");
    gLive = cLive{0, -1, -1, gLive.mScratch, gLive.mSkip, 0};
  }
};

struct cRun {
  int mStatus = -1;
  std::string mOut;
};

// Runs `body` in a process inside the namespace; its standard output and
// error come back, with its exit status.
cRun gInside(const std::function<int()>& body) {
  int pipe[2];
  pipe2(pipe, O_CLOEXEC);
  std::fflush(stdout);
  std::fflush(stderr);
  const pid_t child = fork();
  if (child == 0) {
    dup2(pipe[1], 1);
    dup2(pipe[1], 2);
    const std::string ns = "/proc/" + std::to_string(gLive.mSystemd) + "/ns/";
    const int pid = open((ns + "pid").c_str(), O_RDONLY);
    const int mount = open((ns + "mnt").c_str(), O_RDONLY);
    if (setns(pid, CLONE_NEWPID) != 0 || setns(mount, CLONE_NEWNS) != 0) {
      std::perror("setns");
      _exit(120);
    }
    setenv("KESTRUN_HOME", (gLive.mScratch + "/home").c_str(), 1);
    const pid_t inner = fork();  // the first child of ours inside the PID namespace
    if (inner == 0) {
      const int code = body();
      std::fflush(stdout);
      std::fflush(stderr);
      _exit(code);
    }
    int status = 0;
    waitpid(inner, &status, 0);
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
  }
  close(pipe[1]);
  cRun run;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  char buffer[4096];
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd wait{pipe[0], POLLIN, 0};
    if (left.count() <= 0 || poll(&wait, 1, static_cast<int>(left.count())) <= 0) {
      kill(child, SIGKILL);
      run.mOut += "[no end within 20 s]";
      break;
    }
    const ssize_t got = read(pipe[0], buffer, sizeof buffer);
    if (got <= 0) break;
    run.mOut.append(buffer, static_cast<std::size_t>(got));
  }
  close(pipe[0]);
  int status = 0;
  waitpid(child, &status, 0);
  run.mStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

cRun gInsideExec(std::vector<std::string> words) {
  return gInside([&words] {
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    std::perror("execv");
    return 127;
  });
}

cRun gTool(std::vector<std::string> words) {
  words.insert(words.begin(), CORVANTH_TOOL);
  return gInsideExec(words);
}

// One message to the host service; true when it came back whole.
bool gServiceAnswers() {
  std::fflush(stdout);
  const std::string command = std::string(CORVANTH_TOOL) + " send --timeout 5 --port " +
                              std::to_string(gLive.mPort) + " probe=live 2>&1";
  FILE* out = popen(command.c_str(), "r");
  std::string text;
  char buffer[512];
  while (out != nullptr && std::fgets(buffer, sizeof buffer, out) != nullptr) text += buffer;
  return out != nullptr && pclose(out) == 0 &&
         text.find("the answer carries every parameter back byte for byte") != std::string::npos;
}

// Follows a pending state the Win32 way: sleep the wait hint while the
// checkpoint advances; bounded by the manager's own job.
SERVICE_STATUS gSettle(SC_HANDLE service) {
  SERVICE_STATUS status{};
  QueryServiceStatus(service, &status);
  for (int round = 0; round < 600 && (status.dwCurrentState == SERVICE_START_PENDING ||
                                      status.dwCurrentState == SERVICE_STOP_PENDING ||
                                      status.dwCurrentState == SERVICE_PAUSE_PENDING);
       ++round) {
    const DWORD checkpoint = status.dwCheckPoint;
    Sleep(status.dwWaitHint != 0 ? status.dwWaitHint : 10);
    QueryServiceStatus(service, &status);
    if (status.dwCurrentState == SERVICE_START_PENDING && status.dwCheckPoint <= checkpoint) break;
  }
  return status;
}

void gSay(const char* what, BOOL done) {
  if (done)
    std::printf("%s: ok\n", what);
  else
    std::printf("%s: %u\n", what, GetLastError());
}

void gSayStatus(const char* what, const SERVICE_STATUS& status) {
  std::printf("%s: type %u state %u accepts %u exit %u/%u\n", what, status.dwServiceType,
              status.dwCurrentState, status.dwControlsAccepted, status.dwWin32ExitCode,
              status.dwServiceSpecificExitCode);
}

void gSayConfig(SC_HANDLE service) {
  DWORD need = 0;
  QueryServiceConfigA(service, nullptr, 0, &need);
  std::vector<char> block(need);
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGA*>(block.data());
  if (!QueryServiceConfigA(service, config, need, &need)) return gSay("config", FALSE);
  std::string dependencies;
  for (const char* at = config->lpDependencies; *at != '\0'; at += std::strlen(at) + 1)
    dependencies += std::string(at) + ";";
  std::printf("config: type %u start %u error %u binary [%s] group [%s] deps [%s] as [%s] "
              "shown [%s]\n",
              config->dwServiceType, config->dwStartType, config->dwErrorControl,
              config->lpBinaryPathName, config->lpLoadOrderGroup, dependencies.c_str(),
              config->lpServiceStartName, config->lpDisplayName);
}

#define CORVANTH_LIVE_OR_SKIP() \
  if (!gLive.mSkip.empty()) GTEST_SKIP() << gLive.mSkip

TEST(ScmLive, ManagerCallsCreateStartControlReconfigureAndDeleteARealService) {
  CORVANTH_LIVE_OR_SKIP();
  const cRun started = gInside([] {
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    SC_HANDLE service = CreateServiceA(manager, "cvlive", "Live 100% $HOME", SERVICE_ALL_ACCESS,
                                       SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                       SERVICE_ERROR_SEVERE, CORVANTH_TOOL, "tests", nullptr,
                                       nullptr, nullptr, nullptr);
    gSay("create", service != nullptr);
    gSay("create again", CreateServiceA(manager, "cvlive", "x", SERVICE_ALL_ACCESS,
                                        SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                        SERVICE_ERROR_NORMAL, "/bin/true", nullptr, nullptr,
                                        nullptr, nullptr, nullptr) != nullptr);
    gSayConfig(service);
    gSay("start", StartServiceA(service, 0, nullptr));
    SERVICE_STATUS first{};
    QueryServiceStatus(service, &first);
    // Type=notify: the start job lasts until the service says it listens.
    std::printf("pending or running: %d\n", first.dwCurrentState == SERVICE_START_PENDING
                                                ? first.dwCheckPoint > 0 && first.dwWaitHint > 0
                                                : first.dwCurrentState == SERVICE_RUNNING);
    gSayStatus("settled", gSettle(service));
    gSay("start again", StartServiceA(service, 0, nullptr));
    CloseServiceHandle(service);
    return CloseServiceHandle(manager) ? 0 : 1;
  });
  EXPECT_EQ(started.mOut,
            "create: ok\ncreate again: 1073\n"
            "config: type 16 start 3 error 2 binary [" CORVANTH_TOOL "] group [tests] deps [] "
            "as [LocalSystem] shown [Live 100% $HOME]\n"
            "start: ok\npending or running: 1\n"
            "settled: type 16 state 4 accepts 3 exit 0/0\nstart again: 1056\n");
  EXPECT_TRUE(gServiceAnswers());

  const cRun controlled = gInside([] {
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, GENERIC_READ | GENERIC_EXECUTE);
    SC_HANDLE all = OpenServiceA(manager, "cvlive", SERVICE_ALL_ACCESS);
    SC_HANDLE execute = OpenServiceA(manager, "cvlive", GENERIC_EXECUTE);
    SC_HANDLE deleteOnly = OpenServiceA(manager, "cvlive", DELETE);
    SERVICE_STATUS status{};
    gSay("interrogate through execute", ControlService(execute, SERVICE_CONTROL_INTERROGATE, &status));
    gSay("stop through delete", ControlService(deleteOnly, SERVICE_CONTROL_STOP, &status));
    gSay("code 99", ControlService(all, 99, &status));
    gSay("open missing", OpenServiceA(manager, "cvnothing", GENERIC_READ) != nullptr);
    gSay("pause", ControlService(all, SERVICE_CONTROL_PAUSE, &status));
    gSayStatus("paused", gSettle(all));
    gSay("continue", ControlService(all, SERVICE_CONTROL_CONTINUE, &status));
    gSayStatus("continued", gSettle(all));
    for (DWORD type : {SERVICE_AUTO_START, SERVICE_DISABLED, SERVICE_DEMAND_START}) {
      gSay("start type", ChangeServiceConfigA(all, SERVICE_NO_CHANGE, type, SERVICE_NO_CHANGE,
                                              nullptr, nullptr, nullptr, nullptr, nullptr,
                                              nullptr, nullptr));
      gSayConfig(all);
    }
    SC_HANDLE dependent = CreateServiceA(manager, "cvlive-dep", "Live dependent", SERVICE_ALL_ACCESS,
                                         SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                         SERVICE_ERROR_NORMAL, "/bin/true", nullptr, nullptr,
                                         "cvlive\0", nullptr, nullptr);
    gSay("create with access of manager", dependent != nullptr);
    CloseServiceHandle(manager);
    return 0;
  });
  EXPECT_EQ(controlled.mOut,
            "interrogate through execute: 5\nstop through delete: 5\ncode 99: 1052\n"
            "open missing: 1060\npause: ok\npaused: type 16 state 7 accepts 3 exit 0/0\n"
            "continue: ok\ncontinued: type 16 state 4 accepts 3 exit 0/0\n"
            "start type: ok\nconfig: type 16 start 2 error 2 binary [" CORVANTH_TOOL
            "] group [tests] deps [] as [LocalSystem] shown [Live 100% $HOME]\n"
            "start type: ok\nconfig: type 16 start 4 error 2 binary [" CORVANTH_TOOL
            "] group [tests] deps [] as [LocalSystem] shown [Live 100% $HOME]\n"
            "start type: ok\nconfig: type 16 start 3 error 2 binary [" CORVANTH_TOOL
            "] group [tests] deps [] as [LocalSystem] shown [Live 100% $HOME]\n"
            "create with access of manager: 5\n");

  const cRun listed = gInside([] {
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    SC_HANDLE dependent = CreateServiceA(manager, "cvlive-dep", "Live dependent", SERVICE_ALL_ACCESS,
                                         SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                         SERVICE_ERROR_NORMAL, "/bin/true", nullptr, nullptr,
                                         "cvlive\0", nullptr, nullptr);
    gSayConfig(dependent);
    SC_HANDLE service = OpenServiceA(manager, "cvlive", SERVICE_ALL_ACCESS);
    DWORD need = 0;
    DWORD count = 0;
    gSay("dependents, no room", EnumDependentServicesA(service, SERVICE_STATE_ALL, nullptr, 0,
                                                       &need, &count));
    std::vector<char> block(need);
    auto* entries = reinterpret_cast<ENUM_SERVICE_STATUSA*>(block.data());
    gSay("dependents", EnumDependentServicesA(service, SERVICE_STATE_ALL, entries, need, &need,
                                              &count));
    for (DWORD at = 0; at < count; ++at)
      std::printf("  %s [%s] %u\n", entries[at].lpServiceName, entries[at].lpDisplayName,
                  entries[at].ServiceStatus.dwCurrentState);
    need = 0;
    EnumServicesStatusA(manager, SERVICE_WIN32, SERVICE_STATE_ALL, nullptr, 0, &need, &count,
                        nullptr);
    block.assign(need, 0);
    entries = reinterpret_cast<ENUM_SERVICE_STATUSA*>(block.data());
    gSay("all services", EnumServicesStatusA(manager, SERVICE_WIN32, SERVICE_STATE_ALL, entries,
                                             need, &need, &count, nullptr));
    for (DWORD at = 0; at < count; ++at)
      if (std::strncmp(entries[at].lpServiceName, "cvlive", 6) == 0 ||
          std::strcmp(entries[at].lpServiceName, "dbus") == 0)
        std::printf("  %s %u\n", entries[at].lpServiceName, entries[at].ServiceStatus.dwCurrentState);

    SC_LOCK lock = LockServiceDatabase(manager);
    gSay("lock", lock != nullptr);
    gSay("lock again", LockServiceDatabase(manager) != nullptr);
    char room[269] = {};
    auto* lockStatus = reinterpret_cast<QUERY_SERVICE_LOCK_STATUSA*>(room);
    QueryServiceLockStatusA(manager, lockStatus, sizeof room, &need);
    std::printf("locked %u by %s\n", lockStatus->fIsLocked, lockStatus->lpLockOwner);
    gSay("unlock", UnlockServiceDatabase(lock));
    gSay("unlock again", UnlockServiceDatabase(lock));
    QueryServiceLockStatusA(manager, lockStatus, sizeof room, &need);
    std::printf("locked %u by [%s]\n", lockStatus->fIsLocked, lockStatus->lpLockOwner);

    SERVICE_STATUS status{};
    gSay("stop", ControlService(service, SERVICE_CONTROL_STOP, &status));
    gSayStatus("stopped", gSettle(service));
    gSay("stop again", ControlService(service, SERVICE_CONTROL_STOP, &status));
    ChangeServiceConfigA(service, SERVICE_NO_CHANGE, SERVICE_DISABLED, SERVICE_NO_CHANGE, nullptr,
                         nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    gSay("start disabled", StartServiceA(service, 0, nullptr));

    SC_HANDLE failing = CreateServiceA(manager, "cvlive-fail", "Live failing", SERVICE_ALL_ACCESS,
                                       SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                       SERVICE_ERROR_NORMAL, "/bin/sh -c \"exit 3\"", nullptr,
                                       nullptr, nullptr, nullptr, nullptr);
    gSay("start failing", StartServiceA(failing, 0, nullptr));
    gSayStatus("failed", gSettle(failing));

    for (SC_HANDLE gone : {service, dependent, failing}) gSay("delete", DeleteService(gone));
    gSay("delete again", DeleteService(service));
    gSay("open deleted", OpenServiceA(manager, "cvlive", GENERIC_READ) != nullptr);
    std::printf("unit files left: %d\n", access("/etc/systemd/system/cvlive.service", F_OK) == 0 ||
                                             access("/etc/systemd/system/cvlive.service.d", F_OK) == 0);
    return 0;
  });
  EXPECT_EQ(listed.mOut,
            "config: type 16 start 3 error 1 binary [/bin/true] group [] deps [cvlive;] "
            "as [LocalSystem] shown [Live dependent]\n"
            "dependents, no room: 234\ndependents: ok\n  cvlive-dep [Live dependent] 1\n"
            "all services: ok\n  cvlive 4\n  cvlive-dep 1\n  dbus 4\n"
            "lock: ok\nlock again: 1055\nlocked 1 by root\nunlock: ok\nunlock again: 1071\n"
            "locked 0 by []\n"
            "stop: ok\nstopped: type 16 state 1 accepts 0 exit 0/0\nstop again: 1062\n"
            "start disabled: 1058\n"
            "start failing: ok\nfailed: type 16 state 1 accepts 0 exit 1066/3\n"
            "delete: ok\ndelete: ok\ndelete: ok\ndelete again: 1072\nopen deleted: 1060\n"
            "unit files left: 0\n");
}

// The configurator through `corvanth service`, names from the settings (85):
// the tool is the service's binary and runs as the host service.
TEST(ScmLive, ConfiguratorInstallsRunsReconfiguresAndRemovesTheHostService) {
  CORVANTH_LIVE_OR_SKIP();
  const std::string config =
      "\nService Configuration for cvservice85: \nDisplay Name: Kestrun Corvanth Service 85 \n"
      "Type: 0x16 \nStart Type: 0x%d \nError Level: 0x1 \nBinary path: " CORVANTH_TOOL
      " \nLoad Order Group:  \nTag ID: 0 \nDependencies:  \nLogin Under: LocalSystem \n";
  auto configWith = [&config](int start) {
    std::string text = config;
    return text.replace(text.find("%d"), 2, std::to_string(start));
  };
  auto tool = [](std::vector<std::string> words) { return gTool(std::move(words)).mOut; };

  EXPECT_EQ(tool({"service", "install"}), "cvservice85 Created\n");
  EXPECT_EQ(tool({"service", "install"}), "");
  EXPECT_EQ(tool({"service", "is-installed"}), "1\n");
  EXPECT_EQ(tool({"service", "start"}), "cvservice85 started successfully.\n");
  EXPECT_TRUE(gServiceAnswers());
  // The support report lists the manager's units with their states and start types.
  const std::string report = tool({"report"});
  EXPECT_NE(report.find("Service Name: Kestrun Corvanth Service 85\n      Status: Running  (Manual)\n"),
            std::string::npos) << report;
  EXPECT_NE(report.find("Service Name: "), report.rfind("Service Name: "));  // the system's units too
  EXPECT_EQ(tool({"service", "status"}),
            "Service Status for cvservice85 \nType: 0x16 \nCurrent State: 0x4 \n"
            "Controls Accepted: 3 \nWin32 Exit: 0 \nService Exit: 0 \nCheckpoint: 0x0 \n"
            "WaitHint: 0x0 \n");
  const std::string stopped = tool({"service", "control", "1"});
  EXPECT_TRUE(stopped.find("Current State: 0x3 \n") != std::string::npos ||
              stopped.find("Current State: 0x1 \n") != std::string::npos)
      << stopped;
  // The host service ends on the manager's SIGTERM by ending its serve: the
  // journal has serve's last line (journald takes queued output before a sync).
  // The manager's lines and the service's race into the journal: sorted.
  const cRun ended = gInside([] {
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, GENERIC_READ);
    gSayStatus("ended", gSettle(OpenServiceA(manager, "cvservice85", GENERIC_READ)));
    std::fflush(stdout);
    return std::system("journalctl --sync && journalctl -q -o cat -u cvservice85.service | "
                       "grep -E '^(listening|Stopping|stopped after|cvservice85.service: Deac)' | LC_ALL=C sort");
  });
  EXPECT_EQ(ended.mOut, "ended: type 16 state 1 accepts 0 exit 0/0\n"
                        "Stopping cvservice85.service - Kestrun Corvanth Service 85...\n"
                        "cvservice85.service: Deactivated successfully.\n"
                        "listening on 127.0.0.1:" + std::to_string(gLive.mPort) + "\n"
                        "stopped after 1 answered message(s)\n");
  EXPECT_FALSE(gServiceAnswers());

  EXPECT_EQ(tool({"service", "start-type", "auto"}), "Changed Service Configuration Successfully\n");
  EXPECT_EQ(tool({"service", "config"}), configWith(2));
  EXPECT_EQ(tool({"service", "start-type", "demand"}), "Changed Service Configuration Successfully\n");
  EXPECT_EQ(tool({"service", "config"}), configWith(3));

  const cRun dependent = gInside([] {
    SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE);
    return CreateServiceA(manager, "cvdependent", "Corvanth dependent", SERVICE_ALL_ACCESS,
                          SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                          "/bin/true", nullptr, nullptr, "cvservice85\0", nullptr,
                          nullptr) != nullptr ? 0 : 1;
  });
  EXPECT_EQ(dependent.mStatus, 0) << dependent.mOut;
  EXPECT_EQ(tool({"service", "dependencies"}),
            "Services Dependent On cvservice85 \nCorvanth dependent \nCurrent State: 0x1 \n");

  EXPECT_EQ(tool({"service", "remove", "--stop"}), "cvservice85 stopped\ncvservice85 removed\n");
  EXPECT_EQ(tool({"service", "remove", "--name", "cvdependent"}), "cvdependent removed\n");
  const cRun gone = gTool({"service", "is-installed"});
  EXPECT_EQ(gone.mOut, "0\n");
  EXPECT_EQ(gone.mStatus, 1);
  EXPECT_EQ(gInsideExec({"/bin/ls", "-A", "/etc/systemd/system"}).mOut.find("cvservice85"),
            std::string::npos);
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new cSystemdInNamespace);
  return RUN_ALL_TESTS();
}
