// The socket library over POSIX TCP. gClose is shutdown(SHUT_RDWR), which
// wakes a thread blocked in recv, send, poll or accept on the same descriptor;
// only gDelete closes the descriptor, so its number cannot be reused under a
// thread that still holds the handle.
//
// Receiving reads ahead: a wait for a short piece takes whatever the kernel
// has (up to a window) and serves the next pieces from that, so a stream of
// small frames costs one recv for many of them. A long piece is read straight
// into the caller's buffer. The window follows the payloads: after a long one
// it shrinks, so that the header read of the next long frame does not pull
// its payload through the read-ahead (a copy more); a short payload widens it
// again. The read-ahead belongs to the one receiving thread; a TLS layer that
// takes over the descriptor must do so before the first gReceive.
#include "LintelSocket.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "Log.dec.h"

namespace nCommunication {

namespace nSystemSocket {

cUnspecifiedError::cUnspecifiedError(cStringCoeImpl text)
    : iBrokenModuleException(text, cStringCoeImpl("Lintel")), mText(std::move(text)) {}
cUnspecifiedError::~cUnspecifiedError() = default;
cStringCoeImpl cUnspecifiedError::v_iMessage_nException() const { return mText; }

}  // namespace nSystemSocket

namespace nSocket {
namespace nImplementation_sho {

struct cHandleAccess_ {
  static cHandleValid fMake(iHolder* holder) noexcept { return cHandleValid(holder); }
};

iLatencyConfiguration::~iLatencyConfiguration() = default;

cActivationReadLock::cActivationReadLock(nParallel::nImplementation_sho::cpReadersFixer lock)
    : mLock(lock) {
  mLock.fReadAcquire();
}
// The guard is not copied: a copied guard would count down the original's level.
cActivationReadLock::cActivationReadLock(cActivationReadLock const& other) : mLock(other.mLock) {
  other.mGuard.fCheck();
  mLock.fReadAcquire();
}
cActivationReadLock::~cActivationReadLock() {
  mGuard.fCheck();
  mLock.fReadRelease();
}

cAlreadyInUse::~cAlreadyInUse() = default;
char const* cAlreadyInUse::what() const noexcept {
  return "Lintel: address already in use (EADDRINUSE)";
}

}  // namespace nImplementation_sho

namespace {

using nSystemSocket::cUnspecifiedError;
using tLimit = ecOptional<nTime::cDiff, nTime::zDiffEmpty>;

constexpr int kReadAhead = 64 * 1024;
constexpr int kNarrowWindow = 512;
// A piece at least this long skips the read-ahead: one copy less, and the
// kernel fills it with as few calls as it can.
constexpr int kDirectFrom = 16 * 1024;

class cSocketHolder final : public iHolder {
 public:
  cSocketHolder(int descriptor, std::string address, tLimit receiveLimit)
      : iHolder(descriptor), mAddress(std::move(address)), mReceiveLimit(receiveLimit) {}
  ~cSocketHolder() = default;

