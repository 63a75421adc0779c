// The service control manager over systemd.
// Our Linux build of the Win32 service manager calls that the service
// configurator and the support report use, with their Win32 names, records and
// constants. The real manager speaks to systemd over D-Bus (sd-bus) and asks
// it for every answer; no unit state is guessed from files.
//
// Mapping. A service NAME is the unit NAME.service. CreateServiceA writes the
// unit file into /etc/systemd/system, or the directory CORVANTH_UNIT_DIR names,
// and reloads the manager. The start type is the unit file state: automatic =
// enabled, demand = disabled, disabled = disabled plus a drop-in
// NAME.service.d/ with RefuseManualStart=yes. Unit states map to
// SERVICE_RUNNING (active), SERVICE_START_PENDING (activating),
// SERVICE_STOP_PENDING (deactivating) and SERVICE_STOPPED (inactive, failed).
// The database lock is an flock'ed file under /run/corvanth/.
//
// Seam. Every free function forwards to the current iServiceManager
// (gServiceManager()); the real one is current unless a test installed another
// with gSetServiceManager. cServiceManagerWrapper forwards every call to a
// target, so a stand-in overrides only the calls it needs.
//
// Ownership. A handle belongs to the manager that made it and goes back to it
// through CloseServiceHandle; a lock through UnlockServiceDatabase; LocalAlloc
// blocks (and FormatMessageA's allocated text) through LocalFree.
//
// Threads. Every call may come from any thread. GetLastError is per thread.
// A handle is used by one thread at a time.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "CorvanthExport.h"

// Each manager derives its handle records from this; a handle is only ever
// given back to the manager that made it.
class CORVANTH_EXPORT cServiceHandle {
 public:
  virtual ~cServiceHandle();
};

using SC_HANDLE = cServiceHandle*;
using SC_LOCK = void*;
using DWORD = std::uint32_t;
using BOOL = int;
using UINT = unsigned int;
using SIZE_T = std::size_t;
using LPSTR = char*;
using LPCSTR = const char*;
using LPVOID = void*;
using LPCVOID = const void*;
using LPDWORD = DWORD*;
using HLOCAL = void*;
using HMODULE = void*;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

struct SERVICE_STATUS {
  DWORD dwServiceType;
  DWORD dwCurrentState;
  DWORD dwControlsAccepted;
  DWORD dwWin32ExitCode;
  DWORD dwServiceSpecificExitCode;
  DWORD dwCheckPoint;
  DWORD dwWaitHint;
};
using LPSERVICE_STATUS = SERVICE_STATUS*;

// The texts point into the same block behind the record.
struct QUERY_SERVICE_CONFIGA {
  DWORD dwServiceType;
  DWORD dwStartType;
  DWORD dwErrorControl;
  LPSTR lpBinaryPathName;
  LPSTR lpLoadOrderGroup;
  DWORD dwTagId;
  LPSTR lpDependencies;  // names each ended by a zero, the list by a second zero
  LPSTR lpServiceStartName;
  LPSTR lpDisplayName;
};
using LPQUERY_SERVICE_CONFIGA = QUERY_SERVICE_CONFIGA*;

struct ENUM_SERVICE_STATUSA {
  LPSTR lpServiceName;
  LPSTR lpDisplayName;
  SERVICE_STATUS ServiceStatus;
};
using LPENUM_SERVICE_STATUSA = ENUM_SERVICE_STATUSA*;

struct QUERY_SERVICE_LOCK_STATUSA {
  DWORD fIsLocked;
  LPSTR lpLockOwner;
  DWORD dwLockDuration;  // seconds
};
using LPQUERY_SERVICE_LOCK_STATUSA = QUERY_SERVICE_LOCK_STATUSA*;

// Standard and generic access rights.
constexpr DWORD DELETE = 0x00010000;
constexpr DWORD READ_CONTROL = 0x00020000;
constexpr DWORD WRITE_DAC = 0x00040000;
constexpr DWORD WRITE_OWNER = 0x00080000;
constexpr DWORD STANDARD_RIGHTS_REQUIRED = 0x000F0000;
constexpr DWORD STANDARD_RIGHTS_READ = READ_CONTROL;
constexpr DWORD STANDARD_RIGHTS_WRITE = READ_CONTROL;
constexpr DWORD STANDARD_RIGHTS_EXECUTE = READ_CONTROL;
constexpr DWORD GENERIC_READ = 0x80000000;
constexpr DWORD GENERIC_WRITE = 0x40000000;
constexpr DWORD GENERIC_EXECUTE = 0x20000000;
constexpr DWORD GENERIC_ALL = 0x10000000;

