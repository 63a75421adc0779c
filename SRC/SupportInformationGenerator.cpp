// The support report: the DB of a host and its text.
#include "SupportInformationGenerator.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "HostInfo.h"
#include "KREnvironment.h"
#include "KRPlatform.h"
#include "LintelSocket.h"
#include "Log.dec.h"
#include "Scm.h"

namespace {

char const* const kSource = "SupportInformationGenerator";
char const* const kFailedOnCreation = "Not Available - failed on creation";
char const* const kNotFound = "Not Found";

std::string const kReportRule = "\n" + std::string(79, '=') + "\n";
std::string const kSectionRule = "\n" + std::string(67, '-') + "\n";

// The enumeration's one buffer; a host whose services do not fit lists none.
constexpr std::size_t kServicesBufferBytes = 147456;
static_assert(kServicesBufferBytes % sizeof(ENUM_SERVICE_STATUSA) == 0);
constexpr SIZE_T kServiceConfigBytes = 4096;

void gSectionHead(std::ostream& out, char const* title) { out << kSectionRule << title << kSectionRule; }

// The paths were once joined without a length check; here a path too long
// for its buffer is cut at the buffer's end instead of running past it.
void gAppend(char* buffer, std::size_t size, char const* text) {
  std::size_t const used = std::strlen(buffer);
  if (used + 1 < size) std::snprintf(buffer + used, size - used, "%s", text);
}

}  // namespace

CSupportInformationGenerator::~CSupportInformationGenerator() = default;

bool CSupportInformationGenerator::CreateInformationDB(CAssociativeArray& db) {
  std::string const host = nCommunication::nSocket::gGetLocalHostName();
  db.AddCouple("$HOSTNAME", host.c_str());

  // Zeroed, so a failed GetKRDirectoryPath (whose result is not looked at)
  // leaves plain names in the current directory instead of stack garbage.
  char network[MAX_PATH] = {};
  char report[MAX_PATH] = {};
  GetKRDirectoryPath(network, sizeof network);
  GetKRDirectoryPath(report, sizeof report);
  gAppend(network, sizeof network, "IpConfig.txt");
  gAppend(report, sizeof report, host.c_str());
  gAppend(report, sizeof report, ".txt");
  std::string const quotedNetwork = std::string("\"") + network + "\"";

  if (GenerateSystemInfo(quotedNetwork.c_str(), report)) {
    AddFileToDB("$SYSTEMREPORT", report, db);
    AddFileToDB("$IPCONFIG", network, db);
    std::remove(report);
    std::remove(network);
  } else {
    db.AddCouple("$IPCONFIG", kFailedOnCreation);
    db.AddCouple("$SYSTEMREPORT", kFailedOnCreation);
  }

  MXEnvContainerClass environment;
  if (!AddFileToDB("$MXCTIDLL", environment.MXERuntimeResolve("#(MX_BIN)\\mxcti.dll"), db))
    db.AddCouple("$MXCTIDLL", kNotFound);
  environment.reset();
  if (!AddFileToDB("$KESTRUNINI", environment.MXERuntimeResolve("#(MX_BIN)\\kestrun.ini"), db))
    db.AddCouple("$KESTRUNINI", kNotFound);
  return true;
}

bool CSupportInformationGenerator::GetKRDirectoryPath(char* buffer, int size) {
  if (_getcwd(buffer, size) == nullptr) return false;
  gAppend(buffer, static_cast<std::size_t>(size), nHostInfo::kPathSeparator);
  return true;
}

bool CSupportInformationGenerator::AddFileToDB(char const* key, char const* path, CAssociativeArray& db) {
  if (path == nullptr) return false;
  std::ifstream file(path);
  if (!file.is_open()) return false;
  std::ostringstream text;
  text << file.rdbuf();
  // The zero-terminated form: the value ends at the file's first zero byte.
  db.AddCouple(key, text.str().c_str());
  file.close();
  return true;
}

bool CSupportInformationGenerator::GenerateSystemInfo(char const* quotedNetworkFile, char const* reportFile) {
  return GenerateIPConfigInfo(quotedNetworkFile) && GenerateWindowsInfo(reportFile);
}

