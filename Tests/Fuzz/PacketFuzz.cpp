// The first packet of a flow as the kernel hands it over: whatever it contains, nothing beyond its
// end is read, and more bytes after the ports change nothing.

#include <span>
#include <vector>

#include "Platform/Linux/Kernel/PacketParser.h"
#include "Tests/Fuzz/FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using ostravel::fuzz::require;
  using ostravel::linuxplatform::parseFirstPacket;

  // On the heap and exactly as large, so that a sanitizer sees every byte too many.
  const auto* const bytes = reinterpret_cast<const std::byte*>(data);
  const std::vector<std::byte> packet(bytes, bytes + size);
  const auto parsed = parseFirstPacket(packet);
  if (!parsed) {
    return 0;
  }
  require(parsed->tuple.source.family == parsed->tuple.destination.family,
          "both ends have the same family");
  require(!parsed->tuple.destination.addressText().empty(), "an address can be written");
  // Another place for each packet; all of them would take most of a fuzzer's time.
  const std::size_t kept = (parsed->tuple.source.port * 31U + size) % size;
  const std::vector<std::byte> shorter(bytes, bytes + kept);
  const auto again = parseFirstPacket(shorter);
  require(!again || again == parsed, "a truncated packet is another one or none");
  return 0;
}
