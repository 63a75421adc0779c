// The parameter dictionary and its string form (format at the top of
// AssociativeArray.h).
#include "AssociativeArray.h"

#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "AssociativeArrayExceptions.h"
#include "Log.dec.h"
#include "rwcollstr.h"

namespace {

char const* const kSource = "AssociativeArray";

// A stored key or value: a string with a count of the arrays that hold it,
// so that shallow copies share it and the last holder destroys it.
class cHeldString final : public RWCollectableString {
 public:
  cHeldString(char const* data, std::size_t size) : RWCollectableString(data, size) {}
  void fHold() noexcept { mHolders.fetch_add(1, std::memory_order_relaxed); }
  void fRelease() noexcept {
    if (mHolders.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

 private:
  std::atomic<int> mHolders{1};
};

void gHold(RWCollectable* object) noexcept {
  if (auto* held = dynamic_cast<cHeldString*>(object)) held->fHold();
}

// Objects that came in through the dictionary's own interface are not
// counted; they are the array's alone.
void gRelease(RWCollectable* object) noexcept {
  if (object == nullptr) return;
  if (auto* held = dynamic_cast<cHeldString*>(object)) {
    held->fRelease();
  } else {
    delete object;
  }
}

struct cReleaser {
  void operator()(cHeldString* s) const noexcept { s->fRelease(); }
};
using tHeldPtr = std::unique_ptr<cHeldString, cReleaser>;

RWCString* gAsString(RWCollectable* value) {
  // Values are strings: everything that adds to an array stores cHeldString.
  return static_cast<RWCollectableString*>(value);
}

void gAppendNumber(std::string& out, long long value) {
  char buffer[24];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, result.ptr);
}

void gAppendTokenHeader(std::string& out, std::size_t length) {
  out.append(" '", 2);
  gAppendNumber(out, static_cast<long long>(static_cast<std::int32_t>(length)));
  out.push_back(' ');
}

// atoi as the C library has it: leading white space, a sign, digits up to the
// first byte that is none; the result taken to 32 bits.
std::int32_t gAtoi(char const* text) {
  while (*text == ' ' || (*text >= '\t' && *text <= '\r')) ++text;
  bool negative = false;
  if (*text == '+' || *text == '-') negative = *text++ == '-';
  std::uint64_t value = 0;
  for (int digits = 0; *text >= '0' && *text <= '9' && digits < 19; ++text, ++digits) {
    value = value * 10 + std::uint64_t(*text - '0');
  }
  if (negative) value = 0 - value;
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
}

std::string gKeyWithIndex(char const* name, int index) {
  std::string key(name != nullptr ? name : "");
  gAppendNumber(key, index);
  return key;
}

std::string gDoubleText(double value) {
  char buffer[80];
  int n = std::snprintf(buffer, sizeof buffer, "%.40e", value);
  return std::string(buffer, n > 0 ? std::size_t(n) : 0);
}

// --- the reader ------------------------------------------------------------

[[noreturn]] void gSyntax(char const* parameter) { throw CIllegalAssoSyntaxException(parameter); }

struct cInput {
  char const* text;
  std::size_t size;  // bytes that may be read
};

// A number that ends at the next blank; the position moves past that blank.
int gLoadInt(cInput const& in, std::size_t& pos) {
  if (pos >= in.size) gSyntax("Error");
  void const* found = std::memchr(in.text + pos, ' ', in.size - pos);
  if (found == nullptr) gSyntax("Error");
  std::size_t const length = std::size_t(static_cast<char const*>(found) - (in.text + pos));
  if (length < 1 || length > 18) gSyntax("Error");
  char buffer[20];
  std::memcpy(buffer, in.text + pos, length);
  buffer[length] = '\0';
  pos += length + 1;
  int const value = gAtoi(buffer);
  if (value == 0 && !(length == 1 && buffer[0] == '0')) gSyntax("Error");
  return value;
}

struct cScratch {
  std::unique_ptr<char[]> bytes{new char[1025]};
  int capacity = 1024;
};

// A token into out; the position moves to one byte past its content, a byte
// that is skipped without being looked at.
void gLoadString(cInput const& in, std::size_t& pos, cScratch& scratch, std::string& out) {
  if (pos >= in.size || in.text[pos] != '\'') {
    gSyntax(pos < in.size ? std::string(in.text + pos, in.size - pos).c_str() : "");
  }
  std::size_t const header = pos;
  ++pos;
  int const length = gLoadInt(in, pos);
  // A length the input cannot honour would read outside it.
  if (length < 0 || std::size_t(length) > in.size - pos) gSyntax("Error");
  try {
    if (length > scratch.capacity) {
      scratch.bytes.reset();
      scratch.bytes.reset(new char[std::size_t(length) + 1]);
      scratch.capacity = length;
    }
    out.clear();
    std::memcpy(scratch.bytes.get(), in.text + pos, std::size_t(length));
    scratch.bytes[length] = '\0';
    out.append(scratch.bytes.get(), std::size_t(length));
  } catch (...) {
    CORVANTH_LOG_FORMAT(nLog::nBasic::sErrorTag_, kSource, "gLoadString ...", length,
                        std::string_view(in.text + header, pos - header));
    throw;
  }
  pos += std::size_t(length) + 1;
}

}  // namespace

// --- construction and copying ---------------------------------------------

CAssociativeArray::CAssociativeArray(int capacity) : RWHashDictionary(capacity > 0 ? std::size_t(capacity) : 0) {}

CAssociativeArray::CAssociativeArray(CAssociativeArray const& other)
    : RWHashDictionary(other), mStringForm(other.mStringForm) {
  fHoldAll();
}

CAssociativeArray::CAssociativeArray(_typer_c<zc_move__deprecate> const&, CAssociativeArray* source)
    : RWHashDictionary(*source) {
  // The associations now here point at source's objects: source lets go of
  // them without a release, so the holders' counts stay as they are.
  source->RWHashDictionary::clear();
}

CAssociativeArray& CAssociativeArray::operator=(CAssociativeArray const& other) {
  if (this == &other) return *this;
  clear();
  RWHashDictionary::operator=(other);
  fHoldAll();
  mStringForm = other.mStringForm;
  return *this;
}

CAssociativeArray::~CAssociativeArray() {
  clearAndDestroy();
  fReleaseParked();
}

void CAssociativeArray::fHoldAll() {
  RWHashDictionaryIterator it(*this);
  while (RWCollectable* key = it()) {
    gHold(key);
    gHold(it.value());
  }
}

void CAssociativeArray::fReleaseParked() {
  for (RWCollectable* object : mParked) gRelease(object);
  mParked.clear();
}

void CAssociativeArray::clear() {
  // The objects stay readable until the next clear; only then are they let go.
  fReleaseParked();
  mParked.reserve(2 * entries());
  RWHashDictionaryIterator it(*this);
  while (RWCollectable* key = it()) {
    mParked.push_back(key);
    mParked.push_back(it.value());
  }
  RWHashDictionary::clear();
}

void CAssociativeArray::Reset() { clear(); }

void CAssociativeArray::clearAndDestroy() {
  RWHashDictionaryIterator it(*this);
  while (RWCollectable* key = it()) {
    RWCollectable* value = it.value();
    gRelease(key);
    if (value != key) gRelease(value);
  }
  RWHashDictionary::clear();
}

void CAssociativeArray::removeAndDestroy(RWCollectable const* key) {
  RWCollectableAssociation* association = removeAssociation(key);
  if (association == nullptr) return;
  RWCollectable* storedKey = association->key();
  RWCollectable* value = association->value();
  delete association;
  gRelease(value);
  if (storedKey != value) gRelease(storedKey);
}

// --- adding ---------------------------------------------------------------

void CAssociativeArray::fAddBytes(char const* key, std::size_t keyLength, char const* value,
                                  std::size_t valueLength) {
  tHeldPtr fresh(new cHeldString(value, valueLength));
  if (RWCollectableAssociation* existing = findAssociation(std::string_view(key, keyLength))) {
    // The first key object stays; the old value goes.
    gRelease(existing->value(fresh.release()));
    return;
  }
  tHeldPtr keyObject(new cHeldString(key, keyLength));
  if (insertKeyAndValue(keyObject.get(), fresh.get()) != nullptr) {
    keyObject.release();
    fresh.release();
  }
}

void CAssociativeArray::AddCouple(char const* key, char const* value) {
  fAddBytes(key, std::strlen(key), value != nullptr ? value : "", value != nullptr ? std::strlen(value) : 0);
}
void CAssociativeArray::AddCouple(char const* key, char const* value, int length) {
  fAddBytes(key, std::strlen(key), value, value != nullptr && length > 0 ? std::size_t(length) : 0);
}
void CAssociativeArray::AddCouple(char const* key, cStringCoeImpl const& value) {
  fAddBytes(key, std::strlen(key), value.fString().data(), value.fString().size());
}
void CAssociativeArray::AddCouple(char const* key, long value) {
  std::string text;
  gAppendNumber(text, static_cast<std::int32_t>(value));
  fAddBytes(key, std::strlen(key), text.data(), text.size());
}
void CAssociativeArray::AddCouple(char const* key, double value) {
  std::string text = gDoubleText(value);
  fAddBytes(key, std::strlen(key), text.data(), text.size());
}
void CAssociativeArray::AddArrayCouple(char const* name, char const* value, int index) {
  AddCouple(gKeyWithIndex(name, index).c_str(), value);
}
void CAssociativeArray::AddArrayCouple(char const* name, long value, int index) {
  AddCouple(gKeyWithIndex(name, index).c_str(), value);
}
void CAssociativeArray::AddArrayCouple(char const* name, double value, int index) {
  AddCouple(gKeyWithIndex(name, index).c_str(), value);
}

// --- reading --------------------------------------------------------------

RWCString* CAssociativeArray::fFind(char const* key) const {
  RWCollectable* value = findValue(std::string_view(key));
  return value != nullptr ? gAsString(value) : nullptr;
}

RWCString* CAssociativeArray::fFindOrRaise(char const* key) const {
  if (RWCString* value = fFind(key)) return value;
  throw CAssoKeyDoesNotExistException(key, ToString(false, false));
}

char const* CAssociativeArray::GetValueOfParameter(char const* key) const { return fFindOrRaise(key)->c_str(); }
char const* CAssociativeArray::GetValueOfParameter(char const* key, char const* defaultValue) const {
  RWCString* value = fFind(key);
  return value != nullptr ? value->c_str() : defaultValue;
}
void CAssociativeArray::GetValueOfParameter(char const* key, char const*& value, int& length) const {
  RWCString* stored = fFindOrRaise(key);
  value = stored->c_str();
  length = static_cast<int>(stored->size());
}
RWCString* CAssociativeArray::GetStringValueOfParameter(char const* key) const { return fFindOrRaise(key); }

RWCString* CAssociativeArray::GetValueOfParameterAndDecodeIf(char const* key, bool encode) const {
  RWCString* stored = fFindOrRaise(key);
  if (!encode) return stored;
  std::string const original = *stored;
  std::size_t write = 0;
  for (unsigned char byte : original) {
    if (byte < 32 || byte > 126 || byte == '\\' || byte == '"') {
      char escaped[4];
      std::snprintf(escaped, sizeof escaped, "%%%02x", byte);
      stored->replace(write, 1, escaped, 3);
      write += 3;
    } else if (byte == '%') {
      stored->insert(write, 1, '%');
      write += 2;
    } else {
      write += 1;
    }
  }
  return stored;
}

char const* CAssociativeArray::operator[](char const* key) const { return GetValueOfParameter(key); }

long CAssociativeArray::GetInt32ValueOfParameter(char const* key) const { return gAtoi(fFindOrRaise(key)->c_str()); }
long CAssociativeArray::GetInt32ValueOfParameter(char const* key, long defaultValue) const {
  RWCString* value = fFind(key);
  return value != nullptr ? gAtoi(value->c_str()) : defaultValue;
}
double CAssociativeArray::GetDoubleValueOfParameter(char const* key) const {
  return std::atof(fFindOrRaise(key)->c_str());
}
double CAssociativeArray::GetDoubleValueOfParameter(char const* key, double defaultValue) const {
  RWCString* value = fFind(key);
  return value != nullptr ? std::atof(value->c_str()) : defaultValue;
}
char const* CAssociativeArray::GetValueOfParameterArray(char const* name, int index) const {
  return GetValueOfParameter(gKeyWithIndex(name, index).c_str());
}
char const* CAssociativeArray::GetValueOfParameterArray(char const* name, int index, char const* defaultValue) const {
  return GetValueOfParameter(gKeyWithIndex(name, index).c_str(), defaultValue);
}
long CAssociativeArray::GetInt32ValueOfParameterArray(char const* name, int index) const {
  return GetInt32ValueOfParameter(gKeyWithIndex(name, index).c_str());
}
long CAssociativeArray::GetInt32ValueOfParameterArray(char const* name, int index, long defaultValue) const {
  return GetInt32ValueOfParameter(gKeyWithIndex(name, index).c_str(), defaultValue);
}
double CAssociativeArray::GetDoubleValueOfParameterArray(char const* name, int index) const {
  return GetDoubleValueOfParameter(gKeyWithIndex(name, index).c_str());
}
double CAssociativeArray::GetDoubleValueOfParameterArray(char const* name, int index, double defaultValue) const {
  return GetDoubleValueOfParameter(gKeyWithIndex(name, index).c_str(), defaultValue);
}
bool CAssociativeArray::KeyExists(char const* key) const { return fFind(key) != nullptr; }

// --- the string form: writer ----------------------------------------------

void CAssociativeArray::ToStringInternal(bool omitBody, bool omitProxyPost) const {
  // Built in place: the cached text keeps its capacity from one call to the next.
  std::string& out = mStringForm;
  out.clear();
  if (entries() != 0) {
    gAppendNumber(out, static_cast<std::int32_t>(entries()));
    RWHashDictionaryIterator it(const_cast<CAssociativeArray&>(*this));
    while (RWCollectable* keyObject = it()) {
      RWCString const& key = *gAsString(keyObject);
      std::string_view const keyText(key.c_str());  // up to a zero byte, of which keys have none
      gAppendTokenHeader(out, key.size());
      out.append(keyText);
      bool const omitted = omitBody && (keyText == "$RESPONSEBODY" || (omitProxyPost && keyText == "$PROXYPOSTDATA"));
      if (omitted) {
        out.append(" '0 ", 4);
      } else {
        RWCString const& value = *gAsString(it.value());
        gAppendTokenHeader(out, value.size());
        out.append(value.data(), value.size());
      }
    }
  }
  out.push_back(' ');
}

char const* CAssociativeArray::ToString(bool omitBody, bool omitProxyPost) const {
  ToStringInternal(omitBody, omitProxyPost);
  return mStringForm.c_str();
}
void CAssociativeArray::ToString(char const*& text, int& length, bool omitBody, bool omitProxyPost) const {
  ToStringInternal(omitBody, omitProxyPost);
  text = mStringForm.c_str();
  length = static_cast<int>(mStringForm.size());
}
RWCString const& CAssociativeArray::ToStringRef(bool omitBody, bool omitProxyPost) const {
  ToStringInternal(omitBody, omitProxyPost);
  return mStringForm;
}

// --- the string form: reader ----------------------------------------------

void CAssociativeArray::FromString(char const* text, int length) {
  std::size_t size = text != nullptr ? std::strlen(text) : 0;
  if (length > 0 && std::size_t(length) > size) size = std::size_t(length);
  cInput const in{text != nullptr ? text : "", size};
  try {
    try {
      cScratch scratch;
      std::string key, value;
      std::size_t pos = 0;
      int const count = gLoadInt(in, pos);
      for (int i = 0; i < count; ++i) {
        gLoadString(in, pos, scratch, key);
        gLoadString(in, pos, scratch, value);
        // The key goes in as zero-terminated text, the value whole.
        fAddBytes(key.c_str(), std::strlen(key.c_str()), value.data(), value.size());
      }
    } catch (std::exception const& error) {
      CORVANTH_LOG(nLog::nBasic::sErrorTag_, kSource, error.what());
      throw;
    } catch (...) {
      CORVANTH_LOG(nLog::nBasic::sErrorTag_, kSource, "Unexpected error in CAssociativeArray::FromString");
      throw;
    }
  } catch (...) {
    std::string const whole(in.text, in.size);
    CORVANTH_LOG(nLog::nBasic::sErrorTag_, kSource, length << '\t' << whole.c_str());
    throw CIllegalAssoSyntaxException(whole.c_str());
  }
}

void CAssociativeArray::FromStringRef(RWCString const& text) { FromString(text.c_str(), static_cast<int>(text.size())); }
void CAssociativeArray::FromStringZ1(RWCString const& text) { FromString(text.c_str(), static_cast<int>(text.size())); }
void CAssociativeArray::FromStringZ1(std::string const& text) { FromString(text.c_str(), static_cast<int>(text.size())); }
// The 14 reaches nothing but the report of a failed read.
void CAssociativeArray::FromStringX2_deprecate(char const* text) { FromString(text, 14); }
void CAssociativeArray::FromStringZTS(char const* text) { FromString(text, 14); }
