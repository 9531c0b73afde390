#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Kernel/PacketMarks.h"

namespace ostravel::linuxplatform {

// A snapshot of this network namespace's rules that route packets by mark (ip-rule(8), fwmark).
class RoutingRules {
 public:
  // Matches packets with mark & mask == value.
  struct Rule {
    AddressFamily family = AddressFamily::ipv4;
    std::uint32_t priority = 0;
    std::uint32_t value = 0;
    std::uint32_t mask = 0;
  };

  // Empty if the kernel has none or does not report them.
  static RoutingRules read();
  explicit RoutingRules(std::vector<Rule> rules) : rules_(std::move(rules)) {}

  // One sentence per rule that uses our bits: its packets and ours would be confused.
  std::vector<std::string> clashesWith(const PacketMarks& marks) const;

 private:
  bool clashesWith(std::uint32_t mask) const;
  std::optional<std::uint32_t> freeMask() const;

  std::vector<Rule> rules_;
};

}  // namespace ostravel::linuxplatform
