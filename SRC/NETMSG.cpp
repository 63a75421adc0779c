// The message layout is described in netmsg.h.
#include "netmsg.h"

#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "Log.dec.h"
#include "Nvspackmsg.h"
#include "packmsg.h"

namespace {

constexpr std::int32_t kPackStamp = 352;
constexpr std::size_t kPrintSize = 4096;
constexpr int kMessageFields = 8;

// "%d" of a 32-bit number with its NUL; 12 characters hold any of them.
int gPrintNumber(char (&text)[12], std::int32_t value) {
  char* end = std::to_chars(text, text + 11, value).ptr;
  *end = '\0';
  return static_cast<int>(end - text) + 1;
}

const char* gOrEmpty(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

struct cCorvanthMessage::cShares_ {
  std::atomic<std::int32_t> holders{1};
};

cCorvanthMessage::cCorvanthMessage(unsigned int messageId, const char* toHost, const char* toClient,
                                   const char* fromHost, const char* fromClient, QType qtype,
                                   short type, short subtype, const char* data,
                                   unsigned int datalen)
    : mMessageId(messageId),
      mPackStamp(kPackStamp),
      mToHost(toHost),
      mToClient(toClient),
      mFromHost(fromHost),
      mFromClient(fromClient),
      mQtype(qtype),
      mType(type),
      mSubtype(subtype),
      mData(data),
      mDatalen(datalen) {
  CORVANTH_ASSERT_AT(data != nullptr, "NETMSG", 47);
  CORVANTH_ASSERT_AT(datalen != 0, "NETMSG", 48);
  packMe();
}

cCorvanthMessage::cCorvanthMessage(cTypedMessageObject* object)
    : mType(object->type),
      mSubtype(object->subtype),
      mPackedBuf(object->buffer),
      mPackedBufLen(object->buffer != nullptr ? object->length : 0) {
  object->buffer = nullptr;
  delete object;
  if (!reMapFields(nullptr)) {
    // A text field without its own NUL needs a zero inside the block to read
    // as empty; the taken block has none to spare, so it moves into a copy
    // with one behind it, as a received block gets.
    char* taken = mPackedBuf;
    fCopyBlock(taken, mPackedBufLen);
    if (taken != nullptr) gPackRelease(taken);
  }
  CORVANTH_ASSERT_AT(mDatalen != 0, "NETMSG", 63);
}

cCorvanthMessage::cCorvanthMessage(const char* packed, unsigned int packedLen, short type,
                                   short subtype)
    : mType(type), mSubtype(subtype) {
  unPackMe(packed, packedLen);
}

cCorvanthMessage::cCorvanthMessage() = default;

cCorvanthMessage::cCorvanthMessage(const cCorvanthMessage& other) {
  other.fAddHolder();
  fTakeFields(other);
}

// Every member, the block's pointers included: a copy shares the block.
void cCorvanthMessage::fTakeFields(const cCorvanthMessage& other) {
  mMessageId = other.mMessageId;
  mPackStamp = other.mPackStamp;
  mToHost = other.mToHost;
  mToClient = other.mToClient;
  mFromHost = other.mFromHost;
  mFromClient = other.mFromClient;
  mQtype = other.mQtype;
  mType = other.mType;
  mSubtype = other.mSubtype;
  mData = other.mData;
  mDatalen = other.mDatalen;
  mPackedBuf = other.mPackedBuf;
  mPackedBufLen = other.mPackedBufLen;
  mShares = other.mShares;
}

cCorvanthMessage& cCorvanthMessage::operator=(const cCorvanthMessage& other) {
  if (this == &other) return *this;
  other.fAddHolder();
  char* earlierBlock = mPackedBuf;
  cShares_* earlierShares = mShares;
  fTakeFields(other);
  gDropBlock(earlierBlock, earlierShares);
  return *this;
}

cCorvanthMessage::~cCorvanthMessage() noexcept(false) {
  gDropBlock(mPackedBuf, mShares);
  mPackedBuf = nullptr;
  mShares = nullptr;
}

void cCorvanthMessage::fAddHolder() const {
  if (mPackedBuf == nullptr) return;
  if (mShares == nullptr) {
    mShares = new cShares_;
  }
  mShares->holders.fetch_add(1, std::memory_order_relaxed);
}

void cCorvanthMessage::gDropBlock(char* block, cShares_* shares) noexcept {
  if (block == nullptr) return;
  if (shares != nullptr) {
    if (shares->holders.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    delete shares;
  }
  gPackRelease(block);
}

void cCorvanthMessage::rePackMe(const char* toHost, const char* toClient) {
  mToHost = toHost;
  mToClient = toClient;
  // The members, and perhaps the arguments, still point into the old block:
  // it must outlive the packing.
  char* oldBlock = mPackedBuf;
  cShares_* oldShares = mShares;
  mPackedBuf = nullptr;
  mShares = nullptr;
  packMe();
  gDropBlock(oldBlock, oldShares);
}

const char* cCorvanthMessage::printOnString() {
  // Made at the first call and kept for the life of the process.
  static char* const text = new char[kPrintSize];
  // The ": ," is how the line has always read; log readers match on it.
  std::snprintf(text, kPrintSize,
                "%s: , Message len:%d, type (%d,%d), QType=%d from %s@%s to %s@%s\n", nameOf(),
                static_cast<std::int32_t>(mDatalen), mType, mSubtype,
                static_cast<std::int32_t>(mQtype), gOrEmpty(mFromClient), gOrEmpty(mFromHost),
                gOrEmpty(mToClient), gOrEmpty(mToHost));
  return text;
}

const char* cCorvanthMessage::nameOf() const { return "CorvanthMessage"; }

void cCorvanthMessage::packMe() {
  if (mPackedBuf != nullptr) return;
  CORVANTH_ASSERT_AT(mDatalen != 0, "NETMSG", 108);

  char qtype[12];
  char messageId[12];
  char packStamp[12];
  const int qtypeLength = gPrintNumber(qtype, mQtype);
  const int messageIdLength = gPrintNumber(messageId, static_cast<std::int32_t>(mMessageId));
  const int packStampLength = gPrintNumber(packStamp, mPackStamp);
  const char* toHost = gOrEmpty(mToHost);
  const char* toClient = gOrEmpty(mToClient);
  const char* fromHost = gOrEmpty(mFromHost);
  const char* fromClient = gOrEmpty(mFromClient);

  // A null data pointer ends the list here, at five fields.
  c_Pack pack(toHost, static_cast<int>(std::strlen(toHost) + 1), toClient,
              static_cast<int>(std::strlen(toClient) + 1), fromHost,
              static_cast<int>(std::strlen(fromHost) + 1), fromClient,
              static_cast<int>(std::strlen(fromClient) + 1), static_cast<const char*>(qtype),
              qtypeLength, mData, static_cast<int>(mDatalen), static_cast<const char*>(messageId),
              messageIdLength, static_cast<const char*>(packStamp), packStampLength,
              static_cast<const char*>(nullptr));
  // The writer's block is this message's from here on.
  mPackedBuf = const_cast<char*>(pack.thePackedMsg());
  mPackedBufLen = static_cast<std::uint32_t>(pack.thePackedMsgLen());
  mapFields(pack, nullptr);
}

void cCorvanthMessage::unPackMe(const char* packed, unsigned int packedLen) {
  CORVANTH_ASSERT_AT(packed != nullptr, "NETMSG", 146);
  fCopyBlock(packed, packed != nullptr ? packedLen : 0);
}

void cCorvanthMessage::fCopyBlock(const char* packed, unsigned int packedLen) {
  // One zero behind the block: where a text field with no NUL of its own
  // reads as the empty text, still inside the block.
  mPackedBufLen = packedLen;
  mPackedBuf = gPackAllocate(std::uint64_t{packedLen} + 1);
  if (packedLen != 0) std::memcpy(mPackedBuf, packed, packedLen);
  mPackedBuf[packedLen] = '\0';
  reMapFields(mPackedBuf + packedLen);
}

bool cCorvanthMessage::reMapFields(const char* emptyText) {
  c_Pack pack(c_Pack::zBounded{}, mPackedBuf, mPackedBufLen);
  return mapFields(pack, emptyText);
}

bool cCorvanthMessage::mapFields(c_Pack& pack, const char* emptyText) {
  bool complete = true;
  // A text is used where it stands when its NUL lies inside its own field.
  auto text = [&](unsigned int index) -> const char* {
    const char* start = pack.field(index);
    const int length = pack.fieldLen(index);
    // The writer puts the NUL last; a NUL further in also ends the text.
    if (start != nullptr && length > 0 &&
        (start[length - 1] == '\0' ||
         std::memchr(start, '\0', static_cast<std::size_t>(length)) != nullptr)) {
      return start;
    }
    if (emptyText != nullptr) return emptyText;
    complete = false;
    return "";
  };
  mToHost = text(0);
  mToClient = text(1);
  mFromHost = text(2);
  mFromClient = text(3);
  auto number = [&](unsigned int index) {
    const char* digits = text(index);
    return gPackNumber(digits, digits == pack.field(index) ? pack.fieldLen(index) : 0);
  };
  mQtype = static_cast<QType>(number(4));
  mData = pack.field(5);
  mDatalen = static_cast<std::uint32_t>(pack.fieldLen(5));
  if (pack.getNumOfPacks() == kMessageFields) {
    mMessageId = static_cast<std::uint32_t>(number(6));
    mPackStamp = number(7);
  } else {
    mMessageId = 0xFFFFFFFFu;
    mPackStamp = -1;
  }
  return complete;
}
