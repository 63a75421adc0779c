// The service configurator: every operation is one fixed sequence of service
// manager calls with the product's console texts. The values behind "0x%d"
// go out as 32-bit ints, as the original platform's 32-bit words did.
#include "CorvanthServiceConfig.h"

#include <cstdio>
#include <cstring>

#include "KREnvironment.h"

namespace {

char const kVersionKey[] = "CORVANTH_SERVICE_VERSION_NAME";
char const kBaseServiceName[] = "cvservice";
char const kBaseDisplayName[] = "Kestrun Corvanth Service";
// A QUERY_SERVICE_LOCK_STATUS with room for its owner's name.
DWORD const kLockStatusSize = 269;

// Copies `text` into a 257-byte name. Callers keep names shorter; a longer
// one is cut rather than written past the array.
void gCopyName(char (&name)[257], char const* text) {
  std::snprintf(name, sizeof name, "%s", text != nullptr ? text : "");
}

// printf's "%s" of a null pointer is undefined; print what the original's C
// library printed for it.
char const* gText(char const* text) { return text != nullptr ? text : "(null)"; }

int gInt(DWORD value) { return static_cast<int>(value); }

// Closes what an operation opened, each only if it was obtained.
void gCloseHandles(SC_HANDLE service, SC_HANDLE manager) {
  if (service != nullptr) CloseServiceHandle(service);
  if (manager != nullptr) CloseServiceHandle(manager);
}

// The opening of an operation that prints: true with both handles, or false
// after the failure was printed and the manager closed again.
bool gOpen(CorvanthServiceConfig& config, DWORD managerAccess, DWORD serviceAccess,
           SC_HANDLE& manager, SC_HANDLE& service) {
  manager = OpenSCManagerA(nullptr, nullptr, managerAccess);
  if (manager == nullptr) {
    config.ErrorPrinter("OpenSCManager", GetLastError());
    return false;
  }
  service = OpenServiceA(manager, config.GetServiceName(), serviceAccess);
  if (service != nullptr) return true;
  config.ErrorPrinter("OpenService", GetLastError());
  CloseServiceHandle(manager);
  return false;
}

}  // namespace

CorvanthServiceConfig::CorvanthServiceConfig(const char* service, const char* display) {
  gCopyName(serviceName, service);
  gCopyName(displayName, display);
}

CorvanthServiceConfig& CorvanthServiceConfig::operator=(const CorvanthServiceConfig& other) {
  // memcpy onto itself is undefined, and a self-assignment changes nothing.
  if (this != &other) {
    std::memcpy(serviceName, other.serviceName, sizeof serviceName);
    std::memcpy(displayName, other.displayName, sizeof displayName);
  }
  return *this;
}

bool CorvanthServiceConfig::ResolveCorvanthServiceName() {
  MXEnvContainerClass environment;
  char const* const value = environment.MXEGetEnv(kVersionKey);
  // No default: without the key the names stay what they were.
  if (value == nullptr) return false;
  // A value too long for the arrays is cut at their end, not written past it.
  std::snprintf(serviceName, sizeof serviceName, "%s%s", kBaseServiceName, value);
  std::snprintf(displayName, sizeof displayName, "%s %s", kBaseDisplayName, value);
  return true;
}

int CorvanthServiceConfig::IsInstalled() {
  SC_HANDLE const manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
  if (manager == nullptr) return 0;
  SC_HANDLE const service = OpenServiceA(manager, serviceName, SERVICE_QUERY_CONFIG);
  gCloseHandles(service, manager);
  return service != nullptr ? 1 : 0;
}

int CorvanthServiceConfig::IsRunning() {
  SC_HANDLE const manager = OpenSCManagerA(nullptr, nullptr, GENERIC_READ);
  if (manager == nullptr) return 0;
  int running = 0;
  SC_HANDLE const service = OpenServiceA(manager, serviceName, SERVICE_QUERY_STATUS);
  if (service != nullptr) {
    SERVICE_STATUS status{};
    if (QueryServiceStatus(service, &status) && status.dwCurrentState == SERVICE_RUNNING) running = 1;
  }
  gCloseHandles(service, manager);
  return running;
}

