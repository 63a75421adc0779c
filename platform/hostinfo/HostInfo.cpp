// Host information from Linux sources.
#include "HostInfo.h"

#include <dlfcn.h>
#include <sched.h>
#include <strings.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

// --- small readers ------------------------------------------------------------

// The value of `key` in an os-release file: KEY=value, the value perhaps quoted.
std::string gOsReleaseValue(char const* key) {
  for (char const* path : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::ifstream in(path);
    if (!in) continue;
    std::string line;
    std::string const prefix = std::string(key) + "=";
    while (std::getline(in, line)) {
      if (line.compare(0, prefix.size(), prefix) != 0) continue;
      std::string value = line.substr(prefix.size());
      if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
        value = value.substr(1, value.size() - 2);
      return value;
    }
    return "";
  }
  return "";
}

// "key : value" lines of the first processor in /proc/cpuinfo.
std::map<std::string, std::string> gCpuInfo() {
  std::map<std::string, std::string> fields;
  std::ifstream in("/proc/cpuinfo");
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty()) break;
    std::size_t const colon = line.find(':');
    if (colon == std::string::npos) continue;
    std::string key = line.substr(0, colon);
    while (!key.empty() && (key.back() == ' ' || key.back() == '\t')) key.pop_back();
    std::size_t start = colon + 1;
    while (start < line.size() && line[start] == ' ') ++start;
    fields.emplace(key, line.substr(start));
  }
  return fields;
}

unsigned long gNumber(std::map<std::string, std::string> const& fields, char const* key, unsigned long otherwise) {
  auto const it = fields.find(key);
  if (it == fields.end()) return otherwise;
  char* end = nullptr;
  unsigned long const value = std::strtoul(it->second.c_str(), &end, 0);
  return end == it->second.c_str() ? otherwise : value;
}

// Values of /proc/meminfo in kB, by name.
std::map<std::string, unsigned long long> gMemInfo() {
  std::map<std::string, unsigned long long> values;
  std::ifstream in("/proc/meminfo");
  std::string name;
  unsigned long long value = 0;
  std::string unit;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    if (fields >> name >> value && !name.empty() && name.back() == ':') {
      name.pop_back();
      values[name] = value;
    }
  }
  return values;
}

std::string gMachine() {
  utsname names{};
  return uname(&names) == 0 ? names.machine : "";
}

WORD gArchitecture(std::string const& machine) {
  if (machine == "x86_64") return PROCESSOR_ARCHITECTURE_AMD64;
  if (machine.size() == 4 && machine[0] == 'i' && machine.compare(2, 2, "86") == 0) return PROCESSOR_ARCHITECTURE_INTEL;
  if (machine == "aarch64" || machine == "arm64") return PROCESSOR_ARCHITECTURE_ARM64;
  if (machine.compare(0, 3, "arm") == 0) return PROCESSOR_ARCHITECTURE_ARM;
  return PROCESSOR_ARCHITECTURE_UNKNOWN;
}

long gPageSize() {
  long const size = sysconf(_SC_PAGESIZE);
  return size > 0 ? size : 4096;
}

// The user address space: from the lowest address a mapping may take to the
// top that the virtual address width leaves, less the guard page.
void gAddressSpace(std::uintptr_t& lowest, std::uintptr_t& highest) {
  lowest = 65536;
  if (std::ifstream in("/proc/sys/vm/mmap_min_addr"); in) {
    unsigned long long value = 0;
    if (in >> value && value > 0) lowest = static_cast<std::uintptr_t>(value);
  }
  unsigned bits = sizeof(void*) == 8 ? 48 : 32;
  auto const cpu = gCpuInfo();
  if (auto const it = cpu.find("address sizes"); it != cpu.end()) {
    // "39 bits physical, 48 bits virtual"
    std::size_t const comma = it->second.find(',');
    if (comma != std::string::npos) {
      unsigned const virtualBits = static_cast<unsigned>(std::strtoul(it->second.c_str() + comma + 1, nullptr, 10));
      if (virtualBits >= 32 && virtualBits <= 64) bits = virtualBits;
    }
  }
  std::uintptr_t const top = bits >= sizeof(void*) * 8 ? ~std::uintptr_t{0} : (std::uintptr_t{1} << (bits - 1));
  highest = top - static_cast<std::uintptr_t>(gPageSize()) - 1;
}

