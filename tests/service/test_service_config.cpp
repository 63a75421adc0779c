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
#include <utility>
#include <vector>

#include "CorvanthServiceConfig.h"

namespace {

namespace fs = std::filesystem;

struct cFakeHandle : cServiceHandle {
  explicit cFakeHandle(char const* kind) : kind(kind) {}
  char const* kind;
};

SERVICE_STATUS gStatus(DWORD state, DWORD checkPoint, DWORD waitHint) {
  return {SERVICE_WIN32_OWN_PROCESS, state, SERVICE_ACCEPT_STOP, 0, 0, checkPoint, waitHint};
}

// One service, named "cvs" or not there. Every call is noted in `calls`; a
// call named in `failures` ("Name" for every call, "Name#2" for the second
// only) fails with that last error. Handles and blocks are counted, so a case
// can check that all went back.
class cFakeManager : public iServiceManager {
 public:
  std::string calls;
  std::map<std::string, DWORD> failures;
  bool exists = true;
  // Answers of successive status queries; the last one repeats.
  std::vector<SERVICE_STATUS> statuses{gStatus(SERVICE_RUNNING, 0, 0)};
  SERVICE_STATUS controlStatus = gStatus(SERVICE_STOP_PENDING, 1, 3000);
  bool lockHeldElsewhere = false;
  std::string const dependencies{"alpha\0beta\0", 11};
  bool noDependencies = false;
  std::vector<std::pair<std::string, DWORD>> dependents;
  std::map<DWORD, std::string> texts{{1, "Incorrect function."},
                                     {5, "Access is denied."},
                                     {122, "The data area passed to a system call is too small."},
                                     {1052, "The requested control is not valid for this service."},
                                     {1060, "The specified service does not exist as an installed service."},
                                     {1072, "The specified service has been marked for deletion."}};
  int liveHandles = 0;
  int liveBlocks = 0;
  bool locked = false;

