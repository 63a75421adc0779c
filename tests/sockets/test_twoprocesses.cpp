// Frames between this process and socket_peer, a process of its own, both ways.
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "SocketKit.h"
#include "streamsocket.h"

extern char** environ;

namespace {

using namespace corvanth::test;
namespace nSock = nCommunication::nSocket;

// The child's first line, read within the bound.
std::string gReadLine(int descriptor) {
  std::string line;
  auto const end = std::chrono::steady_clock::now() + kBound;
  while (line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < end) {
    pollfd entry{descriptor, POLLIN, 0};
    if (poll(&entry, 1, 1000) <= 0) continue;
    char buffer[64];
    ssize_t const got = read(descriptor, buffer, sizeof buffer);
    if (got <= 0) break;
    line.append(buffer, std::size_t(got));
  }
  return line;
}

// The child's exit status, or -1 if it has not ended within the bound.
int gExitStatus(pid_t child) {
  int status = 0;
  int const watch = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
  if (watch >= 0) {
    pollfd entry{watch, POLLIN, 0};
    int const ready = poll(&entry, 1, int(std::chrono::milliseconds(kBound).count()));
    close(watch);
    if (ready <= 0) kill(child, SIGKILL);
  }
  // Without a pidfd the child's own alarm bounds this wait.
  if (waitpid(child, &status, 0) != child) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(StreamSocketProcesses, TwoProcessesExchangeFramesBothWays) {
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  char const* const path = CORVANTH_SOCKET_PEER;
  char* const argv[] = {const_cast<char*>(path), nullptr};
  pid_t child = 0;
  ASSERT_EQ(posix_spawn(&child, path, &actions, nullptr, argv, environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  std::string const line = gReadLine(out[0]);
  close(out[0]);
  ASSERT_EQ(line.rfind("port ", 0), 0u) << line;
  unsigned short const port = static_cast<unsigned short>(std::stoul(line.substr(5)));

  int answered = 0;
  {
    StreamSocket socket;
    socket.Connect("127.0.0.1", port, nSock::cSocketOptions());
    cFrame const greeting = gReceiveFrame(socket);
    ASSERT_TRUE(greeting.mOk);
    EXPECT_EQ(greeting.mType, 77);
    EXPECT_EQ(greeting.mPayload, "hello from pid " + std::to_string(child) + std::string(1, '\0'));

    for (int i = 0; i < 40; ++i) {
      std::string payload(std::size_t(i * i * 97 % 70000), '\0');
      for (std::size_t j = 0; j < payload.size(); ++j) payload[j] = char(j * 7 + i);
      ASSERT_TRUE(
          socket.SendTypedMessageZ2(short(i), short(i * 3), payload.data(), int(payload.size())));
      cFrame const answer = gReceiveFrame(socket);
      ASSERT_TRUE(answer.mOk) << i;
      std::reverse(payload.begin(), payload.end());
      EXPECT_EQ(answer.mType, i);
      EXPECT_EQ(answer.mSubtype, i * 3 + 1);
      EXPECT_EQ(answer.mPayload, payload) << i;
      ++answered;
    }
    socket.CloseSocket();
  }
  EXPECT_EQ(gExitStatus(child), answered);
}

}  // namespace
