// The service configurator against an in-process manager: the calls each
// operation makes, in order and with their rights, and its whole printed text,
// for success and for the failure of each call; name resolution; the tool's
// usage.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "CorvanthServiceConfig.h"

namespace {

namespace fs = std::filesystem;

struct cFakeHandle : cServiceHandle {
  explicit cFakeHandle(char const* kind) : kind(kind) {}  // "manager" or "service"
  char const* kind;
};

SERVICE_STATUS gStatus(DWORD state, DWORD checkPoint, DWORD waitHint) {
  return {SERVICE_WIN32_OWN_PROCESS, state, SERVICE_ACCEPT_STOP, 0, 0, checkPoint, waitHint};
}
std::string gHex(DWORD value) {
  char text[16];
  std::snprintf(text, sizeof text, "%x", value);
  return text;
}
std::string gText(char const* text) { return text != nullptr ? text : "null"; }

// The answers' texts stay here: the blocks the configurator asks for need only
// hold the records.
char gPath[] = "/opt/kestrun/bin/corvanth", gNone[] = "", gDependencies[] = "alpha\0beta\0",
     gAccount[] = "LocalSystem", gDisplay[] = "Corvanth Test", gOwner[] = "corvanth-admin";
std::map<DWORD, char const*> const kTexts{{1, "Incorrect function."}, {5, "Access is denied."},
    {122, "The data area passed to a system call is too small."},
    {1060, "The specified service does not exist as an installed service."}};

// One service, or none. Every call is noted in `calls`; a call named in
// `failures` ("Name" for every call, "Name#2" for the second only) fails with
// that last error. Handles, blocks and the lock are counted, so a case can
// check that all went back. The configurator never asks for the service list,
// which alone goes on to the wrapper's (null) target.
class cFakeManager : public cServiceManagerWrapper {
 public:
  cFakeManager() : cServiceManagerWrapper(nullptr) {}
  std::string calls;
  std::map<std::string, DWORD> failures;
  bool exists = true, noDependencies = false, lockHeldElsewhere = false, locked = false;
  std::vector<SERVICE_STATUS> statuses{gStatus(SERVICE_RUNNING, 0, 0)};  // one a query; the last repeats
  SERVICE_STATUS controlStatus = gStatus(SERVICE_STOP_PENDING, 1, 3000);
  std::vector<std::pair<std::string, DWORD>> dependents;
  int liveHandles = 0, liveBlocks = 0;

