// serve, send: the road of one request, string form to string form, between
// two processes. local_thr/remote_thr and local_lat/remote_lat: frames per
// second, MB/s and latency percentiles between two processes or machines.
//
// Parameters on the command line are key=value. Values take the escapes \\,
// \0, \n, \r, \t and \xNN, so any byte can travel; a value written {k=v,...}
// becomes the string form of a nested array of those couples (nesting allowed;
// write a literal comma, brace or backslash inside one, or a leading brace,
// with \xNN or \\).
// Printed keys and values escape the same way, with their byte counts, so two
// printouts are equal exactly when the bytes are.
#include "corvanth_net.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "AssociativeArray.h"
#include "corvanth_forms.h"
#include "CorvanthAddress.h"
#include "LintelSocket.h"
#include "netmsg.h"
#include "streamsocket.h"

namespace nCorvanthTool {

namespace {

char const* const kServeUsage =
    "  serve [--host <address>] [--port <port>] [--name <client>] [--count <n>]\n"
    "        [--tls <dir> [--verify-client]]\n"
    "               listen (default 127.0.0.1, a free port; the first line says which),\n"
    "               print each message's envelope and parameters and answer it with the\n"
    "               same parameters; stop after <n> messages, or on SIGINT or SIGTERM;\n"
    "               --tls: TLS with <dir>/server.crt and server.key, and with\n"
    "               --verify-client a client certificate signed by <dir>/ca.crt\n";
char const* const kSendUsage =
    "  send --port <port> [--host <address>] [--to <client@host>] [--from <client@host>]\n"
    "       [--type <n>] [--subtype <n>] [--qtype <n>] [--id <n>] [--timeout <seconds>]\n"
    "       [--tls <dir> [--verify-server] [--verify-client]] <key>=<value>...\n"
    "               send one message with these parameters and print the answer; values\n"
    "               take the escapes \\\\ \\0 \\n \\r \\t \\xNN, and {k=v,...} is a nested array;\n"
    "               --tls: TLS, checking the server against <dir>/ca_bundle.crt with\n"
    "               --verify-server, showing <dir>/client.crt and client.key with\n"
    "               --verify-client\n";
char const* const kLocalThrUsage =
    "  local_thr [--host <address>] [--port <port>] <size> <count>\n"
    "               take <count> frames of <size> bytes from one connection and print the\n"
    "               frames/s, MB/s and the wait per frame (p50, p99, p99.9); start it\n"
    "               first, remote_thr sends\n";
char const* const kRemoteThrUsage =
    "  remote_thr --port <port> [--host <address>] [--batch <n>] <size> <count>\n"
    "               send <count> frames of <size> bytes to local_thr, one send each or\n"
    "               <n> frames per gather write, and print the sender's figures\n";
char const* const kLocalLatUsage =
    "  local_lat [--host <address>] [--port <port>] <size> <count>\n"
    "               answer <count> frames of <size> bytes from one connection with the same\n"
    "               frame and print round trips as seen from here; start it first\n";
char const* const kRemoteLatUsage =
    "  remote_lat --port <port> [--host <address>] <size> <count>\n"
    "               send <count> frames of <size> bytes to local_lat, each after the answer\n"
    "               to the one before, and print frames/s, MB/s and the round trip (p50,\n"
    "               p99, p99.9)\n";

}  // namespace

std::string gNetUsage() {
  return std::string(kServeUsage) + kSendUsage + kLocalThrUsage + kRemoteThrUsage +
         kLocalLatUsage + kRemoteLatUsage;
}

namespace {

namespace nSock = nCommunication::nSocket;

// --name value options, --name flags, then positional arguments.
class cArguments {
 public:
  cArguments(int argc, char** argv, std::vector<std::string_view> const& options,
             std::vector<std::string_view> const& flags = {}) {
    for (int at = 2; at < argc; ++at) {
      std::string_view const word = argv[at];
      if (word.size() > 2 && word.substr(0, 2) == "--") {
        if (std::find(flags.begin(), flags.end(), word) != flags.end()) {
          mOptions[std::string(word)] = "";
          continue;
        }
        if (std::find(options.begin(), options.end(), word) == options.end()) {
          throw cUsageError{"unknown option " + std::string(word)};
        }
        if (at + 1 >= argc) throw cUsageError{std::string(word) + " needs a value"};
        mOptions[std::string(word)] = argv[++at];
      } else {
        mPositional.emplace_back(word);
      }
    }
  }
  std::string fText(std::string const& name, std::string const& otherwise) const {
    auto const found = mOptions.find(name);
    return found == mOptions.end() ? otherwise : found->second;
  }
  bool fHas(std::string const& name) const { return mOptions.count(name) != 0; }
  long long fNumber(std::string const& name, long long otherwise, long long low,
                    long long high) const {
    auto const found = mOptions.find(name);
    return found == mOptions.end() ? otherwise : gNumber(found->second, low, high, name);
  }
  std::vector<std::string> const& fPositional() const { return mPositional; }

