#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "ProcessHelpers.h"
#include "processgroupmanager.h"
#include "rwcollstr.h"

namespace {

using namespace corvanth::test;
using tSeen = std::vector<cDeathWitness::cSeen>;

// Handles of no process: the tests that use them kill nothing.
void* gFakeHandle(int shift) { return reinterpret_cast<void*>(std::intptr_t{1} << shift); }

TEST(ProcessesGroupManager, KillsNewestFirstGoesOnPastAnEndedMemberAndFreesTheName) {
  cChildren children;
  cChild const a = children.fStart(), b = children.fStart(true), c = children.fStart();
  ASSERT_TRUE(gEnded(b.pidfd, 10000));
  ProcessesGroupManager manager;
  RWCString name("workers");
  ProcessGroup* group = nullptr;
  for (cChild const& child : {a, b, c}) {
    void* handle = child.handle;
    group = manager.AddProcessToGroup(name, handle);
  }
  ASSERT_NE(group, nullptr);
  EXPECT_EQ(group->groupValue, 1);
  EXPECT_EQ(static_cast<ProcessInfo*>(group->at(1))->handle, b.handle);

  cLogCapture capture;
  cDeathWitness witness({a, b, c});
  ASSERT_TRUE(nLog::gAttachTarget(witness, "Execution"));
  // The ended member fails the group; at each statement exactly those killed so far are gone.
  EXPECT_FALSE(manager.TerminateGroup(name));
  nLog::gDetachTarget(witness);
  EXPECT_EQ(witness.mSeen, (tSeen{{gKillText("gKillProcess(%d) killed", c), "-xx"},
                                  {gKillText("gKillProcess(%d) already terminated", b), "-xx"},
                                  {gKillText("gKillProcess(%d) killed", a), "xxx"}}));
  EXPECT_EQ(capture.fWithText("ProcessesGroupManager::TerminateGroup terminating\tworkers").size(),
            1u);
  EXPECT_EQ(manager.GetProcessGroup(name), nullptr);
  void* fake = gFakeHandle(30);
  ProcessGroup* const again = manager.AddProcessToGroup(name, fake, 0);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->groupValue, 0);
  EXPECT_EQ(again->RemoveProcess(0), fake);
  EXPECT_TRUE(manager.TerminateGroup(name));
}

TEST(ProcessesGroupManager, NamesValuesRemovalAndOneElementKilledWhileTheManagerKillsNone) {
  cLogCapture capture;
  auto* manager = new ProcessesGroupManager;
  RWCString name("nobody");
  EXPECT_FALSE(manager->TerminateGroup(name));
  auto const reports =
      capture.fWithText("ProcessesGroupManager::TerminateGroup unknown group \tnobody");
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].tag, "Error");
  EXPECT_EQ(reports[0].source, "processgroupmanager");

  void* older = gFakeHandle(29);
  void* younger = gFakeHandle(30);
  ProcessGroup* const group = manager->AddProcessToGroup(name, older, 0);
  EXPECT_EQ(manager->AddProcessToGroup(name, younger), group);
  EXPECT_EQ(group->groupValue, 0);  // the two-argument form leaves the value
  EXPECT_EQ(manager->AddProcessToGroup(name, younger, 7), group);
  EXPECT_EQ(group->groupValue, 7);
  EXPECT_EQ(capture.fWithText("ProcessesGroupManager::AddProcessToGroup \tnobody\t").size(), 3u);
  EXPECT_EQ(group->RemoveProcess(0), older);
  EXPECT_EQ(static_cast<ProcessInfo*>(group->at(0))->handle, younger);
  group->RemoveProcess(1);
  group->RemoveProcess(0);
  EXPECT_TRUE(manager->TerminateGroup(name));
  EXPECT_FALSE(manager->TerminateGroup(name));
  EXPECT_TRUE(capture.fWithText("gKillProcess").empty());

  // A name stored without a group refuses a new one.
  manager->insert(new RWCollectableString("taken"));
  RWCString taken("taken");
  EXPECT_EQ(manager->AddProcessToGroup(taken, older, 3), nullptr);
  EXPECT_EQ(
      capture.fWithText("ProcessesGroupManager::AddProcessToGroup already in\ttaken\t").size(), 1u);

  cChildren children;
  cChild const kept = children.fStart(), killed = children.fStart();
  RWCString partial("partial");
  void *keptHandle = kept.handle, *killedHandle = killed.handle;
  ProcessGroup* const two = manager->AddProcessToGroup(partial, keptHandle);
  manager->AddProcessToGroup(partial, killedHandle);
  EXPECT_TRUE(two->TerminateElementZ0(1));
  EXPECT_TRUE(gEnded(killed.pidfd));
  // A copy shares keys and groups; it is what lets the test release them afterwards.
  ProcessesGroupManager keep(*manager);
  delete manager;
  EXPECT_FALSE(gEnded(kept.pidfd));
  EXPECT_EQ(capture.fWithText("gKillProcess").size(), 1u);
  two->clearAndDestroy();
  keep.clearAndDestroy();
}

}  // namespace
