#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "Platform/Interface/HostEndpoint.h"
#include "Platform/Interface/TCPConnection.h"
#include "Platform/Linux/Relay/StreamSocket.h"
#include "Platform/Shared/StateObservers.h"

namespace ostravel::linuxplatform {

class EventLoop;

// A TCP connection of our own, to the local proxy. Created on its event loop, where everything
// happens: calls from other threads are posted there, and observers are notified there. Reads and
// writes wait until it is connected.
//
//   connecting -> connected -> disconnected        cancel() leads from each to cancelled
//            \_________________/
//
// It is also disconnected once the peer's end of stream has been read; bytes may still be written.
// Packets carry our mark, if the process may set one, so that they are never intercepted. Does not
// resolve names.
class LinuxTCPConnection final : public platform::TCPConnection, public StreamSocket {
  struct Private {};

 public:
  // Called on the loop; charged to the user that it serves. endpoint: an address literal and a
  // decimal port. Any failure is reported by the state, on the loop and never inside this call.
  static std::shared_ptr<LinuxTCPConnection> connect(EventLoop& loop,
                                                     const platform::HostEndpoint& endpoint);

  LinuxTCPConnection(Private /*unused*/, EventLoop& loop);

  platform::TCPConnectionState state() const override {
    return static_cast<platform::TCPConnectionState>(state_.load());
  }
  // Of the domain platform::kPOSIXErrorDomain; EINVAL for any other form of endpoint.
  platform::OptionalError error() const override;

  // If one thread removes an observer while it is being notified, the observer may still be running
  // when removeObserver returns; it is not notified again.
  void addObserver(std::weak_ptr<platform::KeyValueObserver> observer,
                   std::string_view keyPath) override;
  void removeObserver(platform::KeyValueObserver& observer, std::string_view keyPath) override;

  // ECANCELED after cancel(), otherwise the socket's error.
  void read(std::size_t minimum, std::size_t maximum, platform::ReadCompletion completion) override;
  void write(platform::Data data, platform::ErrorCompletion completion) override;
  void cancel() override;

 private:
  static constexpr auto kFirstState = platform::TCPConnectionState::connecting;

  void start(const platform::HostEndpoint& endpoint);
  // Returns 0 if the connection is in progress, otherwise an errno for error_, which is atomic and
  // can therefore hold no Error.
  int startConnecting(const platform::HostEndpoint& endpoint);
  bool isEstablished();
  void finishConnectingLater();
  void waitUntilConnected();
  void finishConnecting();
  void becomeConnected();
  void failToConnect(int error);
  void cancelOnLoop();

  void changeStateLater(platform::TCPConnectionState state, int error);
  void changeState(platform::TCPConnectionState state, int error);

  std::weak_ptr<LinuxTCPConnection> weakSelf();

  void streamFailed(int error) override;
  void streamEnded() override;

  [[no_unique_address]] platform::StateObservers observers_;
  bool isCancelled_ = false;
  // A TCPConnectionState and an errno.
  std::atomic<std::uint8_t> state_{static_cast<std::uint8_t>(kFirstState)};
  std::atomic<std::int16_t> error_ = 0;
};

}  // namespace ostravel::linuxplatform
