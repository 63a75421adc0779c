// The service manager's calls over systemd's D-Bus API.
//
// Every answer comes from the manager: existence is the unit's load state,
// the start type its unit file state (plus RefuseManualStart for disabled),
// the status its active state and job. Only what systemd has no notion of (the
// Win32 service type, error control and load order group) is kept in the unit
// file, in X-Corvanth-... keys that systemd ignores, and read back from there.
//
// One bus connection per call: a connection cannot cross a fork, and calls
// are few and short.
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "internal/SystemManager.h"

namespace nScm {
namespace {

constexpr char kDestination[] = "org.freedesktop.systemd1";
constexpr char kRoot[] = "/org/freedesktop/systemd1";
constexpr char kManager[] = "org.freedesktop.systemd1.Manager";
constexpr char kUnit[] = "org.freedesktop.systemd1.Unit";
constexpr char kService[] = "org.freedesktop.systemd1.Service";
constexpr char kJob[] = "org.freedesktop.systemd1.Job";
constexpr char kSuffix[] = ".service";
constexpr char kLockDirectory[] = "/run/corvanth";
constexpr char kLockFile[] = "/run/corvanth/database.lock";
constexpr char kDisabledDropIn[] = "50-corvanth-disabled.conf";
// While a job runs, the configurator's wait loop polls at this pace.
constexpr DWORD kWaitHint = 100;

struct cManagerHandle final : cServiceHandle {
  DWORD mAccess = 0;
};

struct cServiceRecord final : cServiceHandle {
  DWORD mAccess = 0;
  std::string mName;
  DWORD mCheckpoint = 0;
  bool mDeleted = false;
};

struct cDatabaseLock {
  int mFd = -1;
};

// Live handles and locks, so that a stale or foreign one is refused, not used.
struct cRegistry {
  std::mutex mMutex;
  std::set<cServiceHandle*> mHandles;
  std::set<cDatabaseLock*> mLocks;
};

cRegistry& gRegistry() {
  static cRegistry* const registry = new cRegistry;
  return *registry;
}

template <class T>
T* gFind(SC_HANDLE handle) {
  cRegistry& registry = gRegistry();
  std::lock_guard const lock(registry.mMutex);
  if (registry.mHandles.count(handle) == 0) return nullptr;
  return dynamic_cast<T*>(handle);
}

SC_HANDLE gRegister(cServiceHandle* handle) {
  cRegistry& registry = gRegistry();
  std::lock_guard const lock(registry.mMutex);
  registry.mHandles.insert(handle);
  return handle;
}

DWORD gManagerRights(DWORD access) {
  DWORD rights = (access & 0x0FFFFFFF) | SC_MANAGER_CONNECT;
  if (access & GENERIC_READ)
    rights |= STANDARD_RIGHTS_READ | SC_MANAGER_ENUMERATE_SERVICE | SC_MANAGER_QUERY_LOCK_STATUS;
  if (access & GENERIC_WRITE)
    rights |= STANDARD_RIGHTS_WRITE | SC_MANAGER_CREATE_SERVICE | SC_MANAGER_MODIFY_BOOT_CONFIG;
  if (access & GENERIC_EXECUTE) rights |= STANDARD_RIGHTS_EXECUTE | SC_MANAGER_LOCK;
  if (access & GENERIC_ALL) rights |= SC_MANAGER_ALL_ACCESS;
  return rights;
}

DWORD gServiceRights(DWORD access) {
  DWORD rights = access & 0x0FFFFFFF;
  if (access & GENERIC_READ)
    rights |= STANDARD_RIGHTS_READ | SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS |
              SERVICE_INTERROGATE | SERVICE_ENUMERATE_DEPENDENTS;
  if (access & GENERIC_WRITE) rights |= STANDARD_RIGHTS_WRITE | SERVICE_CHANGE_CONFIG;
  if (access & GENERIC_EXECUTE)
    rights |= STANDARD_RIGHTS_EXECUTE | SERVICE_START | SERVICE_STOP | SERVICE_PAUSE_CONTINUE |
              SERVICE_USER_DEFINED_CONTROL;
  if (access & GENERIC_ALL) rights |= SERVICE_ALL_ACCESS;
  return rights;
}

bool gEndsWith(const std::string& text, const char* end) {
  const std::size_t length = std::strlen(end);
  return text.size() >= length && text.compare(text.size() - length, length, end) == 0;
}

// A service name as a unit name prefix; '/' and '\' are refused as Win32 does.
bool gValidName(const char* name) {
  if (name == nullptr || *name == '\0' || std::strlen(name) > 255 - (sizeof kSuffix - 1))
    return false;
  for (const char* at = name; *at != '\0'; ++at) {
    const char c = *at;
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
          c == ':' || c == '_' || c == '.' || c == '-' || c == '@'))
      return false;
  }
  return true;
}

std::string gUnitDirectory() {
  const char* directory = std::getenv("CORVANTH_UNIT_DIR");
  return directory != nullptr && *directory != '\0' ? directory : "/etc/systemd/system";
}

std::string gDirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string gCanonical(const std::string& path) {
  char* resolved = realpath(path.c_str(), nullptr);
  if (resolved == nullptr) return path;
  std::string result = resolved;
  std::free(resolved);
  return result;
}

DWORD gCodeOfErrno(int error) {
  switch (error) {
    case EACCES:
    case EPERM:
    case EROFS:
      return ERROR_ACCESS_DENIED;
    case ENOMEM:
      return ERROR_NOT_ENOUGH_MEMORY;
    case ENOENT:
      return ERROR_FILE_NOT_FOUND;
    case EEXIST:
      return ERROR_SERVICE_EXISTS;
    case ETIMEDOUT:
      return ERROR_SERVICE_REQUEST_TIMEOUT;
    case ECONNREFUSED:
    case ECONNRESET:
    case ENOTCONN:
    case ECHILD:
      return RPC_S_SERVER_UNAVAILABLE;
    default:
      return ERROR_GEN_FAILURE;
  }
}