// Manager access rights.
constexpr DWORD SC_MANAGER_CONNECT = 0x0001;
constexpr DWORD SC_MANAGER_CREATE_SERVICE = 0x0002;
constexpr DWORD SC_MANAGER_ENUMERATE_SERVICE = 0x0004;
constexpr DWORD SC_MANAGER_LOCK = 0x0008;
constexpr DWORD SC_MANAGER_QUERY_LOCK_STATUS = 0x0010;
constexpr DWORD SC_MANAGER_MODIFY_BOOT_CONFIG = 0x0020;
constexpr DWORD SC_MANAGER_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | 0x003F;

// Service access rights.
constexpr DWORD SERVICE_QUERY_CONFIG = 0x0001;
constexpr DWORD SERVICE_CHANGE_CONFIG = 0x0002;
constexpr DWORD SERVICE_QUERY_STATUS = 0x0004;
constexpr DWORD SERVICE_ENUMERATE_DEPENDENTS = 0x0008;
constexpr DWORD SERVICE_START = 0x0010;
constexpr DWORD SERVICE_STOP = 0x0020;
constexpr DWORD SERVICE_PAUSE_CONTINUE = 0x0040;
constexpr DWORD SERVICE_INTERROGATE = 0x0080;
constexpr DWORD SERVICE_USER_DEFINED_CONTROL = 0x0100;
constexpr DWORD SERVICE_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | 0x01FF;

// Service types.
constexpr DWORD SERVICE_KERNEL_DRIVER = 0x0001;
constexpr DWORD SERVICE_FILE_SYSTEM_DRIVER = 0x0002;
constexpr DWORD SERVICE_ADAPTER = 0x0004;
constexpr DWORD SERVICE_RECOGNIZER_DRIVER = 0x0008;
constexpr DWORD SERVICE_DRIVER = 0x000B;
constexpr DWORD SERVICE_WIN32_OWN_PROCESS = 0x0010;
constexpr DWORD SERVICE_WIN32_SHARE_PROCESS = 0x0020;
constexpr DWORD SERVICE_WIN32 = 0x0030;
constexpr DWORD SERVICE_INTERACTIVE_PROCESS = 0x0100;
constexpr DWORD SERVICE_TYPE_ALL = 0x013F;

// Start types.
constexpr DWORD SERVICE_BOOT_START = 0;
constexpr DWORD SERVICE_SYSTEM_START = 1;
constexpr DWORD SERVICE_AUTO_START = 2;
constexpr DWORD SERVICE_DEMAND_START = 3;
constexpr DWORD SERVICE_DISABLED = 4;

// Error control.
constexpr DWORD SERVICE_ERROR_IGNORE = 0;
constexpr DWORD SERVICE_ERROR_NORMAL = 1;
constexpr DWORD SERVICE_ERROR_SEVERE = 2;
constexpr DWORD SERVICE_ERROR_CRITICAL = 3;

constexpr DWORD SERVICE_NO_CHANGE = 0xFFFFFFFF;

// Current states.
constexpr DWORD SERVICE_STOPPED = 1;
constexpr DWORD SERVICE_START_PENDING = 2;
constexpr DWORD SERVICE_STOP_PENDING = 3;
constexpr DWORD SERVICE_RUNNING = 4;
constexpr DWORD SERVICE_CONTINUE_PENDING = 5;
constexpr DWORD SERVICE_PAUSE_PENDING = 6;
constexpr DWORD SERVICE_PAUSED = 7;

// Controls and the controls a service accepts.
constexpr DWORD SERVICE_CONTROL_STOP = 1;
constexpr DWORD SERVICE_CONTROL_PAUSE = 2;
constexpr DWORD SERVICE_CONTROL_CONTINUE = 3;
constexpr DWORD SERVICE_CONTROL_INTERROGATE = 4;
constexpr DWORD SERVICE_CONTROL_SHUTDOWN = 5;
constexpr DWORD SERVICE_ACCEPT_STOP = 0x0001;
constexpr DWORD SERVICE_ACCEPT_PAUSE_CONTINUE = 0x0002;
constexpr DWORD SERVICE_ACCEPT_SHUTDOWN = 0x0004;