  static long long gNumber(std::string const& text, long long low, long long high,
                           std::string const& what) {
    char* end = nullptr;
    errno = 0;
    long long const value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || value < low || value > high) {
      throw cUsageError{what + " must be a whole number from " + std::to_string(low) + " to " +
                        std::to_string(high) + ", not '" + text + "'"};
    }
    return value;
  }

 private:
  std::map<std::string, std::string> mOptions;
  std::vector<std::string> mPositional;
};

// The parameters of a received message; false (and a note) when its data is
// not a string form.
bool gReadParameters(cCorvanthMessage const& message, CAssociativeArray& into) {
  // A copy ends in a zero byte, which the reader's length rule needs.
  std::string const data(message.getData() != nullptr ? message.getData() : "",
                         message.getDatalen());
  try {
    into.FromString(data.c_str(), static_cast<int>(data.size()));
    return true;
  } catch (std::exception const& error) {
    std::printf("    (the data is no string form: %s)\n", error.what());
    return false;
  }
}

struct cReceived {
  bool mOk = false;
  cCorvanthMessage mMessage;
};

cReceived gReceiveMessage(StreamSocket& socket) {
  cReceived received;
  short type = 0;
  short subtype = 0;
  char* bytes = nullptr;
  int length = 0;
  if (!socket.WaitTypedMessageZ1(type, subtype, bytes, length, nullptr)) return received;
  received.mMessage = cCorvanthMessage(bytes != nullptr ? bytes : "",
                                       static_cast<unsigned int>(length), type, subtype);
  socket.FreeMessage(bytes);
  received.mOk = true;
  return received;
}

bool gSendMessage(StreamSocket& socket, cCorvanthMessage const& message) {
  return socket.SendTypedMessageZ2(message.getType(), message.getSubtype(), message.getPackedBuf(),
                                   static_cast<int>(message.getPackedBufLen()));
}

// Ends a blocking serve on SIGINT or SIGTERM: a thread of its own takes the
// signal and closes the sockets, which wakes the blocked accept or read.
class cStopper {
 public:
  cStopper() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, &mPrevious);
    mThread = std::thread([this, signals] {
      int signal = 0;
      while (sigwait(&signals, &signal) == 0 && signal != SIGUSR1) {
        std::lock_guard const lock(mMutex);
        mStopped = true;
        for (StreamSocket* socket : {mListener, mConnection}) {
          if (socket != nullptr) socket->CloseSocket();
        }
      }
    });
  }
  cStopper(cStopper const&) = delete;
  cStopper& operator=(cStopper const&) = delete;
  ~cStopper() {
    pthread_kill(mThread.native_handle(), SIGUSR1);
    mThread.join();
    pthread_sigmask(SIG_SETMASK, &mPrevious, nullptr);
  }
  // What a stop closes; null when that socket goes.
  void fWatch(StreamSocket* listener, StreamSocket* connection) {
    std::lock_guard const lock(mMutex);
    mListener = listener;
    mConnection = connection;
    if (mStopped) {
      for (StreamSocket* socket : {mListener, mConnection}) {
        if (socket != nullptr) socket->CloseSocket();
      }
    }
  }
  bool fStopped() {
    std::lock_guard const lock(mMutex);
    return mStopped;
  }

 private:
  std::mutex mMutex;
  bool mStopped = false;
  StreamSocket* mListener = nullptr;
  StreamSocket* mConnection = nullptr;
  sigset_t mPrevious{};
  std::thread mThread;
};

