// The support report: the DB of this host and its text, each block against
// the host's own sources or a stand-in (mount table, service manager), the
// report's failures, and the tool's report verb.
#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "AssociativeArray.h"
#include "HostInfo.h"
#include "LogCapture.h"
#include "Scm.h"
#include "ScopedEnv.h"
#include "SupportInformationGenerator.h"

namespace {

namespace fs = std::filesystem;

std::string const kReportRule = "\n" + std::string(79, '=') + "\n";
std::string const kSectionRule = "\n" + std::string(67, '-') + "\n";
std::string gHeading(char const* title) { return kReportRule + title + kReportRule + "\n"; }

using corvanth::test::cScopedEnv;

std::string gHost() {
  char name[256] = {};
  ::gethostname(name, sizeof name - 1);
  return name;
}

std::string gRead(fs::path const& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

std::string gCommandOutput(std::string const& command) {
  std::string out;
  if (FILE* pipe = ::popen(command.c_str(), "r")) {
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;) out.append(chunk, n);
    ::pclose(pipe);
  }
  return out;
}

// The blocks the report is made of, opened up.
class cProbe : public CSupportInformationGenerator {
 public:
  using CSupportInformationGenerator::CheckGenerateError;
  using CSupportInformationGenerator::GetDiskInfo;
  using CSupportInformationGenerator::GetServicesList;
  using CSupportInformationGenerator::GetWindowsSystemInfo;
};

template <class Block>
std::string gBlock(Block block) {
  std::ostringstream out;
  cProbe probe;
  (probe.*block)(out);
  return out.str();
}

// Each test runs in a current directory of its own, beside a product
// directory that MX_BIN names.
class Report : public ::testing::Test {
 protected:
  Report() : mRoot(fs::temp_directory_path() / ("corvanth-report-" + std::to_string(::getpid()))) {
    fs::remove_all(mRoot);
    fs::create_directories(mRoot / "cwd");
    fs::create_directories(mRoot / "product");
    mOldCwd = fs::current_path();
    fs::current_path(mRoot / "cwd");
  }
  ~Report() override {
    nHostInfo::gSetMountTable(nullptr);
    fs::current_path(mOldCwd);
    fs::remove_all(mRoot);
  }
  std::vector<std::string> fWorkingFiles() const {
    std::vector<std::string> names;
    for (auto const& entry : fs::directory_iterator(mRoot / "cwd")) names.push_back(entry.path().filename());
    return names;
  }
  bool fReport(CAssociativeArray& db, std::string& text) {
    fs::path const path = mRoot / "report.txt";
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    bool const written = CSupportInformationGenerator().GenerateReportFile(out, db);
    out.close();
    text = gRead(path);
    return written;
  }

