// corvanth service: the service configurator from the command line, one
// operation per run, with the configurator's own texts on standard output.
//
// The configurator reports failures only in its text, so the verb watches the
// manager calls underneath it: any failure the configurator printed, or a
// lock it could not take, makes the exit status 1.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "CorvanthServiceConfig.h"
#include "corvanth_host.h"

namespace nCorvanthTool {

std::string gServiceUsage() {
  return "  service <verb> [--name <name> [--display <text>]]\n"
         "               drive the host service through the service manager; <verb> is one of\n"
         "               install, remove [--stop], start, stop, control <code>, status, config,\n"
         "               dependencies, start-type auto|demand, is-installed, is-running\n"
         "               (these two print 1 or 0 and exit 0 only for 1); without --name the\n"
         "               names come from CORVANTH_SERVICE_VERSION_NAME: cvservice<value> and\n"
         "               \"Kestrun Corvanth Service <value>\"; install makes this program the\n"
         "               service's binary, which runs as the host service when the manager\n"
         "               starts it\n";
}

namespace {

int gServiceUsageError(char const* what) {
  std::fprintf(stderr, "corvanth service: %s\n\n%s", what, gServiceUsage().c_str());
  return 2;
}

// A control code as decimal or 0x-hexadecimal digits.
bool gParseCode(char const* text, unsigned long& code) {
  if (text == nullptr || *text < '0' || *text > '9') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long const value = std::strtoull(text, &end, 0);
  if (errno != 0 || *end != '\0' || value > 0xffffffffULL) return false;
  code = static_cast<unsigned long>(value);
  return true;
}

// Watches the real manager's calls for what the configurator reports as a
// failure: a printed error always asks for the system's text, and a lock not
// taken or a start that did not reach the running state print no error.
class cFailureWatch : public cServiceManagerWrapper {
 public:
  cFailureWatch() : cServiceManagerWrapper(gSystemServiceManager()) {}
  bool failed = false;
  DWORD lastState = 0;

  DWORD FormatMessageA(DWORD flags, LPCVOID source, DWORD messageId, DWORD languageId,
                       LPSTR buffer, DWORD size, va_list* arguments) override {
    failed = true;
    return cServiceManagerWrapper::FormatMessageA(flags, source, messageId, languageId, buffer,
                                                  size, arguments);
  }
  SC_LOCK LockServiceDatabase(SC_HANDLE manager) override {
    SC_LOCK const lock = cServiceManagerWrapper::LockServiceDatabase(manager);
    if (lock == nullptr) failed = true;
    return lock;
  }
  BOOL QueryServiceStatus(SC_HANDLE service, LPSERVICE_STATUS status) override {
    BOOL const done = cServiceManagerWrapper::QueryServiceStatus(service, status);
    if (done) lastState = status->dwCurrentState;
    return done;
  }
};

}  // namespace

int gService(int argc, char** argv) {
  if (argc < 3) return gServiceUsageError("no verb given");
  std::string_view const verb = argv[2];
  // The verb's own arguments, then the options.
  int at = 3;
  bool stopFirst = false;
  unsigned long code = 0;
  bool automatic = false;
  if (verb == "remove" && at < argc && std::string_view(argv[at]) == "--stop") {
    stopFirst = true;
    ++at;
  } else if (verb == "control") {
    if (at >= argc || !gParseCode(argv[at], code)) return gServiceUsageError("control needs a numeric code");
    ++at;
  } else if (verb == "start-type") {
    std::string_view const type = at < argc ? argv[at] : "";
    if (type != "auto" && type != "demand") return gServiceUsageError("start-type needs auto or demand");
    automatic = type == "auto";
    ++at;
  } else if (verb != "install" && verb != "remove" && verb != "start" && verb != "stop" &&
             verb != "status" && verb != "config" && verb != "dependencies" &&
             verb != "is-installed" && verb != "is-running") {
    return gServiceUsageError("unknown verb");
  }
  char const* name = nullptr;
  char const* display = nullptr;
  for (; at < argc; at += 2) {
    std::string_view const option = argv[at];
    if (at + 1 >= argc || (option != "--name" && option != "--display"))
      return gServiceUsageError("unknown option or option without its value");
    (option == "--name" ? name : display) = argv[at + 1];
  }
  if (display != nullptr && name == nullptr) return gServiceUsageError("--display needs --name");
  // The configurator's arrays hold 256 bytes of text.
  if ((name != nullptr && std::strlen(name) > 256) || (display != nullptr && std::strlen(display) > 256))
    return gServiceUsageError("names are at most 256 bytes");

  CorvanthServiceConfig config("", "");
  if (name != nullptr) {
    config = CorvanthServiceConfig(name, display != nullptr ? display : name);
  } else if (!config.ResolveCorvanthServiceName()) {
    std::fprintf(stderr,
                 "corvanth service: no service name: give --name or set "
                 "CORVANTH_SERVICE_VERSION_NAME in the environment or kestrun.ini\n");
    return 1;
  }

  cFailureWatch watch;
  gSetServiceManager(&watch);
  if (verb == "is-installed" || verb == "is-running") {
    int const yes = verb == "is-installed" ? config.IsInstalled() : config.IsRunning();
    gSetServiceManager(nullptr);
    std::printf("%d\n", yes);
    return std::fflush(stdout) == 0 && yes == 1 ? 0 : 1;
  }
  if (verb == "install") config.Install(SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, nullptr, nullptr, nullptr);
  else if (verb == "remove") config.Remove(stopFirst ? 1 : 0);
  else if (verb == "start") config.Start();
  else if (verb == "stop") config.Control(SERVICE_CONTROL_STOP);
  else if (verb == "control") config.Control(code);
  else if (verb == "status") config.Status();
  else if (verb == "config") config.GetConfig();
  else if (verb == "dependencies") config.Dependencies();
  else config.ChangeStartType(automatic ? 1 : 0);
  gSetServiceManager(nullptr);
  bool const failed = watch.failed || (verb == "start" && watch.lastState != SERVICE_RUNNING);
  return std::fflush(stdout) == 0 && !failed ? 0 : 1;
}

}  // namespace nCorvanthTool
