// The foundation's locks, once-only holders, static instances, note holders
// and counted pointers.
#include <gtest/gtest.h>
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

// The text of the fault a call raises: a usage fault's first text, or what().
template <class F>
std::string gFault(F f) {
  try {
    f();
  } catch (n_debug::cIllegalUsageException const& e) {
    return e.fFirst().fString();
  } catch (std::exception const& e) {
    return e.what();
  }
  return "no fault";
}

// Each record described by `describe`, joined; the capture is then emptied.
template <class F>
std::string gDrain(cLogCapture& capture, F describe) {
  std::string out;
  for (auto const& r : capture.fRecords()) out += describe(r);
  capture.fClear();
  return out;
}

// Tries the mutex for the given time and releases what it got.
tAcquireResult gTry(cMutexRecursive& mutex, nTime::cDiff limit) {
  auto const got = mutex.fTryAcquire(limit).fGet();
  if (got != tAcquireResult::eTimedOut) mutex.fRelease();
  return got;
}
tAcquireResult gTryElsewhere(cMutexRecursive& mutex, nTime::cDiff limit = {}) {
  return std::async(std::launch::async, [&] { return gTry(mutex, limit); }).get();
}

std::atomic<long> gWaiter{0};
std::atomic<int> gWaiterChecks{0};
std::promise<void> gWaiting;
void gWatchWaiter() {
  // The third acquire step of a try-then-wait is the waiting one.
  if (GetCurrentThreadId() == gWaiter.load() && ++gWaiterChecks == 3) gWaiting.set_value();
}

TEST(MutexRecursive, CountsReentriesGivesEachTryItsResultAndOnlyTheOwnerReleases) {
  cMutexRecursive mutex;
  mutex.fAcquire();
  EXPECT_FALSE(mutex.fAlreadyAcquiredNTS());  // this thread's own hold does not count
  mutex.fAcquire();
  EXPECT_TRUE(mutex.fAlreadyAcquiredNTS());
  EXPECT_EQ(mutex.fTryAcquire(nTime::cDiff::gMilliseconds(1)).fGet(), tAcquireResult::eAtOnce);
  EXPECT_EQ(mutex.fDepth(), 3);
  mutex.fRelease();
  mutex.fRelease();
  // Still held once.
  EXPECT_EQ(gTryElsewhere(mutex, nTime::cDiff::gMilliseconds(20)), tAcquireResult::eTimedOut);

  gWaiting = {};
  gWaiterChecks = 0;
  RWMutexLock::setCheckHook(&gWatchWaiter);
  auto waiter = std::async(std::launch::async, [&] {
    gWaiter = GetCurrentThreadId();
    return gTry(mutex, nTime::cDiff::gSeconds(30));
  });
  ASSERT_EQ(gWaiting.get_future().wait_for(kBound), std::future_status::ready);
  RWMutexLock::setCheckHook(nullptr);
  mutex.fRelease();
  EXPECT_EQ(waiter.get(), tAcquireResult::eAfterWait);

  mutex.fAcquire();
  mutex.fAcquire();
  auto stranger = std::async(std::launch::async, [&] { return gFault([&] { mutex.fRelease(); }); });
  while (stranger.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
    (void)mutex.fAlreadyAcquiredNTS();  // the owner reads the depth the stranger writes
  EXPECT_EQ(stranger.get(), "RWTRecursiveLock::release - Not owner");
  EXPECT_EQ(mutex.fDepth(), 1);  // counted before the lock refused
  mutex.fRelease();
  mutex.fRelease();  // the owner's releases still work
  EXPECT_EQ(gTryElsewhere(mutex), tAcquireResult::eAtOnce);
}

TEST(Mutex, OwnerReacquireDoesNotBlockForeignReleaseIsAnErrorAndUseAfterDestructionIsReported) {
  cLogCapture capture("Error");
  alignas(cMutex) unsigned char storage[sizeof(cMutex)];  // destroyed by hand, twice
  cMutex& mutex = *new (storage) cMutex;
  auto proxy = mutex();
  proxy.fWriteAcquire();
  proxy.fReadAcquire();  // the raw mutex lets its owner in again
  proxy.fReadRelease();
  auto foreign = [&] { return gFault([&] { mutex.fRelease(); }); };
  EXPECT_EQ(std::async(std::launch::async, foreign).get().substr(0, 40),
            "RWMutexLock::release - ReleaseMutex() - ");
  EXPECT_EQ(std::async(std::launch::async, [&] { return mutex.fGetRaw().acquire(10ul); }).get(), 0);
  proxy.fWriteAcquire();
  mutex.~cMutex();  // held twice by this thread
  EXPECT_TRUE(capture.fRecords().empty());
  mutex.fAcquire();  // the raw mutex is made again on use
  mutex.fRelease();
  // Two checks in acquire, one in release.
  EXPECT_EQ(capture.fWithText("Debug section failed").size(), 3u);
  mutex.~cMutex();
}

TEST(InitHolder, RacersRunInitExactlyOnceAndAFailedInitLeavesItOpen) {
  for (int round = 0; round < 20; ++round) {
    cInitHolder holder;
    std::atomic<int> inits{0}, winners{0}, early{0};
    std::atomic<bool> finished{false};
    std::latch start(8);
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i)
      threads.emplace_back([&] {
        start.arrive_and_wait();
        winners += holder.fUseBlock([&] {
          ++inits;
          for (int k = 0; k < 200; ++k) sched_yield();  // widen the window for the others
          finished = true;
        });
        early += !finished.load();
      });
    threads.clear();
    EXPECT_EQ(inits.load() * 100 + winners.load() * 10 + early.load(), 110);
  }

  cInitHolder holder;
  EXPECT_THROW(holder.fUseBlock([] { throw std::runtime_error("no"); }), std::runtime_error);
  int calls = 0;
  EXPECT_TRUE(holder.fUseSpin([&] { ++calls; }));
  EXPECT_FALSE(holder.fUseBlock([&] { ++calls; }));
  EXPECT_EQ(calls, 1);
  cInitHolder empty;
  auto reader = std::async(std::launch::async, [&] { empty.fReadBlock(); });
  EXPECT_TRUE(empty.fUseEmpty());
  ASSERT_EQ(reader.wait_for(kBound), std::future_status::ready);
}

