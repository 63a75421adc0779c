// Windows on Unix-domain sockets: the owner's side (accept, read records,
// queue, acknowledge) and the sender's side (one cached connection per sending
// thread and window). The record layout is described in WinMsg.h.
#include "WinMsg.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Log.dec.h"

namespace {

constexpr char const* kSource = "winmsg";
constexpr std::uint32_t kPost = 1;
constexpr std::uint32_t kSend = 2;
constexpr std::size_t kHeaderSize = 32;
// The first block of a record's bytes; it doubles as bytes arrive.
constexpr std::size_t kFirstBlock = 256 * 1024;
// What one connection may be read for in one round, so one busy peer cannot
// keep the owner from the others.
constexpr std::size_t kRoundBudget = 256 * 1024;
constexpr std::size_t kStagingSize = 64 * 1024;
constexpr std::size_t kLarge = 16 * 1024;
constexpr int kAcceptsPerRound = 64;
constexpr std::uint32_t kAcknowledged = 1;

struct cWireHeader {
  std::uint32_t kind;
  std::uint32_t message;
  std::uint64_t wParam;
  std::uint64_t lParam;
  std::uint32_t dwData;
  std::uint32_t cbData;
};
static_assert(sizeof(cWireHeader) == kHeaderSize);

class cThreadQueue;

}  // namespace

struct cWindow_ {
  std::string address;
  // The queue of the owning thread while this process owns the window.
  std::atomic<cThreadQueue*> owner{nullptr};
};

namespace {

using tClock = std::chrono::steady_clock;

// Interned handles: never freed, so a handle stays a valid (maybe dead) window.
struct cRegistry {
  std::mutex mutex;
  std::unordered_map<std::string, cWindow_*> byAddress;
  std::unordered_set<cWindow_ const*> known;
};

cRegistry& gRegistry() {
  static cRegistry* registry = new cRegistry;
  return *registry;
}

cWindow_* gIntern(std::string const& address) {
  cRegistry& registry = gRegistry();
  std::lock_guard lock(registry.mutex);
  cWindow_*& slot = registry.byAddress[address];
  if (slot == nullptr) {
    slot = new cWindow_;
    slot->address = address;
    registry.known.insert(slot);
  }
  return slot;
}

bool gKnown(HWND window) {
  if (window == nullptr) return false;
  cRegistry& registry = gRegistry();
  std::lock_guard lock(registry.mutex);
  return registry.known.count(window) != 0;
}

bool gMakeAddress(std::string const& address, sockaddr_un& out, socklen_t& length) {
  std::memset(&out, 0, sizeof out);
  out.sun_family = AF_UNIX;
  if (address.size() > sizeof out.sun_path) return false;
  std::memcpy(out.sun_path, address.data(), address.size());
  length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
  return true;
}

void gCloseFd(int fd) {
  if (fd >= 0) ::close(fd);  // close is never retried on EINTR: the descriptor is gone either way.
}

DWORD gTickCount() {
  return static_cast<DWORD>(
      std::chrono::duration_cast<std::chrono::milliseconds>(tClock::now().time_since_epoch()).count());
}

int gPollRetrying(pollfd* fds, nfds_t count, int timeoutMs) {
  for (;;) {
    int ready = ::poll(fds, count, timeoutMs);
    if (ready >= 0 || errno != EINTR) return ready;
  }
}

// Milliseconds left until the deadline, rounded up so that a wait never ends
// before it.
int gRemainingMs(tClock::time_point deadline) {
  auto left = deadline - tClock::now();
  if (left <= tClock::duration::zero()) return 0;
  auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  return static_cast<int>(std::min<long long>(ms, 1 << 30));
}

// ---------------------------------------------------------------------------
// The owner's side.

struct cConnection {
  int fd = -1;
  std::uint64_t id = 0;
  HWND window = nullptr;
  cWireHeader header{};
  std::size_t headerHave = 0;
  bool inData = false;
  char* data = nullptr;
  std::size_t capacity = 0;
  std::size_t have = 0;
  bool lastWasLarge = false;

