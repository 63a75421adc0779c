// One message between two processes on this machine and its answer, at 64 B,
// 1 KiB and 64 KiB of payload:
//
//   Nvs            NVSPackData + NVSSendMsg to a window of a forked process,
//                  whose owner takes the record with NVSWaitMsg and frees it;
//                  the send returns once the owner has taken it.
//   UnixLoop       a plain Unix-domain socket pair: the same record (dwData,
//                  cbData, frame header, payload) in one send, then a one-byte
//                  acknowledgement read back; the peer reads into a reused buffer.
//   StreamSocket   the frame over TCP loopback, and a one-frame answer (an
//                  empty frame) read back.
//
// One iteration is one round trip, so time per iteration is the round-trip
// time and items per second the messages per second. The ratios at the end
// are speeds, the window transport's over the other's, from the medians of
// the repetitions: above 1.00x the window transport is faster.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "FrameBench.h"
#include "LintelSocket.h"
#include "NVSMSG.h"
#include "Nvspackmsg.h"
#include "streamsocket.h"

namespace {

namespace nSock = nCommunication::nSocket;

using namespace corvanth::bench;

// A forked peer that runs `body` and exits; the parent waits for it at the end.
class cPeer {
 public:
  explicit cPeer(std::function<int()> const& body) {
    mPid = fork();
    if (mPid == 0) _exit(body());
  }
  cPeer(cPeer const&) = delete;
  cPeer& operator=(cPeer const&) = delete;
  ~cPeer() {
    int status = 0;
    if (mPid > 0) waitpid(mPid, &status, 0);
  }

 private:
  pid_t mPid = -1;
};

bool gReadExactly(int socket, char* buffer, std::size_t count) {
  std::size_t done = 0;
  while (done < count) {
    ssize_t const got = recv(socket, buffer + done, count - done, 0);
    if (got <= 0) return false;
    done += static_cast<std::size_t>(got);
  }
  return true;
}

bool gWriteExactly(int socket, char const* buffer, std::size_t count) {
  std::size_t done = 0;
  while (done < count) {
    ssize_t const sent = send(socket, buffer + done, count - done, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    done += static_cast<std::size_t>(sent);
  }
  return true;
}

void gArgs(benchmark::internal::Benchmark* benchmark) {
  for (int size : {64, 1024, 64 * 1024}) benchmark->Arg(size);
  benchmark->UseRealTime()->Unit(benchmark::kMicrosecond);
}

void BM_Nvs_RoundTrip(benchmark::State& state) {
  static int runs = 0;
  std::string const name = "bench-winmsg-" + std::to_string(getpid()) + "-" + std::to_string(++runs);
  int ready[2];
  if (pipe(ready) != 0) return state.SkipWithError("pipe");
  cPeer const peer([&] {
    close(ready[0]);
    HWND const window = CreateWindowA(name.c_str());
    char const byte = 1;
    if (window == nullptr || write(ready[1], &byte, 1) != 1) return 1;
    while (COPYDATASTRUCT const* record = NVSWaitMsg(window, 1)) NVSFreeData(record);
    return 0;
  });
  close(ready[1]);
  char byte = 0;
  bool const started = read(ready[0], &byte, 1) == 1;
  close(ready[0]);
  HWND const window = started ? FindWindowA(nullptr, name.c_str()) : nullptr;
  if (window == nullptr) return state.SkipWithError("no window");
  long const size = static_cast<long>(state.range(0));
  std::vector<char> const payload(static_cast<std::size_t>(size), 'w');
  for (auto _ : state) {
    COPYDATASTRUCT* const record = NVSPackData(payload.data(), size, 1, 0);
    if (NVSSendMsg(record, window, 7) == 0) state.SkipWithError("send failed");
    NVSFreeData(record);
  }
  PostMessageA(window, WM_QUIT, 0, 0);
  state.SetItemsProcessed(state.iterations());
}

void BM_UnixLoop_RoundTrip(benchmark::State& state) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
    return state.SkipWithError("socketpair");
  }
  cPeer const peer([&] {
    close(pair[0]);
    std::vector<char> bytes;
    std::uint32_t head[2];  // dwData, cbData
    while (gReadExactly(pair[1], reinterpret_cast<char*>(head), sizeof head)) {
      bytes.resize(head[1]);
      if (!gReadExactly(pair[1], bytes.data(), bytes.size())) return 1;
      char const acknowledgement = 1;
      if (!gWriteExactly(pair[1], &acknowledgement, 1)) return 1;
    }
    return 0;
  });
  close(pair[1]);
  std::size_t const size = static_cast<std::size_t>(state.range(0));
  std::vector<char> record(8 + sizeof(c_MessageHeader) + size, 'u');
  std::uint32_t const head[2] = {7, static_cast<std::uint32_t>(sizeof(c_MessageHeader) + size)};
  std::memcpy(record.data(), head, sizeof head);
  SSMMakeMessageHeader(static_cast<long>(size), 1, 0, reinterpret_cast<c_MessageHeader*>(record.data() + 8));
  for (auto _ : state) {
    char acknowledgement = 0;
    if (!gWriteExactly(pair[0], record.data(), record.size()) ||
        !gReadExactly(pair[0], &acknowledgement, 1)) {
      state.SkipWithError("the loop broke");
    }
  }
  close(pair[0]);
  state.SetItemsProcessed(state.iterations());
}

