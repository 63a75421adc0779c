// cCorvanthMessage: the unit routed between named clients on named hosts, a
// routing envelope (to, from, queue type, message id) around an opaque data
// block. It lives as one packed block (packmsg.h) and as members that point
// into that block. It sends nothing: a carrier moves getPackedBuf() and
// getPackedBufLen() and carries type and subtype in its own frame header
// (Nvspackmsg.h), never in the block.
//
// Message layout: exactly eight packed fields, in this order.
//
//   0 to host      text, NUL included     4 queue type   "%d" text, NUL included
//   1 to client    text, NUL included     5 data         raw, data length, no NUL
//   2 from host    text, NUL included     6 message id   "%d" text, NUL included
//   3 from client  text, NUL included     7 pack stamp   "%d" text (352), NUL included
//
// The id is printed signed, so an id of 2^31 or more travels with a minus sign
// and comes back to the same bits. Example: to "agent" at "host2", from
// "console" at "host1", queue type 3, data "hello", id 7; 57 bytes:
//
//   "8 6 6 6 8 2 5 2 4 "
//   68 6F 73 74 32 00 61 67 65 6E 74 00 68 6F 73 74 31 00 63 6F 6E 73 6F 6C
//   65 00 33 00 68 65 6C 6C 6F 37 00 33 35 32 00
//
// A block of any other field count reads without id: id and stamp are -1. A
// null data pointer ends the field list at five fields, so such a message
// carries no id even when its creator gave one.
//
// Received blocks are not trusted: a message built from one keeps every member
// inside its own block whatever the header says. A text field that holds no
// NUL of its own reads as the empty text, and a field that runs past the end
// is cut there. Well-formed blocks read exactly as written.
//
// Ownership: a message owns its packed block (array new, freed with array
// delete). Getters hand out pointers into the block, valid for the life of the
// message and until the next rePackMe. Copies and assignments share the block
// rather than duplicating it; the block goes with the last of them.
//
// Thread safety: a message belongs to one thread at a time. printOnString
// writes into one process-wide buffer without a lock.
#pragma once

#include <cstdint>

#include "CorvanthExport.h"

class c_Pack;
class cTypedMessageObject;

// Queue types are the callers' numbers: this library stores, prints and
// carries them and names none.
enum QType : std::int32_t {};

class CORVANTH_EXPORT cCorvanthMessage {
 public:
  // Packs at once; the arguments may go when it returns. A null address packs
  // as the empty text.
  cCorvanthMessage(unsigned int messageId, const char* toHost, const char* toClient,
                   const char* fromHost, const char* fromClient, QType qtype, short type,
                   short subtype, const char* data, unsigned int datalen);
  // Takes a received object over, with its buffer, and deletes the object.
  explicit cCorvanthMessage(cTypedMessageObject* object);
  // Copies packedLen bytes of a received block; the caller keeps its own.
  cCorvanthMessage(const char* packed, unsigned int packedLen, short type, short subtype);
  // An empty message, only a target for assignment.
  cCorvanthMessage();
  cCorvanthMessage(const cCorvanthMessage& other);
  cCorvanthMessage& operator=(const cCorvanthMessage& other);
  // A derived message may raise while it ends; NVSDeleteMsg is the place
  // that catches and logs it, so the destructor lets it through.
  virtual ~cCorvanthMessage() noexcept(false);

  unsigned int getMessageId() const { return mMessageId; }
  const char* getToHost() const { return mToHost; }
  const char* getToClient() const { return mToClient; }
  // The addressees: the same text as the to host.
  const char* getToList() const { return mToHost; }
  const char* getFromHost() const { return mFromHost; }
  const char* getFromClient() const { return mFromClient; }
  QType getQtype() const { return mQtype; }
  short getType() const { return mType; }
  short getSubtype() const { return mSubtype; }
  const char* getData() const { return mData; }
  unsigned int getDatalen() const { return mDatalen; }
  const char* getPackedBuf() const { return mPackedBuf; }
  unsigned int getPackedBufLen() const { return mPackedBufLen; }

  // The subtype is not in the block, so nothing is repacked.
  void setSubtype(short subtype) { mSubtype = subtype; }

  // Re-addresses the message: a new block from the members with the new to
  // host and to client, then the old block goes. The arguments may point into
  // the old block. Earlier getter pointers are invalid afterwards.
  void rePackMe(const char* toHost, const char* toClient);

  // A one-line description in a process-wide buffer, overwritten by the next
  // call from any thread; cut at the buffer's 4096 bytes.
  const char* printOnString();

  virtual const char* nameOf() const;

 private:
  struct cShares_;

  void packMe();
  void unPackMe(const char* packed, unsigned int packedLen);
  bool mapFields(c_Pack& pack, const char* emptyText);
  bool reMapFields(const char* emptyText);
  void fCopyBlock(const char* packed, unsigned int packedLen);
  void fAddHolder() const;
  void fTakeFields(const cCorvanthMessage& other);
  static void gDropBlock(char* block, cShares_* shares) noexcept;

  std::uint32_t mMessageId = 0;
  std::int32_t mPackStamp = 0;
  const char* mToHost = nullptr;
  const char* mToClient = nullptr;
  const char* mFromHost = nullptr;
  const char* mFromClient = nullptr;
  QType mQtype{};
  std::int16_t mType = 0;
  std::int16_t mSubtype = 0;
  const char* mData = nullptr;
  std::uint32_t mDatalen = 0;
  char* mPackedBuf = nullptr;
  std::uint32_t mPackedBufLen = 0;
  // Holders of a shared block; made at the first copy, null while one holds it.
  mutable cShares_* mShares = nullptr;
};
