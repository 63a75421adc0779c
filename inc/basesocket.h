// c_Socket: the owner of one socket handle of the socket library
// (LintelSocket.h) and the base of StreamSocket. It does nothing with bytes.
//
// Closing and deleting are two steps: CloseSocket ends the connection while
// other threads may still hold the object, and wakes one that is blocked on
// it; the handle keeps its value, and only the destructor, when no thread can
// use the object any more, deletes it.
//
// Failures of the socket library reach the caller as its own exceptions;
// c_Socket catches nothing.
//
// Thread safety: handle is written before the object is shared (constructors,
// connecting, CreateListenerSocket) and only read after that; CloseSocket may
// come from any thread.
#pragma once

#include "CorvanthExport.h"
#include "LintelSocket.h"

// An empty base that makes its derived classes uncopyable.
class iUncopyable_debug {
 protected:
  iUncopyable_debug() = default;
  ~iUncopyable_debug() = default;

 private:
  iUncopyable_debug(iUncopyable_debug const&) = delete;
  iUncopyable_debug& operator=(iUncopyable_debug const&) = delete;
};

class CORVANTH_EXPORT c_Socket : public iUncopyable_debug {
 public:
  // Closes the handle if it is valid; the handle keeps its value, so a second
  // call closes again.
  void CloseSocket();
  // Listens on port, over whatever the object held: an older handle is
  // neither closed nor deleted.
  void CreateListenerSocket(unsigned short port);

 protected:
  explicit c_Socket(nCommunication::nSocket::cHandleValid const& handle);
  c_Socket();
  // Deletes a valid handle, closed or not.
  ~c_Socket();

  nCommunication::nSocket::cHandleOptional handle;
};
