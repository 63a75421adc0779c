#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "AssociativeArray.h"
#include "AssociativeArrayExceptions.h"
#include "LogCapture.h"
#include "rwcollstr.h"
#include "rwhashdict.h"

namespace {

std::string gForm(CAssociativeArray const& array, bool omitBody = false, bool omitProxyPost = false) {
  char const* text = nullptr;
  int length = 0;
  array.ToString(text, length, omitBody, omitProxyPost);
  return std::string(text, std::size_t(length));
}

// Every couple, read through the dictionary's own iterator.
std::map<std::string, std::string> gContents(CAssociativeArray& array) {
  std::map<std::string, std::string> out;
  RWHashDictionaryIterator it(array);
  while (RWCollectable* key = it()) {
    out[*static_cast<RWCollectableString*>(key)] = *static_cast<RWCollectableString*>(it.value());
  }
  return out;
}

// Reads text (of the given length) and gives the exception's message, or "".
std::string gReadFails(CAssociativeArray& array, std::string const& text) {
  try {
    array.FromString(text.c_str(), static_cast<int>(text.size()));
  } catch (CIllegalAssoSyntaxException const& e) {
    return e.what();
  }
  return "";
}

TEST(StringForm, WorkedExamples) {
  CAssociativeArray empty;
  EXPECT_EQ(gForm(empty), " ");

  CAssociativeArray one;
  one.AddCouple("a", "1");
  EXPECT_EQ(gForm(one), "1 '1 a '1 1 ");
  one.AddCouple("a", "");
  EXPECT_EQ(gForm(one), "1 '1 a '0  ");

  CAssociativeArray two;
  two.AddCouple("a", "1");
  two.AddCouple("bc", "xy");
  std::string form = gForm(two);
  EXPECT_TRUE(form == "2 '1 a '1 1 '2 bc '2 xy " || form == "2 '2 bc '2 xy '1 a '1 1 ") << form;

  CAssociativeArray inner, outer;
  inner.AddCouple("k", "v");
  outer.AddCouple("outer", inner.ToString(false, false));
  EXPECT_EQ(gForm(outer), "1 '5 outer '12 1 '1 k '1 v  ");

  CAssociativeArray body;
  body.AddCouple("$RESPONSEBODY", "abcdef");
  EXPECT_EQ(gForm(body), "1 '13 $RESPONSEBODY '6 abcdef ");
  EXPECT_EQ(gForm(body, true, false), "1 '13 $RESPONSEBODY '0  ");
  EXPECT_STREQ(body.GetValueOfParameter("$RESPONSEBODY"), "abcdef");  // only the text lacks it

  CAssociativeArray post;
  post.AddCouple("$PROXYPOSTDATA", "abcdef");
  EXPECT_EQ(gForm(post, true, false), "1 '14 $PROXYPOSTDATA '6 abcdef ");
  EXPECT_EQ(gForm(post, true, true), "1 '14 $PROXYPOSTDATA '0  ");
  EXPECT_EQ(gForm(post, false, true), "1 '14 $PROXYPOSTDATA '6 abcdef ");
  EXPECT_STREQ(post.ToString(true, true), "1 '14 $PROXYPOSTDATA '0  ");
  EXPECT_EQ(post.ToStringRef(false, false), "1 '14 $PROXYPOSTDATA '6 abcdef ");
}

TEST(StringForm, ReaderEdgeCases) {
  struct tCase {
    char const* text;
    bool raises;
    std::map<std::string, std::string> couples;  // what the array holds afterwards
  };
  tCase const cases[] = {
      {" ", true, {}}, {"", true, {}}, {"0 ", false, {}}, {"-3 ", false, {}}, {"00 ", true, {}}, {"+0 ", true, {}},
      {"2 '1 a '1 1 ", true, {{"a", "1"}}},  // no rollback
      {"1 '1 a '1 1 trailing junk", false, {{"a", "1"}}},
      {"1 '1 bX'1 cY", false, {{"b", "c"}}},  // the byte after a token is never looked at
      {"1 '1 d '1 e", false, {{"d", "e"}}},   // no end mark
      {"-00000000000000001 ", false, {}},     // 18 bytes pass the length check
      {"-000000000000000001 ", true, {}},     // 19 do not
      {"1 '00 a", true, {}},
      {"1 '007 abcdefg '3x xyz ", false, {{"abcdefg", "xyz"}}},
      {"3x '1 k '1 1 '1 l '1 2 '1 m '1 3 ", false, {{"k", "1"}, {"l", "2"}, {"m", "3"}}},
  };
  for (tCase const& c : cases) {
    CAssociativeArray array;
    EXPECT_EQ(gReadFails(array, c.text) != "", c.raises) << c.text;
    EXPECT_EQ(gContents(array), c.couples) << c.text;
  }
}

TEST(StringForm, HostileFormsRaiseWithTheWholeInputAndKeepEarlierCouples) {
  corvanth::test::cLogCapture capture("Error");
  std::string const cases[] = {
      "2 '1 a '1 1 '999 b '1 2 ",  // a length past the end
      "2 '1 a '1 1 '-1 b '1 2 ",   // a negative length
      "3 '1 a '1 1 '1 b '1 2",     // more couples than present, no end mark
      "1 '1 a '5 1",               // a value longer than the rest
  };
  for (std::string const& text : cases) {
    CAssociativeArray array;
    std::string what = gReadFails(array, text);
    EXPECT_NE(what.find(text), std::string::npos) << "[" << text << "] gave [" << what << "]";
    EXPECT_STREQ(array.GetValueOfParameter("a", "none"), text == "1 '1 a '5 1" ? "none" : "1");
  }
  // The last case of the list above does read: the skipped byte may lie past the end.
  CAssociativeArray last;
  EXPECT_EQ(gReadFails(last, "2 '1 a '1 1 '1 b '1 2"), "");
  // Both rings wrote their statement for each failed read.
  auto records = capture.fRecords();
  EXPECT_FALSE(capture.fWithText("\t2 '1 a '1 1 '999 b '1 2 ").empty());
  for (auto const& r : records) EXPECT_EQ(r.source, "AssociativeArray");
  EXPECT_EQ(records.size(), 2u * 4u);
}

TEST(StringForm, ReadersBoundTheInputByLengthAndTerminator) {
  CAssociativeArray array;
  std::string form("1 '1 z '3 axb ", 14);
  form[11] = '\0';
  array.FromStringZ1(form);  // zero byte inside a value: the length carries it
  EXPECT_EQ(array.GetStringValueOfParameter("z")->size(), 3u);
  array.FromStringZTS("1 '4 long '10 0123456789 ");
  array.FromStringX2_deprecate("1 '5 other '10 abcdefghij ");
  EXPECT_STREQ(array.GetValueOfParameter("other"), "abcdefghij");
  array.FromStringRef(RWCString(std::string("1 '1 r '1 s ")));
  EXPECT_STREQ(array["r"], "s");
  array.FromString("1 '1 t '1 u ", 3);  // a short length bounds nothing
  array.FromString("1 '1 k '1 v ", -5);
  EXPECT_STREQ(array["t"], "u");
  EXPECT_STREQ(array["k"], "v");
}

// Every reader of a zero-terminated text, fed texts whose terminator is the
// last readable byte: the page behind is closed, so one byte too far faults.
TEST(StringForm, ReadersStayInsideATextThatEndsAtAPageBoundary) {
  std::size_t const page = std::size_t(sysconf(_SC_PAGESIZE));
  auto* const base = static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(base, MAP_FAILED);
  ASSERT_EQ(mprotect(base + page, page, PROT_NONE), 0);
  using tReader = void (*)(CAssociativeArray&, char const*, int);
  tReader const readers[] = {
      [](CAssociativeArray& a, char const* text, int size) { a.FromString(text, size); },
      [](CAssociativeArray& a, char const* text, int size) { a.FromString(text, size / 2); },
      [](CAssociativeArray& a, char const* text, int) { a.FromStringZTS(text); },
      [](CAssociativeArray& a, char const* text, int) { a.FromStringX2_deprecate(text); },
  };
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
}

std::string gRandomBytes(std::mt19937& rng, std::size_t maxLength, bool allowZero) {
  static char const pieces[] = {' ', '\'', '0', '1', '9', 'a', 'Z', '\n', '\t', '%', '"', '\xE9', '\xFF'};
  std::uniform_int_distribution<std::size_t> lengthOf(0, maxLength);
  std::uniform_int_distribution<int> kind(0, 3);
  std::string out;
  std::size_t const length = lengthOf(rng);
  for (std::size_t i = 0; i < length; ++i) {
    int k = kind(rng);
    char c = k == 0 ? pieces[rng() % sizeof pieces] : static_cast<char>(rng() % 256);
    if (c == '\0' && !allowZero) c = 'x';
    out.push_back(c);
  }
  return out;
}

TEST(StringForm, RandomArraysSurviveTheRoundTrip) {
  std::mt19937 rng(20261121);
  for (int round = 0; round < 10000; ++round) {
    CAssociativeArray array(1 + int(rng() % 40));
    std::map<std::string, std::string> expected;
    int const couples = int(rng() % 8);
    for (int i = 0; i < couples; ++i) {
      std::string key = gRandomBytes(rng, 12, false);
      std::string value;
      if (rng() % 5 == 0) {
        CAssociativeArray nested;
        nested.AddCouple(gRandomBytes(rng, 6, false).c_str(), gRandomBytes(rng, 6, true).c_str());
        value = gForm(nested);
      } else {
        value = gRandomBytes(rng, 40, true);
      }
      array.AddCouple(key.c_str(), value.data(), static_cast<int>(value.size()));
      expected[key] = value;
    }
    CAssociativeArray back;
    std::string form = gForm(array);
    if (expected.empty()) {
      EXPECT_EQ(form, " ");
      continue;
    }
    back.FromStringZ1(form);
    ASSERT_EQ(gContents(back), expected) << "round " << round << " form [" << form << "]";
  }
}

TEST(StringForm, ReadingIntoAFilledArrayKeepsOtherKeysAndReplacesRepeated) {
  CAssociativeArray array;
  array.AddCouple("keep", "1");
  array.AddCouple("a", "old");
  array.FromStringZTS("2 '1 a '3 new '1 a '5 newer ");
  EXPECT_STREQ(array["keep"], "1");
  EXPECT_STREQ(array["a"], "newer");
}

}  // namespace