DWORD gClamp32(unsigned long long value) { return value > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<DWORD>(value); }

// --- the environment's Windows names --------------------------------------------

std::string gLinuxValue(std::string_view name) {
  if (name == "OS") {
    utsname names{};
    return uname(&names) == 0 ? names.sysname : "Linux";
  }
  if (name == "NUMBER_OF_PROCESSORS") {
    long const count = sysconf(_SC_NPROCESSORS_ONLN);
    return std::to_string(count > 0 ? count : 1);
  }
  if (name == "PROCESSOR_ARCHITECTURE") return gMachine();
  auto const cpu = gCpuInfo();
  unsigned long const family = gNumber(cpu, "cpu family", 0);
  unsigned long const model = gNumber(cpu, "model", 0);
  unsigned long const stepping = gNumber(cpu, "stepping", 0);
  if (name == "PROCESSOR_LEVEL") return std::to_string(family);
  if (name == "PROCESSOR_REVISION") {
    char text[16];
    std::snprintf(text, sizeof text, "%02lx%02lx", model & 0xFF, stepping & 0xFF);
    return text;
  }
  // PROCESSOR_IDENTIFIER, in the form Windows gives it, where cpuinfo tells it.
  auto const vendor = cpu.find("vendor_id");
  if (vendor == cpu.end()) {
    auto const modelName = cpu.find("model name");
    return modelName != cpu.end() ? modelName->second : gMachine();
  }
  return gMachine() + " Family " + std::to_string(family) + " Model " + std::to_string(model) + " Stepping " +
         std::to_string(stepping) + ", " + vendor->second;
}

bool gIsLinuxFilled(std::string_view name) {
  return name == "OS" || name == "NUMBER_OF_PROCESSORS" || name == "PROCESSOR_ARCHITECTURE" ||
         name == "PROCESSOR_IDENTIFIER" || name == "PROCESSOR_LEVEL" || name == "PROCESSOR_REVISION";
}

// --- drives ---------------------------------------------------------------------

std::mutex gMountTableGuard;
std::string gMountTablePath = "/proc/mounts";

std::string gCurrentMountTable() {
  std::lock_guard lock(gMountTableGuard);
  return gMountTablePath;
}

struct cMount {
  std::string device;
  std::string root;
  std::string type;
};

// The mount table escapes blanks, tabs, newlines and backslashes as \ooo.
std::string gUnescape(std::string const& field) {
  std::string out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' && field[i + 1] <= '3' &&
        field[i + 2] >= '0' && field[i + 2] <= '7' && field[i + 3] >= '0' && field[i + 3] <= '7') {
      out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
      i += 3;
    } else {
      out += field[i];
    }
  }
  return out;
}

// Each mount point once, with what is mounted there last (what a path shows).
std::vector<cMount> gMounts() {
  std::vector<cMount> mounts;
  std::ifstream in(gCurrentMountTable());
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    cMount mount;
    if (!(fields >> mount.device >> mount.root >> mount.type)) continue;
    mount.device = gUnescape(mount.device);
    mount.root = gUnescape(mount.root);
    auto const same = std::find_if(mounts.begin(), mounts.end(), [&](cMount const& m) { return m.root == mount.root; });
    if (same != mounts.end())
      *same = mount;
    else
      mounts.push_back(mount);
  }
  return mounts;
}

bool gIsNetworkFileSystem(std::string const& type) {
  static char const* const kTypes[] = {"nfs",  "nfs4",       "cifs",           "smb3",      "smbfs",  "ncpfs",
                                       "afs",  "ceph",       "9p",             "glusterfs", "lustre", "fuse.sshfs",
                                       "davfs", "fuse.rclone", "fuse.glusterfs", "fuse.s3fs", "coda",   "ocfs2"};
  return std::find_if(std::begin(kTypes), std::end(kTypes), [&](char const* t) { return type == t; }) !=
         std::end(kTypes);
}