  std::atomic<bool> mClosed{false};
  std::string const mAddress;
  tLimit const mReceiveLimit;
  // Read-ahead; touched by the receiving thread only.
  std::unique_ptr<char[]> mAhead;
  int mBegin = 0;
  int mEnd = 0;
  int mWindow = kReadAhead;
};

cSocketHolder& gHolder(cHandleValid handle) {
  return *static_cast<cSocketHolder*>(handle.fHolder());
}

std::string gErrorText(int error) {
  char buffer[256];
  // The GNU strerror_r gives a pointer that may or may not be into buffer.
  char const* text = strerror_r(error, buffer, sizeof buffer);
  return std::string(text) + " (errno " + std::to_string(error) + ")";
}

[[noreturn]] void gRaise(std::string const& what, std::string const& address, int error) {
  throw cUnspecifiedError(
      cStringCoeImpl("Lintel: " + what + " " + address + " failed: " + gErrorText(error)));
}

[[noreturn]] void gRaiseInUse(std::string const& address) {
  CORVANTH_LOG(nLog::nBasic::sWarningTag_, "lintel", "address already in use: " << address);
  throw cAlreadyInUse();
}

std::string gAddressText(sockaddr const* address, socklen_t length) {
  char host[NI_MAXHOST];
  char service[NI_MAXSERV];
  if (getnameinfo(address, length, host, sizeof host, service, sizeof service,
                  NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return "(unknown address)";
  }
  if (address->sa_family == AF_INET6) return std::string("[") + host + "]:" + service;
  return std::string(host) + ":" + service;
}

std::string gHostText(std::string const& host, unsigned short port) {
  return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" +
         std::to_string(port);
}

// Closes a descriptor that no handle refers to yet, keeping errno.
void gDiscard(int descriptor) {
  int const saved = errno;
  ::close(descriptor);
  errno = saved;
}

struct cAddressList {
  addrinfo* mFirst = nullptr;
  cAddressList() = default;
  cAddressList(cAddressList const&) = delete;
  cAddressList& operator=(cAddressList const&) = delete;
  ~cAddressList() {
    if (mFirst != nullptr) freeaddrinfo(mFirst);
  }
};

// host null: the loopback addresses (or, passive, the wildcard).
void gResolve(char const* host, unsigned short port, bool passive, cAddressList& list,
              std::string const& what) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  hints.ai_flags = AI_NUMERICSERV | (passive ? AI_PASSIVE : 0);
  std::string const service = std::to_string(port);
  int const result = getaddrinfo(host, service.c_str(), &hints, &list.mFirst);
  if (result != 0) {
    std::string const text = result == EAI_SYSTEM ? gErrorText(errno) : gai_strerror(result);
    throw cUnspecifiedError(cStringCoeImpl("Lintel: " + what + " " +
                                           gHostText(host != nullptr ? host : "localhost", port) +
                                           " failed: cannot resolve the name: " + text));
  }
}

void gSetOption(int descriptor, int level, int name, int value, std::string const& address) {
  if (setsockopt(descriptor, level, name, &value, sizeof value) != 0) {
    int const error = errno;
    gDiscard(descriptor);
    gRaise("setting a socket option on", address, error);
  }
}

int gWholeSecondsAtLeastOne(nTime::cDiff d) {
  std::int64_t const seconds = (d.fNanoseconds() + 999999999) / 1000000000;
  return static_cast<int>(std::clamp<std::int64_t>(seconds, 1, INT_MAX));
}

// Turns a connected descriptor into a handle with the options applied.
cHandleValid gAdopt(int descriptor, std::string address, cSocketOptions const& options) {
  gSetOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1, address);
  if (options.fSendTimeout() > nTime::cDiff()) {
    std::int64_t const ns = options.fSendTimeout().fNanoseconds();
    timeval limit{};
    limit.tv_sec = static_cast<time_t>(ns / 1000000000);
    limit.tv_usec = static_cast<suseconds_t>(std::max<std::int64_t>((ns % 1000000000) / 1000, 1));
    if (setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) {
      int const error = errno;
      gDiscard(descriptor);
      gRaise("setting the send time-out on", address, error);
    }
  }
  if (options.fKeepAliveIdle() > nTime::cDiff()) {
    gSetOption(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1, address);
    gSetOption(descriptor, IPPROTO_TCP, TCP_KEEPIDLE,
               gWholeSecondsAtLeastOne(options.fKeepAliveIdle()), address);
    if (options.fKeepAliveProbes() > 0) {
      gSetOption(descriptor, IPPROTO_TCP, TCP_KEEPCNT, options.fKeepAliveProbes(), address);
    }
    if (options.fKeepAliveInterval() > nTime::cDiff()) {
      gSetOption(descriptor, IPPROTO_TCP, TCP_KEEPINTVL,
                 gWholeSecondsAtLeastOne(options.fKeepAliveInterval()), address);
    }
  }
  auto* holder = new cSocketHolder(descriptor, std::move(address), options.fReceiveTimeout());
  return nImplementation_sho::cHandleAccess_::fMake(holder);
}

// Milliseconds for poll until deadline, rounded up; 0 once it has passed.
int gPollMilliseconds(nTime::cPoint deadline) {
  std::int64_t const ns = (deadline - nTime::cPoint::gNow()).fNanoseconds();
  if (ns <= 0) return 0;
  return static_cast<int>(std::min<std::int64_t>((ns + 999999) / 1000000, INT_MAX));
}

// Waits for events on a descriptor until deadline (none: for ever). False with
// errno ETIMEDOUT when the deadline passed first.
bool gWaitFor(int descriptor, short events, std::optional<nTime::cPoint> deadline) {
  for (;;) {
    int timeout = -1;
    if (deadline) {
      timeout = gPollMilliseconds(*deadline);
      if (timeout == 0 && nTime::cPoint::gNow() >= *deadline) {
        errno = ETIMEDOUT;
        return false;
      }
    }
    pollfd entry{descriptor, events, 0};
    int const ready = ::poll(&entry, 1, timeout);
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return false;
  }
}

// One connect attempt; the descriptor, or -1 with errno set.
int gConnectOne(addrinfo const* address, nTime::cDiff limit) {
  int const descriptor =
      ::socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
               address->ai_protocol);
  if (descriptor < 0) return -1;
  if (::connect(descriptor, address->ai_addr, address->ai_addrlen) != 0) {
    if (errno != EINPROGRESS && errno != EINTR) {
      gDiscard(descriptor);
      return -1;
    }
    std::optional<nTime::cPoint> deadline;
    if (limit > nTime::cDiff()) deadline = nTime::cPoint::gNow() + limit;
    if (!gWaitFor(descriptor, POLLOUT, deadline)) {
      gDiscard(descriptor);
      return -1;
    }
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
    if (error != 0) {
      ::close(descriptor);
      errno = error;
      return -1;
    }
  }
  int const flags = fcntl(descriptor, F_GETFL);
  if (flags < 0 || fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK) != 0) {
    gDiscard(descriptor);
    return -1;
  }
  return descriptor;
}