  fs::path const mRoot;
  fs::path mOldCwd;
  cScopedEnv const mBin{"MX_BIN", (mRoot / "product").string()};
};

TEST_F(Report, ThisHostGivesFiveSectionsWithItsOwnFiguresAndLeavesNoWorkingFile) {
  std::ofstream(mRoot / "product" / "kestrun.ini") << "[Kestrun]\nCorvanthAnsiConversion_patch=0\n";
  std::ofstream(mRoot / "product" / "mxcti.dll", std::ios::binary) << std::string("MZ\x90\0PE\0\0", 8);

  auto const start = std::chrono::steady_clock::now();
  CAssociativeArray db;
  EXPECT_TRUE(CSupportInformationGenerator().CreateInformationDB(db));
  std::string report;
  ASSERT_TRUE(fReport(db, report));
  double const ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  std::printf("[ report  ] DB and report of this host in %.1f ms, %zu bytes\n", ms, report.size());

  EXPECT_TRUE(fWorkingFiles().empty());
  std::string const host = gHost();
  EXPECT_EQ(db.GetValueOfParameter("$HOSTNAME"), host);
  std::size_t at = 0;
  for (std::string const& part :
       {kReportRule + "Complete Report For Host: " + host + "\n" + kReportRule, gHeading("IP Configuration: "),
        gHeading("System And Hardware Configuration: "), gHeading("Kestrun Product Information(mxcti.dll): ") + "MZ\x90",
        gHeading("Kestrun.ini File: ") + "[Kestrun]\nCorvanthAnsiConversion_patch=0\n"}) {
    std::size_t const found = report.find(part, at);
    ASSERT_NE(found, std::string::npos) << part;
    at = found + part.size();
  }
  EXPECT_EQ(at, report.size());

  // The network section is what `ip addr` says.
  std::string const ip = gCommandOutput("ip addr");
  EXPECT_NE(std::string(db.GetValueOfParameter("$IPCONFIG")).find(ip.substr(0, ip.find('\n'))), std::string::npos);

  // The OS line: kernel numbers and the distribution's name.
  std::string const system = db.GetValueOfParameter("$SYSTEMREPORT");
  utsname names{};
  ASSERT_EQ(::uname(&names), 0);
  std::string const release = names.release;
  std::string const majorMinor = release.substr(0, release.find('.', release.find('.') + 1));
  std::string const pretty = gCommandOutput(". /etc/os-release && printf %s \"$PRETTY_NAME\"");
  std::string const osLine = system.substr(0, system.find('\n'));
  EXPECT_NE(osLine.find("version " + majorMinor + " " + pretty + "(Build "), std::string::npos) << osLine;

  // Memory against /proc/meminfo, in K.
  auto const meminfo = [](char const* name) {
    std::string const text = gRead("/proc/meminfo");
    return std::stoull(text.substr(text.find(name) + std::strlen(name) + 1));
  };
  auto const figure = [&](char const* words) {
    std::size_t const end = system.find(words);
    std::size_t const begin = system.rfind("There are ", end) + 10;
    return std::stoull(system.substr(begin, end - begin));
  };
  EXPECT_EQ(figure(" total Kbytes of physical memory."), meminfo("MemTotal:"));
  long long const available = static_cast<long long>(meminfo("MemAvailable:"));
  EXPECT_NEAR(static_cast<long long>(figure(" free Kbytes of physical memory.")), available, available / 20);
  EXPECT_NE(system.find("Logical Drives Information:" + kSectionRule + "/\nSectors Per Cluster: "), std::string::npos);

  // The DB travels as a string form and gives the same text on the far side.
  char const* form = nullptr;
  int length = 0;
  db.ToString(form, length, false, false);
  CAssociativeArray received;
  received.FromString(form, length);
  std::string again;
  ASSERT_TRUE(fReport(received, again));
  EXPECT_EQ(again, report);
}

TEST_F(Report, FailingCommandsMissingProductFilesAndStaleWorkingFiles) {
  {
    SCOPED_TRACE("no ip on PATH, no product files");
    cScopedEnv const path("PATH", (mRoot / "product").string());
    CAssociativeArray db;
    EXPECT_TRUE(CSupportInformationGenerator().CreateInformationDB(db));
    std::string report;
    ASSERT_TRUE(fReport(db, report));
    for (char const* title : {"IP Configuration: ", "System And Hardware Configuration: "})
      EXPECT_NE(report.find(gHeading(title) + "Not Available - failed on creation" + kReportRule), std::string::npos);
    EXPECT_NE(report.find(gHeading("Kestrun Product Information(mxcti.dll): ") + "Not Found" + kReportRule),
              std::string::npos);
    EXPECT_TRUE(report.ends_with(gHeading("Kestrun.ini File: ") + "Not Found"));
    // The redirection made the network file before the command failed; it stays.
    EXPECT_EQ(fWorkingFiles(), std::vector<std::string>{"IpConfig.txt"});
    fs::remove("IpConfig.txt");
  }
  {
    SCOPED_TRACE("stale working files");
    std::ofstream("IpConfig.txt") << "STALE NETWORK TEXT\n";
    std::ofstream(gHost() + ".txt") << "STALE SYSTEM TEXT\n";
    CAssociativeArray db;
    CSupportInformationGenerator().CreateInformationDB(db);
    std::string const network = db.GetValueOfParameter("$IPCONFIG");
    EXPECT_TRUE(network.starts_with("STALE NETWORK TEXT\n1: ")) << network.substr(0, 40);
    EXPECT_EQ(std::string(db.GetValueOfParameter("$SYSTEMREPORT")).find("STALE"), std::string::npos);
    EXPECT_TRUE(fWorkingFiles().empty());
  }
}

TEST_F(Report, ReportOfAGivenDBStopsAtTheFirstMissingKeyAndLogsIt) {
  struct tCase {
    char const* name;
    std::vector<char const*> keys;  // each with the value "<key>!"
    bool result;
    std::vector<char const*> sections;  // in order; an empty list means no text at all
    bool logged;
  };
  tCase const cases[] = {
      {"no product library", {"$HOSTNAME", "$IPCONFIG", "$SYSTEMREPORT", "$KESTRUNINI"}, true,
       {"IP Configuration: ", "System And Hardware Configuration: ", "Kestrun.ini File: "}, false},
      {"no host name", {"$IPCONFIG", "$SYSTEMREPORT", "$MXCTIDLL", "$KESTRUNINI"}, false, {}, false},
      {"no system report", {"$HOSTNAME", "$IPCONFIG", "$MXCTIDLL", "$KESTRUNINI"}, false,
       {"IP Configuration: ", "System And Hardware Configuration: "}, true},
  };
  for (tCase const& c : cases) {
    SCOPED_TRACE(c.name);
    CAssociativeArray db;
    for (char const* key : c.keys) db.AddCouple(key, (std::string(key) + "!").c_str());
    corvanth::test::cLogCapture capture("Error");
    std::string report;
    EXPECT_EQ(fReport(db, report), c.result);
    std::string expected;
    if (!c.sections.empty()) expected = kReportRule + "Complete Report For Host: $HOSTNAME!\n" + kReportRule;
    for (char const* title : c.sections) {
      expected += gHeading(title);
      std::string const key = title[0] == 'I' ? "$IPCONFIG" : title[0] == 'S' ? "$SYSTEMREPORT" : "$KESTRUNINI";
      if (db.KeyExists(key.c_str())) expected += key + "!";
    }
    EXPECT_EQ(report, expected);
    auto const records = capture.fRecords();
    ASSERT_EQ(records.size(), c.logged ? 1u : 0u);
    if (c.logged) {
      EXPECT_EQ(records[0].source, "SupportInformationGenerator");
      EXPECT_NE(records[0].text.find("$SYSTEMREPORT"), std::string::npos) << records[0].text;
    }
  }
}

TEST_F(Report, EnvironmentBlockFillsLinuxValuesAndKeepsUnsetTemplates) {
  cScopedEnv const os("OS", std::nullopt);
  cScopedEnv const classpath("CLASSPATH", std::nullopt);
  cScopedEnv const tmp("TMP", "/var/tmp/x");
  std::string const block = gBlock(&cProbe::GetWindowsSystemInfo);
  EXPECT_NE(block.find("\nOS=Linux \t\t\t\t\t\t \nNUMBER_OF_PROCESSORS=" + std::to_string(::sysconf(_SC_NPROCESSORS_ONLN)) +
                       " \t\t\t\t\t\t \n"),
            std::string::npos);
  EXPECT_TRUE(block.ends_with("\nTMP=/var/tmp/x \t\t\nPATH=" + std::string(std::getenv("PATH")) +
                              " \t\t\nCLASSPATH=%CLASSPATH% \n"));
  {
    cScopedEnv const own("OS", "Windows_NT");
    EXPECT_NE(gBlock(&cProbe::GetWindowsSystemInfo).find("\nOS=Windows_NT \t"), std::string::npos);
  }
  // Texts that name nothing stay as written; a short target keeps what fits.
  char target[8];
  EXPECT_EQ(ExpandEnvironmentStringsA("50% off %", target, sizeof target), 10u);
  EXPECT_STREQ(target, "50% off");
  EXPECT_EQ(ExpandEnvironmentStringsA("%%|%TMP%", target, sizeof target), 14u);
  EXPECT_STREQ(target, "%%|/var");

  // A command's result: negative, or 0 with ENOENT, is a failure.
  cProbe probe;
  errno = ENOENT;
  EXPECT_EQ(std::vector<bool>({probe.CheckGenerateError(0), probe.CheckGenerateError(-1), probe.CheckGenerateError(1)}),
            std::vector<bool>({false, false, true}));
  errno = 0;
  EXPECT_TRUE(probe.CheckGenerateError(0));
}

TEST_F(Report, DrivesBlockHoldsFixedAndRemoteRootsOnly) {
  for (char const* dir : {"disk", "ram", "optical", "remote", "stick"}) fs::create_directories(mRoot / dir);
  auto const root = [&](char const* dir) { return (mRoot / dir).string(); };
  fs::path const table = mRoot / "mounts";
  std::ofstream(table) << "proc /proc proc rw 0 0\n"
                       << "/dev/vda / ext4 rw 0 0\n"
                       << "tmpfs " << root("ram") << " tmpfs rw 0 0\n"
                       << "/dev/sr0 " << root("optical") << " iso9660 ro 0 0\n"
                       << "server:/export " << root("remote") << " nfs4 rw 0 0\n"
                       << "/dev/nosuchdisk1 " << root("disk") << " xfs rw 0 0\n"
                       << "/dev/nosuchdisk2 /nonexistent/mount ext4 rw 0 0\n";
  nHostInfo::gSetMountTable(table.c_str());
  std::string const block = gBlock(&cProbe::GetDiskInfo);
  EXPECT_TRUE(block.starts_with(kSectionRule + "Logical Drives Information:" + kSectionRule + "/\nSectors Per Cluster: "));
  for (char const* kept : {"disk", "remote"}) EXPECT_NE(block.find("\n" + root(kept) + "\n"), std::string::npos) << kept;
  for (std::string const& left : {root("ram"), root("optical"), std::string("/proc")})
    EXPECT_EQ(block.find("\n" + left + "\n"), std::string::npos) << left;
  // A root that cannot be asked repeats the figures of the root before it.
  std::string const disk = block.substr(block.find(root("disk") + "\n") + root("disk").size());
  std::string const gone = block.substr(block.find("/nonexistent/mount\n") + 18);
  EXPECT_EQ(gone, disk.substr(0, gone.size()));

  // A root list longer than the 200 characters of the walk lists none.
  std::ofstream many(table);
  for (int i = 0; i < 12; ++i) many << "/dev/vda " << mRoot.string() << "/many-mount-point-" << i << " ext4 rw 0 0\n";
  many.close();
  EXPECT_EQ(gBlock(&cProbe::GetDiskInfo), kSectionRule + "Logical Drives Information:" + kSectionRule);
}

// A manager with four services, one of which cannot be opened. The report
// keeps the handles and blocks it is given, so the stand-in owns them.
char gNames[][8] = {"pending", "running", "sealed", "paused"};
char gShown[][16] = {"Pending Service", "Running Service", "Sealed Service", "Paused Service"};
struct cTypedHandle : cServiceHandle {
  explicit cTypedHandle(DWORD start) : start(start) {}
  DWORD start;
};
class cFakeManager : public cServiceManagerWrapper {
 public:
  cFakeManager() : cServiceManagerWrapper(gSystemServiceManager()) {}
  ~cFakeManager() override { for (void* block : mBlocks) std::free(block); }
  SC_HANDLE OpenSCManagerA(LPCSTR, LPCSTR, DWORD) override { return fHandle(0); }
  BOOL EnumServicesStatusA(SC_HANDLE, DWORD type, DWORD state, LPENUM_SERVICE_STATUSA services, DWORD size,
                           LPDWORD needed, LPDWORD returned, LPDWORD) override {
    EXPECT_EQ(type, SERVICE_WIN32);
    EXPECT_EQ(state, SERVICE_STATE_ALL);
    EXPECT_EQ(size, 147456u);
    DWORD const states[] = {SERVICE_START_PENDING, SERVICE_RUNNING, SERVICE_RUNNING, SERVICE_PAUSED};
    for (int i = 0; i < 4; ++i) services[i] = {gNames[i], gShown[i], {0, states[i], 0, 0, 0, 0, 0}};
    *needed = 0;
    *returned = 4;
    return TRUE;
  }
  SC_HANDLE OpenServiceA(SC_HANDLE, LPCSTR name, DWORD access) override {
    EXPECT_EQ(access, SERVICE_QUERY_CONFIG);
    std::string const n = name;
    if (n == "sealed") return nullptr;
    return fHandle(n == "pending" ? SERVICE_DEMAND_START : n == "running" ? SERVICE_AUTO_START : SERVICE_DISABLED);
  }
  BOOL QueryServiceConfigA(SC_HANDLE handle, LPQUERY_SERVICE_CONFIGA config, DWORD size, LPDWORD) override {
    EXPECT_EQ(size, 4096u);
    config->dwStartType = static_cast<cTypedHandle*>(handle)->start;
    return TRUE;
  }
  HLOCAL LocalAlloc(UINT flags, SIZE_T bytes) override {
    EXPECT_EQ(flags, LPTR);
    return mBlocks.emplace_back(std::calloc(1, bytes));
  }