// A file system type that needs a block device: listed in /proc/filesystems
// without "nodev"; a type the kernel does not list counts when a device file
// is mounted.
bool gIsBlockFileSystem(cMount const& mount) {
  std::ifstream in("/proc/filesystems");
  std::string line;
  while (std::getline(in, line)) {
    std::size_t const tab = line.find('\t');
    if (tab == std::string::npos || line.substr(tab + 1) != mount.type) continue;
    return line.compare(0, 5, "nodev") != 0;
  }
  return mount.device.compare(0, 5, "/dev/") == 0;
}

bool gIsRemovable(std::string const& device) {
  if (device.compare(0, 5, "/dev/") != 0) return false;
  std::string const name = device.substr(device.rfind('/') + 1);
  // A partition's flag is its disk's, one directory up.
  for (char const* where : {"/removable", "/../removable"}) {
    std::ifstream in("/sys/class/block/" + name + where);
    int flag = 0;
    if (in >> flag) return flag == 1;
  }
  return false;
}

UINT gDriveType(cMount const& mount) {
  if (gIsNetworkFileSystem(mount.type)) return DRIVE_REMOTE;
  if (mount.type == "iso9660" || mount.type == "udf") return DRIVE_CDROM;
  if (mount.type == "tmpfs" || mount.type == "ramfs") return DRIVE_RAMDISK;
  if (gIsBlockFileSystem(mount)) return gIsRemovable(mount.device) ? DRIVE_REMOVABLE : DRIVE_FIXED;
  return DRIVE_UNKNOWN;
}

// --- registry -------------------------------------------------------------------

}  // namespace

// The one key there is; its handle is this object's address.
struct cRegistryKey_ {};
namespace {
cRegistryKey_ gProductOptionsKey;
}  // namespace

// --- version --------------------------------------------------------------------

BOOL GetVersionExA(LPOSVERSIONINFOA info) {
  if (info == nullptr ||
      (info->dwOSVersionInfoSize != sizeof(OSVERSIONINFOA) && info->dwOSVersionInfoSize != sizeof(OSVERSIONINFOEXA))) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  utsname names{};
  if (uname(&names) != 0) {
    SetLastError(ERROR_GEN_FAILURE);
    return FALSE;
  }
  DWORD numbers[3] = {0, 0, 0};
  char const* p = names.release;
  for (DWORD& number : numbers) {
    char* end = nullptr;
    number = static_cast<DWORD>(std::strtoul(p, &end, 10));
    if (end == p || *end != '.') break;
    p = end + 1;
  }
  info->dwMajorVersion = numbers[0];
  info->dwMinorVersion = numbers[1];
  info->dwBuildNumber = numbers[2];
  info->dwPlatformId = VER_PLATFORM_WIN32_NT;
  std::string name = gOsReleaseValue("PRETTY_NAME");
  if (name.empty()) name = names.sysname;
  std::snprintf(info->szCSDVersion, sizeof info->szCSDVersion, "%s", name.c_str());
  if (info->dwOSVersionInfoSize == sizeof(OSVERSIONINFOEXA)) {
    auto* extended = static_cast<OSVERSIONINFOEXA*>(info);
    extended->wServicePackMajor = 0;
    extended->wServicePackMinor = 0;
    extended->wSuiteMask = 0;
    extended->wProductType = gOsReleaseValue("VARIANT_ID") == "server" ? VER_NT_SERVER : VER_NT_WORKSTATION;
    extended->wReserved = 0;
  }
  return TRUE;
}

