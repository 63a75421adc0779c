// Batched sending: gather writes and corks put exactly the bytes and the
// statements of single sends on the wire, over TCP and TLS, and fail as they do.
#include <openssl/ssl.h>

#include <vector>

#include "ChildProcess.h"
#include "LogCapture.h"
#include "TlsKit.h"

namespace {

using namespace corvanth::test;
using tFrames = std::vector<StreamSocket::TypedFrame>;

// Two connected ends, over TLS when tls is set; the server's received
// application records are counted in records.
struct cEnds {
  std::unique_ptr<StreamSocket> mClient;
  std::unique_ptr<StreamSocket> mServer;
  std::atomic<int> mRecords{0};

  explicit cEnds(bool tls) {
    std::string const directory = tls ? gCertificates() : "";
    cLoopbackListener listener(directory);
    auto accepted = gAsync([&] { return listener.mSocket->Accept(gBounded()); });
    mClient = std::make_unique<StreamSocket>(tls, nullptr, false, false, directory);
    mClient->Connect("127.0.0.1", listener.mPort, gBounded());
    auto const [handle, ssl, port] = accepted.fJoin();
    if (ssl != nullptr) {
      SSL_set_msg_callback_arg(ssl, &mRecords);
      SSL_set_msg_callback(ssl, [](int written, int, int type, void const* bytes, size_t length, SSL*, void* count) {
        auto const* header = static_cast<unsigned char const*>(bytes);
        *static_cast<std::atomic<int>*>(count) += !written && type == SSL3_RT_HEADER && length == 5 && header[0] == SSL3_RT_APPLICATION_DATA;
      });
    }
    mServer = std::make_unique<StreamSocket>(nSock::gValidate(handle), tls, ssl, false, false, directory);
  }
  // Both ends at once: over TLS each one's clean-up waits for the other's close.
  ~cEnds() {
    if (!mServer) return;
    auto client = gAsync([this] { mClient->CloseSocket(); });
    mServer->CloseSocket();
    client.fJoin();
  }
};

// Payloads that tell every frame from every other.
std::vector<std::string> gPayloads(std::size_t count, std::size_t size, char seed) {
  std::vector<std::string> payloads;
  for (std::size_t k = 0; k < count; ++k) {
    std::string payload(size, '\0');
    for (std::size_t i = 0; i < size; ++i) payload[i] = char(seed + k * 31 + i * 7);
    payloads.push_back(payload);
  }
  return payloads;
}

tFrames gFrames(std::vector<std::string> const& payloads, short type) {
  tFrames frames;
  for (std::string const& p : payloads) frames.push_back({type, short(p.size()), p.data(), int(p.size())});
  return frames;
}

// The statements a send made on this thread: tag, line and text.
std::vector<std::string> gStatements(cLogCapture const& capture) {
  std::vector<std::string> lines;
  for (auto const& r : capture.fRecords()) {
    if (r.thread == gThreadId() && r.source == "streamsocket") lines.push_back(r.tag + ":" + std::to_string(r.line) + ":" + r.text);
  }
  return lines;
}

TEST(StreamSocketBatch, GatherWritesAndCorksPutTheBytesAndStatementsOfSingleSendsOnTheWire) {
  // Over TCP the bytes themselves: frames of every shape, then one that a
  // single send refuses, sent one by one, in a batch and corked.
  cEnds ends(false);
  std::string const big(40000, 'b');
  std::string const small(64, 's');
  tFrames const frames = {{1, 2, small.data(), 64}, {3, 4, "", 0},    {5, 6, nullptr, 0},
                          {7, 8, nullptr, 5},       {9, 10, "abc", -3}, {11, 12, big.data(), 40000},
                          {13, 14, "x", -100},      {15, 16, "late", 4}};
  // A null payload goes out as zeros, a length of -3 as the first 5 header bytes.
  std::string const wire = gHeader(64, 1, 2) + small + gHeader(0, 3, 4) + gHeader(0, 5, 6) + gHeader(5, 7, 8) +
                           std::string(5, '\0') + gHeader(uint32_t(-3), 9, 10).substr(0, 5) +
                           gHeader(40000, 11, 12) + big;
  std::vector<std::string> wanted;
  for (int way = 0; way < 3; ++way) {
    SCOPED_TRACE(way);
    cLogCapture capture;
    bool sent = true;
    if (way == 0) {
      for (auto const& f : frames) {
        sent = ends.mClient->SendTypedMessageZ2(f.type, f.subtype, f.message, f.length);
        if (!sent) break;
      }
    } else if (way == 1) {
      sent = ends.mClient->SendTypedMessagesZ2(frames);
    } else {
      ends.mClient->BeginBatch();
      sent = ends.mClient->SendTypedMessagesZ2(frames);
      EXPECT_TRUE(ends.mClient->EndBatch());
    }
    EXPECT_FALSE(sent);  // the frame of length -100, after which nothing goes out
    EXPECT_TRUE(gReceiveRaw(*ends.mServer, int(wire.size())) == wire);
    if (way == 0) wanted = gStatements(capture);
    EXPECT_EQ(gStatements(capture), wanted);
  }
  EXPECT_EQ(wanted.size(), 7u + 5);  // a trace per frame up to the refused one, and five failed checks

  // Over TCP and TLS: single sends, batches across the 512-frame rounds and
  // TLS records, and corks across their 64 KiB, read one frame at a time.
  for (bool const tls : {false, true}) {
    SCOPED_TRACE(tls);
    cEnds pair(tls);
    auto const tiny = gPayloads(600, 64, 'a');
    auto const kilo = gPayloads(100, 1024, 'k');
    auto const huge = gPayloads(1, 70000, 'h');
    tFrames const tinyFrames = gFrames(tiny, 1);
    tFrames const kiloFrames = gFrames(kilo, 2);
    std::vector<cFrame> expected;
    auto expect = [&](tFrames const& sent) {
      for (auto const& f : sent) expected.push_back({true, f.type, f.subtype, f.length, f.length == 0, std::string(f.message, f.length)});
    };
    // The reader takes what was sent by then, in one or two rounds.
    auto read = [&](std::size_t count) {
      return gAsync([&pair, count] {
        std::vector<cFrame> got;
        for (std::size_t k = 0; k < count; ++k) got.push_back(gReceiveFrame(*pair.mServer));
        return got;
      });
    };
    auto check = [&](std::vector<cFrame> const& got) {
      ASSERT_EQ(got.size(), expected.size());
      for (std::size_t k = 0; k < got.size(); ++k) ASSERT_EQ(got[k], expected[k]) << k;
      expected.clear();
    };
    int const handshake = pair.mRecords.load();  // what the handshake carried, not counted
    auto first = read(666);
    ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(7, 7, "one", 3));
    expect({{7, 7, "one", 3}});
    ASSERT_TRUE(pair.mClient->SendTypedMessagesZ2({tinyFrames.data(), 64}));
    expect({tinyFrames.begin(), tinyFrames.begin() + 64});
    ASSERT_TRUE(pair.mClient->SendTypedMessagesZ2(tinyFrames));
    expect(tinyFrames);
    ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(8, 8, "", 0));
    expect({{8, 8, "", 0}});
    check(first.fJoin());
    // Over TLS a record for each single send, one for the 64 frames of 72
    // bytes, and for the 600, written in rounds of 512 and 88 frames, three
    // records of at most 16 KiB and one.
    EXPECT_EQ(pair.mRecords.load() - handshake, tls ? 1 + 1 + (3 + 1) + 1 : 0);