void CorvanthServiceConfig::Install(unsigned long serviceType, unsigned long startType,
                                    const char* dependencies, const char* account,
                                    const char* password) {
  if (IsInstalled() == 1) return;
  // The service's binary is always the program that installs it.
  char path[260] = {};
  GetModuleFileNameA(nullptr, path, sizeof path);
  SC_HANDLE const manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CREATE_SERVICE);
  if (manager == nullptr) {
    ErrorPrinter("OpenSCManager", GetLastError());
    return;
  }
  SC_HANDLE const service = CreateServiceA(
      manager, serviceName, displayName, SERVICE_ALL_ACCESS, static_cast<DWORD>(serviceType),
      static_cast<DWORD>(startType), SERVICE_ERROR_NORMAL, path, nullptr, nullptr, dependencies,
      account, password);
  if (service != nullptr) std::printf("%s Created\n", serviceName);
  else ErrorPrinter("CreateService", GetLastError());
  gCloseHandles(service, manager);
}

void CorvanthServiceConfig::Remove(int stopFirst) {
  SC_HANDLE manager = nullptr;
  SC_HANDLE service = nullptr;
  if (!gOpen(*this, SC_MANAGER_CONNECT, DELETE, manager, service)) return;
  if (stopFirst == 1) {
    // The handle has DELETE access alone, so the line claims more than the
    // call can do; callers have always seen it this way.
    SERVICE_STATUS status{};
    ControlService(service, SERVICE_CONTROL_STOP, &status);
    std::printf("%s stopped\n", serviceName);
  }
  if (DeleteService(service)) std::printf("%s removed\n", serviceName);
  else ErrorPrinter("DeleteService", GetLastError());
  gCloseHandles(service, manager);
}

void CorvanthServiceConfig::Start() {
  SC_HANDLE manager = nullptr;
  SC_HANDLE service = nullptr;
  if (!gOpen(*this, GENERIC_READ, SERVICE_START | SERVICE_QUERY_STATUS, manager, service)) return;
  if (!StartServiceA(service, 0, nullptr)) {
    ErrorPrinter("StartService", GetLastError());
    gCloseHandles(service, manager);
    return;
  }
  // No time limit of its own: the service ends the wait by not advancing its
  // checkpoint over one wait hint.
  SERVICE_STATUS status{};
  bool queried = QueryServiceStatus(service, &status);
  while (queried && status.dwCurrentState != SERVICE_RUNNING) {
    DWORD const checkPoint = status.dwCheckPoint;
    Sleep(status.dwWaitHint);
    queried = QueryServiceStatus(service, &status);
    if (checkPoint >= status.dwCheckPoint) break;
  }
  if (!queried) {
    // The fixed code 1, not the last error.
    ErrorPrinter("QueryServiceStatus", 1);
  } else if (status.dwCurrentState == SERVICE_RUNNING) {
    std::printf("%s started successfully.\n", serviceName);
  } else {
    std::printf("%s start unsuccessful: \n", serviceName);
    std::printf("Current State: 0x%d \n", gInt(status.dwCurrentState));
    std::printf("Win32 Exit: %d \n", gInt(status.dwWin32ExitCode));
    std::printf("Service Exit: %d \n", gInt(status.dwServiceSpecificExitCode));
    std::printf("Checkpoint: 0x%d \n", gInt(status.dwCheckPoint));
    std::printf("WaitHint: 0x%d \n", gInt(status.dwWaitHint));
  }
  gCloseHandles(service, manager);
}

