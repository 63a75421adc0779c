#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "LogCapture.h"
#include "clntsrv.h"

namespace {

using corvanth::test::cLogCapture;

std::size_t gErrorsAt(cLogCapture const& capture, char const* source) {
  std::size_t count = 0;
  for (nLog::cRecord const& record : capture.fRecords())
    if (record.source == source && record.tag == "Error" && record.text.empty()) ++count;
  return count;
}

// A client whose handlers count their calls and whose end is counted.
class cCountingClient : public ClientObj {
 public:
  explicit cCountingClient(int* destroyed = nullptr) : mDestroyed(destroyed) {}
  cCountingClient(cCountingClient const&) = default;
  ~cCountingClient() override {
    if (mDestroyed != nullptr) ++*mDestroyed;
  }

  int fSignOn(Handler handler) { return signOn(handler); }
  int fRegister(ServerObj& server, BaseEvent& event) { return pleaseRegister(server, event); }
  void fUnRegister(ServerObj& server, BaseEvent& event) { pleaseUnRegister(server, event); }
  void fUnRegisterAll(ServerObj& server) { pleaseUnRegisterAll(server); }
  Handler fEntry(int index) const { return dispatchTable[index]; }
  int& fLastOpcode() { return lastOpcode; }
  int& fSignOnCount() { return signOnCount; }

  int fKeep(BaseEvent& event) {
    ++calls;
    seen = &event;
    return 1;
  }
  int fDone(BaseEvent& event) {
    ++calls;
    seen = &event;
    return 0;
  }

  int calls = 0;
  BaseEvent* seen = nullptr;

 private:
  int* mDestroyed;
};

auto const kKeep = static_cast<ClientObj::Handler>(&cCountingClient::fKeep);
auto const kDone = static_cast<ClientObj::Handler>(&cCountingClient::fDone);

// Events that are one event when their keys are equal; each end is counted.
class cKeyEvent : public BaseEvent {
 public:
  cKeyEvent(ClientObj& client, int opcode, int key, int* destroyed = nullptr)
      : BaseEvent(client, opcode), mKey(key), mDestroyed(destroyed) {}
  ~cKeyEvent() override {
    if (mDestroyed != nullptr) ++*mDestroyed;
  }
  unsigned hash() const override { return static_cast<unsigned>(mKey); }
  bool isEqual(RWCollectable const* other) const override {
    auto const* event = dynamic_cast<cKeyEvent const*>(other);
    return event != nullptr && event->mKey == mKey;
  }

 private:
  int mKey;
  int* mDestroyed;
};

// A plain event (equal to nothing) whose end is counted.
class cCountedEvent : public BaseEvent {
 public:
  cCountedEvent(ClientObj& client, int opcode, int* destroyed)
      : BaseEvent(client, opcode), mDestroyed(destroyed) {}
  ~cCountedEvent() override { ++*mDestroyed; }

