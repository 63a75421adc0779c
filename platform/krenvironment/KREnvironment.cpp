// Settings and paths (the file rules and lifetimes are told in KREnvironment.h).
#include "KREnvironment.h"

#include <ini.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "internal/KRProductFiles.h"

namespace {

struct cTable {
  std::string path;
  std::unordered_map<std::string, std::string> values;
};

// Tables are only ever added, so an element's address and texts hold for good.
struct cRegistry {
  std::mutex mutex;
  std::deque<cTable> tables;
  std::map<std::string, int> handlesBySource;  // path, NUL, bytes -> handle
};

cRegistry& gRegistry() {
  static auto* registry = new cRegistry;  // never destroyed: handles outlive static destruction
  return *registry;
}

cTable const* gTable(int handle) {
  auto& registry = gRegistry();
  std::lock_guard lock(registry.mutex);
  if (handle <= 0 || static_cast<std::size_t>(handle) > registry.tables.size()) return nullptr;
  return &registry.tables[static_cast<std::size_t>(handle) - 1];
}

// libinih's fgets-style reader over bytes in memory. It hands a line that does
// not fit libinih's buffer, or that holds a NUL byte, over as an empty line, so
// the line is dropped whole and line numbers stay right.
struct cLineReader {
  std::string_view rest;
};

char* gReadLine(char* buffer, int size, void* stream) {
  auto& reader = *static_cast<cLineReader*>(stream);
  if (reader.rest.empty() || size < 2) return nullptr;
  std::size_t const end = reader.rest.find('\n');
  std::size_t const take = end == std::string_view::npos ? reader.rest.size() : end + 1;
  std::string_view const line = reader.rest.substr(0, take);
  reader.rest.remove_prefix(take);
  if (line.size() > static_cast<std::size_t>(size) - 1 || line.find('\0') != std::string_view::npos) {
    std::memcpy(buffer, "\n", 2);
    return buffer;
  }
  std::memcpy(buffer, line.data(), line.size());
  buffer[line.size()] = '\0';
  return buffer;
}

int gKeepFirst(void* user, char const*, char const* name, char const* value) {
  try {
    static_cast<cTable*>(user)->values.emplace(name, value);
    return 1;
  } catch (...) {  // nothing may unwind through libinih's C frames
    return 0;
  }
}

int gLoad(char const* fileName) {
  cTable table;
  std::string bytes;
  for (std::string const& path : nKRProductFiles::gCandidatePaths("config", fileName)) {
    if (nKRProductFiles::gReadFile(path, bytes)) {
      table.path = path;
      break;
    }
    bytes.clear();
  }
  std::string source = table.path;
  source += '\0';
  source += bytes;
  auto& registry = gRegistry();
  {
    std::lock_guard lock(registry.mutex);
    if (auto found = registry.handlesBySource.find(source); found != registry.handlesBySource.end())
      return found->second;
  }
  if (!table.path.empty()) {
    cLineReader reader{bytes};
    ::ini_parse_stream(&gReadLine, &reader, &gKeepFirst, &table);  // lines in error are skipped
  }
  std::lock_guard lock(registry.mutex);
  // Another thread may have loaded the same bytes meanwhile: one handle for both.
  auto [found, added] = registry.handlesBySource.emplace(std::move(source), 0);
  if (added) {
    registry.tables.push_back(std::move(table));
    found->second = static_cast<int>(registry.tables.size());
  }
  return found->second;
}

std::string gDirectoryOfProgram() {
  std::string path(4096, '\0');
  ssize_t const length = ::readlink("/proc/self/exe", path.data(), path.size());
  if (length <= 0 || static_cast<std::size_t>(length) >= path.size()) return ".";
  path.resize(static_cast<std::size_t>(length));
  std::size_t const slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string gBinaryDirectory() {
  std::string directory;
  if (char const* bin = std::getenv("MX_BIN"); bin != nullptr && *bin != '\0') {
    directory = bin;
  } else if (char const* home = std::getenv("KESTRUN_HOME"); home != nullptr && *home != '\0') {
    directory = std::string(home) + "/bin";
  } else {
    directory = gDirectoryOfProgram();
  }
  // The templates put their own separator after the placeholder.
  while (directory.size() > 1 && (directory.back() == '/' || directory.back() == '\\')) directory.pop_back();
  return directory;
}

bool gIsSeparator(char c) { return c == '/' || c == '\\'; }

}  // namespace

struct MXEnvContainerClass::cState {
  std::deque<std::string> texts;  // a deque never moves what it holds
  int settingsHandle = 0;