  SC_HANDLE OpenSCManagerA(LPCSTR machine, LPCSTR database, DWORD access) override {
    if (fNote("OpenSCManagerA " + fHex(access)) || machine != nullptr || database != nullptr) return nullptr;
    return fHandle("manager");
  }
  SC_HANDLE OpenServiceA(SC_HANDLE, LPCSTR name, DWORD access) override {
    if (fNote("OpenServiceA " + std::string(name) + " " + fHex(access))) return nullptr;
    if (!exists || std::string(name) != "cvs") return fFail(1060), nullptr;
    return fHandle("service");
  }
  BOOL CloseServiceHandle(SC_HANDLE handle) override {
    fNote(std::string("CloseServiceHandle ") + static_cast<cFakeHandle*>(handle)->kind);
    delete handle;
    --liveHandles;
    return TRUE;
  }
  SC_HANDLE CreateServiceA(SC_HANDLE, LPCSTR name, LPCSTR display, DWORD access, DWORD type,
                           DWORD start, DWORD errorControl, LPCSTR path, LPCSTR group, LPDWORD tag,
                           LPCSTR dependencies, LPCSTR account, LPCSTR password) override {
    if (fNote("CreateServiceA " + fText(name) + "|" + fText(display) + "|" + fHex(access) + "|" +
              fHex(type) + "|" + fHex(start) + "|" + fHex(errorControl) + "|" + fText(path) + "|" +
              fText(group) + "|" + (tag != nullptr ? "tag" : "null") + "|" + fText(dependencies) +
              "|" + fText(account) + "|" + fText(password)))
      return nullptr;
    return fHandle("service");
  }
  BOOL DeleteService(SC_HANDLE) override { return !fNote("DeleteService"); }
  BOOL ChangeServiceConfigA(SC_HANDLE, DWORD type, DWORD start, DWORD errorControl, LPCSTR path,
                            LPCSTR group, LPDWORD tag, LPCSTR dependencies, LPCSTR account,
                            LPCSTR password, LPCSTR display) override {
    bool const allNull = !path && !group && !tag && !dependencies && !account && !password && !display;
    return !fNote("ChangeServiceConfigA " + fHex(type) + " " + fHex(start) + " " +
                  fHex(errorControl) + (allNull ? "" : " and more"));
  }
  BOOL StartServiceA(SC_HANDLE, DWORD argc, LPCSTR* argv) override {
    return !fNote("StartServiceA " + std::to_string(argc) + (argv ? " argv" : ""));
  }
  BOOL ControlService(SC_HANDLE, DWORD control, LPSERVICE_STATUS status) override {
    if (fNote("ControlService " + std::to_string(control))) return FALSE;
    *status = controlStatus;
    return TRUE;
  }
  BOOL QueryServiceStatus(SC_HANDLE, LPSERVICE_STATUS status) override {
    if (fNote("QueryServiceStatus")) return FALSE;
    *status = statuses[std::min(mQueries++, statuses.size() - 1)];
    return TRUE;
  }
  BOOL QueryServiceConfigA(SC_HANDLE, LPQUERY_SERVICE_CONFIGA config, DWORD size,
                           LPDWORD needed) override {
    if (fNote("QueryServiceConfigA " + std::to_string(size))) return FALSE;
    char const* const texts[] = {"/opt/kestrun/bin/corvanth", "", "LocalSystem", "Corvanth Test"};
    std::size_t const dependenciesSize = noDependencies ? 0 : dependencies.size() + 1;
    *needed = static_cast<DWORD>(sizeof *config + dependenciesSize + 25 + 1 + 1 + 12 + 14);
    if (config == nullptr || size < *needed) return fFail(ERROR_INSUFFICIENT_BUFFER), FALSE;
    char* at = reinterpret_cast<char*>(config + 1);
    auto put = [&](char const* text, std::size_t bytes) {
      std::memcpy(at, text, bytes);
      return std::exchange(at, at + bytes);
    };
    *config = {SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
               put(texts[0], 26), put(texts[1], 1), 0, nullptr, put(texts[2], 12), put(texts[3], 14)};
    if (!noDependencies) config->lpDependencies = put(dependencies.c_str(), dependenciesSize);
    return TRUE;
  }
  BOOL EnumDependentServicesA(SC_HANDLE, DWORD state, LPENUM_SERVICE_STATUSA services, DWORD size,
                              LPDWORD needed, LPDWORD count) override {
    if (fNote("EnumDependentServicesA " + std::to_string(state) + " " + std::to_string(size)))
      return FALSE;
    *needed = 0;
    for (auto const& dependent : dependents)
      *needed += static_cast<DWORD>(sizeof *services + dependent.first.size() + 1);
    *count = 0;
    if (size < *needed) return fFail(ERROR_MORE_DATA), FALSE;
    char* at = reinterpret_cast<char*>(services + dependents.size());
    for (auto const& [display, current] : dependents) {
      services[*count] = {at, at, gStatus(current, 0, 0)};
      at = std::strcpy(at, display.c_str()) + display.size() + 1;
      ++*count;
    }
    return TRUE;
  }
  BOOL EnumServicesStatusA(SC_HANDLE, DWORD, DWORD, LPENUM_SERVICE_STATUSA, DWORD, LPDWORD,
                           LPDWORD, LPDWORD) override {
    return !fNote("EnumServicesStatusA");
  }
  SC_LOCK LockServiceDatabase(SC_HANDLE) override {
    if (fNote("LockServiceDatabase")) return nullptr;
    if (lockHeldElsewhere || locked) return fFail(ERROR_SERVICE_DATABASE_LOCKED), nullptr;
    locked = true;
    return &locked;
  }
  BOOL UnlockServiceDatabase(SC_LOCK lock) override {
    fNote("UnlockServiceDatabase");
    if (lock != &locked || !locked) return fFail(ERROR_INVALID_SERVICE_LOCK), FALSE;
    locked = false;
    return TRUE;
  }
  BOOL QueryServiceLockStatusA(SC_HANDLE, LPQUERY_SERVICE_LOCK_STATUSA status, DWORD size,
                               LPDWORD needed) override {
    if (fNote("QueryServiceLockStatusA " + std::to_string(size))) return FALSE;
    *needed = sizeof *status + 15;
    if (status == nullptr || size < *needed) return fFail(ERROR_INSUFFICIENT_BUFFER), FALSE;
    char* const owner = std::strcpy(reinterpret_cast<char*>(status + 1), "corvanth-admin");
    *status = {lockHeldElsewhere ? 1u : 0u, owner, lockHeldElsewhere ? 42u : 0u};
    return TRUE;
  }
  DWORD FormatMessageA(DWORD flags, LPCVOID source, DWORD id, DWORD language, LPSTR buffer,
                       DWORD size, va_list* arguments) override {
    fNote("FormatMessageA " + fHex(flags) + " " + std::to_string(id) + " " + fHex(language) +
          (source || size || arguments ? " and more" : ""));
    auto const text = texts.find(id);
    if (text == texts.end()) return fFail(ERROR_MR_MID_NOT_FOUND), 0;
    ++liveBlocks;
    *reinterpret_cast<char**>(buffer) = strdup(text->second.c_str());
    return static_cast<DWORD>(text->second.size());
  }
  DWORD GetLastError() override { return mLastError; }
  void SetLastError(DWORD code) override { mLastError = code; }
  HLOCAL LocalAlloc(UINT flags, SIZE_T bytes) override {
    if (fNote("LocalAlloc " + fHex(flags) + " " + std::to_string(bytes))) return nullptr;
    ++liveBlocks;
    return std::calloc(1, bytes);
  }
  HLOCAL LocalFree(HLOCAL block) override {
    fNote(block != nullptr ? "LocalFree" : "LocalFree null");
    if (block != nullptr) --liveBlocks;
    std::free(block);
    return nullptr;
  }
  DWORD GetModuleFileNameA(HMODULE module, LPSTR name, DWORD size) override {
    fNote("GetModuleFileNameA " + std::to_string(size) + (module ? " module" : ""));
    std::snprintf(name, size, "/opt/kestrun/bin/corvanth");
    return 25;
  }
  void Sleep(DWORD milliseconds) override { fNote("Sleep " + std::to_string(milliseconds)); }

