#include "rwcollect.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <utility>

RWCollectable* RWCollectable::newSpecies() const { return new RWCollectable; }
RWCollectable* RWCollectable::copy() const { return new RWCollectable(*this); }
RWClassID RWCollectable::isA() const { return classIsA; }
RWCollectable const* RWCollectable::asCollectable() const { return this; }
RWCollectable* RWCollectable::asCollectable() { return this; }
RWCollectable::~RWCollectable() = default;
RWspace RWCollectable::binaryStoreSize() const { return 0; }

int RWCollectable::compareTo(RWCollectable const* other) const {
  if (other == this) return 0;
  return reinterpret_cast<std::uintptr_t>(other) < reinterpret_cast<std::uintptr_t>(this) ? 1 : -1;
}

unsigned RWCollectable::identityHash(RWCollectable const* object) noexcept {
  auto const x = static_cast<std::intptr_t>(reinterpret_cast<std::uintptr_t>(object));
  return static_cast<unsigned>(static_cast<std::uintptr_t>((x >> 3) ^ x));
}

unsigned RWCollectable::hash() const { return identityHash(this); }
bool RWCollectable::isEqual(RWCollectable const* other) const { return other == this; }
void RWCollectable::restoreGuts(RWvistream&) {}
void RWCollectable::restoreGuts(RWFile&) {}
void RWCollectable::saveGuts(RWvostream&) const {}
void RWCollectable::saveGuts(RWFile&) const {}

namespace {

struct cCreatorRegistry {
  std::mutex mutex;
  std::map<RWClassID, std::pair<RWuserCreator, char const*>> byId;
  std::map<std::string, RWClassID, std::less<>> byName;
  std::set<std::string, std::less<>> names;  // interned: a name handed out stays valid
};

// Built at first use: registrations run from static initialisers of other files.
cCreatorRegistry& gRegistry() {
  static cCreatorRegistry registry;
  return registry;
}

RWRegisterCollectable<RWCollectable> const gRegisterCollectable;

}  // namespace

void rwAddToFactory(RWuserCreator creator, RWClassID id, char const* name) {
  auto& registry = gRegistry();
  std::lock_guard lock(registry.mutex);
  std::string const& text = *registry.names.emplace(name != nullptr ? name : "").first;
  registry.byId[id] = {creator, text.c_str()};
  if (!text.empty()) registry.byName[text] = id;
}

RWCollectable* rwCreateFromFactory(RWClassID id) {
  auto& registry = gRegistry();
  RWuserCreator creator = nullptr;
  {
    std::lock_guard lock(registry.mutex);
    auto const found = registry.byId.find(id);
    if (found != registry.byId.end()) creator = found->second.first;
  }
  return creator != nullptr ? creator() : nullptr;
}

RWCollectable* rwCreateFromFactory(char const* name) {
  RWClassID const id = rwClassIdOf(name);
  return id != 0 ? rwCreateFromFactory(id) : nullptr;
}

char const* rwClassNameOf(RWClassID id) {
  auto& registry = gRegistry();
  std::lock_guard lock(registry.mutex);
  auto const found = registry.byId.find(id);
  return found != registry.byId.end() ? found->second.second : nullptr;
}

RWClassID rwClassIdOf(char const* name) {
  if (name == nullptr) return 0;
  auto& registry = gRegistry();
  std::lock_guard lock(registry.mutex);
  auto const found = registry.byName.find(std::string_view(name));
  return found != registry.byName.end() ? found->second : 0;
}
