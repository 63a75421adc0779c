// Frames go out as one block through a single write, header and payload
// together: one allocation and one copy of the payload per send. A batch
// goes out through one gather write with the payloads where the caller keeps
// them (over TLS, copied into records of 16 KiB). A received payload is read
// straight into the array that the caller gets.
#include "streamsocket.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "Log.dec.h"

namespace nSocket = nCommunication::nSocket;

namespace {

bool gFileExists(std::string const& path) {
  std::ifstream file(path);
  return file.good();
}

// OpenSSL writes to the descriptor with write(), and a gone peer would raise
// SIGPIPE, which ends the process; the plain path sends with MSG_NOSIGNAL.
// SIGPIPE is held back for the call and a pending one taken after a failure.
class cSigpipeHeld {
 public:
  cSigpipeHeld() {
    sigemptyset(&mPipe);
    sigaddset(&mPipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &mPipe, &mFormer);
    mHeld = sigismember(&mFormer, SIGPIPE) == 0;
  }
  cSigpipeHeld(cSigpipeHeld const&) = delete;
  cSigpipeHeld& operator=(cSigpipeHeld const&) = delete;
  ~cSigpipeHeld() {
    if (!mHeld) return;
    if (mFailed) {
      timespec const none{};
      while (sigtimedwait(&mPipe, nullptr, &none) == SIGPIPE) {
      }
    }
    pthread_sigmask(SIG_SETMASK, &mFormer, nullptr);
  }
  int fCheck(int result) {
    mFailed = mFailed || result <= 0;
    return result;
  }

 private:
  sigset_t mPipe;
  sigset_t mFormer;
  bool mHeld = false;
  bool mFailed = false;
};

// The writer sends pieces of 8192 bytes, half a record each: without read-ahead
// every piece would cost the reader two read() calls, one for the record header.
void gReadAhead(SSL* object) {
  SSL_set_read_ahead(object, 1);
  SSL_set_default_read_buffer_len(object, 65536);
}

// The same on the writer's side: each 8192-byte piece is a record of its own,
// and a write() per record cost a third of the speed of large frames. The
// records of a frame wait in a buffer in front of the socket and leave
// together when the frame is written (OpenSSL flushes its own handshake and
// alert records). Without the buffer the records go out one by one.
void gBufferWrites(SSL* object) {
  BIO* const socket = SSL_get_wbio(object);
  BIO* const buffer = BIO_new(BIO_f_buffer());
  if (socket == nullptr || buffer == nullptr || BIO_set_write_buffer_size(buffer, 65536) != 1) {
    BIO_free(buffer);
    return;
  }
  BIO_up_ref(socket);  // the chain holds it as well as the read side
  SSL_set0_wbio(object, BIO_push(buffer, socket));
}

// Batches are written in rounds of at most this many frames, two pieces
// each, so that the pieces of a round fit one sendmsg (IOV_MAX is 1024).
constexpr std::size_t kRoundFrames = 512;
// The largest record of TLS; a batch fills records up to this size.
constexpr int kRecord = 16384;
// A cork's buffer goes out when the next frame would take it past this.
constexpr std::size_t kCorkLimit = 64 * 1024;

// The statements of one send, shared by a single send and every frame of a
// batch: a trace, then the checks of the pointer and the length, and for a
// payload the pointer's check once more, the one that precedes the copy.
void gSendStatements(char const* message, int length) {
  CORVANTH_LOG(nCorvanth::sTraceTag_, "streamsocket");
  CORVANTH_ASSERT(message != nullptr, "streamsocket");
  CORVANTH_ASSERT(length >= 0, "streamsocket");
  if (length > 0) CORVANTH_ASSERT(message != nullptr, "streamsocket");
}

// The byte count that a single send hands to its write: the frame's length,
// wrapping below 0 for the top 8 payload lengths and below -8.
int gFrameCount(int length) {
  return static_cast<int>(static_cast<std::uint32_t>(length) + sizeof(c_MessageHeader));
}

// The statements of one frame of a batch, its header, and the two pieces that
// hold the bytes a single send puts on the wire: the header (only its first
// count bytes for a length of -8 to -1) and the payload, or zeros for a
// missing one, kept in zeros. The count, which is negative for a frame that a
// single send hands to its write with no bytes to send.
int gPrepareFrame(StreamSocket::TypedFrame const& frame, c_MessageHeader& header, iovec pieces[2],
                  std::vector<std::unique_ptr<char[]>>& zeros) {
  gSendStatements(frame.message, frame.length);
  SSMMakeMessageHeader(frame.length, frame.type, frame.subtype, &header);
  int const count = gFrameCount(frame.length);
  if (count < 0) return count;
  std::size_t const payload = frame.length > 0 ? static_cast<std::size_t>(frame.length) : 0;
  char const* bytes = frame.message;
  if (payload > 0 && bytes == nullptr) {
    zeros.emplace_back(new char[payload]());
    bytes = zeros.back().get();
  }
  pieces[0] = {&header, std::min<std::size_t>(sizeof header, static_cast<std::size_t>(count))};
  pieces[1] = {const_cast<char*>(bytes), payload};
  return count;
}

std::string gVerifyFailure(char const* role, long result) {
  return std::string("Failed to verify ") + role + " certificate: " +
         X509_verify_cert_error_string(result) + " (Error code: " + std::to_string(result) + ")";
}

}  // namespace