 private:
  static std::string fHex(DWORD value) {
    char text[16];
    std::snprintf(text, sizeof text, "%x", value);
    return text;
  }
  static std::string fText(char const* text) { return text != nullptr ? text : "null"; }
  // Notes the call; true when it is told to fail.
  bool fNote(std::string call) {
    std::string const name = call.substr(0, call.find(' '));
    int const nth = ++mCounts[name];
    calls += (calls.empty() ? "" : ", ") + call;
    for (std::string const& key : {name, name + "#" + std::to_string(nth)}) {
      if (auto const failure = failures.find(key); failure != failures.end()) {
        fFail(failure->second);
        return true;
      }
    }
    return false;
  }
  void fFail(DWORD code) { mLastError = code; }
  SC_HANDLE fHandle(char const* kind) {
    ++liveHandles;
    return new cFakeHandle(kind);
  }

  std::map<std::string, int> mCounts;
  std::size_t mQueries = 0;
  DWORD mLastError = 0;
};

// One run of an operation: what the manager is told first, the text and the
// calls expected.
struct cCase {
  char const* label;
  std::function<void(cFakeManager&)> setUp;
  std::function<void(CorvanthServiceConfig&)> run;
  std::string text;
  std::string calls;
};

class ServiceConfig : public ::testing::Test {
 protected:
  ~ServiceConfig() override { gSetServiceManager(nullptr); }

  // Runs each case against a fresh manager, and checks that it gave back all
  // handles, blocks and the lock.
  void fCheck(std::vector<cCase> const& cases) {
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
      EXPECT_EQ(manager.liveHandles, 0);
      EXPECT_EQ(manager.liveBlocks, 0);
      EXPECT_FALSE(manager.locked);
    }
  }
};

// The closing of both handles, and an error's text fetched and freed.
std::string const kClose = ", CloseServiceHandle service, CloseServiceHandle manager";
std::string gError(int code) { return ", FormatMessageA 1100 " + std::to_string(code) + " 400, LocalFree"; }

