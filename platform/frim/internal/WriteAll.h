// Writes a whole buffer to a descriptor with write(2), retrying after signals.
// Gives up silently on any other error: it serves reports that have no better
// place to go.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace nFrimInternal {

inline void gWriteAll(int fd, char const* data, std::size_t size) noexcept {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
}

}  // namespace nFrimInternal
