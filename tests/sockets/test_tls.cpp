// StreamSocket with TLS: against real openssl s_server and s_client processes,
// against itself, and every set-up failure caused for real.
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <functional>

#include "LogCapture.h"
#include "TlsKit.h"

#if defined(__SANITIZE_ADDRESS__)
// A failed TLS accept leaves its accepted connection open and unreferenced on
// purpose: its handle is the one leak the failure tests cause.
extern "C" __attribute__((visibility("default"), used)) char const* __lsan_default_suppressions() {
  return "leak:StreamSocket::Accept\n";
}
#endif

namespace {

using namespace corvanth::test;

#if defined(__SANITIZE_THREAD__)
constexpr int kCloseRounds = 100;  // a handshake costs some 80 ms under ThreadSanitizer
#else
constexpr int kCloseRounds = 1000;
#endif

std::string gFrame(short type, short subtype, std::string const& payload) {
  return gHeader(static_cast<std::uint32_t>(payload.size()), static_cast<std::uint16_t>(type),
                 static_cast<std::uint16_t>(subtype)) + payload;
}

// Our client connected to our server; the server's SSL object is handed to
// onAccept before the server's StreamSocket takes it over.
struct cTlsPair {
  std::unique_ptr<StreamSocket> mClient;
  std::unique_ptr<StreamSocket> mServer;
  explicit cTlsPair(std::function<void(ssl_st*)> const& onAccept = {}) {
    cLoopbackListener listener(gCertificates(), false);
    auto accepted = gAsync([&] { return listener.mSocket->Accept(gBounded()); });
    mClient = std::make_unique<StreamSocket>(true, nullptr, false, false, gCertificates());
    mClient->Connect("127.0.0.1", listener.mPort, gBounded());
    auto const [handle, ssl, port] = accepted.fJoin();
    if (onAccept) onAccept(ssl);
    mServer = std::make_unique<StreamSocket>(nSock::gValidate(handle), true, ssl, false, false,
                                             gCertificates());
  }
  // Both ends at once: each one's clean-up waits for the other's close_notify.
  ~cTlsPair() {
    auto client = gAsync([this] { mClient->CloseSocket(); });
    mServer->CloseSocket();
    client.fJoin();
  }
};

TEST(TlsPeers, AgainstOpensslServerAndClientWithAndWithoutClientCertificates) {
  std::string const& certificates = gCertificates();
  for (bool const verify : {false, true}) {
    SCOPED_TRACE(verify);
    // Our client against `openssl s_server`, which asks for a client certificate when verifying.
    unsigned short const freePort = gFreePort();
    std::vector<std::string> arguments = {"openssl", "s_server", "-quiet", "-naccept", "1",
                                          "-accept", "127.0.0.1:" + std::to_string(freePort),
                                          "-cert", certificates + "/server.crt",
                                          "-key", certificates + "/server.key"};
    if (verify) arguments.insert(arguments.end(), {"-Verify", "1", "-CAfile", certificates + "/ca.crt"});
    cChildProcess openssl(arguments, true);
    ASSERT_TRUE(gWaitUntilListening(freePort));
    StreamSocket client(true, nullptr, true, verify, certificates);
    testing::internal::CaptureStdout();
    client.Connect("127.0.0.1", freePort, gBounded());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Server certificate verified successfully!\n");
    std::string const payload(20000, 'p');
    ASSERT_TRUE(client.SendTypedMessageZ2(3, -4, payload.data(), 20000));
    EXPECT_EQ(openssl.fRead(20008, kBound), gFrame(3, -4, payload));
    ASSERT_TRUE(openssl.fWrite(gFrame(9, 10, "from s_server")));
    EXPECT_EQ(gReceiveFrame(client), (cFrame{true, 9, 10, 13, false, "from s_server"}));
    client.CloseSocket();

    // `openssl s_client` against our server, with a client certificate when verifying.
    cLoopbackListener listener(certificates, verify);
    arguments = {"openssl", "s_client", "-quiet", "-ign_eof", "-verify_return_error",
                 "-connect", "127.0.0.1:" + std::to_string(listener.mPort),
                 "-CAfile", certificates + "/ca.crt"};
    if (verify) arguments.insert(arguments.end(), {"-cert", certificates + "/client.crt", "-key", certificates + "/client.key"});
    cChildProcess sClient(arguments, true);
    testing::internal::CaptureStdout();
    auto const [handle, ssl, port] = listener.mSocket->Accept(gBounded());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              verify ? "Client certificate verified successfully!\n" : "");
    ASSERT_NE(ssl, nullptr);
    StreamSocket server(nSock::gValidate(handle), true, ssl, false, verify, certificates);
    ASSERT_TRUE(sClient.fWrite(gFrame(-1, 2, "from s_client")));
    EXPECT_EQ(gReceiveFrame(server), (cFrame{true, -1, 2, 13, false, "from s_client"}));
    ASSERT_TRUE(server.SendTypedMessageZ2(5, 6, "ours", 4));
    EXPECT_EQ(sClient.fRead(12, kBound), gFrame(5, 6, "ours"));
    server.CloseSocket();
  }
}