TEST_F(ServiceConfig, InstallIsSilentForAnExistingServiceAndCreatesForThisProgram) {
  auto const install = [](CorvanthServiceConfig& c) { c.Install(SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, "dep\0\0", "svc", "pw"); };
  std::string const probe = "OpenSCManagerA 1, OpenServiceA cvs 1, CloseServiceHandle manager";
  std::string const create = probe + ", GetModuleFileNameA 260, OpenSCManagerA 2, CreateServiceA cvs|Corvanth Test|f01ff|10|2|1|"
                             "/opt/kestrun/bin/corvanth|null|null|dep|svc|pw";
  fCheck({
      {"exists", nullptr, install, "", "OpenSCManagerA 1, OpenServiceA cvs 1" + kClose},
      {"created", [](cFakeManager& m) { m.exists = false; }, install, "cvs Created\n", create + kClose},
      {"create fails", [](cFakeManager& m) { m.exists = false; m.failures["CreateServiceA"] = 1072; }, install,
       "CreateService failed: The specified service has been marked for deletion.\n",
       create + gError(1072) + ", CloseServiceHandle manager"},
      {"no manager", [](cFakeManager& m) { m.failures["OpenSCManagerA"] = 5; }, install,
       "OpenSCManager failed: Access is denied.\n",
       "OpenSCManagerA 1, GetModuleFileNameA 260, OpenSCManagerA 2" + gError(5)},
  });
}

TEST_F(ServiceConfig, RemoveStopsOnlyOnOneAndReportsEachStep) {
  std::string const open = "OpenSCManagerA 1, OpenServiceA cvs 10000";
  fCheck({
      {"stop first", nullptr, [](auto& c) { c.Remove(1); }, "cvs stopped\ncvs removed\n",
       open + ", ControlService 1, DeleteService" + kClose},
      // The handle cannot stop the service; the line is printed all the same.
      {"stop refused", [](cFakeManager& m) { m.failures["ControlService"] = 5; }, [](auto& c) { c.Remove(1); },
       "cvs stopped\ncvs removed\n", open + ", ControlService 1, DeleteService" + kClose},
      {"two", nullptr, [](auto& c) { c.Remove(2); }, "cvs removed\n", open + ", DeleteService" + kClose},
      {"delete fails", [](cFakeManager& m) { m.failures["DeleteService"] = 1072; }, [](auto& c) { c.Remove(0); },
       "DeleteService failed: The specified service has been marked for deletion.\n",
       open + ", DeleteService" + gError(1072) + kClose},
      {"no service", [](cFakeManager& m) { m.exists = false; }, [](auto& c) { c.Remove(1); },
       "OpenService failed: The specified service does not exist as an installed service.\n",
       open + gError(1060) + ", CloseServiceHandle manager"},
      {"unknown error", [](cFakeManager& m) { m.failures["OpenSCManagerA"] = 1234; }, [](auto& c) { c.Remove(1); },
       "OpenSCManager failed: Unknown error 4d2\n", "OpenSCManagerA 1, FormatMessageA 1100 1234 400, LocalFree null"},
  });
}

TEST_F(ServiceConfig, StartWaitsWhileTheCheckpointAdvances) {
  auto const start = [](CorvanthServiceConfig& c) { c.Start(); };
  auto const statuses = [](std::vector<SERVICE_STATUS> s) { return [s](cFakeManager& m) { m.statuses = s; }; };
  std::string const begin = "OpenSCManagerA 80000000, OpenServiceA cvs 14, StartServiceA 0, QueryServiceStatus";
  SERVICE_STATUS failed = gStatus(SERVICE_STOPPED, 5, 2000);
  failed.dwWin32ExitCode = ERROR_SERVICE_SPECIFIC_ERROR;
  failed.dwServiceSpecificExitCode = 0xFFFFFFFF;
  fCheck({
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
      {"start fails", [](cFakeManager& m) { m.failures["StartServiceA"] = 1052; }, start,
       "StartService failed: The requested control is not valid for this service.\n",
       "OpenSCManagerA 80000000, OpenServiceA cvs 14, StartServiceA 0" + gError(1052) + kClose},
      // A failed query reports code 1 whatever the last error says.
      {"query fails", [](cFakeManager& m) { m.failures["QueryServiceStatus"] = 5; }, start,
       "QueryServiceStatus failed: Incorrect function.\n", begin + gError(1) + kClose},
      {"second query fails",
       [](cFakeManager& m) { m.statuses = {gStatus(2, 1, 10)}; m.failures["QueryServiceStatus#2"] = 5; }, start,
       "QueryServiceStatus failed: Incorrect function.\n", begin + ", Sleep 10, QueryServiceStatus" + gError(1) + kClose},
  });
}

