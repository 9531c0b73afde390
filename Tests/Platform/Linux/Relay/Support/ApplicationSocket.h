#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Kernel/FlowTuple.h"

namespace ostravel::linuxplatform::test {

// A blocking TCP socket as applications and servers use it. No call blocks longer than 20 s; later
// data fails with EAGAIN.
class ApplicationSocket {
 public:
  // How a stream ended: 0 for an orderly end, or errno.
  struct Received {
    std::string bytes;
    int error = 0;
  };

  // Bound to the address, and to the port or, if it is 0, one chosen by the kernel.
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

  // Fails the test unless everything is sent.
  void send(std::string_view bytes);
  // Returns when all sent data is in the peer's kernel.
  void waitUntilAcknowledged() const;
  // As much as the kernel accepts without blocking.
  std::size_t sendWithoutWaiting(std::size_t size);
  // Returns fewer bytes only at the end of the stream or after a failure.
  Received receive(std::size_t size);
  // One recv; what it returned.
  long receiveSome(char* bytes, std::size_t size);
  Received receiveToEnd();
  void endSending();
  // Ends other threads' calls on this socket, and makes later ones fail.
  void interrupt();
  void reset();
  void close() { descriptor_ = FileDescriptor(); }

 private:
  void setTimeouts();

  FileDescriptor descriptor_;
};

}  // namespace ostravel::linuxplatform::test