DWORD gCodeOf(const sd_bus_error& error, int result) {
  static const struct {
    const char* mName;
    DWORD mCode;
  } kTable[] = {
      {"org.freedesktop.systemd1.NoSuchUnit", ERROR_SERVICE_DOES_NOT_EXIST},
      {"org.freedesktop.systemd1.LoadFailed", ERROR_SERVICE_DOES_NOT_EXIST},
      {"org.freedesktop.systemd1.UnitMasked", ERROR_SERVICE_DISABLED},
      {"org.freedesktop.systemd1.OnlyByDependency", ERROR_SERVICE_DISABLED},
      {"org.freedesktop.systemd1.ShutdownInProgress", ERROR_SHUTDOWN_IN_PROGRESS},
      {"org.freedesktop.systemd1.NoSuchProcess", ERROR_SERVICE_NOT_ACTIVE},
      {"org.freedesktop.systemd1.JobTypeNotApplicable", ERROR_SERVICE_CANNOT_ACCEPT_CTRL},
      {"org.freedesktop.systemd1.TransactionIsDestructive", ERROR_SERVICE_CANNOT_ACCEPT_CTRL},
      {"org.freedesktop.systemd1.TransactionJobsConflicting", ERROR_SERVICE_CANNOT_ACCEPT_CTRL},
      {"org.freedesktop.systemd1.TransactionOrderIsCyclic", ERROR_CIRCULAR_DEPENDENCY},
      {"org.freedesktop.DBus.Error.AccessDenied", ERROR_ACCESS_DENIED},
      {"org.freedesktop.DBus.Error.InteractiveAuthorizationRequired", ERROR_ACCESS_DENIED},
      {"org.freedesktop.DBus.Error.NoReply", ERROR_SERVICE_REQUEST_TIMEOUT},
      {"org.freedesktop.DBus.Error.Timeout", ERROR_SERVICE_REQUEST_TIMEOUT},
      {"org.freedesktop.DBus.Error.TimedOut", ERROR_SERVICE_REQUEST_TIMEOUT},
      {"org.freedesktop.DBus.Error.ServiceUnknown", RPC_S_SERVER_UNAVAILABLE},
      {"org.freedesktop.DBus.Error.NoServer", RPC_S_SERVER_UNAVAILABLE},
      {"org.freedesktop.DBus.Error.Disconnected", RPC_S_SERVER_UNAVAILABLE},
      {"org.freedesktop.DBus.Error.InvalidArgs", ERROR_INVALID_PARAMETER},
      {"org.freedesktop.DBus.Error.NoMemory", ERROR_NOT_ENOUGH_MEMORY},
      {"org.freedesktop.DBus.Error.FileNotFound", ERROR_FILE_NOT_FOUND},
  };
  if (error.name != nullptr)
    for (const auto& entry : kTable)
      if (std::strcmp(error.name, entry.mName) == 0) return entry.mCode;
  return gCodeOfErrno(result < 0 ? -result : EIO);
}

struct cBusError {
  sd_bus_error mError = SD_BUS_ERROR_NULL;
  ~cBusError() { sd_bus_error_free(&mError); }
};

