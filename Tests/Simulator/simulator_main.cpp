// Plays runs of the system, decided by their seeds, until one breaks a promise.

#include <jansson.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <iostream>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Tests/Simulator/Shrinker.h"
#include "Tests/Simulator/SimulatorRun.h"

namespace {

using ostravel::simulator::Canary;
using ostravel::simulator::FaultMenu;
using ostravel::simulator::History;
using ostravel::simulator::play;
using ostravel::simulator::RunCounts;
using ostravel::simulator::RunOptions;
using ostravel::simulator::RunResult;

constexpr int kFailed = 1;
constexpr int kUsage = 2;

struct Totals {
  std::uint64_t runs = 0;
  RunCounts counts;
  std::uint64_t digest = 0;
};

std::string hexadecimal(std::uint64_t number) {
  std::string text(16, '0');
  for (auto digit = text.rbegin(); digit != text.rend(); ++digit, number >>= 4U) {
    *digit = "0123456789abcdef"[number & 15U];
  }
  return text;
}

std::string joined(const std::vector<std::uint32_t>& numbers) {
  std::string text;
  for (const auto number : numbers) {
    text += (text.empty() ? "" : ",") + std::to_string(number);
  }
  return text;
}

std::string optionsText(const RunOptions& options) {
  std::string text = "--seed " + std::to_string(options.seed) + " --flows " +
                     std::to_string(options.flows) + " --faults " + options.faults->text();
  if (options.only) {
    text += " --only " + joined(*options.only);
  }
  return text;
}

void printSmallest(const RunOptions& options) {
  std::cout << "shrinking...\n";
  RunOptions smallest = ostravel::simulator::shrink(options);
  smallest.trace = History::Trace::kept;
  const auto result = play(smallest);
  const auto flow = result.violation->flow;
  std::cout << "the smallest run that fails has " << smallest.only->size() << " flows:\n  "
            << "ostravel-simulator " << optionsText(smallest) << " --trace\n  "
            << result.violation->invariant << "\n";
  for (const auto& line : result.trace) {
    if (flow == 0 || line.flow == flow) {
      std::cout << "    " << line.text << "\n";
    }
  }
}

void printFailure(const RunOptions& options, const RunResult& failed) {
  std::cout << "seed " << options.seed << ": " << failed.violation->invariant;
  if (failed.violation->flow != 0) {
    std::cout << " (flow " << failed.violation->flow << ")";
  }
  std::cout << "\n";
}

std::optional<std::pair<std::uint64_t, std::uint64_t>> parseRange(std::string_view text) {
  const auto dots = text.find("..");
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  const auto number = [](std::string_view digits, std::uint64_t& value) {
    const auto end = digits.data() + digits.size();
    const auto parsed = std::from_chars(digits.data(), end, value);
    return parsed.ec == std::errc() && parsed.ptr == end;
  };
  if (dots == std::string_view::npos || !number(text.substr(0, dots), first) ||
      !number(text.substr(dots + 2), last) || last < first) {
    return std::nullopt;
  }
  return std::pair(first, last);
}

}  // namespace

int main(int argc, char** argv) {
  RunOptions options;
  std::string seeds;
  std::string faults;
  std::vector<std::uint32_t> only;
  bool hasTrace = false;
  bool isAsFound = false;
  const std::map<std::string, Canary> canaries = {{"none", Canary::none},
                                                  {"completes-twice", Canary::completesTwice},
                                                  {"loses-removal", Canary::losesRemoval},
                                                  {"altered-byte", Canary::alteredByte},
                                                  {"silent-watchdog", Canary::silentWatchdog}};

  CLI::App app("Plays the system in simulated runs and checks its promises.", "ostravel-simulator");
  app.add_option("--seed", options.seed, "The run to play");
  app.add_option("--seeds", seeds, "The runs to play, as FIRST..LAST");
  app.add_option("--flows", options.flows, "How many flows a run has");
  app.add_option("--faults", faults, "all, none, or names with commas; otherwise the seed decides");
  app.add_option("--only", only, "Only these flows of the run")->delimiter(',');
  app.add_option("--canary", options.canary, "A defect to be found: completes-twice, ...")
      ->transform(CLI::CheckedTransformer(canaries));
  app.add_flag("--trace", hasTrace, "Print everything that happens");
  app.add_flag("--no-shrinking", isAsFound, "Leave a run that fails as it is");
  CLI11_PARSE(app, argc, argv);

  if (!faults.empty()) {
    options.faults = FaultMenu::parse(faults);
    if (!options.faults) {
      std::cerr << "ostravel-simulator: there is no such fault in " << faults << "\n"
                << "the faults are " << FaultMenu::all().text() << "\n";
      return kUsage;
    }
  }
  if (!only.empty()) {
    std::sort(only.begin(), only.end());
    options.only = only;
  }
  auto range = std::pair(options.seed, options.seed);
  if (!seeds.empty()) {
    const auto parsed = parseRange(seeds);
    if (!parsed) {
      std::cerr << "ostravel-simulator: seeds are given as FIRST..LAST\n";
      return kUsage;
    }
    range = *parsed;
  }
  options.trace = hasTrace ? History::Trace::kept : History::Trace::none;

  // Events are encoded with the same memory as everything else.
  json_set_alloc_funcs([](std::size_t size) { return ::operator new(size, std::nothrow); },
                       [](void* block) { ::operator delete(block); });
  Totals totals;
  for (options.seed = range.first; options.seed <= range.second; ++options.seed) {
    const auto result = play(options);
    for (const auto& line : result.trace) {
      std::cout << line.text << "\n";
    }
    if (result.violation) {
      printFailure(options, result);
      if (!isAsFound) {
        printSmallest(options);
      }
      return kFailed;
    }
    ++totals.runs;
    totals.counts += result.counts;
    totals.digest = totals.digest * 31 + result.digest;
    if (hasTrace) {
      std::cout << "faults: " << result.faults.text() << "\n";
    }
  }
  std::cout << totals.runs << " runs, " << totals.counts.flows << " flows, "
            << totals.counts.tunnels << " tunnels, " << totals.counts.successes << " established, "
            << totals.counts.timeouts << " timed out, " << totals.counts.rejections
            << " over the limit, hash " << hexadecimal(totals.digest) << "\n";
  return 0;
}
