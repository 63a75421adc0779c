// The real service manager: general services here, the systemd calls in ScmSystemd.cpp.
#pragma once

#include "Scm.h"

namespace nScm {

class cSystemManager final : public iServiceManager {
 public:
  SC_HANDLE OpenSCManagerA(LPCSTR machine, LPCSTR database, DWORD access) override;
  SC_HANDLE OpenServiceA(SC_HANDLE manager, LPCSTR serviceName, DWORD access) override;
  BOOL CloseServiceHandle(SC_HANDLE handle) override;
  SC_HANDLE CreateServiceA(SC_HANDLE manager, LPCSTR serviceName, LPCSTR displayName, DWORD access,
                           DWORD serviceType, DWORD startType, DWORD errorControl,
                           LPCSTR binaryPathName, LPCSTR loadOrderGroup, LPDWORD tagId,
                           LPCSTR dependencies, LPCSTR serviceStartName,
                           LPCSTR password) override;
  BOOL DeleteService(SC_HANDLE service) override;
  BOOL ChangeServiceConfigA(SC_HANDLE service, DWORD serviceType, DWORD startType,
                            DWORD errorControl, LPCSTR binaryPathName, LPCSTR loadOrderGroup,
                            LPDWORD tagId, LPCSTR dependencies, LPCSTR serviceStartName,
                            LPCSTR password, LPCSTR displayName) override;
  BOOL StartServiceA(SC_HANDLE service, DWORD argc, LPCSTR* argv) override;
  BOOL ControlService(SC_HANDLE service, DWORD control, LPSERVICE_STATUS status) override;
  BOOL QueryServiceStatus(SC_HANDLE service, LPSERVICE_STATUS status) override;
  BOOL QueryServiceConfigA(SC_HANDLE service, LPQUERY_SERVICE_CONFIGA config, DWORD bufSize,
                           LPDWORD bytesNeeded) override;
  BOOL EnumDependentServicesA(SC_HANDLE service, DWORD serviceState,
                              LPENUM_SERVICE_STATUSA services, DWORD bufSize, LPDWORD bytesNeeded,
                              LPDWORD servicesReturned) override;
  BOOL EnumServicesStatusA(SC_HANDLE manager, DWORD serviceType, DWORD serviceState,
                           LPENUM_SERVICE_STATUSA services, DWORD bufSize, LPDWORD bytesNeeded,
                           LPDWORD servicesReturned, LPDWORD resumeHandle) override;
  SC_LOCK LockServiceDatabase(SC_HANDLE manager) override;
  BOOL UnlockServiceDatabase(SC_LOCK lock) override;
  BOOL QueryServiceLockStatusA(SC_HANDLE manager, LPQUERY_SERVICE_LOCK_STATUSA status,
                               DWORD bufSize, LPDWORD bytesNeeded) override;
  DWORD FormatMessageA(DWORD flags, LPCVOID source, DWORD messageId, DWORD languageId,
                       LPSTR buffer, DWORD size, va_list* arguments) override;
  DWORD GetLastError() override;
  void SetLastError(DWORD code) override;
  HLOCAL LocalAlloc(UINT flags, SIZE_T bytes) override;
  HLOCAL LocalFree(HLOCAL block) override;
  DWORD GetModuleFileNameA(HMODULE module, LPSTR fileName, DWORD size) override;
  void Sleep(DWORD milliseconds) override;
};

}  // namespace nScm
