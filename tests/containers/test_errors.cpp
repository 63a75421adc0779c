#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "AssociativeArrayExceptions.h"
#include "CKRErrorInfo.h"
#include "KRErrorException.h"
#include "KRErrorsDictionary.h"
#include "KRLogMessage.h"

namespace {

namespace fs = std::filesystem;

// Sets KESTRUN_HOME for the test's lifetime and puts the old value back.
class cScopedEnvHome {
 public:
  explicit cScopedEnvHome(std::string const& home) {
    if (char const* old = std::getenv("KESTRUN_HOME")) mOld = old;
    ::setenv("KESTRUN_HOME", home.c_str(), 1);
  }
  ~cScopedEnvHome() {
    if (mOld)
      ::setenv("KESTRUN_HOME", mOld->c_str(), 1);
    else
      ::unsetenv("KESTRUN_HOME");
  }

 private:
  std::optional<std::string> mOld;
};

// The build's product home, whose dat/ is the repository's data folder.
class cTestHome : cScopedEnvHome {
 public:
  cTestHome() : cScopedEnvHome(CORVANTH_TEST_HOME) {}
};

// A fresh product home with an empty dat/, removed at the end.
class cScopedHome {
 public:
  cScopedHome() : mRoot(gMakeRoot()), mHome(mRoot.string()) {}
  ~cScopedHome() { fs::remove_all(mRoot); }
  void fWrite(std::string const& name, std::string const& bytes) const {
    std::ofstream(mRoot / "dat" / name, std::ios::binary) << bytes;
  }
  fs::path fDat() const { return mRoot / "dat"; }

