// The service control manager: the seam, the free functions and the general
// services of the real manager.
#include "Scm.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "internal/SystemManager.h"

cServiceHandle::~cServiceHandle() = default;
iServiceManager::~iServiceManager() = default;

namespace {

std::atomic<iServiceManager*> sCurrent_{nullptr};
thread_local DWORD sLastError_ = ERROR_SUCCESS;

struct cMessage {
  DWORD code;
  const char* text;
};

// Win32's texts of the codes this module sets, and of no other.
constexpr cMessage kMessages_[] = {
    {ERROR_SUCCESS, "The operation completed successfully."},
    {ERROR_INVALID_FUNCTION, "Incorrect function."},
    {ERROR_FILE_NOT_FOUND, "The system cannot find the file specified."},
    {ERROR_ACCESS_DENIED, "Access is denied."},
    {ERROR_INVALID_HANDLE, "The handle is invalid."},
    {ERROR_NOT_ENOUGH_MEMORY, "Not enough memory resources are available to process this command."},
    {ERROR_INVALID_DATA, "The data is invalid."},
    {ERROR_GEN_FAILURE, "A device attached to the system is not functioning."},
    {ERROR_NOT_SUPPORTED, "The request is not supported."},
    {ERROR_INVALID_PARAMETER, "The parameter is incorrect."},
    {ERROR_CALL_NOT_IMPLEMENTED, "This function is not supported on this system."},
    {ERROR_INSUFFICIENT_BUFFER, "The data area passed to a system call is too small."},
    {ERROR_INVALID_NAME, "The filename, directory name, or volume label syntax is incorrect."},
    {ERROR_MORE_DATA, "More data is available."},
    {ERROR_MR_MID_NOT_FOUND, "The system cannot find message text for the message number."},
    {ERROR_DEPENDENT_SERVICES_RUNNING,
     "A stop control has been sent to a service that other running services are dependent on."},
    {ERROR_INVALID_SERVICE_CONTROL, "The requested control is not valid for this service."},
    {ERROR_SERVICE_REQUEST_TIMEOUT,
     "The service did not respond to the start or control request in a timely fashion."},
    {ERROR_SERVICE_DATABASE_LOCKED, "The service database is locked."},
    {ERROR_SERVICE_ALREADY_RUNNING, "An instance of the service is already running."},
    {ERROR_INVALID_SERVICE_ACCOUNT,
     "The account name is invalid or does not exist, or the password is invalid for the account "
     "name specified."},
    {ERROR_SERVICE_DISABLED,
     "The service cannot be started, either because it is disabled or because it has no enabled "
     "devices associated with it."},
    {ERROR_CIRCULAR_DEPENDENCY, "Circular service dependency was specified."},
    {ERROR_SERVICE_DOES_NOT_EXIST, "The specified service does not exist as an installed service."},
    {ERROR_SERVICE_CANNOT_ACCEPT_CTRL, "The service cannot accept control messages at this time."},
    {ERROR_SERVICE_NOT_ACTIVE, "The service has not been started."},
    {ERROR_DATABASE_DOES_NOT_EXIST, "The database specified does not exist."},
    {ERROR_SERVICE_SPECIFIC_ERROR, "The service has returned a service-specific error code."},
    {ERROR_PROCESS_ABORTED, "The process terminated unexpectedly."},
    {ERROR_SERVICE_DEPENDENCY_FAIL, "The dependency service or group failed to start."},
    {ERROR_INVALID_SERVICE_LOCK, "The specified service database lock is invalid."},
    {ERROR_SERVICE_MARKED_FOR_DELETE, "The specified service has been marked for deletion."},
    {ERROR_SERVICE_EXISTS, "The specified service already exists."},
    {ERROR_SHUTDOWN_IN_PROGRESS, "A system shutdown is in progress."},
    {RPC_S_SERVER_UNAVAILABLE, "The RPC server is unavailable."},
};

}  // namespace

iServiceManager* gSystemServiceManager() {
  // Never destroyed: a handle may still be closed by a static destructor.
  static iServiceManager* const system = new nScm::cSystemManager;
  return system;
}

