#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <vector>

#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Kernel/NetfilterBatch.h"

struct nlmsghdr;

namespace ostravel::linuxplatform {

// The kernel's memory of connections, in this network namespace (nfnetlink_conntrack). Used by one
// thread at a time.
class ConntrackEntries {
 public:
  ConntrackEntries() : socket_(openNetfilterSocket()) {}

  // Makes the kernel forget the connection that began like this, and where it was redirected to:
  // its next packet is a first one again. 0, ENOENT when there is none, or what went wrong.
  int remove(const FlowTuple& original);

  // The same for all TCP connections that were redirected to a loopback address where nobody
  // listens any more: a new one with the same addresses and ports would be refused there. How many
  // there were. isListened tells whether somebody listens.
  using IsListened = std::function<bool(const SocketEndpoint&)>;
  std::size_t removeDeadRedirections(const IsListened& isListened);

 private:
  struct Redirection {
    FlowTuple original;
    // Where it was redirected to.
    SocketEndpoint arrived;
  };

  static std::optional<Redirection> redirectionOf(const nlmsghdr* entry);
  // As far as the table could be read.
  std::vector<Redirection> redirections();

  const NetlinkSocket socket_;
};

}  // namespace ostravel::linuxplatform
