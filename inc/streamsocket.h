// StreamSocket: typed messages over one stream connection. A message travels
// as one frame, the 8-byte c_MessageHeader and the payload behind it (the
// frame is described in Nvspackmsg.h), written in a single piece. The payload
// is opaque here; as a rule it is a packed cCorvanthMessage.
//
// Roles. Client: the second constructor, Connect or ConnectLocal, messages,
// CloseSocket, destructor. Server: a listener (second constructor, setPort if
// the port is to come back from Accept, CreateListenerSocket) whose Accept
// gives (handle, SSL object, port) in a loop; each accepted connection is a
// StreamSocket of its own, made with the first constructor.
//
// Ownership: the object owns its handle, and its SSL object and contexts. A
// payload from WaitTypedMessageZ1 belongs to the caller until FreeMessage.
//
// Failures: reads and writes answer false, and the stream position is then
// lost; connecting and accepting raise the socket library's exceptions. A
// header whose length has the top bit set is refused with false and the
// connection stays open. Nothing here is caught.
//
// Threads: one thread may block in WaitTypedMessageZ1 while another sends,
// and any thread may call CloseSocket. CloseSocket sets shutdownRequested and
// closes the handle: the close is what wakes a blocked reader, and the flag
// makes every later read and write answer false without touching the socket.
// A shut object does not come back, not even through a new Connect.
//
// Batches. Small frames cost a system call each when sent one by one. A
// caller that has several at hand gives them to SendTypedMessagesZ2, which
// puts exactly the bytes of that many SendTypedMessageZ2 calls on the wire in
// one gather write (over TLS: records of up to 16 KiB, filled from consecutive
// frames). A caller that cannot gather corks: between BeginBatch and EndBatch
// each SendTypedMessageZ2 appends its frame to a buffer of this object, which
// goes out when it would pass 64 KiB and at EndBatch. The receiving side needs
// nothing: a peer reading one frame at a time sees the same bytes.
//
// TLS (sslEnable): Connect and Accept run the OpenSSL handshake on the
// connection's descriptor, with the certificate files of certificatePath
// ("/ca_bundle.crt", "/client.crt", "/client.key" for a client;
// "/server.crt", "/server.key", "/ca.crt" for a server). A set-up failure
// raises std::runtime_error with a fixed text and leaves the TCP connection
// open. Reads and writes go through SSL_read and SSL_write; WANT_READ and
// WANT_WRITE are retried at once, writes go out in pieces of at most 8192
// bytes, and a clean close by the peer shuts the object. CloseSocket from
// another thread wakes a thread inside SSL_read or SSL_write and waits for it
// to leave before the SSL object is shut down and freed.
#pragma once

#include <atomic>
#include <mutex>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "CorvanthExport.h"
#include "LintelSocket.h"
#include "Nvspackmsg.h"
#include "basesocket.h"

struct ssl_st;
struct ssl_ctx_st;

class CORVANTH_EXPORT StreamSocket : public c_Socket {
 public:
  // Only 1 and 3 carry a fixed meaning; callers of setPort may give others.
  enum PortType { ConnectedPort = 1, ListeningPort = 2, UnsetPort = 3 };

  // Wraps a connection that Accept handed out, and takes the SSL object over.
  StreamSocket(nCommunication::nSocket::cHandleValid handle, bool sslEnable, ssl_st* ssl,
               bool verifyServer, bool verifyClient, std::string certificatePath);
  // Unconnected. The SSL object argument is dropped on purpose: ssl stays null.
  explicit StreamSocket(bool sslEnable = false, ssl_st* ssl = nullptr, bool verifyServer = false,
                        bool verifyClient = false, std::string certificatePath = std::string());
  // CleanupSSL only if sslEnable is set; then the base deletes the handle.
  ~StreamSocket();

  // Client role; the older handle, if any, stays open and undeleted.
  void Connect(const std::string& host, unsigned short port,
               nCommunication::nSocket::cSocketOptions options);
  void ConnectLocal(unsigned short port, nCommunication::nSocket::cSocketOptions options);
  // Server role, on the listener: the accepted handle (invalid once the
  // listener is closed), its SSL object or null, and this object's port.
  std::tuple<nCommunication::nSocket::cHandleOptional, ssl_st*, int> Accept(
      nCommunication::nSocket::cSocketOptions options);
  void CloseSocket();
  nCommunication::nSocket::cHandleOptional f_GetInternal_debug() const;

