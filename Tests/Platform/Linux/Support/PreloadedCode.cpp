// Code that a user loads into another user's program with LD_PRELOAD (ld.so(8)): connects a
// datagram socket, as descriptor 77, before the program starts.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

__attribute__((constructor)) void connectFirst() {
  constexpr int kDescriptor = 77;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(443);
  const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
  ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  ::dup2(socket, kDescriptor);
}

}  // namespace
