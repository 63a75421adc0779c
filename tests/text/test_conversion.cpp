#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <latch>
#include <memory>
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
  int pipeEnds[2];
  if (pipe(pipeEnds) != 0) return "no pipe";
  pid_t const pid = fork();
  if (pid == 0) {
    close(pipeEnds[0]);
    char home[] = "/tmp/corvanth-conversion-XXXXXX";
    std::string result = "no home";
    if (mkdtemp(home) != nullptr) {
      std::filesystem::create_directory(std::string(home) + "/config");
      std::string const path = std::string(home) + "/config/kestrun.ini";
      std::ofstream(path) << ini;
      setenv("KESTRUN_HOME", home, 1);
      result = body(path);
      std::filesystem::remove_all(home);
    }
    for (std::size_t done = 0; done < result.size();) {
      ssize_t const put = write(pipeEnds[1], result.data() + done, result.size() - done);
      if (put <= 0) break;
      done += std::size_t(put);
    }
    _exit(0);
  }
  close(pipeEnds[1]);
  std::string got;
  char buffer[4096];
  for (ssize_t n; (n = read(pipeEnds[0], buffer, sizeof buffer)) > 0;) got.append(buffer, std::size_t(n));
  close(pipeEnds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  return got;
}

std::string gZ38(char const* text, unsigned from = 1252, unsigned to = 65001) {
  RWCString out = "untouched";
  return tArray::ConvertZ38(from, to, text, out) ? std::string(out) : "false:" + out;
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
    corvanth::test::cLogCapture errors("Error");
    std::string result;
    for (std::string const& text : {std::string("0 apples"), gBytes("a\0\xe9")}) {
      RWCString out = "untouched";
      errors.fClear();
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
    EXPECT_STREQ(back["e"], "");
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
    std::size_t const size = std::strlen(text) + 1;
    std::unique_ptr<char[]> const block(new char[size]);
    std::memcpy(block.get(), text, size);
    for (int mode : {1, 2}) {
      RWCString out;
      EXPECT_TRUE(tArray::gConvertX1(mode, 1252, 65001, block.get(), int(size - 1), out));
      EXPECT_EQ(out, text) << mode;
    }
  }
  corvanth::test::cLogCapture traces("Trace");
  // The trace carries the syntax exception's text, which names the refused part.
  traces.fClear();
  gMode(1, "1 k");
  gMode(2, "x");
  auto const records = traces.fRecords();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].text, CIllegalAssoSyntaxException("k").what());
  EXPECT_EQ(records[1].text, "gConvertX1Internal_patch\t" + kSyntax + "\t");
}

TEST(Conversion, ToolConvertsStandardInput) {
  auto run = [](std::string const& arguments, std::string const& input, std::string& output,
                std::string const& environment = "") {
    std::string const in = testing::TempDir() + "convert-in", out = testing::TempDir() + "convert-out";
    std::ofstream(in, std::ios::binary) << input;
    int const status = std::system((environment + CORVANTH_TOOL + " convert " + arguments + " <" + in + " >" + out +
                                    " 2>/dev/null").c_str());
    std::stringstream text;
    text << std::ifstream(out, std::ios::binary).rdbuf();
    output = text.str();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  std::string output;
  EXPECT_EQ(run("--from 1252 --to 65001 --mode 2", "2 '1 a '4 \xe0 la '1 b '1 \xe9 ", output), 0);
  tArray array;
  array.FromStringZ1(output);
  EXPECT_STREQ(array["a"], "\xc3\xa0 la");
  EXPECT_STREQ(array["b"], "\xc3\xa9");
  EXPECT_EQ(run("--from 65001 --to 1252 --mode 1", "0 apples", output), 0);
  EXPECT_EQ(output, "0 ");
  EXPECT_EQ(run("--from 1252 --to 65001 --mode 0", std::string("a\0\xe9", 3), output), 0);
  EXPECT_EQ(output, std::string("a\0\xe9", 3));
  // Without --mode, the setting of the product home.
  std::string const home = testing::TempDir() + "convert-home";
  std::filesystem::create_directories(home + "/config");
  std::ofstream(home + "/config/kestrun.ini") << "CorvanthAnsiConversion_patch = 1\n";
  EXPECT_EQ(run("--from 1252 --to 65001", "0 apples", output, "KESTRUN_HOME=" + home + " "), 0);
  EXPECT_EQ(output, "0 ");
  EXPECT_EQ(run("--from 1252", "x", output), 2);
  EXPECT_EQ(run("--from 1252 --to 4", "x", output), 2);
  EXPECT_EQ(run("--from 1252 --to 65001 --mode 3", "x", output), 2);
}

}  // namespace
