// As many publishers as a fleet has machines, in one process, against a NATS server: how fast the
// events are stored, and how long all machines take to reconnect after an outage of the server.

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <string>
#include <thread>

#include "Base/DescriptorLimit.h"
#include "Companion/Fleet/FleetPublisher.h"

namespace {

using namespace ostravel::companion;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// As large as an event usually is.
std::string eventText(int number) {
  return "{\"number\":" + std::to_string(number) + ",\"filling\":\"" + std::string(430, 'x') +
         "\"}";
}

FleetPublisher::Counts sum(const std::deque<FleetPublisher>& machines) {
  FleetPublisher::Counts result;
  for (const FleetPublisher& machine : machines) {
    const FleetPublisher::Counts counts = machine.counts();
    result.waiting += counts.waiting;
    result.dropped += counts.dropped;
  }
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Publishes events as the machines of a fleet do.", "benchmark_fleet");
  std::string url = "nats://127.0.0.1:4222";
  std::string folder;
  int machineCount = 1000;
  int eventCount = 100;
  int pause = 0;
  app.add_option("--server", url, "The NATS server");
  app.add_option("--folder", folder, "Where the spools are made")->required();
  app.add_option("--machines", machineCount, "How many machines");
  app.add_option("--events", eventCount, "How many events each sends");
  app.add_option("--pause", pause, "Milliseconds between two events of a machine");
  CLI11_PARSE(app, argc, argv);
  ostravel::raiseDescriptorLimit();

  std::deque<FleetPublisher> machines;
  for (int machine = 0; machine < machineCount; ++machine) {
    machines.emplace_back(FleetPublisher::Options{
        .server = {.url = url}, .folder = folder + "/" + std::to_string(machine)});
  }
  const Clock::time_point start = Clock::now();
  for (int number = 0; number < eventCount; ++number) {
    for (int machine = 0; machine < machineCount; ++machine) {
      const std::string host = "machine-" + std::to_string(machine);
      machines[static_cast<std::size_t>(machine)].publish(
          {.host = host,
           .bootId = "1b4e28ba-2fa1-11d2-883f-0016d3cca427",
           .id = host + "-" + std::to_string(start.time_since_epoch().count()) + "-" +
                 std::to_string(number),
           .json = eventText(number)});
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(pause));
  }
  const double sent = secondsSince(start);
  while (sum(machines).waiting > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const double stored = secondsSince(start);
  std::printf(
      "machines %d, events %d, handed over in %.1f s, stored in %.1f s (%.0f/s), dropped %llu\n",
      machineCount, machineCount * eventCount, sent, stored, machineCount * eventCount / stored,
      static_cast<unsigned long long>(sum(machines).dropped));
  return 0;
}
