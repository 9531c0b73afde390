#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Extension/FilterDataProvider/PacketTunnelProvider.h"
#include "Tests/Simulator/FlowScript.h"
#include "Tests/Simulator/HistoryChecker.h"
#include "Tests/Simulator/SimulatorPlatform.h"
#include "Tests/Simulator/World.h"

namespace ostravel::simulator {

// What the two sides of a flow do once the proxy has the request.
enum class Move : std::uint8_t {
  // The proxy.
  answer,
  answerWithLeftover,
  reject,
  sendFromProxy,
  resetProxy,
  endProxy,
  // The application.
  sendFromApplication,
  sendAndEndApplication,
  endApplication,
  resetApplication,
};

struct Step {
  // A step is its move, where neither of the others matters.
  Step(Move what) : move(what) {}  // NOLINT(google-explicit-constructor)
  Step(Move what, std::string sent, std::chrono::nanoseconds wait)
      : move(what), bytes(std::move(sent)), delay(wait) {}

  Move move;
  // What is sent, where the move does not say it.
  std::string bytes = {};
  std::chrono::nanoseconds delay{0};
};

struct SmallFlow {
  // In every order, interleaved with whatever the system does meanwhile.
  std::vector<Step> steps;
  // Accepting the connection is one of them; otherwise it is accepted when it is made.
  bool isAcceptedLate = false;
  // The steps come exactly when the time-out does.
  bool isAtDeadline = false;
  // The steps do not wait for the request.
  bool isEarly = false;
};

struct Scenario {
  std::vector<SmallFlow> flows;
  // Handshake slots that are left.
  std::size_t slots = HistoryChecker::kMaxPending;
  std::size_t mostPreemptions = 0;
  // Further events, one item each.
  bool probeFails = false;
  bool probeSucceeds = false;
  bool stops = false;
  // How long it is played before both sides of every flow end; no step may come later.
  std::chrono::nanoseconds duration =
      HistoryChecker::kHandshakeTimeout + std::chrono::milliseconds(100);
};

// One provider and a few flows whose behaviour a test writes down, in the order that a chooser
// decides. The scenario must outlive it.
class SmallRun {
 public:
  SmallRun(const Scenario& scenario, const simulation::RunQueue::Chooser& chooser);
  ~SmallRun();
  SmallRun(const SmallRun&) = delete;
  SmallRun& operator=(const SmallRun&) = delete;

  // Plays until nothing is left; returns the first broken promise.
  std::optional<Violation> play();
  // The established tunnels, so that a test can check that it tested something.
  std::size_t successes() const { return checker_.successes(); }

 private:
  FlowScript* scriptOf(std::uint32_t flow) const;
  void startProvider();
  void offer(std::uint32_t number);
  void postProbe(bool isReachable);
  void postSurroundings();
  void advance(std::chrono::nanoseconds duration);

  const Scenario& scenario_;
  const std::size_t occupied_;
  HistoryChecker checker_;
  // The beginning and the end are not of interest.
  bool isExploring_ = false;
  bool isStopped_ = false;
  World world_;
  SimulatorPlatform platform_;
  std::map<std::uint32_t, std::shared_ptr<FlowScript>> scripts_;
  std::shared_ptr<PacketTunnelProvider> provider_;
};

}  // namespace ostravel::simulator