cHandleValid gConnectAny(char const* host, unsigned short port, cSocketOptions const& options) {
  std::string const name = gHostText(host != nullptr ? host : "localhost", port);
  cAddressList list;
  gResolve(host, port, false, list, "connect to");
  int error = EHOSTUNREACH;
  std::string tried;
  for (addrinfo const* address = list.mFirst; address != nullptr; address = address->ai_next) {
    std::string const text = gAddressText(address->ai_addr, address->ai_addrlen);
    int const descriptor = gConnectOne(address, options.fConnectTimeout());
    if (descriptor >= 0) return gAdopt(descriptor, text, options);
    error = errno;
    tried += (tried.empty() ? "" : ", ") + text;
  }
  gRaise("connect to", tried == name ? name : name + " (" + tried + ")", error);
}

// Binds and listens; -1 with errno set. dualStack: an IPv6 socket that takes
// IPv4 connections too.
int gListenOne(int family, sockaddr const* address, socklen_t length, bool dualStack) {
  int const descriptor = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (descriptor < 0) return -1;
  int const one = 1;
  int const zero = 0;
  if (setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
      (dualStack && setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof zero) != 0) ||
      ::bind(descriptor, address, length) != 0 || ::listen(descriptor, SOMAXCONN) != 0) {
    gDiscard(descriptor);
    return -1;
  }
  return descriptor;
}

cHandleValid gAdoptListener(int descriptor) {
  sockaddr_storage local{};
  socklen_t length = sizeof local;
  std::string text = "(listener)";
  if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&local), &length) == 0) {
    text = gAddressText(reinterpret_cast<sockaddr*>(&local), length);
  }
  auto* holder = new cSocketHolder(descriptor, std::move(text), tLimit());
  return nImplementation_sho::cHandleAccess_::fMake(holder);
}

// The kernel's answer to one recv, or -1 with errno set (ETIMEDOUT when the
// deadline passed).
ssize_t gRecv(int descriptor, char* buffer, std::size_t count, bool waitAll,
              std::optional<nTime::cPoint> deadline) {
  for (;;) {
    int flags = waitAll ? MSG_WAITALL : 0;
    if (deadline) {
      if (!gWaitFor(descriptor, POLLIN, deadline)) return -1;
      flags = MSG_DONTWAIT;
    }
    ssize_t const received = ::recv(descriptor, buffer, count, flags);
    if (received >= 0) return received;
    if (errno == EINTR || (deadline && (errno == EAGAIN || errno == EWOULDBLOCK))) continue;
    return -1;
  }
}