// Service states to enumerate.
constexpr DWORD SERVICE_ACTIVE = 1;
constexpr DWORD SERVICE_INACTIVE = 2;
constexpr DWORD SERVICE_STATE_ALL = 3;

// FormatMessageA and LocalAlloc flags.
constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x0100;
constexpr DWORD FORMAT_MESSAGE_IGNORE_INSERTS = 0x0200;
constexpr DWORD FORMAT_MESSAGE_FROM_STRING = 0x0400;
constexpr DWORD FORMAT_MESSAGE_FROM_HMODULE = 0x0800;
constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x1000;
constexpr DWORD FORMAT_MESSAGE_ARGUMENT_ARRAY = 0x2000;
constexpr DWORD LANG_NEUTRAL = 0x00;
constexpr DWORD SUBLANG_DEFAULT = 0x01;
constexpr DWORD MAKELANGID(DWORD primary, DWORD sub) { return (sub << 10) | primary; }
constexpr UINT LMEM_FIXED = 0x0000;
constexpr UINT LMEM_ZEROINIT = 0x0040;
constexpr UINT LPTR = LMEM_FIXED | LMEM_ZEROINIT;

// Error codes this module produces.
constexpr DWORD ERROR_SUCCESS = 0;
constexpr DWORD ERROR_INVALID_FUNCTION = 1;
constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
constexpr DWORD ERROR_ACCESS_DENIED = 5;
constexpr DWORD ERROR_INVALID_HANDLE = 6;
constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr DWORD ERROR_INVALID_DATA = 13;
constexpr DWORD ERROR_GEN_FAILURE = 31;
constexpr DWORD ERROR_NOT_SUPPORTED = 50;
constexpr DWORD ERROR_INVALID_PARAMETER = 87;
constexpr DWORD ERROR_CALL_NOT_IMPLEMENTED = 120;
constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
constexpr DWORD ERROR_INVALID_NAME = 123;
constexpr DWORD ERROR_MORE_DATA = 234;
constexpr DWORD ERROR_MR_MID_NOT_FOUND = 317;
constexpr DWORD ERROR_DEPENDENT_SERVICES_RUNNING = 1051;
constexpr DWORD ERROR_INVALID_SERVICE_CONTROL = 1052;
constexpr DWORD ERROR_SERVICE_REQUEST_TIMEOUT = 1053;
constexpr DWORD ERROR_SERVICE_DATABASE_LOCKED = 1055;
constexpr DWORD ERROR_SERVICE_ALREADY_RUNNING = 1056;
constexpr DWORD ERROR_INVALID_SERVICE_ACCOUNT = 1057;
constexpr DWORD ERROR_SERVICE_DISABLED = 1058;
constexpr DWORD ERROR_CIRCULAR_DEPENDENCY = 1059;
constexpr DWORD ERROR_SERVICE_DOES_NOT_EXIST = 1060;
constexpr DWORD ERROR_SERVICE_CANNOT_ACCEPT_CTRL = 1061;
constexpr DWORD ERROR_SERVICE_NOT_ACTIVE = 1062;
constexpr DWORD ERROR_DATABASE_DOES_NOT_EXIST = 1065;
constexpr DWORD ERROR_SERVICE_SPECIFIC_ERROR = 1066;
constexpr DWORD ERROR_PROCESS_ABORTED = 1067;
constexpr DWORD ERROR_SERVICE_DEPENDENCY_FAIL = 1068;
constexpr DWORD ERROR_INVALID_SERVICE_LOCK = 1071;
constexpr DWORD ERROR_SERVICE_MARKED_FOR_DELETE = 1072;
constexpr DWORD ERROR_SERVICE_EXISTS = 1073;
constexpr DWORD ERROR_SHUTDOWN_IN_PROGRESS = 1115;
constexpr DWORD RPC_S_SERVER_UNAVAILABLE = 1722;

// The operations of a service manager, in their Win32 shapes. Each failure
// returns FALSE or null and sets the calling thread's last error.
class CORVANTH_EXPORT iServiceManager {
 public:
  virtual ~iServiceManager();