TEST(StaticInstance, MisuseGivesItsTexts) {
  using nStatic_sho::cConstructionRequest_debug;
  using tInstance = nStatic_sho::ecStaticInstance<int>;
  cLogCapture capture("Error");
  tInstance never, good, forced, expected;
  auto make = [&](tInstance& i, int kind = 0) {
    return *i.fConstruct(cConstructionRequest_debug{kind}, [](void* at) { return new (at) int(7); });
  };
  auto texts = [&] { return gDrain(capture, [](nLog::cRecord const& r) { return r.text + ";"; }); };
  never.fGet();
  never.fDestruct();
  EXPECT_EQ(texts(), "Instance not constructed;Instance not constructed;");
  EXPECT_EQ(make(good), 7);
  EXPECT_EQ(good.fGet(), 7);
  EXPECT_EQ(texts(), "");
  make(good);
  good.fDestruct();  // the first destruction is in order
  good.fDestruct();
  good.fGet();
  EXPECT_EQ(texts(), "Instance already constructed;Instance already destructed;Instance already destructed;");
  make(forced, cConstructionRequest_debug::kForced);  // the first forced one is not remarkable
  EXPECT_EQ(make(expected, cConstructionRequest_debug::kExpected), 7);  // still made
  EXPECT_EQ(texts(), "Instance expected be constructed;");
}

nLifetime_sho::cScope* gTestScope() { static nLifetime_sho::cScope scope; return &scope; }

std::atomic<int> gInits{0};
int gMakeAnswer() { return ++gInits, 42; }

struct cBoom {
  bool armed = true;
  cBoom() = default;
  cBoom(cBoom&& other) noexcept : armed(std::exchange(other.armed, false)) {}
  ~cBoom() noexcept(false) { if (armed) throw std::runtime_error("boom"); }
};
cBoom gMakeBoom() { return cBoom(); }

TEST(NoteHolder, BuildsOnceOnFirstUseOrBoardAndLivesUntilItsScopeEndsNewestFirst) {
  cLogCapture capture("Trace,Error");
  auto events = [&] {  // each record's source and the last word of its first field
    return gDrain(capture, [](nLog::cRecord const& r) {
      std::string const first = r.text.substr(0, r.text.find('\t'));
      return r.source + ":" + first.substr(first.rfind(':') + 1) + " ";
    });
  };
  gInits = 0;
  nLifetime_sho::ecNoteHolderSynch<int, &gTestScope> other(&gMakeAnswer);
  {
    nLifetime_sho::ecNoteHolderSynch<int, &gTestScope> holder(&gMakeAnswer);
    nLifetime_sho::cBoard board;
    board.fAdd(holder);
    std::vector<std::future<int>> users;
    for (int i = 0; i < 8; ++i)
      users.push_back(std::async(std::launch::async, [&] { return holder.fGet(); }));
    board.fGoThrough();
    for (auto& u : users) EXPECT_EQ(u.get(), 42);
    other.fGet();
  }
  // The holder that went took only its own value; each was built once.
  EXPECT_EQ(other.fGet(), 42);
  EXPECT_EQ(gInits.load(), 2);
  gTestScope()->fEnd();
  EXPECT_EQ(events(),
            "Placer:ctor() Lifetime:ctor Placer:ctor() Lifetime:ctor Lifetime:unused "
            "Lifetime:construct Lifetime:unused Lifetime:construct Lifetime:destruct Lifetime:dtor "
            "Lifetime:destruct ");

  // The newest value goes first; a destructor that raises is logged, and the
  // raise goes no further.
  nLifetime_sho::ecNoteHolderSynch<cBoom, &gTestScope> boom(&gMakeBoom);
  other.fGet();
  boom.fGet();
  capture.fClear();
  EXPECT_NO_THROW(gTestScope()->fEnd());
  EXPECT_EQ(events(), "Lifetime:destruct Lifetime: boom Lifetime:destruct ");
}

TEST(CountedPointer, KindsRefuseWhatTheyCannotDoAndAThrowerThatReturnsEndsInBadException) {
  using tSptr = nSptr_sho::ecSptr<std::string>;
  auto unique = tSptr::gUnique(new std::string("u"));
  EXPECT_EQ(gFault([&] { tSptr copy(unique); }), "cannot copy unique countref");
  tSptr unset;
  EXPECT_EQ(gFault([&] { (void)*unset; }), "can't use uninitialized refs");
  EXPECT_EQ(gFault([] { tSptr::gGhost().fInit(nullptr); }),
            "ghost count don't have a ref object, there's no meaning for its being initialized");
  EXPECT_EQ(gFault([] { (void)tSptr::gWithKind_test(42).fGet(); }), "garbage refcount type");
  unique.fShare();
  EXPECT_EQ(gFault([&] { unique.fReleaseUnique(); }), "not in unique state");

  corvanth::test::cCoreReports reports;
  nSptr_sho::gSetThrower_test([](cStringCoeImpl const&, cStringCoeImpl const&) {});
  EXPECT_EQ(gFault([&] { (void)*unset; }), "bad exception");
  nSptr_sho::gSetThrower_test(nullptr);
  EXPECT_TRUE(reports.fHas("always-throws expression did not throw"));
}

}  // namespace
