#include "Tests/Simulator/ObservedFlow.h"

#include <utility>

#include "Tests/Simulator/Completions.h"

namespace ostravel::simulator {

namespace {

using platform::Data;
using platform::HostEndpoint;
using platform::OptionalError;

std::optional<HostEndpoint> endpointOf(const OfferedFlow& facts) {
  if (!facts.hasEndpoint) {
    return std::nullopt;
  }
  return HostEndpoint{facts.host, facts.port};
}

}  // namespace

ObservedFlow::ObservedFlow(World& world, std::uint32_t number, const OfferedFlow& facts)
    : world_(world),
      number_(number),
      flow_(std::make_shared<simulation::SimulatedTCPFlow>(world.run(), "", facts.identifier,
                                                           endpointOf(facts))),
      strand_(std::make_shared<Strand>(world)) {
  world_.addObject();
}

ObservedFlow::~ObservedFlow() {
  world_.removeObject();
  world_.endFlow(number_);
  world_.record({.kind = HistoryKind::flowDestroyed, .flow = number_});
}

std::string ObservedFlow::sourceAppSigningIdentifier() const {
  return flow_->sourceAppSigningIdentifier();
}

std::optional<HostEndpoint> ObservedFlow::remoteEndpoint() const {
  world_.preemptionPoint();
  return flow_->remoteEndpoint();
}

void ObservedFlow::open(std::optional<HostEndpoint> localEndpoint,
                        platform::ErrorCompletion completion) {
  world_.record({.kind = HistoryKind::flowOpen, .flow = number_});
  world_.preemptionPoint();
  flow_->open(std::move(localEndpoint),
              observed(world_, strand_, HistoryKind::flowOpenDone, number_, std::move(completion)));
}

void ObservedFlow::read(platform::ReadCompletion completion) {
  world_.record({.kind = HistoryKind::flowRead, .flow = number_});
  world_.preemptionPoint();
  flow_->read(observed(world_, strand_, HistoryKind::flowReadDone, number_, std::move(completion)));
}

void ObservedFlow::write(Data data, platform::ErrorCompletion completion) {
  if (world_.strikesCanary(Canary::alteredByte)) {
    std::string bytes(viewOf(data));
    bytes.back() = static_cast<char>(bytes.back() ^ 1);
    data = Data::copyOf(bytes);
  }
  world_.record({.kind = HistoryKind::flowWrite, .flow = number_, .bytes = viewOf(data)});
  world_.preemptionPoint();
  flow_->write(std::move(data), observed(world_, strand_, HistoryKind::flowWriteDone, number_,
                                         std::move(completion)));
}

void ObservedFlow::closeRead(OptionalError error) {
  world_.record({.kind = HistoryKind::flowCloseRead, .flow = number_, .error = pointerTo(error)});
  world_.preemptionPoint();
  flow_->closeRead(std::move(error));
}

void ObservedFlow::closeWrite(OptionalError error) {
  world_.record({.kind = HistoryKind::flowCloseWrite, .flow = number_, .error = pointerTo(error)});
  world_.preemptionPoint();
  flow_->closeWrite(std::move(error));
}

ObservedUDPFlow::ObservedUDPFlow(World& world, std::uint32_t number, const OfferedFlow& facts)
    : world_(world), number_(number), facts_(facts) {
  world_.addObject();
}

ObservedUDPFlow::~ObservedUDPFlow() {
  world_.removeObject();
}

std::optional<HostEndpoint> ObservedUDPFlow::localEndpoint() const {
  return endpointOf(facts_);
}

void ObservedUDPFlow::closeRead(OptionalError error) {
  world_.record({.kind = HistoryKind::flowCloseRead, .flow = number_, .error = pointerTo(error)});
}

void ObservedUDPFlow::closeWrite(OptionalError error) {
  world_.record({.kind = HistoryKind::flowCloseWrite, .flow = number_, .error = pointerTo(error)});
}

ObservedUnknownFlow::ObservedUnknownFlow(World& world, std::uint32_t number,
                                         const OfferedFlow& facts)
    : world_(world), number_(number), identifier_(facts.identifier) {}

void ObservedUnknownFlow::closeRead(OptionalError error) {
  world_.record({.kind = HistoryKind::flowCloseRead, .flow = number_, .error = pointerTo(error)});
}

void ObservedUnknownFlow::closeWrite(OptionalError error) {
  world_.record({.kind = HistoryKind::flowCloseWrite, .flow = number_, .error = pointerTo(error)});
}

}  // namespace ostravel::simulator