// Runs a verb: bad usage is exit 2 with the verb's usage, a failure exit 1.
template <class Verb>
int gRun(char const* name, char const* usage, Verb&& verb) {
  try {
    return verb();
  } catch (cUsageError const& error) {
    std::fprintf(stderr, "corvanth %s: %s\nusage:\n%s", name, error.mText.c_str(), usage);
    return 2;
  } catch (std::exception const& error) {
    std::fprintf(stderr, "corvanth %s: %s\n", name, error.what());
    return 1;
  }
}

// --tls <dir> and its verification flags; off without --tls.
struct cTls {
  bool mOn = false;
  bool mVerifyServer = false;
  bool mVerifyClient = false;
  std::string mDirectory;

  static cTls gFrom(cArguments const& arguments) {
    cTls tls;
    tls.mOn = arguments.fHas("--tls");
    tls.mVerifyServer = arguments.fHas("--verify-server");
    tls.mVerifyClient = arguments.fHas("--verify-client");
    if (!tls.mOn && (tls.mVerifyServer || tls.mVerifyClient)) {
      throw cUsageError{"--verify-server and --verify-client need --tls <dir>"};
    }
    tls.mDirectory = arguments.fText("--tls", "");
    if (tls.mOn && tls.mDirectory.empty()) throw cUsageError{"--tls needs a directory"};
    return tls;
  }
};

std::pair<StreamSocket*, unsigned short> gListen(std::string const& host, unsigned short port,
                                                 std::unique_ptr<StreamSocket>& holder,
                                                 cTls const& tls = cTls()) {
  nSock::cHandleValid const handle = nSock::gCreateListenerOn(host, port);
  unsigned short const bound = nSock::gLocalPort(handle);
  // The listener's flags and directory are what its Accept's handshake uses.
  holder = std::make_unique<StreamSocket>(handle, tls.mOn, nullptr, false, tls.mVerifyClient,
                                          tls.mDirectory);
  holder->setPort(bound, StreamSocket::ListeningPort);
  std::printf("listening on %s:%u\n", host.c_str(), static_cast<unsigned>(bound));
  std::fflush(stdout);
  return {holder.get(), bound};
}

}  // namespace

int gServe(int argc, char** argv) {
  return gRun("serve", kServeUsage, [&] {
    cArguments const arguments(argc, argv, {"--host", "--port", "--name", "--count", "--tls"},
                               {"--verify-client"});
    if (!arguments.fPositional().empty()) {
      throw cUsageError{"serve takes no parameters, not '" + arguments.fPositional()[0] + "'"};
    }
    std::string const host = arguments.fText("--host", "127.0.0.1");
    auto const port = static_cast<unsigned short>(arguments.fNumber("--port", 0, 0, 65535));
    long long const count = arguments.fNumber("--count", 0, 0, 1LL << 62);
    std::string const name = arguments.fText("--name", "corvanth-serve");
    cTls const tls = cTls::gFrom(arguments);

    cStopper stopper;
    std::unique_ptr<StreamSocket> listener;
    gListen(host, port, listener, tls);
    std::printf("serving as %s%s\n", name.c_str(),
                count > 0 ? (", for " + std::to_string(count) + " message(s)").c_str() : "");
    std::fflush(stdout);
    stopper.fWatch(listener.get(), nullptr);
    long long answered = 0;
    while (!stopper.fStopped() && (count == 0 || answered < count)) {
      // A failed handshake raises here and ends the serve with its text.
      auto [accepted, ssl, ignored] = listener->Accept(nSock::cSocketOptions());
      if (!accepted.fIsValid()) break;
      StreamSocket connection(nSock::gValidate(accepted), tls.mOn, ssl, false, tls.mVerifyClient,
                              tls.mDirectory);
      stopper.fWatch(listener.get(), &connection);
      std::printf("connection accepted\n");
      while (count == 0 || answered < count) {
        cReceived received = gReceiveMessage(connection);
        if (!received.mOk) {
          std::printf("connection ended\n");
          break;
        }
        cCorvanthMessage const& message = received.mMessage;
        gPrintEnvelope("received", message);
        if (std::strcmp(message.getToClient(), name.c_str()) != 0) {
          std::printf("    (addressed to %s, answered all the same)\n", message.getToClient());
        }
        CAssociativeArray parameters;
        if (gReadParameters(message, parameters)) {
          gPrintParameters(parameters);
        } else {
          parameters.AddCouple("$ERROR", "the data of the message is no string form");
        }
        std::string const form = gStringForm(parameters);
        cCorvanthMessage const answer(
            message.getMessageId(), message.getFromHost(), message.getFromClient(),
            message.getToHost(), message.getToClient(), message.getQtype(), message.getType(),
            message.getSubtype(), form.data(), static_cast<unsigned int>(form.size()));
        if (!gSendMessage(connection, answer)) {
          std::fprintf(stderr, "corvanth serve: cannot answer message %u: the peer is gone\n",
                       message.getMessageId());
          break;
        }
        ++answered;
        std::printf("answered message %u\n", message.getMessageId());
        std::fflush(stdout);
      }
      stopper.fWatch(listener.get(), nullptr);
      connection.CloseSocket();
      std::fflush(stdout);
    }
    stopper.fWatch(nullptr, nullptr);
    listener->CloseSocket();
    std::printf("stopped after %lld answered message(s)\n", answered);
    return 0;
  });
}