TEST(TlsFrames, EverySizeBothWaysInWritesOfAtMost8192ThenThePeersCloseEndsARead) {
  // Lengths of the application records that reach the server.
  std::vector<int> records;
  cTlsPair pair([&](ssl_st* ssl) {
    SSL_set_msg_callback_arg(ssl, &records);
    SSL_set_msg_callback(ssl, [](int written, int, int type, void const* bytes, size_t length, SSL*, void* arg) {
      auto const* header = static_cast<unsigned char const*>(bytes);
      if (!written && type == SSL3_RT_HEADER && length == 5 && header[0] == SSL3_RT_APPLICATION_DATA) {
        static_cast<std::vector<int>*>(arg)->push_back(header[3] << 8 | header[4]);
      }
    });
  });
  for (int const size : {0, 1, 8192, 8193, 1000000}) {
    SCOPED_TRACE(size);
    std::string payload(static_cast<std::size_t>(size), '\0');
    for (int i = 0; i < size; ++i) payload[static_cast<std::size_t>(i)] = char(i * 7 + size);
    for (bool const fromClient : {true, false}) {
      StreamSocket& sender = fromClient ? *pair.mClient : *pair.mServer;
      StreamSocket& receiver = fromClient ? *pair.mServer : *pair.mClient;
      records.clear();
      auto received = gAsync([&] { return gReceiveFrame(receiver); });
      ASSERT_TRUE(sender.SendTypedMessageZ2(short(size), 7, payload.data(), size));
      EXPECT_TRUE(received.fJoin() == (cFrame{true, short(size), 7, size, size == 0, payload}));
      if (fromClient && size == 1000000) {
        // 1,000,008 bytes in pieces of 8192: 123 records, each 8192 bytes and
        // the cipher's overhead at most (one write would fill 16384).
        EXPECT_EQ(records.size(), 123u);
        EXPECT_LE(*std::max_element(records.begin(), records.end()), 8192 + 256);
      }
    }
  }

  // The peer's close during a read: the read fails, the object is shut, and
  // the trace line follows the close.
  cLogCapture capture;
  std::atomic<long> reader{0};
  auto read = gAsync([&] {
    reader = gThreadId();
    cFrame const frame = gReceiveFrame(*pair.mServer);
    return std::make_pair(frame.mOk, pair.mServer->SendTypedMessageZ2(1, 1, "x", 1));
  });
  pair.mClient->CloseSocket();
  auto const [received, sentAfter] = read.fJoin();
  EXPECT_FALSE(received);
  EXPECT_FALSE(sentAfter);  // shut: refused by the flag
  std::vector<std::string> server;
  for (auto const& record : capture.fRecords()) {
    if (record.thread == reader && !record.text.empty()) server.push_back(record.text);
  }
  EXPECT_EQ(server, (std::vector<std::string>{"SSL connection closed gracefully (server).",
                                              "SSL connection closed by peer (clean shutdown).",
                                              "WriteDataZ1 aborted because shutdown is requested."}));
  // A shut object's clean-up, repeated, and one that never had TLS objects: no line.
  capture.fClear();
  pair.mServer->CleanupSSL();
  pair.mClient->CleanupSSL();
  StreamSocket{true}.CleanupSSL();
  EXPECT_TRUE(capture.fWithText("SSL").empty());
}

