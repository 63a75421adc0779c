// Frames over TLS on TCP loopback: StreamSocket with TLS on beside a bare
// OpenSSL loop (SSL_write of the header, SSL_write of the payload, exact
// SSL_reads), in the same run, with the same certificates (made at start by
// data/certs/make-test-certs.sh into a temporary directory) and the cipher
// OpenSSL picks by default on both; neither side checks certificates.
//
// Throughput: one iteration sends a batch of frames from the benchmark thread
// and ends when a receiving thread has taken all of them; the counters give
// frames per second (items) and bytes per second of payload. Round trip: one
// iteration sends a 64-byte frame and waits for its echo. Handshake: the time
// of one TCP connect and TLS handshake, as the client sees it; the bare loop
// keeps its two contexts, while StreamSocket makes its context (and the server
// loads its certificate and key) on every connect and accept.
//
// The ratios at the end are speeds, StreamSocket's over the bare loop's, from
// the medians of the repetitions: above 1.00x StreamSocket is faster.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "BenchRatio.h"
#include "LintelSocket.h"
#include "streamsocket.h"

namespace {

namespace nSock = nCommunication::nSocket;

constexpr short kData = 0;
constexpr short kStop = 1;

// The certificate directory of this run.
std::string gDirectory;

int gBatch(std::size_t size) {
  return static_cast<int>(std::clamp<std::size_t>((8u << 20) / size, 8, 2000));
}

// Batches taken by the receiving side, for the sender to wait on.
class cBatchCounter {
 public:
  void fTook() {
    mDone.fetch_add(1, std::memory_order_release);
    mDone.notify_one();
  }
  void fWaitFor(long batches) {
    long seen = mDone.load(std::memory_order_acquire);
    while (seen < batches) {
      mDone.wait(seen);
      seen = mDone.load(std::memory_order_acquire);
    }
  }

 private:
  std::atomic<long> mDone{0};
};

// --- StreamSocket with TLS ---------------------------------------------------

std::unique_ptr<StreamSocket> gTlsListener(unsigned short& port) {
  nSock::cHandleValid const listener = nSock::gCreateListenerOn("127.0.0.1", 0);
  port = nSock::gLocalPort(listener);
  return std::make_unique<StreamSocket>(listener, true, nullptr, false, false, gDirectory);
}

// The protocol and cipher a connection agreed on, for the benchmark's label.
std::string gAgreed(SSL const* ssl) {
  return ssl == nullptr ? "" : std::string(SSL_get_version(ssl)) + " " + SSL_get_cipher_name(ssl);
}

// Accepts one connection and wraps it; an exception stays for the caller.
std::unique_ptr<StreamSocket> gTlsAccept(StreamSocket& listener, std::string* agreed = nullptr) {
  auto [accepted, ssl, ignored] = listener.Accept(nSock::cSocketOptions());
  if (!accepted.fIsValid()) throw std::runtime_error("the listener closed");
  if (agreed != nullptr) *agreed = gAgreed(ssl);
  return std::make_unique<StreamSocket>(nSock::gValidate(accepted), true, ssl, false, false,
                                        gDirectory);
}

struct cStreamPair {
  std::unique_ptr<StreamSocket> mListener;
  StreamSocket mClient{true, nullptr, false, false, gDirectory};
  std::unique_ptr<StreamSocket> mServer;
  std::string mAgreed;