  ~cConnection() {
    delete[] data;
    gCloseFd(fd);
  }
};

struct cEntry {
  MSG msg;
  std::uint64_t acknowledgeTo;  // the sender's connection, 0 for none
};

void gFreeMessage(MSG const& msg) {
  if (msg.message != WM_COPYDATA || msg.lParam == 0) return;
  auto* record = reinterpret_cast<COPYDATASTRUCT*>(msg.lParam);
  delete[] static_cast<char*>(record->lpData);
  delete record;
}

class cThreadQueue {
 public:
  ~cThreadQueue() { fForgetAll(true); }

  bool fOwns(HWND window) const {
    return std::find(mWindows.begin(), mWindows.end(), window) != mWindows.end();
  }
  bool fEmptyOfWindows() const { return mWindows.empty(); }

  HWND fCreate(cWindow_* window) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    sockaddr_un address;
    socklen_t length = 0;
    gMakeAddress(window->address, address, length);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(fd, SOMAXCONN) != 0) {
      int error = errno;
      gCloseFd(fd);
      if (error == EADDRINUSE) CORVANTH_LOG(nLog::nBasic::sWarningTag_, kSource, "window name in use: " << fName(window));
      return nullptr;
    }
    window->owner.store(this, std::memory_order_release);
    mWindows.push_back(window);
    mListeners.push_back(fd);
    return window;
  }

  void fDestroy(HWND window) {
    auto at = std::find(mWindows.begin(), mWindows.end(), window);
    std::size_t index = static_cast<std::size_t>(at - mWindows.begin());
    gCloseFd(mListeners[index]);
    mWindows.erase(at);
    mListeners.erase(mListeners.begin() + static_cast<std::ptrdiff_t>(index));
    std::erase_if(mConnections, [window](auto const& c) { return c->window == window; });
    std::erase_if(mQueue, [window](cEntry const& e) {
      if (e.msg.hwnd != window) return false;
      gFreeMessage(e.msg);
      return true;
    });
    window->owner.store(nullptr, std::memory_order_release);
  }

  // Drops every window, connection and queued message. In a forked child
  // (ownedHere false) only the copies of the descriptors are closed: the
  // windows stay the parent's.
  void fForgetAll(bool ownedHere) {
    for (HWND window : mWindows) {
      if (ownedHere) window->owner.store(nullptr, std::memory_order_release);
    }
    for (int fd : mListeners) gCloseFd(fd);
    mWindows.clear();
    mListeners.clear();
    mConnections.clear();
    for (cEntry const& entry : mQueue) gFreeMessage(entry.msg);
    mQueue.clear();
  }

  void fQueue(MSG const& msg) { mQueue.push_back(cEntry{msg, 0}); }

  using tEntries = std::deque<cEntry>;

  // The first queued message that passes the filter; end() when none.
  tEntries::iterator fFind(HWND window, UINT first, UINT last) {
    return std::find_if(mQueue.begin(), mQueue.end(), [=](cEntry const& entry) {
      if (window != nullptr && entry.msg.hwnd != window) return false;
      UINT const m = entry.msg.message;
      return (first == 0 && last == 0) || m == WM_QUIT || (m >= first && m <= last);
    });
  }
  bool fFound(tEntries::iterator at) const { return at != mQueue.end(); }

  MSG fTake(tEntries::iterator at) {
    MSG const msg = at->msg;
    std::uint64_t const to = at->acknowledgeTo;
    mQueue.erase(at);
    if (to == 0) return msg;
    for (auto const& connection : mConnections) {
      if (connection->id != to) continue;
      char const byte = static_cast<char>(kAcknowledged);
      // A sender that gave up has closed its end; the message stays delivered.
      ssize_t sent;
      do {
        sent = ::send(connection->fd, &byte, 1, MSG_NOSIGNAL | MSG_DONTWAIT);
      } while (sent < 0 && errno == EINTR);
      break;
    }
    return msg;
  }

  bool fQueueEmpty() const { return mQueue.empty(); }

  // Services every endpoint of the thread once. timeoutMs 0 only looks; -1
  // waits until one of them has something.
  void fPump(int timeoutMs) {
    mPoll.clear();
    for (int fd : mListeners) mPoll.push_back(pollfd{fd, POLLIN, 0});
    for (auto const& connection : mConnections) mPoll.push_back(pollfd{connection->fd, POLLIN, 0});
    if (mPoll.empty()) return;
    if (gPollRetrying(mPoll.data(), mPoll.size(), timeoutMs) <= 0) return;
    // Connections first: accepting appends to the list whose order mPoll follows.
    std::size_t const listeners = mListeners.size();
    std::size_t const known = mConnections.size();
    std::vector<std::uint64_t> gone;
    for (std::size_t i = 0; i < known; ++i) {
      if (mPoll[listeners + i].revents == 0) continue;
      if (!fRead(*mConnections[i])) gone.push_back(mConnections[i]->id);
    }
    for (std::size_t i = 0; i < listeners; ++i) {
      if (mPoll[i].revents != 0) fAccept(i, gone);
    }
    if (!gone.empty()) {
      std::erase_if(mConnections, [&gone](auto const& c) {
        return std::find(gone.begin(), gone.end(), c->id) != gone.end();
      });
    }
  }

 private:
  static std::string fName(HWND window) {
    std::string const& address = window->address;
    std::size_t colon = address.find(':');
    return colon == std::string::npos ? address.substr(1) : address.substr(colon + 1);
  }

  void fAccept(std::size_t index, std::vector<std::uint64_t>& gone) {
    for (int n = 0; n < kAcceptsPerRound; ++n) {
      int fd = ::accept4(mListeners[index], nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
          CORVANTH_LOG(nLog::nBasic::sWarningTag_, kSource,
                       "accept on window " << fName(mWindows[index]) << " failed, errno " << errno);
        }
        return;
      }
      ucred peer{};
      socklen_t length = sizeof peer;
      if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 ||
          (peer.uid != ::geteuid() && peer.uid != 0)) {
        CORVANTH_LOG(nLog::nBasic::sWarningTag_, kSource,
                     "delivery to window " << fName(mWindows[index]) << " refused: peer pid " << peer.pid
                                           << " uid " << peer.uid << " is not of this user");
        gCloseFd(fd);
        continue;
      }
      auto connection = std::make_unique<cConnection>();
      connection->fd = fd;
      connection->id = ++mNextId;
      connection->window = mWindows[index];
      // A sender writes before we accept; its record is probably there already.
      if (!fRead(*connection)) gone.push_back(connection->id);
      mConnections.push_back(std::move(connection));
    }
  }

  // Reads what the peer has (up to the round's budget); false when the
  // connection is to end: end of stream, an error or a malformed record.
  bool fRead(cConnection& c) {
    if (!mStaging) mStaging = std::make_unique<char[]>(kStagingSize);
    std::size_t budget = kRoundBudget;
    while (budget > 0) {
      // Large records are read straight into their block, and the header in
      // front of one (when the last record was large too) on its own, so their
      // bytes are not copied through the staging buffer.
      enum { eStaging, eHeader, eData } into = eStaging;
      char* at = mStaging.get();
      std::size_t room = std::min(kStagingSize, budget);
      if (c.inData && c.header.cbData - c.have >= kLarge) {
        fGrow(c);
        into = eData;
        at = c.data + c.have;
        room = std::min<std::size_t>(c.capacity - c.have, budget);
      } else if (!c.inData && c.lastWasLarge) {
        into = eHeader;
        at = reinterpret_cast<char*>(&c.header) + c.headerHave;
        room = kHeaderSize - c.headerHave;
      }
      ssize_t got = ::recv(c.fd, at, room, MSG_DONTWAIT);
      if (got < 0) {
        if (errno == EINTR) continue;
        return errno == EAGAIN || errno == EWOULDBLOCK;
      }
      if (got == 0) return false;  // a record cut short is dropped with its peer
      auto const count = static_cast<std::size_t>(got);
      budget -= count;
      if (into == eData) {
        c.have += count;
        // Large records seldom come back to back: rather than ask the socket
        // once more, leave what may follow to the next poll.
        if (c.have == c.header.cbData) {
          fComplete(c);
          break;
        }
      } else if (into == eHeader) {
        c.headerHave += count;
        if (c.headerHave == kHeaderSize && !fHeaderDone(c)) return false;
      } else if (!fParse(c, mStaging.get(), count)) {
        return false;
      }
      // A short read emptied the socket; asking again would only say so.
      if (count < room) break;
    }
    return true;
  }

  static void fGrow(cConnection& c) {
    if (c.have < c.capacity) return;
    std::size_t want = std::min<std::size_t>(c.header.cbData, std::max(kFirstBlock, c.capacity * 2));
    char* bigger = new char[want];
    if (c.have != 0) std::memcpy(bigger, c.data, c.have);
    delete[] c.data;
    c.data = bigger;
    c.capacity = want;
  }

  bool fParse(cConnection& c, char const* bytes, std::size_t count) {
    while (count > 0) {
      if (!c.inData) {
        std::size_t take = std::min(kHeaderSize - c.headerHave, count);
        std::memcpy(reinterpret_cast<char*>(&c.header) + c.headerHave, bytes, take);
        c.headerHave += take;
        bytes += take;
        count -= take;
        if (c.headerHave == kHeaderSize && !fHeaderDone(c)) return false;
        continue;
      }
      fGrow(c);
      std::size_t take = std::min(c.capacity - c.have, count);
      std::memcpy(c.data + c.have, bytes, take);
      c.have += take;
      bytes += take;
      count -= take;
      if (c.have == c.header.cbData) fComplete(c);
    }
    return true;
  }

  // Checks a complete header and starts its record; false when it is malformed.
  bool fHeaderDone(cConnection& c) {
    cWireHeader const& h = c.header;
    bool const copyData = h.message == WM_COPYDATA;
    if ((h.kind != kPost && h.kind != kSend) || (copyData && h.kind == kPost) ||
        (!copyData && (h.cbData != 0 || h.dwData != 0))) {
      CORVANTH_LOG(nLog::nBasic::sWarningTag_, kSource,
                   "malformed record on window " << fName(c.window) << ": kind " << h.kind << " message " << h.message
                                                 << "; connection closed");
      return false;
    }
    c.inData = true;
    c.lastWasLarge = h.cbData >= kLarge;
    if (h.cbData == 0) {
      if (copyData) c.data = new char[0];
      fComplete(c);
    }
    return true;
  }

  void fComplete(cConnection& c) {
    cWireHeader const& h = c.header;
    MSG msg{};
    msg.hwnd = c.window;
    msg.message = h.message;
    msg.wParam = static_cast<WPARAM>(h.wParam);
    msg.time = gTickCount();
    if (h.message == WM_COPYDATA) {
      // The bytes' block is exactly cbData long once complete: the receiver frees it with delete[].
      msg.lParam = reinterpret_cast<LPARAM>(new COPYDATASTRUCT{h.dwData, h.cbData, c.data});
      c.data = nullptr;
    } else {
      msg.lParam = static_cast<LPARAM>(h.lParam);
    }
    mQueue.push_back(cEntry{msg, h.kind == kSend ? c.id : 0});
    c.inData = false;
    c.headerHave = 0;
    c.have = 0;
    c.capacity = 0;
  }

  std::vector<HWND> mWindows;
  std::vector<int> mListeners;  // parallel to mWindows
  std::vector<std::unique_ptr<cConnection>> mConnections;
  tEntries mQueue;
  std::vector<pollfd> mPoll;
  std::unique_ptr<char[]> mStaging;
  std::uint64_t mNextId = 0;
};