    auto second = read(51 + 50 + 2);
    tFrames mixed = {kiloFrames.begin(), kiloFrames.begin() + 50};
    mixed.insert(mixed.begin() + 25, {3, 0, huge[0].data(), 70000});
    ASSERT_TRUE(pair.mClient->SendTypedMessagesZ2(mixed));
    expect(mixed);
    pair.mClient->BeginBatch();
    for (std::size_t k = 50; k < 100; ++k) ASSERT_TRUE(pair.mClient->SendTypedMessageZ2(2, 1024, kilo[k].data(), 1024));
    expect({kiloFrames.begin() + 50, kiloFrames.end()});
    tFrames const last = {{9, 9, "", 0}, {9, 9, "two", 3}};
    ASSERT_TRUE(pair.mClient->SendTypedMessagesZ2(last));
    expect(last);
    ASSERT_TRUE(pair.mClient->EndBatch());
    check(second.fJoin());
  }
}

TEST(StreamSocketBatch, AFailedBatchAndCorkAnswerFalseAndLaterSendsFailAsAfterASingleOne) {
  for (bool const tls : {false, true}) {
    SCOPED_TRACE(tls);
    cEnds pair(tls);
    auto const payloads = gPayloads(64, 1024, 'f');
    tFrames const frames = gFrames(payloads, 1);
    nSock::gClose(gHandleOf(*pair.mServer));  // gone without a TLS close
    pair.mServer.reset();
    // The peer is gone: the writes fail within a few rounds, and SIGPIPE,
    // whose default action would end this process, is never raised.
    bool refused = false;
    for (int i = 0; i < 1000 && !refused; ++i) refused = !pair.mClient->SendTypedMessagesZ2(frames);
    EXPECT_TRUE(refused);
    EXPECT_FALSE(pair.mClient->SendTypedMessageZ2(1, 1, "x", 1));
    EXPECT_FALSE(pair.mClient->SendTypedMessagesZ2(frames));
    pair.mClient->BeginBatch();
    EXPECT_TRUE(pair.mClient->SendTypedMessageZ2(1, 1, "x", 1));  // only corked
    EXPECT_FALSE(pair.mClient->SendTypedMessagesZ2(frames));       // past 64 KiB: written, and failed
    EXPECT_FALSE(pair.mClient->EndBatch());
    // Shut: refused by the flag, with the single send's line.
    pair.mClient->CloseSocket();
    cLogCapture capture;
    EXPECT_FALSE(pair.mClient->SendTypedMessagesZ2(frames));
    EXPECT_EQ(capture.fWithText("WriteDataZ1 aborted because shutdown is requested.").size(), 1u);
  }
}