int gSend(int argc, char** argv) {
  return gRun("send", kSendUsage, [&] {
    cArguments const arguments(argc, argv,
                               {"--host", "--port", "--to", "--from", "--type", "--subtype",
                                "--qtype", "--id", "--timeout", "--tls"},
                               {"--verify-server", "--verify-client"});
    if (!arguments.fHas("--port")) throw cUsageError{"send needs --port"};
    std::string const host = arguments.fText("--host", "127.0.0.1");
    auto const port = static_cast<unsigned short>(arguments.fNumber("--port", 0, 1, 65535));
    CCorvanthAddress const to(arguments.fText("--to", "corvanth-serve@" + host).c_str());
    CCorvanthAddress const from(
        arguments.fText("--from", "corvanth-send@" + nSock::gGetLocalHostName()).c_str());
    auto const type = static_cast<short>(arguments.fNumber("--type", 1, -32768, 32767));
    auto const subtype = static_cast<short>(arguments.fNumber("--subtype", 0, -32768, 32767));
    auto const qtype =
        static_cast<std::int32_t>(arguments.fNumber("--qtype", 0, -2147483647LL - 1, 2147483647LL));
    auto const id = static_cast<unsigned int>(arguments.fNumber("--id", 1, 0, 4294967295LL));
    long long const timeout = arguments.fNumber("--timeout", 10, 1, 86400);
    cTls const tls = cTls::gFrom(arguments);
    if (arguments.fPositional().empty()) throw cUsageError{"send needs at least one <key>=<value>"};

    CAssociativeArray parameters;
    for (std::string const& argument : arguments.fPositional()) gAddParameter(parameters, argument);
    std::string const form = gStringForm(parameters);
    cCorvanthMessage const message(id, to.HostName(), to.ClientName(), from.HostName(),
                                   from.ClientName(), static_cast<QType>(qtype), type, subtype,
                                   form.data(), static_cast<unsigned int>(form.size()));

    nSock::cSocketOptions options;
    options.fSetConnectTimeout(nTime::cDiff::gSeconds(timeout));
    options.fSetReceiveTimeout(nTime::cDiff::gSeconds(timeout));
    StreamSocket socket(tls.mOn, nullptr, tls.mVerifyServer, tls.mVerifyClient, tls.mDirectory);
    socket.Connect(host, port, options);  // a failed handshake raises its text here
    gPrintEnvelope("sending", message);
    gPrintParameters(parameters);
    std::fflush(stdout);
    if (!gSendMessage(socket, message)) {
      throw std::runtime_error("the connection broke while the message went out");
    }
    auto const start = std::chrono::steady_clock::now();
    cReceived received = gReceiveMessage(socket);
    if (!received.mOk) {
      bool const late = std::chrono::steady_clock::now() - start >= std::chrono::seconds(timeout);
      throw std::runtime_error(late ? "no answer within " + std::to_string(timeout) + " s"
                                    : std::string("the server closed the connection without an "
                                                  "answer"));
    }
    gPrintEnvelope("answer:", received.mMessage);
    CAssociativeArray answer;
    bool const readable = gReadParameters(received.mMessage, answer);
    if (readable) gPrintParameters(answer);
    socket.CloseSocket();
    bool const same = readable && gCouples(answer) == gCouples(parameters);
    std::printf("the answer carries %s\n",
                same ? "every parameter back byte for byte" : "other parameters than were sent");
    return 0;
  });
}

