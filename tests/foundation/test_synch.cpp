// The foundation's locks, once-only holders, static instances, note holders
// and counted pointers.
#include <sched.h>

#include <atomic>
#include <chrono>
#include <future>
#include <latch>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Lifetime.h"
#include "LogCapture.h"
#include "Sptr.h"
#include "Static.h"
#include "Synch.h"

namespace {

using corvanth::test::cLogCapture;
using nParallel::nImplementation_sho::cMutex;
using nParallel::nImplementation_sho::cMutexRecursive;
using nParallel::nImplementation_sho::tAcquireResult;
using nParallel::nOnce::cInitHolder;

constexpr auto kBound = std::chrono::seconds(20);

// Runs f on another thread; gives the text of the lock error it raised, or "none".
template <class F>
std::future<std::string> gWhyElsewhere(F f) {
  return std::async(std::launch::async, [f] {
    try {
      f();
    } catch (RWTHRxmsg const& e) {
      return std::string(e.why());
    }
    return std::string("none");
  });
}

// The result of a try with no wait from another thread, releasing what it got.
tAcquireResult gTryElsewhere(cMutexRecursive& mutex) {
  return std::async(std::launch::async, [&] {
           auto got = mutex.fTryAcquire(nTime::cDiff()).fGet();
           if (got != tAcquireResult::eTimedOut) mutex.fRelease();
           return got;
         }).get();
}

TEST(MutexRecursive, ReentryCountsDepthAndHoldsUntilTheLastRelease) {
  cMutexRecursive mutex;
  mutex.fAcquire();
  EXPECT_FALSE(mutex.fAlreadyAcquiredNTS());  // this thread's own hold does not count
  mutex.fAcquire();
  mutex.fAcquire();
  EXPECT_TRUE(mutex.fAlreadyAcquiredNTS());
  EXPECT_EQ(mutex.fTryAcquire(nTime::cDiff::gMilliseconds(1)).fGet(), tAcquireResult::eAtOnce);
  EXPECT_EQ(mutex.fDepth(), 4);
  for (int i = 0; i < 3; ++i) mutex.fRelease();
  EXPECT_EQ(gTryElsewhere(mutex), tAcquireResult::eTimedOut);  // still held once
  mutex.fRelease();
  EXPECT_EQ(gTryElsewhere(mutex), tAcquireResult::eAtOnce);
  EXPECT_EQ(mutex.fDepth(), 0);
}

std::atomic<long> gWaiter{0};
std::atomic<int> gWaiterHookCalls{0};
std::promise<void>* gWaiting = nullptr;
void gWatchWaiter() {
  // The third acquire step of a try-then-wait is the waiting one.
  if (GetCurrentThreadId() == gWaiter.load() && ++gWaiterHookCalls == 3) gWaiting->set_value();
}

TEST(MutexRecursive, TryAcquireAcrossThreadsGivesAfterWaitAndTimedOut) {
  cMutexRecursive mutex;
  std::promise<void> held, release, waiting;
  gWaiting = &waiting;
  auto holder = std::async(std::launch::async, [&] {
    mutex.fAcquire();
    held.set_value();
    release.get_future().wait();
    mutex.fRelease();
  });
  held.get_future().wait();
  EXPECT_EQ(mutex.fTryAcquire(nTime::cDiff::gMilliseconds(20)).fInt(), 3);
  EXPECT_EQ(mutex.fDepth(), 1);  // the holder's only

  gWaiter = GetCurrentThreadId();
  gWaiterHookCalls = 0;
  RWMutexLock::setCheckHook(&gWatchWaiter);
  auto releaser = std::async(std::launch::async, [&] {
    waiting.get_future().wait();
    release.set_value();
  });
  EXPECT_EQ(mutex.fTryAcquire(nTime::cDiff::gSeconds(30)).fInt(), 2);
  RWMutexLock::setCheckHook(nullptr);
  ASSERT_EQ(releaser.wait_for(kBound), std::future_status::ready);
  ASSERT_EQ(holder.wait_for(kBound), std::future_status::ready);
  mutex.fRelease();
}

TEST(MutexRecursive, ReleaseByANonOwnerCountsDownThenRaisesWhileTheOwnerReadsDepth) {
  cMutexRecursive mutex;
  mutex.fAcquire();
  mutex.fAcquire();
  auto stranger = gWhyElsewhere([&] { mutex.fRelease(); });
  while (stranger.wait_for(std::chrono::seconds(0)) != std::future_status::ready)  // the owner's own reads
    (void)mutex.fAlreadyAcquiredNTS();
  EXPECT_EQ(stranger.get(), "RWTRecursiveLock::release - Not owner");
  EXPECT_EQ(mutex.fDepth(), 1);  // counted before the lock refused
  mutex.fRelease();
  mutex.fRelease();  // the owner's releases still work
  EXPECT_EQ(gTryElsewhere(mutex), tAcquireResult::eAtOnce);
}

TEST(Mutex, OwnerReacquireDoesNotBlockAndForeignReleaseIsAnInternalError) {
  cMutex mutex;
  auto proxy = mutex();
  proxy.fWriteAcquire();
  proxy.fReadAcquire();  // the raw mutex lets its owner in again
  proxy.fReadRelease();
  EXPECT_EQ(gWhyElsewhere([&] { mutex.fRelease(); }).get().substr(0, 40), "RWMutexLock::release - ReleaseMutex() - ");
  EXPECT_EQ(std::async(std::launch::async, [&] { return mutex.fGetRaw().acquire(10ul); }).get(), 0);
  proxy.fWriteRelease();
  EXPECT_TRUE(mutex.fGetRaw().tryAcquire());
  mutex.fRelease();
}

TEST(DebugGuard, UseAfterDestructionIsReportedAndAHeldMutexIsLetGoFirst) {
  cLogCapture capture("Error");
  alignas(cMutex) unsigned char storage[sizeof(cMutex)];
  cMutex* mutex = new (storage) cMutex;
  mutex->fAcquire();
  mutex->fAcquire();
  mutex->~cMutex();  // held twice by this thread
  EXPECT_TRUE(capture.fRecords().empty());
  mutex->fAcquire();  // the raw mutex is made again on use
  mutex->fRelease();
  auto reports = capture.fWithText("Debug section failed");
  EXPECT_EQ(reports.size(), 3u);  // two checks in acquire, one in release
  for (auto const& r : reports) EXPECT_EQ(r.source, "DebugSection");
  mutex->~cMutex();
}

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
  ASSERT_EQ(reader.wait_for(kBound), std::future_status::ready);
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

  corvanth::test::cCoreReports reports;
  nSptr_sho::gSetThrower_test([](cStringCoeImpl const&, cStringCoeImpl const&) {});
  EXPECT_EQ(gFault([&] { (void)*unset; }), "other: bad exception");
  nSptr_sho::gSetThrower_test(nullptr);
  EXPECT_TRUE(reports.fHas("always-throws expression did not throw"));
}

}  // namespace
