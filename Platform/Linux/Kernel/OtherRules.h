#pragma once

#include <cstdint>
#include <optional>

#include "Platform/Linux/Kernel/NetfilterBatch.h"

namespace ostravel::linuxplatform {

// Finds out which rules other programs have in this network namespace, as far as our own rules
// depend on them: nf_tables, and the legacy tables of iptables-legacy(8). Used by one thread at a
// time.
class OtherRules {
 public:
  // Chains at the priority raw, which come before connection tracking, are within this distance of
  // it.
  static constexpr std::int32_t kRawMargin = 10;

  struct Findings {
    // For outgoing packets: a rule, or a chain that drops by default.
    bool onOutput = false;
    // The same for incoming packets at the priority raw.
    bool atRaw = false;
  };

  OtherRules();

  // Assumes the worst if the kernel does not say.
  Findings find();

  // False if other programs have certainly added nothing since the previous call. The first call
  // returns true, and so does every call while there are legacy tables, whose changes are not
  // counted.
  bool mayHaveChanged();

 private:
  // The number of changes to nf_tables, ours included. Empty if the kernel does not say.
  std::optional<std::uint32_t> generation();
  std::optional<Findings> findOnce();

  // Null if netfilter cannot be reached.
  const NetlinkSocket socket_;
  std::uint32_t sequence_ = 0;
  std::optional<std::uint32_t> otherChanges_;
};

}  // namespace ostravel::linuxplatform
