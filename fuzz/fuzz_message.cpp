// Arbitrary bytes as a received message block, and as the buffer of a typed
// object. Every getter must stay inside the message's block, every text must
// end there, and a re-addressed message must read back to the same members.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Nvspackmsg.h"
#include "netmsg.h"

namespace {

void gCheck(bool holds) {
  if (!holds) __builtin_trap();
}

// A received block owns one zero just behind its bytes; a repacked one ends
// in its own NUL. Either way the text must end before begin + length + 1.
void gCheckText(const cCorvanthMessage& message, const char* text, bool received) {
  const char* begin = message.getPackedBuf();
  const char* end = begin + message.getPackedBufLen() + (received ? 1 : 0);
  gCheck(text >= begin && text < end);
  gCheck(std::memchr(text, '\0', static_cast<std::size_t>(end - text)) != nullptr);
}

volatile std::uint32_t gSink;

void gCheckMessage(const cCorvanthMessage& message, bool received) {
  gCheckText(message, message.getToHost(), received);
  gCheckText(message, message.getToClient(), received);
  gCheckText(message, message.getFromHost(), received);
  gCheckText(message, message.getFromClient(), received);
  gCheck(message.getToList() == message.getToHost());
  const char* data = message.getData();
  if (data == nullptr) {
    gCheck(message.getDatalen() == 0);
  } else {
    const char* begin = message.getPackedBuf();
    gCheck(data >= begin && data + message.getDatalen() <= begin + message.getPackedBufLen());
    std::uint32_t sum = 0;
    for (unsigned int i = 0; i < message.getDatalen(); ++i)
      sum += static_cast<unsigned char>(data[i]);
    gSink = sum;
  }
  gSink = message.getMessageId() + static_cast<std::uint32_t>(message.getQtype()) +
          static_cast<std::uint32_t>(message.getType() + message.getSubtype());
}

bool gSameText(const char* a, const char* b) { return std::strcmp(a, b) == 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const auto* packed = reinterpret_cast<const char*>(bytes);
  const auto length = static_cast<unsigned int>(size);

  cCorvanthMessage message(packed, length, 5, 2);
  gCheck(message.getPackedBufLen() == length);
  gCheck(length == 0 || std::memcmp(message.getPackedBuf(), packed, length) == 0);
  gCheckMessage(message, true);
  gSink = static_cast<std::uint32_t>(std::strlen(message.printOnString()));

  // A copy shares the block and outlives the re-addressing of the original.
  cCorvanthMessage copy(message);
  message.rePackMe(message.getFromHost(), message.getFromClient());
  gCheckMessage(message, false);
  gCheckMessage(copy, true);
  gCheck(gSameText(message.getToHost(), copy.getFromHost()));
  gCheck(gSameText(message.getToClient(), copy.getFromClient()));

  cCorvanthMessage again(message.getPackedBuf(), message.getPackedBufLen(), 5, 2);
  gCheck(gSameText(again.getToHost(), message.getToHost()));
  gCheck(gSameText(again.getToClient(), message.getToClient()));
  gCheck(gSameText(again.getFromHost(), message.getFromHost()));
  gCheck(gSameText(again.getFromClient(), message.getFromClient()));
  gCheck(again.getQtype() == message.getQtype());
  gCheck(again.getMessageId() == message.getMessageId());
  gCheck(again.getDatalen() == message.getDatalen());
  gCheck(again.getDatalen() == 0 ||
         std::memcmp(again.getData(), message.getData(), again.getDatalen()) == 0);

  // The same bytes handed over in a typed object, without a copy.
  char* buffer = new char[size];
  if (size != 0) std::memcpy(buffer, packed, size);
  cCorvanthMessage* taken = NVSTmo2Cvm(new cTypedMessageObject(5, 2, buffer, length));
  gCheck(taken != nullptr);
  gCheckMessage(*taken, taken->getPackedBuf() != buffer);
  gCheck(gSameText(taken->getToHost(), copy.getToHost()));
  gCheck(taken->getMessageId() == copy.getMessageId());
  NVSDeleteMsg(taken);
  return 0;
}
