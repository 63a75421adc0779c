// Our Linux build of the error text library: the reader of ".frm" files (the
// format is told in KRErrorsDictionary.h), the table of loaded texts behind
// KRErrorsDictionary, and the product exceptions that take their text from it.
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "KRErrorException.h"
#include "KRErrorsDictionary.h"
#include "KRLogMessage.h"
#include "internal/KRProductFiles.h"

namespace {

constexpr std::size_t kMaxLineBytes = 65536;

using tTexts = std::map<std::int32_t, std::string>;

// A key is an optional "-" and 1 to 10 digits that fit in 32 bits.
bool gParseKey(std::string_view digits, std::int32_t& key) {
  bool const negative = !digits.empty() && digits.front() == '-';
  if (negative) digits.remove_prefix(1);
  if (digits.empty() || digits.size() > 10) return false;
  std::int64_t value = 0;
  for (char const c : digits) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  if (negative) value = -value;
  if (value < INT32_MIN || value > INT32_MAX) return false;
  key = static_cast<std::int32_t>(value);
  return true;
}

void gParseTexts(std::string_view bytes, tTexts& texts) {
  if (bytes.substr(0, 3) == "\xEF\xBB\xBF") bytes.remove_prefix(3);
  while (!bytes.empty()) {
    std::size_t const end = bytes.find('\n');
    std::string_view line = bytes.substr(0, end);
    bytes.remove_prefix(end == std::string_view::npos ? bytes.size() : end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.empty() || line.front() == '#' || line.size() > kMaxLineBytes) continue;
    std::size_t const tab = line.find('\t');
    std::int32_t key = 0;
    if (tab == std::string_view::npos || !gParseKey(line.substr(0, tab), key)) continue;
    texts.emplace(key, std::string(line.substr(tab + 1)));  // the first line of a key stays
  }
}

std::shared_ptr<tTexts const> gLoad(char const* fileName) {
  for (std::string const& path : nKRProductFiles::gCandidatePaths("dat", fileName)) {
    std::string bytes;
    if (!nKRProductFiles::gReadFile(path, bytes)) continue;
    auto texts = std::make_shared<tTexts>();
    gParseTexts(bytes, *texts);
    return texts;
  }
  return nullptr;
}

// The texts behind the dictionaries' handles; a handle is a slot index + 1.
struct cTextTable {
  std::mutex mutex;
  struct tSlot {
    std::shared_ptr<tTexts const> texts;
    std::int64_t holders = 0;
  };
  std::vector<tSlot> slots;
  std::vector<std::size_t> freeSlots;
};

cTextTable& gTable() {
  static cTextTable table;
  return table;
}

std::int32_t gAddHolder(std::int32_t handle) {
  if (handle == 0) return 0;
  auto& table = gTable();
  std::lock_guard lock(table.mutex);
  ++table.slots[static_cast<std::size_t>(handle - 1)].holders;
  return handle;
}

void gDropHolder(std::int32_t handle) {
  if (handle == 0) return;
  auto& table = gTable();
  std::shared_ptr<tTexts const> released;  // freed outside the lock
  std::lock_guard lock(table.mutex);
  auto& slot = table.slots[static_cast<std::size_t>(handle - 1)];
  if (--slot.holders == 0) {
    released.swap(slot.texts);
    table.freeSlots.push_back(static_cast<std::size_t>(handle - 1));
  }
}

std::string gQuotedList(std::string_view const* parameters, std::size_t count) {
  if (count == 0) return "none";
  std::string list;
  for (std::size_t i = 0; i < count; ++i) {
    if (i != 0) list += ", ";
    list += '"';
    list += parameters[i];
    list += '"';
  }
  return list;
}

}  // namespace

// --- KRErrorsDictionary --------------------------------------------------------

KRErrorsDictionary::KRErrorsDictionary(char const* fileName) {
  std::shared_ptr<tTexts const> texts = gLoad(fileName);
  if (texts == nullptr) return;
  auto& table = gTable();
  std::lock_guard lock(table.mutex);
  std::size_t index;
  if (!table.freeSlots.empty()) {
    index = table.freeSlots.back();
    table.freeSlots.pop_back();
  } else {
    if (table.slots.size() >= static_cast<std::size_t>(INT32_MAX)) return;
    index = table.slots.size();
    table.slots.emplace_back();
  }
  table.slots[index].texts = std::move(texts);
  table.slots[index].holders = 1;
  mHandle = static_cast<std::int32_t>(index + 1);
}

