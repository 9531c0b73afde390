#pragma once

#include <asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <utility>

namespace ostravel::companion {

// Accepts connections from a listening socket, one after the other, while the io_context runs.
// Owned by the server that it accepts for; outlives the run.
//
// When descriptors run out, accepting fails at once, and would keep failing while the connection
// stays in the backlog. The loop then pauses until a descriptor is freed or kLongestPause has
// passed.
template <typename Protocol>
class AcceptLoop {
 public:
  using Acceptor = typename Protocol::acceptor;
  using Socket = typename Protocol::socket;

  AcceptLoop(Acceptor acceptor, std::function<void(Socket)> accepted)
      : acceptor_(std::move(acceptor)),
        pause_(acceptor_.get_executor()),
        accepted_(std::move(accepted)) {}

  void start() {
    acceptor_.async_accept([this](asio::error_code error, Socket socket) {
      if (error == asio::error::operation_aborted) {
        return;
      }
      if (!error) {
        accepted_(std::move(socket));
      }
      // A connection that its client has aborted does not affect the next one.
      if (!error || error == asio::error::connection_aborted) {
        start();
        return;
      }
      pause();
    });
  }

  // Call it after closing a connection: ends a pause.
  void descriptorFreed() { pause_.cancel(); }

  Acceptor& acceptor() { return acceptor_; }

 private:
  // Limits the pause, because nothing reports when another program frees descriptors of a full
  // system table.
  static constexpr std::chrono::milliseconds kLongestPause{100};

  void pause() {
    pause_.expires_after(kLongestPause);
    pause_.async_wait([this](asio::error_code) { start(); });
  }

  Acceptor acceptor_;
  asio::steady_timer pause_;
  std::function<void(Socket)> accepted_;
};

}  // namespace ostravel::companion
