// Host information: our Linux build of the Win32 system information calls that
// the support report reads, with their Win32 names, records and constants.
// Each call answers from a Linux source:
//
// - GetVersionExA: the platform is VER_PLATFORM_WIN32_NT, the major, minor
//   and build numbers are the first three numbers of the kernel release
//   (uname), the service-pack text is PRETTY_NAME of /etc/os-release (else
//   /usr/lib/os-release, else the kernel's name). On a kernel before 6 the
//   report therefore names the Windows release of that major number.
// - The registry knows one value: ProductType under the ProductOptions key,
//   "WINNT" for an os-release VARIANT_ID of "workstation" and "SERVERNT" for
//   "server"; every other key or value is not found.
// - GetComputerNameA: gethostname. GetSystemDirectoryA: the directory of the
//   C library; GetWindowsDirectoryA: "/".
// - ExpandEnvironmentStringsA: %NAME% from the process environment. The names
//   Windows sets and Linux does not (OS, NUMBER_OF_PROCESSORS,
//   PROCESSOR_ARCHITECTURE, PROCESSOR_IDENTIFIER, PROCESSOR_LEVEL,
//   PROCESSOR_REVISION) get their Linux values when unset; any other unset
//   name stays as its template text.
// - GetSystemInfo: sysconf, /proc/cpuinfo and sched_getaffinity.
// - GlobalMemoryStatus: /proc/meminfo (MemTotal, MemAvailable, swap), else
//   sysinfo; the virtual figures are this process's user address space.
// - Drives: the mount table (/proc/mounts) with statvfs. A mount point is a
//   root. A network file system is DRIVE_REMOTE; iso9660 and udf are
//   DRIVE_CDROM; tmpfs and ramfs DRIVE_RAMDISK; other file systems on a block
//   device are DRIVE_REMOVABLE when the disk says so, else DRIVE_FIXED; the
//   rest (proc, sysfs, cgroup, overlay, ...) is no drive and is not listed.
//
// Threads: every call may come from any thread, except gSetMountTable, which
// belongs to set-up (tests) before drives are asked for.
#pragma once

#include <cstddef>
#include <cstdint>

#include "CorvanthExport.h"
#include "Scm.h"

using WORD = std::uint16_t;
using BYTE = std::uint8_t;
using LONG = std::int32_t;
using CHAR = char;
using LPBYTE = BYTE*;
using DWORD_PTR = std::uintptr_t;

// Long enough for any Linux host name (HOST_NAME_MAX); NetBIOS names were 15.
constexpr DWORD MAX_COMPUTERNAME_LENGTH = 64;
constexpr DWORD MAX_PATH = 260;
constexpr DWORD ERROR_BUFFER_OVERFLOW = 111;

// Version records. The extended record starts with the basic one, so either
// may be passed where the basic one is asked for.
constexpr DWORD VER_PLATFORM_WIN32s = 0;
constexpr DWORD VER_PLATFORM_WIN32_WINDOWS = 1;
constexpr DWORD VER_PLATFORM_WIN32_NT = 2;
constexpr BYTE VER_NT_WORKSTATION = 1;
constexpr BYTE VER_NT_SERVER = 3;

struct OSVERSIONINFOA {
  DWORD dwOSVersionInfoSize;
  DWORD dwMajorVersion;
  DWORD dwMinorVersion;
  DWORD dwBuildNumber;
  DWORD dwPlatformId;
  CHAR szCSDVersion[128];
};
struct OSVERSIONINFOEXA : OSVERSIONINFOA {
  WORD wServicePackMajor;
  WORD wServicePackMinor;
  WORD wSuiteMask;
  BYTE wProductType;
  BYTE wReserved;
};
using LPOSVERSIONINFOA = OSVERSIONINFOA*;

// Fails (ERROR_INVALID_PARAMETER) unless dwOSVersionInfoSize is the size of
// one of the two records; only the fields of that record are written.
CORVANTH_EXPORT BOOL GetVersionExA(LPOSVERSIONINFOA info);

// Registry.
struct cRegistryKey_;
using HKEY = cRegistryKey_*;
using PHKEY = HKEY*;
using REGSAM = DWORD;
inline HKEY const HKEY_LOCAL_MACHINE = reinterpret_cast<HKEY>(static_cast<std::uintptr_t>(0x80000002u));
constexpr REGSAM KEY_QUERY_VALUE = 0x0001;
constexpr REGSAM KEY_READ = 0x20019;
constexpr DWORD REG_SZ = 1;

// Results are Win32 error codes (ERROR_SUCCESS, ERROR_FILE_NOT_FOUND,
// ERROR_MORE_DATA, ERROR_INVALID_HANDLE). RegQueryValueExA follows the
// size-then-data contract; a text's size includes its terminator.
CORVANTH_EXPORT LONG RegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD options, REGSAM access, PHKEY result);
CORVANTH_EXPORT LONG RegQueryValueExA(HKEY key, LPCSTR valueName, LPDWORD reserved, LPDWORD type, LPBYTE data,
                                      LPDWORD size);
CORVANTH_EXPORT LONG RegCloseKey(HKEY key);
// Compares without regard to ASCII case: <0, 0, >0.
CORVANTH_EXPORT int lstrcmpiA(LPCSTR left, LPCSTR right);

