// Helpers of the TLS tests: the certificates, made once per test program into
// a temporary directory, and real `openssl s_server` / `s_client` peers with
// their standard input and output in hand (cChildProcess).
#pragma once

#include <sys/socket.h>

#include <cerrno>
#include <filesystem>
#include <sstream>

#include "ChildProcess.h"
#include "SocketKit.h"

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

// A certificate directory named name, holding copies of certificate files:
// "file" or "file=source", separated by spaces.
inline std::string gCompose(std::string const& name, std::string const& files) {
  fs::path const directory = fs::path(gCertificates()) / name;
  fs::create_directories(directory);
  std::istringstream list(files);
  for (std::string file; list >> file;) {
    std::size_t const equals = file.find('=');
    std::string const source = equals == std::string::npos ? file : file.substr(equals + 1);
    fs::copy_file(fs::path(gCertificates()) / source, directory / file.substr(0, equals),
                  fs::copy_options::overwrite_existing);
  }
  return directory.string();
}

// A port on 127.0.0.1 that was free a moment ago.
inline unsigned short gFreePort() {
  nSock::cHandleValid const probe = nSock::gCreateListenerOn("127.0.0.1", 0);
  unsigned short const port = nSock::gLocalPort(probe);
  nSock::gDelete(probe);
  return port;
}

// True once something listens on 127.0.0.1:port, as /proc tells; false after the bound.
inline bool gWaitUntilListening(unsigned short port) {
  char wanted[32];
  std::snprintf(wanted, sizeof wanted, "0100007F:%04X 00000000:0000 0A", port);
  auto const end = std::chrono::steady_clock::now() + kBound;
  while (std::chrono::steady_clock::now() < end) {
    std::ifstream table("/proc/net/tcp");
    for (std::string line; std::getline(table, line);) {
      if (line.find(wanted) != std::string::npos) return true;
    }
    std::this_thread::yield();
  }
  return false;
}

// Open at the far end: every byte that came is taken and no end of stream follows.
inline bool gPeerOpen(int descriptor) {
  char buffer[4096];
  for (int round = 0; round < 1000; ++round) {
    ssize_t const got = recv(descriptor, buffer, sizeof buffer, MSG_DONTWAIT);
    if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
    if (got == 0) return false;
  }
  return false;
}

inline int gDescriptor(StreamSocket const& socket) { return gHandleOf(socket).fHolder()->fDescriptor(); }

}  // namespace corvanth::test
