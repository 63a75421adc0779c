// nCommunication: the socket library of the product family, here over POSIX
// TCP (IPv4 and IPv6, host names through getaddrinfo).
//
// A socket lives behind a handle: cHandleValid and cHandleOptional are one
// pointer each to an iHolder that this library owns. Copying a handle does not
// duplicate the socket. The life of a socket has two ends on purpose:
//   gClose  ends the connection (shutdown) and makes a thread that is blocked
//           in gReceive, gSend or gAccept on the same handle return; the handle
//           stays valid, and every later operation on it fails;
//   gDelete closes the descriptor and frees the holder; only when no other
//           thread can still use the handle.
//
// Failures: gSend and gReceive answer false; creating, connecting and accepting
// raise nSystemSocket::cUnspecifiedError (or cAlreadyInUse for a port that is
// taken), with the errno and the address in the text.
//
// Thread safety: on one handle, one thread may receive, another send, and any
// thread gClose, all at the same time. Everything else belongs to one thread.
#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <string>

#include "CorvanthExport.h"
#include "DebugSection.h"
#include "FrimException.h"
#include "FrimString.h"
#include "FrimTime.h"
#include "Synch.h"

namespace nCommunication {

// Port keys are the raw port numbers themselves; 0 is the null key. A separate
// word only for the reader: no range check, no transformation.
inline unsigned short gPortKeyMake(unsigned short raw) { return raw; }
inline unsigned short gPortGetRaw(unsigned short key) { return key; }
inline unsigned short gPortKeyNull() { return 0; }
inline bool gIsPortKeyNull(unsigned short key) { return key == 0; }
inline bool gIsPortKeyValid(unsigned short key) { return key != 0; }

namespace nSystemSocket {

// The part of the options that the system socket layer reads when it makes a
// connection: how long a connect may take (zero: the system's own limit) and
// how long one receive may wait for its bytes (empty: no limit).
class cSocketOptionsZ0 {
 public:
  cSocketOptionsZ0() = default;
  cSocketOptionsZ0(nTime::cDiff connectTimeout,
                   ecOptional<nTime::cDiff, nTime::zDiffEmpty> receiveTimeout)
      : mConnectTimeout(connectTimeout), mReceiveTimeout(receiveTimeout) {}

  nTime::cDiff fConnectTimeout() const { return mConnectTimeout; }
  ecOptional<nTime::cDiff, nTime::zDiffEmpty> const& fReceiveTimeout() const {
    return mReceiveTimeout;
  }
  void fSetConnectTimeout(nTime::cDiff limit) { mConnectTimeout = limit; }
  void fSetReceiveTimeout(ecOptional<nTime::cDiff, nTime::zDiffEmpty> limit) {
    mReceiveTimeout = limit;
  }

 private:
  nTime::cDiff mConnectTimeout;
  ecOptional<nTime::cDiff, nTime::zDiffEmpty> mReceiveTimeout;
};

// A failure of the system underneath: the text names the operation, the
// address and the errno.
class CORVANTH_EXPORT cUnspecifiedError : public n_debug::iBrokenModuleException {
 public:
  explicit cUnspecifiedError(cStringCoeImpl text);
  cUnspecifiedError(cUnspecifiedError const&) = default;
  cUnspecifiedError& operator=(cUnspecifiedError const&) = default;
  ~cUnspecifiedError() override;

 private:
  cStringCoeImpl v_iMessage_nException() const override;
  cStringCoeImpl mText;
};

}  // namespace nSystemSocket

namespace nSocket {
namespace nImplementation_sho {

// The object behind a handle. Only this library makes and frees it; callers
// read the raw descriptor (for a TLS layer on top of the connection).
class CORVANTH_EXPORT iHolder {
 public:
  iHolder(iHolder const&) = delete;
  iHolder& operator=(iHolder const&) = delete;
  std::int32_t fDescriptor() const noexcept { return mDescriptor; }

 protected:
  explicit iHolder(std::int32_t descriptor) : mDescriptor(descriptor) {}
  ~iHolder() = default;