 private:
  int* mDestroyed;
};

class cTestServer : public ServerObj {
 public:
  using ServerObj::ServerObj;
  BaseEvent* fFind(BaseEvent& probe) const { return findEventPointer(probe); }
  void fDispatch(BaseEvent& event) { dispatchEvent(event); }
  RWHashTable*& fEvents() { return events; }
};

TEST(ClientObj, OpcodesStartAtOneAndDispatchCallsTheHandlerWithTheSameEvent) {
  cLogCapture capture;
  cCountingClient client;
  EXPECT_EQ(client.fSignOn(kKeep), 1);
  EXPECT_EQ(client.fSignOn(kDone), 2);
  EXPECT_EQ(client.fEntry(0), nullptr);

  BaseEvent keep(client, 1);
  EXPECT_EQ(client.dispatch(keep), 1);
  EXPECT_EQ(client.seen, &keep);

  // A 0 means nothing outside ServerObj::dispatchEvent.
  BaseEvent done(client, 2);
  EXPECT_EQ(client.dispatch(done), 0);

  // A stored registration delivers a fresh object, which takes its opcode and keeps its client.
  cCountingClient other;
  BaseEvent fresh(other, 1);
  EXPECT_EQ(done.dispatchEvent(fresh), 0);
  EXPECT_EQ(fresh.getOpcode(), 2);
  EXPECT_EQ(client.seen, &fresh);
  EXPECT_EQ(fresh.isClient(other), 1);
  EXPECT_EQ(fresh.isClient(client), 0);
  EXPECT_EQ(&fresh.getClient(), &other);
  EXPECT_EQ(client.calls, 3);
  EXPECT_EQ(other.calls, 0);
  EXPECT_TRUE(capture.fRecords().empty());
}

TEST(ClientObjDeathTest, NullHandlerIsStoredAndAnUnknownOpcodeStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  cLogCapture capture;
  cCountingClient client;
  EXPECT_EQ(client.fSignOn(nullptr), 1);
  EXPECT_EQ(gErrorsAt(capture, "CLNTSRV"), 1u);
  EXPECT_EQ(client.fSignOn(kKeep), 2);

  BaseEvent empty(client, 1);
  EXPECT_DEATH(client.dispatch(empty), "no handler for the opcode");
  BaseEvent beyond(client, 300);
  EXPECT_DEATH(client.dispatch(beyond), "no handler for the opcode");
  BaseEvent negative(client, -1);
  EXPECT_DEATH(client.dispatch(negative), "no handler for the opcode");
  BaseEvent unbound;
  EXPECT_DEATH(unbound.dispatchEvent(empty), "event without a client");
}

TEST(ClientObj, The256thSignOnLandsOnTheCountersAndAFullTableGivesMinusOne) {
  cLogCapture capture;
  cCountingClient client;
  for (int opcode = 1; opcode <= 255; ++opcode) ASSERT_EQ(client.fSignOn(kKeep), opcode);

  std::uintptr_t parts[2];
  static_assert(sizeof parts == sizeof kDone);
  std::memcpy(parts, &kDone, sizeof parts);
  int const functionPart = static_cast<int>(static_cast<std::uint32_t>(parts[0]));
  EXPECT_EQ(client.fSignOn(kDone), functionPart);
  EXPECT_EQ(client.fLastOpcode(), functionPart);
  EXPECT_EQ(client.fSignOnCount(), functionPart);
  EXPECT_EQ(client.fEntry(255), kKeep);

  client.fLastOpcode() = 256;
  EXPECT_EQ(client.fSignOn(kDone), -1);
  EXPECT_EQ(client.fLastOpcode(), 256);
  EXPECT_EQ(client.fEntry(255), kKeep);
  EXPECT_TRUE(capture.fRecords().empty());
}

TEST(ClientObj, CountersThatCameApartAreReportedAndTheHandlerGoesAtLastOpcode) {
  cLogCapture capture;
  cCountingClient client;
  for (int i = 0; i < 3; ++i) client.fSignOn(kKeep);
  client.fSignOnCount() = 2;
  // The walk passes every index below lastOpcode and stops on the filled entry 3.
  EXPECT_EQ(client.fSignOn(kDone), 3);
  EXPECT_EQ(client.fSignOnCount(), 3);
  EXPECT_EQ(client.fEntry(3), kDone);
  EXPECT_EQ(gErrorsAt(capture, "CLNTSRV"), 1u);

  // With nothing at or above lastOpcode the walk ends on the counters.
  capture.fClear();
  cCountingClient empty;
  empty.fLastOpcode() = 3;
  empty.fSignOnCount() = 1;
  EXPECT_EQ(empty.fSignOn(kKeep), 256);
  EXPECT_GE(gErrorsAt(capture, "CLNTSRV"), 2u);
}

TEST(ServerObj, PlainEventsAreAllStoredAndOnlyUnRegisterClientDestroysThem) {
  int destroyed = 0;
  cTestServer server;
  cCountingClient client;
  cCountingClient other;
  auto* first = new cCountedEvent(client, 1, &destroyed);
  auto* second = new cCountedEvent(client, 1, &destroyed);
  auto* foreign = new cCountedEvent(other, 1, &destroyed);
  EXPECT_EQ(client.fRegister(server, *first), 1);
  EXPECT_EQ(client.fRegister(server, *second), 1);
  EXPECT_EQ(other.fRegister(server, *foreign), 1);
  EXPECT_EQ(server.fEvents()->entries(), 3u);
  EXPECT_EQ(server.fFind(*first), nullptr);

  client.fUnRegister(server, *first);
  EXPECT_EQ(server.fEvents()->entries(), 3u);

  // The same object twice in the table must still be destroyed once.
  EXPECT_EQ(client.fRegister(server, *first), 1);
  EXPECT_EQ(server.fEvents()->entries(), 4u);
  client.fUnRegisterAll(server);
  EXPECT_EQ(destroyed, 2);
  EXPECT_EQ(server.fEvents()->entries(), 1u);
  EXPECT_EQ(server.fEvents()->find(foreign), nullptr);  // equal to nothing, yet still stored
  EXPECT_EQ(server.applyRegistration(), 1);
  // The server's end destroys what it still holds.
  {
    cTestServer copy(server);
    copy.fEvents() = nullptr;
  }
  server.unRegisterClient(other);
  EXPECT_EQ(destroyed, 3);
}

TEST(ServerObj, AnEqualEventOfAnotherClientDisplacesTheStoredOneWithoutDestroyingIt) {
  cLogCapture capture;
  int destroyed = 0;
  cCountingClient x;
  cCountingClient y;
  auto* old = new cKeyEvent(x, 1, 5, &destroyed);
  auto* current = new cKeyEvent(y, 2, 5, &destroyed);
  {
    cTestServer server;
    server.registerEvent(*old);
    EXPECT_EQ(y.fRegister(server, *current), 1);
    cKeyEvent probe(x, 0, 5);
    EXPECT_EQ(server.fFind(probe), current);
    EXPECT_EQ(server.fEvents()->entries(), 1u);
    EXPECT_EQ(destroyed, 0);

    // Registering the stored event again keeps one entry.
    EXPECT_EQ(server.registerEvent(*current), 1);
    EXPECT_EQ(server.fEvents()->entries(), 1u);

    server.unRegisterEvent(probe);
    EXPECT_EQ(server.fFind(probe), nullptr);
    EXPECT_EQ(destroyed, 0);
    server.registerEvent(*current);
  }
  EXPECT_EQ(destroyed, 1);  // the server's end takes what it holds, not the displaced one
  delete old;
  EXPECT_TRUE(capture.fRecords().empty());
}

TEST(ServerObj, AHandlersZeroDropsAllEventsOfItsClientAndDeletesTheClient) {
  int clientsGone = 0;
  int eventsGone = 0;
  cTestServer server(0);
  EXPECT_EQ(server.fEvents()->buckets(), 2u);
  auto* finishing = new cCountingClient(&clientsGone);
  auto* staying = new cCountingClient(&clientsGone);
  int const done = finishing->fSignOn(kDone);
  int const keep = staying->fSignOn(kKeep);
  for (int key = 1; key <= 4; ++key)
    server.registerEvent(*new cKeyEvent(*finishing, done, key, &eventsGone));
  server.registerEvent(*new cKeyEvent(*staying, keep, 5, &eventsGone));
  server.registerEvent(*new cKeyEvent(*staying, keep, 6, &eventsGone));

  cKeyEvent probe(*staying, 0, 5);
  server.fDispatch(*server.fFind(probe));
  EXPECT_EQ(staying->calls, 1);
  EXPECT_EQ(server.fEvents()->entries(), 6u);

  cKeyEvent stored(*staying, 0, 3);
  server.fDispatch(*server.fFind(stored));
  EXPECT_EQ(clientsGone, 1);
  EXPECT_EQ(eventsGone, 4);
  EXPECT_EQ(server.fEvents()->entries(), 2u);
  for (int key = 1; key <= 6; ++key) {
    cKeyEvent any(*staying, 0, key);
    EXPECT_EQ(server.fFind(any) != nullptr, key >= 5) << key;
  }
  staying->fUnRegisterAll(server);
  EXPECT_EQ(eventsGone, 6);
  delete staying;
}

TEST(CollectableValidateObject, InstanceNumbersComeFromTheCounterAndCopiesShareThem) {
  CollectableValidateObject first;
  CollectableValidateObject second;
  EXPECT_EQ(second.value(), first.value() + 1);
  EXPECT_EQ(CollectableValidateObject::nextInstanceNumber, second.value());
  CollectableValidateObject copy(first);
  EXPECT_EQ(copy.value(), first.value());
  copy = second;
  EXPECT_EQ(copy.value(), second.value());
  EXPECT_EQ(CollectableValidateObject::nextInstanceNumber, second.value());
  EXPECT_EQ(copy.valid(), 1);
  EXPECT_FALSE(copy.isEqual(&copy));

  // A client copy takes the table: the handler runs on the copy.
  cCountingClient client;
  client.fSignOn(kKeep);
  cCountingClient clone(client);
  EXPECT_EQ(clone.value(), client.value());
  BaseEvent event(clone, 1);
  EXPECT_EQ(clone.dispatch(event), 1);
  EXPECT_EQ(clone.calls, 1);
  EXPECT_EQ(client.calls, 0);

  BaseEvent plain(client, 1);
  EXPECT_EQ(plain.value(), 0);
  EXPECT_FALSE(plain.isEqual(&plain));
}

TEST(ServerObj, CopiesShareOneEventTable) {
  cLogCapture capture;
  int destroyed = 0;
  cCountingClient client;
  cTestServer server;
  cTestServer copy(server);
  EXPECT_EQ(copy.fEvents(), server.fEvents());
  copy.registerEvent(*new cKeyEvent(client, 1, 9, &destroyed));
  cKeyEvent probe(client, 0, 9);
  EXPECT_NE(server.fFind(probe), nullptr);

  {
    cTestServer assigned;
    RWHashTable* const own = assigned.fEvents();
    assigned = server;
    EXPECT_EQ(assigned.fEvents(), server.fEvents());
    delete own;
    // Only one of the servers may destroy the table; the others report their empty pointer.
    assigned.fEvents() = nullptr;
  }
  copy.fEvents() = nullptr;
  EXPECT_EQ(gErrorsAt(capture, "CLNTSRV"), 1u);
  EXPECT_EQ(destroyed, 0);
}

}  // namespace
