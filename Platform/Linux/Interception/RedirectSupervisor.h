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
#include "Platform/Linux/Relay/RedirectPath.h"

namespace ostravel::linuxplatform {

// Finds out whether redirected connections arrive: at the start, and again when a released one is
// missing although its socket is still waiting. While they do not, the path is not usable, and it
// is tested again after a pause. A connection that was lost that way is healed: the kernel forgets
// that it was redirected, and TCP's next repetition of the SYN goes direct.
//
// Works on the first event loop of the group, with trials on the loop concerned. Made when the
// rules are in place; stopped before they are removed, and then of no effect.
class RedirectSupervisor final : public RedirectPath::Watcher,
                                 public std::enable_shared_from_this<RedirectSupervisor> {
 public:
  // How long the path stays unused after a trial has failed.
  static constexpr std::chrono::milliseconds kPause = std::chrono::minutes(1);

  // settings: of which flows the rules redirect the first packets.
  static std::shared_ptr<RedirectSupervisor> start(
      EventLoopGroup& loops, const platform::TransparentProxyNetworkSettings& settings,
      std::shared_ptr<platform::Log> log, std::chrono::milliseconds pause = kPause);
  // From any thread. Leaves the path unusable.
  void stop();

  void connectionIsMissing(unsigned loopIndex, const FlowTuple& tuple) override;
  // Forgets it on the calling thread: later, a new connection could have the same ports.
  void connectionWasReset(const FlowTuple& tuple) override;

  // Only for start().
  RedirectSupervisor(EventLoopGroup& loops,
                     const platform::TransparentProxyNetworkSettings& settings,
                     std::shared_ptr<platform::Log> log, std::chrono::milliseconds pause);

 private:
  // What is known of one address family.
  struct Family {
    explicit Family(EventLoop& loop) : retry(loop.context()) {}

    AddressFamily family = AddressFamily::ipv4;
    // On loopback, of those that the settings select.
    std::vector<SocketEndpoint> destinations;
    bool isTesting = false;
    std::string lastFailure;
    std::chrono::steady_clock::time_point lastSuccess;
    EventLoop::Timer retry;
  };

  EventLoop& home() { return loops_.loop(0); }
  Family& known(AddressFamily family) { return families_[static_cast<std::size_t>(family)]; }
  void test(Family& family, unsigned loopIndex);
  void tryNext(Family& family, unsigned loopIndex, std::vector<SocketEndpoint> sources);
  void conclude(Family& family, unsigned loopIndex, const std::string& failure);
  SocketEndpoint destinationFor(const Family& family);
  void examine(unsigned loopIndex, const FlowTuple& tuple);

  EventLoopGroup& loops_;
  const std::shared_ptr<platform::Log> log_;
  const std::chrono::milliseconds pause_;
  std::mutex resetsLock_;
  // Guarded by resetsLock_.
  ConntrackEntries resets_;
  // The rest is used on the home loop only.
  std::array<Family, 2> families_;
  std::unique_ptr<SocketDiagnostics> diagnostics_;
  ConntrackEntries conntrack_;
  bool isStopped_ = false;
};

}  // namespace ostravel::linuxplatform
