// The other process of the two-process test. It listens on 127.0.0.1 at a
// port that the system picks, writes "port <n>" on standard output, takes one
// connection, greets it with a frame of its own, and answers every frame with
// the same type, the subtype plus one, and the payload reversed, until the
// peer closes. Exit status: the number of frames answered, capped at 100, so
// the test can check both sides counted alike; 101 for a failure.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "LintelSocket.h"
#include "streamsocket.h"

int main() {
  alarm(120);  // never outlive a test that went wrong
  namespace nSock = nCommunication::nSocket;
  try {
    nSock::cHandleValid const listenerHandle = nSock::gCreateListenerOn("127.0.0.1", 0);
    StreamSocket listener(listenerHandle, false, nullptr, false, false, "");
    std::printf("port %u\n", unsigned(nSock::gLocalPort(listenerHandle)));
    std::fflush(stdout);
    auto [accepted, ssl, port] = listener.Accept(nSock::cSocketOptions());
    (void)port;
    StreamSocket connection(nSock::gValidate(accepted), false, ssl, false, false, "");
    std::string const greeting("hello from pid " + std::to_string(getpid()) + std::string(1, '\0'));
    if (!connection.SendTypedMessageZ2(77, 1, greeting.data(), int(greeting.size()))) return 101;
    int answered = 0;
    for (;;) {
      short type = 0;
      short subtype = 0;
      char* message = nullptr;
      int length = 0;
      if (!connection.WaitTypedMessageZ1(type, subtype, message, length, nullptr)) break;
      std::string payload(message != nullptr ? message : "", std::size_t(length));
      connection.FreeMessage(message);
      std::reverse(payload.begin(), payload.end());
      if (!connection.SendTypedMessageZ2(type, short(subtype + 1), payload.data(),
                                         int(payload.size()))) {
        return 101;
      }
      ++answered;
    }
    connection.CloseSocket();
    return std::min(answered, 100);
  } catch (std::exception const& error) {
    std::fprintf(stderr, "socket_peer: %s\n", error.what());
    return 101;
  }
}
