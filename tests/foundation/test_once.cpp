#include <sched.h>

#include <atomic>
#include <future>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Lifetime.h"
#include "LogCapture.h"
#include "Sptr.h"
#include "Static.h"
#include "Synch.h"

namespace {

using corvanth::test::cLogCapture;
using nParallel::nOnce::cInitHolder;

TEST(InitHolder, EightRacersRunInitOnceAndOnlyTheWinnerGetsTrue) {
  for (int round = 0; round < 20; ++round) {
    cInitHolder holder;
    std::atomic<int> inits{0};
    std::atomic<bool> finished{false};
    std::atomic<int> winners{0};
    std::atomic<int> early{0};
    std::latch start(8);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        start.arrive_and_wait();
        bool won = holder.fUseBlock([&] {
          ++inits;
          for (int k = 0; k < 200; ++k) sched_yield();  // widen the window for the others
          finished = true;
        });
        if (!finished.load()) ++early;
        if (won) ++winners;
      });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(inits.load(), 1);
    EXPECT_EQ(winners.load(), 1);
    EXPECT_EQ(early.load(), 0);
  }
}

TEST(InitHolder, CompletedHolderSkipsInitAndAFailedInitLeavesItOpen) {
  cInitHolder holder;
  EXPECT_FALSE(holder.fCheckAcquire());
  EXPECT_THROW(holder.fUseBlock([] { throw std::runtime_error("no"); }), std::runtime_error);
  EXPECT_FALSE(holder.fCheckAcquire());
  int calls = 0;
  EXPECT_TRUE(holder.fUseSpin([&] { ++calls; }));
  EXPECT_TRUE(holder.fCheckAcquire());
  EXPECT_FALSE(holder.fUseBlock([&] { ++calls; }));
  EXPECT_EQ(holder.fUseImpl([&] { ++calls; }, 0), 1);
  EXPECT_EQ(calls, 1);
  holder.fReadBlock();

  cInitHolder empty;
  auto reader = std::async(std::launch::async, [&] { empty.fReadBlock(); });
  EXPECT_TRUE(empty.fUseEmpty());
  ASSERT_EQ(reader.wait_for(std::chrono::seconds(20)), std::future_status::ready);

  nParallel::nOnce::cAccompletionFlag flag;
  EXPECT_FALSE(flag.fCheckAcquire());
  flag.fUse();
  EXPECT_TRUE(flag.fCheckAcquire());
}

TEST(StaticInstance, MisuseGivesItsTexts) {
  cLogCapture capture("Error");
  auto texts = [&] {
    std::vector<std::string> out;
    for (auto const& r : capture.fRecords()) {
      EXPECT_EQ(r.source, "Static");
      out.push_back(r.text);
    }
    capture.fClear();
    return out;
  };
  using nStatic_sho::cConstructionRequest_debug;
  auto make = [](void* where) { return new (where) int(7); };
  using tTexts = std::vector<std::string>;

  nStatic_sho::ecStaticInstance<int> instance;
  instance.fGet();
  EXPECT_EQ(texts(), tTexts{"Instance not constructed"});
  instance.fDestruct();
  EXPECT_EQ(texts(), tTexts{"Instance not constructed"});

  nStatic_sho::ecStaticInstance<int> good;
  EXPECT_EQ(*good.fConstruct(cConstructionRequest_debug{}, make), 7);
  EXPECT_EQ(good.fGet(), 7);
  EXPECT_TRUE(texts().empty());
  good.fConstruct(cConstructionRequest_debug{}, make);
  EXPECT_EQ(texts(), tTexts{"Instance already constructed"});
  good.fDestruct();
  EXPECT_TRUE(texts().empty());
  good.fDestruct();
  EXPECT_EQ(texts(), tTexts{"Instance already destructed"});
  good.fGet();
  EXPECT_EQ(texts(), tTexts{"Instance already destructed"});

  nStatic_sho::ecStaticInstance<int> forced;
  forced.fConstruct(cConstructionRequest_debug{cConstructionRequest_debug::kForced}, make);
  EXPECT_TRUE(texts().empty());  // the first forced construction is not remarkable
  nStatic_sho::ecStaticInstance<int> expected;
  expected.fConstruct(cConstructionRequest_debug{cConstructionRequest_debug::kExpected}, make);
  EXPECT_EQ(texts(), tTexts{"Instance expected be constructed"});
  EXPECT_EQ(expected.fState(), nStatic_sho::tInstanceState::eConstructed);
}

nLifetime_sho::cScope* gTestScope() {
  static nLifetime_sho::cScope scope;
  return &scope;
}

std::atomic<int> gInits{0};
int gMakeAnswer() {
  ++gInits;
  return 42;
}

struct cBoom {
  bool armed = true;
  cBoom() = default;
  cBoom(cBoom&& other) noexcept : armed(other.armed) { other.armed = false; }
  ~cBoom() noexcept(false) {
    if (armed) throw std::runtime_error("boom");
  }
};
cBoom gMakeBoom() { return cBoom(); }

