#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "ProcessHelpers.h"
#include "processgroupmanager.h"
#include "rwcollstr.h"

namespace {

using namespace corvanth::test;

std::string gKillText(char const* message, cChild const& child) {
  std::ostringstream text;
  text << message << '\t' << child.handle;
  return text.str();
}

// Handles of no process: the tests that use them kill nothing.
void* gFakeHandle(int shift) { return reinterpret_cast<void*>(std::intptr_t{1} << shift); }

TEST(ProcessesGroupManager, GroupsByNameAreKilledNewestFirstAndOnlyWhenTerminated) {
  cLogCapture capture;
  cChildren children;
  cChild const a = children.fStart(), b = children.fStart(true), c = children.fStart();
  ASSERT_TRUE(gEnded(b.pidfd, 10000));
  auto* manager = new ProcessesGroupManager;
  RWCString workers("workers");
  for (void* handle : {a.handle, b.handle, c.handle}) manager->AddProcessToGroup(workers, handle);
  ASSERT_NE(manager->GetProcessGroup(workers), nullptr);
  EXPECT_EQ(manager->GetProcessGroup(workers)->groupValue, 1);
  EXPECT_FALSE(manager->TerminateGroup(workers));  // the ended member fails the group
  std::vector<std::string> kills;
  for (nLog::cRecord const& record : capture.fWithText("gKillProcess"))
    kills.push_back(record.text);
  EXPECT_EQ(kills, (std::vector<std::string>{gKillText("gKillProcess(%d) killed", c),
                                             gKillText("gKillProcess(%d) already terminated", b),
                                             gKillText("gKillProcess(%d) killed", a)}));
  EXPECT_TRUE(gEnded(a.pidfd) && gEnded(c.pidfd));
  EXPECT_EQ(capture.fWithText("TerminateGroup terminating\tworkers").size(), 1u);
  EXPECT_EQ(manager->GetProcessGroup(workers), nullptr);

  RWCString name("nobody");
  EXPECT_FALSE(manager->TerminateGroup(name));
  auto const reports = capture.fWithText("TerminateGroup unknown group \tnobody");
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].tag + ' ' + reports[0].source, "Error processgroupmanager");

  void *older = gFakeHandle(29), *younger = gFakeHandle(30);
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
  // A name stored without a group refuses a new one.
  manager->insert(new RWCollectableString("taken"));
  RWCString taken("taken");
  EXPECT_EQ(manager->AddProcessToGroup(taken, older, 3), nullptr);
  EXPECT_EQ(capture.fWithText("AddProcessToGroup already in\ttaken\t").size(), 1u);

  // One element killed; the manager's end kills nothing.
  cChild const kept = children.fStart(), killed = children.fStart();
  RWCString partial("partial");
  void *keptHandle = kept.handle, *killedHandle = killed.handle;
  ProcessGroup* const two = manager->AddProcessToGroup(partial, keptHandle);
  manager->AddProcessToGroup(partial, killedHandle);
  EXPECT_TRUE(two->TerminateElementZ0(1));
  EXPECT_TRUE(gEnded(killed.pidfd));
  ProcessesGroupManager keep(*manager);  // shares keys and groups, for the test to release them
  delete manager;
  EXPECT_FALSE(gEnded(kept.pidfd));
  EXPECT_EQ(capture.fWithText("gKillProcess").size(), 4u);  // the workers' three and this one
  two->clearAndDestroy();
  keep.clearAndDestroy();
}

}  // namespace
