#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "rwcollint.h"
#include "rwcollstr.h"
#include "rwhashdict.h"

namespace {

// Counts its destructions, so that a test sees each object destroyed exactly once.
struct cCounted : RWCollectableString {
  static inline int sDestroyed = 0;
  using RWCollectableString::RWCollectableString;
  ~cCounted() override { ++sDestroyed; }
};

std::string gText(RWCollectable const* object) {
  return *static_cast<RWCollectableString const*>(object);
}

std::vector<std::string> gKeys(RWHashDictionary& dictionary) {
  std::vector<std::string> keys;
  RWHashDictionaryIterator next(dictionary);
  while (RWCollectable* key = next()) keys.push_back(gText(key));
  return keys;
}

TEST(HashDictionary, CapacityElevenOrdersKeysByBucketThenInsertion) {
  RWCollectableString a("a"), abcd("abcd"), abcde("abcde"), va("1"), vb("2"), vc("3");
  RWHashDictionary dictionary(11);
  dictionary.insertKeyAndValue(&a, &va);
  dictionary.insertKeyAndValue(&abcd, &vb);
  dictionary.insertKeyAndValue(&abcde, &vc);
  EXPECT_EQ(gKeys(dictionary), (std::vector<std::string>{"abcd", "abcde", "a"}));
  auto const* bucket7 = dictionary.bucketList(7);
  ASSERT_NE(bucket7, nullptr);
  EXPECT_EQ(bucket7->entries(), 2u);
  EXPECT_EQ(static_cast<RWCollectableAssociation*>(bucket7->first())->key(), &abcd);
  ASSERT_NE(dictionary.bucketList(10), nullptr);
  EXPECT_EQ(static_cast<RWCollectableAssociation*>(dictionary.bucketList(10)->first())->key(), &a);
}

TEST(HashDictionary, EqualKeyIsRefusedAndTheFirstPairStands) {
  auto* key = new RWCollectableString("k");
  auto* value = new RWCollectableString("first");
  RWCollectableString secondKey("k"), secondValue("second");
  RWHashDictionary dictionary;
  EXPECT_EQ(dictionary.insertKeyAndValue(key, value), key);
  EXPECT_EQ(dictionary.insertKeyAndValue(&secondKey, &secondValue), nullptr);
  EXPECT_EQ(dictionary.entries(), 1u);
  RWCollectableString const probe("k");
  EXPECT_EQ(dictionary.findValue(&probe), value);
  EXPECT_EQ(dictionary.findKey(&probe), key);
  EXPECT_EQ(dictionary.find(&probe), key);
  EXPECT_TRUE(dictionary.contains(&probe));
  EXPECT_EQ(dictionary.occurrencesOf(&probe), 1u);
  dictionary.clearAndDestroy();  // the second pair is still ours, on the stack
  EXPECT_TRUE(dictionary.isEmpty());
}

TEST(HashDictionary, ClearAndDestroyDestroysEveryObjectOnce) {
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
  EXPECT_EQ(dictionary.entries(), 0u);
}

TEST(HashDictionary, RemoveGivesTheStoredKeyAndRemoveAndDestroyTakesBoth) {
  cCounted::sDestroyed = 0;
  RWHashDictionary dictionary;
  auto* key = new cCounted("k");
  auto* value = new cCounted("v");
  dictionary.insertKeyAndValue(key, value);
  cCounted probe("k");
  EXPECT_EQ(dictionary.remove(&probe), key);
  EXPECT_EQ(dictionary.entries(), 0u);
  EXPECT_EQ(cCounted::sDestroyed, 0);  // remove destroys nothing

  dictionary.insertKeyAndValue(key, value);
  auto* self = new cCounted("self");
  dictionary.insertKeyAndValue(self, self);
  RWCollectableString absent("absent");
  dictionary.removeAndDestroy(&absent);
  EXPECT_EQ(cCounted::sDestroyed, 0);
  EXPECT_EQ(dictionary.entries(), 2u);
  dictionary.removeAndDestroy(&probe);
  EXPECT_EQ(cCounted::sDestroyed, 2);
  RWCollectableString selfProbe("self");
  dictionary.removeAndDestroy(&selfProbe);
  EXPECT_EQ(cCounted::sDestroyed, 3);  // one object as key and value goes once
  EXPECT_TRUE(dictionary.isEmpty());
  cCounted::sDestroyed = 0;
}

TEST(HashDictionary, FindValueWithANewValueSwapsInPlace) {
  RWCollectableString key("k"), first("1"), second("2"), absent("x");
  RWHashDictionary dictionary;
  dictionary.insertKeyAndValue(&key, &first);
  EXPECT_EQ(dictionary.findValue(&key, &second), &first);
  EXPECT_EQ(dictionary.findValue(&key), &second);
  EXPECT_EQ(dictionary.findValue(&absent, &first), nullptr);
  EXPECT_EQ(dictionary.entries(), 1u);
  EXPECT_EQ(dictionary.findValue(&absent), nullptr);
}

TEST(HashDictionary, TextLookupAnswersAsAStringProbeDoes) {
  std::vector<std::unique_ptr<RWCollectableString>> objects;
  RWHashDictionary dictionary(7);
  std::vector<std::string> const texts{"alpha", "beta", "a longer key than fifteen bytes", "",
                                       std::string("x\0y", 3)};
  for (std::string const& text : texts) {
    objects.push_back(std::make_unique<RWCollectableString>(text));
    objects.push_back(std::make_unique<RWCollectableString>("value of " + text));
    dictionary.insertKeyAndValue(objects[objects.size() - 2].get(), objects.back().get());
  }
  RWCollectableInt number(static_cast<int>(RWCString::hash("beta", 4)));
  RWCollectableString numberValue("number");
  dictionary.insertKeyAndValue(&number, &numberValue);  // same bucket as "beta", never equal

  for (std::size_t i = 0; i < objects.size(); i += 2) {
    std::string_view const text = *objects[i];
    SCOPED_TRACE(std::string(text));
    RWCollectableString const probe(text);
    EXPECT_EQ(dictionary.findValue(text), dictionary.findValue(&probe));
    EXPECT_EQ(dictionary.findValue(text), objects[i + 1].get());
    EXPECT_EQ(dictionary.findKey(text), objects[i].get());
  }
  EXPECT_EQ(dictionary.findValue(std::string_view("gamma")), nullptr);
  EXPECT_EQ(dictionary.findValue(std::string_view("x")), nullptr);
  EXPECT_EQ(dictionary.findValue("alpha"), objects[1].get());
}

// A key class of its own id: equal bytes, but never equal to a string probe.
struct cOtherKey : RWCollectableString {
  using RWCollectableString::RWCollectableString;
  RWClassID isA() const override { return 7; }
};

// A pair that answers every probe with yes.
struct cEagerPair : RWCollectableAssociation {
  using RWCollectableAssociation::RWCollectableAssociation;
  bool isEqual(RWCollectable const*) const override { return true; }
};
struct cEagerDictionary : RWHashDictionary {
  using RWHashDictionary::RWHashDictionary;
  RWCollectableAssociation* newAssociation(RWCollectable* key,
                                           RWCollectable* value) const override {
    return new cEagerPair(key, value);
  }
};

TEST(HashDictionary, LookupsStillAskTheObjectsWhenKeysOrPairsAreOfOtherClasses) {
  cOtherKey other("k");
  RWCollectableString plainKey("k"), value("v"), probe("k");
  RWHashDictionary dictionary;
  dictionary.insertKeyAndValue(&other, &value);
  EXPECT_EQ(dictionary.findValue(&probe), nullptr);
  EXPECT_EQ(dictionary.findValue(std::string_view("k")), nullptr);
  RWHashDictionary const copy(dictionary);
  EXPECT_EQ(copy.findValue(std::string_view("k")), nullptr);
  // The stored key is asked on insertion, and as a string class it takes the plain key for equal.
  EXPECT_EQ(dictionary.insertKeyAndValue(&plainKey, &value), nullptr);
  dictionary.clear();
  dictionary.insertKeyAndValue(&plainKey, &value);
  EXPECT_EQ(dictionary.findKey(&probe), &plainKey);

  cEagerDictionary eager(11);
  RWCollectableString stored("stored");
  eager.insertKeyAndValue(&stored, &value);
  // Any probe of the pair's bucket is found by the pair's own isEqual.
  EXPECT_EQ(eager.findKey(std::string_view("stored")), &stored);
  unsigned const bucket = RWCString::hash("stored", 6) % 11;
  std::string other11;
  for (int i = 0; other11.empty(); ++i) {
    std::string const candidate = "x" + std::to_string(i);
    if (RWCString::hash(candidate.data(), candidate.size()) % 11 == bucket) other11 = candidate;
  }
  EXPECT_EQ(eager.findKey(std::string_view(other11)), &stored);
  RWCollectableString const otherProbe(other11);
  EXPECT_EQ(eager.findKey(&otherProbe), &stored);
}

TEST(HashDictionary, CopiesShareKeysAndValuesButNotAssociations) {
  RWCollectableString a("a"), abcd("abcd"), va("va"), vb("vb");
  RWHashDictionary dictionary(11);
  dictionary.insertKeyAndValue(&abcd, &vb);
  dictionary.insertKeyAndValue(&a, &va);
  RWHashDictionary copy(dictionary);
  EXPECT_EQ(copy.buckets(), 11u);
  EXPECT_EQ(gKeys(copy), gKeys(dictionary));
  EXPECT_NE(copy.findAssociation(&a), dictionary.findAssociation(&a));
  EXPECT_EQ(copy.findValue(&a), &va);
  copy.remove(&a);
  EXPECT_EQ(dictionary.findValue(&a), &va);

  RWHashDictionary assigned(3);
  RWCollectableString other("other");
  assigned.insertKeyAndValue(&other, &other);
  assigned = dictionary;
  EXPECT_EQ(assigned.buckets(), 11u);
  EXPECT_EQ(gKeys(assigned), gKeys(dictionary));
  EXPECT_EQ(assigned.findValue(&other), nullptr);
}

TEST(HashDictionary, IteratorGivesKeysValuesAndRemovesPairs) {
  RWCollectableString k1("k1"), k2("k2"), v1("v1"), v2("v2"), v3("v3");
  RWHashDictionary dictionary;
  dictionary.insertKeyAndValue(&k1, &v1);
  dictionary.insertKeyAndValue(&k2, &v2);
  RWHashDictionaryIterator next(dictionary);
  EXPECT_EQ(next.key(), nullptr);
  EXPECT_EQ(next.findNext(&k2), &k2);
  EXPECT_EQ(next.value(), &v2);
  EXPECT_EQ(next.value(&v3), &v2);
  EXPECT_EQ(dictionary.findValue(&k2), &v3);
  EXPECT_EQ(next.remove(), &k2);
  EXPECT_EQ(dictionary.entries(), 1u);
  EXPECT_EQ(dictionary.findValue(&k2), nullptr);
  next.settle();
  next.reset();
  EXPECT_EQ(next(), &k1);
  EXPECT_EQ(next(), nullptr);

  std::unique_ptr<RWConstIterator> const keys(dictionary.newConstIterator());
  EXPECT_EQ((*keys)(), &k1);
}

TEST(HashDictionary, ApplySelectAndResizeKeepThePairs) {
  std::vector<std::unique_ptr<RWCollectableString>> objects;
  RWHashDictionary dictionary(2);
  for (int i = 0; i < 20; ++i) {
    objects.push_back(std::make_unique<RWCollectableString>("key" + std::to_string(i)));
    objects.push_back(std::make_unique<RWCollectableString>(i % 2 == 0 ? "even" : "odd"));
    dictionary.insertKeyAndValue(objects[objects.size() - 2].get(), objects.back().get());
  }
  dictionary.resize(0);
  EXPECT_EQ(dictionary.buckets(), 30u);
  EXPECT_EQ(dictionary.entries(), 20u);
  for (std::size_t i = 0; i < objects.size(); i += 2)
    EXPECT_EQ(dictionary.findValue(objects[i].get()), objects[i + 1].get());

  int keys = 0;
  dictionary.apply(
      [](RWCollectable* key, void* count) {
        EXPECT_EQ(gText(key).rfind("key", 0), 0u);
        ++*static_cast<int*>(count);
      },
      &keys);
  EXPECT_EQ(keys, 20);

  auto const isEven = [](RWCollectable const* value, void const*) {
    return gText(value) == "even";
  };
  std::unique_ptr<RWHashDictionary> const evens(dictionary.selectValue(isEven, nullptr));
  EXPECT_EQ(evens->entries(), 10u);
  EXPECT_EQ(evens->findValue(std::string_view("key4")), objects[9].get());
  auto const isKey1 = [](RWCollectable const* key, void const*) { return gText(key) == "key1"; };
  std::unique_ptr<RWHashDictionary> const one(dictionary.selectKey(isKey1, nullptr));
  EXPECT_EQ(one->entries(), 1u);

  dictionary.applyToKeyAndValue(
      [](RWCollectable*, RWCollectable*& value, void*) { value = nullptr; }, nullptr);
  EXPECT_EQ(dictionary.findValue(objects[0].get()), nullptr);
  EXPECT_EQ(dictionary.entries(), 20u);
}

TEST(HashDictionary, PlainInsertTakesAKeyWithANullValue) {
  RWCollectableString key("k"), again("k");
  RWHashDictionary dictionary;
  EXPECT_EQ(dictionary.insert(&key), &key);
  EXPECT_EQ(dictionary.insert(&again), &key);
  EXPECT_EQ(dictionary.entries(), 1u);
  EXPECT_EQ(dictionary.findValue(&again), nullptr);
  EXPECT_EQ(dictionary.isA(), 32802);
}

}  // namespace
