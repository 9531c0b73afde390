#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace ostravel::linuxplatform {

// Whether a new connection of an ordinary application is proxied, if not why, and since when. Fed
// several times a second with what the parts of the process know; usable from any thread.
class ProxyingState {
 public:
  enum class Reason : std::uint8_t {
    proxied,
    starting,
    proxyUnreachable,
    proxyNotAnswering,
    proxyNotTrusted,
    redirectBlocked,
    descriptors,
    stopping,
  };

  // Times in seconds since 1970; 0 for never.
  struct Facts {
    bool isIntercepting = false;
    bool isStopping = false;
    // Absent before the first probe has been answered.
    std::optional<bool> isGateOpen = std::nullopt;
    bool isRedirectUsable = true;
    bool isNearDescriptorLimit = false;
    // Of any handshake.
    double lastSuccess = 0;
    double lastTimeout = 0;
  };

  struct State {
    Reason reason = Reason::starting;
    double since = 0;
    // What serves all users as the proxy, for people; empty for nothing.
    std::string proxy;

    // A sentence for people.
    std::string message() const;
  };

  // proxy: as in State. now: seconds since 1970.
  void setProxy(const std::string& proxy, double now);
  void update(const Facts& facts, double now);
  State state() const;

 private:
  Reason reasonFor(const Facts& facts) const;

  mutable std::mutex lock_;
  State state_;
  double proxySince_ = 0;
};

// The words of the control protocol.
std::string_view nameOf(ProxyingState::Reason reason);

}  // namespace ostravel::linuxplatform