thread_local std::unique_ptr<cThreadQueue> tQueue;

cThreadQueue* gOwnQueue() { return tQueue.get(); }

cThreadQueue& gOwnQueueMade() {
  if (!tQueue) tQueue = std::make_unique<cThreadQueue>();
  return *tQueue;
}

// ---------------------------------------------------------------------------
// The sender's side: one connection per sending thread and window, kept
// between calls. It is only used by its thread, so a send has at most one
// answer outstanding on it; a send that gives up closes it, so a late answer
// can never be taken for the next one.

// A kept connection is blocking (writes say MSG_DONTWAIT): the answer is
// awaited in one recv under SO_RCVTIMEO, which is set again only when the
// time left differs from the last setting by more than kTimeOutSlack.
struct cLink {
  int fd = -1;
  int receiveTimeOutMs = 0;
};
constexpr int kTimeOutSlack = 2;

struct cSenderConnections {
  std::unordered_map<HWND, cLink> byWindow;
  ~cSenderConnections() { fDropAll(); }
  void fDrop(HWND window) {
    auto at = byWindow.find(window);
    if (at == byWindow.end()) return;
    gCloseFd(at->second.fd);
    byWindow.erase(at);
  }
  void fDropAll() {
    for (auto const& [window, link] : byWindow) gCloseFd(link.fd);
    byWindow.clear();
  }
};