LONG RegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD, REGSAM, PHKEY result) {
  if (result == nullptr) return static_cast<LONG>(ERROR_INVALID_PARAMETER);
  if (key != HKEY_LOCAL_MACHINE || subKey == nullptr ||
      strcasecmp(subKey, "SYSTEM\\CurrentControlSet\\Control\\ProductOptions") != 0)
    return static_cast<LONG>(ERROR_FILE_NOT_FOUND);
  *result = &gProductOptionsKey;
  return static_cast<LONG>(ERROR_SUCCESS);
}

LONG RegQueryValueExA(HKEY key, LPCSTR valueName, LPDWORD, LPDWORD type, LPBYTE data, LPDWORD size) {
  if (key != &gProductOptionsKey) return static_cast<LONG>(ERROR_INVALID_HANDLE);
  if (valueName == nullptr || strcasecmp(valueName, "ProductType") != 0) return static_cast<LONG>(ERROR_FILE_NOT_FOUND);
  std::string const variant = gOsReleaseValue("VARIANT_ID");
  char const* value = variant == "server" ? "SERVERNT" : variant == "workstation" ? "WINNT" : nullptr;
  if (value == nullptr) return static_cast<LONG>(ERROR_FILE_NOT_FOUND);
  DWORD const needed = static_cast<DWORD>(std::strlen(value) + 1);
  if (type != nullptr) *type = REG_SZ;
  if (data == nullptr) {
    if (size != nullptr) *size = needed;
    return static_cast<LONG>(ERROR_SUCCESS);
  }
  if (size == nullptr) return static_cast<LONG>(ERROR_INVALID_PARAMETER);
  DWORD const room = *size;
  *size = needed;
  if (room < needed) return static_cast<LONG>(ERROR_MORE_DATA);
  std::memcpy(data, value, needed);
  return static_cast<LONG>(ERROR_SUCCESS);
}

LONG RegCloseKey(HKEY key) {
  return static_cast<LONG>(key == &gProductOptionsKey ? ERROR_SUCCESS : ERROR_INVALID_HANDLE);
}

int lstrcmpiA(LPCSTR left, LPCSTR right) { return strcasecmp(left != nullptr ? left : "", right != nullptr ? right : ""); }

// --- names and directories ------------------------------------------------------------

BOOL GetComputerNameA(LPSTR buffer, LPDWORD size) {
  if (size == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0) {
    SetLastError(ERROR_GEN_FAILURE);
    return FALSE;
  }
  DWORD const length = static_cast<DWORD>(std::strlen(name));
  if (buffer == nullptr || *size <= length) {
    *size = length + 1;
    SetLastError(ERROR_BUFFER_OVERFLOW);
    return FALSE;
  }
  std::memcpy(buffer, name, length + 1);
  *size = length;
  return TRUE;
}

namespace {
UINT gCopyDirectory(std::string const& directory, LPSTR buffer, UINT size) {
  if (directory.size() + 1 > size || buffer == nullptr) return static_cast<UINT>(directory.size() + 1);
  std::memcpy(buffer, directory.c_str(), directory.size() + 1);
  return static_cast<UINT>(directory.size());
}
}  // namespace

UINT GetSystemDirectoryA(LPSTR buffer, UINT size) {
  // Where the system's own libraries are: the directory of the C library.
  Dl_info where{};
  std::string directory = "/usr/lib";
  if (dladdr(reinterpret_cast<void*>(&std::strlen), &where) != 0 && where.dli_fname != nullptr) {
    std::string const file = where.dli_fname;
    std::size_t const slash = file.rfind('/');
    if (slash != std::string::npos && slash > 0) directory = file.substr(0, slash);
  }
  return gCopyDirectory(directory, buffer, size);
}

UINT GetWindowsDirectoryA(LPSTR buffer, UINT size) { return gCopyDirectory("/", buffer, size); }

