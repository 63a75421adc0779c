#include <gtest/gtest.h>

#include "ContainerHelpers.h"
#include "rwhashdict.h"

namespace {

using namespace corvanth::test;

// Pairs text -> "value of text", owned by the test, inserted in order.
struct tPairs {
  std::vector<std::unique_ptr<RWCollectableString>> keys, values;
  tPairs(RWHashDictionary& dictionary, std::vector<std::string> const& texts) {
    for (std::string const& text : texts) {
      keys.push_back(std::make_unique<RWCollectableString>(text));
      values.push_back(std::make_unique<RWCollectableString>("value of " + text));
      dictionary.insertKeyAndValue(keys.back().get(), values.back().get());
    }
  }
};

TEST(HashDictionary, DestroyingOperationsDestroyEveryObjectOnce) {
  cCounted::sDestroyed = 0;
  RWHashDictionary dictionary;
  auto* both = new cCounted("both");  // key and value at once
  dictionary.insertKeyAndValue(both, both);
  auto* sharedValue = new cCounted("shared");
  dictionary.insertKeyAndValue(new cCounted("k1"), sharedValue);
  dictionary.insertKeyAndValue(new cCounted("k2"), sharedValue);
  dictionary.insertKeyAndValue(new cCounted("k3"), nullptr);
  dictionary.clearAndDestroy();
  EXPECT_EQ(cCounted::sDestroyed, 5);

  cCounted::sDestroyed = 0;
  auto* self = new cCounted("self");
  dictionary.insertKeyAndValue(self, self);
  dictionary.insertKeyAndValue(new cCounted("k"), new cCounted("v"));
  RWCollectableString absent("absent"), selfProbe("self"), probe("k");
  dictionary.removeAndDestroy(&absent);
  EXPECT_EQ(cCounted::sDestroyed, 0);
  dictionary.removeAndDestroy(&selfProbe);
  EXPECT_EQ(cCounted::sDestroyed, 1);  // one object as key and value goes once
  dictionary.removeAndDestroy(&probe);
  EXPECT_EQ(cCounted::sDestroyed, 3);
}

TEST(HashDictionary, KeepsTheFirstOfEqualKeysAndTextLookupAnswersAsAnObjectProbe) {
  RWHashDictionary dictionary(7);
  tPairs const pairs(
      dictionary, {"alpha", "beta", "a longer key than fifteen bytes", "", std::string("x\0y", 3)});
  RWCollectableInt number(static_cast<int>(RWCString::hash("beta", 4)));
  dictionary.insertKeyAndValue(&number, &number);  // same bucket as "beta", never equal
  RWCollectableString secondKey("alpha"), secondValue("second"), absent("x");
  EXPECT_EQ(dictionary.insertKeyAndValue(&secondKey, &secondValue), nullptr);
  EXPECT_EQ(dictionary.insert(&secondKey), pairs.keys[0].get());
  for (std::size_t i = 0; i < pairs.keys.size(); ++i) {
    std::string_view const text = *pairs.keys[i];
    RWCollectableString const probe(text);
    EXPECT_EQ(dictionary.findValue(text), dictionary.findValue(&probe)) << text;
    EXPECT_EQ(dictionary.findValue(text), pairs.values[i].get()) << text;
    EXPECT_EQ(dictionary.findKey(text), pairs.keys[i].get()) << text;
  }
  EXPECT_EQ(dictionary.findValue(std::string_view("x")), nullptr);
  // findValue with a new value swaps it in and gives the old one.
  EXPECT_EQ(dictionary.findValue(&secondKey, &secondValue), pairs.values[0].get());
  EXPECT_EQ(dictionary.findValue(std::string_view("alpha")), &secondValue);
  EXPECT_EQ(dictionary.findValue(&absent, &secondValue), nullptr);
  EXPECT_EQ(dictionary.entries(), 6u);

  // A key of another string class is never found by a plain string or text.
  cOtherId other("k");
  RWCollectableString plainKey("k"), probe("k");
  RWHashDictionary others;
  others.insertKeyAndValue(&other, &other);
  EXPECT_EQ(others.findValue(&probe), nullptr);
  EXPECT_EQ(RWHashDictionary(others).findValue(std::string_view("k")), nullptr);
  // The stored key is asked on insertion, and as a string class it takes the plain key for equal.
  EXPECT_EQ(others.insertKeyAndValue(&plainKey, &plainKey), nullptr);
}

// Far more pairs than buckets: lookups and insertions answer as a walk of the
// chains would, also after removals, iterator removals, resizing and copying.
TEST(HashDictionary, LongChainsAnswerAsTheWalkDoes) {
  RWHashDictionary dictionary(3);
  std::vector<std::string> texts;
  for (int i = 0; i < 300; ++i) texts.push_back("key" + std::to_string(i));
  tPairs const pairs(dictionary, texts);
  RWCollectableString again("key7");
  EXPECT_EQ(dictionary.insertKeyAndValue(&again, &again), nullptr);
  RWHashDictionaryIterator next(dictionary);
  next();
  RWCollectable* const walked = next.remove();
  delete dictionary.removeAssociation(pairs.keys[10].get());
  auto const answersAsAWalk = [&](RWHashDictionary const& each) {
    for (std::size_t i = 0; i < texts.size(); ++i) {
      bool const gone = pairs.keys[i].get() == walked || i == 10;
      EXPECT_EQ(each.findValue(std::string_view(texts[i])), gone ? nullptr : pairs.values[i].get());
    }
    EXPECT_EQ(each.findKey(&again), pairs.keys[7].get());
    EXPECT_EQ(each.entries(), 298u);
  };
  answersAsAWalk(dictionary);
  RWHashDictionary copy(dictionary);
  answersAsAWalk(copy);
  dictionary.resize(7);
  answersAsAWalk(dictionary);
  EXPECT_EQ(dictionary.insertKeyAndValue(pairs.keys[10].get(), pairs.values[10].get()), pairs.keys[10].get());
  EXPECT_EQ(dictionary.findValue(std::string_view("key10")), pairs.values[10].get());
}

}  // namespace