thread_local cSenderConnections tSenders;

// Connects to the window's endpoint (blocking, for the connection's later
// use). A full backlog is waited for up to the deadline (the kernel waits for
// us under SO_SNDTIMEO); without a deadline it does not wait and sets `busy`.
// -1 when nobody listens.
int gConnect(HWND window, tClock::time_point const* deadline, bool* busy = nullptr) {
  sockaddr_un address;
  socklen_t length = 0;
  if (!gMakeAddress(window->address, address, length)) return -1;
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (deadline ? 0 : SOCK_NONBLOCK), 0);
  if (fd < 0) return -1;
  if (deadline != nullptr) {
    int ms = std::max(1, gRemainingMs(*deadline));
    timeval wait{ms / 1000, (ms % 1000) * 1000};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
  }
  int result;
  do {
    result = ::connect(fd, reinterpret_cast<sockaddr*>(&address), length);
  } while (result != 0 && errno == EINTR);
  if (result != 0 && errno != EISCONN) {
    if (busy != nullptr) *busy = errno == EAGAIN;
    gCloseFd(fd);
    return -1;
  }
  if (deadline == nullptr) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  return fd;
}

// Waits for the owner's one-byte answer until the deadline.
bool gAwaitAnswer(cLink& link, tClock::time_point deadline) {
  for (;;) {
    int const ms = gRemainingMs(deadline);
    if (ms == 0) return false;
    if (std::abs(ms - link.receiveTimeOutMs) > kTimeOutSlack) {
      timeval wait{ms / 1000, (ms % 1000) * 1000};
      if (::setsockopt(link.fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait) != 0) return false;
      link.receiveTimeOutMs = ms;
    }
    char byte = 0;
    ssize_t const got = ::recv(link.fd, &byte, 1, 0);
    if (got == 1) return byte == static_cast<char>(kAcknowledged);
    if (got == 0) return false;  // the owner went away
    if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) return false;
  }
}