DWORD ExpandEnvironmentStringsA(LPCSTR source, LPSTR target, DWORD size) {
  if (source == nullptr) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  std::string out;
  std::string_view const text = source;
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t const close = text[i] == '%' ? text.find('%', i + 1) : std::string_view::npos;
    if (close == std::string_view::npos) {
      out += text[i++];
      continue;
    }
    std::string const name(text.substr(i + 1, close - i - 1));
    char const* value = name.empty() ? nullptr : std::getenv(name.c_str());
    if (value != nullptr) {
      out += value;
      i = close + 1;
    } else if (!name.empty() && gIsLinuxFilled(name)) {
      out += gLinuxValue(name);
      i = close + 1;
    } else {
      // An unknown name stays as written; its closing '%' may open the next one.
      out += text.substr(i, close - i);
      i = close;
    }
  }
  DWORD const needed = static_cast<DWORD>(out.size() + 1);
  if (target != nullptr && size > 0) {
    std::size_t const copied = std::min<std::size_t>(out.size(), size - 1);
    std::memcpy(target, out.data(), copied);
    target[copied] = '\0';
  }
  return needed;
}

// --- processors and memory -------------------------------------------------------------

void GetSystemInfo(LPSYSTEM_INFO info) {
  if (info == nullptr) return;
  *info = SYSTEM_INFO{};
  std::string const machine = gMachine();
  info->wProcessorArchitecture = gArchitecture(machine);
  info->dwPageSize = static_cast<DWORD>(gPageSize());
  info->dwAllocationGranularity = info->dwPageSize;
  std::uintptr_t lowest = 0;
  std::uintptr_t highest = 0;
  gAddressSpace(lowest, highest);
  info->lpMinimumApplicationAddress = reinterpret_cast<LPVOID>(lowest);
  info->lpMaximumApplicationAddress = reinterpret_cast<LPVOID>(highest);
  long const online = sysconf(_SC_NPROCESSORS_ONLN);
  info->dwNumberOfProcessors = static_cast<DWORD>(online > 0 ? online : 1);
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof set, &set) == 0) {
    for (unsigned cpu = 0; cpu < sizeof(DWORD_PTR) * 8; ++cpu)
      if (CPU_ISSET(cpu, &set)) info->dwActiveProcessorMask |= DWORD_PTR{1} << cpu;
  }
  switch (info->wProcessorArchitecture) {
    case PROCESSOR_ARCHITECTURE_AMD64:
      info->dwProcessorType = PROCESSOR_AMD_X8664;
      break;
    case PROCESSOR_ARCHITECTURE_INTEL:
      info->dwProcessorType = machine == "i386" ? PROCESSOR_INTEL_386
                              : machine == "i486" ? PROCESSOR_INTEL_486
                                                  : PROCESSOR_INTEL_PENTIUM;
      break;
    default:
      info->dwProcessorType = 0;
  }
  auto const cpu = gCpuInfo();
  info->wProcessorLevel = static_cast<WORD>(gNumber(cpu, "cpu family", 0));
  info->wProcessorRevision =
      static_cast<WORD>(((gNumber(cpu, "model", 0) & 0xFF) << 8) | (gNumber(cpu, "stepping", 0) & 0xFF));
}

void GlobalMemoryStatus(LPMEMORYSTATUS status) {
  if (status == nullptr) return;
  *status = MEMORYSTATUS{};
  status->dwLength = sizeof(MEMORYSTATUS);
  auto const kb = gMemInfo();
  auto const field = [&](char const* name, unsigned long long& value) {
    auto const it = kb.find(name);
    if (it == kb.end()) return false;
    value = it->second * 1024;
    return true;
  };
  unsigned long long total = 0, available = 0, swapTotal = 0, swapFree = 0;
  bool const fromMemInfo = field("MemTotal", total) && field("MemAvailable", available);
  field("SwapTotal", swapTotal);
  field("SwapFree", swapFree);
  if (!fromMemInfo) {
    struct sysinfo info {};
    if (sysinfo(&info) == 0) {
      total = static_cast<unsigned long long>(info.totalram) * info.mem_unit;
      available = static_cast<unsigned long long>(info.freeram + info.bufferram) * info.mem_unit;
      swapTotal = static_cast<unsigned long long>(info.totalswap) * info.mem_unit;
      swapFree = static_cast<unsigned long long>(info.freeswap) * info.mem_unit;
    }
  }
  status->dwTotalPhys = static_cast<SIZE_T>(total);
  status->dwAvailPhys = static_cast<SIZE_T>(available);
  status->dwMemoryLoad = total > 0 ? static_cast<DWORD>(100 - available * 100 / total) : 0;
  status->dwTotalPageFile = static_cast<SIZE_T>(total + swapTotal);
  status->dwAvailPageFile = static_cast<SIZE_T>(available + swapFree);
  std::uintptr_t lowest = 0;
  std::uintptr_t highest = 0;
  gAddressSpace(lowest, highest);
  status->dwTotalVirtual = highest - lowest + 1;
  // What this process has mapped is taken from its address space.
  unsigned long long mapped = 0;
  std::ifstream self("/proc/self/statm");
  unsigned long long pages = 0;
  if (self >> pages) mapped = pages * static_cast<unsigned long long>(gPageSize());
  status->dwAvailVirtual = mapped < status->dwTotalVirtual ? status->dwTotalVirtual - mapped : 0;
}

