// The host service: what corvanth does when the service manager starts it
// with no arguments. It serves messages as `corvanth serve` does, on the port
// that the setting CORVANTH_SERVICE_PORT gives, and tells the manager when
// it listens (READY=1) and when it has stopped serving (STOPPING=1). SIGTERM,
// the manager's stop, ends it cleanly with exit status 0.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "KREnvironment.h"
#include "Scm.h"
#include "corvanth_host.h"
#include "corvanth_net.h"

namespace nCorvanthTool {

namespace {

constexpr char kPortSetting[] = "CORVANTH_SERVICE_PORT";

void gWriteAll(int to, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t written = write(to, text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    done += static_cast<std::size_t>(written);
  }
}

// Hands serve's lines on to the real standard output and says READY=1 once
// the listening line went by: then a client can connect.
void gRelay(int from, int to) {
  std::string line;
  bool ready = false;
  char buffer[4096];
  for (;;) {
    const ssize_t got = read(from, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    for (ssize_t at = 0; at < got; ++at) {
      line += buffer[at];
      if (buffer[at] != '\n') continue;
      gWriteAll(to, line);
      if (!ready && line.rfind("listening on ", 0) == 0) {
        ready = true;
        gNotifyServiceManager("READY=1");
      }
      line.clear();
    }
  }
  gWriteAll(to, line);
}

}  // namespace

int gHostService() {
  // The stop signals stay blocked in every thread; serve's watcher takes them.
  sigset_t stops;
  sigemptyset(&stops);
  sigaddset(&stops, SIGINT);
  sigaddset(&stops, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stops, nullptr);

  MXEnvContainerClass settings;
  const char* const port = settings.MXEGetEnv(kPortSetting);
  if (port == nullptr || *port == '\0') {
    std::fprintf(stderr, "corvanth: the host service needs %s in the settings\n", kPortSetting);
    return 1;
  }
  int relay[2];
  const int output = dup(STDOUT_FILENO);
  if (output < 0 || pipe2(relay, O_CLOEXEC) != 0) {
    std::fprintf(stderr, "corvanth: the host service cannot watch its output: %s\n",
                 std::strerror(errno));
    return 1;
  }
  std::fflush(stdout);
  dup2(relay[1], STDOUT_FILENO);
  close(relay[1]);
  std::thread relayer(gRelay, relay[0], output);

  std::vector<std::string> words = {"corvanth", "serve", "--port", port};
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  const int status = nCorvanthTool::gServe(static_cast<int>(words.size()), arguments.data());
  gNotifyServiceManager("STOPPING=1");

  // Giving standard output back closes the pipe, which ends the relay.
  std::fflush(stdout);
  dup2(output, STDOUT_FILENO);
  relayer.join();
  close(relay[0]);
  close(output);
  return status;
}

}  // namespace nCorvanthTool
