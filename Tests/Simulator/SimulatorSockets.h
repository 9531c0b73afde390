#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "Platform/Interface/SocketCalls.h"
#include "Tests/Simulator/World.h"

namespace ostravel::simulator {

// The socket calls of a run: a proxy that is probed and a monitor that receives events. What the
// monitor receives, and what a probe finds, is recorded when the socket is closed.
class SimulatorSockets final : public platform::SocketCalls {
 public:
  explicit SimulatorSockets(World& world) : world_(world) {}

  void setProxyListening(bool listening) { proxyListens_ = listening; }
  bool isProxyListening() const { return proxyListens_; }
  void setMonitorListening(bool listening) { monitorListens_ = listening; }
  std::size_t openDescriptors() const { return open_.size(); }

  platform::SocketAddressLayout addressLayout() const override {
    return platform::SocketAddressLayout::linuxABI;
  }
  platform::SocketCallResult socket(int family, int type, int protocol) override;
  platform::SocketCallResult statusFlags(int descriptor) override;
  platform::SocketCallResult setStatusFlags(int descriptor, int flags) override;
  platform::SocketCallResult connect(int descriptor, std::span<const std::byte> address) override;
  platform::SocketCallResult pollWritable(int descriptor,
                                          std::chrono::milliseconds timeout) override;
  platform::SocketCallResult pendingError(int descriptor) override;
  platform::SocketCallResult write(int descriptor, std::span<const std::byte> bytes) override;
  void close(int descriptor) override;

 private:
  struct Descriptor {
    int family = 0;
    bool isConnected = false;
    // Of a probe: it goes wrong at this step.
    bool failsToPoll = false;
    int pendingError = 0;
    std::string written;
  };

  platform::SocketCallResult failing(int error, int descriptor);

  World& world_;
  bool proxyListens_ = true;
  bool monitorListens_ = true;
  int nextDescriptor_ = 3;
  std::map<int, Descriptor> open_;
};

}  // namespace ostravel::simulator