bool CSupportInformationGenerator::GenerateIPConfigInfo(char const* quotedFile) {
  OSVERSIONINFOA version{};
  version.dwOSVersionInfoSize = sizeof version;
  GetVersionExA(&version);
  if (version.dwPlatformId == VER_PLATFORM_WIN32_NT) {
    std::string const command = std::string(nHostInfo::kNetworkConfigurationCommand) + ">> " + quotedFile;
    return nHostInfo::gSystem(command.c_str()) >= 0;
  }
  if (version.dwPlatformId == VER_PLATFORM_WIN32_WINDOWS) {
    std::string const arguments = std::string(" /all /batch ") + "\"" + quotedFile + "\"";
    return MXPExecApplication("winipcfg", arguments.c_str()) != 0;
  }
  return false;
}

bool CSupportInformationGenerator::GenerateWindowsInfo(char const* file) {
  std::ofstream out(file, std::ios::out | std::ios::trunc);
  if (!out.is_open()) return false;
  DisplaySystemVersion(out);
  GetWindowsSystemInfo(out);
  GetHWProfile(out);
  GetMemoryStatus(out);
  GetDiskInfo(out);
  GetServicesList(out);
  out.close();
  return true;
}

int CSupportInformationGenerator::DisplaySystemVersion(std::ostream& out) {
  OSVERSIONINFOEXA version{};
  version.dwOSVersionInfoSize = sizeof(OSVERSIONINFOEXA);
  if (!GetVersionExA(&version)) {
    version.dwOSVersionInfoSize = sizeof(OSVERSIONINFOA);
    if (!GetVersionExA(&version)) return 0;
  }
  auto const productKind = [&out] {
    HKEY key = nullptr;
    char type[80] = {};
    DWORD size = sizeof type;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SYSTEM\\CurrentControlSet\\Control\\ProductOptions", 0, KEY_QUERY_VALUE,
                      &key) != static_cast<LONG>(ERROR_SUCCESS))
      return;
    LONG const read = RegQueryValueExA(key, "ProductType", nullptr, nullptr, reinterpret_cast<LPBYTE>(type), &size);
    RegCloseKey(key);
    if (read != static_cast<LONG>(ERROR_SUCCESS)) return;
    if (lstrcmpiA("WINNT", type) == 0) out << "Workstation ";
    if (lstrcmpiA("SERVERNT", type) == 0) out << "Server ";
  };
  auto const versionTail = [&out, &version] {
    out << "version " << version.dwMajorVersion << "." << version.dwMinorVersion << " " << version.szCSDVersion
        << "(Build " << (version.dwBuildNumber & 0xFFFF) << ")" << "\n\n";
  };
  switch (version.dwPlatformId) {
    case VER_PLATFORM_WIN32s:
      out << "Microsoft Win32s \n";
      break;
    case VER_PLATFORM_WIN32_WINDOWS:
      if (version.dwMajorVersion < 4 || (version.dwMajorVersion == 4 && version.dwMinorVersion == 0))
        out << "Microsoft Windows 95 \n";
      else
        out << "Microsoft Windows 98 \n";
      break;
    case VER_PLATFORM_WIN32_NT:
      if (version.dwMajorVersion == 5) {
        out << "Microsoft Windows 2000 ";
      } else if (version.dwMajorVersion < 5) {
        out << "Microsoft Windows NT ";
        productKind();
      } else {
        productKind();
      }
      versionTail();
      break;
    default:
      break;
  }
  return 1;
}

