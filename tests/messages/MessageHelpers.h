// Small helpers shared by the message tests.
#pragma once

#include <cstring>
#include <sstream>
#include <string>

#include "netmsg.h"

namespace corvanth::test {

// Bytes written with '|' for each zero byte, so that a block reads as one line.
inline std::string gZ(std::string text) {
  for (char& c : text)
    if (c == '|') c = '\0';
  return text;
}

// The 57-byte example message: to agent@host2 from console@host1, queue type 3, data "hello",
// message id 7, priority 352.
inline const std::string kExample = gZ("8 6 6 6 8 2 5 2 4 host2|agent|host1|console|3|hello7|352|");

inline cCorvanthMessage gExampleMessage(unsigned int id = 7) {
  return cCorvanthMessage(id, "host2", "agent", "host1", "console", QType{3}, 5, 2, "hello", 5);
}

inline std::string gBlock(const cCorvanthMessage& message) {
  return std::string(message.getPackedBuf(), message.getPackedBufLen());
}

// Every getter of a message on one line, so that whole messages compare at once.
inline std::string gFields(const cCorvanthMessage& m) {
  std::ostringstream out;
  out << m.getToClient() << '@' << m.getToHost() << " from " << m.getFromClient() << '@'
      << m.getFromHost() << " q" << m.getQtype() << " t" << m.getType() << '/' << m.getSubtype()
      << " id" << m.getMessageId() << " data "
      << (m.getData() ? std::string(m.getData(), m.getDatalen()) : std::string("(null)"));
  return out.str();
}

// A buffer of array new, as a received object owns it.
inline char* gCopy(const std::string& bytes) {
  return static_cast<char*>(std::memcpy(new char[bytes.size()], bytes.data(), bytes.size()));
}

}  // namespace corvanth::test
