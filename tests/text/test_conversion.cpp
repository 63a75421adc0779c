#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <latch>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "AssociativeArray.h"
#include "AssociativeArrayExceptions.h"
#include "LogCapture.h"

namespace {

using tArray = CAssociativeArray;

// The conversion mode is read once per process: each setting is tried in a
// child process whose product home holds a kestrun.ini with the given text.
// body gets the file's path and gives the text that the parent checks.
std::string gInChild(std::string const& ini, std::function<std::string(std::string const&)> const& body) {
  std::string const home = testing::TempDir() + "conversion-" + std::to_string(getpid());
  std::filesystem::create_directories(home + "/config");
  std::ofstream(home + "/config/kestrun.ini") << ini;
  pid_t const pid = fork();
  if (pid == 0) {
    setenv("KESTRUN_HOME", home.c_str(), 1);
    std::ofstream(home + "/result", std::ios::binary) << body(home + "/config/kestrun.ini");
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  std::stringstream result;
  result << std::ifstream(home + "/result", std::ios::binary).rdbuf();
  std::filesystem::remove_all(home);
  return result.str();
}

std::string gZ38(char const* text) {
  RWCString out = "untouched";
  return tArray::ConvertZ38(1252, 65001, text, out) ? std::string(out) : "false:" + out;
}
std::string gMode(int mode, std::string const& text, unsigned from = 1252, unsigned to = 65001) {
  RWCString out = "untouched";
  bool const ok = tArray::gConvertX1(mode, from, to, text.c_str(), int(text.size()), out);
  return ok ? std::string(out) : "false:" + out;
}

std::string const kSyntax = CIllegalAssoSyntaxException("Error").what();

template <std::size_t N>
std::string gBytes(char const (&text)[N]) {
  return std::string(text, N - 1);
}

TEST(Conversion, TheSettingDecidesConvertX0AndFromStringConvert) {
  // What ConvertX0 makes of "0 apples" and of bytes with a zero among them,
  // and FromStringConvert of a form nested in a value.
  auto body = [](std::string const&) {
    std::string result;
    for (std::string const& text : {std::string("0 apples"), gBytes("a\0\xe9")}) {
      RWCString out = "untouched";
      corvanth::test::cLogCapture errors("Error");
      bool const ok = tArray::ConvertX0(1252, 65001, text.data(), int(text.size()), out);
      result += ok ? out + "|" : "false " + std::to_string(errors.fRecords().size()) + " " + out + "|";
    }
    tArray inner, outer, array;
    inner.AddCouple("k", "caf\xe9");
    outer.AddCouple("n", inner.ToString(false, false));
    std::string const form = outer.ToStringRef(false, false);
    try {
      array.FromStringConvert(1252, 65001, form.c_str(), int(form.size()));
      tArray nested;
      nested.FromStringZTS(array["n"]);
      result += std::string(array["n"]) + "|" + nested["k"];
    } catch (CIllegalAssoSyntaxException const&) {
      result += "raised";
    }
    return result;
  };
  std::string const copied = gBytes("0 apples|a\0\xe9|1 '1 k '4 caf\xe9 |caf\xe9");
  std::string const converted = "|1 '1 k '5 caf\xc3\xa9 |caf\xc3\xa9";
  EXPECT_EQ(gInChild("[Corvanth]\nCorvanthAnsiConversion_patch = 0\n", body), copied);
  EXPECT_EQ(gInChild("CorvanthAnsiConversion_patch = many\n", body), copied);
  EXPECT_EQ(gInChild("[Other]\nCORVANTH_SERVICE_VERSION_NAME = 85\n", body), copied);
  EXPECT_EQ(gInChild("CorvanthAnsiConversion_patch = 1\n", body), "0 |a" + converted);
  EXPECT_EQ(gInChild("CorvanthAnsiConversion_patch = 2\n", body), "0 apples|a" + converted);
  EXPECT_EQ(gInChild("CorvanthAnsiConversion_patch = 3\n", body), "false 1 untouched|false 1 untouched|raised");
}

TEST(Conversion, TheModeIsReadOnceAndRacingFirstCallersSeeOneValue) {
  std::string const seen = gInChild("CorvanthAnsiConversion_patch = 1\n", [](std::string const& path) {
    std::latch start(8);
    std::vector<int> modes(8, -1);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&, i] {
        start.arrive_and_wait();
        modes[std::size_t(i)] = tArray::gAnsiConversionMode();
      });
    }
    for (auto& t : threads) t.join();
    std::ofstream(path) << "CorvanthAnsiConversion_patch = 2\n";
    RWCString out;
    tArray::ConvertX0(1252, 65001, "0 apples", 8, out);
    std::string result;
    for (int mode : modes) result += std::to_string(mode);
    return result + "|" + std::to_string(tArray::gAnsiConversionMode()) + "|" + out;
  });
  EXPECT_EQ(seen, "11111111|1|0 ");
}

