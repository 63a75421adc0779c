// StreamSocket with TLS: against real openssl s_server and s_client processes,
// against itself, and every set-up failure caused for real.
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <functional>
#include <stdexcept>

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

struct cTlsListener {
  nSock::cHandleValid mHandle = nSock::gCreateListenerOn("127.0.0.1", 0);
  unsigned short mPort = nSock::gLocalPort(mHandle);
  StreamSocket mSocket;
  cTlsListener(std::string const& directory, bool verifyClient)
      : mSocket(mHandle, true, nullptr, false, verifyClient, directory) {}
};

// Our client connected to our server; the server's SSL object is handed to
// onAccept before the server's StreamSocket takes it over.
struct cTlsPair {
  std::unique_ptr<StreamSocket> mClient;
  std::unique_ptr<StreamSocket> mServer;
  explicit cTlsPair(std::function<void(ssl_st*)> const& onAccept = {}) {
    cTlsListener listener(gCertificates(), false);
    auto accepted = gAsync([&] { return listener.mSocket.Accept(gBounded()); });
    mClient = std::make_unique<StreamSocket>(true, nullptr, false, false, gCertificates());
    mClient->Connect("127.0.0.1", listener.mPort, gBounded());
    auto const [handle, ssl, port] = gJoin(accepted);
    if (onAccept) onAccept(ssl);
    mServer = std::make_unique<StreamSocket>(nSock::gValidate(handle), true, ssl, false, false,
                                             gCertificates());
  }
  // Both ends at once: each one's clean-up waits for the other's close_notify.
  ~cTlsPair() {
    auto client = gAsync([this] { mClient->CloseSocket(); });
    mServer->CloseSocket();
    gJoin(client);
  }
};

// Open at the far end: every byte that came is taken and no end of stream follows.
bool gPeerOpen(int descriptor) {
  char buffer[4096];
  for (int round = 0; round < kCloseRounds; ++round) {
    ssize_t const got = recv(descriptor, buffer, sizeof buffer, MSG_DONTWAIT);
    if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
    if (got == 0) return false;
  }
  return false;
}

int gDescriptor(StreamSocket const& socket) { return gHandleOf(socket).fHolder()->fDescriptor(); }

TEST(TlsPeers, OurClientAgainstOpensslServerWithAndWithoutClientVerification) {
  for (bool const verify : {false, true}) {
    SCOPED_TRACE(verify);
    std::string const& certificates = gCertificates();
    unsigned short const port = gFreePort();
    std::vector<std::string> arguments = {"s_server", "-quiet", "-naccept", "1",
                                          "-accept", "127.0.0.1:" + std::to_string(port),
                                          "-cert", certificates + "/server.crt",
                                          "-key", certificates + "/server.key"};
    if (verify) arguments.insert(arguments.end(), {"-Verify", "1", "-CAfile", certificates + "/ca.crt"});
    cOpenssl server(arguments);
    ASSERT_TRUE(gWaitUntilListening(port));
    StreamSocket client(true, nullptr, true, verify, certificates);
    testing::internal::CaptureStdout();
    client.Connect("127.0.0.1", port, gBounded());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Server certificate verified successfully!\n");
    std::string const payload(20000, 'p');
    ASSERT_TRUE(client.SendTypedMessageZ2(3, -4, payload.data(), 20000));
    EXPECT_EQ(server.fRead(20008), gFrame(3, -4, payload));
    ASSERT_TRUE(server.fWrite(gFrame(9, 10, "from s_server")));
    cFrame const frame = gReceiveFrame(client);
    EXPECT_TRUE(frame.mOk && frame.mType == 9 && frame.mSubtype == 10);
    EXPECT_EQ(frame.mPayload, "from s_server");
    client.CloseSocket();
  }
}

TEST(TlsPeers, OpensslClientAgainstOurServerWithAndWithoutClientCertificate) {
  for (bool const verify : {false, true}) {
    SCOPED_TRACE(verify);
    std::string const& certificates = gCertificates();
    cTlsListener listener(certificates, verify);
    std::vector<std::string> arguments = {"s_client", "-quiet", "-ign_eof", "-verify_return_error",
                                          "-connect", "127.0.0.1:" + std::to_string(listener.mPort),
                                          "-CAfile", certificates + "/ca.crt"};
    if (verify) {
      arguments.insert(arguments.end(), {"-cert", certificates + "/client.crt", "-key",
                                         certificates + "/client.key"});
    }
    cOpenssl client(arguments);
    testing::internal::CaptureStdout();
    auto const [handle, ssl, port] = listener.mSocket.Accept(gBounded());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              verify ? "Client certificate verified successfully!\n" : "");
    ASSERT_NE(ssl, nullptr);
    StreamSocket server(nSock::gValidate(handle), true, ssl, false, verify, certificates);
    ASSERT_TRUE(client.fWrite(gFrame(-1, 2, "from s_client")));
    cFrame const frame = gReceiveFrame(server);
    EXPECT_TRUE(frame.mOk && frame.mType == -1 && frame.mSubtype == 2);
    EXPECT_EQ(frame.mPayload, "from s_client");
    ASSERT_TRUE(server.SendTypedMessageZ2(5, 6, "ours", 4));
    EXPECT_EQ(client.fRead(12), gFrame(5, 6, "ours"));
    server.CloseSocket();
  }
}

