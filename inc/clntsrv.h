// Clients, servers and events: a small in-process publish and call-back
// framework, with the validity base classes on which it stands.
//
// A client files member functions of its own with signOn and gets an opcode
// for each, an index into its own dispatch table (1 for the first, 0 is never
// handed out). An event binds one client to one opcode. A server keeps the
// events that clients registered with it in a hash table, finds the stored
// event that equals a probe and delivers through it. A handler's result of 0
// under ServerObj::dispatchEvent tells the server to drop every event of that
// client and to delete the client.
//
// What makes two events one event is decided only by derived event classes
// through hash and isEqual; plain BaseEvents equal nothing, not even
// themselves, so each registration of one adds an entry.
//
// Ownership:
// - A server owns its event table and every event registered with it: it
//   destroys them in unRegisterClient and in its destructor. unRegisterEvent,
//   and the displacement inside registerEvent, take an event out without
//   destroying it; whoever kept its address may delete it.
// - An event does not own its client, and a client keeps no list of the
//   servers that hold its events: it must call pleaseUnRegisterAll on each of
//   them before it ends. A client that can be dropped by a handler's 0 must
//   live on the heap, and so must every event that a server is to own.
// - Copies are shallow: a client copy takes the whole table and counters, a
//   server copy shares the event table pointer, and the first of the two to be
//   destroyed destroys the table for both.
//
// Faults are reported by log checks (source "CLNTSRV") that never refuse the
// call. Nothing here locks: a server, a client and the instance counter
// belong to one thread at a time, and handlers run on the caller's thread.
#pragma once

#include <cstddef>

#include "CorvanthExport.h"
#include "Log.dec.h"
#include "rwcollint.h"
#include "rwdefs.h"
#include "rwhashtab.h"

class BaseEvent;
class ServerObj;

// A validity flag, 1 from construction on; nothing in this library clears it.
class CORVANTH_EXPORT ValidateObject {
 public:
  ValidateObject() = default;
  ValidateObject(ValidateObject const&) = default;
  ValidateObject& operator=(ValidateObject const&) = default;
  virtual ~ValidateObject();
  virtual int valid() const;
  virtual const char* nameOf() const;

 protected:
  int validFlag = 1;
};

// A collectable with a validity flag whose integer value is an instance
// number: each default-constructed object draws the next one from
// nextInstanceNumber, and a copy keeps its source's number. Its identity is
// fixed: class id 0, hash 0, and it equals nothing.
class CORVANTH_EXPORT CollectableValidateObject : public RWCollectableInt, public ValidateObject {
 public:
  // The last instance number handed out; a plain, unguarded counter.
  static int nextInstanceNumber;

  CollectableValidateObject();
  CollectableValidateObject(CollectableValidateObject const&) = default;
  CollectableValidateObject& operator=(CollectableValidateObject const&) = default;
  ~CollectableValidateObject() override;

  RWClassID isA() const override;
  unsigned hash() const override;
  bool isEqual(RWCollectable const* other) const override;
  const char* nameOf() const override;
};

// A client: a table of 256 handlers indexed by opcode.
class CORVANTH_EXPORT ClientObj : public CollectableValidateObject {
 public:
  // A handler of a derived class is signed on after a static_cast to this type.
  using Handler = int (ClientObj::*)(BaseEvent&);
  static constexpr int kTableSize = 256;

  ClientObj();
  ClientObj(ClientObj const&) = default;
  ClientObj& operator=(ClientObj const&) = default;
  ~ClientObj() override;

  const char* nameOf() const override;

  // Calls the handler of the event's opcode with that very event and gives
  // its result. An opcode without a handler, or outside the table, is
  // reported by the checks; the process then stops (see CLNTSRV.cpp), since
  // a call through such an entry has nowhere to go.
  virtual int dispatch(BaseEvent& event);

