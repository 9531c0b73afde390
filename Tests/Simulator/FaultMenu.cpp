#include "Tests/Simulator/FaultMenu.h"

#include <algorithm>
#include <array>

#include "Platform/Simulation/Schedule/SeededRandom.h"
#include "Tests/Simulator/RandomStreams.h"

namespace ostravel::simulator {

namespace {

// In the order of the enumeration.
constexpr std::array<std::string_view, kFaultCount> kNames = {
    "late-completions", "late-results",      "short-reads",
    "read-errors",      "write-errors",      "open-errors",
    "preemption",       "connect-refusals",  "silent-connections",
    "proxy-resets",     "proxy-ends",        "proxy-statuses",
    "proxy-garbage",    "segmented-answers", "leftovers",
    "deadlines",        "silent-proxy",      "early-answers",
    "flapping-proxy",   "slow-applications", "application-resets",
    "bursts",           "strange-endpoints", "clock-jumps",
    "suspensions",      "absent-monitor",    "failing-monitor",
    "stalled-monitor",  "socket-errors",     "stops",
    "replacements"};

}  // namespace

std::string_view nameOf(Fault fault) {
  return kNames[static_cast<std::size_t>(fault)];
}

FaultMenu FaultMenu::all() {
  return FaultMenu((std::uint64_t{1} << kFaultCount) - 1);
}

FaultMenu FaultMenu::drawn(std::uint64_t seed) {
  simulation::SeededRandom random(seed, streams::kMenu);
  FaultMenu menu = none();
  for (std::size_t i = 0; i < kFaultCount; ++i) {
    if (random.below(3) == 0) {
      menu = menu.with(static_cast<Fault>(i));
    }
  }
  return menu;
}

std::optional<FaultMenu> FaultMenu::parse(std::string_view text) {
  if (text == "all") {
    return all();
  }
  FaultMenu menu = none();
  if (text == "none") {
    return menu;
  }
  while (true) {
    const auto comma = text.find(',');
    const auto* const name = std::find(kNames.begin(), kNames.end(), text.substr(0, comma));
    if (name == kNames.end()) {
      return std::nullopt;
    }
    menu = menu.with(static_cast<Fault>(name - kNames.begin()));
    if (comma == std::string_view::npos) {
      return menu;
    }
    text.remove_prefix(comma + 1);
  }
}

std::vector<Fault> FaultMenu::faults() const {
  std::vector<Fault> faults;
  for (std::size_t i = 0; i < kFaultCount; ++i) {
    if (has(static_cast<Fault>(i))) {
      faults.push_back(static_cast<Fault>(i));
    }
  }
  return faults;
}

std::string FaultMenu::text() const {
  std::string text;
  for (const Fault fault : faults()) {
    text += (text.empty() ? "" : ",") + std::string(nameOf(fault));
  }
  return text.empty() ? "none" : text;
}

}  // namespace ostravel::simulator