  SC_HANDLE OpenSCManagerA(LPCSTR machine, LPCSTR database, DWORD access) override {
    return fNote("OpenSCManagerA " + gHex(access) + (machine || database ? " remote" : "")) ? nullptr
                                                                                            : fHandle("manager");
  }
  SC_HANDLE OpenServiceA(SC_HANDLE, LPCSTR name, DWORD access) override {
    if (fNote("OpenServiceA " + gText(name) + " " + gHex(access))) return nullptr;
    return exists ? fHandle("service") : fFail(ERROR_SERVICE_DOES_NOT_EXIST, SC_HANDLE{});
  }
  BOOL CloseServiceHandle(SC_HANDLE handle) override {
    fNote(std::string("CloseServiceHandle ") + static_cast<cFakeHandle*>(handle)->kind);
    delete handle;
    return --liveHandles, TRUE;
  }
  SC_HANDLE CreateServiceA(SC_HANDLE, LPCSTR name, LPCSTR display, DWORD access, DWORD type, DWORD start,
                           DWORD errorControl, LPCSTR path, LPCSTR group, LPDWORD tag, LPCSTR dependencies,
                           LPCSTR account, LPCSTR password) override {
    if (fNote("CreateServiceA " + gText(name) + "|" + gText(display) + "|" + gHex(access) + "|" + gHex(type) + "|" +
              gHex(start) + "|" + gHex(errorControl) + "|" + gText(path) + "|" + gText(group) + "|" +
              (tag ? "tag" : "null") + "|" + gText(dependencies) + "|" + gText(account) + "|" + gText(password)))
      return nullptr;
    return fHandle("service");
  }
  BOOL DeleteService(SC_HANDLE) override { return !fNote("DeleteService"); }
  BOOL ChangeServiceConfigA(SC_HANDLE, DWORD type, DWORD start, DWORD errorControl, LPCSTR path, LPCSTR group,
                            LPDWORD tag, LPCSTR dependencies, LPCSTR account, LPCSTR password,
                            LPCSTR display) override {
    bool const more = path || group || tag || dependencies || account || password || display;
    return !fNote("ChangeServiceConfigA " + gHex(type) + " " + gHex(start) + " " + gHex(errorControl) +
                  (more ? " and more" : ""));
  }
  BOOL StartServiceA(SC_HANDLE, DWORD argc, LPCSTR* argv) override {
    return !fNote("StartServiceA " + std::to_string(argc) + (argv ? " argv" : ""));
  }
  BOOL ControlService(SC_HANDLE, DWORD control, LPSERVICE_STATUS status) override {
    if (fNote("ControlService " + std::to_string(control))) return FALSE;
    return *status = controlStatus, TRUE;
  }
  BOOL QueryServiceStatus(SC_HANDLE, LPSERVICE_STATUS status) override {
    if (fNote("QueryServiceStatus")) return FALSE;
    return *status = statuses[std::min(mQueries++, statuses.size() - 1)], TRUE;
  }
  BOOL QueryServiceConfigA(SC_HANDLE, LPQUERY_SERVICE_CONFIGA config, DWORD size, LPDWORD needed) override {
    if (fNote("QueryServiceConfigA " + std::to_string(size))) return FALSE;
    *needed = sizeof *config + 36;
    if (config == nullptr || size < *needed) return fFail(ERROR_INSUFFICIENT_BUFFER, FALSE);
    *config = {SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, gPath, gNone, 0,
               noDependencies ? nullptr : gDependencies, gAccount, gDisplay};
    return TRUE;
  }
  BOOL EnumDependentServicesA(SC_HANDLE, DWORD state, LPENUM_SERVICE_STATUSA services, DWORD size,
                              LPDWORD needed, LPDWORD count) override {
    if (fNote("EnumDependentServicesA " + std::to_string(state) + " " + std::to_string(size))) return FALSE;
    *needed = DWORD(dependents.size() * sizeof *services);
    *count = 0;
    if (size < *needed) return fFail(ERROR_MORE_DATA, FALSE);
    for (auto& [name, current] : dependents) services[(*count)++] = {name.data(), name.data(), gStatus(current, 0, 0)};
    return TRUE;
  }
  SC_LOCK LockServiceDatabase(SC_HANDLE) override {
    if (fNote("LockServiceDatabase")) return nullptr;
    if (lockHeldElsewhere || locked) return fFail(ERROR_SERVICE_DATABASE_LOCKED, SC_LOCK{});
    return locked = true, &locked;
  }
  BOOL UnlockServiceDatabase(SC_LOCK lock) override {
    fNote("UnlockServiceDatabase");
    if (lock != &locked || !locked) return fFail(ERROR_INVALID_SERVICE_LOCK, FALSE);
    return locked = false, TRUE;
  }
  BOOL QueryServiceLockStatusA(SC_HANDLE, LPQUERY_SERVICE_LOCK_STATUSA status, DWORD size, LPDWORD needed) override {
    if (fNote("QueryServiceLockStatusA " + std::to_string(size))) return FALSE;
    *needed = sizeof *status;
    if (status == nullptr || size < *needed) return fFail(ERROR_INSUFFICIENT_BUFFER, FALSE);
    return *status = {DWORD(lockHeldElsewhere), gOwner, lockHeldElsewhere ? 42u : 0u}, TRUE;
  }
  DWORD FormatMessageA(DWORD flags, LPCVOID source, DWORD id, DWORD language, LPSTR buffer, DWORD size,
                       va_list* arguments) override {
    fNote("FormatMessageA " + gHex(flags) + " " + std::to_string(id) + " " + gHex(language) +
          (source || size || arguments ? " and more" : ""));
    auto const text = kTexts.find(id);
    if (text == kTexts.end()) return fFail(ERROR_MR_MID_NOT_FOUND, DWORD{0});
    ++liveBlocks;
    *reinterpret_cast<char**>(buffer) = strdup(text->second);
    return DWORD(std::strlen(text->second));
  }
  DWORD GetLastError() override { return mLastError; }
  HLOCAL LocalAlloc(UINT flags, SIZE_T bytes) override {
    if (fNote("LocalAlloc " + gHex(flags) + " " + std::to_string(bytes))) return nullptr;
    return ++liveBlocks, std::calloc(1, bytes);
  }
  HLOCAL LocalFree(HLOCAL block) override {
    fNote(block != nullptr ? "LocalFree" : "LocalFree null");
    liveBlocks -= block != nullptr;
    return std::free(block), nullptr;
  }
  DWORD GetModuleFileNameA(HMODULE module, LPSTR name, DWORD size) override {
    fNote("GetModuleFileNameA " + std::to_string(size) + (module ? " module" : ""));
    return DWORD(std::snprintf(name, size, "%s", gPath));
  }
  void Sleep(DWORD milliseconds) override { fNote("Sleep " + std::to_string(milliseconds)); }

