#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>

#include "Platform/Interface/Error.h"
#include "Platform/Interface/Result.h"
#include "Platform/Linux/Kernel/FlowTuple.h"

struct mnl_socket;

namespace ostravel::linuxplatform {

// What the kernel knows about a socket.
struct SocketInformation {
  // Of the process that made it.
  uid_t uid = 0;
  // As /proc/PID/fd shows it; 0 when no process holds the socket any more.
  std::uint32_t inode = 0;
  // Never used again as long as the machine runs (SO_COOKIE).
  std::uint64_t cookie = 0;
  // 0 when the kernel does not tell.
  std::uint64_t cgroup = 0;
  // The interface or VRF that it is bound to (SO_BINDTODEVICE); 0 when it is bound to none. A
  // socket that is connected to a link-local address of IPv6 is bound as well, to its zone.
  std::uint32_t boundInterface = 0;
  // TCP state (netinet/tcp.h).
  std::uint8_t state = 0;
};

// Finds sockets of the network namespace that it was made in (sock_diag(7)). Every question is one
// exact look-up in the kernel's tables, never a walk through them; the answer is there when the
// question has been sent. Used by one thread at a time.
class SocketDiagnostics {
 public:
  struct Answer {
    // The kernel could not be asked; there may be such a socket all the same.
    bool hasFailed = false;
    std::optional<SocketInformation> socket;
  };

  // Fails when the kernel does not answer such questions.
  static platform::Result<std::unique_ptr<SocketDiagnostics>> open();

  // The socket that sends the flow's packets, whatever family it has itself, also one that is not
  // connected (UDP). One that is bound to an interface is only found when that is the interface
  // that its packets leave through, outputInterface.
  Answer find(const FlowTuple& flow, std::uint32_t outputInterface);

  // The socket that a TCP connection to this address would reach. When local is a loopback address,
  // that is a connection through the loopback interface.
  Answer findListener(const SocketEndpoint& local);

 private:
  struct SocketRelease {
    void operator()(mnl_socket* socket) const;
  };
  using Socket = std::unique_ptr<mnl_socket, SocketRelease>;

  static Socket openSocket();

  explicit SocketDiagnostics(Socket diagnostics);

  Answer ask(TransportProtocol protocol, const SocketEndpoint& local, const SocketEndpoint& remote,
             std::uint32_t interface);
  // The answer to the last question; remotePort is 0 if that was for a listener.
  Answer receive(std::uint16_t remotePort);

  const Socket diagnostics_;
  std::uint32_t sequence_ = 0;
};

}  // namespace ostravel::linuxplatform
