// window serve and window send: one request on its road between two processes
// on this machine, through a window's copy-data message instead of a socket.
//
// Parameters and printouts follow serve and send: key=value with the escapes
// \\, \0, \n, \r, \t and \xNN, {k=v,...} for a nested array, and printed keys
// and values escaped with their byte counts, so that two printouts are equal
// exactly when the bytes are.
#include "corvanth_window.h"

#include <pthread.h>
#include <signal.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "AssociativeArray.h"
#include "corvanth_forms.h"
#include "CorvanthAddress.h"
#include "LintelSocket.h"
#include "NVSMSG.h"
#include "netmsg.h"

namespace nCorvanthTool {

namespace {

char const* const kUsage =
    "  window serve <name> [--count <n>]\n"
    "               open the window <name> of this user, print each message's envelope,\n"
    "               code and parameters; stop after <n> messages, or on SIGINT or SIGTERM\n"
    "  window send <name> [--to <client@host>] [--from <client@host>] [--type <n>]\n"
    "       [--subtype <n>] [--qtype <n>] [--id <n>] [--code <n>] <key>=<value>...\n"
    "               send one message with these parameters through the window <name>\n"
    "               and wait (at most 30 s) until its owner has taken it; parameters as\n"
    "               for send\n";

long long gNumber(std::string const& text, long long low, long long high, std::string const& what) {
  char* end = nullptr;
  errno = 0;
  long long const value = std::strtoll(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || errno != 0 || value < low || value > high) {
    throw cUsageError{what + " must be a whole number from " + std::to_string(low) + " to " +
                      std::to_string(high) + ", not '" + text + "'"};
  }
  return value;
}

// The verb's window name, its --name value options and its parameters.
struct cArguments {
  std::string mName;
  std::map<std::string, std::string> mOptions;
  std::vector<std::string> mParameters;

  cArguments(int argc, char** argv, std::vector<std::string> const& options) {
    for (int at = 3; at < argc; ++at) {
      std::string const word = argv[at];
      if (word.size() > 2 && word.compare(0, 2, "--") == 0) {
        bool known = false;
        for (auto const& option : options) known = known || option == word;
        if (!known) throw cUsageError{"unknown option " + word};
        if (at + 1 >= argc) throw cUsageError{word + " needs a value"};
        mOptions[word] = argv[++at];
      } else if (mName.empty()) {
        mName = word;
      } else {
        mParameters.push_back(word);
      }
    }
    if (mName.empty()) throw cUsageError{"a window name is needed"};
  }
  std::string fText(std::string const& option, std::string const& otherwise) const {
    auto const found = mOptions.find(option);
    return found == mOptions.end() ? otherwise : found->second;
  }
  long long fNumber(std::string const& option, long long otherwise, long long low,
                    long long high) const {
    auto const found = mOptions.find(option);
    return found == mOptions.end() ? otherwise : gNumber(found->second, low, high, option);
  }
};

void gPrintReceived(COPYDATASTRUCT const& record) {
  char const* payload = nullptr;
  long length = 0;
  short type = 0;
  short subtype = 0;
  NVSUnPackData(&record, payload, length, type, subtype);
  if (payload == nullptr) {
    std::printf("received code %u with %u bytes, no frame\n", record.dwData, record.cbData);
    return;
  }
  cCorvanthMessage const message(payload, static_cast<unsigned int>(length), type, subtype);
  gPrintEnvelope("received", message);
  std::printf("    code %u, record of %u bytes\n", record.dwData, record.cbData);
  // A copy ends in a zero byte, which the reader's length rule needs.
  std::string const data(message.getData() != nullptr ? message.getData() : "",
                         message.getDatalen());
  CAssociativeArray parameters;
  try {
    parameters.FromString(data.c_str(), static_cast<int>(data.size()));
    gPrintParameters(parameters);
  } catch (std::exception const& error) {
    std::printf("    (the data is no string form: %s)\n", error.what());
  }
}

// Ends a serve on SIGINT or SIGTERM: a thread of its own takes the signal and
// posts the quit message, which ends the owner's wait.
class cQuitOnSignal {
 public:
  explicit cQuitOnSignal(HWND window) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, &mPrevious);
    mThread = std::thread([window, signals] {
      int signal = 0;
      while (sigwait(&signals, &signal) == 0 && signal != SIGUSR1) {
        PostMessageA(window, WM_QUIT, 0, 0);
      }
    });
  }
  cQuitOnSignal(cQuitOnSignal const&) = delete;
  cQuitOnSignal& operator=(cQuitOnSignal const&) = delete;
  ~cQuitOnSignal() {
    pthread_kill(mThread.native_handle(), SIGUSR1);
    mThread.join();
    pthread_sigmask(SIG_SETMASK, &mPrevious, nullptr);
  }

