#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Kernel/PacketMarks.h"

namespace ostravel::linuxplatform {

// The rules of this network namespace that route packets by their mark (ip-rule(8), fwmark), as
// they were when they were read.
class RoutingRules {
 public:
  // Such a rule: packets with mark & mask == value.
  struct Rule {
    AddressFamily family = AddressFamily::ipv4;
    std::uint32_t priority = 0;
    std::uint32_t value = 0;
    std::uint32_t mask = 0;
  };

  // Empty when the kernel has none or does not tell.
  static RoutingRules read();
  explicit RoutingRules(std::vector<Rule> rules) : rules_(std::move(rules)) {}

  const std::vector<Rule>& rules() const { return rules_; }

  // A sentence for each rule that gives a meaning to bits of ours: packets that it is about would
  // be taken for ours, or ours for what it is about.
  std::vector<std::string> clashesWith(const PacketMarks& marks) const;

 private:
  bool clashesWith(std::uint32_t mask) const;
  std::optional<std::uint32_t> freeMask() const;

  std::vector<Rule> rules_;
};

}  // namespace ostravel::linuxplatform