TEST(TlsFailures, EveryTextCausedForRealInBothRolesWithTheStateLeftBehind) {
  struct {
    bool serverRole;
    char const* files;  // our certificate directory: "name" or "name=source", sources in the certificates
    bool verifyServer, verifyClient;
    std::string peer;  // "tcp": plain TCP that sends junk; else the directory of a TLS peer's certificates
    std::string text;  // the exception's text, our directory put before a '/'; a trailing '*' is a prefix
    bool printsErrors;
  } const failures[] = {
      {false, "", true, false, "tcp", "CA Certificate file does not exist: /ca_bundle.crt", false},
      {false, "ca_bundle.crt=corrupt.pem", true, false, "tcp", "Failed to load CA certificate: /ca_bundle.crt", true},
      {false, "", false, true, "tcp", "Client Certificate file does not exist: /client.crt", false},
      {false, "client.crt", false, true, "tcp", "Client Private Key file does not exist: /client.key", false},
      {false, "client.crt=corrupt.pem client.key", false, true, "tcp", "Failed to load client certificate: /client.crt", true},
      {false, "client.crt client.key=server.key", false, true, "tcp", "Failed to load client private key: /client.key", true},
      {false, "client.crt=othertype/client.crt client.key=othertype/client.key", false, true, "tcp", "Client private key does not match the certificate", false},
      {false, "ca_bundle.crt=two/ca_bundle.crt", true, false, "two", "SSL connection failed: *", true},
      {false, "ca_bundle.crt", true, false, "one", "SSL connection failed: *", true},
      {false, "ca_bundle.crt", true, false, "rogue", "SSL connection failed: *", true},
      {false, "", false, false, "tcp", "SSL connection failed: *", true},
      {true, "", false, false, "tcp", "Server certificate file does not exist: /server.crt", false},
      {true, "server.crt", false, false, "tcp", "Server private key file does not exist: /server.key", false},
      {true, "server.crt=corrupt.pem server.key", false, false, "tcp", "Failed to load SSL certificate: /server.crt", true},
      {true, "server.crt server.key=client.key", false, false, "tcp", "Failed to load SSL private key: /server.key", true},
      {true, "server.crt=othertype/server.crt server.key=othertype/server.key", false, false, "tcp", "Private key does not match the certificate", true},
      {true, "server.crt server.key", false, true, "tcp", "CA certificate file does not exist: /ca.crt", false},
      {true, "server.crt server.key ca.crt=corrupt.pem", false, true, "tcp", "Failed to load CA certificate for client verification: /ca.crt", true},
      {true, "server.crt server.key ca.crt", false, true, "nocert", "SSL accept failed", false},
      {true, "server.crt server.key ca.crt=two/ca.crt", false, true, "two", "SSL accept failed", false},
      {true, "server.crt server.key ca.crt", false, true, "rogue", "SSL accept failed", false},
      {true, "server.crt server.key ca.crt", false, false, "tcp", "SSL accept failed", false},
  };
  int row = 0;
  for (auto const& failure : failures) {
    SCOPED_TRACE(failure.text);
    std::string const directory = gCompose("failure" + std::to_string(row++), failure.files);
    std::string const peerDirectory = gCertificates() + "/" + failure.peer;
    bool const tcp = failure.peer == "tcp";
    std::string const junk = "this is no TLS record\r\n\r\n";
    cLogCapture capture;
    std::string text;
    testing::internal::CaptureStderr();
    if (!failure.serverRole) {
      // The peer: our TLS server with the peer's certificates, or plain TCP on the same listener.
      cLoopbackListener listener(peerDirectory, false);
      auto peer = gAsync([&]() -> std::unique_ptr<StreamSocket> {
        if (tcp) {
          auto accepted = gAdopt(nSock::gAccept(listener.mHandle, gBounded()));
          gSendRaw(*accepted, junk);
          return accepted;
        }
        gWhat([&] {
          auto const [handle, ssl, port] = listener.mSocket->Accept(gBounded());
          SSL_free(ssl);
          nSock::gDelete(handle);
        });
        return nullptr;
      });
      StreamSocket client(true, nullptr, failure.verifyServer, failure.verifyClient, directory);
      text = gWhat([&] { client.Connect("127.0.0.1", listener.mPort, gBounded()); });
      auto accepted = peer.fJoin();
      // Connected: bytes still pass to a plain peer; in any case our end is open.
      EXPECT_TRUE(gOpen(gDescriptor(client)));
      if (accepted && failure.text.back() != '*') {
        ASSERT_TRUE(gSendRaw(client, "still here"));
        EXPECT_EQ(gReceiveRaw(*accepted, 10), "still here");
      }
      capture.fClear();
      client.CloseSocket();  // nothing is left to free twice, and no TLS object to end
      EXPECT_TRUE(capture.fWithText("SSL").empty());
    } else {
      cLoopbackListener listener(directory, failure.verifyClient);
      // The peer's end of the connection, kept open past its StreamSocket.
      auto peer = gAsync([&] {
        StreamSocket client(!tcp, nullptr, false, failure.peer != "nocert", peerDirectory);
        gWhat([&] {
          client.Connect("127.0.0.1", listener.mPort, gBounded());
          if (tcp) gSendRaw(client, junk);
          if (!tcp) gReceiveFrame(client);  // TLS 1.3 learns of the refusal here
        });
        return dup(gDescriptor(client));
      });
      text = gWhat([&] { listener.mSocket->Accept(gBounded()); });
      int const far = peer.fJoin();
      EXPECT_TRUE(gPeerOpen(far));  // the accepted connection stays open: no end of stream
      close(far);
    }
    std::string const printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(printed.find(":error:") != std::string::npos, failure.printsErrors) << printed;
    std::string expected = failure.text;
    if (expected.find('/') != std::string::npos) expected.insert(expected.find('/'), directory);
    if (expected.back() == '*') expected.pop_back();
    EXPECT_EQ(failure.text.back() == '*' ? text.substr(0, expected.size()) : text, expected);
  }
}

TEST(TlsClose, CloseFromAnotherThreadWakesAReaderInsideSslRead1000Times) {
  for (int round = 0; round < kCloseRounds; ++round) {
    cTlsPair pair;
    std::atomic<long> reader{0};
    auto read = gAsync([&] {
      reader = gThreadId();
      return gReceiveFrame(*pair.mServer).mOk;
    });
    ASSERT_TRUE(gWaitUntilBlocked(reader, {SYS_read, SYS_recvfrom}));
    pair.mServer->CloseSocket();
    ASSERT_TRUE(read.fReadyBy(std::chrono::steady_clock::now() + kBound)) << round;
  }
}

}  // namespace