bool gFill(cSocketHolder& holder, int count, char* buffer, bool insideMessage,
           std::optional<nTime::cPoint> deadline) {
  if (insideMessage) holder.mWindow = count >= kDirectFrom ? kNarrowWindow : kReadAhead;
  int const buffered = holder.mEnd - holder.mBegin;
  if (buffered >= count) {
    std::memcpy(buffer, holder.mAhead.get() + holder.mBegin, static_cast<std::size_t>(count));
    holder.mBegin += count;
    return true;
  }
  if (buffered > 0) {
    std::memcpy(buffer, holder.mAhead.get() + holder.mBegin, static_cast<std::size_t>(buffered));
  }
  holder.mBegin = holder.mEnd = 0;
  int done = buffered;
  while (done < count) {
    int const rest = count - done;
    if (rest >= kDirectFrom) {
      ssize_t const received = gRecv(holder.fDescriptor(), buffer + done,
                                     static_cast<std::size_t>(rest), true, deadline);
      if (received <= 0) return false;
      done += static_cast<int>(received);
      continue;
    }
    if (!holder.mAhead) holder.mAhead.reset(new char[kReadAhead]);
    ssize_t const received =
        gRecv(holder.fDescriptor(), holder.mAhead.get(),
              static_cast<std::size_t>(std::max(holder.mWindow, rest)), false, deadline);
    if (received <= 0) return false;
    int const taken = std::min(rest, static_cast<int>(received));
    std::memcpy(buffer + done, holder.mAhead.get(), static_cast<std::size_t>(taken));
    done += taken;
    holder.mBegin = taken;
    holder.mEnd = static_cast<int>(received);
  }
  return true;
}

}  // namespace

cHandleOptional gInvalidHandle() noexcept { return cHandleOptional(); }

bool gIsValid(cHandleOptional handle) noexcept { return handle.fIsValid(); }

cHandleValid gValidate(cHandleOptional handle) {
  if (!handle.fIsValid()) {
    throw cUnspecifiedError(cStringCoeImpl("Lintel: the socket handle is invalid"));
  }
  return nImplementation_sho::cHandleAccess_::fMake(handle.fHolder());
}

cHandleValid gCreateListener(unsigned short port) {
  sockaddr_in6 any6{};
  any6.sin6_family = AF_INET6;
  any6.sin6_addr = in6addr_any;
  any6.sin6_port = htons(port);
  int descriptor =
      gListenOne(AF_INET6, reinterpret_cast<sockaddr*>(&any6), sizeof any6, /*dualStack=*/true);
  if (descriptor < 0 && errno != EADDRINUSE) {
    // A host without IPv6.
    sockaddr_in any4{};
    any4.sin_family = AF_INET;
    any4.sin_addr.s_addr = htonl(INADDR_ANY);
    any4.sin_port = htons(port);
    descriptor = gListenOne(AF_INET, reinterpret_cast<sockaddr*>(&any4), sizeof any4, false);
  }
  if (descriptor < 0) {
    int const error = errno;
    std::string const address = "*:" + std::to_string(port);
    if (error == EADDRINUSE) gRaiseInUse(address);
    gRaise("listen on", address, error);
  }
  return gAdoptListener(descriptor);
}

cHandleValid gCreateListenerOn(std::string const& host, unsigned short port) {
  cAddressList list;
  gResolve(host.c_str(), port, true, list, "listen on");
  int error = EADDRNOTAVAIL;
  for (addrinfo const* address = list.mFirst; address != nullptr; address = address->ai_next) {
    int const descriptor =
        gListenOne(address->ai_family, address->ai_addr, address->ai_addrlen, false);
    if (descriptor >= 0) return gAdoptListener(descriptor);
    error = errno;
  }
  if (error == EADDRINUSE) gRaiseInUse(gHostText(host, port));
  gRaise("listen on", gHostText(host, port), error);
}

unsigned short gLocalPort(cHandleValid handle) {
  sockaddr_storage local{};
  socklen_t length = sizeof local;
  if (getsockname(handle.fHolder()->fDescriptor(), reinterpret_cast<sockaddr*>(&local), &length) !=
      0) {
    gRaise("reading the local address of", gHolder(handle).mAddress, errno);
  }
  if (local.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(&local)->sin6_port);
  return ntohs(reinterpret_cast<sockaddr_in*>(&local)->sin_port);
}

