#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "../sockets/ChildProcess.h"
#include "Uzend.h"

namespace {

std::u16string gToWide(unsigned codePage, std::string const& bytes) {
  int const units = UL_MultiByteToWideChar(codePage, 0, bytes.data(), int(bytes.size()), nullptr, 0, 0, 0);
  std::u16string wide(std::size_t(units), u'\0');
  EXPECT_EQ(UL_MultiByteToWideChar(codePage, 0, bytes.data(), int(bytes.size()), wide.data(), units, 0, 0), units);
  return wide;
}

std::string gFromWide(unsigned codePage, std::u16string const& wide) {
  int const size = UL_WideCharToMultiByte(codePage, 0, wide.data(), int(wide.size()), nullptr, 0, 0, 0);
  std::string bytes(std::size_t(size), '\0');
  EXPECT_EQ(UL_WideCharToMultiByte(codePage, 0, wide.data(), int(wide.size()), bytes.data(), size, 0, 0), size);
  return bytes;
}

std::string gBytes(std::u16string const& wide) { return std::string(reinterpret_cast<char const*>(wide.data()), wide.size() * 2); }

// What the iconv program makes of `input`, or nothing when it refuses it.
std::optional<std::string> gIconv(std::string const& from, std::string const& to, std::string const& input) {
  std::string const path = testing::TempDir() + "uzend_input_" + std::to_string(::getpid());
  std::ofstream(path, std::ios::binary) << input;
  auto [status, output] = corvanth::test::cChildProcess({"iconv", "-f", from, "-t", to, path}).fFinish(std::chrono::seconds(20));
  ::unlink(path.c_str());
  return status == 0 ? std::optional(output) : std::nullopt;
}

TEST(Uzend, CountsTerminatorsSizesAndRefusesWhatWin32Refuses) {
  char16_t wide[4] = {u'#', u'#', u'#', u'#'};
  EXPECT_EQ(UL_MultiByteToWideChar(1252, 0, "ab", -1, wide, 0, 0, 0), 3);
  EXPECT_EQ(wide[0], u'#');  // a size query writes nothing
  EXPECT_EQ(UL_MultiByteToWideChar(1252, 0, "ab", -1, wide, 2, 0, 0), 0);
  EXPECT_EQ(wide[2], u'#');  // nothing beyond the target's size
  EXPECT_EQ(UL_MultiByteToWideChar(1252, 0, "ab", -1, wide, 3, 0, 0), 3);
  EXPECT_EQ(std::u16string(wide, 4), std::u16string(u"ab\0#", 4));
  EXPECT_EQ(UL_MultiByteToWideChar(1200, 0, "a\0b\0\0\0", -1, nullptr, 0, 0, 0), 3);
  char bytes[4] = {};
  EXPECT_EQ(UL_WideCharToMultiByte(65001, 0, u"\u00e9", -1, bytes, 4, 0, 0), 3);
  EXPECT_EQ(std::string(bytes, 3), std::string("\xC3\xA9\0", 3));

  // Refused: an unknown code page, a length of 0 or below -1, a null source or target, a negative size.
  struct { unsigned codePage; bool source; int length; bool target; int size; } const refused[] = {
      {0, 1, 1, 1, 4}, {28602, 1, 1, 1, 4}, {12345, 1, 1, 1, 4}, {1252, 1, 0, 1, 4},
      {1252, 1, -2, 1, 4}, {1252, 0, 1, 1, 4}, {1252, 1, 1, 0, 4}, {1252, 1, 1, 1, -1}};
  for (auto const& r : refused) {
    EXPECT_EQ(UL_MultiByteToWideChar(r.codePage, 0, r.source ? "a" : nullptr, r.length, r.target ? wide : nullptr, r.size, 0, 0), 0);
    EXPECT_EQ(UL_WideCharToMultiByte(r.codePage, 0, r.source ? u"a" : nullptr, r.length, r.target ? bytes : nullptr, r.size, 0, 0), 0);
  }

  // UTF-8: one U+FFFD per maximal ill-formed part; a character cut at the end is one too.
  EXPECT_EQ(gToWide(65001, "a\xE2\x82z\xED\xA0\x80\xF0\x9F"), u"a\uFFFDz\uFFFD\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(gToWide(54936, "a\x81\x30"), u"a\uFFFD");
  // 1258 holds a letter back for a combining mark that never comes.
  EXPECT_EQ(gToWide(1258, "ab"), u"ab");
  EXPECT_EQ(gToWide(1258, "a\x81z"), u"a\uFFFDz");
  // A supplementary character the target cannot hold is one replacement; a lone surrogate too.
  EXPECT_EQ(gFromWide(1252, u"a\U0001F600\xD800z"), "a??z");
  EXPECT_EQ(gFromWide(65001, u"\xDC00"), "\xEF\xBF\xBD");
  int used = -1;
  EXPECT_EQ(UL_WideCharToMultiByte(1252, 0, u"a\u0416", 2, bytes, 4, "*", &used), 2);
  EXPECT_EQ(std::string(bytes, 2) + char('0' + used), "a*1");
  EXPECT_EQ(UL_WideCharToMultiByte(1252, 0, u"ab", 2, bytes, 4, "*", &used), 2);
  EXPECT_EQ(used, 0);
  EXPECT_EQ(UL_WideCharToMultiByte(65001, 0, u"ab", 2, bytes, 4, nullptr, &used), 0);
}

// Arbitrary bytes and 16-bit units in every code page, with results longer
// than the block a size query counts in: the size asked is what an exact
// target takes, and a target one unit short takes nothing.
TEST(Uzend, EveryCodePageTakesAnyInputWithinItsBuffers) {
  std::string bytes;
  std::u16string units;
  for (unsigned i = 0, x = 1; i < 1024; ++i) {
    x = x * 1103515245 + 12345;
    bytes += char(x >> 16);
    units += char16_t(x >> 8);
  }
  auto const check = [](auto unit, auto const& convert) {
    int const needed = convert(static_cast<decltype(unit)*>(nullptr), 0);
    ASSERT_GT(needed, 1);
    std::vector<decltype(unit)> exact(static_cast<std::size_t>(needed)), shorter(exact.size() - 1);
    EXPECT_EQ(convert(exact.data(), needed), needed);
    EXPECT_EQ(convert(shorter.data(), needed - 1), 0);
  };
  for (unsigned codePage :
       {437,   850,   866,   874,   932,   936,   949,   950,   1200,  1201,  1250,
        1251,  1252,  1253,  1254,  1255,  1256,  1257,  1258,  1361,  10000, 20127,
        20866, 21866, 28591, 28592, 28593, 28594, 28595, 28596, 28597, 28598, 28599,
        28600, 28601, 28603, 28604, 28605, 51932, 51949, 54936, 65001}) {
    SCOPED_TRACE(codePage);
    check(char16_t{}, [&](char16_t* target, int size) {
      return UL_MultiByteToWideChar(codePage, 0, bytes.data(), int(bytes.size()), target, size, 0,
                                    0);
    });
    check(char{}, [&](char* target, int size) {
      return UL_WideCharToMultiByte(codePage, 0, units.data(), int(units.size()), target, size, 0,
                                    0);
    });
  }
}

struct cSample {
  unsigned codePage;
  char const* name;        // the iconv program's name for it
  std::string text;        // valid in the code page
  std::string invalid;     // a byte no character of the code page begins with
  std::u16string foreign;  // what the code page cannot hold
};

TEST(Uzend, AgreesWithTheIconvProgramBothWaysInvalidAndUnmappableIncluded) {
  std::vector<cSample> const samples = {
      {1252, "CP1252", "caf\xE9 \x80 na\xEFve", "\x81", u"\U0001F600"},
      {1251, "CP1251", "\xCF\xF0\xE8\xE2\xE5\xF2, \xEC\xE8\xF0", "\x98", u"\U0001F600"},
      {932, "CP932", "\x93\xFA\x96\x7B\x8C\xEA \xB1\xB2 abc", "\xFF", u"\U0001F600"},
      {936, "CP936", "\xD6\xD0\xCE\xC4 \x80 abc", "\xFF", u"\U0001F600"},
      {949, "CP949", "\xC7\xD1\xB1\xB9\xEE\xB4 abc", "\xFF", u"\U0001F600"},
      {65001, "UTF-8", "h\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xE4\xB8\xAD", "\xFF", u"\xD800"},
  };
  for (cSample const& sample : samples) {
    SCOPED_TRACE(sample.name);
    std::optional<std::string> const wide = gIconv(sample.name, "UTF-16LE", sample.text);
    ASSERT_TRUE(wide.has_value());
    std::u16string const ours = gToWide(sample.codePage, sample.text);
    EXPECT_EQ(gBytes(ours), *wide);
    std::optional<std::string> const back = gIconv("UTF-16LE", sample.name, *wide);
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(gFromWide(sample.codePage, ours), *back);

    std::string const broken = sample.text + sample.invalid + sample.text;
    EXPECT_FALSE(gIconv(sample.name, "UTF-16LE", broken).has_value());
    EXPECT_EQ(gToWide(sample.codePage, broken), ours + u'\uFFFD' + ours);

    std::u16string const foreign = ours + sample.foreign + ours;
    EXPECT_FALSE(gIconv("UTF-16LE", sample.name, gBytes(foreign)).has_value());
    std::string const replacement = sample.codePage == 65001 ? "\xEF\xBF\xBD" : "?";
    EXPECT_EQ(gFromWide(sample.codePage, foreign), *back + replacement + *back);
  }
}

// Threads that end hand their descriptors on to the next ones; each must get results as if alone.
TEST(Uzend, ConvertsOnManyThreadsAtOnce) {
  std::string text;
  for (int i = 0; i < 40; ++i) text += "\x93\xFA\x96\x7B\x8C\xEA abc \xFF";
  std::u16string const wide = gToWide(932, text);
  std::string const utf8 = gFromWide(65001, wide);
  std::vector<int> wrong(8, 0);
  for (int round = 0; round < 2; ++round) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < 200; ++i) {
          std::u16string const again = gToWide(932, text);
          if (again != wide || gFromWide(65001, again) != utf8 || gToWide(65001, utf8) != wide)
            ++wrong[t];
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_EQ(wrong, std::vector<int>(8, 0));
}

}  // namespace
