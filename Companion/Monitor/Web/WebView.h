#pragma once

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <optional>
#include <string>

#include "Companion/Events/ReceivedEvent.h"
#include "Companion/Monitor/Web/ControlPoller.h"
#include "Companion/Monitor/Web/LiveState.h"
#include "Companion/Monitor/Web/WebServer.h"
#include "Companion/Shared/ControlClient.h"

namespace ostravel::companion {

// Shows events on a live page: owns the state, the server and the poller of the extension. Owned by
// main, which ends the process without destroying it; used on its event loop.
class WebView {
 public:
  static constexpr const char* kDefaultListen = "127.0.0.1:8090";

  struct Options {
    std::string listen = kDefaultListen;
    // A file whose first line is the token; empty for a random token.
    std::string tokenFile;
    // Empty if the extension is not queried.
    std::string controlPath = std::string(ControlClient::kDefaultPath);
    bool hasApplicationMetrics = false;
  };

  // Throws std::runtime_error with a readable reason.
  WebView(asio::io_context& ioContext, const Options& options);

  void receive(const ReceivedEvent& event) { state_.receive(event); }
  void countMalformedFrame() { state_.countMalformedFrame(); }

  std::string url() const { return server_.url(); }

 private:
  void tick();

  LiveState state_;
  WebServer server_;
  std::optional<ControlPoller> poller_;
  asio::steady_timer timer_;
};

}  // namespace ostravel::companion
