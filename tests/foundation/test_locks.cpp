#include <atomic>
#include <chrono>
#include <future>
#include <new>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "Synch.h"

namespace {

using nParallel::nImplementation_sho::cMutex;
using nParallel::nImplementation_sho::cMutexRecursive;
using nParallel::nImplementation_sho::tAcquireResult;

constexpr auto kBound = std::chrono::seconds(20);

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
  std::atomic<bool> done{false};
  auto stranger = std::async(std::launch::async, [&] {
    std::string why = "no exception";
    try {
      mutex.fRelease();
    } catch (RWTHRIllegalUsage const& e) {
      why = e.why();
    }
    done = true;
    return why;
  });
  for (long i = 0; i < 100000000 && !done.load(); ++i) (void)mutex.fAlreadyAcquiredNTS();  // the owner's own read
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
  auto stranger = std::async(std::launch::async, [&] {
    try {
      mutex.fRelease();
    } catch (RWTHRInternalError const& e) {
      return std::string(e.why()).substr(0, 40);
    }
    return std::string("no exception");
  });
  EXPECT_EQ(stranger.get(), "RWMutexLock::release - ReleaseMutex() - ");
  EXPECT_EQ(std::async(std::launch::async, [&] { return mutex.fGetRaw().acquire(10ul); }).get(), 0);
  proxy.fWriteRelease();
  EXPECT_TRUE(mutex.fGetRaw().tryAcquire());
  mutex.fRelease();
}

TEST(DebugGuard, UseAfterDestructionIsReportedAndAHeldMutexIsLetGoFirst) {
  corvanth::test::cLogCapture capture("Error");
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

}  // namespace
