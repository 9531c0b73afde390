#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Companion/Events/ReceivedEvent.h"
#include "Companion/Monitor/Web/ControlPoller.h"
#include "Companion/Monitor/Web/LiveState.h"
#include "Companion/Monitor/Web/WebServer.h"
#include "Companion/Shared/ControlClient.h"
#include "Companion/Shared/InheritedListener.h"

namespace ostravel::companion {

// Shows events on a live page: owns the state, the server and the poller of the extension. Owned by
// main, which ends the process without destroying it; used by one thread.
class WebView {
 public:
  static constexpr const char* kDefaultListen = "127.0.0.1:8090";

  struct Options {
    std::string listen = kDefaultListen;
    // Used instead of `listen` if present.
    std::optional<InheritedListener> listener = std::nullopt;
    // A file whose first line is the token. Empty: web-token in $STATE_DIRECTORY, which is made at
    // the first start; without that variable, a random token.
    std::string tokenFile;
    // Empty if the extension is not queried.
    std::string controlPath = std::string(ControlClient::kDefaultPath);
    bool hasApplicationMetrics = false;
  };

  // Throws std::runtime_error with a readable reason.
  explicit WebView(const Options& options);

  void receive(const ReceivedEvent& event) { state_.receive(event); }
  void countMalformedFrame() { state_.countMalformedFrame(); }
  void countDropped(std::uint64_t events) { state_.countDropped(events); }
  void setPublished(std::uint64_t waiting, std::uint64_t dropped) {
    state_.setPublished(waiting, dropped);
  }

  // Called once a second.
  void tick(double now) { state_.tick(now); }

  std::string url() const { return server_.url(); }

 private:
  LiveState state_;
  WebServer server_;
  std::optional<ControlPoller> poller_;
};

}  // namespace ostravel::companion