 private:
  sigset_t mPrevious{};
  std::thread mThread;
};

int gServe(int argc, char** argv) {
  cArguments const arguments(argc, argv, {"--count"});
  if (!arguments.mParameters.empty()) {
    throw cUsageError{"window serve takes no parameters, not '" + arguments.mParameters[0] + "'"};
  }
  long long const count = arguments.fNumber("--count", 0, 0, 1LL << 62);
  HWND const window = CreateWindowA(arguments.mName.c_str());
  if (window == nullptr) {
    throw std::runtime_error("cannot open the window " + arguments.mName +
                             ": the name is taken or cannot be bound");
  }
  long long received = 0;
  {
    cQuitOnSignal const quit(window);
    std::printf("window %s open%s\n", arguments.mName.c_str(),
                count > 0 ? (", for " + std::to_string(count) + " message(s)").c_str() : "");
    std::fflush(stdout);
    while (count == 0 || received < count) {
      COPYDATASTRUCT const* const record = NVSWaitMsg(window, 1);
      if (record == nullptr) break;
      gPrintReceived(*record);
      NVSFreeData(record);
      ++received;
      std::fflush(stdout);
    }
  }
  DestroyWindow(window);
  std::printf("stopped after %lld received message(s)\n", received);
  return 0;
}

int gSend(int argc, char** argv) {
  cArguments const arguments(argc, argv,
                             {"--to", "--from", "--type", "--subtype", "--qtype", "--id", "--code"});
  if (arguments.mParameters.empty()) {
    throw cUsageError{"window send needs at least one <key>=<value>"};
  }
  CCorvanthAddress const to(arguments.fText("--to", arguments.mName + "@localhost").c_str());
  CCorvanthAddress const from(
      arguments
          .fText("--from",
                 "corvanth-send@" + nCommunication::nSocket::gGetLocalHostName())
          .c_str());
  auto const type = static_cast<short>(arguments.fNumber("--type", 1, -32768, 32767));
  auto const subtype = static_cast<short>(arguments.fNumber("--subtype", 0, -32768, 32767));
  auto const qtype =
      static_cast<std::int32_t>(arguments.fNumber("--qtype", 0, -2147483647LL - 1, 2147483647LL));
  auto const id = static_cast<unsigned int>(arguments.fNumber("--id", 1, 0, 4294967295LL));
  auto const code = static_cast<unsigned int>(arguments.fNumber("--code", 0, 0, 4294967295LL));

  CAssociativeArray parameters;
  for (std::string const& argument : arguments.mParameters) gAddParameter(parameters, argument);
  std::string const form = gStringForm(parameters);
  cCorvanthMessage const message(id, to.HostName(), to.ClientName(), from.HostName(),
                                 from.ClientName(), static_cast<QType>(qtype), type, subtype,
                                 form.data(), static_cast<unsigned int>(form.size()));
  HWND const window = FindWindowA(nullptr, arguments.mName.c_str());
  if (window == nullptr) throw std::runtime_error("there is no window " + arguments.mName);
  gPrintEnvelope("sending", message);
  gPrintParameters(parameters);
  std::fflush(stdout);
  COPYDATASTRUCT* const record = NVSPackData(message.getPackedBuf(),
                                             static_cast<long>(message.getPackedBufLen()),
                                             message.getType(), message.getSubtype());
  int const delivered = NVSSendMsg(record, window, code);
  std::uint32_t const bytes = record->cbData;
  NVSFreeData(record);
  if (delivered == 0) {
    throw std::runtime_error("the window " + arguments.mName +
                             " did not take the message: it is gone or 30 s ran out");
  }
  std::printf("delivered with code %u in a record of %u bytes\n", code, bytes);
  return 0;
}

}  // namespace

std::string gWindowUsage() { return kUsage; }

int gWindow(int argc, char** argv) {
  std::string const verb = argc > 2 ? argv[2] : "";
  try {
    if (verb == "serve") return gServe(argc, argv);
    if (verb == "send") return gSend(argc, argv);
    throw cUsageError{verb.empty() ? "window needs serve or send" : "unknown verb window " + verb};
  } catch (cUsageError const& error) {
    std::fprintf(stderr, "corvanth window: %s\nusage:\n%s", error.mText.c_str(), kUsage);
    return 2;
  } catch (std::exception const& error) {
    std::fprintf(stderr, "corvanth window %s: %s\n", verb.c_str(), error.what());
    return 1;
  }
}

}  // namespace nCorvanthTool
