#include <atomic>
#include <chrono>
#include <future>
#include <new>
#include <thread>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "Synch.h"

namespace {

using nParallel::nImplementation_sho::cMutex;
using nParallel::nImplementation_sho::cMutexRecursive;
using nParallel::nImplementation_sho::tAcquireResult;

constexpr auto kBound = std::chrono::seconds(20);

TEST(MutexRecursive, ReentryCountsDepthAndHoldsUntilTheLastRelease) {
  cMutexRecursive mutex;
  mutex.fAcquire();
  EXPECT_FALSE(mutex.fAlreadyAcquiredNTS());  // this thread's own hold does not count
  mutex.fAcquire();
  mutex.fAcquire();
  EXPECT_TRUE(mutex.fAlreadyAcquiredNTS());
  EXPECT_EQ(mutex.fDepth(), 3);
  EXPECT_EQ(mutex.fTryAcquire(nTime::cDiff::gMilliseconds(1)).fGet(), tAcquireResult::eAtOnce);
  mutex.fRelease();

  auto heldElsewhere = [&] {
    return std::async(std::launch::async, [&] {
      auto got = mutex.fTryAcquire(nTime::cDiff());
      if (got.fGet() != tAcquireResult::eTimedOut) mutex.fRelease();
      return got.fGet();
    });
  };
  mutex.fRelease();
  mutex.fRelease();
  EXPECT_EQ(heldElsewhere().get(), tAcquireResult::eTimedOut);  // still held once
  mutex.fRelease();
  EXPECT_EQ(mutex.fDepth(), 0);
  EXPECT_EQ(heldElsewhere().get(), tAcquireResult::eAtOnce);
}

std::atomic<long> gWaiter{0};
std::atomic<int> gWaiterHookCalls{0};
std::promise<void>* gWaiting = nullptr;
void gWatchWaiter() {
  // The third acquire step of a try-then-wait is the waiting one.
  if (GetCurrentThreadId() == gWaiter.load() && ++gWaiterHookCalls == 3) gWaiting->set_value();
}

TEST(MutexRecursive, TryAcquireAcrossThreadsGivesAtOnceAfterWaitAndTimedOut) {
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

  auto timedOut = mutex.fTryAcquire(nTime::cDiff::gMilliseconds(20));
  EXPECT_EQ(timedOut.fInt(), 3);
  EXPECT_EQ(mutex.fDepth(), 1);  // the holder's only

  gWaiter = GetCurrentThreadId();
  gWaiterHookCalls = 0;
  RWMutexLock::setCheckHook(&gWatchWaiter);
  auto releaser = std::async(std::launch::async, [&] {
    waiting.get_future().wait();
    release.set_value();
  });
  auto afterWait = mutex.fTryAcquire(nTime::cDiff::gSeconds(30));
  RWMutexLock::setCheckHook(nullptr);
  EXPECT_EQ(afterWait.fInt(), 2);
  ASSERT_EQ(releaser.wait_for(kBound), std::future_status::ready);
  ASSERT_EQ(holder.wait_for(kBound), std::future_status::ready);
  EXPECT_EQ(mutex.fDepth(), 1);
  mutex.fRelease();
  EXPECT_EQ(mutex.fTryAcquire(nTime::cDiff()).fInt(), 1);
  mutex.fRelease();
}

TEST(MutexRecursive, ReleaseByANonOwnerRaisesAfterCountingDown) {
  cMutexRecursive mutex;
  mutex.fAcquire();
  auto stranger = std::async(std::launch::async, [&] {
    try {
      mutex.fRelease();
    } catch (RWTHRIllegalUsage const& e) {
      return std::string(e.why());
    }
    return std::string("no exception");
  });
  EXPECT_EQ(stranger.get(), "RWTRecursiveLock::release - Not owner");
  EXPECT_EQ(mutex.fDepth(), 0);  // counted before the lock refused
  mutex.fRelease();              // the owner's release still works
  EXPECT_EQ(mutex.fTryAcquire(nTime::cDiff()).fInt(), 1);
  mutex.fRelease();
}

TEST(Mutex, OwnerReacquireDoesNotBlockAndForeignReleaseIsAnInternalError) {
  cMutex mutex;
  auto proxy = mutex();
  proxy.fWriteAcquire();
  proxy.fReadAcquire();  // the raw mutex lets its owner in again
  proxy.fReadRelease();
  auto stranger = std::async(std::launch::async, [&] {
    try {
      mutex.fRelease();
    } catch (RWTHRInternalError const& e) {
      return std::string(e.why());
    }
    return std::string("no exception");
  });
  EXPECT_EQ(stranger.get().rfind("RWMutexLock::release - ReleaseMutex() - ", 0), 0u);
  auto timed = std::async(std::launch::async, [&] { return mutex.fGetRaw().acquire(10ul); });
  EXPECT_EQ(timed.get(), 0);
  proxy.fWriteRelease();
  EXPECT_TRUE(mutex.fGetRaw().tryAcquire());
  mutex.fRelease();
}

TEST(DebugGuard, UseAfterDestructionIsReportedAndCarriesOn) {
  corvanth::test::cLogCapture capture("Error");
  alignas(cMutex) unsigned char storage[sizeof(cMutex)];
  cMutex* mutex = new (storage) cMutex;
  mutex->fAcquire();
  mutex->fRelease();
  EXPECT_TRUE(capture.fRecords().empty());
  mutex->~cMutex();
  mutex->fAcquire();  // the raw mutex is made again on use
  mutex->fRelease();
  auto reports = capture.fWithText("Debug section failed");
  EXPECT_EQ(reports.size(), 3u);  // two checks in acquire, one in release
  for (auto const& r : reports) EXPECT_EQ(r.source, "DebugSection");
  mutex->~cMutex();
}

TEST(ReadersLocks, ReadersShareAndAFixKeepsThemOut) {
  nParallel::nImplementation_sho::cReadersWriter rw;
  auto readers = rw();
  readers.fReadAcquire();
  auto second = std::async(std::launch::async, [&] {
    readers.fReadAcquire();  // a second reader gets in beside the first
    readers.fReadRelease();
    return true;
  });
  ASSERT_EQ(second.wait_for(kBound), std::future_status::ready);
  readers.fReadRelease();
  readers.fWriteAcquire();
  readers.fWriteRelease();

  nParallel::nImplementation_sho::cReadersFixer fixer;
  auto fix = fixer();
  EXPECT_TRUE(fix.fFixAcquireOrWait());
  EXPECT_FALSE(fix.fWaitFix(nTime::cDiff::gMilliseconds(5)));
  auto reader = std::async(std::launch::async, [&] {
    fix.fReadAcquire();  // waits for the fix to end
    fix.fReadRelease();
  });
  fix.fFixRelease();
  ASSERT_EQ(reader.wait_for(kBound), std::future_status::ready);
  EXPECT_TRUE(fix.fWaitFix(nTime::cDiff::gMilliseconds(5)));
  fix.fWaitFix();
  EXPECT_TRUE(fix.fFixAcquireOrWait());
  fix.fFixRelease();
}

TEST(Event, ReleasesWaitersOnceSet) {
  nParallel::nImplementation_sho::cEvent event;
  EXPECT_FALSE(event.fIsSet());
  EXPECT_FALSE(event.fWait(nTime::cDiff::gMilliseconds(2)));
  auto waiter = std::async(std::launch::async, [&] { event.fWait(); });
  event.fSet();
  ASSERT_EQ(waiter.wait_for(kBound), std::future_status::ready);
  EXPECT_TRUE(event.fIsSet());
  EXPECT_TRUE(event.fWait(nTime::cDiff::gMilliseconds(2)));
}

TEST(BlockLimit, DoublesUpToTheCeilingOrGivesNothing) {
  using nParallel::nImplementation_sho::cBlockLimitExp_debug;
  cBlockLimitExp_debug limit(nTime::cDiff::gMilliseconds(10), 0, nTime::cDiff::gMilliseconds(35));
  cBlockLimitExp_debug copy = limit;
  std::int64_t expected[] = {10, 20, 35, 35};
  for (std::int64_t ms : expected) {
    auto got = limit();
    ASSERT_TRUE(got.fHas());
    EXPECT_EQ(nTime::gMillisecondsInt(got.fGet()), ms);
  }
  EXPECT_EQ(nTime::gMillisecondsInt(copy().fGet()), 10);  // copies carry the call count as it stood
  cBlockLimitExp_debug none(nTime::cDiff(), 0, nTime::cDiff());
  EXPECT_FALSE(none().fHas());
}

}  // namespace
