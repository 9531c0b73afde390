#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Tests/Support/TestSocket.h"

namespace ostravel::linuxplatform::test {

// A TCP socket as applications and servers use it, with what tests of relays look at: buffers,
// acknowledgements, and how a stream ended.
class ApplicationSocket : public testing::TestSocket {
 public:
  // How a stream ended: 0 for an orderly end, or errno.
  struct Received {
    std::string bytes;
    int error = 0;
  };

  // Bound to the address, and to the port or, if it is 0, one chosen by the kernel.
  explicit ApplicationSocket(const char* address, std::uint16_t port = 0);
  explicit ApplicationSocket(TestSocket socket) : TestSocket(std::move(socket)) {}

  SocketEndpoint local() const;
  void setReceiveBuffer(int size);
  void setSendBuffer(int size);

  void listen();
  ApplicationSocket accept();

  // Returns when all sent data is in the peer's kernel.
  void waitUntilAcknowledged() const;
  // As much as the kernel accepts without blocking.
  std::size_t sendWithoutWaiting(std::size_t size);
  // Returns fewer bytes only at the end of the stream or after a failure, which does not throw.
  Received receive(std::size_t size);
  Received receiveToEnd();
  // One recv; what it returned.
  long receiveSome(char* bytes, std::size_t size);
};

}  // namespace ostravel::linuxplatform::test