TEST_F(ServiceConfig, StatusAndControlPrintTheirOwnLayouts) {
  SERVICE_STATUS const shown{SERVICE_WIN32_OWN_PROCESS, SERVICE_STOP_PENDING, 5, 1066, 7, 12, 3000};
  auto const show = [shown](cFakeManager& m) { m.statuses = {shown}; m.controlStatus = shown; };
  fCheck({
      {"status", show, [](auto& c) { c.Status(); },
       "Service Status for cvs \nType: 0x16 \nCurrent State: 0x3 \nControls Accepted: 5 \nWin32 Exit: 1066 \n"
       "Service Exit: 7 \nCheckpoint: 0x12 \nWaitHint: 0x3000 \n",
       "OpenSCManagerA 80000000, OpenServiceA cvs 4, QueryServiceStatus" + kClose},
      {"status fails", [](cFakeManager& m) { m.failures["QueryServiceStatus"] = 5; }, [](auto& c) { c.Status(); },
       "QueryServiceStatus failed: Access is denied.\n",
       "OpenSCManagerA 80000000, OpenServiceA cvs 4, QueryServiceStatus" + gError(5) + kClose},
      {"control", show, [](auto& c) { c.Control(SERVICE_CONTROL_STOP); },
       "Service Status for cvs \nType: 0x16 \nCurrent State: 0x3 \nControls Accepted: 5\nWin32 Exit: 1066\n"
       "Service Exit: 7\nCheckpoint: 0x 12\nWaitHint: 0x 3000\n",
       "OpenSCManagerA 80000000, OpenServiceA cvs 20000000, ControlService 1" + kClose},
      {"control fails", [](cFakeManager& m) { m.failures["ControlService"] = 1052; }, [](auto& c) { c.Control(200); },
       "ControlService failed: The requested control is not valid for this service.\n",
       "OpenSCManagerA 80000000, OpenServiceA cvs 20000000, ControlService 200" + gError(1052) + kClose},
  });
}

TEST_F(ServiceConfig, GetConfigAsksTheSizeThenPrintsEveryField) {
  auto const get = [](CorvanthServiceConfig& c) { c.GetConfig(); };
  std::string const head =
      "\nService Configuration for cvs: \nDisplay Name: Corvanth Test \nType: 0x16 \nStart Type: 0x3 \n"
      "Error Level: 0x1 \nBinary path: /opt/kestrun/bin/corvanth \nLoad Order Group:  \nTag ID: 0 \nDependencies:  \n";
  std::string const asks = "OpenSCManagerA 80000000, OpenServiceA cvs 1, QueryServiceConfigA 0, LocalAlloc 40 ";
  fCheck({
      {"two dependencies", nullptr, get, head + "alpha \nbeta \nLogin Under: LocalSystem \n",
       asks + "129, QueryServiceConfigA 129, LocalFree" + kClose},
      {"none", [](cFakeManager& m) { m.noDependencies = true; }, get, head + "Login Under: LocalSystem \n",
       asks + "117, QueryServiceConfigA 117, LocalFree" + kClose},
      {"no memory", [](cFakeManager& m) { m.failures["LocalAlloc"] = 8; }, get, "LocalAlloc failed: Incorrect function.\n",
       asks + "129" + gError(1) + kClose},
      {"second query fails", [](cFakeManager& m) { m.failures["QueryServiceConfigA#2"] = 5; }, get,
       "QueryServiceConfig failed: Access is denied.\n", asks + "129, QueryServiceConfigA 129" + gError(5) + ", LocalFree" + kClose},
  });
}