  cStreamPair() {
    unsigned short port = 0;
    mListener = gTlsListener(port);
    std::exception_ptr failure;
    std::thread accepter([&] {
      try {
        mServer = gTlsAccept(*mListener, &mAgreed);
      } catch (...) {
        failure = std::current_exception();
      }
    });
    try {
      mClient.Connect("127.0.0.1", port, nSock::cSocketOptions());
    } catch (...) {
      mClient.CloseSocket();  // lets a waiting handshake on the other side fail
      accepter.join();
      throw;
    }
    accepter.join();
    if (failure) std::rethrow_exception(failure);
  }
  // Each side's close may wait for the other's close notification: both at once.
  ~cStreamPair() {
    std::thread other([this] {
      if (mServer) mServer->CloseSocket();
    });
    mClient.CloseSocket();
    other.join();
  }
};

void BM_StreamSocketTls_Throughput(benchmark::State& state) {
  std::size_t const size = static_cast<std::size_t>(state.range(0));
  int const batch = gBatch(size);
  std::vector<char> const payload(size, 'x');
  cStreamPair pair;
  state.SetLabel(pair.mAgreed);
  cBatchCounter counter;
  std::thread receiver([&] {
    int taken = 0;
    for (;;) {
      short type = 0;
      short subtype = 0;
      char* message = nullptr;
      int length = 0;
      if (!pair.mServer->WaitTypedMessageZ1(type, subtype, message, length, nullptr)) return;
      pair.mServer->FreeMessage(message);
      if (type == kStop) return;
      if (++taken == batch) {
        taken = 0;
        counter.fTook();
      }
    }
  });
  long batches = 0;
  for (auto _ : state) {
    for (int i = 0; i < batch; ++i) {
      if (!pair.mClient.SendTypedMessageZ2(kData, 0, payload.data(), int(size))) {
        state.SkipWithError("send failed");
      }
    }
    counter.fWaitFor(++batches);
  }
  pair.mClient.SendTypedMessageZ2(kStop, 0, "", 0);
  receiver.join();
  state.SetItemsProcessed(state.iterations() * batch);
  state.SetBytesProcessed(state.iterations() * batch * static_cast<std::int64_t>(size));
}

void BM_StreamSocketTls_RoundTrip(benchmark::State& state) {
  std::vector<char> const payload(64, 'r');
  cStreamPair pair;
  std::thread echo([&] {
    for (;;) {
      short type = 0;
      short subtype = 0;
      char* message = nullptr;
      int length = 0;
      if (!pair.mServer->WaitTypedMessageZ1(type, subtype, message, length, nullptr)) return;
      bool const stop = type == kStop;
      if (!stop) pair.mServer->SendTypedMessageZ2(type, subtype, message, length);
      pair.mServer->FreeMessage(message);
      if (stop) return;
    }
  });
  for (auto _ : state) {
    pair.mClient.SendTypedMessageZ2(kData, 0, payload.data(), 64);
    short type = 0;
    short subtype = 0;
    char* message = nullptr;
    int length = 0;
    if (!pair.mClient.WaitTypedMessageZ1(type, subtype, message, length, nullptr)) {
      state.SkipWithError("no echo");
    }
    pair.mClient.FreeMessage(message);
  }
  pair.mClient.SendTypedMessageZ2(kStop, 0, "", 0);
  echo.join();
  state.SetItemsProcessed(state.iterations());
}

void BM_StreamSocketTls_Handshake(benchmark::State& state) {
  unsigned short port = 0;
  std::unique_ptr<StreamSocket> const listener = gTlsListener(port);
  // One connection for each iteration the benchmark will run.
  std::thread server([&, count = state.max_iterations] {
    for (benchmark::IterationCount k = 0; k < count; ++k) gTlsAccept(*listener)->CloseSocket();
  });
  auto connect = [&] {
    StreamSocket client(true, nullptr, false, false, gDirectory);
    auto const start = std::chrono::steady_clock::now();
    client.Connect("127.0.0.1", port, nSock::cSocketOptions());
    auto const took = std::chrono::steady_clock::now() - start;
    client.CloseSocket();
    return std::chrono::duration<double>(took).count();
  };
  for (auto _ : state) state.SetIterationTime(connect());
  server.join();
  listener->CloseSocket();
  state.SetItemsProcessed(state.iterations());
}

// --- a bare OpenSSL loop -----------------------------------------------------

// The two contexts of the bare loop, made once.
struct cBareContexts {
  SSL_CTX* mClient = SSL_CTX_new(TLS_client_method());
  SSL_CTX* mServer = SSL_CTX_new(TLS_server_method());