namespace {

using tClock = std::chrono::steady_clock;

std::int64_t gNanoseconds(tClock::duration took) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(took).count();
}

// Durations in buckets of 1/32 of a power of two (about 3 % wide), so that a
// run of any length costs the same fixed memory.
class cLatencies {
 public:
  void fAdd(std::int64_t nanoseconds) {
    ++mCounts[gBucket(nanoseconds > 0 ? static_cast<std::uint64_t>(nanoseconds) : 0)];
    ++mTotal;
  }
  // The middle of the bucket that holds the given share of the durations, in µs.
  double fPercentile(double share) const {
    auto const wanted = static_cast<std::uint64_t>(std::ceil(share * double(mTotal)));
    std::uint64_t seen = 0;
    for (std::size_t bucket = 0; bucket < mCounts.size(); ++bucket) {
      seen += mCounts[bucket];
      if (seen >= std::max<std::uint64_t>(wanted, 1)) return gMiddle(bucket) / 1000.0;
    }
    return 0;
  }
  std::string fText() const {
    char text[128];
    std::snprintf(text, sizeof text, "p50 %.2f [us], p99 %.2f [us], p99.9 %.2f [us]",
                  fPercentile(0.5), fPercentile(0.99), fPercentile(0.999));
    return text;
  }

 private:
  static std::size_t gBucket(std::uint64_t value) {
    if (value < 32) return static_cast<std::size_t>(value);
    int const power = 63 - std::countl_zero(value);
    return static_cast<std::size_t>((power - 4) * 32) + ((value >> (power - 5)) & 31);
  }
  static double gMiddle(std::size_t bucket) {
    if (bucket < 32) return double(bucket);
    int const power = static_cast<int>(bucket / 32) + 4;
    double const low = double((32 + bucket % 32) << (power - 5));
    return low + double(std::uint64_t(1) << (power - 5)) / 2;
  }

  std::array<std::uint64_t, 60 * 32> mCounts{};
  std::uint64_t mTotal = 0;
};

void gPrintRate(char const* what, double frames, double seconds, long long size) {
  double const rate = seconds > 0 ? frames / seconds : 0;
  std::printf("%s: %.0f frames/s, %.3f MB/s\n", what, rate, rate * double(size) / 1e6);
}

// <size> <count> and the rest of the measuring verbs' command line.
struct cMeasure {
  std::string mHost;
  unsigned short mPort = 0;
  long long mSize = 0;
  long long mCount = 0;
  long long mBatch = 1;

  cMeasure(int argc, char** argv, char const* verb, bool connects, bool batches) {
    std::vector<std::string_view> options = {"--host", "--port"};
    if (batches) options.push_back("--batch");
    cArguments const arguments(argc, argv, options);
    if (arguments.fPositional().size() != 2) {
      throw cUsageError{std::string(verb) + " needs <size> <count>"};
    }
    if (connects && !arguments.fHas("--port")) throw cUsageError{std::string(verb) + " needs --port"};
    mHost = arguments.fText("--host", "127.0.0.1");
    mPort = static_cast<unsigned short>(arguments.fNumber("--port", 0, connects ? 1 : 0, 65535));
    mSize = cArguments::gNumber(arguments.fPositional()[0], 0, 1 << 30, "the message size");
    mCount = cArguments::gNumber(arguments.fPositional()[1], 1, 1LL << 40, "the message count");
    mBatch = arguments.fNumber("--batch", 1, 1, 1 << 16);
  }

