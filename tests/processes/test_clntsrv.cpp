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
  void fUnRegisterAll(ServerObj& server) { pleaseUnRegisterAll(server); }
  Handler fEntry(int index) const { return dispatchTable[index]; }
  int& fLastOpcode() { return lastOpcode; }
  int& fSignOnCount() { return signOnCount; }
  int fKeep(BaseEvent& event) { return fCalled(event, 1); }
  int fDone(BaseEvent& event) { return fCalled(event, 0); }

  int calls = 0;
  BaseEvent* seen = nullptr;

 private:
  int fCalled(BaseEvent& event, int result) {
    ++calls;
    seen = &event;
    return result;
  }
  int* mDestroyed;
};

auto const kKeep = static_cast<ClientObj::Handler>(&cCountingClient::fKeep);
auto const kDone = static_cast<ClientObj::Handler>(&cCountingClient::fDone);

// An event whose end is counted. With a key it is one event with every other of that key;
// without one (key < 0) it is a plain event, equal to nothing.
class cEvent : public BaseEvent {
 public:
  cEvent(ClientObj& client, int opcode, int key, int* destroyed = nullptr)
      : BaseEvent(client, opcode), mKey(key), mDestroyed(destroyed) {}
  ~cEvent() override {
    if (mDestroyed != nullptr) ++*mDestroyed;
  }
  unsigned hash() const override { return mKey < 0 ? BaseEvent::hash() : unsigned(mKey); }
  bool isEqual(RWCollectable const* other) const override {
    if (mKey < 0) return BaseEvent::isEqual(other);
    auto const* event = dynamic_cast<cEvent const*>(other);
    return event != nullptr && event->mKey == mKey;
  }

 private:
  int mKey;
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
  cCountingClient client, other;
  EXPECT_EQ(client.fSignOn(kKeep), 1);
  EXPECT_EQ(client.fSignOn(kDone), 2);
  BaseEvent keep(client, 1), done(client, 2), fresh(other, 1);
  EXPECT_EQ(client.dispatch(keep), 1);
  EXPECT_EQ(client.seen, &keep);
  EXPECT_EQ(client.dispatch(done), 0);  // a 0 means nothing outside ServerObj::dispatchEvent
  // A stored registration delivers a fresh object, which takes its opcode and keeps its client.
  EXPECT_EQ(done.dispatchEvent(fresh), 0);
  EXPECT_EQ(fresh.getOpcode(), 2);
  EXPECT_EQ(client.seen, &fresh);
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
  BaseEvent empty(client, 1), beyond(client, 300), negative(client, -1), unbound;
  EXPECT_DEATH(client.dispatch(empty), "no handler for the opcode");
  EXPECT_DEATH(client.dispatch(beyond), "no handler for the opcode");
  EXPECT_DEATH(client.dispatch(negative), "no handler for the opcode");
  EXPECT_DEATH(unbound.dispatchEvent(empty), "event without a client");
}

TEST(ClientObj, The256thSignOnLandsOnTheCountersAndAWalkPastTheTableIsReported) {
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
  client.fLastOpcode() = 256;  // a full table
  EXPECT_EQ(client.fSignOn(kDone), -1);
  EXPECT_EQ(client.fEntry(255), kKeep);
  EXPECT_TRUE(capture.fRecords().empty());

  // Counters that came apart are reported; the walk passes the filled entries below
  // lastOpcode, and with nothing at or above it ends on the counters.
  cCountingClient apart;
  for (int i = 0; i < 3; ++i) apart.fSignOn(kKeep);
  apart.fSignOnCount() = 2;
  EXPECT_EQ(apart.fSignOn(kDone), 3);
  EXPECT_EQ(apart.fEntry(3), kDone);
  EXPECT_EQ(gErrorsAt(capture, "CLNTSRV"), 1u);
  cCountingClient empty;
  empty.fLastOpcode() = 3;
  empty.fSignOnCount() = 1;
  EXPECT_EQ(empty.fSignOn(kKeep), 256);
  EXPECT_GE(gErrorsAt(capture, "CLNTSRV"), 3u);
}