// Writes all of the pieces before the deadline; false on time-out or error.
bool gWriteAll(int fd, iovec* pieces, int count, tClock::time_point deadline) {
  while (count > 0) {
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = static_cast<std::size_t>(count);
    ssize_t sent = ::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
      pollfd wait{fd, POLLOUT, 0};
      int ms = gRemainingMs(deadline);
      if (ms == 0 || gPollRetrying(&wait, 1, ms) <= 0 || (wait.revents & (POLLERR | POLLHUP))) return false;
      continue;
    }
    auto left = static_cast<std::size_t>(sent);
    while (count > 0 && left >= pieces->iov_len) {
      left -= pieces->iov_len;
      ++pieces;
      --count;
    }
    if (count > 0) {
      pieces->iov_base = static_cast<char*>(pieces->iov_base) + left;
      pieces->iov_len -= left;
    }
  }
  return true;
}

// Sends one record to a window of another thread or process; with `wait`,
// also waits for the owner's acknowledgement.
bool gDeliver(HWND window, cWireHeader const& header, void const* bytes, bool wait, tClock::time_point deadline) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    auto at = tSenders.byWindow.find(window);
    bool const cached = at != tSenders.byWindow.end();
    if (!cached) {
      int const fd = gConnect(window, &deadline);
      if (fd < 0) return false;
      at = tSenders.byWindow.emplace(window, cLink{fd, 0}).first;
    }
    cLink& link = at->second;
    iovec pieces[2] = {{const_cast<cWireHeader*>(&header), kHeaderSize},
                       {const_cast<void*>(bytes), header.cbData}};
    int const count = header.cbData != 0 ? 2 : 1;
    bool written;
    if (wait) {
      written = gWriteAll(link.fd, pieces, count, deadline);
    } else {
      // A post never waits: a full socket is a full queue.
      msghdr message{};
      message.msg_iov = pieces;
      message.msg_iovlen = static_cast<std::size_t>(count);
      ssize_t sent;
      do {
        sent = ::sendmsg(link.fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
      } while (sent < 0 && errno == EINTR);
      written = sent == static_cast<ssize_t>(kHeaderSize + header.cbData);
      if (sent >= 0 && !written) errno = EAGAIN;
    }
    if (!written) {
      int const error = errno;
      tSenders.fDrop(window);
      // A connection kept from before that the owner has since closed: nothing
      // was delivered on it, so one fresh connection may try again.
      if (cached && (error == EPIPE || error == ECONNRESET)) continue;
      return false;
    }
    if (!wait) return true;
    if (gAwaitAnswer(link, deadline)) return true;
    tSenders.fDrop(window);
    return false;
  }
  return false;
}

