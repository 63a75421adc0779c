// The parameter dictionary and its string form (format at the top of
// AssociativeArray.h).
#include "AssociativeArray.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <locale>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>
#include <string_view>
#include <typeinfo>
#include <unordered_map>

#include "AssociativeArrayExceptions.h"
#include "FrimException.h"
#include "FrimLifetime.h"
#include "KREnvironment.h"
#include "Lifetime.h"
#include "Log.dec.h"
#include "Uzend.h"
#include "rwcollstr.h"

namespace {

char const* const kSource = "AssociativeArray";

// Objects that more than one array holds (shallow copies share them), with
// the number of holders beyond the first: the last holder to let go destroys.
struct cSharedObjects {
  std::mutex lock;
  std::unordered_map<RWCollectable const*, std::size_t> extraHolders;
};

cSharedObjects& gShared() {
  static auto* shared = new cSharedObjects;  // never destroyed: arrays may end after static destruction
  return *shared;
}

// A value as text; a value that came in through the dictionary's own interface
// may be no string at all (or null), and then reads as absent.
RWCString* gAsString(RWCollectable* value) {
  if (value == nullptr) return nullptr;
  if (typeid(*value) == typeid(RWCollectableString)) return static_cast<RWCollectableString*>(value);
  return dynamic_cast<RWCollectableString*>(value);
}

void gSortDistinct(std::vector<RWCollectable*>& objects) {
  std::sort(objects.begin(), objects.end());
  objects.erase(std::unique(objects.begin(), objects.end()), objects.end());
  if (!objects.empty() && objects.front() == nullptr) objects.erase(objects.begin());
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
// False for what the reader refuses, whose parameter is then "Error".
bool gTryLoadInt(cInput const& in, std::size_t& pos, int& value) noexcept {
  if (pos >= in.size) return false;
  void const* found = std::memchr(in.text + pos, ' ', in.size - pos);
  if (found == nullptr) return false;
  std::size_t const length = std::size_t(static_cast<char const*>(found) - (in.text + pos));
  if (length < 1 || length > 18) return false;
  char buffer[20];
  std::memcpy(buffer, in.text + pos, length);
  buffer[length] = '\0';
  pos += length + 1;
  value = gAtoi(buffer);
  return value != 0 || (length == 1 && buffer[0] == '0');
}

int gLoadInt(cInput const& in, std::size_t& pos) {
  int value = 0;
  if (!gTryLoadInt(in, pos, value)) gSyntax("Error");
  return value;
}

// A token's bytes, in place; the position moves to one byte past them, a byte
// that is skipped without being looked at. False for what the reader refuses,
// with the parameter it raises with in fault.
bool gTryToken(cInput const& in, std::size_t& pos, std::string_view& token, std::string_view& fault) noexcept {
  if (pos >= in.size || in.text[pos] != '\'') {
    fault = pos < in.size ? std::string_view(in.text + pos, in.size - pos) : std::string_view();
    return false;
  }
  ++pos;
  int length = 0;
  // A length the input cannot honour would read outside it.
  if (!gTryLoadInt(in, pos, length) || length < 0 || std::size_t(length) > in.size - pos) {
    fault = "Error";
    return false;
  }
  token = std::string_view(in.text + pos, std::size_t(length));
  pos += std::size_t(length) + 1;
  return true;
}

struct cScratch {
  std::unique_ptr<char[]> bytes{new char[1025]};
  int capacity = 1024;
};

void gLoadString(cInput const& in, std::size_t& pos, cScratch& scratch, std::string& out) {
  std::size_t const header = pos;
  std::string_view token, fault;
  if (!gTryToken(in, pos, token, fault)) gSyntax(std::string(fault).c_str());
  int const length = static_cast<int>(token.size());
  try {
    if (length > scratch.capacity) {
      scratch.bytes.reset();
      scratch.bytes.reset(new char[std::size_t(length) + 1]);
      scratch.capacity = length;
    }
    out.clear();
    std::memcpy(scratch.bytes.get(), token.data(), token.size());
    scratch.bytes[length] = '\0';
    out.append(scratch.bytes.get(), token.size());
  } catch (...) {
    CORVANTH_LOG_FORMAT(nLog::nBasic::sErrorTag_, kSource, "gLoadString ...", length,
                        std::string_view(in.text + header, std::size_t(token.data() - (in.text + header))));
    throw;
  }
}

}  // namespace

// --- construction, copying and ownership ----------------------------------

CAssociativeArray::CAssociativeArray(int capacity) : RWHashDictionary(capacity > 0 ? std::size_t(capacity) : 0) {}

CAssociativeArray::CAssociativeArray(CAssociativeArray const& other)
    : RWHashDictionary(other), mStringForm(other.mStringForm) {
  fShareWith(other, {});
}

CAssociativeArray::CAssociativeArray(_typer_c<zc_move__deprecate> const&, CAssociativeArray* source)
    : RWHashDictionary(*source), mShares(source->mShares), mForeign(source->fMayAlias()) {
  // This array takes source's place as holder of the couples' objects; only
  // an object that source also keeps among what it gave up has two holders now.
  if (!source->mParked.empty()) {
    std::vector<RWCollectable*> parked = source->mParked;
    gSortDistinct(parked);
    std::vector<RWCollectable*> both;
    for (RWCollectable* object : fObjectsOfCouples())
      if (std::binary_search(parked.begin(), parked.end(), object)) both.push_back(object);
    if (!both.empty()) {
      std::lock_guard<std::mutex> const guard(gShared().lock);
      for (RWCollectable* object : both) ++gShared().extraHolders[object];
      mShares = source->mShares = true;
    }
  }
  source->RWHashDictionary::clear();
}

CAssociativeArray& CAssociativeArray::operator=(CAssociativeArray const& other) {
  if (this == &other) return *this;
  clear();
  RWHashDictionary::operator=(other);
  std::vector<RWCollectable*> held = mParked;
  gSortDistinct(held);
  fShareWith(other, held);
  mStringForm = other.mStringForm;
  return *this;
}

CAssociativeArray::~CAssociativeArray() {
  if (!mShares && !fMayAlias() && mParked.empty()) {
    // Every object here is this array's alone and stands in one place.
    RWHashDictionaryIterator it(*this);
    while (RWCollectable* key = it()) {
      delete it.value();
      delete key;
    }
    RWHashDictionary::clear();
    return;
  }
  std::vector<RWCollectable*> objects = fObjectsOfCouples();
  objects.insert(objects.end(), mParked.begin(), mParked.end());
  RWHashDictionary::clear();
  mParked.clear();
  fRelease(objects);
}

bool CAssociativeArray::fMayAlias() const noexcept { return mForeign || valueExchanges() != 0; }

std::vector<RWCollectable*> CAssociativeArray::fObjectsOfCouples() const {
  std::vector<RWCollectable*> objects;
  objects.reserve(2 * entries());
  RWHashDictionaryIterator it(const_cast<CAssociativeArray&>(*this));
  while (RWCollectable* key = it()) {
    objects.push_back(key);
    objects.push_back(it.value());
  }
  return objects;
}

// This array now holds other's objects too: each counts one holder more,
// except those it held already (sorted alreadyHeld).
void CAssociativeArray::fShareWith(CAssociativeArray const& other, std::vector<RWCollectable*> const& alreadyHeld) {
  mForeign = mForeign || other.fMayAlias();
  std::vector<RWCollectable*> objects = fObjectsOfCouples();
  gSortDistinct(objects);
  if (objects.empty()) return;
  mShares = other.mShares = true;
  std::lock_guard<std::mutex> const guard(gShared().lock);
  for (RWCollectable* object : objects)
    if (!std::binary_search(alreadyHeld.begin(), alreadyHeld.end(), object)) ++gShared().extraHolders[object];
}

// Lets go of each distinct object once, destroying those no other array holds.
void CAssociativeArray::fRelease(std::vector<RWCollectable*>& objects) const {
  gSortDistinct(objects);
  if (mShares) {
    std::lock_guard<std::mutex> const guard(gShared().lock);
    auto& extra = gShared().extraHolders;
    for (RWCollectable*& object : objects) {
      auto const found = extra.find(object);
      if (found == extra.end()) continue;
      if (--found->second == 0) extra.erase(found);
      object = nullptr;  // another array still holds it
    }
  }
  for (RWCollectable* object : objects) delete object;
}

// An object that leaves the couples: destroyed unless it may still stand
// elsewhere in this array, in which case it stays until the array ends.
void CAssociativeArray::fGiveUp(RWCollectable* object) {
  if (object == nullptr) return;
  if (fMayAlias()) {
    mParked.push_back(object);
    return;
  }
  std::vector<RWCollectable*> one{object};
  fRelease(one);
}

void CAssociativeArray::clear() {
  std::vector<RWCollectable*> objects = fObjectsOfCouples();
  mParked.insert(mParked.end(), objects.begin(), objects.end());
  RWHashDictionary::clear();
}

void CAssociativeArray::Reset() { clear(); }

void CAssociativeArray::clearAndDestroy() {
  std::vector<RWCollectable*> objects = fObjectsOfCouples();
  RWHashDictionary::clear();
  if (!mParked.empty()) {
    // What Reset gave up stays alive as long as the array.
    std::vector<RWCollectable*> parked = mParked;
    gSortDistinct(parked);
    std::erase_if(objects, [&](RWCollectable* o) { return std::binary_search(parked.begin(), parked.end(), o); });
  }
  fRelease(objects);
}

void CAssociativeArray::removeAndDestroy(RWCollectable const* key) {
  RWCollectableAssociation* association = removeAssociation(key);
  if (association == nullptr) return;
  RWCollectable* storedKey = association->key();
  RWCollectable* value = association->value();
  delete association;
  fGiveUp(value);
  if (storedKey != value) fGiveUp(storedKey);
}

RWCollectable* CAssociativeArray::insert(RWCollectable* element) {
  mForeign = true;
  return RWHashDictionary::insert(element);
}

RWCollectableAssociation* CAssociativeArray::newAssociation(RWCollectable* key, RWCollectable* value) const {
  mForeign = true;  // only the dictionary's own insertion asks for one
  return RWHashDictionary::newAssociation(key, value);
}

// --- adding ---------------------------------------------------------------

void CAssociativeArray::fAddBytes(char const* key, std::size_t keyLength, char const* value,
                                  std::size_t valueLength) {
  std::string_view const keyText(key, keyLength);
  std::unique_ptr<RWCollectableString> fresh(new RWCollectableString(value, valueLength));
  if (RWCollectableAssociation* existing = findAssociation(keyText)) {
    // The first key object stays; the old value goes.
    fGiveUp(existing->value(fresh.release()));
    return;
  }
  std::unique_ptr<RWCollectableString> keyObject(new RWCollectableString(keyText));
  std::unique_ptr<RWCollectableAssociation> pair(new RWCollectableAssociation(keyObject.get(), fresh.get()));
  if (RWHashDictionary::insert(pair.get()) == pair.get()) {
    pair.release();
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

RWCString* CAssociativeArray::fFind(char const* key) const { return gAsString(findValue(std::string_view(key))); }

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
  // Built aside in one pass, then put in place: the stored object stays the same.
  static char const kHex[] = "0123456789abcdef";
  std::string escaped;
  escaped.reserve(stored->size() + stored->size() / 8 + 8);
  for (unsigned char byte : *stored) {
    if (byte < 32 || byte > 126 || byte == '\\' || byte == '"') {
      char const code[3] = {'%', kHex[byte >> 4], kHex[byte & 15]};
      escaped.append(code, 3);
    } else if (byte == '%') {
      escaped.append("%%", 2);
    } else {
      escaped.push_back(char(byte));
    }
  }
  stored->assign(escaped);
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
      RWCString const* const keyString = gAsString(keyObject);
      std::string_view const keyText(keyString != nullptr ? keyString->c_str() : "");  // up to a zero byte
      gAppendTokenHeader(out, keyString != nullptr ? keyString->size() : 0);
      out.append(keyText);
      bool const omitted = omitBody && (keyText == "$RESPONSEBODY" || (omitProxyPost && keyText == "$PROXYPOSTDATA"));
      if (omitted) {
        out.append(" '0 ", 4);
      } else {
        RWCString const* const value = gAsString(it.value());
        std::string_view const bytes = value != nullptr ? std::string_view(*value) : std::string_view();
        gAppendTokenHeader(out, bytes.size());
        out.append(bytes);
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
  fRead(text, size, length);
}

// The reader proper: size bytes from text; reportedLength goes to the report of a failure only.
void CAssociativeArray::fRead(char const* text, std::size_t size, int reportedLength) {
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
    CORVANTH_LOG(nLog::nBasic::sErrorTag_, kSource, reportedLength << '\t' << whole.c_str());
    throw CIllegalAssoSyntaxException(whole.c_str());
  }
}

void CAssociativeArray::FromStringRef(RWCString const& text) { FromString(text.c_str(), static_cast<int>(text.size())); }
void CAssociativeArray::FromStringZ1(RWCString const& text) { FromString(text.c_str(), static_cast<int>(text.size())); }
void CAssociativeArray::FromStringZ1(std::string const& text) { FromString(text.c_str(), static_cast<int>(text.size())); }
// These end at the zero terminator; the 14 reaches nothing but the report of a failed read.
void CAssociativeArray::FromStringX2_deprecate(char const* text) {
  fRead(text, text != nullptr ? std::strlen(text) : 0, 14);
}
void CAssociativeArray::FromStringZTS(char const* text) { fRead(text, text != nullptr ? std::strlen(text) : 0, 14); }

// --- text conversion at the border ------------------------------------------
//
// The rewriters walk a text as the reader does; a text that does not read as a
// form is a leaf and is converted whole. The reference walk finds a leaf by the
// reader's syntax exception, one per leaf value; here the reader's checks give
// the same fault without raising, and the trace statement that carries the
// exception's text is still written, the exception being built only when that
// statement is on. The walk keeps its own stack of levels, so nesting is
// bounded by the input and not by the thread's stack.

namespace {

char const* const kModeKey = "CorvanthAnsiConversion_patch";

int gCorvanthAnsiConversionInit__patch() {
  try {
    MXEnvContainerClass container;
    int handle = 0;
    nEnvSettings::gFileInitTable(container, "kestrun.ini", handle);
    char const* const text = nEnvSettings::gGetPropertyStream(handle, kModeKey);
    int mode = 0;
    if (text != nullptr) {
      std::istringstream in(text);
      in.imbue(std::locale::classic());
      if (!(in >> mode)) mode = 0;  // no number: no conversion
    }
    return mode;
  } catch (std::exception const& error) {
    CORVANTH_LOG(nLog::nBasic::sErrorTag_, kSource, error.what());
  } catch (...) {
    CORVANTH_LOG(nLog::nBasic::sErrorTag_, kSource);
  }
  return 0;
}

// The mode's holder, noted on the configuration board at load. Never
// destroyed, so that a conversion during static destruction still finds it.
struct cConversionModeNote {
  nLifetime_sho::ecNoteHolderSynch<int, &nMainLifetime_sho::guScope_> holder{&gCorvanthAnsiConversionInit__patch};
  cConversionModeNote() { nMainLifetime_sho::guConfigurationBoard_()->fAdd(holder); }
};

cConversionModeNote& gConversionModeNote() {
  static auto* note = new cConversionModeNote;
  return *note;
}
[[maybe_unused]] cConversionModeNote const& sConversionModeAtLoad = gConversionModeNote();

// Buffers of a rewrite's leaf conversions, reused from leaf to leaf.
struct cLeafBuffers {
  std::vector<char16_t> wide;
  std::vector<char> narrow;
};

// A leaf as the rewriters convert it: the n bytes before the zero at text[n],
// with that terminator, through UTF-16, and the result up to its first zero
// byte. One pass into room for four bytes per unit, which holds the longest
// character of any code page; the size is asked only if that did not fit.
void gConvertLeafInto(unsigned sourceCodePage, unsigned targetCodePage, char const* text, std::size_t n,
                      cLeafBuffers& buffers, std::string& out) {
  out.clear();
  if (n >= std::size_t(std::numeric_limits<int>::max() / 4)) return;
  int const bytes = static_cast<int>(n) + 1;
  if (buffers.wide.size() < std::size_t(bytes)) buffers.wide.resize(std::size_t(bytes));
  int const units = UL_MultiByteToWideChar(sourceCodePage, 0, text, bytes, buffers.wide.data(), bytes, 0, 0);
  if (units <= 0) return;
  std::size_t room = std::size_t(units) * 4;
  if (buffers.narrow.size() < room) buffers.narrow.resize(room);
  int written = UL_WideCharToMultiByte(targetCodePage, 0, buffers.wide.data(), units, buffers.narrow.data(),
                                       static_cast<int>(room), 0, 0);
  if (written <= 0) {
    int const needed = UL_WideCharToMultiByte(targetCodePage, 0, buffers.wide.data(), units, nullptr, 0, 0, 0);
    if (needed <= 0) return;
    room = std::size_t(needed);
    if (buffers.narrow.size() < room) buffers.narrow.resize(room);
    written = UL_WideCharToMultiByte(targetCodePage, 0, buffers.wide.data(), units, buffers.narrow.data(), needed,
                                     0, 0);
    if (written <= 0) return;
  }
  char const* const start = buffers.narrow.data();
  out.assign(start, ::strnlen(start, std::size_t(written)));
}

std::string_view gUpToZero(std::string_view text) { return text.substr(0, ::strnlen(text.data(), text.size())); }

int gClampedInt(long long value) {
  return static_cast<int>(std::clamp<long long>(value, std::numeric_limits<int>::min(),
                                                std::numeric_limits<int>::max()));
}

// One rewrite: mended false is gConvertX1Internal, true gConvertX1Internal_patch.
class cRewrite {
 public:
  cRewrite(bool mended, unsigned sourceCodePage, unsigned targetCodePage, char const* whole, int wholeLength)
      : mMended(mended), mSource(sourceCodePage), mTarget(targetCodePage), mWhole(whole != nullptr ? whole : ""),
        mWholeLength(wholeLength) {
    std::size_t const terminated = std::strlen(mWhole);
    mWholeSize = wholeLength > 0 && std::size_t(wholeLength) > terminated ? std::size_t(wholeLength) : terminated;
  }

  // text holds size bytes, and a zero byte at text[size] or before it.
  void fRun(char const* text, std::size_t size, int length, int offset, std::string& result) {
    fPush(text, size, length, offset);
    for (;;) {
      cLevel& level = *mLevels[mDepth - 1];
      if (!level.leaf && !level.complete) {
        fStep(level);
        continue;
      }
      if (mDepth == 1) {
        fFinish(level);
        result.swap(level.out);
        return;
      }
      // The value's conversion is its parent's work: what it raises makes the parent a leaf.
      cLevel& parent = *mLevels[mDepth - 2];
      --mDepth;
      try {
        fFinish(level);
        gAppendTokenHeader(parent.out, level.out.size());
        parent.out.append(mMended ? std::string_view(level.out) : gUpToZero(level.out));
      } catch (...) {
        fFailed(parent);
      }
    }
  }

 private:
  enum class tStage { eWalk, eKey, eValue };

  struct cLevel {
    char const* text = nullptr;
    std::size_t size = 0;
    int length = 0;
    int offset = 0;
    std::size_t pos = 0;
    int count = 0;
    int index = 0;
    bool leaf = false;
    bool complete = false;
    tStage stage = tStage::eWalk;
    std::string out, key, value;
  };

  void fPush(char const* text, std::size_t size, int length, int offset) {
    if (mDepth == mLevels.size()) mLevels.push_back(std::make_unique<cLevel>());
    cLevel& level = *mLevels[mDepth++];
    level.text = text;
    level.size = size;
    level.length = length;
    level.offset = offset;
    level.pos = 0;
    level.index = 0;
    level.leaf = level.complete = false;
    level.stage = tStage::eWalk;
    level.out.clear();
    try {
      cInput const in{text, size};
      if (!gTryLoadInt(in, level.pos, level.count)) return fFault(level, "Error");
      if (mMended) {
        if (level.count <= 0) return fFault(level, "Error");
        if (level.count < 0) {
          CORVANTH_LOG_FORMAT(nLog::nBasic::sErrorTag_, kSource, "Negative number of arguments: ", level.count,
                              " input : ", std::string_view(text, size));
        }
      }
      gAppendNumber(level.out, level.count);
    } catch (...) {
      fFailed(level);
    }
  }

  // One couple of the level: its key, and its value as a new level on top.
  void fStep(cLevel& level) {
    try {
      if (mMended ? level.index == level.count : level.index >= level.count) {
        level.out.push_back(' ');
        level.complete = true;
        return;
      }
      cInput const in{level.text, level.size};
      std::string_view token, fault;
      level.stage = tStage::eKey;
      if (!gTryToken(in, level.pos, token, fault)) return fFault(level, fault);
      level.key.assign(token);
      level.stage = tStage::eWalk;
      gAppendTokenHeader(level.out, level.key.size());
      level.out.append(mMended ? std::string_view(level.key) : gUpToZero(level.key));
      std::size_t const apostrophe = level.pos;
      level.stage = tStage::eValue;
      if (!gTryToken(in, level.pos, token, fault)) return fFault(level, fault);
      level.value.assign(token);
      level.stage = tStage::eWalk;
      ++level.index;
      // The first rewriter sees a value up to its first zero byte.
      std::size_t const size = mMended ? level.value.size() : std::strlen(level.value.c_str());
      fPush(level.value.c_str(), size, static_cast<int>(level.value.size()),
            gClampedInt(static_cast<long long>(level.offset) + static_cast<long long>(apostrophe)));
    } catch (...) {
      fFailed(level);
    }
  }

  void fFinish(cLevel& level) {
    if (level.leaf) {
      gConvertLeafInto(mSource, mTarget, level.text, ::strnlen(level.text, level.size), mBuffers, level.out);
    }
  }

  // The reader refused the text: it is a leaf, as the syntax exception would make it.
  void fFault(cLevel& level, std::string_view parameter) {
    std::string_view const name = mMended ? "gConvertX1Internal_patch" : "";
    fTraceSyntax(name, [&] { return CIllegalAssoSyntaxException(std::string(parameter).c_str()); });
    level.leaf = true;
  }

  template <class Make>
  void fTraceSyntax(std::string_view name, Make const& make) {
    if (mMended) {
      CORVANTH_LOG_FORMAT(nLog::nBasic::sTraceTag_, kSource, name, make().what());
    } else {
      CORVANTH_LOG(nLog::nBasic::sTraceTag_, kSource, make().what());
    }
  }

  // Inside a catch clause: logs what was raised and makes the level a leaf.
  void fFailed(cLevel& level) noexcept {
    level.leaf = true;
    try {
      throw;
    } catch (CIllegalAssoSyntaxException const& error) {
      fTraceSyntax("gConvertX1Internal_patch", [&]() -> CIllegalAssoSyntaxException const& { return error; });
    } catch (...) {
      try {
        fReportOther(level);
      } catch (...) {
      }
    }
  }

  void fReportOther(cLevel const& level) {
    if (!mMended) {
      try {
        throw;
      } catch (std::exception const& error) {
        CORVANTH_LOG(nLog::nBasic::sErrorTag_, kSource, error.what());
      } catch (...) {
        CORVANTH_LOG(nLog::nBasic::sErrorTag_, kSource);
      }
      return;
    }
    if (level.stage == tStage::eKey) {
      CORVANTH_LOG_FORMAT(nLog::nBasic::sErrorTag_, kSource, "gConvertX1Internal_patch gLoadString key", level.index,
                          std::string_view(level.key));
    } else if (level.stage == tStage::eValue) {
      CORVANTH_LOG_FORMAT(nLog::nBasic::sErrorTag_, kSource, "gConvertX1Internal_patch gLoadString value",
                          level.index, std::string_view(level.value));
    }
    std::string_view const text =
        level.length < 0 ? std::string_view("~~")
                         : std::string_view(level.text, std::min(std::size_t(level.length), level.size));
    std::size_t const wholeCut = mWholeLength >= 0 ? std::size_t(mWholeLength) : std::size_t(std::max(level.offset, 0));
    CORVANTH_LOG_FORMAT(nLog::nBasic::sErrorTag_, kSource, "gConvertX1Internal_patch X12", level.length,
                        mWholeLength, level.offset, text, std::string_view(mWhole, std::min(wholeCut, mWholeSize)));
    try {
      throw;
    } catch (n_debug::cBrokenModuleException const& error) {
      CORVANTH_LOG_FORMAT(nLog::nBasic::sErrorTag_, kSource, "gConvertX1Internal_patch n_debug::cBrokenModuleException",
                          error.fMessage().c_str());
    } catch (std::exception const& error) {
      CORVANTH_LOG_FORMAT(nLog::nBasic::sErrorTag_, kSource, "gConvertX1Internal_patch std::exception", error.what());
    } catch (...) {
      CORVANTH_LOG_FORMAT(nLog::nBasic::sErrorTag_, kSource, "gConvertX1Internal_patch ...");
    }
  }

  bool const mMended;
  unsigned const mSource;
  unsigned const mTarget;
  char const* const mWhole;
  int const mWholeLength;
  std::size_t mWholeSize = 0;
  std::vector<std::unique_ptr<cLevel>> mLevels;  // stable addresses: a level's text lives in its parent
  std::size_t mDepth = 0;
  cLeafBuffers mBuffers;
};

}  // namespace

int CAssociativeArray::gAnsiConversionMode() { return gConversionModeNote().holder.fGet(); }

int CAssociativeArray::gConvertLeaf(unsigned sourceCodePage, unsigned targetCodePage, char const* text, int length,
                                    char* target, int targetSize) {
  long long count = length;
  if (length == -1) count = text != nullptr ? static_cast<long long>(std::strlen(text)) + 1 : 0;
  // An absurd count fails in the allocator, which answers null here.
  std::size_t const bytes = count <= 0 ? 0
                            : std::size_t(count) > std::numeric_limits<std::size_t>::max() / sizeof(char16_t)
                                ? std::numeric_limits<std::size_t>::max()
                                : std::size_t(count) * sizeof(char16_t);
  std::unique_ptr<char16_t[]> wide(bytes != 0 ? new (std::nothrow) char16_t[bytes / sizeof(char16_t)] : nullptr);
  int const units = wide ? UL_MultiByteToWideChar(sourceCodePage, 0, text, length, wide.get(),
                                                  static_cast<int>(std::min<long long>(count, INT_MAX)), 0, 0)
                         : 0;
  return UL_WideCharToMultiByte(targetCodePage, 0, wide.get(), units, target, targetSize, 0, 0);
}

bool CAssociativeArray::gConvertX1Internal(unsigned sourceCodePage, unsigned targetCodePage, char const* text,
                                           RWCString& out) {
  if (text == nullptr) {
    out.clear();
    return false;
  }
  // Built aside: text may lie in out.
  std::string result;
  cRewrite(false, sourceCodePage, targetCodePage, text, -1).fRun(text, std::strlen(text), -1, 0, result);
  out.swap(result);
  return true;
}

bool CAssociativeArray::gConvertX1Internal_patch(unsigned sourceCodePage, unsigned targetCodePage, char const* text,
                                                 int length, RWCString& out, char const* whole, int wholeLength,
                                                 int offset) {
  if (text == nullptr) {
    out.clear();
    return false;
  }
  std::size_t size = std::strlen(text);
  if (length > 0 && std::size_t(length) > size) size = std::size_t(length);
  std::string result;
  cRewrite(true, sourceCodePage, targetCodePage, whole, wholeLength).fRun(text, size, length, offset, result);
  out.swap(result);
  return true;
}

bool CAssociativeArray::gConvertX1(int mode, unsigned sourceCodePage, unsigned targetCodePage, char const* text,
                                   int length, RWCString& out) {
  switch (mode) {
    case 1:
      return gConvertX1Internal(sourceCodePage, targetCodePage, text, out);
    case 2:
      return gConvertX1Internal_patch(sourceCodePage, targetCodePage, text, length, out, text, length, 0);
    default:
      CORVANTH_LOG(nLog::nBasic::sErrorTag_, kSource);
      return false;
  }
}

bool CAssociativeArray::ConvertX0(unsigned sourceCodePage, unsigned targetCodePage, char const* text, int length,
                                  RWCString& out) {
  int const mode = gAnsiConversionMode();
  if (mode != 0) return gConvertX1(mode, sourceCodePage, targetCodePage, text, length, out);
  // A negative length would copy past any text: the zero-terminated text is taken then.
  if (text == nullptr) {
    out.clear();
  } else {
    out.assign(text, length >= 0 ? std::size_t(length) : std::strlen(text));
  }
  return true;
}

bool CAssociativeArray::ConvertZ38(unsigned sourceCodePage, unsigned targetCodePage, char const* text,
                                   RWCString& out) {
  return gConvertX1(2, sourceCodePage, targetCodePage, text, -1, out);
}

void CAssociativeArray::FromStringConvert(unsigned sourceCodePage, unsigned targetCodePage, char const* text,
                                          int length) {
  int const mode = gAnsiConversionMode();
  if (mode == 0) return FromString(text, length);
  RWCString local;
  if (!gConvertX1(mode, sourceCodePage, targetCodePage, text, length, local)) {
    CORVANTH_LOG(nLog::nBasic::sErrorTag_, kSource);
  }
  FromString(local.c_str(), static_cast<int>(local.size()));
}