// --- drives --------------------------------------------------------------------------

DWORD GetLogicalDriveStringsA(DWORD size, LPSTR buffer) {
  std::string list;
  for (cMount const& mount : gMounts()) {
    UINT const type = gDriveType(mount);
    if (type == DRIVE_UNKNOWN || mount.root.empty()) continue;
    list += mount.root;
    list += '\0';
  }
  if (list.size() + 1 > size || buffer == nullptr) return static_cast<DWORD>(list.size() + 1);
  std::memcpy(buffer, list.data(), list.size());
  buffer[list.size()] = '\0';
  return static_cast<DWORD>(list.size());
}

UINT GetDriveTypeA(LPCSTR root) {
  if (root == nullptr) return DRIVE_NO_ROOT_DIR;
  std::string path = root;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  for (cMount const& mount : gMounts())
    if (mount.root == path) return gDriveType(mount);
  return DRIVE_NO_ROOT_DIR;
}

BOOL GetDiskFreeSpaceA(LPCSTR root, LPDWORD sectorsPerCluster, LPDWORD bytesPerSector, LPDWORD numberOfFreeClusters,
                       LPDWORD totalNumberOfClusters) {
  struct statvfs info {};
  if (root == nullptr || statvfs(root, &info) != 0) {
    SetLastError(errno == ENOENT ? ERROR_FILE_NOT_FOUND : ERROR_GEN_FAILURE);
    return FALSE;
  }
  unsigned long long const fragment = info.f_frsize != 0 ? info.f_frsize : info.f_bsize;
  bool const inSectors = fragment >= 512 && fragment % 512 == 0;
  if (sectorsPerCluster != nullptr) *sectorsPerCluster = gClamp32(inSectors ? fragment / 512 : 1);
  if (bytesPerSector != nullptr) *bytesPerSector = gClamp32(inSectors ? 512 : fragment);
  if (numberOfFreeClusters != nullptr) *numberOfFreeClusters = gClamp32(info.f_bavail);
  if (totalNumberOfClusters != nullptr) *totalNumberOfClusters = gClamp32(info.f_blocks);
  return TRUE;
}

char* _getcwd(char* buffer, int size) {
  if (buffer == nullptr || size <= 0) {
    errno = EINVAL;
    return nullptr;
  }
  return getcwd(buffer, static_cast<std::size_t>(size));
}

namespace nHostInfo {

int gSystem(char const* command) {
  int const status = std::system(command);
  if (status == -1) return -1;
  if (command == nullptr) return status;
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  int const code = WEXITSTATUS(status);
  if (code == 127 || code == 126) {
    errno = code == 127 ? ENOENT : EACCES;
    return -1;
  }
  return code;
}

void gSetMountTable(char const* path) {
  std::lock_guard lock(gMountTableGuard);
  gMountTablePath = path != nullptr ? path : "/proc/mounts";
}

}  // namespace nHostInfo