TEST(Conversion, RewritersConvertEveryLeafAndRecomputeLengthsAtAnyDepth) {
  tArray inner, outer;
  inner.AddCouple("k", "caf\xe9");
  outer.AddCouple("n", inner.ToString(false, false));
  outer.AddCouple("e", "");
  std::string const form = outer.ToStringRef(false, false);
  for (int mode : {1, 2}) {
    tArray back, nested;
    back.FromStringZ1(gMode(mode, form));
    nested.FromStringZTS(back["n"]);
    EXPECT_STREQ(nested["k"], "caf\xc3\xa9");
    EXPECT_EQ(gMode(mode, gMode(mode, form), 65001, 1252), form);
    // The format has no marker: a value that reads as a form is one.
    EXPECT_EQ(gMode(mode, "1 '1 k '1 \xe9 "), "1 '1 k '2 \xc3\xa9 ");
    EXPECT_EQ(gMode(mode, "caf\xe9"), "caf\xc3\xa9");
    EXPECT_EQ(gMode(mode, ""), "");
  }
  // The first variant keeps its defect: a count of 0 or below reads as a form.
  EXPECT_EQ(gMode(1, "0 apples"), "0 ");
  EXPECT_EQ(gMode(1, "-3 x"), "-3 ");
  EXPECT_EQ(gZ38("0 apples"), "0 apples");
  EXPECT_EQ(gZ38("-3 \xe9"), "-3 \xc3\xa9");
  // A leaf ends at its first zero byte, and so does all the first variant sees.
  EXPECT_EQ(gMode(2, gBytes("1 '3 k\0y '3 a\0b ")), gBytes("1 '3 k\0y '1 a "));
  EXPECT_EQ(gMode(1, gBytes("1 '3 k\0y '3 a\0b ")), "1 '3 k");
  EXPECT_EQ(gZ38(nullptr), "false:");
  corvanth::test::cLogCapture errors("Error");
  EXPECT_EQ(gMode(3, "a"), "false:untouched");
  EXPECT_EQ(errors.fRecords().size(), 1u);
}

// Each text sits in a block of its exact size: a rewriter that looks past it
// is caught under AddressSanitizer. None of these reads as a form, so each is
// one leaf and, being ASCII, comes back as it went in.
TEST(Conversion, HostileFormsBecomeLeavesAndTheTraceNamesTheRefusedPart) {
  char const* const texts[] = {"1 '5 ab", "2 '1 a '1 1 ", "1 '1 a '-1 ", "1 '1 k '10 1 '1 a '9", "1 k", "1",
                               "99999999999999999999 ", "2 '1 k '12 1 '1 a '1 b  '"};
  for (char const* text : texts) {
    std::vector<char> const block(text, text + std::strlen(text) + 1);
    for (int mode : {1, 2}) {
      RWCString out;
      EXPECT_TRUE(tArray::gConvertX1(mode, 1252, 65001, block.data(), int(block.size() - 1), out));
      EXPECT_EQ(out, text) << mode;
    }
  }
  // The trace carries the syntax exception's text, which names the refused part.
  corvanth::test::cLogCapture traces("Trace");
  gMode(1, "1 k");
  gMode(2, "x");
  auto const records = traces.fRecords();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].text, CIllegalAssoSyntaxException("k").what());
  EXPECT_EQ(records[1].text, "gConvertX1Internal_patch\t" + kSyntax + "\t");
}

TEST(Conversion, ToolConvertsStandardInput) {
  std::string const dir = testing::TempDir() + "convert-" + std::to_string(getpid()), home = dir + "/home";
  std::filesystem::create_directories(home + "/config");
  std::ofstream(home + "/config/kestrun.ini") << "CorvanthAnsiConversion_patch = 1\n";
  struct {
    char const* arguments;
    std::string input, output;  // the exit status, a blank, standard output
  } const cases[] = {
      {"--from 1252 --to 65001 --mode 2", "2 '1 a '4 \xe0 la '1 b '1 \xe9 ", "0 2 '1 a '5 \xc3\xa0 la '1 b '2 \xc3\xa9 "},
      {"--from 1252 --to 65001 --mode 0", gBytes("a\0\xe9"), gBytes("0 a\0\xe9")},
      {"--from 65001 --to 1252", "0 apples", "0 0 "},  // without --mode, the setting
      {"--from 1252", "x", "2 "}, {"--from 1252 --to 4", "x", "2 "}, {"--from 1252 --to 65001 --mode 3", "x", "2 "},
  };
  for (auto const& c : cases) {
    std::ofstream(dir + "/in", std::ios::binary) << c.input;
    int const status = std::system(("KESTRUN_HOME=" + home + " " CORVANTH_TOOL " convert " + c.arguments + " <" + dir +
                                    "/in >" + dir + "/out 2>/dev/null").c_str());
    std::stringstream output;
    output << std::ifstream(dir + "/out", std::ios::binary).rdbuf();
    EXPECT_EQ(std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + " " + output.str(), c.output) << c.arguments;
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
