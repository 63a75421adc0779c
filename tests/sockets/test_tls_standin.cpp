// The set-up failures of TLS that a real OpenSSL does not produce on demand:
// a context or an SSL object that cannot be made, a descriptor it will not
// take, a handshake that passes with no peer certificate, and a verification
// result other than OK after a handshake that verification let through. This
// program puts its own definitions of those five OpenSSL calls before
// libssl's; each fails once on the thread that armed it and otherwise hands
// the call on to libssl.
#include <dlfcn.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <string>

#include "LogCapture.h"
#include "TlsKit.h"

#if defined(__SANITIZE_ADDRESS__)
// A failed TLS accept leaves its accepted connection open and unreferenced on purpose.
extern "C" __attribute__((visibility("default"), used)) char const* __lsan_default_suppressions() {
  return "leak:StreamSocket::Accept\n";
}
#endif

namespace {

thread_local std::string tFailNext;  // the OpenSSL call to fail next on this thread

bool gFailsNow(char const* call) {
  if (tFailNext != call) return false;
  tFailNext.clear();
  return true;
}

template <class Function>
Function gReal(char const* call) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, call));
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) SSL_CTX* SSL_CTX_new(SSL_METHOD const* method) {
  static auto const real = gReal<SSL_CTX* (*)(SSL_METHOD const*)>("SSL_CTX_new");
  return gFailsNow("SSL_CTX_new") ? nullptr : real(method);
}

__attribute__((visibility("default"))) SSL* SSL_new(SSL_CTX* context) {
  static auto const real = gReal<SSL* (*)(SSL_CTX*)>("SSL_new");
  return gFailsNow("SSL_new") ? nullptr : real(context);
}

__attribute__((visibility("default"))) int SSL_set_fd(SSL* ssl, int descriptor) {
  static auto const real = gReal<int (*)(SSL*, int)>("SSL_set_fd");
  return gFailsNow("SSL_set_fd") ? 0 : real(ssl, descriptor);
}

__attribute__((visibility("default"))) X509* SSL_get1_peer_certificate(SSL const* ssl) {
  static auto const real = gReal<X509* (*)(SSL const*)>("SSL_get1_peer_certificate");
  return gFailsNow("SSL_get1_peer_certificate") ? nullptr : real(ssl);
}

__attribute__((visibility("default"))) long SSL_get_verify_result(SSL const* ssl) {
  static auto const real = gReal<long (*)(SSL const*)>("SSL_get_verify_result");
  return gFailsNow("SSL_get_verify_result") ? X509_V_ERR_CERT_HAS_EXPIRED : real(ssl);
}

}  // extern "C"

namespace {

using namespace corvanth::test;

TEST(TlsStandIn, FailuresNoRealPeerCausesWithTheStateLeftBehind) {
  std::string const& certificates = gCertificates();
  std::string const expired = "certificate has expired (Error code: 10)";
  struct {
    bool serverRole;
    char const* call;
    bool handshakes;  // the peer completes a TLS handshake before our side fails
    std::string text;
    bool cleanupLogs;  // the TLS objects stay for the close to end and free
  } const failures[] = {
      {false, "SSL_CTX_new", false, "Failed to initialize SSL context for client", false},
      {false, "SSL_new", false, "Failed to create SSL object for the connection", false},
      {false, "SSL_set_fd", false, "Failed to associate socket with SSL", false},
      {false, "SSL_get1_peer_certificate", true, "No certificate provided by the server", true},
      {false, "SSL_get_verify_result", true, "Failed to verify server certificate: " + expired, false},
      {true, "SSL_CTX_new", false, "Unable to create SSL context", false},
      {true, "SSL_new", false, "Failed to create SSL object", false},
      {true, "SSL_set_fd", false, "Failed to associate socket with SSL", false},
      {true, "SSL_get1_peer_certificate", true, "No client certificate provided", false},
      {true, "SSL_get_verify_result", true, "Failed to verify client certificate: " + expired, false},
  };
  for (auto const& failure : failures) {
    SCOPED_TRACE(failure.text);
    cLogCapture capture;
    std::string text;
    if (!failure.serverRole) {
      cLoopbackListener listener(certificates, false);
      auto peer = gAsync([&]() -> std::unique_ptr<StreamSocket> {
        if (!failure.handshakes) return gAdopt(nSock::gAccept(listener.mHandle, gBounded()));
        auto const [handle, ssl, port] = listener.mSocket->Accept(gBounded());
        return std::make_unique<StreamSocket>(nSock::gValidate(handle), true, ssl, false, false, "");
      });
      StreamSocket client(true, nullptr, true, false, certificates);
      testing::internal::CaptureStdout();
      text = gWhat([&] {
        tFailNext = failure.call;
        client.Connect("127.0.0.1", listener.mPort, gBounded());
      });
      EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
      auto accepted = peer.fJoin();
      EXPECT_TRUE(gOpen(gDescriptor(client)));  // still connected at TCP level
      capture.fClear();
      auto close = gAsync([&] { accepted->CloseSocket(); });
      client.CloseSocket();
      close.fJoin();
      // What the failure freed and nulled is not ended or freed again.
      long const ours = gThreadId();
      auto const lines = capture.fWithText("SSL connection closed gracefully (server).");
      EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [&](auto const& line) { return line.thread == ours; }),
                failure.cleanupLogs ? 1 : 0);
    } else {
      cLoopbackListener listener(certificates, true);
      auto peer = gAsync([&] {
        if (!failure.handshakes) {
          nSock::cHandleValid const raw = nSock::gCreateConnected("127.0.0.1", listener.mPort, gBounded());
          return std::make_unique<StreamSocket>(raw, false, nullptr, false, false, "");
        }
        auto client = std::make_unique<StreamSocket>(true, nullptr, false, true, certificates);
        client->Connect("127.0.0.1", listener.mPort, gBounded());
        return client;
      });
      testing::internal::CaptureStdout();
      text = gWhat([&] {
        tFailNext = failure.call;
        listener.mSocket->Accept(gBounded());
      });
      EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
      auto const client = peer.fJoin();
      EXPECT_TRUE(gPeerOpen(gDescriptor(*client)));  // the accepted connection stays open
      ::shutdown(gDescriptor(*client), SHUT_RDWR);  // no close notification will come from it
    }
    EXPECT_EQ(text, failure.text);
    EXPECT_EQ(tFailNext, "");  // the armed call was reached
    tFailNext.clear();
  }
}

}  // namespace
