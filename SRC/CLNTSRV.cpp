#include "clntsrv.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "FrimCoreError.h"
#include "Log.dec.h"
#include "rwhashtab.h"
#include "rwslist.h"

namespace {

// The two words of a pointer to member function as g++ lays it out (Itanium
// C++ ABI): the function part (an address, or 1 plus a virtual table offset)
// and the adjustment of the object pointer.
struct cHandlerParts {
  std::uintptr_t function;
  std::ptrdiff_t adjustment;
};
static_assert(sizeof(ClientObj::Handler) == sizeof(cHandlerParts),
              "pointer to member of two words");

int gWrappingIncrement(int value) { return static_cast<int>(static_cast<unsigned>(value) + 1u); }

// The interface answers "nothing" with a null reference. Binding one through
// a volatile read keeps the compiler from reasoning about it, and the
// sanitizer is told that this one binding is meant.
template <class T>
__attribute__((no_sanitize("undefined"))) T& gNullableReference(T* pointer) {
  T* volatile const laundered = pointer;
  return *laundered;
}

// A call through an empty entry, through an entry outside the table or on no
// client at all has nowhere to go; the process stops here, at a defined
// point, instead of jumping through whatever the bytes hold.
[[noreturn]] void gStop(char const* text, int line) {
  n_debug::nCoreError::gPosition(true, text, false, false, CORVANTH_LOG_MODULE, "CLNTSRV", line);
  std::abort();
}

// Takes out every other occurrence of `object`: an event registered twice
// would otherwise stay behind, pointing at freed memory, once destroyed.
void gForgetObject(RWHashTable& table, RWCollectable* object) {
  RWSlistCollectables const* const bucket = table.bucketList(object->hash() % table.buckets());
  bool stillIn = false;
  for (auto const* link = bucket != nullptr ? bucket->head() : nullptr; link != nullptr && !stillIn;
       link = link->next)
    stillIn = link->item == object;
  if (!stillIn) return;
  RWHashTableIterator walk(table);
  while (RWCollectable* item = walk())
    if (item == object) walk.remove();
}

}  // namespace

// --- ValidateObject ---------------------------------------------------------

ValidateObject::~ValidateObject() = default;
int ValidateObject::valid() const { return validFlag; }
const char* ValidateObject::nameOf() const { return "ValidateObject"; }

// --- CollectableValidateObject ----------------------------------------------

int CollectableValidateObject::nextInstanceNumber = 0;

CollectableValidateObject::CollectableValidateObject() : RWCollectableInt(0) {
  nextInstanceNumber = gWrappingIncrement(nextInstanceNumber);
  value(nextInstanceNumber);
}

CollectableValidateObject::~CollectableValidateObject() = default;
RWClassID CollectableValidateObject::isA() const { return 0; }
unsigned CollectableValidateObject::hash() const { return 0; }
bool CollectableValidateObject::isEqual(RWCollectable const*) const { return false; }
const char* CollectableValidateObject::nameOf() const { return "CollectableValidateObject"; }

// --- ClientObj --------------------------------------------------------------

ClientObj::ClientObj() : dispatchTable(), lastOpcode(0), signOnCount(0) {}
ClientObj::~ClientObj() = default;
const char* ClientObj::nameOf() const { return "ClientObj"; }

// On the original layout index 256 is the word pair of the two counters: the
// function part goes to lastOpcode and the adjustment to signOnCount, each cut
// to 32 bits. Anything farther out is not this object's memory and is not
// written.
void ClientObj::fStoreEntry(int index, Handler handler) {
  if (index >= 0 && index < kTableSize) {
    dispatchTable[index] = handler;
  } else if (index == kTableSize) {
    cHandlerParts parts;
    std::memcpy(&parts, &handler, sizeof parts);
    lastOpcode = static_cast<int>(static_cast<std::uint32_t>(parts.function));
    signOnCount = static_cast<int>(static_cast<std::uint32_t>(parts.adjustment));
  }
}

// The entry at 256 is null when its function part, lastOpcode, is 0. Outside
// the table and the counters there is nothing of ours to read: taken as empty.
bool ClientObj::fEntryIsNull(int index) const {
  if (index >= 0 && index < kTableSize) return dispatchTable[index] == nullptr;
  if (index == kTableSize) return lastOpcode == 0;
  return true;
}

// The full test comes before the increment, so the 256th sign-on stores at
// index 256, on the counters, and gives back what lastOpcode then holds.
int ClientObj::signOn(Handler handler) {
  CORVANTH_ASSERT(handler != nullptr, "CLNTSRV");
  if (lastOpcode == kTableSize) return -1;
  if (signOnCount == lastOpcode) {
    lastOpcode = gWrappingIncrement(lastOpcode);
    fStoreEntry(lastOpcode, handler);
    signOnCount = lastOpcode;
    return lastOpcode;
  }
  // The counters came apart, which nothing in this library does: a fault in
  // itself. The walk passes every index below lastOpcode, whatever stands
  // there, and ends at the first filled entry at or above it; it never goes
  // past the counters.
  CORVANTH_ASSERT(false, "CLNTSRV");
  int index = 0;
  while (index <= kTableSize && (index < lastOpcode || fEntryIsNull(index))) ++index;
  CORVANTH_ASSERT(index == lastOpcode, "CLNTSRV");
  fStoreEntry(index, handler);
  signOnCount = gWrappingIncrement(signOnCount);
  CORVANTH_ASSERT(signOnCount <= lastOpcode, "CLNTSRV");
  return index;
}