 private:
  // Notes the call; true when it is told to fail.
  bool fNote(std::string const& call) {
    std::string const name = call.substr(0, call.find(' '));
    calls += (calls.empty() ? "" : ", ") + call;
    auto failure = failures.find(name + "#" + std::to_string(++mCounts[name]));
    if (failure == failures.end()) failure = failures.find(name);
    return failure != failures.end() && (mLastError = failure->second, true);
  }
  template <class T> T fFail(DWORD code, T result) { return mLastError = code, result; }
  SC_HANDLE fHandle(char const* kind) { return ++liveHandles, new cFakeHandle(kind); }

  std::map<std::string, int> mCounts;
  std::size_t mQueries = 0;
  DWORD mLastError = 0;
};

using tSetUp = std::function<void(cFakeManager&)>;
tSetUp gFail(std::string const& call, DWORD code, tSetUp const& also = nullptr) {
  return [=](cFakeManager& m) { if (also) also(m); m.failures[call] = code; };
}
tSetUp const gAbsent = [](cFakeManager& m) { m.exists = false; };

// One run of an operation: what the manager is told first, the text and the
// calls expected.
struct cCase {
  char const* label;
  tSetUp setUp;
  std::function<void(CorvanthServiceConfig&)> run;
  std::string text;
  std::string calls;
};

// Runs each case against a fresh manager, and checks that it gave back all
// handles, blocks and the lock.
void gCheck(std::vector<cCase> const& cases) {
  for (cCase const& c : cases) {
    SCOPED_TRACE(c.label);
    cFakeManager manager;
    if (c.setUp) c.setUp(manager);
    gSetServiceManager(&manager);
    CorvanthServiceConfig config("cvs", "Corvanth Test");
    testing::internal::CaptureStdout();
    c.run(config);
    std::string const text = testing::internal::GetCapturedStdout();
    gSetServiceManager(nullptr);
    EXPECT_EQ(text, c.text);
    EXPECT_EQ(manager.calls, c.calls);
    EXPECT_EQ(std::to_string(manager.liveHandles) + " " + std::to_string(manager.liveBlocks) + " " + std::to_string(manager.locked), "0 0 0");
  }
}

// The closing of both handles, and an error's text fetched and freed.
std::string const kClose = ", CloseServiceHandle service, CloseServiceHandle manager";
std::string gError(int code) { return ", FormatMessageA 1100 " + std::to_string(code) + " 400, LocalFree"; }

TEST(ServiceConfig, InstallIsSilentForAnExistingServiceAndCreatesForThisProgram) {
  auto const install = [](CorvanthServiceConfig& c) { c.Install(SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, "dep\0\0", "svc", "pw"); };
  std::string const probe = "OpenSCManagerA 1, OpenServiceA cvs 1, CloseServiceHandle manager";
  std::string const create = probe + ", GetModuleFileNameA 260, OpenSCManagerA 2, CreateServiceA cvs|Corvanth Test|f01ff|10|2|1|"
                             "/opt/kestrun/bin/corvanth|null|null|dep|svc|pw";
  gCheck({
      {"exists", nullptr, install, "", "OpenSCManagerA 1, OpenServiceA cvs 1" + kClose},
      {"created", gAbsent, install, "cvs Created\n", create + kClose},
      {"create fails", gFail("CreateServiceA", 5, gAbsent), install, "CreateService failed: Access is denied.\n",
       create + gError(5) + ", CloseServiceHandle manager"},
      {"no manager", gFail("OpenSCManagerA", 5), install, "OpenSCManager failed: Access is denied.\n",
       "OpenSCManagerA 1, GetModuleFileNameA 260, OpenSCManagerA 2" + gError(5)},
  });
}

TEST(ServiceConfig, RemoveStopsOnlyOnOneAndReportsEachStep) {
  std::string const open = "OpenSCManagerA 1, OpenServiceA cvs 10000";
  gCheck({
      // The stop fails; the line is printed all the same.
      {"stop refused", gFail("ControlService", 5), [](auto& c) { c.Remove(1); }, "cvs stopped\ncvs removed\n",
       open + ", ControlService 1, DeleteService" + kClose},
      {"two", nullptr, [](auto& c) { c.Remove(2); }, "cvs removed\n", open + ", DeleteService" + kClose},
      {"delete fails", gFail("DeleteService", 5), [](auto& c) { c.Remove(0); },
       "DeleteService failed: Access is denied.\n", open + ", DeleteService" + gError(5) + kClose},
      {"no service", gAbsent, [](auto& c) { c.Remove(1); },
       "OpenService failed: The specified service does not exist as an installed service.\n",
       open + gError(1060) + ", CloseServiceHandle manager"},
      {"unknown error", gFail("OpenSCManagerA", 1234), [](auto& c) { c.Remove(1); },
       "OpenSCManager failed: Unknown error 4d2\n", "OpenSCManagerA 1, FormatMessageA 1100 1234 400, LocalFree null"},
  });
}

TEST(ServiceConfig, StartWaitsWhileTheCheckpointAdvances) {
  auto const start = [](CorvanthServiceConfig& c) { c.Start(); };
  auto const statuses = [](std::vector<SERVICE_STATUS> s) { return [s](cFakeManager& m) { m.statuses = s; }; };
  std::string const begin = "OpenSCManagerA 80000000, OpenServiceA cvs 14, StartServiceA 0, QueryServiceStatus";
  SERVICE_STATUS const failed{SERVICE_WIN32_OWN_PROCESS, SERVICE_STOPPED, 0, ERROR_SERVICE_SPECIFIC_ERROR, 0xFFFFFFFF, 5, 2000};
  gCheck({
      {"running at once", nullptr, start, "cvs started successfully.\n", begin + kClose},
      {"advancing", statuses({gStatus(2, 1, 300), gStatus(2, 2, 200), gStatus(4, 0, 0)}), start,
       "cvs started successfully.\n", begin + ", Sleep 300, QueryServiceStatus, Sleep 200, QueryServiceStatus" + kClose},
      // The service comes up later, but the wait has ended before.
      {"frozen", statuses({gStatus(2, 5, 1000), failed, gStatus(4, 0, 0)}), start,
       "cvs start unsuccessful: \nCurrent State: 0x1 \nWin32 Exit: 1066 \nService Exit: -1 \nCheckpoint: 0x5 \n"
       "WaitHint: 0x2000 \n",
       begin + ", Sleep 1000, QueryServiceStatus" + kClose},
      {"no hint", statuses({gStatus(2, 0, 0)}), start,
       "cvs start unsuccessful: \nCurrent State: 0x2 \nWin32 Exit: 0 \nService Exit: 0 \nCheckpoint: 0x0 \nWaitHint: 0x0 \n",
       begin + ", Sleep 0, QueryServiceStatus" + kClose},
      {"start fails", gFail("StartServiceA", 5), start, "StartService failed: Access is denied.\n",
       "OpenSCManagerA 80000000, OpenServiceA cvs 14, StartServiceA 0" + gError(5) + kClose},
      // A failed query reports code 1 whatever the last error says.
      {"query fails", gFail("QueryServiceStatus", 5), start, "QueryServiceStatus failed: Incorrect function.\n",
       begin + gError(1) + kClose},
      {"second query fails", gFail("QueryServiceStatus#2", 5, statuses({gStatus(2, 1, 10)})), start,
       "QueryServiceStatus failed: Incorrect function.\n", begin + ", Sleep 10, QueryServiceStatus" + gError(1) + kClose},
  });
}

TEST(ServiceConfig, StatusAndControlPrintTheirOwnLayouts) {
  SERVICE_STATUS const shown{SERVICE_WIN32_OWN_PROCESS, SERVICE_STOP_PENDING, 5, 1066, 7, 12, 3000};
  auto const show = [shown](cFakeManager& m) { m.statuses = {shown}; m.controlStatus = shown; };
  gCheck({
      {"status", show, [](auto& c) { c.Status(); },
       "Service Status for cvs \nType: 0x16 \nCurrent State: 0x3 \nControls Accepted: 5 \nWin32 Exit: 1066 \n"
       "Service Exit: 7 \nCheckpoint: 0x12 \nWaitHint: 0x3000 \n",
       "OpenSCManagerA 80000000, OpenServiceA cvs 4, QueryServiceStatus" + kClose},
      {"status fails", gFail("QueryServiceStatus", 5), [](auto& c) { c.Status(); },
       "QueryServiceStatus failed: Access is denied.\n",
       "OpenSCManagerA 80000000, OpenServiceA cvs 4, QueryServiceStatus" + gError(5) + kClose},
      {"control", show, [](auto& c) { c.Control(SERVICE_CONTROL_STOP); },
       "Service Status for cvs \nType: 0x16 \nCurrent State: 0x3 \nControls Accepted: 5\nWin32 Exit: 1066\n"
       "Service Exit: 7\nCheckpoint: 0x 12\nWaitHint: 0x 3000\n",
       "OpenSCManagerA 80000000, OpenServiceA cvs 20000000, ControlService 1" + kClose},
      {"control fails", gFail("ControlService", 5), [](auto& c) { c.Control(200); },
       "ControlService failed: Access is denied.\n",
       "OpenSCManagerA 80000000, OpenServiceA cvs 20000000, ControlService 200" + gError(5) + kClose},
  });
}

TEST(ServiceConfig, GetConfigAsksTheSizeThenPrintsEveryField) {
  auto const get = [](CorvanthServiceConfig& c) { c.GetConfig(); };
  std::string const head =
      "\nService Configuration for cvs: \nDisplay Name: Corvanth Test \nType: 0x16 \nStart Type: 0x3 \n"
      "Error Level: 0x1 \nBinary path: /opt/kestrun/bin/corvanth \nLoad Order Group:  \nTag ID: 0 \nDependencies:  \n";
  std::string const asks = "OpenSCManagerA 80000000, OpenServiceA cvs 1, QueryServiceConfigA 0, LocalAlloc 40 100";
  gCheck({
      {"two dependencies", nullptr, get, head + "alpha \nbeta \nLogin Under: LocalSystem \n",
       asks + ", QueryServiceConfigA 100, LocalFree" + kClose},
      {"none", [](cFakeManager& m) { m.noDependencies = true; }, get, head + "Login Under: LocalSystem \n",
       asks + ", QueryServiceConfigA 100, LocalFree" + kClose},
      {"no memory", gFail("LocalAlloc", 8), get, "LocalAlloc failed: Incorrect function.\n", asks + gError(1) + kClose},
      {"second query fails", gFail("QueryServiceConfigA#2", 5), get, "QueryServiceConfig failed: Access is denied.\n",
       asks + ", QueryServiceConfigA 100" + gError(5) + ", LocalFree" + kClose},
  });
}

TEST(ServiceConfig, DependenciesListsEachDependentWithItsState) {
  auto const list = [](CorvanthServiceConfig& c) { c.Dependencies(); };
  tSetUp const two = [](cFakeManager& m) { m.dependents = {{"Load Agent", 4}, {"Collector", 1}}; };
  std::string const open = "OpenSCManagerA 80000000, OpenServiceA cvs 8, EnumDependentServicesA 3 0";
  gCheck({
      {"none", nullptr, list, "cvs has no dependencies\n", open + kClose},
      {"two", two, list, "Services Dependent On cvs \nLoad Agent \nCurrent State: 0x4 \nCollector \nCurrent State: 0x1 \n",
       open + ", LocalAlloc 40 96, EnumDependentServicesA 3 96, LocalFree" + kClose},
      {"no memory", gFail("LocalAlloc", 8, two), list, "LocalAlloc failed: Incorrect function.\n",
       open + ", LocalAlloc 40 96" + gError(1) + kClose},
      {"enumeration fails", gFail("EnumDependentServicesA#2", 5, two), list,
       "EnumDependentServices failed: Access is denied.\n",
       open + ", LocalAlloc 40 96, EnumDependentServicesA 3 96" + gError(5) + ", LocalFree" + kClose},
  });
}

TEST(ServiceConfig, ChangeStartTypeWorksUnderTheDatabaseLockOrSaysWhoHoldsIt) {
  std::string const lock = "OpenSCManagerA a0000000, LockServiceDatabase";
  std::string const change = lock + ", OpenServiceA cvs 2, ChangeServiceConfigA ffffffff ";
  std::string const release = ", CloseServiceHandle service, UnlockServiceDatabase, CloseServiceHandle manager";
  std::string const refused = "Service Configuration could not be changed\n";
  std::string const status = lock + ", LocalAlloc 40 269, QueryServiceLockStatusA 269";
  tSetUp const held = [](cFakeManager& m) { m.lockHeldElsewhere = true; };
  gCheck({
      {"demand", nullptr, [](auto& c) { c.ChangeStartType(0); }, "Changed Service Configuration Successfully\n",
       change + "3 ffffffff" + release},
      // Any value but 0 is automatic start.
      {"change fails", gFail("ChangeServiceConfigA", 5), [](auto& c) { c.ChangeStartType(-7); },
       "ChangeServiceConfig failed: Access is denied.\n", change + "2 ffffffff" + gError(5) + release},
      {"no service", gAbsent, [](auto& c) { c.ChangeStartType(1); },
       "OpenService failed: The specified service does not exist as an installed service.\n",
       lock + ", OpenServiceA cvs 2" + gError(1060) + ", UnlockServiceDatabase, CloseServiceHandle manager"},
      // No service is opened without the lock.
      {"held", held, [](auto& c) { c.ChangeStartType(1); }, "Locked by: corvanth-admin for 42 seconds\n" + refused,
       status + ", LocalFree, CloseServiceHandle manager"},
      {"lock refused, not held", gFail("LockServiceDatabase", 5), [](auto& c) { c.ChangeStartType(1); },
       "Database Not Locked\n" + refused, status + ", LocalFree, CloseServiceHandle manager"},
      {"status fails", gFail("QueryServiceLockStatusA", 5, held), [](auto& c) { c.ChangeStartType(0); },
       "QueryServiceLockStatus failed: Access is denied.\n" + refused,
       status + gError(5) + ", LocalFree, CloseServiceHandle manager"},
      // Without a block the query still runs, and reports that it had no room.
      {"no memory", gFail("LocalAlloc", 8, held), [](auto& c) { c.ChangeStartType(0); },
       "LocalAlloc failed: Incorrect function.\nQueryServiceLockStatus failed: The data area passed to a system call is too "
       "small.\n" + refused,
       lock + ", LocalAlloc 40 269" + gError(1) + ", QueryServiceLockStatusA 0" + gError(122) + ", CloseServiceHandle manager"},
  });
}

// The two tests print nothing: the text holds only what the case printed of
// their results.
TEST(ServiceConfig, TestsPrintNothingAndRunningMeansStateFour) {
  auto const tests = [](CorvanthServiceConfig& c) {
    int const installed = c.IsInstalled();
    std::printf("%d %d", installed, c.IsRunning());
  };
  std::string const both = "OpenSCManagerA 1, OpenServiceA cvs 1" + kClose + ", OpenSCManagerA 80000000, OpenServiceA cvs 4";
  gCheck({
      {"running", nullptr, tests, "1 1", both + ", QueryServiceStatus" + kClose},
      {"starting", [](cFakeManager& m) { m.statuses = {gStatus(SERVICE_START_PENDING, 1, 100)}; }, tests, "1 0",
       both + ", QueryServiceStatus" + kClose},
      {"query fails", gFail("QueryServiceStatus", 5), tests, "1 0", both + ", QueryServiceStatus" + kClose},
      {"absent", gAbsent, tests, "0 0",
       "OpenSCManagerA 1, OpenServiceA cvs 1, CloseServiceHandle manager, OpenSCManagerA 80000000, OpenServiceA cvs 4, "
       "CloseServiceHandle manager"},
      {"no manager", gFail("OpenSCManagerA", 5), tests, "0 0", "OpenSCManagerA 1, OpenSCManagerA 80000000"},
      // The unknown code's text is the Remove case's; here, what it returns.
      {"error printer", nullptr, [](auto& c) { std::printf("%lu", c.ErrorPrinter("Probe", 5)); },
       "Probe failed: Access is denied.\n5", "FormatMessageA 1100 5 400, LocalFree"},
  });
}

TEST(ServiceName, ResolvedFromTheSettingOrLeftAsItWas) {
  fs::path const home = fs::temp_directory_path() / ("corvanth-service-" + std::to_string(::getpid()));
  fs::create_directories(home / "config");
  // Each test runs in a process of its own, which ends with these settings.
  ::setenv("KESTRUN_HOME", home.c_str(), 1);
  ::unsetenv("CORVANTH_SERVICE_VERSION_NAME");
  CorvanthServiceConfig config("old", "Old Name");
  auto const resolve = [&config] {
    bool const resolved = config.ResolveCorvanthServiceName();
    return std::to_string(resolved) + " " + config.GetServiceName() + "|" + config.GetDisplayName();
  };
  EXPECT_EQ(resolve(), "0 old|Old Name");
  std::ofstream(home / "config" / "kestrun.ini") << "[service]\nCORVANTH_SERVICE_VERSION_NAME=85\n";
  EXPECT_EQ(resolve(), "1 cvservice85|Kestrun Corvanth Service 85");
  ::setenv("CORVANTH_SERVICE_VERSION_NAME", "", 1);
  EXPECT_EQ(resolve(), "1 cvservice|Kestrun Corvanth Service ");
  // Assignment copies both arrays; an over-long name is cut at the array's end.
  CorvanthServiceConfig copy;
  copy = CorvanthServiceConfig(std::string(300, 'n').c_str(), "Shown");
  EXPECT_EQ(copy.GetServiceName() + std::string("|") + copy.GetDisplayName(), std::string(256, 'n') + "|Shown");
  fs::remove_all(home);
}

TEST(ServiceTool, RefusesBadUsageAndAMissingName) {
  for (char const* arguments : {"", "restart", "control", "control x1", "start-type sometimes", "status --display X",
                                "status --name", "status"}) {
    int const status = std::system((std::string("env -u CORVANTH_SERVICE_VERSION_NAME KESTRUN_HOME=/nonexistent ") +
                                    CORVANTH_TOOL + " service " + arguments + " >/dev/null 2>&1").c_str());
    // Usage errors give 2; only a name that cannot be resolved gives 1.
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, std::strcmp(arguments, "status") == 0 ? 1 : 2) << arguments;
  }
}

}  // namespace
