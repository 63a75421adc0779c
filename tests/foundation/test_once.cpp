#include <sched.h>

#include <atomic>
#include <future>
#include <latch>
#include <stdexcept>
#include <utility>
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
    std::atomic<int> inits{0}, winners{0}, early{0};
    std::atomic<bool> finished{false};
    std::latch start(8);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        start.arrive_and_wait();
        winners += holder.fUseBlock([&] {
          ++inits;
          for (int k = 0; k < 200; ++k) sched_yield();  // widen the window for the others
          finished = true;
        });
        early += !finished.load();
      });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(inits.load() * 100 + winners.load() * 10 + early.load(), 110);
  }
}

TEST(InitHolder, CompletedHolderSkipsInitAndAFailedInitLeavesItOpen) {
  cInitHolder holder;
  EXPECT_THROW(holder.fUseBlock([] { throw std::runtime_error("no"); }), std::runtime_error);
  EXPECT_FALSE(holder.fCheckAcquire());
  int calls = 0;
  EXPECT_TRUE(holder.fUseSpin([&] { ++calls; }));
  EXPECT_TRUE(holder.fCheckAcquire());
  EXPECT_FALSE(holder.fUseBlock([&] { ++calls; }));
  EXPECT_EQ(holder.fUseImpl([&] { ++calls; }, 0), 1);
  EXPECT_EQ(calls, 1);

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
    std::string out;
    for (auto const& r : capture.fRecords()) out += r.source + ": " + r.text + ";";
    capture.fClear();
    return out;
  };
  using nStatic_sho::cConstructionRequest_debug;
  auto make = [](void* where) { return new (where) int(7); };
  nStatic_sho::ecStaticInstance<int> instance;
  instance.fGet();
  instance.fDestruct();
  EXPECT_EQ(texts(), "Static: Instance not constructed;Static: Instance not constructed;");
  nStatic_sho::ecStaticInstance<int> good;
  EXPECT_EQ(*good.fConstruct(cConstructionRequest_debug{}, make), 7);
  EXPECT_EQ(good.fGet(), 7);
  EXPECT_EQ(texts(), "");
  good.fConstruct(cConstructionRequest_debug{}, make);
  EXPECT_EQ(texts(), "Static: Instance already constructed;");
  good.fDestruct();
  EXPECT_EQ(texts(), "");
  good.fDestruct();
  good.fGet();
  EXPECT_EQ(texts(), "Static: Instance already destructed;Static: Instance already destructed;");
  nStatic_sho::ecStaticInstance<int> forced, expected;
  forced.fConstruct(cConstructionRequest_debug{cConstructionRequest_debug::kForced}, make);
  EXPECT_EQ(texts(), "");  // the first forced construction is not remarkable
  expected.fConstruct(cConstructionRequest_debug{cConstructionRequest_debug::kExpected}, make);
  EXPECT_EQ(texts(), "Static: Instance expected be constructed;");
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
  cBoom(cBoom&& other) noexcept : armed(std::exchange(other.armed, false)) {}
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
  std::string events;  // each record's source and the last word of its first field
  for (auto const& r : capture.fRecords()) {
    std::string const first = r.text.substr(0, r.text.find('\t'));
    events += r.source + ":" + first.substr(first.rfind(':') + 1) + " ";
  }
  EXPECT_EQ(events, "Placer:ctor() Lifetime:ctor Placer:ctor() Lifetime:ctor Lifetime:unused Lifetime:construct "
                    "Lifetime:unused Lifetime:construct Lifetime:destruct Lifetime:dtor Lifetime:destruct ");
}

TEST(NoteHolder, ARaisingValueDestructorIsLoggedAndStopsThere) {
  cLogCapture capture("Error");
  nLifetime_sho::ecNoteHolderSynch<cBoom, &gTestScope> holder(&gMakeBoom);
  holder.fGet();
  EXPECT_NO_THROW(gTestScope()->fEnd());
  auto records = capture.fRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].text, "dtor throws: boom");
}

// The first text of the fault a call raises.
template <class F>
std::string gFault(F&& f) {
  try {
    f();
  } catch (n_debug::cIllegalUsageException const& e) {
    return e.fFirst().fString();
  } catch (std::exception const& e) {
    return std::string("other: ") + e.what();
  }
  return "no fault";
}

TEST(CountedPointer, KindsRefuseWhatTheyCannotDoAndAThrowerThatReturnsEndsInBadException) {
  using nSptr_sho::ecSptr;
  auto unique = ecSptr<std::string>::gUnique(new std::string("u"));
  EXPECT_EQ(gFault([&] { ecSptr<std::string> copy(unique); }), "cannot copy unique countref");
  ecSptr<std::string> unset;
  EXPECT_EQ(gFault([&] { (void)*unset; }), "can't use uninitialized refs");
  auto ghost = ecSptr<std::string>::gGhost();
  EXPECT_EQ(gFault([&] { ghost.fInit(nullptr); }),
            "ghost count don't have a ref object, there's no meaning for its being initialized");
  auto garbage = ecSptr<std::string>::gWithKind_test(42);
  EXPECT_EQ(gFault([&] { (void)garbage.fGet(); }), "garbage refcount type");
  unique.fShare();
  EXPECT_EQ(gFault([&] { unique.fReleaseUnique(); }), "not in unique state");
  {
    ecSptr<std::string> copy(unique);
    EXPECT_EQ(*copy + std::to_string(unique.fUseCount()), "u2");
  }
  EXPECT_EQ(unique.fUseCount(), 1);

  corvanth::test::cCoreReports reports;
  nSptr_sho::gSetThrower_test([](cStringCoeImpl const&, cStringCoeImpl const&) {});
  EXPECT_EQ(gFault([&] { (void)*unset; }), "other: bad exception");
  nSptr_sho::gSetThrower_test(nullptr);
  EXPECT_TRUE(reports.fHas("always-throws expression did not throw"));
}

}  // namespace