  // The one connection of a local_ verb.
  std::unique_ptr<StreamSocket> fAcceptOne() const {
    std::unique_ptr<StreamSocket> listener;
    gListen(mHost, mPort, listener);
    auto [accepted, ssl, ignored] = listener->Accept(nSock::cSocketOptions());
    listener->CloseSocket();
    if (!accepted.fIsValid()) throw std::runtime_error("no connection came");
    return std::make_unique<StreamSocket>(nSock::gValidate(accepted), false, ssl, false, false, "");
  }
  std::unique_ptr<StreamSocket> fConnect() const {
    nSock::cSocketOptions options;
    options.fSetReceiveTimeout(nTime::cDiff::gSeconds(60));
    auto socket = std::make_unique<StreamSocket>();
    socket->Connect(mHost, mPort, options);
    return socket;
  }
};

// One frame, its length checked; false when the connection ended.
bool gTakeFrame(StreamSocket& socket, long long size, long long k, std::vector<char>* keep) {
  short type = 0;
  short subtype = 0;
  char* bytes = nullptr;
  int length = 0;
  if (!socket.WaitTypedMessageZ1(type, subtype, bytes, length, nullptr)) return false;
  if (keep != nullptr && bytes != nullptr) keep->assign(bytes, bytes + length);
  socket.FreeMessage(bytes);
  if (length != size) {
    throw std::runtime_error("message " + std::to_string(k) + " has " + std::to_string(length) +
                             " bytes, not " + std::to_string(size));
  }
  return true;
}

}  // namespace

int gLocalThr(int argc, char** argv) {
  return gRun("local_thr", kLocalThrUsage, [&] {
    cMeasure const measure(argc, argv, "local_thr", false, false);
    std::unique_ptr<StreamSocket> const connection = measure.fAcceptOne();
    cLatencies waits;
    tClock::time_point start;
    tClock::time_point before = tClock::now();
    for (long long k = 0; k < measure.mCount; ++k) {
      if (!gTakeFrame(*connection, measure.mSize, k, nullptr)) {
        throw std::runtime_error("the connection ended after " + std::to_string(k) + " messages");
      }
      tClock::time_point const now = tClock::now();
      // The clock starts at the first message, so count - 1 of them are timed.
      if (k == 0) {
        start = now;
      } else {
        waits.fAdd(gNanoseconds(now - before));
      }
      before = now;
    }
    double const seconds = std::chrono::duration<double>(tClock::now() - start).count();
    connection->SendTypedMessageZ2(0, 0, "done", 4);
    connection->CloseSocket();
    double const timed = double(measure.mCount - 1);
    double const rate = measure.mCount > 1 && seconds > 0 ? timed / seconds : 0;
    std::printf("message size: %lld [B]\nmessage count: %lld\n", measure.mSize, measure.mCount);
    std::printf("mean throughput: %.0f [msg/s]\nmean throughput: %.3f [Mb/s]\n", rate,
                rate * double(measure.mSize) * 8 / 1e6);
    gPrintRate("throughput", timed, seconds, measure.mSize);
    std::printf("wait per frame: %s\n", waits.fText().c_str());
    return 0;
  });
}

