// CSupportInformationGenerator: the support report about a host, in two
// halves joined only by a CAssociativeArray (the DB), so the DB can travel
// like any other array before the report is written.
//
// The DB, all values text:
//   "$HOSTNAME"      the local host name (always set)
//   "$IPCONFIG"      the network configuration  | "Not Available - failed on creation"
//   "$SYSTEMREPORT"  the system report           | "Not Available - failed on creation"
//   "$MXCTIDLL"      #(MX_BIN)\mxcti.dll          | "Not Found"
//   "$KESTRUNINI"    #(MX_BIN)\kestrun.ini        | "Not Found"
// A file's value ends at its first zero byte.
//
// CreateInformationDB makes two working files in the current directory,
// IpConfig.txt (appended to, so stale text stays at its head) and
// "<host>.txt" (overwritten), and removes both after reading them; when the
// commands fail they are left there. Nothing is locked: two runs in one
// current directory interfere. Each report leaves the service manager's
// handles and the configuration blocks it asked for open until the process
// ends.
#pragma once

#include <iosfwd>

#include "AssociativeArray.h"
#include "CorvanthExport.h"

class CORVANTH_EXPORT CSupportInformationGenerator {
 public:
  CSupportInformationGenerator() = default;
  CSupportInformationGenerator(CSupportInformationGenerator const&) = default;
  CSupportInformationGenerator& operator=(CSupportInformationGenerator const&) = default;
  virtual ~CSupportInformationGenerator();

  // Fills the DB from this host. Always true: the outcome of each part is in its value.
  bool CreateInformationDB(CAssociativeArray& db);
  // Writes the report of `db`. False without "$HOSTNAME" (nothing written) or
  // when another key but "$MXCTIDLL" is missing (the report stops there, and
  // the failure is logged). The stream is the caller's to open and close.
  bool GenerateReportFile(std::ofstream& out, CAssociativeArray& db);
  // The network file (its path in double quotes), then the system report.
  bool GenerateSystemInfo(char const* quotedNetworkFile, char const* reportFile);
  // Stores the text of the file at `path` under `key`; false when it cannot be opened.
  bool AddFileToDB(char const* key, char const* path, CAssociativeArray& db);
  // The process's current directory with a separator behind it; false when
  // it cannot be had, and the buffer is then left as it was.
  bool GetKRDirectoryPath(char* buffer, int size);

 protected:
  bool GenerateIPConfigInfo(char const* quotedFile);
  bool GenerateWindowsInfo(char const* file);
  // 1, or 0 when the version cannot be had (nothing written).
  int DisplaySystemVersion(std::ostream& out);
  void GetWindowsSystemInfo(std::ostream& out);
  void GetHWProfile(std::ostream& out);
  void GetMemoryStatus(std::ostream& out);
  void GetDiskInfo(std::ostream& out);
  void GetServicesList(std::ostream& out);
  // False for a negative result, or for 0 with errno ENOENT.
  bool CheckGenerateError(int result);
};
