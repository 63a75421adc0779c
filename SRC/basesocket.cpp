#include "basesocket.h"

#include "Log.dec.h"

namespace nSocket = nCommunication::nSocket;

c_Socket::c_Socket(nSocket::cHandleValid const& handle) : handle(handle) {
  CORVANTH_LOG(nCorvanth::sTraceTag_, "basesocket");
}

c_Socket::c_Socket() : handle(nSocket::gInvalidHandle()) {}

c_Socket::~c_Socket() {
  try {
    CORVANTH_LOG(nCorvanth::sTraceTag_, "basesocket");
  } catch (...) {
    // A destructor does not throw; the handle is deleted all the same.
    n_debug::nCoreError::gPosition(false, "trace statement failed", false, false,
                                   CORVANTH_LOG_MODULE, "basesocket", __LINE__);
  }
  if (nSocket::gIsValid(handle)) nSocket::gDelete(handle);
}

void c_Socket::CloseSocket() {
  CORVANTH_LOG(nCorvanth::sTraceTag_, "basesocket");
  if (nSocket::gIsValid(handle)) nSocket::gClose(nSocket::gValidate(handle));
}

void c_Socket::CreateListenerSocket(unsigned short port) {
  CORVANTH_LOG(nCorvanth::sTraceTag_, "basesocket");
  handle = nSocket::cHandleOptional(nSocket::gCreateListener(port));
}