// A forked child must not read its parent's queue nor write into its
// parent's connections; it starts with no windows and no connections.
std::once_flag gForkHandlerOnce;

void gForkPrepare() { gRegistry().mutex.lock(); }
void gForkParent() { gRegistry().mutex.unlock(); }
void gForkChild() {
  cRegistry& registry = gRegistry();
  for (auto const& [address, window] : registry.byAddress) window->owner.store(nullptr, std::memory_order_relaxed);
  registry.mutex.unlock();
  if (tQueue) tQueue->fForgetAll(false);
  tSenders.fDropAll();
}

void gInstallForkHandler() {
  std::call_once(gForkHandlerOnce, [] { ::pthread_atfork(gForkPrepare, gForkParent, gForkChild); });
}

bool gOwnedByCaller(HWND window) {
  cThreadQueue* queue = gOwnQueue();
  return queue != nullptr && window->owner.load(std::memory_order_acquire) == queue;
}

}  // namespace

std::string gWindowAddress(char const* name) {
  std::string address(1, '\0');
  address += "corvanth.window.";
  address += std::to_string(::geteuid());
  address += ':';
  address += name != nullptr ? name : "";
  return address;
}

HWND CreateWindowA(char const* name) {
  if (name == nullptr) return nullptr;
  std::string address = gWindowAddress(name);
  sockaddr_un probe;
  socklen_t length = 0;
  if (!gMakeAddress(address, probe, length)) return nullptr;
  gInstallForkHandler();
  cWindow_* window = gIntern(address);
  if (window->owner.load(std::memory_order_acquire) != nullptr) return nullptr;
  return gOwnQueueMade().fCreate(window);
}

BOOL DestroyWindow(HWND window) {
  if (!gKnown(window) || !gOwnedByCaller(window)) return 0;
  gOwnQueue()->fDestroy(window);
  tSenders.fDrop(window);
  return 1;
}

HWND FindWindowA(char const*, char const* windowName) {
  if (windowName == nullptr) return nullptr;
  std::string address = gWindowAddress(windowName);
  sockaddr_un probe;
  socklen_t length = 0;
  if (!gMakeAddress(address, probe, length)) return nullptr;
  gInstallForkHandler();
  cWindow_* window = gIntern(address);
  return IsWindow(window) ? window : nullptr;
}

