// The service manager's calls over systemd's D-Bus API (being written).
#include "internal/SystemManager.h"

namespace nScm {
namespace {
template <class T>
T gNotYet(cSystemManager* manager, T result) {
  manager->SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
  return result;
}
}  // namespace

SC_HANDLE cSystemManager::OpenSCManagerA(LPCSTR, LPCSTR, DWORD) { return gNotYet<SC_HANDLE>(this, nullptr); }
SC_HANDLE cSystemManager::OpenServiceA(SC_HANDLE, LPCSTR, DWORD) { return gNotYet<SC_HANDLE>(this, nullptr); }
BOOL cSystemManager::CloseServiceHandle(SC_HANDLE) { return gNotYet(this, FALSE); }
SC_HANDLE cSystemManager::CreateServiceA(SC_HANDLE, LPCSTR, LPCSTR, DWORD, DWORD, DWORD, DWORD, LPCSTR, LPCSTR, LPDWORD, LPCSTR, LPCSTR, LPCSTR) { return gNotYet<SC_HANDLE>(this, nullptr); }
BOOL cSystemManager::DeleteService(SC_HANDLE) { return gNotYet(this, FALSE); }
BOOL cSystemManager::ChangeServiceConfigA(SC_HANDLE, DWORD, DWORD, DWORD, LPCSTR, LPCSTR, LPDWORD, LPCSTR, LPCSTR, LPCSTR, LPCSTR) { return gNotYet(this, FALSE); }
BOOL cSystemManager::StartServiceA(SC_HANDLE, DWORD, LPCSTR*) { return gNotYet(this, FALSE); }
BOOL cSystemManager::ControlService(SC_HANDLE, DWORD, LPSERVICE_STATUS) { return gNotYet(this, FALSE); }
BOOL cSystemManager::QueryServiceStatus(SC_HANDLE, LPSERVICE_STATUS) { return gNotYet(this, FALSE); }
BOOL cSystemManager::QueryServiceConfigA(SC_HANDLE, LPQUERY_SERVICE_CONFIGA, DWORD, LPDWORD) { return gNotYet(this, FALSE); }
BOOL cSystemManager::EnumDependentServicesA(SC_HANDLE, DWORD, LPENUM_SERVICE_STATUSA, DWORD, LPDWORD, LPDWORD) { return gNotYet(this, FALSE); }
BOOL cSystemManager::EnumServicesStatusA(SC_HANDLE, DWORD, DWORD, LPENUM_SERVICE_STATUSA, DWORD, LPDWORD, LPDWORD, LPDWORD) { return gNotYet(this, FALSE); }
SC_LOCK cSystemManager::LockServiceDatabase(SC_HANDLE) { return gNotYet<SC_LOCK>(this, nullptr); }
BOOL cSystemManager::UnlockServiceDatabase(SC_LOCK) { return gNotYet(this, FALSE); }
BOOL cSystemManager::QueryServiceLockStatusA(SC_HANDLE, LPQUERY_SERVICE_LOCK_STATUSA, DWORD, LPDWORD) { return gNotYet(this, FALSE); }

}  // namespace nScm