  char* fKeep(std::string text) { return texts.emplace_back(std::move(text)).data(); }
};

MXEnvContainerClass::MXEnvContainerClass() : mState(std::make_unique<cState>()) {}
MXEnvContainerClass::~MXEnvContainerClass() = default;

char const* MXEnvContainerClass::fLookup(char const* key, tSource& source) {
  source = tSource::eNone;
  if (key == nullptr) return nullptr;
  if (char const* value = std::getenv(key); value != nullptr) {
    source = tSource::eEnvironment;
    return mState->fKeep(value);
  }
  if (mState->settingsHandle == 0) nEnvSettings::gFileInitTable(*this, nEnvSettings::kSettingsFile, mState->settingsHandle);
  char const* value = nEnvSettings::gFindProperty(mState->settingsHandle, key);
  if (value != nullptr) source = tSource::eFile;
  return value;
}

char const* MXEnvContainerClass::MXEGetEnv(char const* key) {
  tSource source;
  return fLookup(key, source);
}

char const* MXEnvContainerClass::MXERuntimeResolve(char const* templ) {
  if (templ == nullptr) return nullptr;
  static constexpr std::string_view kPlaceholder = "#(MX_BIN)";
  std::string_view rest(templ);
  std::string resolved;
  std::string binary;
  for (std::size_t at; (at = rest.find(kPlaceholder)) != std::string_view::npos;) {
    if (binary.empty()) binary = gBinaryDirectory();
    resolved.append(rest.substr(0, at)).append(binary);
    rest.remove_prefix(at + kPlaceholder.size());
  }
  resolved.append(rest);
  for (char& c : resolved)
    if (c == '\\') c = '/';
  return mState->fKeep(std::move(resolved));
}

void MXEnvContainerClass::reset() { mState->settingsHandle = 0; }

void MXEnvContainerClass::MXPSplitPath(char const* path, char** directory, char** name, char** extension) {
  std::string_view const whole(path != nullptr ? path : "");
  std::size_t nameStart = 0;
  if (whole.size() >= 2 && whole[1] == ':' &&
      ((whole[0] >= 'A' && whole[0] <= 'Z') || (whole[0] >= 'a' && whole[0] <= 'z')))
    nameStart = 2;
  for (std::size_t i = nameStart; i < whole.size(); ++i)
    if (gIsSeparator(whole[i])) nameStart = i + 1;
  std::string_view const last = whole.substr(nameStart);
  std::size_t dot = last.rfind('.');
  if (dot == 0 || last == "..") dot = std::string_view::npos;
  char* const directoryText = mState->fKeep(std::string(whole.substr(0, nameStart)));
  char* const nameText = mState->fKeep(std::string(last.substr(0, dot)));
  char* const extensionText =
      mState->fKeep(dot == std::string_view::npos ? std::string() : std::string(last.substr(dot + 1)));
  if (directory != nullptr) *directory = directoryText;
  if (name != nullptr) *name = nameText;
  if (extension != nullptr) *extension = extensionText;
}

namespace nEnvSettings {

void gFileInitTable(MXEnvContainerClass&, char const* fileName, int& handle) { handle = gLoad(fileName); }

char const* gFindProperty(int handle, char const* key) {
  cTable const* table = gTable(handle);
  if (table == nullptr || key == nullptr) return nullptr;
  auto const found = table->values.find(key);
  return found == table->values.end() ? nullptr : found->second.c_str();
}

char const* gGetPropertyStream(int handle, char const* key) {
  char const* value = gFindProperty(handle, key);
  return value != nullptr ? value : "";
}

char const* gTablePath(int handle) {
  cTable const* table = gTable(handle);
  return table != nullptr ? table->path.c_str() : "";
}

}  // namespace nEnvSettings
