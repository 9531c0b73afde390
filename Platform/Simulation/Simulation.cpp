#include "Platform/Simulation/Simulation.h"

#include <stdexcept>
#include <utility>

#include "Platform/Simulation/Schedule/SimulatedQueue.h"
#include "Platform/Simulation/Schedule/SimulatedTimer.h"

namespace ostravel::simulation {

namespace {

// Independent sources of one seed, so that switching faults on leaves the identifiers alone.
enum Stream : std::uint64_t { kOrderStream, kFaultStream, kUUIDStream };

}  // namespace

Simulation::Simulation(const SimulationOptions& options)
    : run_{{options.order, SeededRandom(options.seed, kOrderStream)},
           {options.faults, SeededRandom(options.seed, kFaultStream)},
           {}},
      mainBundleIdentifier_(options.mainBundleIdentifier),
      clock_(run_.queue),
      uuidSource_(SeededRandom(options.seed, kUUIDStream)),
      sockets_(run_.faults),
      defaultLog_(run_.queue, logRecords_, "", "") {
  run_.journal.setEnabled(options.keepsJournal);
}

Simulation::~Simulation() {
  // Breaks cycles: completions and items may own objects that own them.
  run_.queue.clear();
  for (const auto& weakFlow : flows_) {
    if (const auto flow = weakFlow.lock()) {
      flow->dropCompletions();
    }
  }
  for (std::size_t i = 0; i < connections_.size(); ++i) {
    connections_[i].peer->dropCompletions();
  }
  heldNetworkSettings_.clear();
  run_.queue.clear();
}

std::vector<std::string> Simulation::logLines() const {
  std::vector<std::string> lines;
  for (const auto& record : logRecords_) {
    lines.push_back(record.line);
  }
  return lines;
}

std::vector<std::string> Simulation::logLines(platform::LogLevel level) const {
  std::vector<std::string> lines;
  for (const auto& record : logRecords_) {
    if (record.level == level) {
      lines.push_back(record.line);
    }
  }
  return lines;
}

std::shared_ptr<SimulatedTCPFlow> Simulation::makeTCPFlow(
    std::string signingIdentifier, std::optional<platform::HostEndpoint> remoteEndpoint) {
  auto flow =
      std::make_shared<SimulatedTCPFlow>(run_, "flow " + std::to_string(++flowCount_),
                                         std::move(signingIdentifier), std::move(remoteEndpoint));
  flows_.push_back(flow);
  return flow;
}

std::shared_ptr<SimulatedUDPFlow> Simulation::makeUDPFlow(
    std::string signingIdentifier, std::optional<platform::HostEndpoint> localEndpoint) {
  return std::make_shared<SimulatedUDPFlow>(run_, "flow " + std::to_string(++flowCount_),
                                            std::move(signingIdentifier), std::move(localEndpoint));
}

void Simulation::answerNetworkSettings(platform::OptionalError error) {
  networkSettingsAnswer_ = std::move(error);
}

void Simulation::holdNetworkSettings() {
  holdingNetworkSettings_ = true;
}

void Simulation::completeNetworkSettings(platform::OptionalError error) {
  if (heldNetworkSettings_.empty()) {
    throw std::logic_error("no network settings wait for an answer");
  }
  auto completion = std::move(heldNetworkSettings_.front());
  heldNetworkSettings_.erase(heldNetworkSettings_.begin());
  deliverNetworkSettings(std::move(completion), std::move(error));
}

void Simulation::setProtocolConfiguration(
    std::optional<platform::TunnelProviderProtocol> configuration) {
  protocolConfiguration_ = std::move(configuration);
}

std::shared_ptr<SimulatedTCPConnection> Simulation::connection(std::size_t number) const {
  return connections_.at(number).connection.lock();
}

std::shared_ptr<SimulatedPeer> Simulation::peer(std::size_t number) const {
  return connections_.at(number).peer;
}

const platform::HostEndpoint& Simulation::connectionEndpoint(std::size_t number) const {
  return connections_.at(number).endpoint;
}

platform::TLSPolicy Simulation::connectionTLS(std::size_t number) const {
  return connections_.at(number).tls;
}

void Simulation::onConnectionCreated(ConnectionHandler handler) {
  connectionHandler_ = std::move(handler);
}

std::shared_ptr<platform::DispatchQueue> Simulation::makeQueue(std::string label,
                                                               platform::DispatchQueueKind kind) {
  return std::make_shared<SimulatedQueue>(run_.queue, std::move(label), kind);
}

std::shared_ptr<platform::DispatchTimer> Simulation::makeTimer(
    std::shared_ptr<platform::DispatchQueue> queue) {
  return std::make_shared<SimulatedTimer>(run_.queue, std::move(queue));
}

std::shared_ptr<platform::Log> Simulation::makeLog(std::string subsystem, std::string category) {
  return std::make_shared<SimulatedLog>(run_.queue, logRecords_, std::move(subsystem),
                                        std::move(category));
}

void Simulation::systemLog(std::string_view line) {
  systemLogLines_.emplace_back(line);
}

std::optional<std::string> Simulation::mainBundleIdentifier() const {
  return mainBundleIdentifier_;
}

void Simulation::setTunnelNetworkSettings(platform::TransparentProxyNetworkSettings settings,
                                          platform::ErrorCompletion completion) {
  networkSettings_.push_back(std::move(settings));
  if (holdingNetworkSettings_) {
    heldNetworkSettings_.push_back(std::move(completion));
    return;
  }
  deliverNetworkSettings(std::move(completion), networkSettingsAnswer_);
}

void Simulation::deliverNetworkSettings(platform::ErrorCompletion completion,
                                        platform::OptionalError error) {
  run_.queue.postAfter(run_.faults.latency(), [completion = std::move(completion),
                                               error = std::move(error)] { completion(error); });
}

std::shared_ptr<platform::TCPConnection> Simulation::createTCPConnection(
    const platform::HostEndpoint& endpoint, platform::TLSPolicy tls) {
  auto connection = std::make_shared<SimulatedTCPConnection>(
      run_, "connection " + std::to_string(connections_.size() + 1), endpoint, tls);
  connections_.push_back({endpoint, tls, connection, connection->peer()});
  if (connectionHandler_) {
    connectionHandler_(*connection);
  }
  return connection;
}

std::optional<platform::TunnelProviderProtocol> Simulation::protocolConfiguration() const {
  return protocolConfiguration_;
}

}  // namespace ostravel::simulation