TEST(TlsFrames, EverySizeBothWaysAndWritesInPiecesOfAtMost8192) {
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
      cFrame const frame = gJoin(received);
      EXPECT_TRUE(frame.mOk && frame.mType == short(size) && frame.mSubtype == 7);
      EXPECT_TRUE(frame.mPayload == payload);
      if (fromClient && size == 1000000) {
        // 1,000,008 bytes in pieces of 8192: 123 records, each 8192 bytes and
        // the cipher's overhead at most (one write would fill 16384).
        EXPECT_EQ(records.size(), 123u);
        EXPECT_LE(*std::max_element(records.begin(), records.end()), 8192 + 256);
      }
    }
  }
}

struct cFailure {
  bool serverRole;
  std::map<std::string, std::string> files;
  bool verifyServer;
  bool verifyClient;
  std::string peer;  // "tcp": plain TCP that sends junk; else a certificate directory for a TLS peer
  std::string text;  // the exception's text; a trailing '*' is a prefix
  bool path;         // the text ends in the path of the named file
  bool printsErrors;
};

TEST(TlsFailures, EveryTextCausedForRealInBothRolesWithTheStateLeftBehind) {
  std::map<std::string, std::string> const server = {{"server.crt", "server.crt"}, {"server.key", "server.key"}};
  std::map<std::string, std::string> const serverWithCa = {
      {"server.crt", "server.crt"}, {"server.key", "server.key"}, {"ca.crt", "ca.crt"}};
  cFailure const failures[] = {
      {false, {}, true, false, "tcp", "CA Certificate file does not exist: /ca_bundle.crt", true, false},
      {false, {{"ca_bundle.crt", "corrupt.pem"}}, true, false, "tcp", "Failed to load CA certificate: /ca_bundle.crt", true, true},
      {false, {}, false, true, "tcp", "Client Certificate file does not exist: /client.crt", true, false},
      {false, {{"client.crt", "client.crt"}}, false, true, "tcp", "Client Private Key file does not exist: /client.key", true, false},
      {false, {{"client.crt", "corrupt.pem"}, {"client.key", "client.key"}}, false, true, "tcp", "Failed to load client certificate: /client.crt", true, true},
      {false, {{"client.crt", "client.crt"}, {"client.key", "server.key"}}, false, true, "tcp", "Failed to load client private key: /client.key", true, true},
      {false, {{"client.crt", "othertype/client.crt"}, {"client.key", "othertype/client.key"}}, false, true, "tcp", "Client private key does not match the certificate", false, false},
      {false, {{"ca_bundle.crt", "two/ca_bundle.crt"}}, true, false, "two", "SSL connection failed: *", false, true},
      {false, {{"ca_bundle.crt", "ca_bundle.crt"}}, true, false, "one", "SSL connection failed: *", false, true},
      {false, {{"ca_bundle.crt", "ca_bundle.crt"}}, true, false, "rogue", "SSL connection failed: *", false, true},
      {false, {}, false, false, "tcp", "SSL connection failed: *", false, true},
      {true, {}, false, false, "tcp", "Server certificate file does not exist: /server.crt", true, false},
      {true, {{"server.crt", "server.crt"}}, false, false, "tcp", "Server private key file does not exist: /server.key", true, false},
      {true, {{"server.crt", "corrupt.pem"}, {"server.key", "server.key"}}, false, false, "tcp", "Failed to load SSL certificate: /server.crt", true, true},
      {true, {{"server.crt", "server.crt"}, {"server.key", "client.key"}}, false, false, "tcp", "Failed to load SSL private key: /server.key", true, true},
      {true, {{"server.crt", "othertype/server.crt"}, {"server.key", "othertype/server.key"}}, false, false, "tcp", "Private key does not match the certificate", false, true},
      {true, server, false, true, "tcp", "CA certificate file does not exist: /ca.crt", true, false},
      {true, {{"server.crt", "server.crt"}, {"server.key", "server.key"}, {"ca.crt", "corrupt.pem"}}, false, true, "tcp", "Failed to load CA certificate for client verification: /ca.crt", true, true},
      {true, serverWithCa, false, true, "nocert", "SSL accept failed", false, false},
      {true, {{"server.crt", "server.crt"}, {"server.key", "server.key"}, {"ca.crt", "two/ca.crt"}}, false, true, "two", "SSL accept failed", false, false},
      {true, serverWithCa, false, true, "rogue", "SSL accept failed", false, false},
      {true, serverWithCa, false, false, "tcp", "SSL accept failed", false, false},
  };
  int row = 0;
  for (cFailure const& failure : failures) {
    SCOPED_TRACE(failure.text);
    std::string const directory = gCompose("failure" + std::to_string(row++), failure.files);
    std::string const peerDirectory = gCertificates() + "/" + failure.peer;
    cLogCapture capture;
    std::string text;
    int far = -1;  // the other end of the connection that our side keeps
    testing::internal::CaptureStderr();
    if (!failure.serverRole) {
      // The peer: our TLS server with the peer's certificates, or plain TCP.
      cTlsListener listener(peerDirectory, false);
      cLoopbackListener plain;
      bool const tls = failure.peer != "tcp";
      auto peer = gAsync([&]() -> std::unique_ptr<StreamSocket> {
        if (!tls) {
          auto accepted = plain.fAccept();
          gSendRaw(*accepted, "this is no TLS record\r\n\r\n");
          return accepted;
        }
        try {
          auto const [handle, ssl, port] = listener.mSocket.Accept(gBounded());
          SSL_free(ssl);
          nSock::gDelete(handle);
        } catch (std::runtime_error const&) {
        }
        return nullptr;
      });
      StreamSocket client(true, nullptr, failure.verifyServer, failure.verifyClient, directory);
      try {
        client.Connect("127.0.0.1", tls ? listener.mPort : plain.mPort, gBounded());
      } catch (std::runtime_error const& error) {
        text = error.what();
      }
      auto accepted = gJoin(peer);
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
      cTlsListener listener(directory, failure.verifyClient);
      std::unique_ptr<StreamSocket> client;
      if (failure.peer == "tcp") {
        client = std::make_unique<StreamSocket>();
        client->Connect("127.0.0.1", listener.mPort, gBounded());
        ASSERT_TRUE(gSendRaw(*client, "this is no TLS record\r\n\r\n"));
      }
      auto peer = gAsync([&]() -> int {
        if (client) return gDescriptor(*client);
        StreamSocket tlsClient(true, nullptr, false, failure.peer != "nocert", peerDirectory);
        try {
          tlsClient.Connect("127.0.0.1", listener.mPort, gBounded());
          static_cast<void>(gReceiveFrame(tlsClient));  // TLS 1.3 learns of the refusal here
        } catch (std::runtime_error const&) {
        }
        return dup(gDescriptor(tlsClient));
      });
      try {
        listener.mSocket.Accept(gBounded());
      } catch (std::runtime_error const& error) {
        text = error.what();
      }
      far = gJoin(peer);
      // The accepted connection stays open: its peer sees no end of stream.
      EXPECT_TRUE(gPeerOpen(far));
      if (!client) close(far);
    }
    std::string const printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(printed.find(":error:") != std::string::npos, failure.printsErrors) << printed;
    std::string expected = failure.text;
    if (failure.path) expected.insert(expected.find('/'), directory);
    if (expected.back() == '*') {
      expected.pop_back();
      EXPECT_EQ(text.substr(0, expected.size()), expected);
    } else {
      EXPECT_EQ(text, expected);
    }
  }
}

}  // namespace

