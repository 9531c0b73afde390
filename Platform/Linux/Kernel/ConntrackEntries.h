#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "Platform/Interface/Error.h"
#include "Platform/Interface/Result.h"
#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Kernel/NetfilterBatch.h"

struct nlmsghdr;

namespace ostravel::linuxplatform {

// The kernel's connection tracking in this network namespace (nfnetlink_conntrack). Used by one
// thread at a time.
class ConntrackEntries {
 public:
  ConntrackEntries() : socket_(openNetfilterSocket()) {}

  // Deletes the entry of the connection that started with this tuple, including its redirection:
  // its next packet then starts a new connection. Errors are of kPOSIXErrorDomain: ENOENT if there
  // is no entry.
  platform::OptionalError remove(const FlowTuple& original);

  // Called before a connection is reset by its far end. The kernel keeps the entry for ten seconds
  // after such a reset, and would redirect a new connection with the same addresses and ports as
  // before; this call prevents that. Errors as for remove().
  platform::OptionalError allowReopening(const FlowTuple& original);

  struct Usage {
    std::uint32_t count = 0;
    std::uint32_t limit = 0;
  };
  // How many entries there are in this network namespace, and the limit on them (Linux 4.18). Empty
  // if the kernel does not say.
  std::optional<Usage> usage();

  // Deletes the entries of all TCP connections that were redirected to a loopback address without a
  // listener: a new connection with the same addresses and ports would be refused there. Returns
  // how many there were. isListened returns true if the address has a listener.
  using IsListened = std::function<bool(const SocketEndpoint&)>;
  std::size_t removeDeadRedirections(const IsListened& isListened);

 private:
  struct Redirection {
    FlowTuple original;
    // The destination after redirection.
    SocketEndpoint arrived;
  };

  // Adds the attributes that follow the tuple to a request.
  using Complete = void (*)(nlmsghdr* request);

  struct Answer;

  platform::OptionalError request(std::uint16_t type, const FlowTuple& original, Complete complete);
  static std::optional<Redirection> redirectionOf(const nlmsghdr* entry);
  // Incomplete if reading the table fails.
  static std::vector<Redirection> redirections();

  // The answer to the last request; null after an error, which errno then contains.
  const nlmsghdr* receive(Answer& answer);
  // The result of the last request.
  int receiveResult();

  // If it cannot be opened there are no entries to remove; every request then fails with its error.
  const platform::Result<NetlinkSocket> socket_;
  std::uint32_t sequence_ = 0;
};

}  // namespace ostravel::linuxplatform