TEST(NoteHolder, BuildsOnceOnFirstUseOrBoardAndLivesUntilItsScopeEnds) {
  cLogCapture capture("Trace,Error");
  gInits = 0;
  nLifetime_sho::ecNoteHolderSynch<int, &gTestScope> other(&gMakeAnswer);
  {
    nLifetime_sho::ecNoteHolderSynch<int, &gTestScope> holder(&gMakeAnswer);
    nLifetime_sho::cBoard board;
    board.fAdd(holder);
    EXPECT_FALSE(holder.fHasValue());
    std::vector<std::future<int>> users;
    for (int i = 0; i < 8; ++i) users.push_back(std::async(std::launch::async, [&] { return holder.fGet(); }));
    board.fGoThrough();
    for (auto& u : users) EXPECT_EQ(u.get(), 42);
    EXPECT_EQ(gInits.load(), 1);
    EXPECT_EQ(other.fGet(), 42);
  }
  // The holder that went took only its own value.
  EXPECT_TRUE(other.fHasValue());
  EXPECT_EQ(other.fGet(), 42);
  EXPECT_EQ(gInits.load(), 2);
  gTestScope()->fEnd();
  EXPECT_FALSE(other.fHasValue());
  std::vector<std::string> names;
  for (auto const& r : capture.fRecords()) names.push_back(r.source + " " + r.text.substr(0, r.text.find('\t')));
  EXPECT_EQ(names, (std::vector<std::string>{
                       "Placer ecPlacerEngineControlled:ctor()", "Lifetime nLifetime:ecNoteHolderSynch:ctor",
                       "Placer ecPlacerEngineControlled:ctor()", "Lifetime nLifetime:ecNoteHolderSynch:ctor",
                       "Lifetime nLifetime:ecNoteHolderSynch:unused", "Lifetime nLifetime:ecNoteHolderSynch:construct",
                       "Lifetime nLifetime:ecNoteHolderSynch:unused", "Lifetime nLifetime:ecNoteHolderSynch:construct",
                       "Lifetime nLifetime:ecNoteHolderSynch:destruct", "Lifetime nLifetime:ecNoteHolderSynch:dtor",
                       "Lifetime nLifetime:ecNoteHolderSynch:destruct"}));
}

TEST(NoteHolder, ARaisingValueDestructorIsLoggedAndStopsThere) {
  cLogCapture capture("Error");
  {
    nLifetime_sho::ecNoteHolderSynch<cBoom, &gTestScope> holder(&gMakeBoom);
    holder.fGet();
    EXPECT_NO_THROW(gTestScope()->fEnd());
  }
  auto records = capture.fRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].text, "dtor throws: boom");
}

struct cFaultText {
  template <class F>
  static std::string of(F&& f) {
    try {
      f();
    } catch (n_debug::cIllegalUsageException const& e) {
      return e.fFirst().fString();
    } catch (std::exception const& e) {
      return std::string("other: ") + e.what();
    }
    return "no fault";
  }
};

TEST(CountedPointer, KindsRefuseWhatTheyCannotDo) {
  using nSptr_sho::ecSptr;
  auto unique = ecSptr<std::string>::gUnique(new std::string("u"));
  EXPECT_EQ(cFaultText::of([&] { ecSptr<std::string> copy(unique); }), "cannot copy unique countref");
  ecSptr<std::string> unset;
  EXPECT_EQ(cFaultText::of([&] { (void)*unset; }), "can't use uninitialized refs");
  auto ghost = ecSptr<std::string>::gGhost();
  EXPECT_EQ(cFaultText::of([&] { ghost.fInit(nullptr); }),
            "ghost count don't have a ref object, there's no meaning for its being initialized");
  auto garbage = ecSptr<std::string>::gWithKind_test(42);
  EXPECT_EQ(cFaultText::of([&] { (void)garbage.fGet(); }), "garbage refcount type");

  unique.fShare();
  EXPECT_EQ(cFaultText::of([&] { unique.fReleaseUnique(); }), "not in unique state");
  {
    ecSptr<std::string> copy(unique);
    EXPECT_EQ(unique.fUseCount(), 2);
    EXPECT_EQ(*copy, "u");
  }
  EXPECT_EQ(unique.fUseCount(), 1);
  unset.fInit(new std::string("now"));
  std::unique_ptr<std::string> released(unset.fReleaseUnique());
  EXPECT_EQ(*released, "now");
}

TEST(CountedPointer, AnAlwaysThrowingExpressionThatReturnsEndsInBadException) {
  corvanth::test::cCoreReports reports;
  nSptr_sho::gSetThrower_test([](cStringCoeImpl const&, cStringCoeImpl const&) {});
  nSptr_sho::ecSptr<int> unset;
  try {
    (void)*unset;
    ADD_FAILURE();
  } catch (nSptr_sho::cBadException const& e) {
    EXPECT_STREQ(e.what(), "bad exception");
  }
  nSptr_sho::gSetThrower_test(nullptr);
  EXPECT_TRUE(reports.fHas("always-throws expression did not throw"));
}

}  // namespace