cHandleOptional gAccept(cHandleValid listener, cSocketOptions options) {
  cSocketHolder& holder = gHolder(listener);
  for (;;) {
    if (holder.mClosed.load(std::memory_order_acquire)) return gInvalidHandle();
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    int const descriptor =
        ::accept4(holder.fDescriptor(), reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
    if (descriptor >= 0) {
      return gAdopt(descriptor, gAddressText(reinterpret_cast<sockaddr*>(&peer), length), options);
    }
    int const error = errno;
    // The listener was shut by gClose: that is the end of waiting, no failure.
    if (holder.mClosed.load(std::memory_order_acquire)) return gInvalidHandle();
    switch (error) {
      // A connection that died before it was taken, or a network hiccup:
      // accept(2) asks to try again.
      case EINTR:
      case ECONNABORTED:
      case EPROTO:
      case ENETDOWN:
      case ENOPROTOOPT:
      case EHOSTDOWN:
      case ENONET:
      case EHOSTUNREACH:
      case EOPNOTSUPP:
      case ENETUNREACH:
      case EPERM:
        continue;
      default:
        gRaise("accept on", holder.mAddress, error);
    }
  }
}

cHandleValid gCreateConnected(std::string const& host, unsigned short port,
                              cSocketOptions options) {
  return gConnectAny(host.c_str(), port, options);
}

cHandleValid gCreateConnectedLocal(unsigned short port, cSocketOptions options) {
  return gConnectAny(nullptr, port, options);
}

bool gSend(cHandleValid handle, int count, char const* data) {
  cSocketHolder& holder = gHolder(handle);
  if (count < 0 || holder.mClosed.load(std::memory_order_acquire)) return false;
  std::size_t done = 0;
  std::size_t const total = static_cast<std::size_t>(count);
  while (done < total) {
    ssize_t const sent = ::send(holder.fDescriptor(), data + done, total - done, MSG_NOSIGNAL);
    if (sent > 0) {
      done += static_cast<std::size_t>(sent);
    } else if (sent < 0 && errno == EINTR) {
      continue;
    } else {
      return false;
    }
  }
  return true;
}

bool gSendGather(cHandleValid handle, iovec* pieces, int count) {
  cSocketHolder& holder = gHolder(handle);
  if (count < 0 || holder.mClosed.load(std::memory_order_acquire)) return false;
  int at = 0;
  for (;;) {
    while (at < count && pieces[at].iov_len == 0) ++at;
    if (at == count) return true;
    msghdr message{};
    message.msg_iov = pieces + at;
    message.msg_iovlen = static_cast<std::size_t>(std::min(count - at, IOV_MAX));
    ssize_t const sent = ::sendmsg(holder.fDescriptor(), &message, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    // What went out never exceeds the pieces offered, so this ends within them.
    for (std::size_t left = static_cast<std::size_t>(sent); left > 0;) {
      std::size_t const taken = std::min(left, pieces[at].iov_len);
      pieces[at].iov_base = static_cast<char*>(pieces[at].iov_base) + taken;
      pieces[at].iov_len -= taken;
      left -= taken;
      if (pieces[at].iov_len == 0) ++at;
    }
  }
}

bool gReceive(cHandleValid handle, int count, char* buffer, bool insideMessage,
              iLatencyConfiguration* latency) {
  cSocketHolder& holder = gHolder(handle);
  if (count < 0 || holder.mClosed.load(std::memory_order_acquire)) return false;
  if (count == 0) return true;
  nTime::cPoint start;
  nTime::cDiff limit;
  if (latency != nullptr) {
    start = nTime::cPoint::gNow();
    limit = insideMessage ? latency->fFrameLimit() : latency->fIdleLimit();
  }
  if (limit <= nTime::cDiff() && holder.mReceiveLimit.fHas()) limit = holder.mReceiveLimit.fGet();
  std::optional<nTime::cPoint> deadline;
  if (limit > nTime::cDiff()) {
    deadline = (latency != nullptr ? start : nTime::cPoint::gNow()) + limit;
  }
  if (!gFill(holder, count, buffer, insideMessage, deadline)) return false;
  if (latency != nullptr) {
    nTime::cDiff const took = nTime::cPoint::gNow() - start;
    if (took >= latency->fReportFrom()) latency->fCurrent(took);
  }
  return true;
}

void gClose(cHandleValid handle) noexcept {
  cSocketHolder& holder = gHolder(handle);
  holder.mClosed.store(true, std::memory_order_release);
  ::shutdown(holder.fDescriptor(), SHUT_RDWR);
}

void gDelete(cHandleOptional handle) noexcept {
  if (!handle.fIsValid()) return;
  auto* holder = static_cast<cSocketHolder*>(handle.fHolder());
  ::close(holder->fDescriptor());
  delete holder;
}

std::string const& gGetLocalHostName() {
  static std::string const name = [] {
    char buffer[HOST_NAME_MAX + 1] = {};
    if (gethostname(buffer, sizeof buffer - 1) != 0)
      gRaise("reading the name of", "this host", errno);
    return std::string(buffer);
  }();
  return name;
}

}  // namespace nSocket
}  // namespace nCommunication