struct cMessageFree {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using tMessage = std::unique_ptr<sd_bus_message, cMessageFree>;

// What the manager tells of one unit's state.
struct cUnitState {
  std::string mLoad;
  std::string mActive;
  std::string mResult;
  std::string mJobType;
  std::uint32_t mJob = 0;
  std::int32_t mExitCode = 0;
  std::int32_t mExitStatus = 0;
  std::uint32_t mMainPid = 0;
  int mCanStop = 1;
};

std::string gQuoted(const std::string& word) {
  if (!word.empty() && word.find_first_of(" \t\"'\\") == std::string::npos) return word;
  std::string quoted = "\"";
  for (char c : word) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

// One connection to the system bus for the length of one call; a failure
// sets the calling thread's last error.
class cBus {
 public:
  explicit cBus(iServiceManager* owner) : mOwner(owner) {}
  ~cBus() {
    if (mBus != nullptr) sd_bus_flush_close_unref(mBus);
  }
  cBus(const cBus&) = delete;
  cBus& operator=(const cBus&) = delete;

  bool fOpen() {
    const int result = sd_bus_open_system(&mBus);
    if (result < 0) {
      mBus = nullptr;
      return fFail(RPC_S_SERVER_UNAVAILABLE);
    }
    return true;
  }

  bool fFail(DWORD code) {
    mOwner->SetLastError(code);
    return false;
  }

  // A method of the manager object.
  bool fCall(const char* member, tMessage* reply, const char* types, ...) {
    cBusError error;
    sd_bus_message* answer = nullptr;
    va_list arguments;
    va_start(arguments, types);
    const int result = sd_bus_call_methodv(mBus, kDestination, kRoot, kManager, member,
                                           &error.mError, &answer, types, arguments);
    va_end(arguments);
    if (result < 0) return fFail(gCodeOf(error.mError, result));
    if (reply != nullptr)
      reply->reset(answer);
    else
      sd_bus_message_unref(answer);
    return true;
  }

  bool fReload() { return fCall("Reload", nullptr, ""); }

  // The object of NAME.service, loaded if it is not.
  bool fUnitPath(const std::string& name, std::string& path) {
    tMessage reply;
    if (!fCall("LoadUnit", &reply, "s", (name + kSuffix).c_str())) return false;
    const char* object = nullptr;
    const int result = sd_bus_message_read(reply.get(), "o", &object);
    if (result < 0) return fFail(gCodeOfErrno(-result));
    path = object;
    return true;
  }

  bool fString(const std::string& path, const char* interface, const char* name,
               std::string& value) {
    cBusError error;
    char* text = nullptr;
    const int result = sd_bus_get_property_string(mBus, kDestination, path.c_str(), interface,
                                                  name, &error.mError, &text);
    if (result < 0) return fFail(gCodeOf(error.mError, result));
    value = text;
    std::free(text);
    return true;
  }

  bool fStrings(const std::string& path, const char* interface, const char* name,
                std::vector<std::string>& values) {
    cBusError error;
    char** list = nullptr;
    const int result = sd_bus_get_property_strv(mBus, kDestination, path.c_str(), interface, name,
                                                &error.mError, &list);
    if (result < 0) return fFail(gCodeOf(error.mError, result));
    values.clear();
    for (char** at = list; at != nullptr && *at != nullptr; ++at) {
      values.emplace_back(*at);
      std::free(*at);
    }
    std::free(list);
    return true;
  }

  bool fTrivial(const std::string& path, const char* interface, const char* name, char type,
                void* value) {
    cBusError error;
    const int result = sd_bus_get_property_trivial(mBus, kDestination, path.c_str(), interface,
                                                   name, &error.mError, type, value);
    if (result < 0) return fFail(gCodeOf(error.mError, result));
    return true;
  }

  bool fState(const std::string& path, cUnitState& state) {
    if (!fString(path, kUnit, "LoadState", state.mLoad) ||
        !fString(path, kUnit, "ActiveState", state.mActive))
      return false;
    fTrivial(path, kUnit, "CanStop", 'b', &state.mCanStop);
    cBusError error;
    sd_bus_message* reply = nullptr;
    if (sd_bus_get_property(mBus, kDestination, path.c_str(), kUnit, "Job", &error.mError, &reply,
                            "(uo)") >= 0) {
      tMessage const held(reply);
      const char* job = nullptr;
      if (sd_bus_message_read(reply, "(uo)", &state.mJob, &job) >= 0 && state.mJob != 0 &&
          !fString(job, kJob, "JobType", state.mJobType)) {
        state.mJob = 0;  // the job ended between the two questions
      }
    }
    // A unit that is not found has no service properties; that is no failure.
    if (state.mLoad != "not-found") {
      fString(path, kService, "Result", state.mResult);
      fTrivial(path, kService, "ExecMainCode", 'i', &state.mExitCode);
      fTrivial(path, kService, "ExecMainStatus", 'i', &state.mExitStatus);
      fTrivial(path, kService, "MainPID", 'u', &state.mMainPid);
    }
    return true;
  }

  // Loads every installed service unit file, so that the dependencies they
  // declare are known to the manager.
  bool fLoadInstalled() {
    tMessage reply;
    if (!fCall("ListUnitFiles", &reply, "")) return false;
    std::vector<std::string> names;
    if (sd_bus_message_enter_container(reply.get(), 'a', "(ss)") < 0)
      return fFail(ERROR_INVALID_DATA);
    const char* file = nullptr;
    const char* state = nullptr;
    while (sd_bus_message_read(reply.get(), "(ss)", &file, &state) > 0) {
      std::string name = file;
      name = name.substr(name.rfind('/') + 1);
      if (!gEndsWith(name, kSuffix) || gEndsWith(name, "@.service")) continue;
      names.push_back(name.substr(0, name.size() - (sizeof kSuffix - 1)));
    }
    // An inactive unit that nobody holds is collected again at once, and its
    // dependencies with it: this connection holds each until it closes.
    std::string path;
    for (const std::string& name : names)
      if (fUnitPath(name, path)) fCall("RefUnit", nullptr, "s", (name + kSuffix).c_str());
    mOwner->SetLastError(ERROR_SUCCESS);  // a broken file is skipped
    return true;
  }

  // Enables or disables NAME.service's unit file.
  bool fEnable(const std::string& name, bool enable) {
    const std::string unit = name + kSuffix;
    const char* member = enable ? "EnableUnitFiles" : "DisableUnitFiles";
    sd_bus_message* built = nullptr;
    int result = sd_bus_message_new_method_call(mBus, &built, kDestination, kRoot, kManager, member);
    if (result < 0) return fFail(gCodeOfErrno(-result));
    tMessage const request(built);
    char* units[] = {const_cast<char*>(unit.c_str()), nullptr};
    result = sd_bus_message_append_strv(built, units);
    if (result >= 0)
      result = enable ? sd_bus_message_append(built, "bb", 0, 1)
                      : sd_bus_message_append(built, "b", 0);
    if (result < 0) return fFail(gCodeOfErrno(-result));
    cBusError error;
    sd_bus_message* answer = nullptr;
    result = sd_bus_call(mBus, built, 0, &error.mError, &answer);
    sd_bus_message_unref(answer);
    if (result < 0) return fFail(gCodeOf(error.mError, result));
    return true;
  }

  // The first command line of ExecStart=, its words quoted where needed.
  bool fCommandLine(const std::string& path, std::string& line) {
    cBusError error;
    sd_bus_message* reply = nullptr;
    int result = sd_bus_get_property(mBus, kDestination, path.c_str(), kService, "ExecStart",
                                     &error.mError, &reply, "a(sasbttttuii)");
    if (result < 0) return fFail(gCodeOf(error.mError, result));
    tMessage const held(reply);
    line.clear();
    if (sd_bus_message_enter_container(reply, 'a', "(sasbttttuii)") <= 0) return true;
    if (sd_bus_message_enter_container(reply, 'r', "sasbttttuii") <= 0) return true;
    const char* program = nullptr;
    char** words = nullptr;
    if (sd_bus_message_read(reply, "s", &program) < 0 ||
        sd_bus_message_read_strv(reply, &words) < 0)
      return fFail(ERROR_INVALID_DATA);
    // argv[0] stands for the program, which is the path to show.
    for (char** at = words; at != nullptr && *at != nullptr; ++at) {
      if (at == words)
        line = gQuoted(program);
      else
        line += " " + gQuoted(*at);
      std::free(*at);
    }
    std::free(words);
    if (line.empty()) line = gQuoted(program);
    return true;
  }

 private:
  iServiceManager* mOwner;
  sd_bus* mBus = nullptr;
};

bool gProcessStopped(std::uint32_t pid) {
  if (pid == 0) return false;
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) return false;
  const std::size_t close = line.rfind(')');
  return close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'T';
}

// The Win32 status of a unit. `checkpoint` is the handle's counter: it
// advances with each look at a running job and falls back to 0 without one.
SERVICE_STATUS gStatusOf(const cUnitState& state, DWORD serviceType, DWORD* checkpoint) {
  SERVICE_STATUS status{};
  status.dwServiceType = serviceType;
  DWORD current = SERVICE_STOPPED;
  if (state.mActive == "active" || state.mActive == "reloading")
    current = SERVICE_RUNNING;
  else if (state.mActive == "activating")
    current = SERVICE_START_PENDING;
  else if (state.mActive == "deactivating")
    current = SERVICE_STOP_PENDING;
  if (state.mJob != 0) {
    if (current == SERVICE_STOPPED && state.mJobType != "stop") current = SERVICE_START_PENDING;
    if (current == SERVICE_RUNNING && state.mJobType == "stop") current = SERVICE_STOP_PENDING;
  }
  if (current == SERVICE_RUNNING && gProcessStopped(state.mMainPid)) current = SERVICE_PAUSED;
  status.dwCurrentState = current;
  const bool pending = current == SERVICE_START_PENDING || current == SERVICE_STOP_PENDING;
  DWORD unused = 0;
  DWORD& counter = checkpoint != nullptr ? *checkpoint : unused;
  // The job can end between the reads of the state and of the job: a pending
  // state still advances, so a waiter does not take it for a stuck start.
  if (pending) {
    status.dwCheckPoint = ++counter;
    status.dwWaitHint = kWaitHint;
  } else {
    counter = 0;
  }
  if (current == SERVICE_RUNNING || current == SERVICE_PAUSED)
    status.dwControlsAccepted = (state.mCanStop ? SERVICE_ACCEPT_STOP : 0) |
                                SERVICE_ACCEPT_PAUSE_CONTINUE;
  if (state.mExitCode == CLD_EXITED && state.mExitStatus != 0) {
    status.dwWin32ExitCode = ERROR_SERVICE_SPECIFIC_ERROR;
    status.dwServiceSpecificExitCode = static_cast<DWORD>(state.mExitStatus);
  } else if (current == SERVICE_STOPPED && !state.mResult.empty() && state.mResult != "success") {
    status.dwWin32ExitCode = ERROR_PROCESS_ABORTED;
  }
  return status;
}

// The X-Corvanth-... keys of a unit file.
std::map<std::string, std::string> gOwnKeys(const std::string& file) {
  std::map<std::string, std::string> keys;
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, 11, "X-Corvanth-") != 0) continue;
    const std::size_t equal = line.find('=');
    if (equal != std::string::npos) keys[line.substr(11, equal - 11)] = line.substr(equal + 1);
  }
  return keys;
}

DWORD gNumber(const std::map<std::string, std::string>& keys, const char* key, DWORD otherwise) {
  const auto found = keys.find(key);
  if (found == keys.end()) return otherwise;
  return static_cast<DWORD>(std::strtoul(found->second.c_str(), nullptr, 10));
}

DWORD gServiceTypeOf(cBus& bus, const std::string& path) {
  std::string fragment;
  if (!bus.fString(path, kUnit, "FragmentPath", fragment) || fragment.empty())
    return SERVICE_WIN32_OWN_PROCESS;
  return gNumber(gOwnKeys(fragment), "ServiceType", SERVICE_WIN32_OWN_PROCESS);
}