int gRemoteThr(int argc, char** argv) {
  return gRun("remote_thr", kRemoteThrUsage, [&] {
    cMeasure const measure(argc, argv, "remote_thr", true, true);
    std::vector<char> const payload(static_cast<std::size_t>(measure.mSize), 'm');
    std::vector<StreamSocket::TypedFrame> const frames(
        static_cast<std::size_t>(measure.mBatch),
        StreamSocket::TypedFrame{1, 0, payload.data(), static_cast<int>(measure.mSize)});
    std::unique_ptr<StreamSocket> const socket = measure.fConnect();
    cLatencies calls;
    tClock::time_point const start = tClock::now();
    for (long long k = 0; k < measure.mCount;) {
      auto const batch = static_cast<std::size_t>(std::min(measure.mBatch, measure.mCount - k));
      tClock::time_point const before = tClock::now();
      bool const sent = measure.mBatch == 1
                            ? socket->SendTypedMessageZ2(1, 0, payload.data(), int(measure.mSize))
                            : socket->SendTypedMessagesZ2({frames.data(), batch});
      calls.fAdd(gNanoseconds(tClock::now() - before));
      if (!sent) {
        throw std::runtime_error("the connection broke after " + std::to_string(k) + " messages");
      }
      k += static_cast<long long>(batch);
    }
    double const seconds = std::chrono::duration<double>(tClock::now() - start).count();
    short type = 0;
    short subtype = 0;
    char* bytes = nullptr;
    int length = 0;
    bool const acknowledged = socket->WaitTypedMessageZ1(type, subtype, bytes, length, nullptr);
    socket->FreeMessage(bytes);
    socket->CloseSocket();
    if (!acknowledged) throw std::runtime_error("local_thr did not confirm the messages");
    std::printf("sent %lld messages of %lld bytes, %lld per send\n", measure.mCount, measure.mSize,
                measure.mBatch);
    gPrintRate("sender throughput", double(measure.mCount), seconds, measure.mSize);
    std::printf("time per send call: %s\n", calls.fText().c_str());
    return 0;
  });
}

int gLocalLat(int argc, char** argv) {
  return gRun("local_lat", kLocalLatUsage, [&] {
    cMeasure const measure(argc, argv, "local_lat", false, false);
    std::unique_ptr<StreamSocket> const connection = measure.fAcceptOne();
    std::vector<char> frame;
    cLatencies rounds;
    tClock::time_point start;
    tClock::time_point answered;
    for (long long k = 0; k < measure.mCount; ++k) {
      if (!gTakeFrame(*connection, measure.mSize, k, &frame)) {
        throw std::runtime_error("the connection ended after " + std::to_string(k) + " messages");
      }
      // From our answer to the next frame is one round trip seen from this end.
      tClock::time_point const now = tClock::now();
      if (k == 0) {
        start = now;
      } else {
        rounds.fAdd(gNanoseconds(now - answered));
      }
      if (!connection->SendTypedMessageZ2(1, 0, frame.data(), static_cast<int>(frame.size()))) {
        throw std::runtime_error("the connection broke after " + std::to_string(k) + " answers");
      }
      answered = tClock::now();
    }
    double const seconds = std::chrono::duration<double>(answered - start).count();
    connection->CloseSocket();
    std::printf("message size: %lld [B]\nroundtrip count: %lld\n", measure.mSize, measure.mCount);
    gPrintRate("throughput (each way)", double(measure.mCount - 1), seconds, measure.mSize);
    std::printf("round trip: %s\n", rounds.fText().c_str());
    return 0;
  });
}

int gRemoteLat(int argc, char** argv) {
  return gRun("remote_lat", kRemoteLatUsage, [&] {
    cMeasure const measure(argc, argv, "remote_lat", true, false);
    std::vector<char> const payload(static_cast<std::size_t>(measure.mSize), 'l');
    std::unique_ptr<StreamSocket> const socket = measure.fConnect();
    cLatencies rounds;
    tClock::time_point const start = tClock::now();
    for (long long k = 0; k < measure.mCount; ++k) {
      tClock::time_point const before = tClock::now();
      if (!socket->SendTypedMessageZ2(1, 0, payload.data(), static_cast<int>(measure.mSize))) {
        throw std::runtime_error("the connection broke after " + std::to_string(k) + " messages");
      }
      if (!gTakeFrame(*socket, measure.mSize, k, nullptr)) {
        throw std::runtime_error("no answer to message " + std::to_string(k));
      }
      rounds.fAdd(gNanoseconds(tClock::now() - before));
    }
    double const seconds = std::chrono::duration<double>(tClock::now() - start).count();
    socket->CloseSocket();
    std::printf("message size: %lld [B]\nroundtrip count: %lld\n", measure.mSize, measure.mCount);
    std::printf("average latency: %.3f [us]\n",
                seconds * 1e6 / double(measure.mCount) / 2);  // half a round trip, as perf tools print
    gPrintRate("throughput (each way)", double(measure.mCount), seconds, measure.mSize);
    std::printf("round trip: %s\n", rounds.fText().c_str());
    return 0;
  });
}

}  // namespace nCorvanthTool
