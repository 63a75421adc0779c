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

// Adds each child to the named group and gives the group of the last.
ProcessGroup* gAdd(ProcessesGroupManager& manager, RWCString& name,
                   std::vector<cChild> const& children) {
  ProcessGroup* group = nullptr;
  for (cChild const& child : children) {
    void* handle = child.fHandle();
    group = manager.AddProcessToGroup(name, handle);
  }
  return group;
}

// Terminates the group under a witness of the watched children's deaths.
tSeen gTerminate(ProcessesGroupManager& manager, RWCString& name, std::vector<cChild> watched,
                 bool expected) {
  cDeathWitness witness(std::move(watched));
  EXPECT_TRUE(nLog::gAttachTarget(witness, "Execution"));
  EXPECT_EQ(manager.TerminateGroup(name), expected);
  nLog::gDetachTarget(witness);
  return witness.fSeen();
}

// Handles that are never killed: the tests that use them kill nothing.
void* gFakeHandle(int shift) { return reinterpret_cast<void*>(std::intptr_t{1} << shift); }

TEST(ProcessesGroupManager, KillsTheMembersNewestFirstAndFreesTheName) {
  cChildren children;
  cChild const a = children.fStart(), b = children.fStart(), c = children.fStart();
  ProcessesGroupManager manager;
  RWCString name("workers");
  ProcessGroup* const group = gAdd(manager, name, {a, b, c});
  ASSERT_NE(group, nullptr);
  EXPECT_EQ(group->groupValue, 1);
  EXPECT_EQ(group->entries(), 3u);
  EXPECT_EQ(static_cast<ProcessInfo*>(group->at(1))->handle, b.fHandle());

  cLogCapture capture;
  // At each statement exactly the processes killed so far are gone: C, then B, then A.
  EXPECT_EQ(gTerminate(manager, name, {a, b, c}, true),
            (tSeen{{gKillText("gKillProcess(%d) killed", c), "--x"},
                   {gKillText("gKillProcess(%d) killed", b), "-xx"},
                   {gKillText("gKillProcess(%d) killed", a), "xxx"}}));
  EXPECT_EQ(capture.fWithText("ProcessesGroupManager::TerminateGroup terminating\tworkers").size(),
            1u);
  EXPECT_EQ(manager.GetProcessGroup(name), nullptr);

  // The name can be used anew, with a fresh group.
  void* fake = gFakeHandle(30);
  ProcessGroup* const again = manager.AddProcessToGroup(name, fake, 0);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->groupValue, 0);
  EXPECT_EQ(again->RemoveProcess(0), fake);
  EXPECT_TRUE(manager.TerminateGroup(name));
}

TEST(ProcessesGroupManager, AMemberThatEndedByItselfFailsTheGroupButTheOthersAreKilled) {
  cChildren children;
  cChild const a = children.fStart(), b = children.fStart(true), c = children.fStart();
  gWaitZombie(b);
  ProcessesGroupManager manager;
  RWCString name("mixed");
  gAdd(manager, name, {a, b, c});
  EXPECT_EQ(gTerminate(manager, name, {a, c}, false),
            (tSeen{{gKillText("gKillProcess(%d) killed", c), "-x"},
                   {gKillText("gKillProcess(%d) already terminated", b), "-x"},
                   {gKillText("gKillProcess(%d) killed", a), "xx"}}));
  EXPECT_EQ(manager.GetProcessGroup(name), nullptr);
}

TEST(ProcessesGroupManager, UnknownAndTakenNamesAreReportedAndGroupsKeepValueAndOrder) {
  cLogCapture capture;
  ProcessesGroupManager manager;
  RWCString name("nobody");
  EXPECT_FALSE(manager.TerminateGroup(name));
  auto const reports =
      capture.fWithText("ProcessesGroupManager::TerminateGroup unknown group \tnobody");
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].tag, "Error");
  EXPECT_EQ(reports[0].source, "processgroupmanager");

  void* older = gFakeHandle(29);
  void* younger = gFakeHandle(30);
  ProcessGroup* const group = manager.AddProcessToGroup(name, older, 0);
  EXPECT_EQ(manager.AddProcessToGroup(name, younger), group);
  EXPECT_EQ(group->groupValue, 0);  // the two-argument form leaves the value
  EXPECT_EQ(manager.AddProcessToGroup(name, younger, 7), group);
  EXPECT_EQ(group->groupValue, 7);
  EXPECT_EQ(capture.fWithText("ProcessesGroupManager::AddProcessToGroup \tnobody\t").size(), 3u);

  EXPECT_EQ(group->RemoveProcess(0), older);
  EXPECT_EQ(static_cast<ProcessInfo*>(group->at(0))->handle, younger);
  group->RemoveProcess(1);
  group->RemoveProcess(0);
  EXPECT_TRUE(manager.TerminateGroup(name));
  EXPECT_FALSE(manager.TerminateGroup(name));
  EXPECT_TRUE(capture.fWithText("gKillProcess").empty());

  // A name stored without a group refuses a new one.
  manager.insert(new RWCollectableString("taken"));
  RWCString taken("taken");
  EXPECT_EQ(manager.AddProcessToGroup(taken, older, 3), nullptr);
  EXPECT_EQ(
      capture.fWithText("ProcessesGroupManager::AddProcessToGroup already in\ttaken\t").size(), 1u);
  manager.clearAndDestroy();
}

TEST(ProcessGroup, TerminateElementKillsOneAndDestroyingTheManagerKillsNone) {
  cLogCapture capture;
  cChildren children;
  cChild const kept = children.fStart(), killed = children.fStart();
  auto* manager = new ProcessesGroupManager;
  RWCString name("partial");
  ProcessGroup* const group = gAdd(*manager, name, {kept, killed});
  EXPECT_TRUE(group->TerminateElementZ0(1));
  EXPECT_TRUE(gIsGone(killed));
  EXPECT_EQ(group->entries(), 1u);

  // A copy shares key and group; it is what lets the test release them afterwards.
  ProcessesGroupManager keep(*manager);
  delete manager;
  EXPECT_FALSE(gIsGone(kept));
  EXPECT_EQ(capture.fWithText("gKillProcess").size(), 1u);
  group->clearAndDestroy();
  keep.clearAndDestroy();
}

}  // namespace