// A service's configuration, as the unit file writer and QueryServiceConfigA see it.
struct cConfig {
  DWORD mType = SERVICE_WIN32_OWN_PROCESS;
  DWORD mStart = SERVICE_DEMAND_START;
  DWORD mErrorControl = SERVICE_ERROR_NORMAL;
  std::string mBinary;
  std::string mGroup;
  std::vector<std::string> mDependencies;
  std::string mAccount;  // empty: LocalSystem, that is root
  std::string mDisplay;
};

bool gReadConfig(cBus& bus, const std::string& path, cConfig& config) {
  std::string fragment;
  std::string fileState;
  int refuse = 0;
  std::vector<std::string> required;
  if (!bus.fString(path, kUnit, "Description", config.mDisplay) ||
      !bus.fString(path, kUnit, "FragmentPath", fragment) ||
      !bus.fString(path, kUnit, "UnitFileState", fileState) ||
      !bus.fTrivial(path, kUnit, "RefuseManualStart", 'b', &refuse) ||
      !bus.fStrings(path, kUnit, "Requires", required) ||
      !bus.fString(path, kService, "User", config.mAccount))
    return false;
  const auto keys = gOwnKeys(fragment);
  config.mType = gNumber(keys, "ServiceType", SERVICE_WIN32_OWN_PROCESS);
  config.mErrorControl = gNumber(keys, "ErrorControl", SERVICE_ERROR_NORMAL);
  const auto group = keys.find("LoadOrderGroup");
  config.mGroup = group == keys.end() ? "" : group->second;
  if (refuse || fileState.compare(0, 6, "masked") == 0)
    config.mStart = SERVICE_DISABLED;
  else if (fileState == "enabled" || fileState == "enabled-runtime")
    config.mStart = SERVICE_AUTO_START;
  else
    config.mStart = SERVICE_DEMAND_START;
  // The manager adds targets (sysinit.target) of its own; services are what was declared.
  config.mDependencies.clear();
  for (const std::string& unit : required)
    if (gEndsWith(unit, kSuffix))
      config.mDependencies.push_back(unit.substr(0, unit.size() - (sizeof kSuffix - 1)));
  return bus.fCommandLine(path, config.mBinary);
}


// Texts in a unit file stay on their line; '%' is systemd's own everywhere,
// '$' in command lines.
bool gOneLine(const char* text) {
  return text == nullptr || std::strpbrk(text, "\r\n") == nullptr;
}

std::string gEscaped(const std::string& text, bool command) {
  std::string escaped;
  for (char c : text) {
    if (c == '%' || (command && c == '$')) escaped += c;
    escaped += c;
  }
  return escaped;
}

// Win32 takes an unquoted path with blanks as a whole when that file exists.
std::string gCommandOf(const std::string& binary) {
  if (!binary.empty() && binary[0] != '"' && binary.find_first_of(" \t") != std::string::npos &&
      access(binary.c_str(), F_OK) == 0)
    return gEscaped(gQuoted(binary), true);
  return gEscaped(binary, true);
}

std::string gUnitText(const cConfig& config) {
  std::string text = "[Unit]\nDescription=" + gEscaped(config.mDisplay, false) + "\n";
  if (!config.mDependencies.empty()) {
    std::string units;
    for (const std::string& name : config.mDependencies) units += " " + name + kSuffix;
    text += "Requires=" + units.substr(1) + "\nAfter=" + units.substr(1) + "\n";
  }
  text += "\n[Service]\nType=notify\nExecStart=" + gCommandOf(config.mBinary) + "\n";
  if (!config.mAccount.empty()) text += "User=" + config.mAccount + "\n";
  text += "X-Corvanth-ServiceType=" + std::to_string(config.mType) + "\n";
  text += "X-Corvanth-ErrorControl=" + std::to_string(config.mErrorControl) + "\n";
  if (!config.mGroup.empty()) text += "X-Corvanth-LoadOrderGroup=" + config.mGroup + "\n";
  return text + "\n[Install]\nWantedBy=multi-user.target\n";
}

// Writes a whole file: a new one only where none is (exclusive), else in
// place of the old one at once. Gives 0 or a Win32 code.
DWORD gWriteFile(const std::string& path, const std::string& text, bool exclusive) {
  const std::string target = exclusive ? path : path + ".corvanth-new";
  const int fd = open(target.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_TRUNC | (exclusive ? O_EXCL : 0),
                      0644);
  if (fd < 0) return gCodeOfErrno(errno);
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = write(fd, text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) break;
    done += static_cast<std::size_t>(written);
  }
  const int error = errno;
  if (close(fd) != 0 || done != text.size() ||
      (!exclusive && rename(target.c_str(), path.c_str()) != 0)) {
    unlink(target.c_str());
    return gCodeOfErrno(done != text.size() ? error : errno);
  }
  return ERROR_SUCCESS;
}

std::string gDropInDirectory(const std::string& name) {
  return gUnitDirectory() + "/" + name + kSuffix + ".d";
}

// Account as Win32 names it: null, empty or LocalSystem is root.
bool gAccountOf(const char* account, std::string& user) {
  std::string name = account == nullptr ? "" : account;
  if (name.compare(0, 2, ".\\") == 0) name = name.substr(2);
  if (name.empty() || name == "LocalSystem") {
    user.clear();
    return true;
  }
  if (!gOneLine(name.c_str())) return false;
  passwd entry{};
  passwd* found = nullptr;
  char buffer[4096];
  if (getpwnam_r(name.c_str(), &entry, buffer, sizeof buffer, &found) != 0 || found == nullptr)
    return false;
  user = name;
  return true;
}

// A double-zero-terminated list of service names.
bool gDependenciesOf(const char* list, std::vector<std::string>& names) {
  names.clear();
  for (const char* at = list; at != nullptr && *at != '\0'; at += std::strlen(at) + 1) {
    if (!gValidName(at)) return false;  // groups ('+' first) are unknown here
    names.emplace_back(at);
  }
  return true;
}

bool gValidServiceType(DWORD type) {
  const DWORD base = type & ~SERVICE_INTERACTIVE_PROCESS;
  return base == SERVICE_WIN32_OWN_PROCESS || base == SERVICE_WIN32_SHARE_PROCESS;
}