TEST_F(ServiceConfig, DependenciesListsEachDependentWithItsState) {
  auto const list = [](CorvanthServiceConfig& c) { c.Dependencies(); };
  auto const two = [](cFakeManager& m) { m.dependents = {{"Load Agent", 4}, {"Collector", 1}}; };
  std::string const open = "OpenSCManagerA 80000000, OpenServiceA cvs 8, EnumDependentServicesA 3 0";
  fCheck({
      {"none", nullptr, list, "cvs has no dependencies\n", open + kClose},
      {"two", two, list, "Services Dependent On cvs \nLoad Agent \nCurrent State: 0x4 \nCollector \nCurrent State: 0x1 \n",
       open + ", LocalAlloc 40 117, EnumDependentServicesA 3 117, LocalFree" + kClose},
      {"no memory", [two](cFakeManager& m) { two(m); m.failures["LocalAlloc"] = 8; }, list,
       "LocalAlloc failed: Incorrect function.\n", open + ", LocalAlloc 40 117" + gError(1) + kClose},
      {"enumeration fails", [two](cFakeManager& m) { two(m); m.failures["EnumDependentServicesA#2"] = 5; }, list,
       "EnumDependentServices failed: Access is denied.\n",
       open + ", LocalAlloc 40 117, EnumDependentServicesA 3 117" + gError(5) + ", LocalFree" + kClose},
  });
}

TEST_F(ServiceConfig, ChangeStartTypeWorksUnderTheDatabaseLockOrSaysWhoHoldsIt) {
  std::string const lock = "OpenSCManagerA a0000000, LockServiceDatabase";
  std::string const change = lock + ", OpenServiceA cvs 2, ChangeServiceConfigA ffffffff ";
  std::string const release = ", CloseServiceHandle service, UnlockServiceDatabase, CloseServiceHandle manager";
  std::string const refused = "Service Configuration could not be changed\n";
  std::string const status = lock + ", LocalAlloc 40 269, QueryServiceLockStatusA 269";
  auto const held = [](cFakeManager& m) { m.lockHeldElsewhere = true; };
  fCheck({
      {"demand", nullptr, [](auto& c) { c.ChangeStartType(0); }, "Changed Service Configuration Successfully\n",
       change + "3 ffffffff" + release},
      {"automatic", nullptr, [](auto& c) { c.ChangeStartType(-7); }, "Changed Service Configuration Successfully\n",
       change + "2 ffffffff" + release},
      {"change fails", [](cFakeManager& m) { m.failures["ChangeServiceConfigA"] = 5; }, [](auto& c) { c.ChangeStartType(1); },
       "ChangeServiceConfig failed: Access is denied.\n", change + "2 ffffffff" + gError(5) + release},
      {"no service", [](cFakeManager& m) { m.exists = false; }, [](auto& c) { c.ChangeStartType(1); },
       "OpenService failed: The specified service does not exist as an installed service.\n",
       lock + ", OpenServiceA cvs 2" + gError(1060) + ", UnlockServiceDatabase, CloseServiceHandle manager"},
      // No service is opened without the lock.
      {"held", held, [](auto& c) { c.ChangeStartType(1); }, "Locked by: corvanth-admin for 42 seconds\n" + refused,
       status + ", LocalFree, CloseServiceHandle manager"},
      {"lock refused, not held", [](cFakeManager& m) { m.failures["LockServiceDatabase"] = 5; },
       [](auto& c) { c.ChangeStartType(1); }, "Database Not Locked\n" + refused, status + ", LocalFree, CloseServiceHandle manager"},
      {"status fails", [held](cFakeManager& m) { held(m); m.failures["QueryServiceLockStatusA"] = 5; },
       [](auto& c) { c.ChangeStartType(0); }, "QueryServiceLockStatus failed: Access is denied.\n" + refused,
       status + gError(5) + ", LocalFree, CloseServiceHandle manager"},
      // Without a block the query still runs, and reports that it had no room.
      {"no memory", [held](cFakeManager& m) { held(m); m.failures["LocalAlloc"] = 8; },
       [](auto& c) { c.ChangeStartType(0); },
       "LocalAlloc failed: Incorrect function.\nQueryServiceLockStatus failed: The data area passed to a system call is too "
       "small.\n" + refused,
       lock + ", LocalAlloc 40 269" + gError(1) + ", QueryServiceLockStatusA 0" + gError(122) + ", CloseServiceHandle manager"},
  });
}

