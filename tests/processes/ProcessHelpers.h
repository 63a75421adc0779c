// Real processes for the process tests: children that live until they are
// killed, each with a handle and a pidfd of the test's own to see it end.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "FrimLog.h"

namespace corvanth::test {

struct cChild {
  pid_t pid = -1;
  int pidfd = -1;          // the test's own view of the child
  void* handle = nullptr;  // made when it was started
};

// True once the process of `pidfd` has ended, waiting at most `milliseconds`.
bool gEnded(int pidfd, int milliseconds = 0);
// True once `done` holds, asking every 10 ms for at most `milliseconds`.
bool gWithin(int milliseconds, std::function<bool()> const& done);
// Runs `body` in a child process; its result, or -1 when it did not exit.
int gInChild(std::function<int()> const& body);

// Children started by a test; what nobody reaped yet is killed at the end.
class cChildren {
 public:
  cChildren() = default;
  cChildren(cChildren const&) = delete;
  cChildren& operator=(cChildren const&) = delete;
  ~cChildren();
  // A child that waits for a signal; `exitAtOnce` makes it _exit(0) instead.
  cChild fStart(bool exitAtOnce = false);

 private:
  std::vector<cChild> mChildren;
};

// Notes, for each kill statement, its text and which children had ended then.
class cDeathWitness : public nLog::iTargetUnit {
 public:
  explicit cDeathWitness(std::vector<cChild> watched) : mWatched(std::move(watched)) {}
  struct cSeen {
    std::string text;
    std::string gone;  // one character per watched child: 'x' ended, '-' alive
    bool operator==(cSeen const&) const = default;
  };
  std::vector<cSeen> mSeen;

 private:
  void vCommitRecord(nLog::cRecord const& record) override;
  std::vector<cChild> mWatched;
};

// The text "<message>\t<handle>" that the kill step writes for a child.
std::string gKillText(char const* message, cChild const& child);

}  // namespace corvanth::test
