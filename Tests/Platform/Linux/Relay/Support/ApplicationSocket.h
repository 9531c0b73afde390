#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Kernel/FlowTuple.h"

namespace ostravel::linuxplatform::test {

// A blocking TCP socket as applications and servers use it. No call waits longer than 20 s; what
// comes too late fails with EAGAIN.
class ApplicationSocket {
 public:
  // How a stream ended: 0 for an end in order, or errno.
  struct Received {
    std::string bytes;
    int error = 0;
  };

  // Bound to the address and a port of the kernel's choice, or to the port if there is one.
  explicit ApplicationSocket(const char* address, std::uint16_t port = 0);
  explicit ApplicationSocket(FileDescriptor descriptor);

  int descriptor() const { return descriptor_.get(); }
  SocketEndpoint local() const;
  void setReceiveBuffer(int size);
  void setSendBuffer(int size);

  // errno or 0.
  // SO_MARK
  void setMark(std::uint32_t mark);
  int connectTo(const char* address, std::uint16_t port);
  void listen();
  ApplicationSocket accept();

  // Fails the test unless all is taken.
  void send(std::string_view bytes);
  // Everything that was sent is in the peer's kernel.
  void waitUntilAcknowledged() const;
  // As much as the kernel takes without waiting.
  std::size_t sendWithoutWaiting(std::size_t size);
  // Fewer bytes only at the end of the stream or after a failure.
  Received receive(std::size_t size);
  // One recv; what it returned.
  long receiveSome(char* bytes, std::size_t size);
  Received receiveToEnd();
  void endSending();
  // Ends the calls of other threads on this socket, and fails later ones.
  void interrupt();
  void reset();
  void close() { descriptor_ = FileDescriptor(); }

 private:
  void setTimeouts();

  FileDescriptor descriptor_;
};

}  // namespace ostravel::linuxplatform::test
