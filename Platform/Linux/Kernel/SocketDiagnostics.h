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

// The kernel's information about a socket.
struct SocketInformation {
  // The user who created it.
  uid_t uid = 0;
  // As in /proc/PID/fd; 0 when no process holds the socket any more.
  std::uint32_t inode = 0;
  // Unique until the next boot (SO_COOKIE).
  std::uint64_t cookie = 0;
  // 0 if the kernel does not report it.
  std::uint64_t cgroup = 0;
  // The interface or VRF that it is bound to (SO_BINDTODEVICE); 0 if none. A socket that is
  // connected to an IPv6 link-local address is bound as well, to its zone.
  std::uint32_t boundInterface = 0;
  // TCP state (netinet/tcp.h).
  std::uint8_t state = 0;
};

// Finds sockets of the network namespace in which it was created (sock_diag(7)). Every query is one
// exact look-up in the kernel's tables, never a scan, and the kernel answers while the query is
// being sent. Used by one thread at a time.
class SocketDiagnostics {
 public:
  // Empty if there is no such socket. After an error, of kPOSIXErrorDomain, it may exist.
  using Answer = platform::Result<std::optional<SocketInformation>>;

  // Fails if the kernel does not answer such queries.
  static platform::Result<std::unique_ptr<SocketDiagnostics>> open();

  // The socket that sends the flow's packets, of either family, connected or not (UDP). A socket
  // that is bound to an interface is found only if this is outputInterface.
  Answer find(const FlowTuple& flow, std::uint32_t outputInterface);

  // The socket that a TCP connection to this address would reach. If local is a loopback address,
  // the connection uses the loopback interface.
  Answer findListener(const SocketEndpoint& local);
  // True as well if it is unknown.
  bool mayHaveListener(const SocketEndpoint& local);

 private:
  struct SocketRelease {
    void operator()(mnl_socket* socket) const;
  };
  using Socket = std::unique_ptr<mnl_socket, SocketRelease>;

  static Socket openSocket();

  explicit SocketDiagnostics(Socket diagnostics);

  Answer ask(TransportProtocol protocol, const SocketEndpoint& local, const SocketEndpoint& remote,
             std::uint32_t interface);
  // The answer to the last query; remotePort is 0 if that was for a listener.
  Answer receive(std::uint16_t remotePort);

  const Socket diagnostics_;
  std::uint32_t sequence_ = 0;
};

}  // namespace ostravel::linuxplatform