void CSupportInformationGenerator::GetWindowsSystemInfo(std::ostream& out) {
  char line[MAX_PATH + 64];
  char name[MAX_COMPUTERNAME_LENGTH + 1] = {};
  DWORD size = sizeof name;
  GetComputerNameA(name, &size);
  std::snprintf(line, sizeof line, "Computer name: %s", name);
  out << line << "\n";
  char directory[MAX_PATH] = {};
  GetSystemDirectoryA(directory, MAX_PATH);
  std::snprintf(line, sizeof line, "System directory: %s", directory);
  out << line << "\n";
  std::memset(directory, 0, sizeof directory);
  GetWindowsDirectoryA(directory, MAX_PATH);
  std::snprintf(line, sizeof line, "Windows directory: %s", directory);
  out << line << "\n";

  gSectionHead(out, "Environment variables (partial list):");
  std::vector<char> expanded(4096, '\0');
  ExpandEnvironmentStringsA(
      "OS=%OS% \t\t\t\t\t\t \nNUMBER_OF_PROCESSORS=%NUMBER_OF_PROCESSORS% \t\t\t\t\t\t "
      "\nPROCESSOR_ARCHITECTURE=%PROCESSOR_ARCHITECTURE% \t\t\t\t\t\t \nPROCESSOR_IDENTIFIER=%PROCESSOR_IDENTIFIER% "
      "\t\t\t\t\t\t \nPROCESSOR_LEVEL=%PROCESSOR_LEVEL% \t\t\t\t\t\t \nPROCESSOR_REVISION=%PROCESSOR_REVISION%",
      expanded.data(), static_cast<DWORD>(expanded.size()));
  out << expanded.data() << "\n";
  ExpandEnvironmentStringsA("TMP=%TMP% \t\t\nPATH=%PATH% \t\t\nCLASSPATH=%CLASSPATH% \n", expanded.data(),
                            static_cast<DWORD>(expanded.size()));
  out << expanded.data();
}

void CSupportInformationGenerator::GetHWProfile(std::ostream& out) {
  gSectionHead(out, "Hardware information:");
  SYSTEM_INFO info{};
  GetSystemInfo(&info);
  char line[256];
  out << "Number of Processors: " << info.dwNumberOfProcessors << "\n";
  std::snprintf(line, sizeof line, "Page size: %u\nProcessor Type: %u", info.dwPageSize, info.dwProcessorType);
  out << line << "\n";
  // An address is printed whole: on the original platform a long held all of it.
  std::snprintf(line, sizeof line, "Minimum app address: %lx\tMaximum app address: %lx",
                static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(info.lpMinimumApplicationAddress)),
                static_cast<unsigned long>(reinterpret_cast<std::uintptr_t>(info.lpMaximumApplicationAddress)));
  out << line << "\n";
  out << "Processor Architecture: " << info.wProcessorArchitecture << "\n";
  out << "Processor Level: " << info.wProcessorLevel << "\n";
  out << "Processor Revision: " << info.wProcessorRevision << "\n";
  out << "Active Processor Mask: " << info.dwActiveProcessorMask << "\n";
}

void CSupportInformationGenerator::GetMemoryStatus(std::ostream& out) {
  gSectionHead(out, "Computer's Memory Status:");
  MEMORYSTATUS status{};
  status.dwLength = sizeof status;
  GlobalMemoryStatus(&status);
  out << "There are " << (status.dwTotalPhys >> 10) << " total " << "K" << "bytes of physical memory.\n";
  out << "There are " << (status.dwAvailPhys >> 10) << " free " << "K" << "bytes of physical memory.\n";
  out << "There are " << (status.dwTotalVirtual >> 10) << " total " << "K" << "bytes of virtual memory.\n";
  out << "There are " << (status.dwAvailVirtual >> 10) << " free " << "K" << "bytes of virtual memory.\n";
}

void CSupportInformationGenerator::GetDiskInfo(std::ostream& out) {
  gSectionHead(out, "Logical Drives Information:");
  // Zeroed: a list that does not fit is not written, and the walk then finds none.
  char roots[200] = {};
  GetLogicalDriveStringsA(sizeof roots, roots);
  // Kept across roots: a failed query repeats the root before; zero before the first.
  DWORD sectorsPerCluster = 0;
  DWORD bytesPerSector = 0;
  DWORD freeClusters = 0;
  DWORD totalClusters = 0;
  for (char const* root = roots; root < roots + sizeof roots && *root != '\0'; root += std::strlen(root) + 1) {
    UINT const type = GetDriveTypeA(root);
    if (type != DRIVE_FIXED && type != DRIVE_REMOTE) continue;
    GetDiskFreeSpaceA(root, &sectorsPerCluster, &bytesPerSector, &freeClusters, &totalClusters);
    out << root << "\n";
    out << "Sectors Per Cluster: " << sectorsPerCluster << "\n";
    out << "Bytes Per Sector: " << bytesPerSector << "\n";
    out << "Number Of Free Clusters: " << freeClusters << "\n";
    out << "Total Number Of Clusters: " << totalClusters << "\n";
  }
}

