#pragma once

#include <asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <utility>

namespace ostravel::companion {

// Accepts connections from a listening socket, one after the other, for as long as the io_context
// runs. Owned by the server it accepts for; must outlive the run.
//
// When descriptors run out, accepting fails at once, and would fail again and again while the
// connection stays in the backlog. The loop then pauses until a descriptor is freed or
// kLongestPause has passed.
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
      // A connection that its client has already given up says nothing about the next one.
      if (!error || error == asio::error::connection_aborted) {
        start();
        return;
      }
      pause();
    });
  }

  // To be called after closing a connection: ends a pause.
  void descriptorFreed() { pause_.cancel(); }

  Acceptor& acceptor() { return acceptor_; }

 private:
  // Other programs free descriptors too when the system's table is full, without notice.
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
