#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Interface/Log.h"
#include "Platform/Interface/NetworkSettings.h"
#include "Platform/Linux/Interception/RedirectTrial.h"
#include "Platform/Linux/Kernel/ConntrackEntries.h"
#include "Platform/Linux/Kernel/SocketDiagnostics.h"
#include "Platform/Linux/Relay/EventLoopGroup.h"
#include "Platform/Linux/Relay/LoopTimer.h"
#include "Platform/Linux/Relay/RedirectPath.h"

namespace ostravel::linuxplatform {

// Tests whether redirected connections arrive: at the start, and again when a released one is
// missing although its socket is still waiting. While they do not arrive, the path is unusable and
// is retested after a pause. A connection that was lost this way is recovered: its conntrack entry
// is deleted, and the next retransmission of the SYN goes direct.
//
// Runs on the group's first event loop, its trials on the loop that they test. Created after the
// rules are installed and stopped before they are removed; inactive once stopped.
class RedirectSupervisor final : public RedirectPath::Watcher,
                                 public std::enable_shared_from_this<RedirectSupervisor> {
 public:
  // How long the path stays unusable after a failed trial, once it has failed repeatedly.
  static constexpr std::chrono::milliseconds kPause = std::chrono::minutes(1);
  // On a machine that has no time for it a trial fails without a reason, usually only once: the
  // first retries follow sooner, each after twice the pause.
  static constexpr std::chrono::milliseconds kFirstPause = std::chrono::seconds(1);
  static constexpr unsigned kEarlyRetries = 4;
  // The pause after so many failures in a row, of which there is at least one. longest: kPause.
  static std::chrono::milliseconds pauseAfter(unsigned failures, std::chrono::milliseconds longest);

  // settings: select the flows whose first packets the rules redirect.
  static std::shared_ptr<RedirectSupervisor> start(
      EventLoopGroup& loops, const platform::TransparentProxyNetworkSettings& settings,
      std::shared_ptr<platform::Log> log, std::chrono::milliseconds pause = kPause);
  // From any thread. Leaves the path unusable.
  void stop();

  void connectionIsMissing(unsigned loopIndex, const FlowTuple& tuple) override;
  // Deletes the conntrack entry on the calling thread: later, a new connection could have the same
  // ports.
  void connectionWillBeReset(const FlowTuple& tuple) override;

  // The path is tested again after kStuckPause, or after the pause if that is shorter.
  void connectionsCannotBeAccepted(unsigned loopIndex, AddressFamily family, int error) override;
  static constexpr std::chrono::milliseconds kStuckPause = std::chrono::seconds(1);

  // Only for start().
  RedirectSupervisor(EventLoopGroup& loops,
                     const platform::TransparentProxyNetworkSettings& settings,
                     std::shared_ptr<platform::Log> log, std::chrono::milliseconds pause);

 private:
  // The addresses of a trial connection.
  struct Way {
    SocketEndpoint source;
    SocketEndpoint destination;
  };

  // The state of one address family.
  struct Family {
    explicit Family(EventLoop& loop) : retry(loop.timers()) {}

    AddressFamily family = AddressFamily::ipv4;
    // Loopback destinations that the settings select.
    std::vector<SocketEndpoint> destinations;
    // An address that no host has, if the settings select it.
    std::optional<SocketEndpoint> distantDestination;
    bool isTesting = false;
    // Since the last success, connections could not be accepted.
    bool isStuck = false;
    std::string lastFailure;
    // Trials that have failed since the last success.
    unsigned failures = 0;
    std::chrono::steady_clock::time_point lastSuccess;
    LoopTimer retry;
  };

  EventLoop& home() { return loops_.loop(0); }
  Family& known(AddressFamily family) { return families_[static_cast<std::size_t>(family)]; }
  void test(Family& family, unsigned loopIndex);
  std::vector<Way> waysToTry(const Family& family);
  void tryNext(Family& family, unsigned loopIndex, std::vector<Way> ways);
  void conclude(Family& family, unsigned loopIndex, const std::string& failure);
  SocketEndpoint destinationFor(const Family& family);
  void testAfter(std::chrono::milliseconds pause, Family& family, unsigned loopIndex);
  void noteStuck(unsigned loopIndex, AddressFamily family, int error);
  void examine(unsigned loopIndex, const FlowTuple& tuple);

  EventLoopGroup& loops_;
  const std::shared_ptr<platform::Log> log_;
  const std::chrono::milliseconds pause_;
  std::mutex resetsLock_;
  // Guarded by resetsLock_.
  ConntrackEntries resets_;
  // The members below are for the first event loop only.
  std::array<Family, 2> families_;
  std::unique_ptr<SocketDiagnostics> diagnostics_;
  ConntrackEntries conntrack_;
  bool isStopped_ = false;
};

}  // namespace ostravel::linuxplatform