TEST(CorvanthToolBatch, BatchedThroughputAndRoundTripVerbsPrintTheirFigures) {
  for (auto const& [local, remote] : {std::pair{"local_thr", "remote_thr"}, std::pair{"local_lat", "remote_lat"}}) {
    SCOPED_TRACE(local);
    cChildProcess server({CORVANTH_TOOL, local, "64", "3000"});
    std::string const listening = server.fReadLine(kBound);
    ASSERT_NE(listening.rfind(':'), std::string::npos) << listening;
    std::vector<std::string> arguments = {CORVANTH_TOOL, remote, "--port", listening.substr(listening.rfind(':') + 1)};
    if (std::string(remote) == "remote_thr") arguments.insert(arguments.end(), {"--batch", "64"});
    arguments.insert(arguments.end(), {"64", "3000"});
    cChildProcess client(arguments);
    auto const [sentStatus, sent] = client.fFinish(kBound);
    auto const [status, measured] = server.fFinish(kBound);
    // Exit 0: every frame came, with its length.
    ASSERT_EQ(sentStatus, 0) << sent;
    ASSERT_EQ(status, 0) << measured;
    for (std::string const& out : {sent, measured}) {
      EXPECT_NE(out.find(" frames/s, "), std::string::npos) << out;
      EXPECT_NE(out.find(": p50 "), std::string::npos) << out;
      EXPECT_NE(out.find(" [us], p99 "), std::string::npos) << out;
      EXPECT_NE(out.find(" [us], p99.9 "), std::string::npos) << out;
    }
  }
}

}  // namespace
