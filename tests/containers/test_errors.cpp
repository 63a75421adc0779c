#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "AssociativeArrayExceptions.h"
#include "CKRErrorInfo.h"
#include "KRErrorException.h"
#include "KRErrorsDictionary.h"

namespace {

namespace fs = std::filesystem;

// Each test points KESTRUN_HOME at its product home itself (the suite's environment may not
// reach a test): the build's, whose dat/ is the repository's data folder, or a fresh empty one.
void gUseTestHome() { ::setenv("KESTRUN_HOME", CORVANTH_TEST_HOME, 1); }

struct tFreshHome {
  std::string root = (fs::temp_directory_path() / "corvanth-frm-XXXXXX").string();
  tFreshHome() {
    if (::mkdtemp(root.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    fs::create_directories(fDat());
    ::setenv("KESTRUN_HOME", root.c_str(), 1);
  }
  ~tFreshHome() { fs::remove_all(root); }
  fs::path fDat() const { return fs::path(root) / "dat"; }
  void fWrite(std::string const& name, std::string const& bytes) const {
    std::ofstream(fDat() / name, std::ios::binary) << bytes;
  }
};

// The text an exception gives through std::exception::what().
std::string gWhat(std::exception const& error) { return error.what(); }

// With a text in the file, what() gives it filled in; without the file or the
// key, the text still names file, key and parameters.
TEST(ErrorExceptions, TakeTheirTextsFromTheFileOrNameWhatTheyLack) {
  gUseTestHome();
  EXPECT_EQ(gWhat(CIllegalAssoSyntaxException("x{")), "Syntax error in the parameter string at \"x{\".");
  EXPECT_EQ(gWhat(CAssoKeyDoesNotExistException("Speed", "1 '2 ab '1 c ")),
            "The parameter \"Speed\" does not exist in the parameter string \"1 '2 ab '1 c \".");
  iKRException const& base = CAssoKeyDoesNotExistException("k", "array");
  EXPECT_STREQ(base.fGetErrorMsg(), base.what());
  EXPECT_STREQ(
      KRErrorException("loadengine.frm", 999, "p1", std::string("p2")).what(),
      "No text for key 999 in error text file \"loadengine.frm\"; parameters: \"p1\", \"p2\"");
  // Only plain names are looked up: a path never leaves the data directories.
  EXPECT_STREQ(KRErrorException("../dat/loadengine.frm", 10, "x").what(),
               "Error text file \"../dat/loadengine.frm\" not found; key 10, parameters: \"x\"");
  EXPECT_STREQ(KRErrorException(nullptr, 10).what(),
               "Error text file \"(null)\" not found; key 10, parameters: none");
  tFreshHome const empty;  // a library in its build tree has no data directory beside it
  EXPECT_EQ(
      gWhat(CAssoKeyDoesNotExistException("Speed", nullptr)),
      "Error text file \"loadengine.frm\" not found; key 11, parameters: \"Speed\", \"(null)\"");
}

TEST(ErrorTextFile, ReaderSkipsHostileLinesKeepsTheFirstOfAKeyAndRefusesOversizedFiles) {
  tFreshHome const home;
  std::string bytes =
      "\xEF\xBB\xBF"
      "1\tone %s\r\n";  // BOM and CRLF
  bytes += "# 2\tcommented out\n\n3 \tspace before the tab\n 4\tspace before the key\n5\n";
  bytes += "99999999999\toverflow\n-6\tnegative\n7\tfirst\n7\tsecond\n";
  bytes += std::string("8\twith\0zero\n", 12) + std::string(1, '\0') + "\tnul key\n";
  bytes += "9\t" + std::string(70000, 'x') + "\n";  // longer than a line may be
  bytes += "10\t\n2147483647\tmost\n11\tlast line without end";
  home.fWrite("test.frm", bytes);
  KRErrorsDictionary const texts("test.frm");
  ASSERT_TRUE(texts.IsLoaded());
  std::string found;  // "<key>=<text>;" or "<key>-;" when there is none
  for (int key : {1, 2, 3, 4, 5, 9, 12, -6, 7, 8, 10, 2147483647, 11}) {
    RWCString text;
    found += std::to_string(key) + (texts.GetText(key, text) ? "=" + text : "-") + ";";
  }
  EXPECT_EQ(found, std::string("1=one %s;2-;3-;4-;5-;9-;12-;-6=negative;7=first;8=with\0zero;10=;2147483647=most;"
                               "11=last line without end;", 105));
  EXPECT_STREQ(KRErrorException("test.frm", 1, "x").what(), "one x");
  home.fWrite("test.frm", "1\tchanged\n");  // exceptions read a file once per process
  EXPECT_STREQ(KRErrorException("test.frm", 1, "x").what(), "one x");

  home.fWrite("big.frm", "1\tbig\n" + std::string((4u << 20), '#'));
  EXPECT_FALSE(KRErrorsDictionary("big.frm").IsLoaded());
  home.fWrite("edge.frm", "1\tedge\n" + std::string((4u << 20) - 7, '#'));
  EXPECT_TRUE(KRErrorsDictionary("edge.frm").IsLoaded());  // exactly 4 MiB
  fs::create_directory(home.fDat() / "dir.frm");
  EXPECT_FALSE(KRErrorsDictionary("dir.frm").IsLoaded());

  // Copies share what was read and outlive their source; a new dictionary reads afresh.
  auto* first = new KRErrorsDictionary("test.frm");
  KRErrorsDictionary assigned;
  assigned = *first;
  delete first;
  RWCString text;
  ASSERT_TRUE(assigned.GetText(1, text));
  EXPECT_EQ(text, "changed");
}

TEST(ErrorTextFile, FormattingFillsPlaceholdersInOrderAndLosesNoParameter) {
  std::string_view const two[] = {"A", "B"};
  struct tRow { char const* text; std::size_t count; char const* formatted; };
  for (tRow const row : {tRow{"%s and %s", 2, "A and B"}, tRow{"100%% %s", 1, "100% A"},
                         tRow{"%s, %s, %s!", 2, "A, B, !"}, tRow{"only %s", 2, "only A (\"B\")"},
                         tRow{"trailing %", 0, "trailing %"}, tRow{"%d stays", 0, "%d stays"}})
    EXPECT_EQ(KRFormatErrorText(row.text, two, row.count), row.formatted) << row.text;
  // A parameter's own "%s" is not expanded again.
  std::string_view const tricky[] = {"%s", "x"};
  EXPECT_EQ(KRFormatErrorText("%s-%s", tricky, 2), "%s-x");
}

TEST(CKRErrorInfo, IdAndMessageExcludeEachOther) {
  CKRErrorInfo info("disk");
  info.SetErrorId(42);
  info.SetErrorMsg("literal");
  EXPECT_EQ(info.GetErrorMsg() + std::to_string(info.GetErrorId()), "literal0");
  info.SetErrorId(43);
  EXPECT_EQ(info.GetErrorMsg() + std::to_string(info.GetErrorId()), "43");
}

}  // namespace
