// Arbitrary bytes as a string form. A read either adds couples or raises the
// syntax exception; whatever was read writes back to a form that reads to the
// same couples.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "AssociativeArray.h"
#include "AssociativeArrayExceptions.h"
#include "rwcollstr.h"

namespace {

std::map<std::string, std::string> gContents(CAssociativeArray& array) {
  std::map<std::string, std::string> out;
  RWHashDictionaryIterator it(array);
  while (RWCollectable* key = it()) {
    out[*static_cast<RWCollectableString*>(key)] = *static_cast<RWCollectableString*>(it.value());
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  // The readers take a zero-terminated text; the bytes may hold zeros of their own.
  std::string const text(reinterpret_cast<char const*>(data), size);
  CAssociativeArray array;
  try {
    array.FromStringZ1(text);
  } catch (CIllegalAssoSyntaxException const&) {
  }
  if (array.entries() == 0) return 0;
  char const* form = nullptr;
  int length = 0;
  array.ToString(form, length, false, false);
  CAssociativeArray back;
  back.FromStringZ1(std::string(form, std::size_t(length)));
  if (gContents(back) != gContents(array)) __builtin_trap();
  return 0;
}
