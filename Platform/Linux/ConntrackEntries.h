#pragma once

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

 private:
  const NetlinkSocket socket_;
};

}  // namespace ostravel::linuxplatform
