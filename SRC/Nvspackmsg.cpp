// The frame header is described in Nvspackmsg.h.
#include "Nvspackmsg.h"

#include <exception>
#include <new>

#include "Log.dec.h"
#include "netmsg.h"

void SSMMakeMessageHeader(long length, short type, short subtype, c_MessageHeader* header) {
  header->length = static_cast<std::int32_t>(htonl(static_cast<std::uint32_t>(length)));
  header->type = static_cast<std::int16_t>(htons(static_cast<std::uint16_t>(type)));
  header->subtype = static_cast<std::int16_t>(htons(static_cast<std::uint16_t>(subtype)));
}

cTypedMessageObject::~cTypedMessageObject() { delete[] buffer; }

cCorvanthMessage* NVSTmo2Cvm(cTypedMessageObject* object) {
  if (object == nullptr) return nullptr;
  auto* message = new (std::nothrow) cCorvanthMessage(object);
  // The caller gave the object away in any case.
  if (message == nullptr) delete object;
  return message;
}

void NVSDeleteMsg(cCorvanthMessage* message) {
  try {
    delete message;
  } catch (std::exception const& error) {
    CORVANTH_LOG_AT(nLog::nBasic::sErrorTag_, "Nvspackmsg", 28, error.what());
  } catch (...) {
    CORVANTH_LOG_AT(nLog::nBasic::sErrorTag_, "Nvspackmsg", 32);
  }
}