StreamSocket::StreamSocket(nSocket::cHandleValid handle, bool sslEnable, ssl_st* ssl,
                           bool verifyServer, bool verifyClient, std::string certificatePath)
    : c_Socket(handle),
      ssl(ssl),
      sslEnable(sslEnable),
      verifyServer(verifyServer),
      verifyClient(verifyClient),
      certificatePath(std::move(certificatePath)) {}

StreamSocket::StreamSocket(bool sslEnable, ssl_st* /*ssl*/, bool verifyServer, bool verifyClient,
                           std::string certificatePath)
    : sslEnable(sslEnable),
      verifyServer(verifyServer),
      verifyClient(verifyClient),
      certificatePath(std::move(certificatePath)) {}

StreamSocket::~StreamSocket() {
  if (!sslEnable) return;
  try {
    CleanupSSL();
  } catch (...) {
    // Only a log statement can raise here; the objects are freed by then.
    n_debug::nCoreError::gPosition(false, "TLS clean-up raised", false, false, CORVANTH_LOG_MODULE,
                                   "streamsocket", __LINE__);
  }
}

void StreamSocket::Connect(const std::string& host, unsigned short newPort,
                           nSocket::cSocketOptions options) {
  handle = nSocket::cHandleOptional(nSocket::gCreateConnected(host, newPort, options));
  port = newPort;
  portType = ConnectedPort;
  if (!sslEnable) return;

  InitializeSSL();
  clientContext = SSL_CTX_new(TLS_client_method());
  if (clientContext == nullptr) throw std::runtime_error("Failed to initialize SSL context for client");
  if (verifyServer) {
    std::string const bundle = certificatePath + "/ca_bundle.crt";
    if (!gFileExists(bundle)) throw std::runtime_error("CA Certificate file does not exist: " + bundle);
    if (SSL_CTX_load_verify_locations(clientContext, bundle.c_str(), nullptr) == 0) {
      ERR_print_errors_fp(stderr);
      throw std::runtime_error("Failed to load CA certificate: " + bundle);
    }
    SSL_CTX_set_verify(clientContext, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_verify_depth(clientContext, 1);
  } else {
    SSL_CTX_set_verify(clientContext, SSL_VERIFY_NONE, nullptr);
  }
  if (verifyClient) {
    std::string const certificate = certificatePath + "/client.crt";
    std::string const key = certificatePath + "/client.key";
    if (!gFileExists(certificate)) {
      throw std::runtime_error("Client Certificate file does not exist: " + certificate);
    }
    if (!gFileExists(key)) throw std::runtime_error("Client Private Key file does not exist: " + key);
    if (SSL_CTX_use_certificate_file(clientContext, certificate.c_str(), SSL_FILETYPE_PEM) <= 0) {
      ERR_print_errors_fp(stderr);
      throw std::runtime_error("Failed to load client certificate: " + certificate);
    }
    if (SSL_CTX_use_PrivateKey_file(clientContext, key.c_str(), SSL_FILETYPE_PEM) <= 0) {
      ERR_print_errors_fp(stderr);
      throw std::runtime_error("Failed to load client private key: " + key);
    }
    if (SSL_CTX_check_private_key(clientContext) == 0) {
      throw std::runtime_error("Client private key does not match the certificate");
    }
  }
  ssl = SSL_new(clientContext);
  if (ssl == nullptr) throw std::runtime_error("Failed to create SSL object for the connection");
  gReadAhead(ssl);
  if (SSL_set_fd(ssl, handle.fHolder()->fDescriptor()) != 1) {
    SSL_free(ssl);
    ssl = nullptr;  // freed: a later clean-up must find nothing to free again
    throw std::runtime_error("Failed to associate socket with SSL");
  }
  gBufferWrites(ssl);
  int const connected = SSL_connect(ssl);
  if (connected <= 0) {
    static_cast<void>(SSL_get_error(ssl, connected));
    // Printing drains the error queue first, so the reason stands on stderr
    // and the exception's text as a rule carries the empty error.
    ERR_print_errors_fp(stderr);
    char reason[256] = {};
    ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
    SSL_free(ssl);
    ssl = nullptr;
    throw std::runtime_error(std::string("SSL connection failed: ") + reason);
  }
  if (verifyServer) {
    X509* const certificate = SSL_get1_peer_certificate(ssl);
    if (certificate == nullptr) throw std::runtime_error("No certificate provided by the server");
    long const result = SSL_get_verify_result(ssl);
    if (result == X509_V_OK) {
      std::cout << "Server certificate verified successfully!\n";
      X509_free(certificate);
    } else {
      std::string const text = gVerifyFailure("server", result);
      X509_free(certificate);
      SSL_free(ssl);
      SSL_CTX_free(clientContext);
      // Freed: a later clean-up must find nothing to free again.
      ssl = nullptr;
      clientContext = nullptr;
      throw std::runtime_error(text);
    }
  }
}

void StreamSocket::ConnectLocal(unsigned short newPort, nSocket::cSocketOptions options) {
  handle = nSocket::cHandleOptional(nSocket::gCreateConnectedLocal(newPort, options));
  port = newPort;
  portType = ConnectedPort;
}

std::tuple<nSocket::cHandleOptional, ssl_st*, int> StreamSocket::Accept(
    nSocket::cSocketOptions options) {
  nSocket::cHandleOptional const accepted = nSocket::gAccept(nSocket::gValidate(handle), options);
  ssl_st* acceptedSsl = nullptr;
  if (accepted.fIsValid() && sslEnable && accepted.fHolder()->fDescriptor() != 0) {
    InitializeSSL();
    // A close from another thread must not free the context before the SSL
    // object holds its own reference to it; the handshake runs unlocked.
    std::unique_lock<std::mutex> setUp(closing);
    // Each accept makes its own context; the former one stays with the SSL
    // objects made from it.
    serverContext = SSL_CTX_new(TLS_server_method());
    if (serverContext == nullptr) throw std::runtime_error("Unable to create SSL context");
    std::string const certificate = certificatePath + "/server.crt";
    std::string const key = certificatePath + "/server.key";
    if (!gFileExists(certificate)) {
      throw std::runtime_error("Server certificate file does not exist: " + certificate);
    }
    if (!gFileExists(key)) throw std::runtime_error("Server private key file does not exist: " + key);
    ConfigureSSL(certificate, key);
    if (verifyClient) {
      std::string const authority = certificatePath + "/ca.crt";
      if (!gFileExists(authority)) {
        throw std::runtime_error("CA certificate file does not exist: " + authority);
      }
      if (SSL_CTX_load_verify_locations(serverContext, authority.c_str(), nullptr) == 0) {
        ERR_print_errors_fp(stderr);
        throw std::runtime_error("Failed to load CA certificate for client verification: " +
                                 authority);
      }
      SSL_CTX_set_verify(serverContext, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
      SSL_CTX_set_verify_depth(serverContext, 1);
    }
    SSL* const object = SSL_new(serverContext);
    if (object == nullptr) throw std::runtime_error("Failed to create SSL object");
    setUp.unlock();
    gReadAhead(object);
    if (SSL_set_fd(object, accepted.fHolder()->fDescriptor()) != 1) {
      SSL_free(object);
      throw std::runtime_error("Failed to associate socket with SSL");
    }
    gBufferWrites(object);
    if (SSL_accept(object) <= 0) {
      SSL_free(object);
      throw std::runtime_error("SSL accept failed");
    }
    if (verifyClient) {
      X509* const peer = SSL_get1_peer_certificate(object);
      if (peer == nullptr) {
        SSL_free(object);
        throw std::runtime_error("No client certificate provided");
      }
      long const result = SSL_get_verify_result(object);
      if (result != X509_V_OK) {
        std::string const text = gVerifyFailure("client", result);
        X509_free(peer);
        SSL_free(object);
        throw std::runtime_error(text);
      }
      std::cout << "Client certificate verified successfully!" << std::endl;
      X509_free(peer);
    }
    acceptedSsl = object;
  }
  return {accepted, acceptedSsl, port};
}

void StreamSocket::CloseSocket() {
  shutdownRequested.exchange(true);
  {
    std::lock_guard<std::mutex> const lock(closing);
    // An SSL object must not be shut down or freed while another thread is
    // inside SSL_read or SSL_write on it; if one cannot be made to leave, the
    // objects stay (the destructor frees them) rather than be freed under it.
    if (WaitForTlsUsers()) CleanupSSL();
  }
  c_Socket::CloseSocket();
}

nSocket::cHandleOptional StreamSocket::f_GetInternal_debug() const { return handle; }

bool StreamSocket::SendTypedMessageZ2(short type, short subtype, const char* message, int length) {
  if (corked) {
    TypedFrame const frame{type, subtype, message, length};
    return CorkFrames({&frame, 1});
  }
  gSendStatements(message, length);
  c_MessageHeader header;
  SSMMakeMessageHeader(length, type, subtype, &header);
  // A negative length still goes on, as the count of the write, but the array
  // is never smaller than the header. The count wraps for the top 8 lengths,
  // which the write then refuses: it is asked with the header alone, so such
  // a frame never costs a 2 GiB copy first.
  int const count = gFrameCount(length);
  if (length > 0 && count < 0) return WriteDataZ1(count, reinterpret_cast<char const*>(&header));
  std::size_t const payload = length > 0 ? static_cast<std::size_t>(length) : 0;
  std::unique_ptr<char[]> frame(new char[payload + sizeof header]);
  std::memcpy(frame.get(), &header, sizeof header);
  if (length > 0) {
    // Zeros stand in for a missing payload, rather than stale heap bytes.
    if (message != nullptr) {
      std::memcpy(frame.get() + sizeof header, message, payload);
    } else {
      std::memset(frame.get() + sizeof header, 0, payload);
    }
  }
  return WriteDataZ1(count, frame.get());
}

bool StreamSocket::SendTypedMessagesZ2(std::span<const TypedFrame> frames) {
  if (corked) return CorkFrames(frames);
  c_MessageHeader headers[kRoundFrames];
  iovec pieces[2 * kRoundFrames];
  std::vector<std::unique_ptr<char[]>> zeros;
  std::size_t at = 0;
  while (at < frames.size()) {
    int count = 0;
    int refused = 0;
    for (std::size_t n = 0; n < kRoundFrames && at < frames.size() && refused >= 0; ++n, ++at) {
      refused = gPrepareFrame(frames[at], headers[n], pieces + count, zeros);
      if (refused >= 0) count += 2;
    }
    if (count > 0 && !WritePieces(pieces, count)) return false;
    zeros.clear();
    // As the single send does: the write is asked with the header alone, and
    // refuses (over TLS a count below 0 counts as nothing left to write).
    if (refused < 0 && !WriteDataZ1(refused, reinterpret_cast<char const*>(&headers[count / 2]))) {
      return false;
    }
  }
  return true;
}

void StreamSocket::BeginBatch() {
  if (corked) return;
  corked = true;
  corkFailed = false;
  cork.clear();
}

bool StreamSocket::EndBatch() {
  if (!corked) return true;
  corked = false;
  bool sent = true;
  if (!cork.empty()) {
    iovec piece{cork.data(), cork.size()};
    sent = WritePieces(&piece, 1);
    cork.clear();
  }
  return sent && !std::exchange(corkFailed, false);
}

bool StreamSocket::CorkFrames(std::span<const TypedFrame> frames) {
  std::vector<std::unique_ptr<char[]>> zeros;
  for (TypedFrame const& frame : frames) {
    c_MessageHeader header;
    iovec pieces[3];
    int const count = gPrepareFrame(frame, header, pieces + 1, zeros);
    // Refused as by the single send; nothing of it reaches the buffer.
    if (count < 0 && !WriteDataZ1(count, reinterpret_cast<char const*>(&header))) return false;
    if (count < 0) continue;
    if (cork.size() + pieces[1].iov_len + pieces[2].iov_len > kCorkLimit) {
      // The buffer and the frame that would pass the limit, in one write,
      // the frame from where the caller keeps it.
      pieces[0] = {cork.data(), cork.size()};
      bool const sent = WritePieces(pieces, 3);
      cork.clear();
      zeros.clear();
      if (!sent) {
        corkFailed = true;
        return false;
      }
      continue;
    }
    for (iovec const& piece : {pieces[1], pieces[2]}) {
      char const* const bytes = static_cast<char const*>(piece.iov_base);
      cork.insert(cork.end(), bytes, bytes + piece.iov_len);
    }
    zeros.clear();
  }
  return true;
}

bool StreamSocket::WaitTypedMessageZ1(short& type, short& subtype, char*& message, int& length,
                                      nSocket::iLatencyConfiguration* latency) {
  CORVANTH_LOG(nCorvanth::sTraceTag_, "streamsocket");
  type = 0;
  subtype = 0;
  message = nullptr;
  length = 0;
  c_MessageHeader header;
  int const size = GetMessageHeaderZ1(&header, latency);
  if (size < 0) return false;
  if (size > 0) {
    // Array new leaves the bytes unset, so a header that announces more than
    // ever comes costs address space only, not memory.
    std::unique_ptr<char[]> buffer(new char[static_cast<std::size_t>(size)]);
    if (!ReadDataZ1(size, buffer.get(), true, latency)) return false;
    CORVANTH_LOG(nCorvanth::sTraceTag_, "streamsocket",
                 "StreamSocket:WaitTypedMessageZ1\t"
                     << size << '\t'
                     << std::string_view(buffer.get(), static_cast<std::size_t>(size)));
    message = buffer.release();
  }
  length = size;
  type = header.fType();
  subtype = header.fSubtype();
  return true;
}

void StreamSocket::FreeMessage(const char* message) { delete[] message; }

int StreamSocket::GetMessageHeaderZ1(c_MessageHeader* header,
                                     nSocket::iLatencyConfiguration* latency) {
  CORVANTH_LOG(nCorvanth::sTraceTag_, "streamsocket");
  if (!ReadDataZ1(sizeof *header, reinterpret_cast<char*>(header), false, latency)) return -1;
  return header->fLength();
}

bool StreamSocket::ReadDataZ1(int count, char* buffer, bool insideMessage,
                              nSocket::iLatencyConfiguration* latency) {
  if (shutdownRequested.load()) {
    CORVANTH_LOG(nLog::nBasic::sTraceDebugInfoTag_, "streamsocket",
                 "ReadDataZ1 aborted because shutdown is requested.");
    return false;
  }
  if (!sslEnable) {
    return nSocket::gReceive(nSocket::gValidate(handle), count, buffer, insideMessage, latency);
  }
  return ReadTls(count, buffer);
}

bool StreamSocket::WriteDataZ1(int count, const char* data) {
  if (shutdownRequested.load()) {
    CORVANTH_LOG(nLog::nBasic::sTraceDebugInfoTag_, "streamsocket",
                 "WriteDataZ1 aborted because shutdown is requested.");
    return false;
  }
  if (!sslEnable) return nSocket::gSend(nSocket::gValidate(handle), count, data);
  return WriteTls(count, data);
}

bool StreamSocket::WritePieces(iovec* pieces, int count) {
  if (shutdownRequested.load()) {
    CORVANTH_LOG(nLog::nBasic::sTraceDebugInfoTag_, "streamsocket",
                 "WriteDataZ1 aborted because shutdown is requested.");
    return false;
  }
  if (!sslEnable) return nSocket::gSendGather(nSocket::gValidate(handle), pieces, count);
  cSigpipeHeld held;  // once for the batch
  char record[kRecord];
  int filled = 0;
  // Each record is one write as WriteDataZ1 makes it, the entry test included.
  auto const write = [&](char const* data, int size) {
    if (shutdownRequested.load()) {
      CORVANTH_LOG(nLog::nBasic::sTraceDebugInfoTag_, "streamsocket",
                   "WriteDataZ1 aborted because shutdown is requested.");
      return false;
    }
    return held.fCheck(WriteTlsPieces(size, data, kRecord) ? 1 : 0) > 0;
  };
  for (int i = 0; i < count; ++i) {
    char const* data = static_cast<char const*>(pieces[i].iov_base);
    std::size_t left = pieces[i].iov_len;
    while (left > 0) {
      if (filled == 0 && left >= static_cast<std::size_t>(kRecord)) {
        // Whole records straight from the caller's bytes: no copy.
        std::size_t const whole = left - left % kRecord;
        if (!write(data, static_cast<int>(whole))) return false;
        data += whole;
        left -= whole;
        continue;
      }
      std::size_t const taken = std::min(left, static_cast<std::size_t>(kRecord - filled));
      std::memcpy(record + filled, data, taken);
      filled += static_cast<int>(taken);
      data += taken;
      left -= taken;
      if (filled == kRecord) {
        if (!write(record, filled)) return false;
        filled = 0;
      }
    }
  }
  return filled == 0 || write(record, filled);
}

bool StreamSocket::EnterTls() {
  // Counting in before reading the flag, against CloseSocket setting the flag
  // before reading the count: one of the two always sees the other.
  insideTls.fetch_add(1);
  if (!shutdownRequested.load()) return true;
  LeaveTls();
  return false;
}

bool StreamSocket::WaitForTlsUsers() {
  if (insideTls.load() == 0) return true;
  // Shutting the read side wakes a reader and still lets our close_notify go
  // out; a writer stuck on a full send buffer needs both sides shut.
  int const descriptor = handle.fHolder()->fDescriptor();
  for (int const how : {SHUT_RD, SHUT_RDWR}) {
    ::shutdown(descriptor, how);
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (insideTls.load() != 0 && std::chrono::steady_clock::now() < end) {
      std::this_thread::yield();
    }
    if (insideTls.load() == 0) return true;
  }
  return false;
}

// Failures of a read or a write, as SSL_get_error gives them; call names the
// OpenSSL call in the texts.
void StreamSocket::TlsFailed(char const* call, int error, int number) {
  switch (error) {
    case SSL_ERROR_ZERO_RETURN:
      CloseSocket();
      CORVANTH_LOG(nLog::nBasic::sTraceDebugInfoTag_, "streamsocket",
                   "SSL connection closed by peer (clean shutdown).");
      break;
    case SSL_ERROR_SYSCALL:
      CORVANTH_LOG(nLog::nBasic::sErrorTag_, "streamsocket",
                   call << " failed with SSL_ERROR_SYSCALL, errno: " << number);
      break;
    case SSL_ERROR_SSL:
      CORVANTH_LOG(nLog::nBasic::sErrorTag_, "streamsocket", call << " failed with SSL_ERROR_SSL");
      break;
    default:
      CORVANTH_LOG(nLog::nBasic::sErrorTag_, "streamsocket",
                   call << " failed with unexpected error code: " << error);
  }
}

bool StreamSocket::ReadTls(int count, char* buffer) {
  int done = 0;
  for (;;) {
    if (done >= count) return true;
    if (!EnterTls()) return true;
    // A locally connected socket has no SSL object; a failed call stands in
    // for a call through null.
    int const result = ssl != nullptr ? SSL_read(ssl, buffer + done, count - done) : -1;
    if (result > 0) {
      LeaveTls();
      done += result;
      continue;
    }
    if (shutdownRequested.load()) {
      LeaveTls();
      continue;
    }
    int const error = ssl != nullptr ? SSL_get_error(ssl, result) : SSL_ERROR_SSL;
    int const number = errno;
    LeaveTls();
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) continue;
    TlsFailed("SSL_read", error, number);
    return false;
  }
}

bool StreamSocket::WriteTls(int count, char const* data) {
  cSigpipeHeld held;  // once for the whole frame: two system calls less per piece
  // A SIGPIPE can be pending only after a write that failed, which fails the loop.
  return held.fCheck(WriteTlsPieces(count, data, 8192) ? 1 : 0) > 0;
}

bool StreamSocket::WriteTlsPieces(int count, char const* data, int piece) {
  int done = 0;
  for (;;) {
    if (done >= count) return true;
    if (!EnterTls()) return true;
    int result = -1;
    int error = SSL_ERROR_SSL;
    int number = 0;
    if (ssl != nullptr) {  // as in the read loop: no SSL object is a failed call
      result = SSL_write(ssl, data + done, std::min(piece, count - done));
      if (result <= 0) {
        error = SSL_get_error(ssl, result);
      } else if (done + result >= count && BIO_flush(SSL_get_wbio(ssl)) <= 0) {
        result = -1;  // the buffered records could not go out
        error = SSL_ERROR_SYSCALL;
      }
      number = errno;
    }
    LeaveTls();
    if (result > 0) {
      done += result;
      continue;
    }
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) continue;
    TlsFailed("SSL_write", error, number);
    return false;
  }
}