 private:
  std::int32_t mDescriptor;
};

// Handles are made by this library only; cHandleAccess_ is its door.
struct cHandleAccess_;

// A handle known to refer to a socket.
class cHandleValid {
 public:
  iHolder* fHolder() const noexcept { return mHolder; }
  friend bool operator==(cHandleValid, cHandleValid) = default;

 private:
  friend struct cHandleAccess_;
  explicit cHandleValid(iHolder* holder) noexcept : mHolder(holder) {}
  iHolder* mHolder;
};

// A handle that may be invalid (null holder).
class cHandleOptional {
 public:
  cHandleOptional() noexcept = default;
  cHandleOptional(cHandleValid handle) noexcept : mHolder(handle.fHolder()) {}  // NOLINT
  bool fIsValid() const noexcept { return mHolder != nullptr; }
  iHolder* fHolder() const noexcept { return mHolder; }
  friend bool operator==(cHandleOptional, cHandleOptional) = default;

 private:
  friend struct cHandleAccess_;
  iHolder* mHolder = nullptr;
};

// Options of a new connection, handed by value to gAccept, gCreateConnected
// and gCreateConnectedLocal. Zero durations mean "not set". Beside the connect
// and receive limits of the base: a send limit (a send that cannot go on for
// that long fails), and TCP keep-alive (idle time before the first probe, the
// number of probes, the time between probes; an idle time of zero leaves
// keep-alive off).
class cSocketOptions : public nSystemSocket::cSocketOptionsZ0 {
 public:
  cSocketOptions() = default;

  nTime::cDiff fSendTimeout() const { return mSendTimeout; }
  nTime::cDiff fKeepAliveIdle() const { return mKeepAliveIdle; }
  std::int32_t fKeepAliveProbes() const { return mKeepAliveProbes; }
  nTime::cDiff fKeepAliveInterval() const { return mKeepAliveInterval; }
  void fSetSendTimeout(nTime::cDiff limit) { mSendTimeout = limit; }
  void fSetKeepAlive(nTime::cDiff idle, std::int32_t probes, nTime::cDiff interval) {
    mKeepAliveIdle = idle;
    mKeepAliveProbes = probes;
    mKeepAliveInterval = interval;
  }

 private:
  nTime::cDiff mSendTimeout;
  nTime::cDiff mKeepAliveIdle;
  std::int32_t mKeepAliveProbes = 0;
  nTime::cDiff mKeepAliveInterval;
};

// A caller's say in one receive, and its ear for how long the receive took.
// idleLimit bounds a receive that waits for the first bytes of a frame,
// frameLimit one that waits for the rest of a frame; zero leaves the
// connection's receive limit in force. After each receive that succeeded and
// took at least reportFrom, gReceive hands the time it took to fCurrent.
class CORVANTH_EXPORT iLatencyConfiguration {
 public:
  void fCurrent(nTime::cDiff took) { vCurrent(took); }
  nTime::cDiff fIdleLimit() const { return mIdleLimit; }
  nTime::cDiff fFrameLimit() const { return mFrameLimit; }
  nTime::cDiff fReportFrom() const { return mReportFrom; }

 protected:
  iLatencyConfiguration(nTime::cDiff idleLimit, nTime::cDiff frameLimit, nTime::cDiff reportFrom)
      : mIdleLimit(idleLimit), mFrameLimit(frameLimit), mReportFrom(reportFrom) {}
  iLatencyConfiguration(iLatencyConfiguration const&) = default;
  iLatencyConfiguration& operator=(iLatencyConfiguration const&) = default;
  virtual ~iLatencyConfiguration();

 private:
  virtual void vCurrent(nTime::cDiff took) = 0;
  nTime::cDiff mIdleLimit;
  nTime::cDiff mFrameLimit;
  nTime::cDiff mReportFrom;
};

// A shared hold on a readers-fixer for the life of the object. A copy takes
// a hold of its own, so that every object gives back exactly one.
class CORVANTH_EXPORT cActivationReadLock {
 public:
  explicit cActivationReadLock(nParallel::nImplementation_sho::cpReadersFixer lock);
  cActivationReadLock(cActivationReadLock const& other);
  cActivationReadLock& operator=(cActivationReadLock const&) = delete;
  ~cActivationReadLock();