void BM_StreamSocket_RoundTrip(benchmark::State& state) {
  nSock::cHandleValid const listener = nSock::gCreateListenerOn("127.0.0.1", 0);
  unsigned short const port = nSock::gLocalPort(listener);
  cPeer const peer([&] {
    StreamSocket listening(listener, false, nullptr, false, false, "");
    auto [accepted, ssl, ignored] = listening.Accept(nSock::cSocketOptions());
    if (!accepted.fIsValid()) return 1;
    StreamSocket server(nSock::gValidate(accepted), false, ssl, false, false, "");
    short type = 0;
    char* message = nullptr;
    int length = 0;
    while (gTake(server, type, message, length)) {
      server.FreeMessage(message);
      if (!server.SendTypedMessageZ2(type, 0, "", 0)) return 1;
    }
    return 0;
  });
  nSock::gDelete(listener);  // the peer's copy listens; ours only closes
  std::vector<char> const payload(static_cast<std::size_t>(state.range(0)), 's');
  StreamSocket client;
  client.Connect("127.0.0.1", port, nSock::cSocketOptions());
  for (auto _ : state) {
    short type = 0;
    char* answer = nullptr;
    int length = 0;
    if (!client.SendTypedMessageZ2(kData, 0, payload.data(), static_cast<int>(payload.size())) ||
        !gTake(client, type, answer, length)) {
      state.SkipWithError("no answer");
    }
    client.FreeMessage(answer);
  }
  client.CloseSocket();
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_Nvs_RoundTrip)->Apply(gArgs);
BENCHMARK(BM_UnixLoop_RoundTrip)->Apply(gArgs);
BENCHMARK(BM_StreamSocket_RoundTrip)->Apply(gArgs);

}  // namespace

int main(int argc, char** argv) {
  cMedianReporter reporter;
  if (!gRunWithMedians(argc, argv, reporter)) return 1;
  for (char const* size : {"64", "1024", "65536"}) {
    std::string const ours = std::string("BM_Nvs_RoundTrip/") + size + "/real_time";
    reporter.fRatio(std::string("NVS window / plain Unix-domain loop, round trips per second at ") + size + " B",
                    ours, std::string("BM_UnixLoop_RoundTrip/") + size + "/real_time");
    reporter.fRatio(std::string("NVS window / StreamSocket over TCP loopback, round trips per second at ") + size +
                        " B",
                    ours, std::string("BM_StreamSocket_RoundTrip/") + size + "/real_time");
  }
  benchmark::Shutdown();
  return 0;
}