TEST(ServerObj, PlainEventsAreAllStoredAndUnRegisterClientDestroysEachOnce) {
  int destroyed = 0;
  cTestServer server;
  cCountingClient client, other;
  auto* first = new cEvent(client, 1, -1, &destroyed);
  auto* foreign = new cEvent(other, 1, -1, &destroyed);
  EXPECT_EQ(client.fRegister(server, *first), 1);
  EXPECT_EQ(client.fRegister(server, *new cEvent(client, 1, -1, &destroyed)), 1);
  EXPECT_EQ(other.fRegister(server, *foreign), 1);
  EXPECT_EQ(client.fRegister(server, *first), 1);  // the same object twice is destroyed once
  EXPECT_EQ(server.fEvents()->entries(), 4u);
  EXPECT_EQ(server.fFind(*first), nullptr);  // equal to nothing, yet stored
  client.fUnRegisterAll(server);
  EXPECT_EQ(destroyed, 2);
  EXPECT_EQ(server.fEvents()->entries(), 1u);
  EXPECT_EQ(server.applyRegistration(), 1);
  server.unRegisterClient(other);
  EXPECT_EQ(destroyed, 3);
}

TEST(ServerObj, AnEqualEventOfAnotherClientDisplacesTheStoredOneWithoutDestroyingIt) {
  cLogCapture capture;
  int destroyed = 0;
  cCountingClient x, y;
  auto* old = new cEvent(x, 1, 5, &destroyed);
  auto* current = new cEvent(y, 2, 5, &destroyed);
  {
    cTestServer server;
    server.registerEvent(*old);
    EXPECT_EQ(y.fRegister(server, *current), 1);
    cEvent probe(x, 0, 5);
    EXPECT_EQ(server.fFind(probe), current);
    EXPECT_EQ(server.registerEvent(*current), 1);  // the stored event again keeps one entry
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
  int clientsGone = 0, eventsGone = 0;
  cTestServer server(0);
  EXPECT_EQ(server.fEvents()->buckets(), 2u);
  auto* finishing = new cCountingClient(&clientsGone);
  auto* staying = new cCountingClient(&clientsGone);
  int const done = finishing->fSignOn(kDone);
  int const keep = staying->fSignOn(kKeep);
  for (int key = 1; key <= 6; ++key)
    server.registerEvent(key <= 4 ? *new cEvent(*finishing, done, key, &eventsGone)
                                  : *new cEvent(*staying, keep, key, &eventsGone));
  cEvent probe(*staying, 0, 5);
  server.fDispatch(*server.fFind(probe));
  EXPECT_EQ(staying->calls, 1);
  EXPECT_EQ(server.fEvents()->entries(), 6u);

  cEvent stored(*staying, 0, 3);
  server.fDispatch(*server.fFind(stored));
  EXPECT_EQ(clientsGone, 1);
  EXPECT_EQ(eventsGone, 4);
  for (int key = 1; key <= 6; ++key) {
    cEvent any(*staying, 0, key);
    EXPECT_EQ(server.fFind(any) != nullptr, key >= 5) << key;
  }
  staying->fUnRegisterAll(server);
  EXPECT_EQ(eventsGone, 6);
  delete staying;
}

TEST(CollectableValidateObject, InstanceNumbersComeFromTheCounterAndCopiesShareThem) {
  CollectableValidateObject first, second;
  EXPECT_EQ(second.value(), first.value() + 1);
  EXPECT_EQ(CollectableValidateObject::nextInstanceNumber, second.value());
  CollectableValidateObject copy(first);
  EXPECT_EQ(copy.value(), first.value());
  copy = second;
  EXPECT_EQ(copy.value(), second.value());
  EXPECT_EQ(CollectableValidateObject::nextInstanceNumber, second.value());
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
}

TEST(ServerObj, CopiesShareOneEventTable) {
  cLogCapture capture;
  int destroyed = 0;
  cCountingClient client;
  cTestServer server;
  {
    cTestServer copy;
    delete copy.fEvents();
    copy = server;
    copy.registerEvent(*new cEvent(client, 1, 9, &destroyed));
    cEvent probe(client, 0, 9);
    EXPECT_NE(server.fFind(probe), nullptr);
    copy.fEvents() = nullptr;  // only one server may destroy the table; the others report
  }
  EXPECT_EQ(gErrorsAt(capture, "CLNTSRV"), 1u);
  EXPECT_EQ(destroyed, 0);
}

}  // namespace