int ClientObj::pleaseRegister(ServerObj& server, BaseEvent& event) {
  return server.registerEvent(event);
}
void ClientObj::pleaseUnRegister(ServerObj& server, BaseEvent& event) {
  server.unRegisterEvent(event);
}
void ClientObj::pleaseUnRegisterAll(ServerObj& server) { server.unRegisterClient(*this); }

// The range test is signed with no lower bound, as callers have always had it.
int ClientObj::dispatch(BaseEvent& event) {
  int const index = event.getOpcode();
  CORVANTH_ASSERT(index < kTableSize, "CLNTSRV");
  bool const empty = fEntryIsNull(index);
  CORVANTH_ASSERT(!empty, "CLNTSRV");
  if (empty) gStop("ClientObj::dispatch: no handler for the opcode", __LINE__);
  if (index < 0 || index >= kTableSize)
    gStop("ClientObj::dispatch: opcode outside the handler table", __LINE__);
  return (this->*dispatchTable[index])(event);
}

// --- ServerObj --------------------------------------------------------------

ServerObj::ServerObj(int buckets)
    : events(new RWHashTable(buckets > 0 ? static_cast<std::size_t>(buckets) : 0)) {
  CORVANTH_ASSERT(events != nullptr, "CLNTSRV");
}

ServerObj::~ServerObj() {
  CORVANTH_ASSERT(events != nullptr, "CLNTSRV");
  if (events != nullptr) {
    events->clearAndDestroy();
    delete events;
  }
  events = nullptr;
}

const char* ServerObj::nameOf() const { return "ServerObj"; }

void ServerObj::dispatchEvent(BaseEvent& event) {
  if (event.dispatchMe() != 0) return;
  // Read before the events go: `event` may be one of them.
  ClientObj* const finished = event.client;
  // No reference can name a missing client; there is nothing to drop then.
  if (finished == nullptr) return;
  unRegisterClient(*finished);
  delete finished;
}

// Calls this class's own unRegisterEvent on purpose, not a derived one.
int ServerObj::registerEvent(BaseEvent& event) {
  ServerObj::unRegisterEvent(event);
  events->insert(&event);
  return 1;
}

void ServerObj::unRegisterEvent(BaseEvent& event) {
  if (RWCollectable* const stored = events->find(&event)) events->remove(stored);
}

BaseEvent* ServerObj::findEventPointer(BaseEvent& probe) const {
  return static_cast<BaseEvent*>(events->find(&probe));
}

BaseEvent& ServerObj::findEvent(BaseEvent& probe) const {
  return gNullableReference(findEventPointer(probe));
}

void ServerObj::unRegisterClient(ClientObj& client) {
  if (events == nullptr) return;
  RWHashTableIterator walk(*events);
  while (RWCollectable* const item = walk()) {
    auto* const event = static_cast<BaseEvent*>(item);
    if (event->isClient(client) == 0) continue;
    walk.remove();
    std::size_t const left = events->entries();
    unRegisterEvent(*event);
    gForgetObject(*events, event);
    // A removal that did not go through the walk leaves it invalid; starting
    // over visits only what is left, so the outcome is the same.
    if (events->entries() != left) walk.reset();
    delete event;
  }
}

int ServerObj::applyRegistration() { return 1; }

// --- BaseEvent --------------------------------------------------------------

BaseEvent::~BaseEvent() = default;
RWClassID BaseEvent::isA() const { return 0; }
unsigned BaseEvent::hash() const { return 0; }
bool BaseEvent::isEqual(RWCollectable const*) const { return false; }
const char* BaseEvent::nameOf() const { return "BaseEvent"; }

ClientObj& BaseEvent::getClient() { return gNullableReference(client); }
int BaseEvent::getOpcode() { return opcode; }
int BaseEvent::isClient(ClientObj& other) const { return client == &other ? 1 : 0; }

int BaseEvent::dispatchEvent(BaseEvent& other) {
  CORVANTH_ASSERT(client != nullptr, "CLNTSRV");
  other.opcode = opcode;
  if (client == nullptr) gStop("BaseEvent::dispatchEvent: event without a client", __LINE__);
  return client->dispatch(other);
}

int BaseEvent::dispatchMe() {
  CORVANTH_ASSERT(client != nullptr, "CLNTSRV");
  if (client == nullptr) gStop("BaseEvent::dispatchMe: event without a client", __LINE__);
  return client->dispatch(*this);
}
