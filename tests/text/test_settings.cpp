// Settings file lookup and reading, environment lookup, #(MX_BIN) resolution
// and path splitting.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "KREnvironment.h"

namespace {

namespace fs = std::filesystem;

// Sets (or unsets, with nullopt) an environment variable for a scope.
class cScopedEnv {
 public:
  cScopedEnv(char const* name, std::optional<std::string> const& value) : mName(name) {
    if (char const* old = std::getenv(name)) mOld = old;
    if (value) ::setenv(name, value->c_str(), 1);
    else ::unsetenv(name);
  }
  ~cScopedEnv() {
    if (mOld) ::setenv(mName.c_str(), mOld->c_str(), 1);
    else ::unsetenv(mName.c_str());
  }

 private:
  std::string mName;
  std::optional<std::string> mOld;
};

// A product home of its own, so that no other test's kestrun.ini is touched.
class Settings : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "corvanth-settings-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    mHome = pattern;
    fs::create_directories(mHome / "config");
    mEnv.emplace("KESTRUN_HOME", mHome.string());
  }
  void TearDown() override {
    mEnv.reset();
    fs::remove_all(mHome);
  }
  void fWrite(std::string const& bytes) {
    std::ofstream(mHome / "config" / "kestrun.ini", std::ios::binary) << bytes;
  }
  int fLoad() {
    MXEnvContainerClass container;
    int handle = 0;
    nEnvSettings::gFileInitTable(container, "kestrun.ini", handle);
    return handle;
  }

  fs::path mHome;
  std::optional<cScopedEnv> mEnv;
};

TEST_F(Settings, KeyInAnySectionFirstWinsEnvironmentFirstMissingFileEmpty) {
  fWrite("top = 1\n[a]\nCorvanthAnsiConversion_patch = 2 ; mended\n[b]\nCorvanthAnsiConversion_patch=1\n"
         "# comment = 9\nCORVANTH_SERVICE_VERSION_NAME: 85\n");
  int const handle = fLoad();
  EXPECT_STREQ(nEnvSettings::gGetPropertyStream(handle, "CorvanthAnsiConversion_patch"), "2");
  EXPECT_STREQ(nEnvSettings::gGetPropertyStream(handle, "top"), "1");
  EXPECT_STREQ(nEnvSettings::gGetPropertyStream(handle, "absent"), "");
  EXPECT_EQ(nEnvSettings::gFindProperty(handle, "absent"), nullptr);
  EXPECT_EQ(nEnvSettings::gFindProperty(handle, "# comment"), nullptr);
  EXPECT_EQ(fs::path(nEnvSettings::gTablePath(handle)), mHome / "config" / "kestrun.ini");

  // The same bytes give the same table; new bytes a new one, and the old texts stay.
  EXPECT_EQ(fLoad(), handle);
  char const* const old = nEnvSettings::gGetPropertyStream(handle, "top");
  fWrite("top = 3\n");
  int const changed = fLoad();
  EXPECT_NE(changed, handle);
  EXPECT_STREQ(nEnvSettings::gGetPropertyStream(changed, "top"), "3");
  EXPECT_STREQ(old, "1");

  {
    MXEnvContainerClass container;
    cScopedEnv const env("top", "from-env");
    cScopedEnv const unset("CORVANTH_SERVICE_VERSION_NAME", std::nullopt);
    MXEnvContainerClass::tSource source;
    EXPECT_STREQ(container.fLookup("top", source), "from-env");
    EXPECT_EQ(source, MXEnvContainerClass::tSource::eEnvironment);
    EXPECT_EQ(container.MXEGetEnv("CORVANTH_SERVICE_VERSION_NAME"), nullptr);
    fWrite("CORVANTH_SERVICE_VERSION_NAME = 85\n");
    EXPECT_EQ(container.MXEGetEnv("CORVANTH_SERVICE_VERSION_NAME"), nullptr);  // read once until reset
    container.reset();
    EXPECT_STREQ(container.fLookup("CORVANTH_SERVICE_VERSION_NAME", source), "85");
    EXPECT_EQ(source, MXEnvContainerClass::tSource::eFile);
    EXPECT_EQ(container.MXEGetEnv(nullptr), nullptr);
  }

  fs::remove(mHome / "config" / "kestrun.ini");
  int const missing = fLoad();
  EXPECT_EQ(nEnvSettings::gFindProperty(missing, "top"), nullptr);
  EXPECT_NE(fs::path(nEnvSettings::gTablePath(missing)).parent_path(), mHome / "config");
  EXPECT_STREQ(nEnvSettings::gGetPropertyStream(0, "top"), "");
  EXPECT_STREQ(nEnvSettings::gGetPropertyStream(-5, "top"), "");
  int handle2 = 0;
  MXEnvContainerClass container;
  nEnvSettings::gFileInitTable(container, "../config/kestrun.ini", handle2);
  EXPECT_STREQ(nEnvSettings::gTablePath(handle2), "");
}