void CorvanthServiceConfig::Control(unsigned long code) {
  SC_HANDLE manager = nullptr;
  SC_HANDLE service = nullptr;
  if (!gOpen(*this, GENERIC_READ, GENERIC_EXECUTE, manager, service)) return;
  SERVICE_STATUS status{};
  if (ControlService(service, static_cast<DWORD>(code), &status)) {
    // Not quite Status's texts: no blank before the line ends, one behind 0x.
    std::printf("Service Status for %s \n", serviceName);
    std::printf("Type: 0x%d \n", gInt(status.dwServiceType));
    std::printf("Current State: 0x%d \n", gInt(status.dwCurrentState));
    std::printf("Controls Accepted: %d\n", gInt(status.dwControlsAccepted));
    std::printf("Win32 Exit: %d\n", gInt(status.dwWin32ExitCode));
    std::printf("Service Exit: %d\n", gInt(status.dwServiceSpecificExitCode));
    std::printf("Checkpoint: 0x %d\n", gInt(status.dwCheckPoint));
    std::printf("WaitHint: 0x %d\n", gInt(status.dwWaitHint));
  } else {
    ErrorPrinter("ControlService", GetLastError());
  }
  gCloseHandles(service, manager);
}

void CorvanthServiceConfig::Status() {
  SC_HANDLE manager = nullptr;
  SC_HANDLE service = nullptr;
  if (!gOpen(*this, GENERIC_READ, SERVICE_QUERY_STATUS, manager, service)) return;
  SERVICE_STATUS status{};
  if (QueryServiceStatus(service, &status)) {
    std::printf("Service Status for %s \n", serviceName);
    std::printf("Type: 0x%d \n", gInt(status.dwServiceType));
    std::printf("Current State: 0x%d \n", gInt(status.dwCurrentState));
    std::printf("Controls Accepted: %d \n", gInt(status.dwControlsAccepted));
    std::printf("Win32 Exit: %d \n", gInt(status.dwWin32ExitCode));
    std::printf("Service Exit: %d \n", gInt(status.dwServiceSpecificExitCode));
    std::printf("Checkpoint: 0x%d \n", gInt(status.dwCheckPoint));
    std::printf("WaitHint: 0x%d \n", gInt(status.dwWaitHint));
  } else {
    ErrorPrinter("QueryServiceStatus", GetLastError());
  }
  gCloseHandles(service, manager);
}

void CorvanthServiceConfig::GetConfig() {
  SC_HANDLE manager = nullptr;
  SC_HANDLE service = nullptr;
  if (!gOpen(*this, GENERIC_READ, SERVICE_QUERY_CONFIG, manager, service)) return;
  // The first call only learns the size.
  DWORD needed = 0;
  QueryServiceConfigA(service, nullptr, 0, &needed);
  auto* const config = static_cast<QUERY_SERVICE_CONFIGA*>(LocalAlloc(LPTR, needed));
  if (config == nullptr) {
    ErrorPrinter("LocalAlloc", 1);
  } else if (!QueryServiceConfigA(service, config, needed, &needed)) {
    ErrorPrinter("QueryServiceConfig", GetLastError());
  } else {
    std::printf("\nService Configuration for %s: \n", serviceName);
    std::printf("Display Name: %s \n", gText(config->lpDisplayName));
    std::printf("Type: 0x%d \n", gInt(config->dwServiceType));
    std::printf("Start Type: 0x%d \n", gInt(config->dwStartType));
    std::printf("Error Level: 0x%d \n", gInt(config->dwErrorControl));
    std::printf("Binary path: %s \n", gText(config->lpBinaryPathName));
    std::printf("Load Order Group: %s \n", gText(config->lpLoadOrderGroup));
    std::printf("Tag ID: %d \n", gInt(config->dwTagId));
    std::printf("Dependencies:  \n");
    // One zero-terminated name after the other, an empty one ends the list.
    if (config->lpDependencies != nullptr) {
      for (char const* name = config->lpDependencies; *name != '\0'; name += std::strlen(name) + 1)
        std::printf("%s \n", name);
    }
    std::printf("Login Under: %s \n", gText(config->lpServiceStartName));
  }
  if (config != nullptr) LocalFree(config);
  gCloseHandles(service, manager);
}

