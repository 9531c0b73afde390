#include "Tests/Extension/Support/ProviderHarness.h"

#include <gtest/gtest.h>

#include <utility>

#include "Tests/Extension/Support/Bytes.h"

namespace ostravel::test {

ProviderHarness::ProviderHarness(const simulation::SimulationOptions& options)
    : simulation_(options),
      provider_(std::make_shared<PacketTunnelProvider>(simulation_, simulation_)) {
  configure(kSocketPath);
  sockets().localListening(true);
  sockets().proxyListening(true);
}

void ProviderHarness::configure(std::optional<platform::ConfigurationValue> socketPath) {
  platform::ProviderConfiguration configuration;
  if (socketPath) {
    configuration.emplace("monitoringSocketPath", *std::move(socketPath));
  }
  simulation_.setProtocolConfiguration(platform::TunnelProviderProtocol{configuration});
}

void ProviderHarness::startProvider() {
  provider_->startProxy(std::nullopt, [](const platform::OptionalError&) {});
  simulation_.run();
}

void ProviderHarness::stopProvider(platform::ProviderStopReason reason) {
  provider_->stopProxy(reason, [this] { simulation_.journal().add("stopped"); });
}

std::shared_ptr<simulation::SimulatedTCPFlow> ProviderHarness::makeFlow(
    const std::string& appId, std::optional<platform::HostEndpoint> endpoint) {
  return simulation_.makeTCPFlow(appId, std::move(endpoint));
}

std::shared_ptr<simulation::SimulatedTCPFlow> ProviderHarness::takeFlow() {
  auto flow = makeFlow();
  EXPECT_TRUE(provider_->handleNewFlow(flow));
  simulation_.run();
  return flow;
}

bool ProviderHarness::bypassesNewFlows() {
  // For an application that no test uses, because the decision is cached.
  return provider_->decideFlowAction("com.example.gate", "example.org", /*isUDP=*/false) ==
         PacketTunnelProvider::FlowAction::bypass;
}

void ProviderHarness::establish(std::size_t number) {
  simulation_.connection(number)->accept();
  simulation_.peer(number)->send(kSuccess);
  simulation_.run();
}

std::vector<MonitoringRecord> ProviderHarness::records() {
  simulation_.run();
  std::vector<MonitoringRecord> records;
  for (const auto& delivery : sockets().localDeliveries()) {
    records.push_back(parseFrame(bytesOf(delivery)));
  }
  return records;
}

std::vector<EventFacts> ProviderHarness::events() {
  std::vector<EventFacts> events;
  for (const auto& record : records()) {
    events.push_back(factsOf(record));
  }
  return events;
}

std::vector<EventFacts> ProviderHarness::events(std::string_view signal) {
  auto found = events();
  std::erase_if(found, [signal](const EventFacts& event) { return event.signal != signal; });
  return found;
}

std::vector<std::string> ProviderHarness::signals() {
  std::vector<std::string> signals;
  for (const auto& event : events()) {
    signals.push_back(event.signal);
  }
  return signals;
}

}  // namespace ostravel::test