// The two tests print nothing: the text holds only what the case printed of
// their results.
TEST_F(ServiceConfig, TestsPrintNothingAndRunningMeansStateFour) {
  auto const tests = [](CorvanthServiceConfig& c) {
    int const installed = c.IsInstalled();
    std::printf("%d %d", installed, c.IsRunning());
  };
  std::string const both = "OpenSCManagerA 1, OpenServiceA cvs 1" + kClose + ", OpenSCManagerA 80000000, OpenServiceA cvs 4";
  fCheck({
      {"running", nullptr, tests, "1 1", both + ", QueryServiceStatus" + kClose},
      {"starting", [](cFakeManager& m) { m.statuses = {gStatus(SERVICE_START_PENDING, 1, 100)}; }, tests, "1 0",
       both + ", QueryServiceStatus" + kClose},
      {"query fails", [](cFakeManager& m) { m.failures["QueryServiceStatus"] = 5; }, tests, "1 0",
       both + ", QueryServiceStatus" + kClose},
      {"absent", [](cFakeManager& m) { m.exists = false; }, tests, "0 0",
       "OpenSCManagerA 1, OpenServiceA cvs 1, CloseServiceHandle manager, OpenSCManagerA 80000000, OpenServiceA cvs 4, "
       "CloseServiceHandle manager"},
      {"no manager", [](cFakeManager& m) { m.failures["OpenSCManagerA"] = 5; }, tests, "0 0",
       "OpenSCManagerA 1, OpenSCManagerA 80000000"},
      {"error printer", nullptr,
       [](auto& c) {
         unsigned long const known = c.ErrorPrinter("Probe", 5);
         std::printf("%lu %lu\n", known, c.ErrorPrinter("Probe", 0xC0DE));
       },
       "Probe failed: Access is denied.\nProbe failed: Unknown error c0de\n5 49374\n",
       "FormatMessageA 1100 5 400, LocalFree, FormatMessageA 1100 49374 400, LocalFree null"},
  });
}

TEST(ServiceName, ResolvedFromTheSettingOrLeftAsItWas) {
  fs::path const home = fs::temp_directory_path() / ("corvanth-service-" + std::to_string(::getpid()));
  fs::create_directories(home / "config");
  // Each test runs in a process of its own, which ends with these settings.
  ::setenv("KESTRUN_HOME", home.c_str(), 1);
  ::unsetenv("CORVANTH_SERVICE_VERSION_NAME");
  CorvanthServiceConfig config("old", "Old Name");
  EXPECT_FALSE(config.ResolveCorvanthServiceName());
  EXPECT_STREQ(config.GetServiceName(), "old");
  EXPECT_STREQ(config.GetDisplayName(), "Old Name");

  std::ofstream(home / "config" / "kestrun.ini") << "[service]\nCORVANTH_SERVICE_VERSION_NAME=85\n";
  EXPECT_TRUE(config.ResolveCorvanthServiceName());
  EXPECT_STREQ(config.GetServiceName(), "cvservice85");
  EXPECT_STREQ(config.GetDisplayName(), "Kestrun Corvanth Service 85");
  ::setenv("CORVANTH_SERVICE_VERSION_NAME", "", 1);
  EXPECT_TRUE(config.ResolveCorvanthServiceName());
  EXPECT_STREQ(config.GetServiceName(), "cvservice");
  EXPECT_STREQ(config.GetDisplayName(), "Kestrun Corvanth Service ");
  // Assignment copies both arrays; an over-long name is cut at the array's end.
  CorvanthServiceConfig copy;
  copy = CorvanthServiceConfig(std::string(300, 'n').c_str(), "Shown");
  EXPECT_EQ(std::string(copy.GetServiceName()), std::string(256, 'n'));
  EXPECT_STREQ(copy.GetDisplayName(), "Shown");
  fs::remove_all(home);
}

TEST(ServiceTool, RefusesBadUsageAndAMissingName) {
  struct {
    char const* arguments;
    int status;
  } const cases[] = {{"", 2}, {"restart", 2}, {"control", 2}, {"control x1", 2}, {"start-type sometimes", 2},
                     {"status --display X", 2}, {"status --name", 2}, {"status", 1}};
  for (auto const& c : cases) {
    std::string const command = std::string("env -u CORVANTH_SERVICE_VERSION_NAME KESTRUN_HOME=/nonexistent ") +
                                CORVANTH_TOOL + " service " + c.arguments + " >/dev/null 2>&1";
    int const status = std::system(command.c_str());
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, c.status) << c.arguments;
  }
}

}  // namespace
