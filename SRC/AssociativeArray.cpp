// The parameter dictionary and its string form (format at the top of
// AssociativeArray.h).
#include "AssociativeArray.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>
#include <typeinfo>
#include <unordered_map>

#include "AssociativeArrayExceptions.h"
#include "Log.dec.h"
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