iServiceManager* gServiceManager() {
  iServiceManager* current = sCurrent_.load(std::memory_order_acquire);
  return current != nullptr ? current : gSystemServiceManager();
}

iServiceManager* gSetServiceManager(iServiceManager* manager) {
  iServiceManager* former = sCurrent_.exchange(manager, std::memory_order_acq_rel);
  return former != nullptr ? former : gSystemServiceManager();
}

namespace nScm {

DWORD cSystemManager::FormatMessageA(DWORD flags, LPCVOID, DWORD messageId, DWORD, LPSTR buffer,
                                     DWORD size, va_list*) {
  if ((flags & FORMAT_MESSAGE_FROM_SYSTEM) == 0 || buffer == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  const char* text = nullptr;
  for (const cMessage& message : kMessages_)
    if (message.code == messageId) text = message.text;
  if (text == nullptr) {
    SetLastError(ERROR_MR_MID_NOT_FOUND);
    return 0;
  }
  const std::size_t length = std::strlen(text);
  char* target = buffer;
  if ((flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0) {
    // The caller passed the address of its pointer, as Win32 has it.
    target = static_cast<char*>(LocalAlloc(LMEM_FIXED, length + 1 > size ? length + 1 : size));
    if (target == nullptr) return 0;
    *reinterpret_cast<char**>(buffer) = target;
  } else if (length + 1 > size) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  std::memcpy(target, text, length + 1);
  return static_cast<DWORD>(length);
}

DWORD cSystemManager::GetLastError() { return sLastError_; }

void cSystemManager::SetLastError(DWORD code) { sLastError_ = code; }

HLOCAL cSystemManager::LocalAlloc(UINT flags, SIZE_T bytes) {
  const SIZE_T size = bytes == 0 ? 1 : bytes;
  void* block = (flags & LMEM_ZEROINIT) != 0 ? std::calloc(1, size) : std::malloc(size);
  if (block == nullptr) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return block;
}

HLOCAL cSystemManager::LocalFree(HLOCAL block) {
  std::free(block);
  return nullptr;
}

DWORD cSystemManager::GetModuleFileNameA(HMODULE module, LPSTR fileName, DWORD size) {
  if (module != nullptr) {
    SetLastError(ERROR_INVALID_HANDLE);
    return 0;
  }
  char path[4096];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length < 0) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    return 0;
  }
  if (size == 0) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  // Win32 truncates to the buffer, terminates, and returns the buffer's size.
  if (static_cast<DWORD>(length) >= size) {
    std::memcpy(fileName, path, size - 1);
    fileName[size - 1] = '\0';
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return size;
  }
  std::memcpy(fileName, path, static_cast<std::size_t>(length));
  fileName[length] = '\0';
  return static_cast<DWORD>(length);
}

void cSystemManager::Sleep(DWORD milliseconds) {
  timespec left{static_cast<time_t>(milliseconds / 1000),
                static_cast<long>(milliseconds % 1000) * 1000000L};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

}  // namespace nScm

SC_HANDLE OpenSCManagerA(LPCSTR machine, LPCSTR database, DWORD access) {
  return gServiceManager()->OpenSCManagerA(machine, database, access);
}
SC_HANDLE OpenServiceA(SC_HANDLE manager, LPCSTR serviceName, DWORD access) {
  return gServiceManager()->OpenServiceA(manager, serviceName, access);
}
BOOL CloseServiceHandle(SC_HANDLE handle) { return gServiceManager()->CloseServiceHandle(handle); }
SC_HANDLE CreateServiceA(SC_HANDLE manager, LPCSTR serviceName, LPCSTR displayName, DWORD access,
                         DWORD serviceType, DWORD startType, DWORD errorControl,
                         LPCSTR binaryPathName, LPCSTR loadOrderGroup, LPDWORD tagId,
                         LPCSTR dependencies, LPCSTR serviceStartName, LPCSTR password) {
  return gServiceManager()->CreateServiceA(manager, serviceName, displayName, access, serviceType,
                                           startType, errorControl, binaryPathName,
                                           loadOrderGroup, tagId, dependencies, serviceStartName,
                                           password);
}
BOOL DeleteService(SC_HANDLE service) { return gServiceManager()->DeleteService(service); }
BOOL ChangeServiceConfigA(SC_HANDLE service, DWORD serviceType, DWORD startType,
                          DWORD errorControl, LPCSTR binaryPathName, LPCSTR loadOrderGroup,
                          LPDWORD tagId, LPCSTR dependencies, LPCSTR serviceStartName,
                          LPCSTR password, LPCSTR displayName) {
  return gServiceManager()->ChangeServiceConfigA(service, serviceType, startType, errorControl,
                                                 binaryPathName, loadOrderGroup, tagId,
                                                 dependencies, serviceStartName, password,
                                                 displayName);
}
BOOL StartServiceA(SC_HANDLE service, DWORD argc, LPCSTR* argv) {
  return gServiceManager()->StartServiceA(service, argc, argv);
}
BOOL ControlService(SC_HANDLE service, DWORD control, LPSERVICE_STATUS status) {
  return gServiceManager()->ControlService(service, control, status);
}
BOOL QueryServiceStatus(SC_HANDLE service, LPSERVICE_STATUS status) {
  return gServiceManager()->QueryServiceStatus(service, status);
}
BOOL QueryServiceConfigA(SC_HANDLE service, LPQUERY_SERVICE_CONFIGA config, DWORD bufSize,
                         LPDWORD bytesNeeded) {
  return gServiceManager()->QueryServiceConfigA(service, config, bufSize, bytesNeeded);
}
BOOL EnumDependentServicesA(SC_HANDLE service, DWORD serviceState, LPENUM_SERVICE_STATUSA services,
                            DWORD bufSize, LPDWORD bytesNeeded, LPDWORD servicesReturned) {
  return gServiceManager()->EnumDependentServicesA(service, serviceState, services, bufSize,
                                                   bytesNeeded, servicesReturned);
}
BOOL EnumServicesStatusA(SC_HANDLE manager, DWORD serviceType, DWORD serviceState,
                         LPENUM_SERVICE_STATUSA services, DWORD bufSize, LPDWORD bytesNeeded,
                         LPDWORD servicesReturned, LPDWORD resumeHandle) {
  return gServiceManager()->EnumServicesStatusA(manager, serviceType, serviceState, services,
                                                bufSize, bytesNeeded, servicesReturned,
                                                resumeHandle);
}
SC_LOCK LockServiceDatabase(SC_HANDLE manager) {
  return gServiceManager()->LockServiceDatabase(manager);
}
BOOL UnlockServiceDatabase(SC_LOCK lock) { return gServiceManager()->UnlockServiceDatabase(lock); }
BOOL QueryServiceLockStatusA(SC_HANDLE manager, LPQUERY_SERVICE_LOCK_STATUSA status, DWORD bufSize,
                             LPDWORD bytesNeeded) {
  return gServiceManager()->QueryServiceLockStatusA(manager, status, bufSize, bytesNeeded);
}
DWORD FormatMessageA(DWORD flags, LPCVOID source, DWORD messageId, DWORD languageId, LPSTR buffer,
                     DWORD size, va_list* arguments) {
  return gServiceManager()->FormatMessageA(flags, source, messageId, languageId, buffer, size,
                                           arguments);
}
DWORD GetLastError() { return gServiceManager()->GetLastError(); }
void SetLastError(DWORD code) { gServiceManager()->SetLastError(code); }
HLOCAL LocalAlloc(UINT flags, SIZE_T bytes) { return gServiceManager()->LocalAlloc(flags, bytes); }
HLOCAL LocalFree(HLOCAL block) { return gServiceManager()->LocalFree(block); }
DWORD GetModuleFileNameA(HMODULE module, LPSTR fileName, DWORD size) {
  return gServiceManager()->GetModuleFileNameA(module, fileName, size);
}
void Sleep(DWORD milliseconds) { gServiceManager()->Sleep(milliseconds); }