// Whether some other open file than this process's holds the database lock.
bool gLockedByAnother() {
  {
    cRegistry& registry = gRegistry();
    std::lock_guard const lock(registry.mMutex);
    if (!registry.mLocks.empty()) return false;
  }
  const int fd = open(kLockFile, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool locked = flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  close(fd);
  return locked;
}

std::string gUserName() {
  passwd entry{};
  passwd* found = nullptr;
  char buffer[4096];
  if (getpwuid_r(geteuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr)
    return found->pw_name;
  return std::to_string(geteuid());
}

// One entry of an enumeration.
struct cEntry {
  std::string mName;
  std::string mDisplay;
  SERVICE_STATUS mStatus{};
};

DWORD gSizeOf(const cEntry& entry) {
  return static_cast<DWORD>(sizeof(ENUM_SERVICE_STATUSA) + entry.mName.size() + 1 +
                            entry.mDisplay.size() + 1);
}

// Fills records from the front and their texts from the back of the buffer,
// as many whole entries as fit. Returns how many.
DWORD gFill(const std::vector<cEntry>& entries, std::size_t first, LPENUM_SERVICE_STATUSA records,
            DWORD size) {
  char* const base = reinterpret_cast<char*>(records);
  std::size_t front = 0;
  std::size_t back = size;
  DWORD count = 0;
  for (std::size_t at = first; at < entries.size(); ++at) {
    const DWORD need = gSizeOf(entries[at]);
    if (records == nullptr || back < front || back - front < need) break;
    back -= entries[at].mName.size() + 1;
    std::memcpy(base + back, entries[at].mName.c_str(), entries[at].mName.size() + 1);
    char* const name = base + back;
    back -= entries[at].mDisplay.size() + 1;
    std::memcpy(base + back, entries[at].mDisplay.c_str(), entries[at].mDisplay.size() + 1);
    ENUM_SERVICE_STATUSA record{name, base + back, entries[at].mStatus};
    std::memcpy(base + front, &record, sizeof record);
    front += sizeof record;
    ++count;
  }
  return count;
}

// The entry of one service unit, or false when it is not found.
bool gEntryOf(cBus& bus, const std::string& name, cEntry& entry) {
  std::string path;
  cUnitState state;
  if (!bus.fUnitPath(name, path) || !bus.fState(path, state) || state.mLoad == "not-found")
    return false;
  entry.mName = name;
  if (!bus.fString(path, kUnit, "Description", entry.mDisplay)) entry.mDisplay = name;
  entry.mStatus = gStatusOf(state, gServiceTypeOf(bus, path), nullptr);
  return true;
}

bool gStateMatches(DWORD wanted, DWORD current) {
  if (wanted == SERVICE_ACTIVE) return current != SERVICE_STOPPED;
  if (wanted == SERVICE_INACTIVE) return current == SERVICE_STOPPED;
  return true;
}

}  // namespace

SC_HANDLE cSystemManager::OpenSCManagerA(LPCSTR machine, LPCSTR database, DWORD access) {
  if (machine != nullptr && *machine != '\0') {
    SetLastError(RPC_S_SERVER_UNAVAILABLE);
    return nullptr;
  }
  if (database != nullptr && std::strcmp(database, "ServicesActive") != 0) {
    SetLastError(ERROR_DATABASE_DOES_NOT_EXIST);
    return nullptr;
  }
  cBus bus(this);
  if (!bus.fOpen()) return nullptr;
  auto* handle = new cManagerHandle;
  handle->mAccess = gManagerRights(access);
  return gRegister(handle);
}

SC_HANDLE cSystemManager::OpenServiceA(SC_HANDLE manager, LPCSTR serviceName, DWORD access) {
  if (gFind<cManagerHandle>(manager) == nullptr) {
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
  }
  if (!gValidName(serviceName)) {
    SetLastError(ERROR_INVALID_NAME);
    return nullptr;
  }
  cBus bus(this);
  std::string path;
  std::string load;
  if (!bus.fOpen() || !bus.fUnitPath(serviceName, path) ||
      !bus.fString(path, kUnit, "LoadState", load))
    return nullptr;
  if (load == "not-found") {
    SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
    return nullptr;
  }
  auto* handle = new cServiceRecord;
  handle->mAccess = gServiceRights(access);
  handle->mName = serviceName;
  return gRegister(handle);
}

BOOL cSystemManager::CloseServiceHandle(SC_HANDLE handle) {
  cRegistry& registry = gRegistry();
  {
    std::lock_guard const lock(registry.mMutex);
    if (registry.mHandles.erase(handle) == 0) handle = nullptr;
  }
  if (handle == nullptr) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  delete handle;
  return TRUE;
}

namespace {

// The handle of kind T with `rights`, or null with the last error set.
template <class T>
T* gOpened(iServiceManager* owner, SC_HANDLE handle, DWORD rights) {
  T* const found = gFind<T>(handle);
  if (found == nullptr || (found->mAccess & rights) != rights) {
    owner->SetLastError(found == nullptr ? ERROR_INVALID_HANDLE : ERROR_ACCESS_DENIED);
    return nullptr;
  }
  return found;
}

cServiceRecord* gService(iServiceManager* owner, SC_HANDLE handle, DWORD rights) {
  return gOpened<cServiceRecord>(owner, handle, rights);
}

cManagerHandle* gManager(iServiceManager* owner, SC_HANDLE handle, DWORD rights) {
  return gOpened<cManagerHandle>(owner, handle, rights);
}

// Start type as unit file state, and for disabled a drop-in refusing a start.
bool gApplyStartType(cBus& bus, const std::string& name, DWORD startType) {
  const std::string directory = gDropInDirectory(name);
  const std::string dropIn = directory + "/" + kDisabledDropIn;
  if (startType == SERVICE_DISABLED) {
    if (mkdir(directory.c_str(), 0755) != 0 && errno != EEXIST)
      return bus.fFail(gCodeOfErrno(errno));
    const DWORD code = gWriteFile(dropIn, "[Unit]\nRefuseManualStart=yes\n", false);
    if (code != ERROR_SUCCESS) return bus.fFail(code);
  } else {
    unlink(dropIn.c_str());
    rmdir(directory.c_str());  // only when nothing else is in it
  }
  return bus.fEnable(name, startType == SERVICE_AUTO_START);
}

}  // namespace

SC_HANDLE cSystemManager::CreateServiceA(SC_HANDLE manager, LPCSTR serviceName,
                                         LPCSTR displayName, DWORD access, DWORD serviceType,
                                         DWORD startType, DWORD errorControl,
                                         LPCSTR binaryPathName, LPCSTR loadOrderGroup,
                                         LPDWORD tagId, LPCSTR dependencies,
                                         LPCSTR serviceStartName, LPCSTR) {
  if (gManager(this, manager, SC_MANAGER_CREATE_SERVICE) == nullptr) return nullptr;
  if (!gValidName(serviceName)) {
    SetLastError(ERROR_INVALID_NAME);
    return nullptr;
  }
  cConfig config;
  if (!gValidServiceType(serviceType) || errorControl > SERVICE_ERROR_CRITICAL ||
      (startType != SERVICE_AUTO_START && startType != SERVICE_DEMAND_START &&
       startType != SERVICE_DISABLED) ||
      binaryPathName == nullptr || *binaryPathName == '\0' || tagId != nullptr ||
      !gOneLine(binaryPathName) || !gOneLine(displayName) || !gOneLine(loadOrderGroup) ||
      !gDependenciesOf(dependencies, config.mDependencies)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  if (!gAccountOf(serviceStartName, config.mAccount)) {
    SetLastError(ERROR_INVALID_SERVICE_ACCOUNT);
    return nullptr;
  }
  config.mType = serviceType;
  config.mStart = startType;
  config.mErrorControl = errorControl;
  config.mBinary = binaryPathName;
  config.mGroup = loadOrderGroup == nullptr ? "" : loadOrderGroup;
  config.mDisplay = displayName != nullptr && *displayName != '\0' ? displayName : serviceName;

  cBus bus(this);
  std::string path;
  std::string load;
  if (!bus.fOpen() || !bus.fUnitPath(serviceName, path) ||
      !bus.fString(path, kUnit, "LoadState", load))
    return nullptr;
  if (load != "not-found") {
    SetLastError(ERROR_SERVICE_EXISTS);
    return nullptr;
  }
  const std::string file = gUnitDirectory() + "/" + serviceName + kSuffix;
  const DWORD code = gWriteFile(file, gUnitText(config), true);
  if (code != ERROR_SUCCESS) {
    SetLastError(code);
    return nullptr;
  }
  if (!bus.fReload() || !gApplyStartType(bus, serviceName, startType) || !bus.fReload()) {
    const DWORD failure = GetLastError();
    bus.fEnable(serviceName, false);
    unlink((gDropInDirectory(serviceName) + "/" + kDisabledDropIn).c_str());
    rmdir(gDropInDirectory(serviceName).c_str());
    unlink(file.c_str());
    bus.fReload();
    SetLastError(failure);
    return nullptr;
  }
  auto* handle = new cServiceRecord;
  handle->mAccess = gServiceRights(access);
  handle->mName = serviceName;
  return gRegister(handle);
}

BOOL cSystemManager::DeleteService(SC_HANDLE handle) {
  cServiceRecord* service = gService(this, handle, DELETE);
  if (service == nullptr) return FALSE;
  if (service->mDeleted) {
    SetLastError(ERROR_SERVICE_MARKED_FOR_DELETE);
    return FALSE;
  }
  cBus bus(this);
  std::string path;
  std::string fragment;
  if (!bus.fOpen() || !bus.fUnitPath(service->mName, path) ||
      !bus.fString(path, kUnit, "FragmentPath", fragment))
    return FALSE;
  if (fragment.empty()) {
    SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
    return FALSE;
  }
  // Only the files this module writes are ours to remove.
  if (gCanonical(gDirectoryOf(fragment)) != gCanonical(gUnitDirectory())) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }
  if (!bus.fEnable(service->mName, false)) return FALSE;
  unlink((gDropInDirectory(service->mName) + "/" + kDisabledDropIn).c_str());
  rmdir(gDropInDirectory(service->mName).c_str());
  if (unlink(fragment.c_str()) != 0 && errno != ENOENT) {
    SetLastError(gCodeOfErrno(errno));
    return FALSE;
  }
  if (!bus.fReload()) return FALSE;
  service->mDeleted = true;
  return TRUE;
}

BOOL cSystemManager::ChangeServiceConfigA(SC_HANDLE handle, DWORD serviceType, DWORD startType,
                                          DWORD errorControl, LPCSTR binaryPathName,
                                          LPCSTR loadOrderGroup, LPDWORD tagId,
                                          LPCSTR dependencies, LPCSTR serviceStartName,
                                          LPCSTR, LPCSTR displayName) {
  cServiceRecord* service = gService(this, handle, SERVICE_CHANGE_CONFIG);
  if (service == nullptr) return FALSE;
  if (service->mDeleted) {
    SetLastError(ERROR_SERVICE_MARKED_FOR_DELETE);
    return FALSE;
  }
  std::vector<std::string> newDependencies;
  if ((serviceType != SERVICE_NO_CHANGE && !gValidServiceType(serviceType)) ||
      (errorControl != SERVICE_NO_CHANGE && errorControl > SERVICE_ERROR_CRITICAL) ||
      (startType != SERVICE_NO_CHANGE && startType != SERVICE_AUTO_START &&
       startType != SERVICE_DEMAND_START && startType != SERVICE_DISABLED) ||
      tagId != nullptr || (binaryPathName != nullptr && *binaryPathName == '\0') ||
      !gOneLine(binaryPathName) || !gOneLine(displayName) || !gOneLine(loadOrderGroup) ||
      !gDependenciesOf(dependencies, newDependencies)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  std::string account;
  if (!gAccountOf(serviceStartName, account)) {
    SetLastError(ERROR_INVALID_SERVICE_ACCOUNT);
    return FALSE;
  }
  if (gLockedByAnother()) {
    SetLastError(ERROR_SERVICE_DATABASE_LOCKED);
    return FALSE;
  }
  cBus bus(this);
  std::string path;
  if (!bus.fOpen() || !bus.fUnitPath(service->mName, path)) return FALSE;
  const bool rewrite = serviceType != SERVICE_NO_CHANGE || errorControl != SERVICE_NO_CHANGE ||
                       binaryPathName != nullptr || loadOrderGroup != nullptr ||
                       dependencies != nullptr || serviceStartName != nullptr ||
                       displayName != nullptr;
  if (rewrite) {
    cConfig config;
    std::string fragment;
    if (!gReadConfig(bus, path, config) || !bus.fString(path, kUnit, "FragmentPath", fragment))
      return FALSE;
    if (gCanonical(gDirectoryOf(fragment)) != gCanonical(gUnitDirectory())) {
      SetLastError(ERROR_ACCESS_DENIED);
      return FALSE;
    }
    if (serviceType != SERVICE_NO_CHANGE) config.mType = serviceType;
    if (errorControl != SERVICE_NO_CHANGE) config.mErrorControl = errorControl;
    if (binaryPathName != nullptr) config.mBinary = binaryPathName;
    if (loadOrderGroup != nullptr) config.mGroup = loadOrderGroup;
    if (dependencies != nullptr) config.mDependencies = newDependencies;
    if (serviceStartName != nullptr) config.mAccount = account;
    if (displayName != nullptr) config.mDisplay = displayName;
    const DWORD code = gWriteFile(fragment, gUnitText(config), false);
    if (code != ERROR_SUCCESS) {
      SetLastError(code);
      return FALSE;
    }
  }
  if (startType != SERVICE_NO_CHANGE && !gApplyStartType(bus, service->mName, startType))
    return FALSE;
  return bus.fReload() ? TRUE : FALSE;
}

BOOL cSystemManager::StartServiceA(SC_HANDLE handle, DWORD, LPCSTR*) {
  cServiceRecord* service = gService(this, handle, SERVICE_START);
  if (service == nullptr) return FALSE;
  if (service->mDeleted) {
    SetLastError(ERROR_SERVICE_MARKED_FOR_DELETE);
    return FALSE;
  }
  if (gLockedByAnother()) {
    SetLastError(ERROR_SERVICE_DATABASE_LOCKED);
    return FALSE;
  }
  cBus bus(this);
  std::string path;
  cUnitState state;
  if (!bus.fOpen() || !bus.fUnitPath(service->mName, path) || !bus.fState(path, state))
    return FALSE;
  if (gStatusOf(state, 0, nullptr).dwCurrentState != SERVICE_STOPPED) {
    SetLastError(ERROR_SERVICE_ALREADY_RUNNING);
    return FALSE;
  }
  // The manager's job carries on after the reply; the status follows it.
  if (!bus.fCall("StartUnit", nullptr, "ss", (service->mName + kSuffix).c_str(), "replace"))
    return FALSE;
  service->mCheckpoint = 0;
  return TRUE;
}

BOOL cSystemManager::ControlService(SC_HANDLE handle, DWORD control, LPSERVICE_STATUS status) {
  DWORD right = 0;
  switch (control) {
    case SERVICE_CONTROL_STOP:
      right = SERVICE_STOP;
      break;
    case SERVICE_CONTROL_PAUSE:
    case SERVICE_CONTROL_CONTINUE:
      right = SERVICE_PAUSE_CONTINUE;
      break;
    case SERVICE_CONTROL_INTERROGATE:
      right = SERVICE_INTERROGATE;
      break;
    default:
      if (gService(this, handle, 0) != nullptr) SetLastError(ERROR_INVALID_SERVICE_CONTROL);
      return FALSE;
  }
  cServiceRecord* service = gService(this, handle, right);
  if (service == nullptr) return FALSE;
  if (status == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  cBus bus(this);
  std::string path;
  cUnitState state;
  if (!bus.fOpen() || !bus.fUnitPath(service->mName, path) || !bus.fState(path, state))
    return FALSE;
  const DWORD type = gServiceTypeOf(bus, path);
  const DWORD current = gStatusOf(state, type, nullptr).dwCurrentState;
  if (current == SERVICE_STOPPED) {
    SetLastError(ERROR_SERVICE_NOT_ACTIVE);
    return FALSE;
  }
  const std::string unit = service->mName + kSuffix;
  if (control == SERVICE_CONTROL_STOP) {
    std::vector<std::string> dependents;
    if (!bus.fStrings(path, kUnit, "RequiredBy", dependents)) return FALSE;
    for (const std::string& dependent : dependents) {
      cEntry entry;
      if (gEndsWith(dependent, kSuffix) &&
          gEntryOf(bus, dependent.substr(0, dependent.size() - (sizeof kSuffix - 1)), entry) &&
          entry.mStatus.dwCurrentState != SERVICE_STOPPED) {
        SetLastError(ERROR_DEPENDENT_SERVICES_RUNNING);
        return FALSE;
      }
    }
    if (!bus.fCall("StopUnit", nullptr, "ss", unit.c_str(), "replace")) return FALSE;
  } else if (control == SERVICE_CONTROL_PAUSE || control == SERVICE_CONTROL_CONTINUE) {
    const int signal = control == SERVICE_CONTROL_PAUSE ? SIGSTOP : SIGCONT;
    if (!bus.fCall("KillUnit", nullptr, "ssi", unit.c_str(), "main", signal)) return FALSE;
  }
  if (!bus.fState(path, state)) return FALSE;
  *status = gStatusOf(state, type, &service->mCheckpoint);
  // The signal may not have landed yet: say it is on its way.
  if (control == SERVICE_CONTROL_PAUSE && status->dwCurrentState == SERVICE_RUNNING)
    status->dwCurrentState = SERVICE_PAUSE_PENDING;
  if (control == SERVICE_CONTROL_CONTINUE && status->dwCurrentState == SERVICE_PAUSED)
    status->dwCurrentState = SERVICE_CONTINUE_PENDING;
  return TRUE;
}

BOOL cSystemManager::QueryServiceStatus(SC_HANDLE handle, LPSERVICE_STATUS status) {
  cServiceRecord* service = gService(this, handle, SERVICE_QUERY_STATUS);
  if (service == nullptr) return FALSE;
  if (status == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  cBus bus(this);
  std::string path;
  cUnitState state;
  if (!bus.fOpen() || !bus.fUnitPath(service->mName, path) || !bus.fState(path, state))
    return FALSE;
  *status = gStatusOf(state, gServiceTypeOf(bus, path), &service->mCheckpoint);
  return TRUE;
}

BOOL cSystemManager::QueryServiceConfigA(SC_HANDLE handle, LPQUERY_SERVICE_CONFIGA config,
                                         DWORD bufSize, LPDWORD bytesNeeded) {
  cServiceRecord* service = gService(this, handle, SERVICE_QUERY_CONFIG);
  if (service == nullptr) return FALSE;
  if (bytesNeeded == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  cBus bus(this);
  std::string path;
  cConfig read;
  if (!bus.fOpen() || !bus.fUnitPath(service->mName, path) || !gReadConfig(bus, path, read))
    return FALSE;
  std::string dependencies;
  for (const std::string& name : read.mDependencies) dependencies += name + '\0';
  dependencies += '\0';
  const std::string account = read.mAccount.empty() ? "LocalSystem" : read.mAccount;
  const std::string* texts[] = {&read.mBinary, &read.mGroup, &dependencies, &account,
                                &read.mDisplay};
  std::size_t need = sizeof(QUERY_SERVICE_CONFIGA);
  for (const std::string* text : texts) need += text->size() + 1;
  *bytesNeeded = static_cast<DWORD>(need);
  if (config == nullptr || bufSize < need) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  char* at = reinterpret_cast<char*>(config) + sizeof(QUERY_SERVICE_CONFIGA);
  LPSTR places[5];
  for (int index = 0; index < 5; ++index) {
    std::memcpy(at, texts[index]->c_str(), texts[index]->size() + 1);
    places[index] = at;
    at += texts[index]->size() + 1;
  }
  QUERY_SERVICE_CONFIGA record{read.mType, read.mStart, read.mErrorControl, places[0], places[1],
                               0, places[2], places[3], places[4]};
  std::memcpy(config, &record, sizeof record);
  return TRUE;
}

BOOL cSystemManager::EnumDependentServicesA(SC_HANDLE handle, DWORD serviceState,
                                            LPENUM_SERVICE_STATUSA services, DWORD bufSize,
                                            LPDWORD bytesNeeded, LPDWORD servicesReturned) {
  cServiceRecord* service = gService(this, handle, SERVICE_ENUMERATE_DEPENDENTS);
  if (service == nullptr) return FALSE;
  if (bytesNeeded == nullptr || servicesReturned == nullptr || serviceState == 0 ||
      serviceState > SERVICE_STATE_ALL) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  cBus bus(this);
  if (!bus.fOpen() || !bus.fLoadInstalled()) return FALSE;
  // Every service that needs ours, directly or through others; the farthest
  // come first, as they are the first to stop.
  std::vector<std::string> order;
  std::set<std::string> seen{service->mName};
  for (std::size_t next = 0, round = 0; round == 0 || next < order.size(); ++round) {
    const std::string name = round == 0 ? service->mName : order[next++];
    std::string path;
    if (!bus.fUnitPath(name, path)) return FALSE;
    for (const char* property : {"RequiredBy", "WantedBy"}) {
      std::vector<std::string> units;
      if (!bus.fStrings(path, kUnit, property, units)) return FALSE;
      std::sort(units.begin(), units.end());
      for (const std::string& unit : units) {
        if (!gEndsWith(unit, kSuffix)) continue;
        const std::string dependent = unit.substr(0, unit.size() - (sizeof kSuffix - 1));
        if (seen.insert(dependent).second) order.push_back(dependent);
      }
    }
  }
  std::vector<cEntry> entries;
  for (auto at = order.rbegin(); at != order.rend(); ++at) {
    cEntry entry;
    if (gEntryOf(bus, *at, entry) && gStateMatches(serviceState, entry.mStatus.dwCurrentState))
      entries.push_back(entry);
  }
  DWORD need = 0;
  for (const cEntry& entry : entries) need += gSizeOf(entry);
  *servicesReturned = 0;
  if (need > bufSize || (need > 0 && services == nullptr)) {
    *bytesNeeded = need;
    SetLastError(ERROR_MORE_DATA);
    return FALSE;
  }
  *bytesNeeded = 0;
  *servicesReturned = gFill(entries, 0, services, bufSize);
  return TRUE;
}

BOOL cSystemManager::EnumServicesStatusA(SC_HANDLE manager, DWORD serviceType, DWORD serviceState,
                                         LPENUM_SERVICE_STATUSA services, DWORD bufSize,
                                         LPDWORD bytesNeeded, LPDWORD servicesReturned,
                                         LPDWORD resumeHandle) {
  if (gManager(this, manager, SC_MANAGER_ENUMERATE_SERVICE) == nullptr) return FALSE;
  if (bytesNeeded == nullptr || servicesReturned == nullptr || serviceState == 0 ||
      serviceState > SERVICE_STATE_ALL || (serviceType & SERVICE_TYPE_ALL) == 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  cBus bus(this);
  tMessage reply;
  if (!bus.fOpen() || !bus.fLoadInstalled() || !bus.fCall("ListUnits", &reply, "")) return FALSE;
  std::vector<std::string> names;
  if (sd_bus_message_enter_container(reply.get(), 'a', "(ssssssouso)") < 0) {
    SetLastError(ERROR_INVALID_DATA);
    return FALSE;
  }
  const char* name = nullptr;
  const char* ignored[8] = {};
  std::uint32_t job = 0;
  while (sd_bus_message_read(reply.get(), "(ssssssouso)", &name, &ignored[0], &ignored[1],
                             &ignored[2], &ignored[3], &ignored[4], &ignored[5], &job,
                             &ignored[6], &ignored[7]) > 0) {
    const std::string unit = name;
    if (gEndsWith(unit, kSuffix)) names.push_back(unit.substr(0, unit.size() - (sizeof kSuffix - 1)));
  }
  std::sort(names.begin(), names.end());
  std::vector<cEntry> entries;
  // Every service here is a Win32 process of its own or shared: none is a driver.
  if ((serviceType & SERVICE_WIN32) != 0) {
    for (const std::string& unit : names) {
      cEntry entry;
      if (gEntryOf(bus, unit, entry) && (entry.mStatus.dwServiceType & serviceType) != 0 &&
          gStateMatches(serviceState, entry.mStatus.dwCurrentState))
        entries.push_back(entry);
    }
  }
  const std::size_t first = resumeHandle != nullptr ? *resumeHandle : 0;
  const DWORD count = gFill(entries, first, services, bufSize);
  *servicesReturned = count;
  DWORD rest = 0;
  for (std::size_t at = first + count; at < entries.size(); ++at) rest += gSizeOf(entries[at]);
  if (first + count < entries.size()) {
    *bytesNeeded = rest;
    if (resumeHandle != nullptr) *resumeHandle = static_cast<DWORD>(first + count);
    SetLastError(ERROR_MORE_DATA);
    return FALSE;
  }
  *bytesNeeded = 0;
  if (resumeHandle != nullptr) *resumeHandle = 0;
  return TRUE;
}

SC_LOCK cSystemManager::LockServiceDatabase(SC_HANDLE manager) {
  if (gManager(this, manager, SC_MANAGER_LOCK) == nullptr) return nullptr;
  if (mkdir(kLockDirectory, 0755) != 0 && errno != EEXIST) {
    SetLastError(gCodeOfErrno(errno));
    return nullptr;
  }
  const int fd = open(kLockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    SetLastError(gCodeOfErrno(errno));
    return nullptr;
  }
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    close(fd);
    SetLastError(error == EWOULDBLOCK ? ERROR_SERVICE_DATABASE_LOCKED : gCodeOfErrno(error));
    return nullptr;
  }
  const std::string owner = gUserName() + "\n" + std::to_string(std::time(nullptr)) + "\n";
  if (ftruncate(fd, 0) != 0 || pwrite(fd, owner.data(), owner.size(), 0) !=
                                   static_cast<ssize_t>(owner.size())) {
    const int error = errno;
    close(fd);
    SetLastError(gCodeOfErrno(error));
    return nullptr;
  }
  auto* lock = new cDatabaseLock;
  lock->mFd = fd;
  cRegistry& registry = gRegistry();
  std::lock_guard const guard(registry.mMutex);
  registry.mLocks.insert(lock);
  return lock;
}

BOOL cSystemManager::UnlockServiceDatabase(SC_LOCK handle) {
  auto* lock = static_cast<cDatabaseLock*>(handle);
  cRegistry& registry = gRegistry();
  {
    std::lock_guard const guard(registry.mMutex);
    if (registry.mLocks.erase(lock) == 0) lock = nullptr;
  }
  if (lock == nullptr) {
    SetLastError(ERROR_INVALID_SERVICE_LOCK);
    return FALSE;
  }
  // Emptied before it is let go, so no reader sees a former owner as the holder.
  const bool emptied = ftruncate(lock->mFd, 0) == 0;
  close(lock->mFd);
  delete lock;
  if (!emptied) {
    SetLastError(gCodeOfErrno(errno));
    return FALSE;
  }
  return TRUE;
}

BOOL cSystemManager::QueryServiceLockStatusA(SC_HANDLE manager,
                                             LPQUERY_SERVICE_LOCK_STATUSA status, DWORD bufSize,
                                             LPDWORD bytesNeeded) {
  if (gManager(this, manager, SC_MANAGER_QUERY_LOCK_STATUS) == nullptr) return FALSE;
  if (bytesNeeded == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  bool locked = false;
  std::string owner;
  long long since = 0;
  const int fd = open(kLockFile, O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    if (flock(fd, LOCK_SH | LOCK_NB) != 0) {
      locked = errno == EWOULDBLOCK;
    } else {
      flock(fd, LOCK_UN);
    }
    if (locked) {
      char text[512];
      const ssize_t length = pread(fd, text, sizeof text - 1, 0);
      text[length > 0 ? length : 0] = '\0';
      char* line = std::strchr(text, '\n');
      if (line != nullptr) {
        *line = '\0';
        since = std::atoll(line + 1);
      }
      owner = text;
    }
    close(fd);
  }
  const std::size_t need = sizeof(QUERY_SERVICE_LOCK_STATUSA) + owner.size() + 1;
  *bytesNeeded = static_cast<DWORD>(need);
  if (status == nullptr || bufSize < need) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  char* const text = reinterpret_cast<char*>(status) + sizeof(QUERY_SERVICE_LOCK_STATUSA);
  std::memcpy(text, owner.c_str(), owner.size() + 1);
  const long long now = std::time(nullptr);
  QUERY_SERVICE_LOCK_STATUSA record{
      locked ? 1u : 0u, text,
      static_cast<DWORD>(locked && since > 0 && now > since ? now - since : 0)};
  std::memcpy(status, &record, sizeof record);
  return TRUE;
}

}  // namespace nScm

int gNotifyServiceManager(const char* state) { return sd_notify(0, state); }