BOOL IsWindow(HWND window) {
  if (!gKnown(window)) return 0;
  if (window->owner.load(std::memory_order_acquire) != nullptr) return 1;
  if (auto at = tSenders.byWindow.find(window); at != tSenders.byWindow.end()) {
    // Between sends nothing may arrive on a kept connection: anything readable
    // is the owner's end of stream.
    pollfd look{at->second.fd, POLLIN, 0};
    if (gPollRetrying(&look, 1, 0) == 0) return 1;
    tSenders.fDrop(window);
  }
  bool busy = false;
  int fd = gConnect(window, nullptr, &busy);
  if (fd < 0) return busy ? 1 : 0;
  tSenders.byWindow[window] = cLink{fd, 0};
  return 1;
}

LRESULT SendMessageTimeoutA(HWND window, UINT message, WPARAM wParam, LPARAM lParam, UINT, UINT timeoutMilliseconds,
                            DWORD_PTR* result) {
  if (result != nullptr) *result = 0;
  if (!gKnown(window)) return 0;
  auto deadline = tClock::now() + std::chrono::milliseconds(timeoutMilliseconds);
  cWireHeader header{kSend, message, static_cast<std::uint64_t>(wParam), static_cast<std::uint64_t>(lParam), 0, 0};
  void const* bytes = nullptr;
  if (message == WM_COPYDATA) {
    auto const* record = reinterpret_cast<COPYDATASTRUCT const*>(lParam);
    if (record == nullptr || (record->cbData != 0 && record->lpData == nullptr)) return 0;
    header.lParam = 0;
    header.dwData = record->dwData;
    header.cbData = record->cbData;
    bytes = record->lpData;
  }
  if (gOwnedByCaller(window)) {
    MSG msg{window, message, wParam, lParam, gTickCount()};
    if (message == WM_COPYDATA) {
      char* copy = new char[header.cbData];
      if (header.cbData != 0) std::memcpy(copy, bytes, header.cbData);
      msg.lParam = reinterpret_cast<LPARAM>(new COPYDATASTRUCT{header.dwData, header.cbData, copy});
    }
    gOwnQueue()->fQueue(msg);
    return 1;
  }
  return gDeliver(window, header, bytes, true, deadline) ? 1 : 0;
}

BOOL PostMessageA(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  // A posted lParam cannot carry a record into another process.
  if (!gKnown(window) || message == WM_COPYDATA) return 0;
  if (gOwnedByCaller(window)) {
    gOwnQueue()->fQueue(MSG{window, message, wParam, lParam, gTickCount()});
    return 1;
  }
  cWireHeader header{kPost, message, static_cast<std::uint64_t>(wParam), static_cast<std::uint64_t>(lParam), 0, 0};
  return gDeliver(window, header, nullptr, false, tClock::now()) ? 1 : 0;
}

BOOL PeekMessageA(MSG* message, HWND window, UINT first, UINT last, UINT flags) {
  cThreadQueue* queue = gOwnQueue();
  if (message == nullptr || queue == nullptr || (window != nullptr && !queue->fOwns(window))) return 0;
  queue->fPump(0);
  auto const at = queue->fFind(window, first, last);
  if (!queue->fFound(at)) return 0;
  *message = (flags & PM_REMOVE) ? queue->fTake(at) : at->msg;
  return 1;
}

BOOL GetMessageA(MSG* message, HWND window, UINT first, UINT last) {
  cThreadQueue* queue = gOwnQueue();
  if (message == nullptr) return -1;
  if (queue == nullptr || queue->fEmptyOfWindows() || (window != nullptr && !queue->fOwns(window))) {
    *message = MSG{};
    return -1;
  }
  for (;;) {
    if (auto const at = queue->fFind(window, first, last); queue->fFound(at)) {
      *message = queue->fTake(at);
      return message->message == WM_QUIT ? 0 : 1;
    }
    queue->fPump(-1);
  }
}

BOOL WaitMessage() {
  cThreadQueue* queue = gOwnQueue();
  if (queue == nullptr || queue->fEmptyOfWindows()) return 0;
  while (queue->fQueueEmpty()) queue->fPump(-1);
  return 1;
}
