// Helpers of the TLS tests: the certificates, made once per test program into
// a temporary directory, and real `openssl s_server` / `s_client` peers with
// their standard input and output in hand.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "SocketKit.h"

extern char** environ;

namespace corvanth::test {

namespace fs = std::filesystem;

// The directory the certificate script wrote into; removed at exit.
inline std::string const& gCertificates() {
  struct cDirectory {
    std::string mPath;
    cDirectory() {
      char pattern[] = "/tmp/corvanth-tls-XXXXXX";
      mPath = mkdtemp(pattern);
      std::string const command = std::string(CORVANTH_CERT_SCRIPT) + " " + mPath + " >/dev/null 2>&1";
      if (std::system(command.c_str()) != 0) std::fprintf(stderr, "certificate script failed\n");
    }
    ~cDirectory() {
      std::error_code ignored;
      fs::remove_all(mPath, ignored);
    }
  };
  static cDirectory const directory;
  return directory.mPath;
}

// A certificate directory named name, holding copies: file name -> source
// relative to the certificate directory.
inline std::string gCompose(std::string const& name, std::map<std::string, std::string> const& files) {
  fs::path const directory = fs::path(gCertificates()) / name;
  fs::create_directories(directory);
  for (auto const& [file, source] : files) {
    fs::copy_file(fs::path(gCertificates()) / source, directory / file,
                  fs::copy_options::overwrite_existing);
  }
  return directory.string();
}

// A port on 127.0.0.1 that was free a moment ago.
inline unsigned short gFreePort() {
  int const probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
  getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
  close(probe);
  return ntohs(address.sin_port);
}

// True once something listens on 127.0.0.1:port, as /proc tells; false after the bound.
inline bool gWaitUntilListening(unsigned short port) {
  char wanted[32];
  std::snprintf(wanted, sizeof wanted, "0100007F:%04X 00000000:0000 0A", port);
  auto const end = std::chrono::steady_clock::now() + kBound;
  while (std::chrono::steady_clock::now() < end) {
    std::ifstream table("/proc/net/tcp");
    std::string line;
    while (std::getline(table, line)) {
      if (line.find(wanted) != std::string::npos) return true;
    }
    std::this_thread::yield();
  }
  return false;
}

// An `openssl` process: its standard input is ours to write, its standard
// output ours to read; standard error goes nowhere.
class cOpenssl {
 public:
  explicit cOpenssl(std::vector<std::string> arguments) {
    int in[2], out[2];
    if (pipe(in) != 0 || pipe(out) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    for (int end : {in[0], in[1], out[0], out[1]}) posix_spawn_file_actions_addclose(&actions, end);
    arguments.insert(arguments.begin(), "openssl");
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    if (posix_spawnp(&mPid, "openssl", &actions, nullptr, argv.data(), environ) != 0) mPid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    mInput = in[1];
    mOutput = out[0];
  }
  cOpenssl(cOpenssl const&) = delete;
  cOpenssl& operator=(cOpenssl const&) = delete;
  ~cOpenssl() {
    fCloseInput();
    if (mPid > 0) {
      kill(mPid, SIGKILL);
      waitpid(mPid, nullptr, 0);
    }
    close(mOutput);
  }

  bool fWrite(std::string const& bytes) {
    return ::write(mInput, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  }
  void fCloseInput() {
    if (mInput >= 0) close(std::exchange(mInput, -1));
  }
  // What the process wrote, once there are at least count bytes, or at its end or the bound.
  std::string fRead(std::size_t count) {
    auto const end = std::chrono::steady_clock::now() + kBound;
    while (mOutputSoFar.size() < count) {
      auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      pollfd entry{mOutput, POLLIN, 0};
      if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) <= 0) break;
      char buffer[65536];
      ssize_t const got = ::read(mOutput, buffer, sizeof buffer);
      if (got <= 0) break;
      mOutputSoFar.append(buffer, static_cast<std::size_t>(got));
    }
    return mOutputSoFar;
  }

 private:
  pid_t mPid = -1;
  int mInput = -1;
  int mOutput = -1;
  std::string mOutputSoFar;
};

}  // namespace corvanth::test