  virtual SC_HANDLE OpenSCManagerA(LPCSTR machine, LPCSTR database, DWORD access) = 0;
  virtual SC_HANDLE OpenServiceA(SC_HANDLE manager, LPCSTR serviceName, DWORD access) = 0;
  virtual BOOL CloseServiceHandle(SC_HANDLE handle) = 0;
  virtual SC_HANDLE CreateServiceA(SC_HANDLE manager, LPCSTR serviceName, LPCSTR displayName,
                                   DWORD access, DWORD serviceType, DWORD startType,
                                   DWORD errorControl, LPCSTR binaryPathName,
                                   LPCSTR loadOrderGroup, LPDWORD tagId, LPCSTR dependencies,
                                   LPCSTR serviceStartName, LPCSTR password) = 0;
  virtual BOOL DeleteService(SC_HANDLE service) = 0;
  virtual BOOL ChangeServiceConfigA(SC_HANDLE service, DWORD serviceType, DWORD startType,
                                    DWORD errorControl, LPCSTR binaryPathName,
                                    LPCSTR loadOrderGroup, LPDWORD tagId, LPCSTR dependencies,
                                    LPCSTR serviceStartName, LPCSTR password,
                                    LPCSTR displayName) = 0;
  virtual BOOL StartServiceA(SC_HANDLE service, DWORD argc, LPCSTR* argv) = 0;
  virtual BOOL ControlService(SC_HANDLE service, DWORD control, LPSERVICE_STATUS status) = 0;
  virtual BOOL QueryServiceStatus(SC_HANDLE service, LPSERVICE_STATUS status) = 0;
  // Size-then-data: a buffer too small (or null) fails with
  // ERROR_INSUFFICIENT_BUFFER and *bytesNeeded set.
  virtual BOOL QueryServiceConfigA(SC_HANDLE service, LPQUERY_SERVICE_CONFIGA config,
                                   DWORD bufSize, LPDWORD bytesNeeded) = 0;
  // A buffer too small fails with ERROR_MORE_DATA and *bytesNeeded set; no
  // dependents at all succeed with 0 needed and 0 returned.
  virtual BOOL EnumDependentServicesA(SC_HANDLE service, DWORD serviceState,
                                      LPENUM_SERVICE_STATUSA services, DWORD bufSize,
                                      LPDWORD bytesNeeded, LPDWORD servicesReturned) = 0;
  virtual BOOL EnumServicesStatusA(SC_HANDLE manager, DWORD serviceType, DWORD serviceState,
                                   LPENUM_SERVICE_STATUSA services, DWORD bufSize,
                                   LPDWORD bytesNeeded, LPDWORD servicesReturned,
                                   LPDWORD resumeHandle) = 0;
  virtual SC_LOCK LockServiceDatabase(SC_HANDLE manager) = 0;
  virtual BOOL UnlockServiceDatabase(SC_LOCK lock) = 0;
  virtual BOOL QueryServiceLockStatusA(SC_HANDLE manager, LPQUERY_SERVICE_LOCK_STATUSA status,
                                       DWORD bufSize, LPDWORD bytesNeeded) = 0;
  // FORMAT_MESSAGE_FROM_SYSTEM knows the codes listed above, and no other
  // (ERROR_MR_MID_NOT_FOUND); the texts are Win32's, without its CR LF ending.
  virtual DWORD FormatMessageA(DWORD flags, LPCVOID source, DWORD messageId, DWORD languageId,
                               LPSTR buffer, DWORD size, va_list* arguments) = 0;
  virtual DWORD GetLastError() = 0;
  virtual void SetLastError(DWORD code) = 0;
  virtual HLOCAL LocalAlloc(UINT flags, SIZE_T bytes) = 0;
  virtual HLOCAL LocalFree(HLOCAL block) = 0;
  virtual DWORD GetModuleFileNameA(HMODULE module, LPSTR fileName, DWORD size) = 0;
  virtual void Sleep(DWORD milliseconds) = 0;
};

// Forwards every call to its target, which it does not own.
class CORVANTH_EXPORT cServiceManagerWrapper : public iServiceManager {
 public:
  explicit cServiceManagerWrapper(iServiceManager* target) : target_(target) {}
  iServiceManager* fTarget() const { return target_; }

