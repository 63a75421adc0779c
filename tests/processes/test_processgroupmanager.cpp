#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "KRPlatform.h"
#include "LogCapture.h"
#include "ProcessHelpers.h"
#include "processgroupmanager.h"
#include "rwcollstr.h"
#include "rwerr.h"

namespace {

using corvanth::test::cChild;
using corvanth::test::cChildren;
using corvanth::test::cDeathWitness;
using corvanth::test::cLogCapture;
using corvanth::test::gIsGone;
using corvanth::test::gKillText;

// Handles that are never killed: the tests that use them kill nothing.
void* gFakeHandle(std::intptr_t value) { return reinterpret_cast<void*>(value); }

std::vector<std::string> gTexts(std::vector<cDeathWitness::cSeen> const& seen) {
  std::vector<std::string> texts;
  for (auto const& one : seen) texts.push_back(one.text);
  return texts;
}

TEST(ProcessesGroupManager, KillsTheMembersNewestFirstAndFreesTheName) {
  cChildren children;
  cChild const a = children.fStart();
  cChild const b = children.fStart();
  cChild const c = children.fStart();
  ProcessesGroupManager manager;
  RWCString name("workers");
  void* handle = a.fHandle();
  ProcessGroup* const group = manager.AddProcessToGroup(name, handle);
  ASSERT_NE(group, nullptr);
  EXPECT_EQ(group->groupValue, 1);
  handle = b.fHandle();
  EXPECT_EQ(manager.AddProcessToGroup(name, handle), group);
  handle = c.fHandle();
  EXPECT_EQ(manager.AddProcessToGroup(name, handle), group);
  EXPECT_EQ(group->entries(), 3u);
  EXPECT_EQ(static_cast<ProcessInfo*>(group->at(1))->handle, b.fHandle());

  cLogCapture capture;
  cDeathWitness witness({a, b, c});
  ASSERT_TRUE(nLog::gAttachTarget(witness, "Execution"));
  EXPECT_TRUE(manager.TerminateGroup(name));
  nLog::gDetachTarget(witness);

  // At each statement exactly the processes killed so far are gone: C, then B, then A.
  auto const seen = witness.fSeen();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].text, gKillText("gKillProcess(%d) killed", c.fHandle()));
  EXPECT_EQ(seen[0].gone, "--x");
  EXPECT_EQ(seen[1].text, gKillText("gKillProcess(%d) killed", b.fHandle()));
  EXPECT_EQ(seen[1].gone, "-xx");
  EXPECT_EQ(seen[2].text, gKillText("gKillProcess(%d) killed", a.fHandle()));
  EXPECT_EQ(seen[2].gone, "xxx");
  EXPECT_EQ(capture.fWithText("ProcessesGroupManager::TerminateGroup terminating\tworkers").size(),
            1u);
  EXPECT_EQ(manager.GetProcessGroup(name), nullptr);
  EXPECT_EQ(manager.entries(), 0u);

  // The name can be used anew, with a fresh group.
  void* fake = gFakeHandle(1 << 30);
  ProcessGroup* const again = manager.AddProcessToGroup(name, fake, 0);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->groupValue, 0);
  EXPECT_EQ(again->RemoveProcess(0), fake);
  EXPECT_TRUE(manager.TerminateGroup(name));
}

TEST(ProcessesGroupManager, AMemberThatEndedByItselfFailsTheGroupButTheOthersAreKilled) {
  cChildren children;
  cChild const a = children.fStart();
  cChild const b = children.fStart(true);
  cChild const c = children.fStart();
  corvanth::test::gWaitZombie(b);
  ProcessesGroupManager manager;
  RWCString name("mixed");
  for (cChild const* child : {&a, &b, &c}) {
    void* handle = child->fHandle();
    ASSERT_NE(manager.AddProcessToGroup(name, handle), nullptr);
  }
  cDeathWitness witness({a, b, c});
  ASSERT_TRUE(nLog::gAttachTarget(witness, "Execution"));
  EXPECT_FALSE(manager.TerminateGroup(name));
  nLog::gDetachTarget(witness);
  EXPECT_EQ(gTexts(witness.fSeen()),
            (std::vector<std::string>{
                gKillText("gKillProcess(%d) killed", c.fHandle()),
                gKillText("gKillProcess(%d) already terminated", b.fHandle()),
                gKillText("gKillProcess(%d) killed", a.fHandle()),
            }));
  EXPECT_TRUE(gIsGone(a) && gIsGone(c));
  EXPECT_EQ(manager.GetProcessGroup(name), nullptr);
}

