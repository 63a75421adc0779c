// Where the product's data files are found (see internal/KRProductFiles.h).
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "internal/KRProductFiles.h"

#ifndef CORVANTH_DATA_DIR_FROM_LIB
#error "CORVANTH_DATA_DIR_FROM_LIB must name the data directory relative to the library's"
#endif

namespace nKRProductFiles {

namespace {
constexpr std::size_t kMaxFileBytes = 4u << 20;
}  // namespace

bool gPlainFileName(char const* name) {
  if (name == nullptr) return false;
  std::string_view const text(name);
  return !text.empty() && text != "." && text != ".." && text.find('/') == std::string_view::npos;
}

// Found from where this library was loaded, so that an installed tree moved
// elsewhere still finds its own files.
std::string const& gInstalledDataDirectory() {
  static std::string const directory = [] {
    Dl_info info{};
    if (::dladdr(reinterpret_cast<void const*>(&gInstalledDataDirectory), &info) == 0 ||
        info.dli_fname == nullptr)
      return std::string();
    std::string library(info.dli_fname);
    std::size_t const slash = library.rfind('/');
    std::string const libraryDirectory = slash == std::string::npos ? "." : library.substr(0, slash);
    return libraryDirectory + "/" CORVANTH_DATA_DIR_FROM_LIB;
  }();
  return directory;
}

std::vector<std::string> gCandidatePaths(char const* homeFolder, char const* fileName) {
  std::vector<std::string> paths;
  if (!gPlainFileName(fileName)) return paths;
  if (char const* home = std::getenv("KESTRUN_HOME"); home != nullptr && *home != '\0')
    paths.push_back(std::string(home) + "/" + homeFolder + "/" + fileName);
  if (!gInstalledDataDirectory().empty()) paths.push_back(gInstalledDataDirectory() + "/" + fileName);
  return paths;
}

bool gReadFile(std::string const& path, std::string& bytes) {
  int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat status {};
  bool ok = ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
            static_cast<std::uint64_t>(status.st_size) <= kMaxFileBytes;
  if (ok) {
    // The size is a hint only: the file may change under us, so read to the end within the cap.
    bytes.assign(static_cast<std::size_t>(status.st_size), '\0');
    std::size_t filled = 0;
    for (;;) {
      if (filled == bytes.size()) {
        if (bytes.size() >= kMaxFileBytes + 1) break;
        bytes.resize(std::min(kMaxFileBytes + 1, bytes.size() + 4096));
      }
      ssize_t const got = ::read(fd, bytes.data() + filled, bytes.size() - filled);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) {
        ok = false;
        break;
      }
      if (got == 0) break;
      filled += static_cast<std::size_t>(got);
    }
    bytes.resize(filled);
    if (filled > kMaxFileBytes) ok = false;
  }
  ::close(fd);
  return ok;
}

}  // namespace nKRProductFiles
