// Real child processes for the process tests: sleepers that live until they
// are killed, each with a life pipe whose read end hangs up when it dies.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "FrimLog.h"

namespace corvanth::test {

struct cChild {
  pid_t pid = -1;
  int lifeFd = -1;  // read end; hangs up when the child is gone
  void* fHandle() const;
};

// True once the child's life pipe has hung up; never blocks.
bool gIsGone(cChild const& child);
// Blocks until the child has exited and leaves it a zombie.
void gWaitZombie(cChild const& child);

// Children started by a test; whatever is left is killed and reaped at the end.
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

// Notes, for each kill statement, its text and which children were gone at that moment.
class cDeathWitness : public nLog::iTargetUnit {
 public:
  explicit cDeathWitness(std::vector<cChild> watched);
  ~cDeathWitness() override;
  struct cSeen {
    std::string text;
    std::string gone;  // one character per watched child: 'x' gone, '-' alive
    bool operator==(cSeen const&) const = default;
  };
  std::vector<cSeen> fSeen() const { return mSeen; }

 private:
  void vCommitRecord(nLog::cRecord const& record) override;
  std::vector<cChild> mWatched;
  std::vector<cSeen> mSeen;
};

// The text "<message>\t<handle>" that the kill step writes for a child.
std::string gKillText(char const* message, cChild const& child);

}  // namespace corvanth::test