  cBareContexts() {
    std::string const certificate = gDirectory + "/server.crt";
    std::string const key = gDirectory + "/server.key";
    if (mClient == nullptr || mServer == nullptr ||
        SSL_CTX_use_certificate_file(mServer, certificate.c_str(), SSL_FILETYPE_PEM) <= 0 ||
        SSL_CTX_use_PrivateKey_file(mServer, key.c_str(), SSL_FILETYPE_PEM) <= 0 ||
        SSL_CTX_check_private_key(mServer) <= 0) {
      ERR_print_errors_fp(stderr);
      throw std::runtime_error("bare TLS contexts");
    }
    SSL_CTX_set_verify(mClient, SSL_VERIFY_NONE, nullptr);
  }
  ~cBareContexts() {
    SSL_CTX_free(mClient);
    SSL_CTX_free(mServer);
  }
  static cBareContexts& gGet() {
    static cBareContexts contexts;
    return contexts;
  }
};

int gBareListener(sockaddr_in& address) {
  int const listener = socket(AF_INET, SOCK_STREAM, 0);
  address = sockaddr_in{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      listen(listener, 16) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("bare listener");
  }
  return listener;
}

int gBareConnect(sockaddr_in const& address) {
  int const client = socket(AF_INET, SOCK_STREAM, 0);
  if (connect(client, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
    throw std::runtime_error("bare connect");
  }
  int const one = 1;
  setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  return client;
}

SSL* gBareSsl(SSL_CTX* context, int descriptor) {
  SSL* const ssl = SSL_new(context);
  if (ssl == nullptr || SSL_set_fd(ssl, descriptor) != 1) throw std::runtime_error("bare SSL");
  return ssl;
}

// Ends a connection without waiting for the peer's close notification.
void gBareClose(SSL* ssl, int descriptor) {
  if (ssl != nullptr) {
    SSL_shutdown(ssl);
    SSL_free(ssl);
  }
  close(descriptor);
}

struct cBarePair {
  int mClientSocket = -1;
  int mServerSocket = -1;
  SSL* mClient = nullptr;
  SSL* mServer = nullptr;

  cBarePair() {
    sockaddr_in address{};
    int const listener = gBareListener(address);
    mClientSocket = gBareConnect(address);
    mServerSocket = accept(listener, nullptr, nullptr);
    close(listener);
    int const one = 1;
    setsockopt(mServerSocket, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    mClient = gBareSsl(cBareContexts::gGet().mClient, mClientSocket);
    mServer = gBareSsl(cBareContexts::gGet().mServer, mServerSocket);
    int accepted = 0;
    std::thread server([&] { accepted = SSL_accept(mServer); });
    int const connected = SSL_connect(mClient);
    if (connected <= 0) shutdown(mClientSocket, SHUT_RDWR);
    server.join();
    if (connected <= 0 || accepted <= 0) {
      ERR_print_errors_fp(stderr);
      throw std::runtime_error("bare handshake");
    }
  }
  ~cBarePair() {
    gBareClose(mClient, mClientSocket);
    gBareClose(mServer, mServerSocket);
  }
};

bool gSslWriteAll(SSL* ssl, char const* data, std::size_t count) {
  std::size_t done = 0;
  while (done < count) {
    int const wrote = SSL_write(ssl, data + done, static_cast<int>(count - done));
    if (wrote <= 0) return false;
    done += static_cast<std::size_t>(wrote);
  }
  return true;
}

bool gSslReadExactly(SSL* ssl, char* buffer, std::size_t count) {
  std::size_t done = 0;
  while (done < count) {
    int const got = SSL_read(ssl, buffer + done, static_cast<int>(count - done));
    if (got <= 0) return false;
    done += static_cast<std::size_t>(got);
  }
  return true;
}

// The header, then the payload: two SSL_writes.
bool gBareSend(SSL* ssl, short type, char const* payload, std::size_t size) {
  std::uint32_t const length = htonl(static_cast<std::uint32_t>(size));
  std::uint16_t const types[2] = {htons(static_cast<std::uint16_t>(type)), 0};
  char header[8];
  std::memcpy(header, &length, 4);
  std::memcpy(header + 4, types, 4);
  return gSslWriteAll(ssl, header, 8) && gSslWriteAll(ssl, payload, size);
}

// Exact reads of the header, then of the payload into a reused buffer.
bool gBareReceive(SSL* ssl, std::vector<char>& payload, short& type) {
  char header[8];
  if (!gSslReadExactly(ssl, header, 8)) return false;
  std::uint32_t length = 0;
  std::uint16_t rawType = 0;
  std::memcpy(&length, header, 4);
  std::memcpy(&rawType, header + 4, 2);
  type = static_cast<short>(ntohs(rawType));
  payload.resize(ntohl(length));
  return gSslReadExactly(ssl, payload.data(), payload.size());
}

void BM_BareOpenSsl_Throughput(benchmark::State& state) {
  std::size_t const size = static_cast<std::size_t>(state.range(0));
  int const batch = gBatch(size);
  std::vector<char> const payload(size, 'x');
  cBarePair pair;
  state.SetLabel(gAgreed(pair.mServer));
  cBatchCounter counter;
  std::thread receiver([&] {
    std::vector<char> buffer;
    int taken = 0;
    short type = 0;
    while (gBareReceive(pair.mServer, buffer, type) && type != kStop) {
      if (++taken == batch) {
        taken = 0;
        counter.fTook();
      }
    }
  });
  long batches = 0;
  for (auto _ : state) {
    for (int i = 0; i < batch; ++i) {
      if (!gBareSend(pair.mClient, kData, payload.data(), size)) state.SkipWithError("send failed");
    }
    counter.fWaitFor(++batches);
  }
  gBareSend(pair.mClient, kStop, "", 0);
  receiver.join();
  state.SetItemsProcessed(state.iterations() * batch);
  state.SetBytesProcessed(state.iterations() * batch * static_cast<std::int64_t>(size));
}

void BM_BareOpenSsl_RoundTrip(benchmark::State& state) {
  std::vector<char> const payload(64, 'r');
  cBarePair pair;
  std::thread echo([&] {
    std::vector<char> buffer;
    short type = 0;
    while (gBareReceive(pair.mServer, buffer, type) && type != kStop) {
      gBareSend(pair.mServer, type, buffer.data(), buffer.size());
    }
  });
  std::vector<char> buffer;
  for (auto _ : state) {
    gBareSend(pair.mClient, kData, payload.data(), 64);
    short type = 0;
    if (!gBareReceive(pair.mClient, buffer, type)) state.SkipWithError("no echo");
  }
  gBareSend(pair.mClient, kStop, "", 0);
  echo.join();
  state.SetItemsProcessed(state.iterations());
}

// The server waits for the client's close notification, as StreamSocket's does.
void BM_BareOpenSsl_Handshake(benchmark::State& state) {
  sockaddr_in address{};
  int const listener = gBareListener(address);
  cBareContexts& contexts = cBareContexts::gGet();
  // One connection for each iteration the benchmark will run.
  std::thread server([&, count = state.max_iterations] {
    for (benchmark::IterationCount k = 0; k < count; ++k) {
      int const accepted = accept(listener, nullptr, nullptr);
      if (accepted < 0) return;
      int const one = 1;
      setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      SSL* const ssl = gBareSsl(contexts.mServer, accepted);
      if (SSL_accept(ssl) > 0 && SSL_shutdown(ssl) == 0) SSL_shutdown(ssl);
      SSL_free(ssl);
      close(accepted);
    }
  });
  auto connect = [&] {
    auto const start = std::chrono::steady_clock::now();
    int const client = gBareConnect(address);
    SSL* const ssl = gBareSsl(contexts.mClient, client);
    int const connected = SSL_connect(ssl);
    auto const took = std::chrono::steady_clock::now() - start;
    if (connected > 0 && SSL_shutdown(ssl) == 0) SSL_shutdown(ssl);
    SSL_free(ssl);
    close(client);
    return connected > 0 ? std::chrono::duration<double>(took).count() : -1.0;
  };
  for (auto _ : state) {
    double const seconds = connect();
    if (seconds < 0) {
      state.SkipWithError("bare handshake failed");
      shutdown(listener, SHUT_RDWR);  // wakes the server's accept
      break;
    }
    state.SetIterationTime(seconds);
  }
  server.join();
  close(listener);
  state.SetItemsProcessed(state.iterations());
}

void gSizes(benchmark::internal::Benchmark* benchmark) {
  for (int size : {64, 1024, 64 * 1024, 1024 * 1024}) benchmark->Arg(size);
  benchmark->UseRealTime()->Unit(benchmark::kMicrosecond);
}

BENCHMARK(BM_StreamSocketTls_Throughput)->Apply(gSizes);
BENCHMARK(BM_BareOpenSsl_Throughput)->Apply(gSizes);
BENCHMARK(BM_StreamSocketTls_RoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BareOpenSsl_RoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_StreamSocketTls_Handshake)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BareOpenSsl_Handshake)->UseManualTime()->Unit(benchmark::kMicrosecond);

// Collects the median of each benchmark's repetitions (or its single run).
class cMedianReporter : public corvanth::bench::cCollectingReporter {
 public:
  void ReportRuns(std::vector<Run> const& runs) override {
    for (auto const& run : runs) {
      if (run.error_occurred) continue;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        mMedians[run.run_name.str()] = run.GetAdjustedRealTime();
      } else if (run.run_type == Run::RT_Iteration && !mMedians.count(run.run_name.str())) {
        mSingles[run.run_name.str()] = run.GetAdjustedRealTime();
      }
    }
    cCollectingReporter::ReportRuns(runs);
  }
  double fTime(std::string const& name) const {
    if (auto found = mMedians.find(name); found != mMedians.end()) return found->second;
    if (auto found = mSingles.find(name); found != mSingles.end()) return found->second;
    return 0;
  }

 private:
  std::map<std::string, double> mMedians;
  std::map<std::string, double> mSingles;
};

// Test certificates in a fresh temporary directory; empty on failure.
std::string gMakeCertificates() {
  char pattern[] = "/tmp/corvanth-bench-tls-XXXXXX";
  if (mkdtemp(pattern) == nullptr) return "";
  std::string const command = std::string("bash '") + CORVANTH_SOURCE_DIR +
                              "/data/certs/make-test-certs.sh' '" + pattern + "' >/dev/null 2>&1";
  if (std::system(command.c_str()) != 0) {
    std::filesystem::remove_all(pattern);
    return "";
  }
  return pattern;
}

}  // namespace

