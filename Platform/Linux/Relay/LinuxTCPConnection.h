#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "Platform/Interface/HostEndpoint.h"
#include "Platform/Interface/TCPConnection.h"
#include "Platform/Linux/Relay/StreamSocket.h"

namespace ostravel::linuxplatform {

class EventLoop;

// A TCP connection of our own, to the local proxy. Everything happens on its event loop, where
// calls from other threads are sent; observers are told there. Reads and writes wait until it is
// connected.
//
//   connecting -> connected -> disconnected        cancel() leads from each to cancelled
//            \_________________/
//
// The end of what the peer sends disconnects too, once it was read; bytes may still be written.
// Packets carry our mark, where the process may set one, so that they are never intercepted. Names
// are not looked up.
class LinuxTCPConnection final : public platform::TCPConnection,
                                 public std::enable_shared_from_this<LinuxTCPConnection>,
                                 private StreamSocket::Owner {
  struct Private {};

 public:
  // endpoint: an address literal and a port in decimal. A failure, of whatever kind, is told by the
  // state, on the loop and never inside this call.
  static std::shared_ptr<LinuxTCPConnection> connect(EventLoop& loop,
                                                     const platform::HostEndpoint& endpoint);

  LinuxTCPConnection(Private /*unused*/, EventLoop& loop);

  platform::TCPConnectionState state() const override { return state_; }
  // Of the domain platform::kPOSIXErrorDomain; EINVAL for an endpoint of another form.
  platform::OptionalError error() const override;

  // An observer that is being told while another thread removes it may still be running when
  // removeObserver returns; it is not told again.
  void addObserver(std::weak_ptr<platform::KeyValueObserver> observer,
                   std::string_view keyPath) override;
  void removeObserver(platform::KeyValueObserver& observer, std::string_view keyPath) override;

  // ECANCELED after cancel(). Otherwise what the socket says.
  void read(std::size_t minimum, std::size_t maximum, platform::ReadCompletion completion) override;
  void write(platform::Data data, platform::ErrorCompletion completion) override;
  void cancel() override;

 private:
  struct Registration {
    std::weak_ptr<platform::KeyValueObserver> observer;
    const platform::KeyValueObserver* identity = nullptr;
  };

  template <typename Work>
  void runOnLoop(Work work);
  void start(const platform::HostEndpoint& endpoint);
  // An errno, or 0 when the connection is being made.
  int startConnecting(const platform::HostEndpoint& endpoint);
  void waitUntilConnected();
  void finishConnecting();
  void failToConnect(int error);
  void cancelOnLoop();

  void changeStateLater(platform::TCPConnectionState state, int error);
  void changeState(platform::TCPConnectionState state, int error);
  // A notification of an untold change has nothing to say once another one has told the state.
  enum class Reason { change, untoldChange };
  void notifyObserversLater(Reason reason);
  void notifyObservers(Reason reason);
  void forgetDestroyedObservers();
  bool isRegistered(const platform::KeyValueObserver& observer) const;

  std::shared_ptr<StreamSocket> sharedStream() override;
  void streamFailed(int error) override;
  void streamEnded() override;

  std::atomic<platform::TCPConnectionState> state_ = platform::TCPConnectionState::connecting;
  std::atomic<int> error_ = 0;
  bool isCancelled_ = false;
  mutable std::mutex lock_;
  // Guarded by lock_.
  std::vector<Registration> observers_;
  // A change found nobody to be told of it.
  bool hasUntoldChange_ = false;
  // The socket until it is connected.
  LoopSocket connecting_;
  StreamSocket stream_;
};

}  // namespace ostravel::linuxplatform
