// Whatever a peer writes into a window's socket. The owner's record reader
// must stay inside its buffers, queue only complete records (with copy-data
// bytes exactly as long as announced), and free what it drops with the peer.
// The first input byte chooses where the bytes are cut in two writes, so
// that headers and payloads also arrive in pieces.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "WinMsg.h"

namespace {

void gCheck(bool holds) {
  if (!holds) __builtin_trap();
}

std::string const gName = "fuzz-winmsg-" + std::to_string(::getpid());

HWND gWindow() {
  static HWND const window = [] {
    HWND made = CreateWindowA(gName.c_str());
    gCheck(made != nullptr);
    return made;
  }();
  return window;
}

volatile std::uint32_t gSink;

// Takes out everything queued; copy-data bytes are read to their announced end.
void gDrain(HWND window) {
  MSG msg;
  while (PeekMessageA(&msg, window, 0, 0, PM_REMOVE | PM_NOYIELD)) {
    gCheck(msg.hwnd == window);
    if (msg.message != WM_COPYDATA) continue;
    auto* record = reinterpret_cast<COPYDATASTRUCT*>(msg.lParam);
    auto const* bytes = static_cast<unsigned char const*>(record->lpData);
    std::uint32_t sum = record->dwData;
    for (std::uint32_t i = 0; i < record->cbData; ++i) sum += bytes[i];
    gSink = sum;
    delete[] static_cast<char*>(record->lpData);
    delete record;
  }
}

bool gWriteAll(int fd, std::uint8_t const* data, std::size_t size) {
  while (size > 0) {
    ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL);
    if (sent <= 0) return false;  // the owner closed on a malformed record
    data += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  // Larger inputs would only fill the socket while the owner is not reading.
  if (size == 0 || size > 96 * 1024) return 0;
  HWND const window = gWindow();
  std::string const address = gWindowAddress(gName.c_str());
  sockaddr_un un{};
  un.sun_family = AF_UNIX;
  std::memcpy(un.sun_path, address.data(), address.size());
  int const peer = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  gCheck(peer >= 0);
  gCheck(::connect(peer, reinterpret_cast<sockaddr*>(&un),
                   static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size())) == 0);

  std::size_t const cut = 1 + data[0] % size;
  if (gWriteAll(peer, data + 1, cut - 1)) {
    gDrain(window);
    gWriteAll(peer, data + cut, size - cut);
  }
  ::shutdown(peer, SHUT_WR);

  // Until the owner has read to our end of stream and closed its side: each
  // round reads up to its budget, so a few rounds always do.
  for (int round = 0; round < 64; ++round) {
    gDrain(window);
    pollfd look{peer, POLLIN, 0};
    if (::poll(&look, 1, 0) != 1) continue;
    char answers[256];
    ssize_t const got = ::recv(peer, answers, sizeof answers, MSG_DONTWAIT);
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) break;
  }
  ::close(peer);
  gDrain(window);
  return 0;
}