void StreamSocket::InitializeSSL() {
  if (!sslEnable) return;
  OPENSSL_init_ssl(0, nullptr);
  OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
}

void StreamSocket::ConfigureSSL(std::string const& certificateFile, std::string const& keyFile) {
  if (SSL_CTX_use_certificate_file(serverContext, certificateFile.c_str(), SSL_FILETYPE_PEM) <= 0) {
    ERR_print_errors_fp(stderr);
    throw std::runtime_error("Failed to load SSL certificate: " + certificateFile);
  }
  if (SSL_CTX_use_PrivateKey_file(serverContext, keyFile.c_str(), SSL_FILETYPE_PEM) <= 0) {
    ERR_print_errors_fp(stderr);
    throw std::runtime_error("Failed to load SSL private key: " + keyFile);
  }
  if (SSL_CTX_check_private_key(serverContext) <= 0) {
    ERR_print_errors_fp(stderr);
    throw std::runtime_error("Private key does not match the certificate");
  }
}
void StreamSocket::CleanupSSL() {
  if (ssl != nullptr) {
    cSigpipeHeld held;  // our close_notify may go to a peer that is gone
    int result = held.fCheck(SSL_shutdown(ssl));
    // 0: our close went out and the peer's has not come; one more call waits for it.
    if (result == 0) result = held.fCheck(SSL_shutdown(ssl));
    if (result < 0) {
      CORVANTH_LOG(nLog::nBasic::sTraceDebugInfoTag_, "streamsocket",
                   "SSL_shutdown failed with error: " << SSL_get_error(ssl, result));
    } else {
      CORVANTH_LOG(nLog::nBasic::sTraceDebugInfoTag_, "streamsocket",
                   "SSL connection closed gracefully (server).");
    }
    SSL_free(ssl);
    ssl = nullptr;
  }
  if (serverContext != nullptr) {
    SSL_CTX_free(serverContext);
    serverContext = nullptr;
  }
  if (clientContext != nullptr) {
    SSL_CTX_free(clientContext);
    clientContext = nullptr;
  }
}
