#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Kernel/FlowTuple.h"

namespace ostravel::testing {

// Sees the first packet of every TCP connection in this network namespace, from now on.
class SYNCapture {
 public:
  SYNCapture();

  // The initial sequence number of the latest connection with these addresses and ports, which has
  // already sent its SYN; 0 and a failure if it has not.
  std::uint32_t sequenceOf(const linuxplatform::FlowTuple& flow);

  // Waits for the SYN of a connection from this address, with any port.
  std::optional<linuxplatform::FlowTuple> waitForFlowFrom(
      const linuxplatform::SocketEndpoint& source);

 private:
  void readPackets();

  const FileDescriptor socket_;
  std::map<linuxplatform::FlowTuple, std::uint32_t> sequences_;
};

}  // namespace ostravel::testing
