// Frames over TLS on TCP loopback: StreamSocket with TLS on beside a bare
// OpenSSL loop (SSL_write of the header, SSL_write of the payload, exact
// SSL_reads), in the same run, with the same certificates (made at start by
// data/certs/make-test-certs.sh into a temporary directory) and the cipher
// OpenSSL picks by default on both; neither side checks certificates.
//
// Throughput and round trip as FrameBench.h measures them. Handshake: the time
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

#include "FrameBench.h"
#include "LintelSocket.h"
#include "streamsocket.h"

namespace {

namespace nSock = nCommunication::nSocket;

using namespace corvanth::bench;

// The certificate directory of this run.
std::string gDirectory;

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
  cStreamPair pair;
  state.SetLabel(pair.mAgreed);
  gStreamThroughput(state, pair.mClient, *pair.mServer);
}

void BM_StreamSocketTls_RoundTrip(benchmark::State& state) {
  cStreamPair pair;
  gStreamRoundTrip(state, pair.mClient, *pair.mServer);
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

bool gBareReceive(SSL* ssl, std::vector<char>& payload, short& type) {
  return gReceiveFrame([ssl](char* buffer, std::size_t count) { return gSslReadExactly(ssl, buffer, count); },
                       payload, type);
}

void BM_BareOpenSsl_Throughput(benchmark::State& state) {
  cBarePair pair;
  state.SetLabel(gAgreed(pair.mServer));
  gBaselineThroughput(
      state, [&](short type, char const* data, std::size_t size) { return gBareSend(pair.mClient, type, data, size); },
      [&](std::vector<char>& buffer, short& type) { return gBareReceive(pair.mServer, buffer, type); });
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

BENCHMARK(BM_StreamSocketTls_Throughput)->Apply(gSizes);
BENCHMARK(BM_BareOpenSsl_Throughput)->Apply(gSizes);
BENCHMARK(BM_StreamSocketTls_RoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BareOpenSsl_RoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_StreamSocketTls_Handshake)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BareOpenSsl_Handshake)->UseManualTime()->Unit(benchmark::kMicrosecond);

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

int main(int argc, char** argv) {
  gDirectory = gMakeCertificates();
  if (gDirectory.empty()) {
    std::fprintf(stderr, "bench_tls: data/certs/make-test-certs.sh could not make certificates\n");
    return 1;
  }
  cMedianReporter reporter;
  if (!gRunWithMedians(argc, argv, reporter)) return 1;
  for (char const* size : {"64", "1024", "65536", "1048576"}) {
    reporter.fRatio(std::string("StreamSocket TLS / bare OpenSSL, frames per second at ") + size + " B",
          std::string("BM_StreamSocketTls_Throughput/") + size + "/real_time",
          std::string("BM_BareOpenSsl_Throughput/") + size + "/real_time");
  }
  reporter.fRatio("StreamSocket TLS / bare OpenSSL, round trips per second at 64 B",
        "BM_StreamSocketTls_RoundTrip/real_time", "BM_BareOpenSsl_RoundTrip/real_time");
  reporter.fRatio("StreamSocket TLS / bare OpenSSL, connects with handshake per second",
        "BM_StreamSocketTls_Handshake/manual_time", "BM_BareOpenSsl_Handshake/manual_time");
  benchmark::Shutdown();
  std::filesystem::remove_all(gDirectory);
  return 0;
}
