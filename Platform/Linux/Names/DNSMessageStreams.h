#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <span>
#include <vector>

#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Kernel/PacketParser.h"
#include "Platform/Linux/Names/DNSMessage.h"

namespace ostravel::linuxplatform {

// Reassembles DNS messages carried by TCP (RFC 1035, section 4.2.2), each direction of a connection
// separately. A stream that is out of order, has too long a message, or was not seen from its
// beginning is dropped; this only costs a name. Used by one thread at a time.
class DNSMessageStreams {
 public:
  // When it is full, the least recently used stream is dropped. Half a megabyte at most.
  static constexpr std::size_t kCapacity = 128;

  // Passes every message that the packet completes.
  void receive(const TransportPacket& packet,
               const std::function<void(std::span<const std::byte>)>& handler);

  std::size_t size() const { return streams_.size(); }

 private:
  struct Stream {
    FlowTuple tuple;
    // The sequence number of the next byte.
    std::uint32_t next = 0;
    std::vector<std::byte> bytes;
  };
  using Position = std::list<Stream>::iterator;

  void begin(const TransportPacket& packet);
  void end(const FlowTuple& tuple);
  // False if the stream must be dropped.
  static bool append(Stream& stream, const TransportPacket& packet);
  static bool takeMessages(Stream& stream,
                           const std::function<void(std::span<const std::byte>)>& handler);

  // Most recently used first.
  std::list<Stream> streams_;
  std::map<FlowTuple, Position> positions_;
};

}  // namespace ostravel::linuxplatform
