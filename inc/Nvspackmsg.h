// The frame of every payload between processes, over a stream socket or in a
// window message: an 8-byte c_MessageHeader, then the payload. The carrier
// knows a message only by this header; the payload may be a packed
// cCorvanthMessage (netmsg.h) or anything else.
//
// Frame header, network byte order (most significant byte first), no padding:
//
//   offset 0  4 bytes  length   signed 32-bit, payload bytes behind the header
//   offset 4  2 bytes  type     signed 16-bit
//   offset 6  2 bytes  subtype  signed 16-bit
//
// Example: 57 payload bytes of type 5, subtype 2 are framed by
// 00 00 00 39 00 05 00 02, and 65 bytes go out. There is no magic, version or
// checksum, and no type value is reserved here. A writer sends header and
// payload as one block so that they are never split.
//
// A cTypedMessageObject is one received frame in memory: type and subtype in
// host order and the payload, which it owns (array new) and frees in its
// destructor. NVSTmo2Cvm hands its payload to a cCorvanthMessage without a copy.
//
// Thread safety: no shared state; a header or object belongs to the thread
// that handles it.
#pragma once

#include <arpa/inet.h>

#include <cstdint>

#include "CorvanthExport.h"

class cCorvanthMessage;

// Always holds network order: filled by SSMMakeMessageHeader, converted by
// the readers below.
struct c_MessageHeader {
  std::int32_t length;
  std::int16_t type;
  std::int16_t subtype;

  std::int32_t fLength() const {
    return static_cast<std::int32_t>(ntohl(static_cast<std::uint32_t>(length)));
  }
  std::int16_t fType() const {
    return static_cast<std::int16_t>(ntohs(static_cast<std::uint16_t>(type)));
  }
  std::int16_t fSubtype() const {
    return static_cast<std::int16_t>(ntohs(static_cast<std::uint16_t>(subtype)));
  }
};
static_assert(sizeof(c_MessageHeader) == 8, "the frame header is exactly 8 bytes");

// Stores length (as 32 bits), type and subtype in network order.
CORVANTH_EXPORT void SSMMakeMessageHeader(long length, short type, short subtype,
                                          c_MessageHeader* header);

class CORVANTH_EXPORT cTypedMessageObject {
 public:
  cTypedMessageObject() = default;
  // Takes buffer over; it must come from array new.
  cTypedMessageObject(short type, short subtype, char* buffer, unsigned int length)
      : type(type), subtype(subtype), buffer(buffer), length(length) {}
  cTypedMessageObject(const cTypedMessageObject&) = delete;
  cTypedMessageObject& operator=(const cTypedMessageObject&) = delete;
  // Frees the buffer; a null one is fine.
  virtual ~cTypedMessageObject();

  std::int16_t type = 0;
  std::int16_t subtype = 0;
  char* buffer = nullptr;
  std::uint32_t length = 0;
};

// A new message that takes the object and its buffer over; the object is gone
// afterwards. Null for a null object or when no memory is left (the object is
// deleted then too). The result goes back through NVSDeleteMsg.
CORVANTH_EXPORT cCorvanthMessage* NVSTmo2Cvm(cTypedMessageObject* object);

// Deletes the message, null allowed; whatever the deletion throws is logged
// and goes no further.
CORVANTH_EXPORT void NVSDeleteMsg(cCorvanthMessage* message);
