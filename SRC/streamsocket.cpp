// Frames go out as one block through a single write, header and payload
// together: one allocation and one copy of the payload per send. A received
// payload is read straight into the array that the caller gets.
#include "streamsocket.h"

#include <openssl/ssl.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "Log.dec.h"

namespace nSocket = nCommunication::nSocket;

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
  if (sslEnable) throw std::runtime_error("TLS is not available in this build");
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
    throw std::runtime_error("TLS is not available in this build");
  }
  return {accepted, acceptedSsl, port};
}

void StreamSocket::CloseSocket() {
  shutdownRequested.exchange(true);
  CleanupSSL();
  c_Socket::CloseSocket();
}

nSocket::cHandleOptional StreamSocket::f_GetInternal_debug() const { return handle; }

bool StreamSocket::SendTypedMessageZ2(short type, short subtype, const char* message, int length) {
  CORVANTH_LOG(nCorvanth::sTraceTag_, "streamsocket");
  CORVANTH_ASSERT(message != nullptr, "streamsocket");
  CORVANTH_ASSERT(length >= 0, "streamsocket");
  c_MessageHeader header;
  SSMMakeMessageHeader(length, type, subtype, &header);
  // A negative length still goes on, as the count of the write, but the array
  // is never smaller than the header. The count wraps for the top 8 lengths,
  // which the write then refuses: it is asked with the header alone, so such
  // a frame never costs a 2 GiB copy first.
  int const count = static_cast<int>(static_cast<std::uint32_t>(length) + sizeof header);
  if (length > 0 && count < 0) {
    CORVANTH_ASSERT(message != nullptr, "streamsocket");  // the check that precedes the copy
    return WriteDataZ1(count, reinterpret_cast<char const*>(&header));
  }
  std::size_t const payload = length > 0 ? static_cast<std::size_t>(length) : 0;
  std::unique_ptr<char[]> frame(new char[payload + sizeof header]);
  std::memcpy(frame.get(), &header, sizeof header);
  if (length > 0) {
    CORVANTH_ASSERT(message != nullptr, "streamsocket");
    // Zeros stand in for a missing payload, rather than stale heap bytes.
    if (message != nullptr) {
      std::memcpy(frame.get() + sizeof header, message, payload);
    } else {
      std::memset(frame.get() + sizeof header, 0, payload);
    }
  }
  return WriteDataZ1(count, frame.get());
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
  CORVANTH_LOG(nLog::nBasic::sErrorTag_, "streamsocket",
               "TLS reading is not available in this build");
  return false;
}

bool StreamSocket::WriteDataZ1(int count, const char* data) {
  if (shutdownRequested.load()) {
    CORVANTH_LOG(nLog::nBasic::sTraceDebugInfoTag_, "streamsocket",
                 "WriteDataZ1 aborted because shutdown is requested.");
    return false;
  }
  if (!sslEnable) return nSocket::gSend(nSocket::gValidate(handle), count, data);
  CORVANTH_LOG(nLog::nBasic::sErrorTag_, "streamsocket",
               "TLS writing is not available in this build");
  return false;
}

void StreamSocket::CleanupSSL() {
  if (ssl != nullptr) {
    int result = SSL_shutdown(ssl);
    // 0: our close went out and the peer's has not come; one more call waits for it.
    if (result == 0) result = SSL_shutdown(ssl);
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