TEST(ProcessesGroupManager, AnUnknownGroupGivesFalseAndIsReported) {
  cLogCapture capture;
  ProcessesGroupManager manager;
  RWCString name("nobody");
  EXPECT_FALSE(manager.TerminateGroup(name));
  auto const reports =
      capture.fWithText("ProcessesGroupManager::TerminateGroup unknown group \tnobody");
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].tag, "Error");
  EXPECT_EQ(reports[0].source, "processgroupmanager");

  // Names are exact: another case is another group.
  void* fake = gFakeHandle(1 << 30);
  ProcessGroup* const group = manager.AddProcessToGroup(name, fake);
  RWCString upper("NOBODY");
  EXPECT_EQ(manager.GetProcessGroup(upper), nullptr);
  EXPECT_EQ(capture.fWithText("ProcessesGroupManager::AddProcessToGroup \tnobody\t").size(), 1u);
  group->RemoveProcess(0);
  EXPECT_TRUE(manager.TerminateGroup(name));
  EXPECT_FALSE(manager.TerminateGroup(name));
}

TEST(ProcessGroup, RemoveAndValueKeepTheirOrderAndKillNothing) {
  cLogCapture capture;
  ProcessesGroupManager manager;
  RWCString name("values");
  void* older = gFakeHandle(1 << 29);
  void* younger = gFakeHandle(1 << 30);
  ProcessGroup* const group = manager.AddProcessToGroup(name, older, 0);
  EXPECT_EQ(manager.AddProcessToGroup(name, younger), group);
  EXPECT_EQ(group->groupValue, 0);  // the two-argument form leaves the value
  EXPECT_EQ(manager.AddProcessToGroup(name, younger, 7), group);
  EXPECT_EQ(group->groupValue, 7);
  EXPECT_EQ(group->entries(), 3u);  // a handle may stand twice

  EXPECT_EQ(group->RemoveProcess(0), older);
  EXPECT_EQ(static_cast<ProcessInfo*>(group->at(0))->handle, younger);
  EXPECT_THROW(group->RemoveProcess(2), RWBoundsErr);
  EXPECT_THROW(group->TerminateElementZ0(-1), RWBoundsErr);
  group->RemoveProcess(1);
  group->RemoveProcess(0);
  EXPECT_TRUE(manager.TerminateGroup(name));
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
  cChild const kept = children.fStart();
  cChild const killed = children.fStart();
  auto* manager = new ProcessesGroupManager;
  RWCString name("partial");
  void* handle = kept.fHandle();
  ProcessGroup* const group = manager->AddProcessToGroup(name, handle);
  handle = killed.fHandle();
  manager->AddProcessToGroup(name, handle);
  EXPECT_TRUE(group->TerminateElementZ0(1));
  EXPECT_TRUE(gIsGone(killed));
  EXPECT_EQ(group->entries(), 1u);

  // A copy shares key and group; it is what lets the test release them afterwards.
  ProcessesGroupManager keep(*manager);
  delete manager;
  EXPECT_FALSE(gIsGone(kept));
  EXPECT_EQ(capture.fWithText("gKillProcess").size(), 1u);
  EXPECT_EQ(keep.GetProcessGroup(name), group);
  group->clearAndDestroy();
  keep.clearAndDestroy();
}

// The kill of the middle member is refused; the caller runs as another user.
TEST(ProcessesGroupManager, AMemberThatCannotBeKilledFailsTheGroupButTheOthersAreKilled) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a caller of another user";
  cChildren children;
  cChild const b = children.fStart();
  pid_t const caller = ::fork();
  ASSERT_GE(caller, 0);
  if (caller == 0) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(100);
    cChild const a = corvanth::test::gStartChild();
    cChild const c = corvanth::test::gStartChild();
    ProcessesGroupManager manager;
    RWCString name("refused");
    for (cChild const* child : {&a, &b, &c}) {
      void* handle = child->fHandle();
      manager.AddProcessToGroup(name, handle);
    }
    int code = 0;
    if (manager.TerminateGroup(name)) code |= 1;
    if (manager.GetProcessGroup(name) != nullptr) code |= 2;
    if (!gIsGone(a) || !gIsGone(c)) code |= 4;
    ::_exit(code);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(caller, &status, 0), caller);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(gIsGone(b));
}

}  // namespace