TEST_F(Settings, HostileFilesGiveDefinedTables) {
  struct tCase {
    std::string bytes;
    char const* key;
    char const* value;  // null: absent
  };
  std::string const longLine = "long = " + std::string(1 << 20, 'x') + "\nafter = 1\n";
  std::string const longValueInjection = "k = " + std::string(300, 'y') + "\ninjected = 1\n" + "x = " +
                                         std::string(190, 'z') + "injected2 = 1\n";
  std::vector<tCase> const cases = {
      {"a = 1\nb = 2", "b", "2"},                                   // no newline at the end
      {"a = 1\r\nb = 2\r\n", "b", "2"},                              // CRLF
      {longLine, "long", nullptr},                                   // 1 MiB line dropped whole
      {longLine, "after", "1"},                                      // and reading goes on
      {longValueInjection, "injected", "1"},                         // a line after a long one is its own
      {longValueInjection, "injected2", nullptr},                    // no tail of a long line becomes a key
      {std::string("a = 1\0b = 2\nc = 3\n", 18), "a", nullptr},      // a line holding NUL is dropped
      {std::string("a = 1\0b = 2\nc = 3\n", 18), "b", nullptr},
      {std::string("a = 1\0b = 2\nc = 3\n", 18), "c", "3"},
      {"[open\nk = v\n[\nk2 = v2\n]x\n", "k", "v"},                   // unterminated sections skipped
      {"[open\nk = v\n[\nk2 = v2\n]x\n", "k2", "v2"},
      {"\xEF\xBB\xBFk = bom\n", "k", "bom"},
      {"=novalue\nnoequals\nk =\n", "k", ""},
      {std::string(4, '\0'), "k", nullptr},
      {"", "k", nullptr},
  };
  for (tCase const& c : cases) {
    fWrite(c.bytes);
    char const* const got = nEnvSettings::gFindProperty(fLoad(), c.key);
    if (c.value == nullptr) EXPECT_EQ(got, nullptr) << c.key << " in case of " << c.bytes.size() << " bytes";
    else EXPECT_STREQ(got, c.value) << c.key;
  }
}

TEST_F(Settings, ThreadsRacingTheFirstLoadShareOneTable) {
  fWrite("k = shared\n");
  std::vector<int> handles(8);
  std::vector<std::string> values(8);
  {
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < handles.size(); ++i)
      threads.emplace_back([&, i] {
        handles[i] = fLoad();
        values[i] = nEnvSettings::gGetPropertyStream(handles[i], "k");
      });
  }
  for (std::size_t i = 0; i < handles.size(); ++i) {
    EXPECT_EQ(handles[i], handles[0]);
    EXPECT_EQ(values[i], "shared");
  }
}

TEST(RuntimeResolve, BinaryDirectoryFromMxBinThenHomeThenProgram) {
  MXEnvContainerClass container;
  {
    cScopedEnv const bin("MX_BIN", "C:\\kr\\bin\\");
    EXPECT_STREQ(container.MXERuntimeResolve("#(MX_BIN)\\kestrun.ini"), "C:/kr/bin/kestrun.ini");
  }
  cScopedEnv const noBin("MX_BIN", std::nullopt);
  {
    cScopedEnv const home("KESTRUN_HOME", "/opt/kr");
    char const* const first = container.MXERuntimeResolve("#(MX_BIN)\\a;#(MX_BIN)/b");
    EXPECT_STREQ(first, "/opt/kr/bin/a;/opt/kr/bin/b");
    container.reset();
    EXPECT_STREQ(container.MXERuntimeResolve("no\\placeholder"), "no/placeholder");
    EXPECT_STREQ(first, "/opt/kr/bin/a;/opt/kr/bin/b");  // still valid after reset
  }
  cScopedEnv const noHome("KESTRUN_HOME", std::nullopt);
  EXPECT_EQ(fs::path(container.MXERuntimeResolve("#(MX_BIN)\\x.dll")),
            fs::read_symlink("/proc/self/exe").parent_path() / "x.dll");
  EXPECT_EQ(container.MXERuntimeResolve(nullptr), nullptr);
}

TEST(SplitPath, WindowsAndPosixPaths) {
  struct tCase {
    char const* path;
    char const* directory;
    char const* name;
    char const* extension;
  };
  tCase const cases[] = {
      {"C:\\dir\\name.ext", "C:\\dir\\", "name", "ext"},
      {"\\\\server\\share\\x", "\\\\server\\share\\", "x", ""},
      {"/usr/lib/libx.so.1.2", "/usr/lib/", "libx.so.1", "2"},
      {"a.b.c", "", "a.b", "c"},
      {"noext", "", "noext", ""},
      {"C:\\dir\\", "C:\\dir\\", "", ""},
      {"/tmp/", "/tmp/", "", ""},
      {"C:name.txt", "C:", "name", "txt"},
      {"d.x/mixed\\f", "d.x/mixed\\", "f", ""},
      {"/home/.profile", "/home/", ".profile", ""},
      {"trailing.", "", "trailing", ""},
      {"..", "", "..", ""},
      {"", "", "", ""},
  };
  MXEnvContainerClass container;
  std::vector<std::string> kept;
  char* first = nullptr;
  for (tCase const& c : cases) {
    char* directory = nullptr;
    char* name = nullptr;
    char* extension = nullptr;
    container.MXPSplitPath(c.path, &directory, &name, &extension);
    EXPECT_STREQ(directory, c.directory) << c.path;
    EXPECT_STREQ(name, c.name) << c.path;
    EXPECT_STREQ(extension, c.extension) << c.path;
    if (first == nullptr) first = name;
  }
  EXPECT_STREQ(first, "name");  // texts live as long as the container
  char* directory = nullptr;
  char* name = nullptr;
  char* extension = nullptr;
  container.MXPSplitPath(nullptr, &directory, &name, &extension);
  EXPECT_STREQ(directory, "");
  EXPECT_STREQ(name, "");
  EXPECT_STREQ(extension, "");
}

}  // namespace
