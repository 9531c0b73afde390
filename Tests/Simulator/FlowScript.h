#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Simulation/Schedule/SeededRandom.h"
#include "Platform/Simulation/SimulatedTCPConnection.h"
#include "Platform/Simulation/SimulatedTCPFlow.h"
#include "Tests/Simulator/HistoryEvent.h"
#include "Tests/Simulator/Strand.h"
#include "Tests/Simulator/World.h"

namespace ostravel::simulator {

// What one flow is and what its application and the proxy do with it. Draws from a separate source,
// so that a flow does not depend on which others there are. Owned by the run until the flow is
// destroyed, and by what it has planned.
class FlowScript : public std::enable_shared_from_this<FlowScript> {
 public:
  enum class Protocol : std::uint8_t { tcp, udp, unknown };

  FlowScript(World& world, std::uint64_t seed, std::uint32_t number);
  virtual ~FlowScript() = default;

  std::uint32_t number() const { return number_; }
  Protocol protocol() const { return protocol_; }
  const OfferedFlow& facts() const { return facts_; }

  // The last identifier that the system drew on behalf of this flow.
  void setIdentifier(std::string identifier) { identifier_ = std::move(identifier); }
  const std::string& identifier() const { return identifier_; }

  // The application's side: its flow is about to be offered.
  virtual void begin(const std::shared_ptr<simulation::SimulatedTCPFlow>& flow,
                     const std::shared_ptr<Strand>& strand);
  const std::shared_ptr<Strand>& strand() const { return strand_; }
  // The proxy's side.
  virtual void connect(const std::shared_ptr<simulation::SimulatedTCPConnection>& connection);
  virtual void receiveRequest();

  // Both sides end, without anything unusual.
  void windUp();
  // At the end of a run.
  void dropCompletions();

 protected:
  // For a test that decides what happens.
  FlowScript(World& world, std::uint32_t number, OfferedFlow facts);

  World& world() { return world_; }
  const std::shared_ptr<simulation::SimulatedPeer>& application() const { return application_; }
  const std::shared_ptr<simulation::SimulatedPeer>& proxy() const { return proxy_; }
  void keep(const std::shared_ptr<simulation::SimulatedTCPFlow>& flow,
            const std::shared_ptr<Strand>& strand);
  void keep(const std::shared_ptr<simulation::SimulatedTCPConnection>& connection);

 private:
  using Action = void (FlowScript::*)();

  bool strikes(Fault fault, std::uint64_t odds) {
    return world_.has(fault) && random_.below(odds) == 0;
  }
  void after(std::chrono::nanoseconds delay, Action action);
  std::chrono::nanoseconds shortDelay();
  std::string payload();

  void sendFromApplication();
  void endApplication();
  void resetApplication();
  void releaseApplication();
  void accept();
  void answer();
  std::string answerText();
  void sendAnswer();
  void sendFromOrigin();
  void endProxy();
  void resetProxy();

  World& world_;
  const std::uint32_t number_;
  simulation::SeededRandom random_;
  Protocol protocol_ = Protocol::tcp;
  OfferedFlow facts_;
  std::string identifier_;

  std::weak_ptr<simulation::SimulatedTCPFlow> flow_;
  std::shared_ptr<Strand> strand_;
  std::shared_ptr<simulation::SimulatedPeer> application_;
  std::weak_ptr<simulation::SimulatedTCPConnection> connection_;
  std::shared_ptr<simulation::SimulatedPeer> proxy_;
  std::chrono::nanoseconds connectedAt_{0};
  std::uint64_t chunksToSend_ = 0;
  std::uint64_t chunksFromOrigin_ = 0;
  bool applicationEnded_ = false;
  bool proxyEnded_ = false;
  bool answered_ = false;
  bool isSuccess_ = false;
  // The rest of the answer.
  std::string answer_;
  bool isWindingUp_ = false;
};

}  // namespace ostravel::simulator
