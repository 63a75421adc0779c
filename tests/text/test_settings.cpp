// Settings file lookup and reading, #(MX_BIN) resolution, path splitting and
// the settings verb of the tool.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "KREnvironment.h"
#include "ScopedEnv.h"

namespace {

namespace fs = std::filesystem;

using corvanth::test::cScopedEnv;

// A product home of its own, so that no other test's kestrun.ini is touched.
class Settings : public ::testing::Test {
 protected:
  Settings() : mHome(fs::temp_directory_path() / ("corvanth-settings-" + std::to_string(::getpid()))) {
    fs::create_directories(mHome / "config");
  }
  ~Settings() override { fs::remove_all(mHome); }
  void fWrite(std::string const& bytes) { std::ofstream(mHome / "config" / "kestrun.ini", std::ios::binary) << bytes; }
  int fLoad() {
    MXEnvContainerClass container;
    int handle = 0;
    nEnvSettings::gFileInitTable(container, "kestrun.ini", handle);
    return handle;
  }

  fs::path const mHome;
  cScopedEnv const mEnv{"KESTRUN_HOME", mHome.string()};
};

TEST_F(Settings, KeyInAnySectionFirstWinsEnvironmentFirstMissingFileEmpty) {
  fWrite("top = 1\n[a]\nCorvanthAnsiConversion_patch = 2 ; mended\n[b]\nCorvanthAnsiConversion_patch=1\n");
  int const handle = fLoad();
  EXPECT_STREQ(nEnvSettings::gGetPropertyStream(handle, "CorvanthAnsiConversion_patch"), "2");
  EXPECT_STREQ(nEnvSettings::gGetPropertyStream(handle, "absent"), "");
  EXPECT_EQ(fs::path(nEnvSettings::gTablePath(handle)), mHome / "config" / "kestrun.ini");
  // The same bytes give the same table; new bytes a new one, and old texts stay.
  EXPECT_EQ(fLoad(), handle);
  char const* const old = nEnvSettings::gGetPropertyStream(handle, "top");
  fWrite("top = 3\nCORVANTH_SERVICE_VERSION_NAME: 85\n");
  EXPECT_STREQ(nEnvSettings::gGetPropertyStream(fLoad(), "top"), "3");
  EXPECT_STREQ(old, "1");

  MXEnvContainerClass container;
  cScopedEnv const env("top", "from-env");
  EXPECT_STREQ(container.MXEGetEnv("top"), "from-env");
  EXPECT_STREQ(container.MXEGetEnv("CORVANTH_SERVICE_VERSION_NAME"), "85");
  fs::remove(mHome / "config" / "kestrun.ini");
  EXPECT_STREQ(container.MXEGetEnv("CORVANTH_SERVICE_VERSION_NAME"), "85");  // read once until reset
  container.reset();
  EXPECT_EQ(container.MXEGetEnv("CORVANTH_SERVICE_VERSION_NAME"), nullptr);
}

TEST_F(Settings, HostileFilesGiveDefinedTables) {
  struct tCase {
    std::string bytes;
    char const* key;
    char const* value;  // null: absent
  };
  std::string const longLine = "long = " + std::string(1 << 20, 'x') + "\nafter = 1\n";
  // No tail of a line too long for the reader may become a key of its own.
  std::string const tail = "k = " + std::string(300, 'y') + "\nown = 1\nx = " + std::string(190, 'z') + "tail = 1\n";
  std::string const nul("a = 1\0b = 2\nc = 3\n", 18);
  tCase const cases[] = {
      {"a = 1\nb = 2", "b", "2"}, {"a = 1\r\nb = 2\r\n", "b", "2"},  // no newline at the end; CRLF
      {longLine, "long", nullptr}, {longLine, "after", "1"}, {tail, "own", "1"}, {tail, "tail", nullptr},
      {nul, "a", nullptr}, {nul, "b", nullptr}, {nul, "c", "3"},  // a line holding NUL is dropped whole
      {"[open\nk = v\n[\nk2 = v2\n", "k", "v"}, {"[open\nk = v\n[\nk2 = v2\n", "k2", "v2"},
      {"\xEF\xBB\xBFk = bom\n", "k", "bom"}, {"=v\nnoequals\nk =\n", "k", ""}, {std::string(4, '\0'), "k", nullptr},
  };
  for (tCase const& c : cases) {
    fWrite(c.bytes);
    char const* const got = nEnvSettings::gFindProperty(fLoad(), c.key);
    EXPECT_STREQ(got, c.value) << c.key << " in " << c.bytes.size() << " bytes";
  }
}

TEST_F(Settings, ToolTellsFileValueAndSource) {
  fWrite("[s]\nCorvanthAnsiConversion_patch = 2\nX = file\n");
  FILE* const pipe =
      ::popen("X=env " CORVANTH_TOOL " settings X CORVANTH_SERVICE_VERSION_NAME CorvanthAnsiConversion_patch 2>&1", "r");
  ASSERT_NE(pipe, nullptr);
  std::string output(4096, '\0');
  output.resize(std::fread(output.data(), 1, output.size(), pipe));
  EXPECT_EQ(::pclose(pipe), 0);
  EXPECT_EQ(output, "settings file: " + (mHome / "config" / "kestrun.ini").string() +
                        "\nX = env (environment; the file has file)\nCORVANTH_SERVICE_VERSION_NAME: not set\n"
                        "CorvanthAnsiConversion_patch = 2 (file)\n");
}

TEST(Paths, RuntimeResolveAndSplitPath) {
  MXEnvContainerClass container;
  {
    cScopedEnv const bin("MX_BIN", "C:\\kr\\bin\\");
    EXPECT_STREQ(container.MXERuntimeResolve("#(MX_BIN)\\kestrun.ini"), "C:/kr/bin/kestrun.ini");
  }
  cScopedEnv const noBin("MX_BIN", std::nullopt);
  cScopedEnv home("KESTRUN_HOME", "/opt/kr");
  EXPECT_STREQ(container.MXERuntimeResolve("#(MX_BIN)\\a;#(MX_BIN)/b"), "/opt/kr/bin/a;/opt/kr/bin/b");
  cScopedEnv const noHome("KESTRUN_HOME", std::nullopt);
  EXPECT_EQ(fs::path(container.MXERuntimeResolve("#(MX_BIN)\\x.dll")),
            fs::read_symlink("/proc/self/exe").parent_path() / "x.dll");

  char const* const cases[][4] = {
      {"C:\\dir\\name.ext", "C:\\dir\\", "name", "ext"}, {"\\\\server\\share\\x", "\\\\server\\share\\", "x", ""},
      {"/usr/lib/libx.so.1.2", "/usr/lib/", "libx.so.1", "2"}, {"noext", "", "noext", ""},
      {"C:\\dir\\", "C:\\dir\\", "", ""}, {"/tmp/", "/tmp/", "", ""}, {"C:name.txt", "C:", "name", "txt"},
      {"d.x/mixed\\f", "d.x/mixed\\", "f", ""}, {"/home/.profile", "/home/", ".profile", ""},
      {"trailing.", "", "trailing", ""}, {"", "", "", ""}, {nullptr, "", "", ""},
  };
  char const* firstName = nullptr;
  for (auto const& c : cases) {
    char* parts[3] = {};
    container.MXPSplitPath(c[0], &parts[0], &parts[1], &parts[2]);
    for (int i = 0; i < 3; ++i) EXPECT_STREQ(parts[i], c[i + 1]) << (c[0] ? c[0] : "(null)") << " part " << i;
    if (firstName == nullptr) firstName = parts[1];
  }
  EXPECT_STREQ(firstName, "name");  // texts live as long as the container
}

}  // namespace