void CorvanthServiceConfig::Dependencies() {
  SC_HANDLE manager = nullptr;
  SC_HANDLE service = nullptr;
  if (!gOpen(*this, GENERIC_READ, SERVICE_ENUMERATE_DEPENDENTS, manager, service)) return;
  DWORD needed = 0;
  DWORD count = 0;
  EnumDependentServicesA(service, SERVICE_STATE_ALL, nullptr, 0, &needed, &count);
  if (needed == 0) {
    std::printf("%s has no dependencies\n", serviceName);
    gCloseHandles(service, manager);
    return;
  }
  auto* const dependents = static_cast<ENUM_SERVICE_STATUSA*>(LocalAlloc(LPTR, needed));
  if (dependents == nullptr) {
    ErrorPrinter("LocalAlloc", 1);
  } else if (!EnumDependentServicesA(service, SERVICE_STATE_ALL, dependents, needed, &needed,
                                     &count)) {
    ErrorPrinter("EnumDependentServices", GetLastError());
  } else {
    std::printf("Services Dependent On %s \n", serviceName);
    for (DWORD i = 0; i < count; ++i) {
      std::printf("%s \n", gText(dependents[i].lpDisplayName));
      std::printf("Current State: 0x%d \n", gInt(dependents[i].ServiceStatus.dwCurrentState));
    }
  }
  if (dependents != nullptr) LocalFree(dependents);
  gCloseHandles(service, manager);
}

void CorvanthServiceConfig::ChangeStartType(int automatic) {
  SC_HANDLE const manager = OpenSCManagerA(nullptr, nullptr, GENERIC_READ | GENERIC_EXECUTE);
  if (manager == nullptr) {
    ErrorPrinter("OpenSCManager", GetLastError());
    return;
  }
  void* const lock = LockDatabase(manager);
  if (lock == nullptr) {
    std::printf("Service Configuration could not be changed\n");
    gCloseHandles(nullptr, manager);
    return;
  }
  SC_HANDLE const service = OpenServiceA(manager, serviceName, SERVICE_CHANGE_CONFIG);
  if (service == nullptr) {
    ErrorPrinter("OpenService", GetLastError());
  } else if (ChangeServiceConfigA(service, SERVICE_NO_CHANGE,
                                  automatic != 0 ? SERVICE_AUTO_START : SERVICE_DEMAND_START,
                                  SERVICE_NO_CHANGE, nullptr, nullptr, nullptr, nullptr, nullptr,
                                  nullptr, nullptr)) {
    std::printf("Changed Service Configuration Successfully\n");
  } else {
    ErrorPrinter("ChangeServiceConfig", GetLastError());
  }
  // The lock goes after the service handle and before the manager's.
  if (service != nullptr) CloseServiceHandle(service);
  UnlockServiceDatabase(lock);
  CloseServiceHandle(manager);
}

void* CorvanthServiceConfig::LockDatabase(SC_HANDLE manager) {
  if (SC_LOCK const lock = LockServiceDatabase(manager); lock != nullptr) return lock;
  auto* const lockStatus =
      static_cast<QUERY_SERVICE_LOCK_STATUSA*>(LocalAlloc(LPTR, kLockStatusSize));
  // A failed allocation is reported and the query still asked, so that it
  // reports its own failure too; with no buffer it is told there is no room.
  if (lockStatus == nullptr) ErrorPrinter("LocalAlloc", 1);
  DWORD needed = 0;
  if (!QueryServiceLockStatusA(manager, lockStatus, lockStatus != nullptr ? kLockStatusSize : 0,
                               &needed)) {
    ErrorPrinter("QueryServiceLockStatus", GetLastError());
  } else if (lockStatus != nullptr && lockStatus->fIsLocked) {
    std::printf("Locked by: %s for %d seconds\n", gText(lockStatus->lpLockOwner),
                gInt(lockStatus->dwLockDuration));
  } else {
    std::printf("Database Not Locked\n");
  }
  if (lockStatus != nullptr) LocalFree(lockStatus);
  return nullptr;
}

unsigned long CorvanthServiceConfig::ErrorPrinter(const char* operation, unsigned long code) {
  char* text = nullptr;
  FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr,
                 static_cast<DWORD>(code), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                 reinterpret_cast<char*>(&text), 0, nullptr);
  if (text != nullptr) std::printf("%s failed: %s\n", operation, text);
  else std::printf("%s failed: Unknown error %x\n", operation, static_cast<unsigned>(code));
  LocalFree(text);
  return code;
}
