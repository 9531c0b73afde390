#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ostravel::simulator {

// Everything that may go wrong, or be unusual, in a run. A fault that is off does not happen at
// all; one that is on happens to some flows, now and then.
enum class Fault : std::uint8_t {
  // The platform.
  lateCompletions,
  lateResults,
  shortReads,
  readErrors,
  writeErrors,
  openErrors,
  preemption,
  // The proxy.
  connectRefusals,
  silentConnections,
  proxyResets,
  proxyEnds,
  proxyStatuses,
  proxyGarbage,
  segmentedAnswers,
  leftovers,
  deadlines,
  silentProxy,
  earlyAnswers,
  flappingProxy,
  // The application.
  slowApplications,
  applicationResets,
  bursts,
  strangeEndpoints,
  // Time.
  clockJumps,
  suspensions,
  // The monitor, and the socket calls.
  absentMonitor,
  failingMonitor,
  stalledMonitor,
  socketErrors,
  // The provider.
  stops,
  replacements,
};
inline constexpr std::size_t kFaultCount = static_cast<std::size_t>(Fault::replacements) + 1;

// The name of a fault on the command line, such as "late-completions".
std::string_view nameOf(Fault fault);

// Which faults a run has.
class FaultMenu {
 public:
  static FaultMenu none() { return FaultMenu(0); }
  static FaultMenu all();
  // The faults of a seed: each is on in about a third of the seeds.
  static FaultMenu drawn(std::uint64_t seed);
  // "all", "none", or names with commas between them; absent when one is not a name.
  static std::optional<FaultMenu> parse(std::string_view text);

  bool has(Fault fault) const { return (bits_ & bitOf(fault)) != 0; }
  FaultMenu with(Fault fault) const { return FaultMenu(bits_ | bitOf(fault)); }
  FaultMenu without(Fault fault) const { return FaultMenu(bits_ & ~bitOf(fault)); }
  std::vector<Fault> faults() const;
  // As parse() reads it.
  std::string text() const;

  friend bool operator==(const FaultMenu&, const FaultMenu&) = default;

 private:
  explicit FaultMenu(std::uint64_t bits) : bits_(bits) {}

  static std::uint64_t bitOf(Fault fault) {
    return std::uint64_t{1} << static_cast<unsigned>(fault);
  }

  std::uint64_t bits_;
};

}  // namespace ostravel::simulator