  SC_HANDLE OpenSCManagerA(LPCSTR machine, LPCSTR database, DWORD access) override {
    return target_->OpenSCManagerA(machine, database, access);
  }
  SC_HANDLE OpenServiceA(SC_HANDLE manager, LPCSTR serviceName, DWORD access) override {
    return target_->OpenServiceA(manager, serviceName, access);
  }
  BOOL CloseServiceHandle(SC_HANDLE handle) override { return target_->CloseServiceHandle(handle); }
  SC_HANDLE CreateServiceA(SC_HANDLE manager, LPCSTR serviceName, LPCSTR displayName, DWORD access,
                           DWORD serviceType, DWORD startType, DWORD errorControl,
                           LPCSTR binaryPathName, LPCSTR loadOrderGroup, LPDWORD tagId,
                           LPCSTR dependencies, LPCSTR serviceStartName,
                           LPCSTR password) override {
    return target_->CreateServiceA(manager, serviceName, displayName, access, serviceType,
                                   startType, errorControl, binaryPathName, loadOrderGroup, tagId,
                                   dependencies, serviceStartName, password);
  }
  BOOL DeleteService(SC_HANDLE service) override { return target_->DeleteService(service); }
  BOOL ChangeServiceConfigA(SC_HANDLE service, DWORD serviceType, DWORD startType,
                            DWORD errorControl, LPCSTR binaryPathName, LPCSTR loadOrderGroup,
                            LPDWORD tagId, LPCSTR dependencies, LPCSTR serviceStartName,
                            LPCSTR password, LPCSTR displayName) override {
    return target_->ChangeServiceConfigA(service, serviceType, startType, errorControl,
                                         binaryPathName, loadOrderGroup, tagId, dependencies,
                                         serviceStartName, password, displayName);
  }
  BOOL StartServiceA(SC_HANDLE service, DWORD argc, LPCSTR* argv) override {
    return target_->StartServiceA(service, argc, argv);
  }
  BOOL ControlService(SC_HANDLE service, DWORD control, LPSERVICE_STATUS status) override {
    return target_->ControlService(service, control, status);
  }
  BOOL QueryServiceStatus(SC_HANDLE service, LPSERVICE_STATUS status) override {
    return target_->QueryServiceStatus(service, status);
  }
  BOOL QueryServiceConfigA(SC_HANDLE service, LPQUERY_SERVICE_CONFIGA config, DWORD bufSize,
                           LPDWORD bytesNeeded) override {
    return target_->QueryServiceConfigA(service, config, bufSize, bytesNeeded);
  }
  BOOL EnumDependentServicesA(SC_HANDLE service, DWORD serviceState,
                              LPENUM_SERVICE_STATUSA services, DWORD bufSize, LPDWORD bytesNeeded,
                              LPDWORD servicesReturned) override {
    return target_->EnumDependentServicesA(service, serviceState, services, bufSize, bytesNeeded,
                                           servicesReturned);
  }
  BOOL EnumServicesStatusA(SC_HANDLE manager, DWORD serviceType, DWORD serviceState,
                           LPENUM_SERVICE_STATUSA services, DWORD bufSize, LPDWORD bytesNeeded,
                           LPDWORD servicesReturned, LPDWORD resumeHandle) override {
    return target_->EnumServicesStatusA(manager, serviceType, serviceState, services, bufSize,
                                        bytesNeeded, servicesReturned, resumeHandle);
  }
  SC_LOCK LockServiceDatabase(SC_HANDLE manager) override {
    return target_->LockServiceDatabase(manager);
  }
  BOOL UnlockServiceDatabase(SC_LOCK lock) override { return target_->UnlockServiceDatabase(lock); }
  BOOL QueryServiceLockStatusA(SC_HANDLE manager, LPQUERY_SERVICE_LOCK_STATUSA status,
                               DWORD bufSize, LPDWORD bytesNeeded) override {
    return target_->QueryServiceLockStatusA(manager, status, bufSize, bytesNeeded);
  }
  DWORD FormatMessageA(DWORD flags, LPCVOID source, DWORD messageId, DWORD languageId,
                       LPSTR buffer, DWORD size, va_list* arguments) override {
    return target_->FormatMessageA(flags, source, messageId, languageId, buffer, size, arguments);
  }
  DWORD GetLastError() override { return target_->GetLastError(); }
  void SetLastError(DWORD code) override { target_->SetLastError(code); }
  HLOCAL LocalAlloc(UINT flags, SIZE_T bytes) override { return target_->LocalAlloc(flags, bytes); }
  HLOCAL LocalFree(HLOCAL block) override { return target_->LocalFree(block); }
  DWORD GetModuleFileNameA(HMODULE module, LPSTR fileName, DWORD size) override {
    return target_->GetModuleFileNameA(module, fileName, size);
  }
  void Sleep(DWORD milliseconds) override { target_->Sleep(milliseconds); }

 private:
  iServiceManager* target_;
};