// *size is the buffer's size on the way in and the name's length on success;
// a buffer too small fails with ERROR_BUFFER_OVERFLOW and the needed size.
CORVANTH_EXPORT BOOL GetComputerNameA(LPSTR buffer, LPDWORD size);
// The length written, or the size needed (terminator included) when `size`
// is too small, in which case nothing is written; 0 on failure.
CORVANTH_EXPORT UINT GetSystemDirectoryA(LPSTR buffer, UINT size);
CORVANTH_EXPORT UINT GetWindowsDirectoryA(LPSTR buffer, UINT size);
// The size of the expansion with its terminator. A target too small still
// receives as much as fits, terminated (Win32 leaves it undefined).
CORVANTH_EXPORT DWORD ExpandEnvironmentStringsA(LPCSTR source, LPSTR target, DWORD size);

// System information.
constexpr WORD PROCESSOR_ARCHITECTURE_INTEL = 0;
constexpr WORD PROCESSOR_ARCHITECTURE_ARM = 5;
constexpr WORD PROCESSOR_ARCHITECTURE_AMD64 = 9;
constexpr WORD PROCESSOR_ARCHITECTURE_ARM64 = 12;
constexpr WORD PROCESSOR_ARCHITECTURE_UNKNOWN = 0xFFFF;
constexpr DWORD PROCESSOR_INTEL_386 = 386;
constexpr DWORD PROCESSOR_INTEL_486 = 486;
constexpr DWORD PROCESSOR_INTEL_PENTIUM = 586;
constexpr DWORD PROCESSOR_AMD_X8664 = 8664;

struct SYSTEM_INFO {
  WORD wProcessorArchitecture;
  WORD wReserved;
  DWORD dwPageSize;
  LPVOID lpMinimumApplicationAddress;
  LPVOID lpMaximumApplicationAddress;
  DWORD_PTR dwActiveProcessorMask;  // the first processors of the affinity mask
  DWORD dwNumberOfProcessors;       // online processors
  DWORD dwProcessorType;
  DWORD dwAllocationGranularity;
  WORD wProcessorLevel;     // x86: the cpu family
  WORD wProcessorRevision;  // x86: model in the high byte, stepping in the low
};
using LPSYSTEM_INFO = SYSTEM_INFO*;
CORVANTH_EXPORT void GetSystemInfo(LPSYSTEM_INFO info);

struct MEMORYSTATUS {
  DWORD dwLength;
  DWORD dwMemoryLoad;  // percent of physical memory in use
  SIZE_T dwTotalPhys;
  SIZE_T dwAvailPhys;  // MemAvailable: what can be had without swapping
  SIZE_T dwTotalPageFile;
  SIZE_T dwAvailPageFile;
  SIZE_T dwTotalVirtual;
  SIZE_T dwAvailVirtual;
};
using LPMEMORYSTATUS = MEMORYSTATUS*;
CORVANTH_EXPORT void GlobalMemoryStatus(LPMEMORYSTATUS status);

// Drives.
constexpr UINT DRIVE_UNKNOWN = 0;
constexpr UINT DRIVE_NO_ROOT_DIR = 1;
constexpr UINT DRIVE_REMOVABLE = 2;
constexpr UINT DRIVE_FIXED = 3;
constexpr UINT DRIVE_REMOTE = 4;
constexpr UINT DRIVE_CDROM = 5;
constexpr UINT DRIVE_RAMDISK = 6;

// The roots of the drives, in mount table order, each once and ended by a
// zero, the list by a second zero. Gives the list's length without the last
// zero; when it does not fit, the size needed and nothing is written.
CORVANTH_EXPORT DWORD GetLogicalDriveStringsA(DWORD size, LPSTR buffer);
// A path that is no mount point is DRIVE_NO_ROOT_DIR.
CORVANTH_EXPORT UINT GetDriveTypeA(LPCSTR root);
// From statvfs: a cluster is a fragment (f_frsize) of 512-byte sectors when
// it divides so, else one sector of its own size; the free clusters are those
// an ordinary user may take. Counts above 32 bits are shown as 0xFFFFFFFF.
CORVANTH_EXPORT BOOL GetDiskFreeSpaceA(LPCSTR root, LPDWORD sectorsPerCluster, LPDWORD bytesPerSector,
                                       LPDWORD numberOfFreeClusters, LPDWORD totalNumberOfClusters);

// The C runtime's _getcwd.
CORVANTH_EXPORT char* _getcwd(char* buffer, int size);

namespace nHostInfo {

// What GetKRDirectoryPath puts behind the current directory (a backslash on
// the original platform).
inline constexpr char kPathSeparator[] = "/";

// The command that writes the network configuration to standard output, with
// a blank behind it; the report appends the redirection.
inline constexpr char kNetworkConfigurationCommand[] = "ip addr ";

// The runtime's system() with the result the report expects of it: the
// command's exit status, and -1 with errno set when the command interpreter
// cannot run or the command cannot be started (the shell's 127 gives ENOENT,
// its 126 EACCES). A command ended by a signal gives 128 plus the signal.
CORVANTH_EXPORT int gSystem(char const* command);

// Reads drives from `path` instead of /proc/mounts; null goes back to it.
// Tests feed their own table through this.
CORVANTH_EXPORT void gSetMountTable(char const* path);

}  // namespace nHostInfo