 private:
  SC_HANDLE fHandle(DWORD start) { return mHandles.emplace_back(std::make_unique<cTypedHandle>(start)).get(); }
  std::vector<std::unique_ptr<cServiceHandle>> mHandles;
  std::vector<void*> mBlocks;
};

TEST_F(Report, ServicesBlockNamesStatesAndStartTypesAsTheManagerTellsThem) {
  cFakeManager fake;
  iServiceManager* const former = gSetServiceManager(&fake);
  std::string const block = gBlock(&cProbe::GetServicesList);
  gSetServiceManager(former);
  EXPECT_EQ(block, kSectionRule + "Services Report:" + kSectionRule +
                       "Service Name: Pending Service\n      Status: Stoped   (Manual)\n"
                       "Service Name: Running Service\n      Status: Running  (Automatic)\n"
                       "Service Name: Sealed Service\n      Status: Running  "
                       "Service Name: Paused Service\n      Status: Paused   (Disabled)\n\n");
}

TEST_F(Report, ToolWritesTheReportItsDBAndTheReportOfAGivenDB) {
  std::ofstream(mRoot / "product" / "kestrun.ini") << "k=v\n";
  // Runs in the test's current directory; standard output goes to `out` beside it.
  auto const run = [&](std::string const& arguments, char const* out = "stdout.txt") {
    int const status = std::system(("cd '" + (mRoot / "cwd").string() + "' && " CORVANTH_TOOL " report " + arguments +
                                    " >../" + out + " 2>/dev/null").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  ASSERT_EQ(run("--out ../file.txt"), 0);
  EXPECT_EQ(gRead(mRoot / "stdout.txt"), "");
  EXPECT_TRUE(gRead(mRoot / "file.txt").ends_with(gHeading("Kestrun Product Information(mxcti.dll): ") + "Not Found" +
                                                 gHeading("Kestrun.ini File: ") + "k=v\n"));
  EXPECT_TRUE(fWorkingFiles().empty());

  ASSERT_EQ(run("--db", "db.txt"), 0);
  CAssociativeArray db;
  db.FromStringZ1(gRead(mRoot / "db.txt"));
  EXPECT_STREQ(db.GetValueOfParameter("$KESTRUNINI"), "k=v\n");
  ASSERT_EQ(run("--from ../db.txt"), 0);
  std::string fromDb;
  ASSERT_TRUE(fReport(db, fromDb));
  EXPECT_EQ(gRead(mRoot / "stdout.txt"), fromDb);
  // Usage errors give 2; a file that holds no DB gives 1.
  EXPECT_EQ(std::vector<int>({run("--db --out x"), run("--bogus"), run("--from ../file.txt")}), std::vector<int>({2, 2, 1}));
}

}  // namespace