 private:
  nDebugSection_debug::cXtor_templatedef<void> mGuard;
  nParallel::nImplementation_sho::cpReadersFixer mLock;
};

// Carried for callers of the family's interface; no data on this platform.
class cProcess {};
class guProcess_ {};

// The port asked for is taken. The text is fixed; the port goes to the log.
class CORVANTH_EXPORT cAlreadyInUse : public nException::i {
 public:
  cAlreadyInUse() = default;
  cAlreadyInUse(cAlreadyInUse const&) = default;
  cAlreadyInUse& operator=(cAlreadyInUse const&) = default;
  ~cAlreadyInUse() override;
  char const* what() const noexcept override;
};

}  // namespace nImplementation_sho

using nImplementation_sho::cActivationReadLock;
using nImplementation_sho::cAlreadyInUse;
using nImplementation_sho::cHandleOptional;
using nImplementation_sho::cHandleValid;
using nImplementation_sho::cSocketOptions;
using nImplementation_sho::iHolder;
using nImplementation_sho::iLatencyConfiguration;

CORVANTH_EXPORT cHandleOptional gInvalidHandle() noexcept;
// True from creation until gDelete, gClose or not.
CORVANTH_EXPORT bool gIsValid(cHandleOptional handle) noexcept;
// Raises cUnspecifiedError for the invalid handle.
CORVANTH_EXPORT cHandleValid gValidate(cHandleOptional handle);

// Listens on port (0: a free port that the system picks) on every address of
// the host, IPv6 and IPv4 alike.
CORVANTH_EXPORT cHandleValid gCreateListener(unsigned short port);
// Listens on port at one address or host name only ("127.0.0.1", "::1").
CORVANTH_EXPORT cHandleValid gCreateListenerOn(std::string const& host, unsigned short port);
// The local port of a socket, in host order.
CORVANTH_EXPORT unsigned short gLocalPort(cHandleValid handle);

// Waits for a connection. Gives the invalid handle once the listener was
// closed by gClose; raises cUnspecifiedError for a failure of the system.
CORVANTH_EXPORT cHandleOptional gAccept(cHandleValid listener, cSocketOptions options);
// Tries every address of host in the order that getaddrinfo gives them.
CORVANTH_EXPORT cHandleValid gCreateConnected(std::string const& host, unsigned short port,
                                              cSocketOptions options);
// The same on this host's loopback addresses.
CORVANTH_EXPORT cHandleValid gCreateConnectedLocal(unsigned short port, cSocketOptions options);

// Sends all count bytes, or answers false (a negative count too). Never raises
// SIGPIPE.
CORVANTH_EXPORT bool gSend(cHandleValid handle, int count, char const* data);
// Sends the pieces in order as one stream of bytes, in as few system calls as
// the kernel allows (sendmsg over up to IOV_MAX pieces each); all or false,
// like gSend. The pieces are used up: each is advanced past what went out.
CORVANTH_EXPORT bool gSendGather(cHandleValid handle, iovec* pieces, int count);
// Fills buffer with exactly count bytes, or answers false: peer closed, a
// failure, a limit ran out, or the handle was closed. insideMessage tells a
// wait for the first bytes of a frame (false) from one for its rest (true);
// latency may be null.
CORVANTH_EXPORT bool gReceive(cHandleValid handle, int count, char* buffer, bool insideMessage,
                              iLatencyConfiguration* latency);

CORVANTH_EXPORT void gClose(cHandleValid handle) noexcept;
CORVANTH_EXPORT void gDelete(cHandleOptional handle) noexcept;

// The name of this host, read once per process.
CORVANTH_EXPORT std::string const& gGetLocalHostName();

}  // namespace nSocket
}  // namespace nCommunication