// The real manager over systemd; it lives as long as the process.
CORVANTH_EXPORT iServiceManager* gSystemServiceManager();
// The manager the free functions use now: the real one unless replaced.
CORVANTH_EXPORT iServiceManager* gServiceManager();
// Makes `manager` current (null: the real one again) and returns the former.
// The caller keeps ownership and keeps it alive while it is current.
CORVANTH_EXPORT iServiceManager* gSetServiceManager(iServiceManager* manager);

// The Win32 calls, each forwarded to gServiceManager().
CORVANTH_EXPORT SC_HANDLE OpenSCManagerA(LPCSTR machine, LPCSTR database, DWORD access);
CORVANTH_EXPORT SC_HANDLE OpenServiceA(SC_HANDLE manager, LPCSTR serviceName, DWORD access);
CORVANTH_EXPORT BOOL CloseServiceHandle(SC_HANDLE handle);
CORVANTH_EXPORT SC_HANDLE CreateServiceA(SC_HANDLE manager, LPCSTR serviceName,
                                         LPCSTR displayName, DWORD access, DWORD serviceType,
                                         DWORD startType, DWORD errorControl,
                                         LPCSTR binaryPathName, LPCSTR loadOrderGroup,
                                         LPDWORD tagId, LPCSTR dependencies,
                                         LPCSTR serviceStartName, LPCSTR password);
CORVANTH_EXPORT BOOL DeleteService(SC_HANDLE service);
CORVANTH_EXPORT BOOL ChangeServiceConfigA(SC_HANDLE service, DWORD serviceType, DWORD startType,
                                          DWORD errorControl, LPCSTR binaryPathName,
                                          LPCSTR loadOrderGroup, LPDWORD tagId,
                                          LPCSTR dependencies, LPCSTR serviceStartName,
                                          LPCSTR password, LPCSTR displayName);
CORVANTH_EXPORT BOOL StartServiceA(SC_HANDLE service, DWORD argc, LPCSTR* argv);
CORVANTH_EXPORT BOOL ControlService(SC_HANDLE service, DWORD control, LPSERVICE_STATUS status);
CORVANTH_EXPORT BOOL QueryServiceStatus(SC_HANDLE service, LPSERVICE_STATUS status);
CORVANTH_EXPORT BOOL QueryServiceConfigA(SC_HANDLE service, LPQUERY_SERVICE_CONFIGA config,
                                         DWORD bufSize, LPDWORD bytesNeeded);
CORVANTH_EXPORT BOOL EnumDependentServicesA(SC_HANDLE service, DWORD serviceState,
                                            LPENUM_SERVICE_STATUSA services, DWORD bufSize,
                                            LPDWORD bytesNeeded, LPDWORD servicesReturned);
CORVANTH_EXPORT BOOL EnumServicesStatusA(SC_HANDLE manager, DWORD serviceType,
                                         DWORD serviceState, LPENUM_SERVICE_STATUSA services,
                                         DWORD bufSize, LPDWORD bytesNeeded,
                                         LPDWORD servicesReturned, LPDWORD resumeHandle);
CORVANTH_EXPORT SC_LOCK LockServiceDatabase(SC_HANDLE manager);
CORVANTH_EXPORT BOOL UnlockServiceDatabase(SC_LOCK lock);
CORVANTH_EXPORT BOOL QueryServiceLockStatusA(SC_HANDLE manager,
                                             LPQUERY_SERVICE_LOCK_STATUSA status, DWORD bufSize,
                                             LPDWORD bytesNeeded);
CORVANTH_EXPORT DWORD FormatMessageA(DWORD flags, LPCVOID source, DWORD messageId,
                                     DWORD languageId, LPSTR buffer, DWORD size,
                                     va_list* arguments);
CORVANTH_EXPORT DWORD GetLastError();
CORVANTH_EXPORT void SetLastError(DWORD code);
CORVANTH_EXPORT HLOCAL LocalAlloc(UINT flags, SIZE_T bytes);
CORVANTH_EXPORT HLOCAL LocalFree(HLOCAL block);
CORVANTH_EXPORT DWORD GetModuleFileNameA(HMODULE module, LPSTR fileName, DWORD size);
CORVANTH_EXPORT void Sleep(DWORD milliseconds);

// Tells the service manager that started this process a state change
// ("READY=1", "STOPPING=1"); 0 when not started by one, below 0 on failure.
CORVANTH_EXPORT int gNotifyServiceManager(const char* state);
