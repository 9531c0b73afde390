#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "Platform/Linux/FlowTuple.h"
#include "Platform/Linux/NetfilterBatch.h"

namespace ostravel::linuxplatform {

// The kernel's memory of connections, in this network namespace (nfnetlink_conntrack). Used by one
// thread at a time.
class ConntrackEntries {
 public:
  ConntrackEntries() : socket_(openNetfilterSocket()) {}

  // Makes the kernel forget the connection that began like this, and where it was redirected to:
  // its next packet is a first one again. 0, ENOENT when there is none, or what went wrong.
  int remove(const FlowTuple& original);

  // The same for all TCP connections that were redirected to a loopback address and reset by what
  // listened there. The kernel keeps them for some seconds, in which it would redirect new ones
  // with the same addresses and ports. How many there were.
  std::size_t removeResetRedirections();

 private:
  // Absent when the table could not be read to its end.
  std::optional<std::vector<FlowTuple>> resetRedirections();

  const NetlinkSocket socket_;
};

}  // namespace ostravel::linuxplatform