namespace {

TEST(TlsClose, PeerCloseDuringReadShutsTheObjectAndTheTraceFollowsTheClose) {
  cTlsPair pair;
  cLogCapture capture;
  std::atomic<long> reader{0};
  auto read = gAsync([&] {
    reader = gThreadId();
    cFrame const frame = gReceiveFrame(*pair.mServer);
    return std::make_pair(frame.mOk, pair.mServer->SendTypedMessageZ2(1, 1, "x", 1));
  });
  pair.mClient->CloseSocket();
  auto const [received, sentAfter] = gJoin(read);
  EXPECT_FALSE(received);
  EXPECT_FALSE(sentAfter);  // shut: refused by the flag
  std::vector<std::string> server;
  for (auto const& record : capture.fRecords()) {
    if (record.thread == reader && !record.text.empty()) server.push_back(record.text);
  }
  std::vector<std::string> const expected = {"SSL connection closed gracefully (server).",
                                             "SSL connection closed by peer (clean shutdown).",
                                             "WriteDataZ1 aborted because shutdown is requested."};
  EXPECT_EQ(server, expected);
  // A shut object's clean-up, repeated, and one that never had TLS objects: no line.
  capture.fClear();
  pair.mServer->CleanupSSL();
  pair.mClient->CleanupSSL();
  StreamSocket{true}.CleanupSSL();
  EXPECT_TRUE(capture.fWithText("SSL").empty());
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
    gJoin(read);
  }
}

}  // namespace