KRErrorsDictionary::KRErrorsDictionary(KRErrorsDictionary const& other)
    : mHandle(gAddHolder(other.mHandle)) {}

KRErrorsDictionary& KRErrorsDictionary::operator=(KRErrorsDictionary const& other) {
  if (mHandle != other.mHandle) {
    std::int32_t const handle = gAddHolder(other.mHandle);
    gDropHolder(mHandle);
    mHandle = handle;
  }
  return *this;
}

KRErrorsDictionary::~KRErrorsDictionary() { gDropHolder(mHandle); }

bool KRErrorsDictionary::GetText(int key, RWCString& text) const {
  if (mHandle == 0) return false;
  std::shared_ptr<tTexts const> texts;
  {
    auto& table = gTable();
    std::lock_guard lock(table.mutex);
    texts = table.slots[static_cast<std::size_t>(mHandle - 1)].texts;
  }
  auto const found = texts->find(static_cast<std::int32_t>(key));
  if (found == texts->end()) return false;
  text = found->second;
  return true;
}

RWCString KRFormatErrorText(std::string_view text, std::string_view const* parameters,
                            std::size_t count) {
  RWCString out;
  out.reserve(text.size() + 64);
  std::size_t next = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 1 < text.size()) {
      if (text[i + 1] == 's') {
        if (next < count) out += parameters[next++];
        ++i;
        continue;
      }
      if (text[i + 1] == '%') {
        out += '%';
        ++i;
        continue;
      }
    }
    out += text[i];
  }
  if (next < count) {
    out += " (";
    out += gQuotedList(parameters + next, count - next);
    out += ')';
  }
  return out;
}

// --- exceptions -------------------------------------------------------------

iKRException::~iKRException() = default;
char const* iKRException::what() const noexcept { return fGetErrorMsg(); }

namespace {

// The dictionaries that exceptions take their texts from: each file is read
// once per process (per product home, which tests change), not per exception.
// A file not found is looked for again next time.
KRErrorsDictionary gExceptionTexts(char const* fileName) {
  static std::mutex mutex;
  static auto* cache = new std::map<std::string, KRErrorsDictionary>();  // never freed: used up to exit
  if (!nKRProductFiles::gPlainFileName(fileName)) return KRErrorsDictionary();
  char const* home = std::getenv("KESTRUN_HOME");
  std::string key = std::string(home != nullptr ? home : "") + '\0' + fileName;
  {
    std::lock_guard lock(mutex);
    if (auto found = cache->find(key); found != cache->end()) return found->second;
  }
  KRErrorsDictionary dictionary(fileName);
  if (dictionary.IsLoaded()) {
    std::lock_guard lock(mutex);
    constexpr std::size_t kMaxFiles = 256;
    if (cache->size() < kMaxFiles) cache->emplace(std::move(key), dictionary);
  }
  return dictionary;
}

}  // namespace

KRErrorException::KRErrorException(tFormat, char const* fileName, int key,
                                   std::string_view const* parameters, std::size_t count)
    : mNumber(static_cast<std::int32_t>(key)) {
  std::string const name = fileName != nullptr ? fileName : "(null)";
  KRErrorsDictionary const dictionary = gExceptionTexts(fileName);
  RWCString text;
  if (!dictionary.IsLoaded()) {
    mMessage = "Error text file \"" + name + "\" not found; key " + std::to_string(key) +
               ", parameters: " + gQuotedList(parameters, count);
  } else if (!dictionary.GetText(key, text)) {
    mMessage = "No text for key " + std::to_string(key) + " in error text file \"" + name +
               "\"; parameters: " + gQuotedList(parameters, count);
  } else {
    mMessage = KRFormatErrorText(text, parameters, count);
  }
}

KRErrorException::~KRErrorException() = default;

char const* KRErrorException::vGetErrorMsg_iKRException() const noexcept {
  return mMessage.c_str();
}

// No stack is taken at the raising on this platform.
bool KRErrorException::vStackTrace_iKRException(RWCString&) const { return false; }

// --- log message --------------------------------------------------------------

KRLogMessage::KRLogMessage() = default;
KRLogMessage::KRLogMessage(KRLogMessage const&) {}
KRLogMessage& KRLogMessage::operator=(KRLogMessage const&) { return *this; }
KRLogMessage::~KRLogMessage() = default;
