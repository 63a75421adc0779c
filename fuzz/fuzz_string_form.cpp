// Arbitrary bytes as a string form, through every reader. A read either adds
// couples or raises the syntax exception. Each text sits in a block of its
// exact size, so a reader that looks past its end is caught. Readers that see
// the same bytes agree; whatever was read writes back to a form that reads to
// the same couples.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "AssociativeArray.h"
#include "AssociativeArrayExceptions.h"
#include "rwcollstr.h"

namespace {

using tContents = std::optional<std::map<std::string, std::string>>;  // empty: the read raised

template <class tRead>
tContents gRead(tRead read) {
  CAssociativeArray array;
  try {
    read(array);
  } catch (CIllegalAssoSyntaxException const&) {
    return std::nullopt;
  }
  std::map<std::string, std::string> out;
  RWHashDictionaryIterator it(array);
  while (RWCollectable* key = it()) {
    out[*static_cast<RWCollectableString*>(key)] = *static_cast<RWCollectableString*>(it.value());
  }
  if (!out.empty()) {
    CAssociativeArray back;
    back.FromStringRef(array.ToStringRef(false, false));
    if (back.entries() != out.size()) __builtin_trap();
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const text(reinterpret_cast<char const*>(data), size);
  // The whole input with its terminator, and the part before its first zero byte.
  std::unique_ptr<char[]> const whole(new char[size + 1]);
  std::memcpy(whole.get(), text.c_str(), size + 1);
  std::size_t const zts = std::strlen(whole.get());
  std::unique_ptr<char[]> const cut(new char[zts + 1]);
  std::memcpy(cut.get(), whole.get(), zts + 1);
  int const length = static_cast<int>(size);

  tContents const sized = gRead([&](CAssociativeArray& a) { a.FromString(whole.get(), length); });
  if (gRead([&](CAssociativeArray& a) { a.FromStringZ1(text); }) != sized) __builtin_trap();
  if (gRead([&](CAssociativeArray& a) { a.FromStringZ1(RWCString(text)); }) != sized) __builtin_trap();
  if (gRead([&](CAssociativeArray& a) { a.FromStringRef(RWCString(text)); }) != sized) __builtin_trap();

  tContents const terminated = gRead([&](CAssociativeArray& a) { a.FromStringZTS(cut.get()); });
  if (gRead([&](CAssociativeArray& a) { a.FromStringX2_deprecate(cut.get()); }) != terminated) __builtin_trap();
  // A length shorter than the text bounds nothing: the terminator does.
  if (gRead([&](CAssociativeArray& a) { a.FromString(cut.get(), static_cast<int>(zts / 2)); }) != terminated)
    __builtin_trap();
  return 0;
}