void CSupportInformationGenerator::GetServicesList(std::ostream& out) {
  gSectionHead(out, "Services Report:");
  SC_HANDLE const manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
  if (manager == nullptr) return;
  std::vector<ENUM_SERVICE_STATUSA> services(kServicesBufferBytes / sizeof(ENUM_SERVICE_STATUSA));
  DWORD bytesNeeded = 0;
  DWORD count = 0;
  DWORD resume = 0;
  if (!EnumServicesStatusA(manager, SERVICE_WIN32, SERVICE_STATE_ALL, services.data(),
                           static_cast<DWORD>(kServicesBufferBytes), &bytesNeeded, &count, &resume))
    return;
  for (DWORD i = 0; i < count && i < services.size(); ++i) {
    ENUM_SERVICE_STATUSA const& service = services[i];
    out << "Service Name: " << (service.lpDisplayName != nullptr ? service.lpDisplayName : "") << "\n";
    switch (service.ServiceStatus.dwCurrentState) {
      case SERVICE_RUNNING:
        out << "      Status: Running  ";
        break;
      case SERVICE_PAUSED:
        out << "      Status: Paused   ";
        break;
      default:
        out << "      Status: Stoped   ";
    }
    SC_HANDLE const handle = OpenServiceA(manager, service.lpServiceName, SERVICE_QUERY_CONFIG);
    if (handle == nullptr) continue;
    auto* const config = static_cast<LPQUERY_SERVICE_CONFIGA>(LocalAlloc(LPTR, kServiceConfigBytes));
    if (config == nullptr) continue;
    DWORD needed = 0;
    if (!QueryServiceConfigA(handle, config, static_cast<DWORD>(kServiceConfigBytes), &needed)) continue;
    switch (config->dwStartType) {
      case SERVICE_BOOT_START:
        out << "(Boot)" << "\n";
        break;
      case SERVICE_SYSTEM_START:
        out << "(System)" << "\n";
        break;
      case SERVICE_AUTO_START:
        out << "(Automatic)" << "\n";
        break;
      case SERVICE_DEMAND_START:
        out << "(Manual)" << "\n";
        break;
      case SERVICE_DISABLED:
        out << "(Disabled)" << "\n";
        break;
      default:
        break;
    }
  }
  out << "\n";
}

bool CSupportInformationGenerator::CheckGenerateError(int result) { return !(result < 0 || (result == 0 && errno == ENOENT)); }

bool CSupportInformationGenerator::GenerateReportFile(std::ofstream& out, CAssociativeArray& db) {
  try {
    if (!db.KeyExists("$HOSTNAME")) return false;
    out << kReportRule << "Complete Report For Host: " << db.GetValueOfParameter("$HOSTNAME") << "\n" << kReportRule;
    out << kReportRule << "IP Configuration: " << kReportRule << "\n" << db.GetValueOfParameter("$IPCONFIG");
    out << kReportRule << "System And Hardware Configuration: " << kReportRule << "\n"
        << db.GetValueOfParameter("$SYSTEMREPORT");
    if (db.KeyExists("$MXCTIDLL"))
      out << kReportRule << "Kestrun Product Information(mxcti.dll): " << kReportRule << "\n"
          << db.GetValueOfParameter("$MXCTIDLL");
    out << kReportRule << "Kestrun.ini File: " << kReportRule << "\n" << db.GetValueOfParameter("$KESTRUNINI");
    return true;
  } catch (std::exception const& error) {
    CORVANTH_LOG(nLog::nBasic::sErrorTag_, kSource, error.what());
    return false;
  } catch (...) {
    CORVANTH_LOG(nLog::nBasic::sErrorTag_, kSource);
    return false;
  }
}