 protected:
  // Files the handler and gives its opcode, or -1 once lastOpcode is 256.
  // The 256th sign-on lands one past the table, on the two counters behind it
  // (see CLNTSRV.cpp): the counters then hold the handler's function part, and
  // that value comes back.
  virtual int signOn(Handler handler);
  virtual int pleaseRegister(ServerObj& server, BaseEvent& event);
  virtual void pleaseUnRegister(ServerObj& server, BaseEvent& event);
  virtual void pleaseUnRegisterAll(ServerObj& server);

  Handler dispatchTable[kTableSize];
  // The highest opcode handed out, and the number of entries in use; they
  // stand right behind the table, as the overrun of the 256th sign-on needs.
  int lastOpcode;
  int signOnCount;

 private:
  // Table access as the layout of table and counters has it, without ever
  // touching memory outside the object.
  void fStoreEntry(int index, Handler handler);
  bool fEntryIsNull(int index) const;
};

// A server: a client that also keeps registered events and delivers to them.
class CORVANTH_EXPORT ServerObj : public ClientObj {
 public:
  // A table of `buckets` buckets; 0 (and, here, a negative count) gives 2.
  explicit ServerObj(int buckets = 37);
  // Shallow: both servers share one event table afterwards.
  ServerObj(ServerObj const&) = default;
  // Shallow, and the table the target had is not released.
  ServerObj& operator=(ServerObj const&) = default;
  ~ServerObj() override;

  const char* nameOf() const override;

 protected:
  // Delivers through the event; a result of 0 drops all events of the
  // event's client and deletes the client. The event may be one of the
  // stored ones and is then gone after the call.
  virtual void dispatchEvent(BaseEvent& event);

 public:
  // Takes out the stored event equal to `event` (not destroying it) and adds
  // `event`. Always 1.
  virtual int registerEvent(BaseEvent& event);
  // Takes out the stored event equal to `event`; it is not destroyed.
  virtual void unRegisterEvent(BaseEvent& event);
  // Takes out and destroys every stored event of that very client.
  virtual void unRegisterClient(ClientObj& client);
  // A hook for derived servers; nothing here calls it. Always 1.
  virtual int applyRegistration();

 protected:
  // The stored event equal to the probe, or a null reference when there is
  // none. A compiler may take any reference's address for non-null and fold
  // a test of it away, so callers should use findEventPointer instead.
  BaseEvent& findEvent(BaseEvent& probe) const;
  // The same lookup as a pointer: null when nothing matches.
  BaseEvent* findEventPointer(BaseEvent& probe) const;

  RWHashTable* events;
};

// An event: one client and one opcode. Its integer value stays 0 unless
// copied from another event; it has class id 0, hash 0 and equals nothing
// until a derived class says otherwise.
class CORVANTH_EXPORT BaseEvent : public RWCollectableInt {
 public:
  BaseEvent(ClientObj& client, int opcode) : RWCollectableInt(0), client(&client), opcode(opcode) {
    // A reference made from a null pointer still arrives here; read it through
    // a volatile so that the test is really made.
    ClientObj* volatile const given = this->client;
    CORVANTH_ASSERT(given != nullptr, "clntsrv");
  }
  BaseEvent() : RWCollectableInt(0), client(nullptr), opcode(0) {}
  BaseEvent(BaseEvent const&) = default;
  BaseEvent& operator=(BaseEvent const&) = default;
  ~BaseEvent() override;

  RWClassID isA() const override;
  unsigned hash() const override;
  bool isEqual(RWCollectable const* other) const override;

  // The stored client; a null reference for an event without one.
  ClientObj& getClient();
  int getOpcode();
  // 1 if `other` is the very client object stored, else 0.
  int isClient(ClientObj& other) const;
  // Writes this event's opcode into `other` and delivers `other` through this
  // event's client. `other` keeps its own client.
  int dispatchEvent(BaseEvent& other);

 protected:
  // Delivers this event through its own client.
  virtual int dispatchMe();

 public:
  virtual const char* nameOf() const;

 protected:
  ClientObj* client;
  int opcode;

 private:
  friend class ServerObj;
};
