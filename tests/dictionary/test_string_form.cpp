#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "AssociativeArray.h"
#include "AssociativeArrayExceptions.h"
#include "LogCapture.h"

namespace {

TEST(StringForm, WorkedExamples) {
  CAssociativeArray inner;
  inner.AddCouple("k", "v");
  std::string const nested = inner.ToString(false, false);
  struct tCase {
    char const *key, *value;  // no couple without a key
    bool omitBody, omitProxyPost;
    char const* form;
  };
  tCase const cases[] = {
      {nullptr, nullptr, true, true, " "},
      {"a", "1", false, false, "1 '1 a '1 1 "},
      {"a", "", false, false, "1 '1 a '0  "},
      {"outer", nested.c_str(), false, false, "1 '5 outer '12 1 '1 k '1 v  "},
      {"$RESPONSEBODY", "abcdef", false, false, "1 '13 $RESPONSEBODY '6 abcdef "},
      {"$RESPONSEBODY", "abcdef", true, false, "1 '13 $RESPONSEBODY '0  "},
      {"$PROXYPOSTDATA", "abcdef", true, false, "1 '14 $PROXYPOSTDATA '6 abcdef "},
      {"$PROXYPOSTDATA", "abcdef", true, true, "1 '14 $PROXYPOSTDATA '0  "},
      {"$PROXYPOSTDATA", "abcdef", false, true, "1 '14 $PROXYPOSTDATA '6 abcdef "},
  };
  for (tCase const& c : cases) {
    CAssociativeArray array;
    if (c.key) array.AddCouple(c.key, c.value);
    char const* text = nullptr;
    int length = 0;
    array.ToString(text, length, c.omitBody, c.omitProxyPost);
    EXPECT_EQ(std::string(text, std::size_t(length)), c.form);
    EXPECT_EQ(array.ToStringRef(c.omitBody, c.omitProxyPost), c.form);
    EXPECT_STREQ(c.key ? array[c.key] : nullptr, c.value);  // only the text lacks it
  }
}

// Every failed read raises with the whole input, keeps what it read before,
// and logs in both rings.
TEST(StringForm, ReaderEdgeCasesAndHostileForms) {
  corvanth::test::cLogCapture capture("Error");
  struct tCase {
    char const* text;
    bool raises;
    char const* form;  // what the array holds afterwards
  };
  char const* const a1 = "1 '1 a '1 1 ";
  tCase const cases[] = {
      {" ", true, " "}, {"", true, " "}, {"0 ", false, " "}, {"-3 ", false, " "}, {"00 ", true, " "}, {"+0 ", true, " "},
      {"2 '1 a '1 1 ", true, a1},  // no rollback
      {"1 '1 a '1 1 trailing junk", false, a1},
      {"1 '1 bX'1 cY", false, "1 '1 b '1 c "},  // the byte after a token is never looked at
      {"1 '1 d '1 e", false, "1 '1 d '1 e "},   // no end mark
      {"2 '1 a '1 1 '1 b '1 2", false, "2 '1 b '1 2 '1 a '1 1 "},
      {"-00000000000000001 ", false, " "},  // 18 bytes pass the length check
      {"-000000000000000001 ", true, " "},  // 19 do not
      {"1 '00 a", true, " "},
      {"1 '007 abcdefg '3x xyz ", false, "1 '7 abcdefg '3 xyz "},
      {"3x '1 k '1 1 '1 l '1 2 '1 m '1 3 ", false, "3 '1 m '1 3 '1 k '1 1 '1 l '1 2 "},
      {"2 '1 a '1 1 '999 b '1 2 ", true, a1},  // a length past the end
      {"2 '1 a '1 1 '-1 b '1 2 ", true, a1},   // a negative length
      {"3 '1 a '1 1 '1 b '1 2", true, "2 '1 b '1 2 '1 a '1 1 "},
      {"1 '1 a '5 1", true, " "},  // a value longer than the rest
  };
  std::size_t failures = 0;
  for (tCase const& c : cases) {
    CAssociativeArray array;
    std::string what;
    try {
      array.FromString(c.text, int(std::strlen(c.text)));
    } catch (CIllegalAssoSyntaxException const& e) {
      what = e.what();
    }
    EXPECT_EQ(what.find("\"" + std::string(c.text) + "\"") != std::string::npos, c.raises)
        << "[" << c.text << "] gave [" << what << "]";
    EXPECT_STREQ(array.ToString(false, false), c.form) << c.text;
    failures += c.raises;
  }
  EXPECT_FALSE(capture.fWithText("\t2 '1 a '1 1 '999 b '1 2 ").empty());
  for (auto const& r : capture.fRecords()) EXPECT_EQ(r.source, "AssociativeArray");
  EXPECT_EQ(capture.fRecords().size(), 2u * failures);
}

// Every reader of a zero-terminated text, fed texts whose terminator is the
// last readable byte: the page behind is closed, so one byte too far faults.
TEST(StringForm, ReadersStayInsideATextThatEndsAtAPageBoundary) {
  std::size_t const page = std::size_t(sysconf(_SC_PAGESIZE));
  auto* const base = static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(base, MAP_FAILED);
  ASSERT_EQ(mprotect(base + page, page, PROT_NONE), 0);
  using tReader = void (*)(CAssociativeArray&, char const*, int);
  tReader const readers[] = {[](CAssociativeArray& a, char const* text, int size) { a.FromString(text, size); },
                             [](CAssociativeArray& a, char const* text, int size) { a.FromString(text, size / 2); },
                             [](CAssociativeArray& a, char const* text, int) { a.FromStringZTS(text); },
                             [](CAssociativeArray& a, char const* text, int) { a.FromStringX2_deprecate(text); }};
  std::pair<std::string, char const*> const cases[] = {
      {" ", nullptr}, {"", nullptr}, {"0", nullptr}, {"1 '1 a '1 1", "1 '1 a '1 1 "},
      {"2 '1 a '1 1 '1 b '1 2", "2 '1 b '1 2 '1 a '1 1 "}, {"1 '1 a '9 1", nullptr},
      {"3 '1 a '1 1 '1 b", nullptr}, {"1 '1 a '1", nullptr}, {"1 '", nullptr}};
  for (auto const& [text, form] : cases) {
    char* const at = base + page - text.size() - 1;
    std::memcpy(at, text.c_str(), text.size() + 1);
    for (tReader read : readers) {
      CAssociativeArray array;
      try {
        read(array, at, int(text.size()));
        EXPECT_STREQ(form, array.ToString(false, false)) << "[" << text << "]";
      } catch (CIllegalAssoSyntaxException const&) {
        EXPECT_EQ(form, nullptr) << "[" << text << "]";
      }
    }
  }
  munmap(base, 2 * page);
  // The sized forms carry a value's zero bytes by their length.
  CAssociativeArray array;
  array.FromStringZ1(std::string("1 '1 z '3 a\0b ", 14));
  array.FromStringRef(RWCString(std::string("1 '1 y '3 a\0b ", 14)));
  EXPECT_EQ(*array.GetStringValueOfParameter("z"), std::string("a\0b", 3));
  EXPECT_EQ(*array.GetStringValueOfParameter("y"), std::string("a\0b", 3));
  array.FromStringZTS("2 '1 z '3 new '1 z '5 newer ");  // the other keys stay, the later couple wins
  EXPECT_STREQ(array["z"], "newer");
  EXPECT_TRUE(array.KeyExists("y"));
}

}  // namespace