 private:
  static fs::path gMakeRoot() {
    std::string pattern = (fs::temp_directory_path() / "corvanth-frm-XXXXXX").string();
    fs::path root = ::mkdtemp(pattern.data());
    fs::create_directories(root / "dat");
    return root;
  }
  fs::path mRoot;
  cScopedEnvHome mHome;
};

bool gInstalledCopyExists() { return fs::exists(fs::path(CORVANTH_DATA_DIR) / "loadengine.frm"); }

TEST(AssociativeArrayExceptions, TakeTheirTextsFromTheLoadEngineFile) {
  cTestHome const home;
  CIllegalAssoSyntaxException const syntax("x{");
  EXPECT_STREQ(syntax.what(), "Syntax error in the parameter string at \"x{\".");
  EXPECT_EQ(syntax.GetErrorNumber(), 10);
  EXPECT_FALSE(syntax.GetReported());

  CAssoKeyDoesNotExistException const missing("Speed", "1 '2 ab '1 c ");
  EXPECT_STREQ(missing.what(),
               "The parameter \"Speed\" does not exist in the parameter string \"1 '2 ab '1 c \".");
  EXPECT_EQ(missing.GetErrorNumber(), 11);
  EXPECT_STREQ(missing.fGetErrorMsg(), missing.what());
  RWCString stack("untouched");
  EXPECT_FALSE(missing.fStackTrace(stack));
  EXPECT_EQ(stack, "untouched");
}

TEST(AssociativeArrayExceptions, AreCaughtAsAnyOfTheirBasesWithTheSameText) {
  cTestHome const home;
  auto const throwSyntax = [] { throw CIllegalAssoSyntaxException("bad"); };
  auto const throwMissing = [] { throw CAssoKeyDoesNotExistException("k", "array"); };
  std::string const syntaxText = CIllegalAssoSyntaxException("bad").what();
  std::string const missingText = CAssoKeyDoesNotExistException("k", "array").what();
  try {
    throwSyntax();
  } catch (std::exception const& error) {
    EXPECT_EQ(error.what(), syntaxText);
  }
  try {
    throwMissing();
  } catch (std::exception const& error) {
    EXPECT_EQ(error.what(), missingText);
  }
  try {
    throwMissing();
  } catch (CAssociativeArrayException const& error) {
    EXPECT_EQ(error.what(), missingText);
  }
  try {
    throwSyntax();
  } catch (iKRException const& error) {
    EXPECT_EQ(error.fGetErrorMsg(), syntaxText);
  }
}

TEST(AssociativeArrayExceptions, StillNameFileKeyAndParametersWithoutTheFile) {
  if (gInstalledCopyExists()) GTEST_SKIP() << "an installed loadengine.frm would answer";
  cScopedHome const home;
  CIllegalAssoSyntaxException const syntax("x{");
  EXPECT_STREQ(syntax.what(),
               "Error text file \"loadengine.frm\" not found; key 10, parameters: \"x{\"");
  CAssoKeyDoesNotExistException const missing("Speed", nullptr);
  EXPECT_STREQ(
      missing.what(),
      "Error text file \"loadengine.frm\" not found; key 11, parameters: \"Speed\", \"(null)\"");
}

TEST(KRErrorException, CopiesAndAssignmentsCarryTextNumberAndFlag) {
  cTestHome const home;
  KRErrorException source("loadengine.frm", 10, "first");
  source.SetReported(true);
  KRErrorException const copy(source);
  EXPECT_STREQ(copy.what(), source.what());
  EXPECT_EQ(copy.GetErrorNumber(), 10);
  EXPECT_TRUE(copy.GetReported());

  KRErrorException assigned("loadengine.frm", 11, "k", "a");
  assigned = source;
  EXPECT_STREQ(assigned.what(), source.what());
  EXPECT_EQ(assigned.GetErrorNumber(), 10);
  EXPECT_TRUE(assigned.GetReported());

  CAssociativeArrayException const retyped(source);
  EXPECT_STREQ(retyped.what(), source.what());
  EXPECT_TRUE(retyped.GetReported());
  CAssoKeyDoesNotExistException missing("k", "a");
  CAssoKeyDoesNotExistException const other("other", "b");
  missing = other;
  EXPECT_STREQ(missing.what(), other.what());
}

TEST(KRErrorException, MissingKeyAndBadFileNamesStillCarryTheCause) {
  cTestHome const home;
  KRErrorException const noKey("loadengine.frm", 999, "p1", std::string("p2"));
  EXPECT_STREQ(
      noKey.what(),
      "No text for key 999 in error text file \"loadengine.frm\"; parameters: \"p1\", \"p2\"");
  KRErrorException const noParameters("nosuch.frm", -4);
  EXPECT_STREQ(noParameters.what(),
               "Error text file \"nosuch.frm\" not found; key -4, parameters: none");
  // Only plain names are looked up: a path never leaves the data directories.
  KRErrorException const path("../dat/loadengine.frm", 10, "x");
  EXPECT_STREQ(path.what(),
               "Error text file \"../dat/loadengine.frm\" not found; key 10, parameters: \"x\"");
  KRErrorException const null(nullptr, 10);
  EXPECT_STREQ(null.what(), "Error text file \"(null)\" not found; key 10, parameters: none");
}

TEST(ErrorTextFile, ReaderIgnoresBadLinesAndKeepsTheFirstOfAKey) {
  cScopedHome const home;
  std::string bytes =
      "\xEF\xBB\xBF"
      "1\tone %s\r\n";  // BOM and CRLF
  bytes += "# 2\tcommented out\n";
  bytes += "\n";
  bytes += "3 \tspace before the tab\n";
  bytes += " 4\tspace before the key\n";
  bytes += "5\n";                      // no tab
  bytes += "99999999999\toverflow\n";  // beyond 32 bits
  bytes += "-6\tnegative\n";
  bytes += "7\tfirst\n7\tsecond\n";
  bytes += std::string("8\twith\0zero\n", 12);
  bytes += std::string(1, '\0') + "\tnul key\n";
  bytes += "9\t" + std::string(70000, 'x') + "\n";  // longer than a line may be
  bytes += "10\t\n";
  bytes += "2147483647\tmost\n";
  bytes += "11\tlast line without end";
  home.fWrite("test.frm", bytes);

  KRErrorsDictionary const texts("test.frm");
  ASSERT_TRUE(texts.IsLoaded());
  RWCString text;
  ASSERT_TRUE(texts.GetText(1, text));
  EXPECT_EQ(text, "one %s");
  for (int key : {2, 3, 4, 5, 9, 12}) EXPECT_FALSE(texts.GetText(key, text)) << key;
  ASSERT_TRUE(texts.GetText(-6, text));
  EXPECT_EQ(text, "negative");
  ASSERT_TRUE(texts.GetText(7, text));
  EXPECT_EQ(text, "first");
  ASSERT_TRUE(texts.GetText(8, text));
  EXPECT_EQ(text, std::string("with\0zero", 9));
  ASSERT_TRUE(texts.GetText(10, text));
  EXPECT_EQ(text, "");
  ASSERT_TRUE(texts.GetText(2147483647, text));
  EXPECT_EQ(text, "most");
  ASSERT_TRUE(texts.GetText(11, text));
  EXPECT_EQ(text, "last line without end");

  EXPECT_STREQ(KRErrorException("test.frm", 1, "x").what(), "one x");
}

TEST(ErrorTextFile, OversizedFilesAndDirectoriesAreNotRead) {
  cScopedHome const home;
  home.fWrite("big.frm", "1\tbig\n" + std::string((4u << 20), '#'));
  EXPECT_FALSE(KRErrorsDictionary("big.frm").IsLoaded());
  home.fWrite("edge.frm", "1\tedge\n" + std::string((4u << 20) - 7, '#'));
  EXPECT_TRUE(KRErrorsDictionary("edge.frm").IsLoaded());  // exactly 4 MiB
  fs::create_directory(home.fDat() / "dir.frm");
  EXPECT_FALSE(KRErrorsDictionary("dir.frm").IsLoaded());
  home.fWrite("empty.frm", "");
  KRErrorsDictionary const empty("empty.frm");
  RWCString text;
  EXPECT_TRUE(empty.IsLoaded());
  EXPECT_FALSE(empty.GetText(0, text));
}

TEST(ErrorTextFile, DictionaryCopiesShareTheTextsRead) {
  cScopedHome const home;
  home.fWrite("shared.frm", "5\tfive\n");
  auto* first = new KRErrorsDictionary("shared.frm");
  KRErrorsDictionary copy(*first);
  KRErrorsDictionary assigned;
  EXPECT_FALSE(assigned.IsLoaded());
  assigned = *first;
  delete first;
  home.fWrite("shared.frm", "5\tchanged\n");  // read once, at construction
  RWCString text;
  ASSERT_TRUE(copy.GetText(5, text));
  EXPECT_EQ(text, "five");
  ASSERT_TRUE(assigned.GetText(5, text));
  EXPECT_EQ(text, "five");
  assigned = KRErrorsDictionary("shared.frm");
  ASSERT_TRUE(assigned.GetText(5, text));
  EXPECT_EQ(text, "changed");
  assigned = KRErrorsDictionary();
  EXPECT_FALSE(assigned.GetText(5, text));
}

TEST(ErrorTextFile, FormattingFillsPlaceholdersInOrderAndLosesNoParameter) {
  std::string_view const two[] = {"A", "B"};
  EXPECT_EQ(KRFormatErrorText("%s and %s", two, 2), "A and B");
  EXPECT_EQ(KRFormatErrorText("100%% %s", two, 1), "100% A");
  EXPECT_EQ(KRFormatErrorText("%s, %s, %s!", two, 2), "A, B, !");
  EXPECT_EQ(KRFormatErrorText("only %s", two, 2), "only A (\"B\")");
  EXPECT_EQ(KRFormatErrorText("none", two, 2), "none (\"A\", \"B\")");
  EXPECT_EQ(KRFormatErrorText("trailing %", two, 0), "trailing %");
  EXPECT_EQ(KRFormatErrorText("%d stays", two, 0), "%d stays");
  // A parameter's own "%s" is not expanded again.
  std::string_view const tricky[] = {"%s", "x"};
  EXPECT_EQ(KRFormatErrorText("%s-%s", tricky, 2), "%s-x");
}

TEST(CKRErrorInfo, IdAndMessageExcludeEachOtherAndCopiesCarryAllFields) {
  CKRErrorInfo info("disk");
  EXPECT_EQ(info.GetName(), "disk");
  EXPECT_EQ(info.GetErrorId(), 0);
  EXPECT_EQ(info.GetErrorMsg(), "");
  EXPECT_EQ(info.GetErrorSeverity(), tKRLogMessageSeverity__compiler::eNone);
  info.SetErrorId(42);
  info.SetErrorMsg("literal");
  EXPECT_EQ(info.GetErrorId(), 0);
  EXPECT_EQ(info.GetErrorMsg(), "literal");
  info.SetErrorId(43);
  EXPECT_EQ(info.GetErrorMsg(), "");
  info.SetErrorSeverity(tKRLogMessageSeverity__compiler::eError);

  CKRErrorInfo const copy(info);
  CKRErrorInfo assigned("other");
  assigned.SetErrorMsg("other text");
  assigned = info;
  for (CKRErrorInfo const* each : {&copy, static_cast<CKRErrorInfo const*>(&assigned)}) {
    EXPECT_EQ(each->GetName(), "disk");
    EXPECT_EQ(each->GetErrorId(), 43);
    EXPECT_EQ(each->GetErrorMsg(), "");
    EXPECT_EQ(each->GetErrorSeverity(), tKRLogMessageSeverity__compiler::eError);
  }
  EXPECT_EQ(CKRErrorInfo().GetName(), "");
  KRLogMessage const message;
  KRLogMessage copied(message);
  copied = message;
}

}  // namespace
