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

// " '<length> " at to, which has room for 15 bytes; gives the end.
char* gWriteTokenHeader(char* to, std::size_t length) {
  *to++ = ' ';
  *to++ = '\'';
  to = std::to_chars(to, to + 11, static_cast<std::int32_t>(length)).ptr;
  *to++ = ' ';
  return to;
}

void gAppendTokenHeader(std::string& out, std::size_t length) {
  char header[16];
  out.append(header, gWriteTokenHeader(header, length));
}

// atoi as the C library has it, on [text, end) or up to a zero byte: leading
// white space, a sign, digits up to the first byte that is none; the result
// taken to 32 bits.
std::int32_t gAtoi(char const* text, char const* end) {
  auto const space = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
  while (text != end && space(*text)) ++text;
  bool negative = false;
  if (text != end && (*text == '+' || *text == '-')) negative = *text++ == '-';
  std::uint64_t value = 0;
  for (int digits = 0; text != end && *text >= '0' && *text <= '9' && digits < 19; ++text, ++digits) {
    value = value * 10 + std::uint64_t(*text - '0');
  }
  if (negative) value = 0 - value;
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
}
std::int32_t gAtoi(char const* text) { return gAtoi(text, nullptr); }

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
// False for what the reader refuses, whose parameter is then "Error". The
// field before the blank must be 1 to 18 bytes long, so no more than 19
// bytes are looked at.
bool gTryLoadInt(cInput const& in, std::size_t& pos, int& value) noexcept {
  if (pos >= in.size) return false;
  char const* const field = in.text + pos;
  std::size_t const limit = std::min<std::size_t>(in.size - pos, 19);
  std::size_t length = 0;
  std::uint64_t digits = 0;  // the field's value while it holds digits only
  bool plain = true;
  for (; length < limit && field[length] != ' '; ++length) {
    unsigned const digit = static_cast<unsigned char>(field[length]) - unsigned('0');
    plain = plain && digit < 10;
    digits = digits * 10 + digit;
  }
  if (length == limit || length == 0) return false;
  pos += length + 1;
  value = plain ? static_cast<std::int32_t>(static_cast<std::uint32_t>(digits)) : gAtoi(field, field + length);
  return value != 0 || (length == 1 && field[0] == '0');
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
// form is a leaf and is converted whole. Telling a leaf by the reader's syntax
// exception would cost one exception per leaf value: here the reader's checks
// give the same fault without raising, and the trace statement with the
// exception's text is still written, the exception being built only when
// that statement is on. The walk keeps its own stack of levels, so nesting is
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

// The size of what gAppendTokenHeader writes.
std::size_t gTokenHeaderSize(std::size_t length) {
  std::int32_t const number = static_cast<std::int32_t>(length);
  std::uint32_t rest = number < 0 ? 0u - static_cast<std::uint32_t>(number) : static_cast<std::uint32_t>(number);
  std::size_t digits = number < 0 ? 2 : 1;
  while (rest >= 10) {
    rest /= 10;
    ++digits;
  }
  return 3 + digits;
}

std::string_view gUpToZero(std::string_view text) { return text.substr(0, ::strnlen(text.data(), text.size())); }

int gClampedInt(long long value) {
  return static_cast<int>(std::clamp<long long>(value, std::numeric_limits<int>::min(),
                                                std::numeric_limits<int>::max()));
}

// One rewrite: mended false is gConvertX1Internal, true gConvertX1Internal_patch.
// The walk lays the result down as pieces: literal bytes, leaves, and the
// bounds of each value, whose length is known only once its leaves are
// converted. All leaves are then converted together, each with its
// terminator, in one call each way, and the result is put together. That
// gives what converting leaf by leaf gives, since a zero byte stands alone in
// every code page but the UTF-16 ones, which are converted leaf by leaf.
class cRewrite {
 public:
  cRewrite(bool mended, unsigned sourceCodePage, unsigned targetCodePage, char const* whole, int wholeLength)
      : mMended(mended), mSource(sourceCodePage), mTarget(targetCodePage), mWhole(whole != nullptr ? whole : ""),
        mWholeLength(wholeLength), mStore(fTakeStore()), mLevels(mStore.levels), mPieces(mStore.pieces),
        mBytes(mStore.bytes), mLeafText(mStore.leafText), mLeafStarts(mStore.leafStarts),
        mConverted(mStore.converted), mLeafResults(mStore.leafResults), mBuffers(mStore.buffers) {
    std::size_t const terminated = std::strlen(mWhole);
    mWholeSize = wholeLength > 0 && std::size_t(wholeLength) > terminated ? std::size_t(wholeLength) : terminated;
    mPieces.clear();
    mBytes.clear();
    mLeafText.clear();
    mLeafStarts.clear();
  }
  ~cRewrite() { fGiveStoreBack(); }
  cRewrite(cRewrite const&) = delete;
  cRewrite& operator=(cRewrite const&) = delete;

  // text holds size bytes. It is read to the end before result is written,
  // so it may lie in result.
  void fRun(char const* text, std::size_t size, int length, int offset, std::string& result) {
    fPush(text, size, length, offset);
    for (;;) {
      cLevel& level = *mLevels[mDepth - 1];
      if (!level.leaf && !level.complete) {
        fStep(level);
        continue;
      }
      if (mDepth == 1) {
        if (level.leaf) fMakeLeaf(level);
        break;
      }
      // The value's leaf is its parent's work: what that raises makes the parent a leaf.
      cLevel& parent = *mLevels[mDepth - 2];
      --mDepth;
      try {
        if (level.leaf) fMakeLeaf(level);
        mPieces.push_back({tKind::eClose, 0, 0});
      } catch (...) {
        fFailed(parent);
      }
    }
    fConvertLeaves();
    fAssemble(result);
  }

 private:
  enum class tStage { eWalk, eKey, eValue };
  // eLeafValue: a value that is a leaf, with its header.
  enum class tKind : unsigned char { eBytes, eLeaf, eLeafValue, eOpen, eClose };

  struct cPiece {
    tKind kind;
    std::size_t start;  // eBytes: in mBytes; eLeaf, eLeafValue: the leaf's number
    std::size_t size;   // eBytes: byte count; eOpen: the value's length, once known
  };

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
    std::string_view key, value;  // the last couple's tokens, in the text
    // What the pieces held when the level began: a leaf drops what came after.
    std::size_t pieces = 0, bytes = 0, leafText = 0, leaves = 0;
  };

  // The buffers of a rewrite, kept by each thread from one rewrite to the
  // next. A rewrite started while the thread's store is busy (a log target
  // that converts) gets a store of its own.
  struct cStore {
    bool busy = false;
    std::vector<std::unique_ptr<cLevel>> levels;
    std::vector<cPiece> pieces;
    std::string bytes, leafText;
    std::vector<std::size_t> leafStarts;
    std::vector<std::string_view> converted;
    std::vector<std::string> leafResults;
    std::vector<std::pair<std::size_t, std::size_t>> open;  // eOpen piece, length so far at it
    cLeafBuffers buffers;
  };

  static cStore& fThreadStore() {
    thread_local cStore store;
    return store;
  }

  cStore& fTakeStore() {
    cStore& store = fThreadStore();
    if (!store.busy) {
      store.busy = true;
      return store;
    }
    mOwnStore = std::make_unique<cStore>();
    return *mOwnStore;
  }

  // What a very large text made the buffers grow to is not kept.
  void fGiveStoreBack() noexcept {
    if (mOwnStore) return;
    constexpr std::size_t kKept = std::size_t(1) << 20;
    if (mBytes.capacity() + mLeafText.capacity() + mBuffers.narrow.capacity() +
            mBuffers.wide.capacity() * sizeof(char16_t) + mPieces.capacity() * sizeof(cPiece) >
        kKept) {
      mStore.pieces = {};
      mStore.bytes = {};
      mStore.leafText = {};
      mStore.leafStarts = {};
      mStore.converted = {};
      mStore.leafResults = {};
      mStore.buffers = {};
    }
    mStore.busy = false;
  }

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
    level.pieces = mPieces.size();
    level.bytes = mBytes.size();
    level.leafText = mLeafText.size();
    level.leaves = mLeafStarts.size();
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
      std::size_t const before = mBytes.size();
      gAppendNumber(mBytes, level.count);
      fAddBytes(before);
    } catch (...) {
      fFailed(level);
    }
  }

  void fAddBytes(std::size_t from) {
    if (!mPieces.empty() && mPieces.back().kind == tKind::eBytes) {
      mPieces.back().size += mBytes.size() - from;
    } else {
      mPieces.push_back({tKind::eBytes, from, mBytes.size() - from});
    }
  }

  // One couple of the level: its key, and its value as a new level on top.
  void fStep(cLevel& level) {
    try {
      if (mMended ? level.index == level.count : level.index >= level.count) {
        mBytes.push_back(' ');
        fAddBytes(mBytes.size() - 1);
        level.complete = true;
        return;
      }
      cInput const in{level.text, level.size};
      std::string_view fault;
      // Tokens are read in place: no copy, and nothing that could raise.
      level.stage = tStage::eKey;
      if (!gTryToken(in, level.pos, level.key, fault)) return fFault(level, fault);
      level.stage = tStage::eWalk;
      std::size_t const before = mBytes.size();
      gAppendTokenHeader(mBytes, level.key.size());
      mBytes.append(mMended ? level.key : gUpToZero(level.key));
      fAddBytes(before);
      std::size_t const apostrophe = level.pos;
      level.stage = tStage::eValue;
      if (!gTryToken(in, level.pos, level.value, fault)) return fFault(level, fault);
      level.stage = tStage::eWalk;
      ++level.index;
      // The first rewriter sees a value up to its first zero byte.
      std::size_t const size = mMended ? level.value.size() : gUpToZero(level.value).size();
      // Most values are leaves that do not even begin as a form: no level for them.
      cInput const value{level.value.data(), size};
      std::size_t valuePos = 0;
      int valueCount = 0;
      if (!gTryLoadInt(value, valuePos, valueCount) || (mMended && valueCount <= 0)) {
        fTraceFault("Error");
        fAddLeaf(level.value.data(), size, tKind::eLeafValue);
        return;
      }
      mPieces.push_back({tKind::eOpen, 0, 0});
      fPush(level.value.data(), size, static_cast<int>(level.value.size()),
            gClampedInt(static_cast<long long>(level.offset) + static_cast<long long>(apostrophe)));
    } catch (...) {
      fFailed(level);
    }
  }

  // The level's whole text, up to its first zero byte, in place of what its walk laid down.
  void fMakeLeaf(cLevel& level) {
    mPieces.resize(level.pieces);
    mBytes.resize(level.bytes);
    mLeafText.resize(level.leafText);
    mLeafStarts.resize(level.leaves);
    fAddLeaf(level.text, level.size, tKind::eLeaf);
  }

  void fAddLeaf(char const* text, std::size_t size, tKind kind) {
    mPieces.push_back({kind, mLeafStarts.size(), 0});
    mLeafStarts.push_back(mLeafText.size());
    mLeafText.append(text, ::strnlen(text, size));
    mLeafText.push_back('\0');
  }

  void fConvertLeaves() {
    mLeafStarts.push_back(mLeafText.size());
    std::size_t const count = mLeafStarts.size() - 1;
    mConverted.assign(count, std::string_view());
    if (count == 0) return;
    bool const byteCodePages = mSource != 1200 && mSource != 1201 && mTarget != 1200 && mTarget != 1201;
    if (count > 1 && byteCodePages && fConvertTogether()) return;
    mLeafResults.resize(count);
    for (std::size_t i = 0; i < count; ++i) {
      gConvertLeafInto(mSource, mTarget, mLeafText.data() + mLeafStarts[i], mLeafStarts[i + 1] - mLeafStarts[i] - 1,
                       mBuffers, mLeafResults[i]);
      mConverted[i] = mLeafResults[i];
    }
  }

  // All leaves in one call each way, the result split at its zero bytes. False
  // when the split does not give one text per leaf.
  bool fConvertTogether() {
    if (mLeafText.size() >= std::size_t(std::numeric_limits<int>::max() / 4)) return false;
    int const bytes = static_cast<int>(mLeafText.size());
    auto& wide = mBuffers.wide;
    auto& narrow = mBuffers.narrow;
    if (wide.size() < std::size_t(bytes)) wide.resize(std::size_t(bytes));
    int const units = UL_MultiByteToWideChar(mSource, 0, mLeafText.data(), bytes, wide.data(), bytes, 0, 0);
    if (units <= 0) return false;
    std::size_t const room = std::size_t(units) * 4;
    if (narrow.size() < room) narrow.resize(room);
    int const written =
        UL_WideCharToMultiByte(mTarget, 0, wide.data(), units, narrow.data(), static_cast<int>(room), 0, 0);
    if (written <= 0) return false;
    std::string_view rest(narrow.data(), std::size_t(written));
    for (std::string_view& converted : mConverted) {
      std::size_t const zero = rest.find('\0');
      if (zero == std::string_view::npos) return false;
      converted = rest.substr(0, zero);
      rest.remove_prefix(zero + 1);
    }
    return rest.empty();
  }

  void fAssemble(std::string& result) {
    // A value's length is known at its end; its header's own length then
    // counts towards the value around it.
    auto& open = mStore.open;
    open.clear();
    std::size_t length = 0;
    for (std::size_t i = 0; i < mPieces.size(); ++i) {
      cPiece& piece = mPieces[i];
      switch (piece.kind) {
        case tKind::eBytes: length += piece.size; break;
        case tKind::eLeaf: length += mConverted[piece.start].size(); break;
        case tKind::eLeafValue:
          length += gTokenHeaderSize(mConverted[piece.start].size()) + mConverted[piece.start].size();
          break;
        case tKind::eOpen: open.emplace_back(i, length); break;
        case tKind::eClose: {
          auto const [at, startLength] = open.back();
          open.pop_back();
          mPieces[at].size = length - startLength;
          length += gTokenHeaderSize(mPieces[at].size);
          break;
        }
      }
    }
    result.resize(length);
    char* to = result.data();
    auto const put = [&to](std::string_view bytes) {
      if (!bytes.empty()) std::memcpy(to, bytes.data(), bytes.size());
      to += bytes.size();
    };
    for (cPiece const& piece : mPieces) {
      switch (piece.kind) {
        case tKind::eBytes: put(std::string_view(mBytes).substr(piece.start, piece.size)); break;
        case tKind::eLeafValue: to = gWriteTokenHeader(to, mConverted[piece.start].size()); [[fallthrough]];
        case tKind::eLeaf: put(mConverted[piece.start]); break;
        case tKind::eOpen: to = gWriteTokenHeader(to, piece.size); break;
        case tKind::eClose: break;
      }
    }
  }

  // The reader refused the text: it is a leaf, as the syntax exception would make it.
  void fFault(cLevel& level, std::string_view parameter) {
    fTraceFault(parameter);
    level.leaf = true;
  }

  void fTraceFault(std::string_view parameter) {
    fTraceSyntax([&] { return CIllegalAssoSyntaxException(std::string(parameter).c_str()); });
  }

  template <class Make>
  void fTraceSyntax(Make const& make) {
    if (mMended) {
      CORVANTH_LOG_FORMAT(nLog::nBasic::sTraceTag_, kSource, "gConvertX1Internal_patch", make().what());
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
      fTraceSyntax([&]() -> CIllegalAssoSyntaxException const& { return error; });
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
                          level.key);
    } else if (level.stage == tStage::eValue) {
      CORVANTH_LOG_FORMAT(nLog::nBasic::sErrorTag_, kSource, "gConvertX1Internal_patch gLoadString value",
                          level.index, level.value);
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
  std::size_t mDepth = 0;
  std::unique_ptr<cStore> mOwnStore;
  cStore& mStore;
  std::vector<std::unique_ptr<cLevel>>& mLevels;  // stable addresses
  std::vector<cPiece>& mPieces;
  std::string& mBytes;
  std::string& mLeafText;                // every leaf with its terminator
  std::vector<std::size_t>& mLeafStarts;  // where each leaf begins in mLeafText
  std::vector<std::string_view>& mConverted;
  std::vector<std::string>& mLeafResults;
  cLeafBuffers& mBuffers;
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
  cRewrite(false, sourceCodePage, targetCodePage, text, -1).fRun(text, std::strlen(text), -1, 0, out);
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
  cRewrite(true, sourceCodePage, targetCodePage, whole, wholeLength).fRun(text, size, length, offset, out);
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
