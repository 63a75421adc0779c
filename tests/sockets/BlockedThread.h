// Tells when another thread of this process sits in a blocking system call,
// so that a test wakes a thread that is really blocked, without sleeping.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>
#include <thread>

namespace corvanth::test {

inline long gThreadId() { return static_cast<long>(::syscall(SYS_gettid)); }

// The number of the system call that thread is in, or -1 when it runs or the
// kernel does not say.
inline long gSyscallOf(long thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/syscall");
  std::string first;
  if (!(file >> first) || first == "running") return -1;
  try {
    return std::stol(first);
  } catch (...) {
    return -1;
  }
}

// True once thread sleeps inside one of the calls (the thread id arrives
// through an atomic that the thread sets itself, 0 until then); false after
// the bound.
inline bool gWaitUntilBlocked(std::atomic<long> const& thread, std::initializer_list<long> calls,
                              std::chrono::seconds bound = std::chrono::seconds(20)) {
  auto const end = std::chrono::steady_clock::now() + bound;
  while (std::chrono::steady_clock::now() < end) {
    long const id = thread.load();
    if (id != 0) {
      long const call = gSyscallOf(id);
      for (long wanted : calls) {
        if (call == wanted) return true;
      }
    }
    std::this_thread::yield();
  }
  return false;
}

}  // namespace corvanth::test