  // True when the whole frame went out. A null message or a negative length
  // is logged as an error and the frame goes out all the same.
  bool SendTypedMessageZ2(short type, short subtype, const char* message, int length);
  // One frame of a batch: the arguments of SendTypedMessageZ2 as a record.
  struct TypedFrame {
    short type;
    short subtype;
    const char* message;
    int length;
  };
  // Sends the frames in order, with the statements and the bytes of one
  // SendTypedMessageZ2 per frame, in one gather write (up to 512 frames; more
  // take one write per 512). True when every frame went out whole. A frame
  // that a single send refuses (length below -8, or too long for a frame)
  // ends the batch with false after the frames before it went out. On a
  // failed write the stream position is lost, as for one frame.
  bool SendTypedMessagesZ2(std::span<const TypedFrame> frames);
  // Cork. Until EndBatch, SendTypedMessageZ2 and SendTypedMessagesZ2 append
  // to this object's buffer and answer false only for a frame that a single
  // send refuses or a write of the buffer that failed; the buffer goes out
  // whenever it would pass 64 KiB, the frame that passes it written in the
  // same gather write without being copied. EndBatch sends the rest and
  // answers true when no write of the batch failed. A second BeginBatch is
  // harmless; frames still corked when the object ends are dropped. The
  // sending thread's alone, like the sends themselves.
  void BeginBatch();
  bool EndBatch();
  // Blocks for one frame. On true, message is an array of exactly length
  // bytes (null for an empty frame) that goes back through FreeMessage. On
  // false all four outputs are zero.
  bool WaitTypedMessageZ1(short& type, short& subtype, char*& message, int& length,
                          nCommunication::nSocket::iLatencyConfiguration* latency);
  // Array delete of a received payload; null is harmless.
  void FreeMessage(const char* message);

  int getPort() const { return port; }
  PortType getPortType() { return portType; }
  void setPort(int newPort, PortType type) {
    port = newPort;
    portType = type;
  }
  void setSslEnable(bool enable) { sslEnable = enable; }
  void verifyClientCertificate(bool verify) { verifyClient = verify; }
  void verifyServerCertificate(bool verify) { verifyServer = verify; }
  void setServerCertificatePath(std::string& path) { certificatePath = path; }

  // The OpenSSL initialisation calls, when sslEnable is set; repeatable.
  void InitializeSSL();
  // Loads a PEM certificate and its private key into serverContext.
  void ConfigureSSL(const std::string& certificateFile, const std::string& keyFile);
  // Ends the TLS connection and frees the TLS objects; repeatable, and silent
  // when there is nothing to free. Not to be called while another thread reads
  // or writes: CloseSocket is the call for that.
  void CleanupSSL();

 private:
  // The payload length in host order, or -1 when the header could not be read.
  int GetMessageHeaderZ1(c_MessageHeader* header,
                         nCommunication::nSocket::iLatencyConfiguration* latency);
  bool ReadDataZ1(int count, char* buffer, bool insideMessage,
                  nCommunication::nSocket::iLatencyConfiguration* latency);
  bool WriteDataZ1(int count, const char* data);
  bool ReadTls(int count, char* buffer);
  bool WriteTls(int count, const char* data);
  // The TLS write loop in pieces of at most piece bytes, SIGPIPE held by the caller.
  bool WriteTlsPieces(int count, const char* data, int piece);
  // Writes the pieces as WriteDataZ1 writes one block: refused once shutdown
  // is requested; over TLS in records of up to 16 KiB.
  bool WritePieces(iovec* pieces, int count);
  bool CorkFrames(std::span<const TypedFrame> frames);
  // A reader or writer counts itself in before it looks at ssl, and out when
  // it is done with it; false, and not counted, once shutdown is requested.
  bool EnterTls();
  void LeaveTls() { insideTls.fetch_sub(1); }
  // Wakes the threads counted in and waits for them to leave, within a bound.
  bool WaitForTlsUsers();
  void TlsFailed(const char* call, int error, int number);

  PortType portType = UnsetPort;
  std::atomic<bool> shutdownRequested{false};
  ssl_ctx_st* clientContext = nullptr;
  ssl_ctx_st* serverContext = nullptr;
  ssl_st* ssl = nullptr;
  bool sslEnable;
  bool verifyServer;
  bool verifyClient;
  std::string certificatePath;
  int port = 0;
  std::atomic<int> insideTls{0};
  // Orders two CloseSocket calls (a peer's clean close seen by the reader and
  // a close from another thread), so the TLS objects are freed once.
  std::mutex closing;
  bool corked = false;
  bool corkFailed = false;
  std::vector<char> cork;
};