// By default five repetitions in random order, so that a machine whose load
// drifts meets both alike, and medians; flags given on the command line come
// later and win.
int main(int argc, char** argv) {
  gDirectory = gMakeCertificates();
  if (gDirectory.empty()) {
    std::fprintf(stderr, "bench_tls: data/certs/make-test-certs.sh could not make certificates\n");
    return 1;
  }
  std::string repetitions = "--benchmark_repetitions=5";
  std::string interleaving = "--benchmark_enable_random_interleaving=true";
  std::string aggregates = "--benchmark_report_aggregates_only=true";
  std::vector<char*> arguments = {argv[0], repetitions.data(), interleaving.data(),
                                  aggregates.data()};
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;
  cMedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  // Speed ratios: ours over the bare loop's, above 1.00x StreamSocket is faster.
  std::printf("\n");
  auto ratio = [&](std::string const& what, std::string const& ours, std::string const& theirs) {
    double const a = reporter.fTime(ours);
    double const b = reporter.fTime(theirs);
    if (a > 0 && b > 0) std::printf("ratio %s: %.2fx\n", what.c_str(), b / a);
  };
  for (char const* size : {"64", "1024", "65536", "1048576"}) {
    ratio(std::string("StreamSocket TLS / bare OpenSSL, frames per second at ") + size + " B",
          std::string("BM_StreamSocketTls_Throughput/") + size + "/real_time",
          std::string("BM_BareOpenSsl_Throughput/") + size + "/real_time");
  }
  ratio("StreamSocket TLS / bare OpenSSL, round trips per second at 64 B",
        "BM_StreamSocketTls_RoundTrip/real_time", "BM_BareOpenSsl_RoundTrip/real_time");
  ratio("StreamSocket TLS / bare OpenSSL, connects with handshake per second",
        "BM_StreamSocketTls_Handshake/manual_time", "BM_BareOpenSsl_Handshake/manual_time");
  benchmark::Shutdown();
  std::filesystem::remove_all(gDirectory);
  return 0;
}
