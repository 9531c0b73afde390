#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace ostravel::linuxplatform {

// Tells whether a new connection of an ordinary application is proxied, why not, and since when.
// Updated several times a second by the parts of the process; usable from any thread.
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
    // By the last probe.
    bool isProxyReachable = false;
    bool isRedirectUsable = true;
    bool isNearDescriptorLimit = false;
    // When a handshake last succeeded.
    double lastSuccess = 0;
    double lastTimeout = 0;
  };

  struct State {
    Reason reason = Reason::starting;
    double since = 0;
    // The display name of the proxy that serves all users; empty for none.
    std::string proxy;
    // Why that is so: a part of a sentence. Empty until something is known.
    std::string proxyReason;

    // A readable sentence.
    std::string message() const;
    // The proxy as it is now, and why it is used or not: a part of a sentence.
    std::string proxyText() const;
  };

  // proxy, reason: as in State. now: seconds since 1970.
  void setProxy(const std::string& proxy, const std::string& reason, double now);
  void update(const Facts& facts, double now);
  State state() const;

 private:
  Reason reasonFor(const Facts& facts) const;

  mutable std::mutex lock_;
  State state_;
  double proxySince_ = 0;
};

// Its name in the control protocol.
std::string_view nameOf(ProxyingState::Reason reason);

}  // namespace ostravel::linuxplatform
