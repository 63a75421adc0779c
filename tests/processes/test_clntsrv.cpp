#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstdint>

#include "LogCapture.h"
#include "clntsrv.h"

namespace {

int gClientsGone = 0, gEventsGone = 0;

// A client whose handler notes the event and gives `result`: 1 keeps the client, 0 ends it.
class cClient : public ClientObj {
 public:
  ~cClient() override { ++gClientsGone; }
  int fHandle(BaseEvent& event) { return seen = &event, ++calls, result; }
  int result = 1, calls = 0;
  BaseEvent* seen = nullptr;
  using ClientObj::lastOpcode, ClientObj::signOnCount;
  using ClientObj::signOn, ClientObj::pleaseRegister, ClientObj::pleaseUnRegisterAll;
};

auto const kHandle = static_cast<ClientObj::Handler>(&cClient::fHandle);

// With a key (>= 0) one event with every other of that key; without, equal to nothing.
class cEvent : public BaseEvent {
 public:
  cEvent(ClientObj& client, int opcode, int key) : BaseEvent(client, opcode), mKey(key) {}
  ~cEvent() override { gEventsGone += opcode != 0; }  // probes have opcode 0
  unsigned hash() const override { return mKey < 0 ? BaseEvent::hash() : unsigned(mKey); }
  bool isEqual(RWCollectable const* other) const override {
    auto const* event = dynamic_cast<cEvent const*>(other);
    return mKey >= 0 && event != nullptr && event->mKey == mKey;
  }
  int mKey;
};

class cServer : public ServerObj {
 public:
  using ServerObj::ServerObj, ServerObj::dispatchEvent, ServerObj::events;
  BaseEvent* fFind(int key) {
    cEvent probe(*this, 0, key);
    return findEventPointer(probe);
  }
};

TEST(ClientObj, OpcodesFromOneDispatchTheSameEventAndThe256thSignOnLandsOnTheCounters) {
  corvanth::test::cLogCapture capture;
  cClient client, other;
  for (int opcode = 1; opcode <= 255; ++opcode) ASSERT_EQ(client.signOn(kHandle), opcode);
  BaseEvent done(client, 2), fresh(other, 1);
  client.result = 0;  // a 0 means nothing outside ServerObj::dispatchEvent
  EXPECT_EQ(client.dispatch(done), 0);
  EXPECT_EQ(client.seen, &done);
  // A stored registration delivers a fresh object, which takes its opcode and keeps its client.
  EXPECT_EQ(done.dispatchEvent(fresh), 0);
  EXPECT_EQ(fresh.getOpcode(), 2);
  EXPECT_EQ(client.seen, &fresh);
  EXPECT_EQ(&fresh.getClient(), &other);
  EXPECT_EQ(other.signOn(nullptr), 1);  // reported, and stored all the same
  EXPECT_EQ(capture.fRecords().size(), 1u);

  auto const parts = std::bit_cast<std::array<std::uintptr_t, 2>>(kHandle);
  int const functionPart = static_cast<int>(static_cast<std::uint32_t>(parts[0]));
  EXPECT_EQ(client.signOn(kHandle), functionPart);
  EXPECT_EQ(client.signOnCount, functionPart);
  client.lastOpcode = 256;  // a full table
  EXPECT_EQ(client.signOn(kHandle), -1);
}

TEST(ServerObj, EventsStayOrAreDisplacedAndAHandlersZeroDropsItsClientAndItsEvents) {
  gEventsGone = 0;
  cClient x, y;
  auto *plain = new cEvent(x, 1, -1), *old = new cEvent(x, 1, 5), *current = new cEvent(y, 2, 5);
  {
    cServer server;
    EXPECT_EQ(x.pleaseRegister(server, *plain), 1);
    EXPECT_EQ(x.pleaseRegister(server, *new cEvent(x, 1, -1)), 1);
    EXPECT_EQ(x.pleaseRegister(server, *plain), 1);  // the same object twice is destroyed once
    x.pleaseUnRegisterAll(server);
    EXPECT_EQ(gEventsGone, 2);

    server.registerEvent(*old);
    EXPECT_EQ(y.pleaseRegister(server, *current), 1);
    EXPECT_EQ(server.fFind(5), current);
    EXPECT_EQ(server.registerEvent(*current), 1);  // the stored event again keeps one entry
    EXPECT_EQ(server.events->entries(), 1u);
    server.unRegisterEvent(*old);
    EXPECT_EQ(server.fFind(5), nullptr);
    EXPECT_EQ(gEventsGone, 2);
    server.registerEvent(*current);
  }
  EXPECT_EQ(gEventsGone, 3);  // the server's end takes what it holds, not the displaced one
  delete old;

  // A handler's zero drops all events of its client and deletes the client.
  gClientsGone = gEventsGone = 0;
  cServer server(0);
  auto *finishing = new cClient, *staying = new cClient;
  finishing->result = 0;
  int const done = finishing->signOn(kHandle), keep = staying->signOn(kHandle);
  for (int key = 1; key <= 6; ++key)
    server.registerEvent(key <= 4 ? *new cEvent(*finishing, done, key)
                                  : *new cEvent(*staying, keep, key));
  server.dispatchEvent(*server.fFind(5));
  EXPECT_EQ(staying->calls, 1);
  server.dispatchEvent(*server.fFind(3));
  EXPECT_EQ(gClientsGone, 1);
  EXPECT_EQ(gEventsGone, 4);
  for (int key = 1; key <= 6; ++key) EXPECT_EQ(server.fFind(key) != nullptr, key >= 5) << key;
  staying->pleaseUnRegisterAll(server);
  EXPECT_EQ(gEventsGone, 6);
  delete staying;
}

}  // namespace
