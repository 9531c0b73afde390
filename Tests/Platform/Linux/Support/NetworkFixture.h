#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Interface/NetworkSettings.h"
#include "Platform/Linux/Interception/InterceptionTable.h"
#include "Platform/Linux/Kernel/PacketQueue.h"

namespace ostravel::testing {

platform::NetworkRule tcpRule(const std::string& address, const std::string& port,
                              std::uint8_t prefix);
platform::NetworkRule udpRule(const std::string& address, const std::string& port,
                              std::uint8_t prefix);

// Settings that select TCP to loopback port 8000, IPv4 and IPv6.
platform::TransparentProxyNetworkSettings loopbackSettings();

// The packets that arrive at the queue, until there is at least one or the limit has expired. The
// test gives every packet its verdict.
struct OfferedPacket {
  std::uint32_t id = 0;
  std::uint32_t mark = 0;
  std::optional<uid_t> uid;
  std::uint32_t outputInterface = 0;
  std::vector<std::byte> bytes;
};
std::vector<OfferedPacket> waitForPackets(linuxplatform::PacketQueue& queue,
                                          std::chrono::milliseconds limit);

// A listening TCP socket on loopback, closed on destruction.
class Listener {
 public:
  explicit Listener(const std::string& address, std::uint16_t port = 0);
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener();

  std::uint16_t port() const { return port_; }
  // The source port of the next connection; 0 if none arrives within the limit.
  std::uint16_t acceptOne(std::chrono::milliseconds limit);
  // The same, but resets the connection.
  std::uint16_t acceptAndResetOne(std::chrono::milliseconds limit);

 private:
  std::uint16_t acceptOne(std::chrono::milliseconds limit, bool resets);

  int descriptor_;
  std::uint16_t port_ = 0;
};

// Options of a connecting socket.
struct SocketSettings {
  // SO_MARK
  std::uint32_t mark = 0;
  // 0: chosen by the kernel.
  std::uint16_t sourcePort = 0;
};

// A nonblocking TCP connect in progress.
class Connecting {
 public:
  Connecting(const std::string& address, std::uint16_t port) : Connecting(address, port, {}) {}
  Connecting(const std::string& address, std::uint16_t port, const SocketSettings& settings);
  Connecting(const Connecting&) = delete;
  Connecting& operator=(const Connecting&) = delete;
  ~Connecting();

  // 0 if it is connected, errno if it failed, EINPROGRESS if the limit expired first.
  int result(std::chrono::milliseconds limit) const;
  std::uint16_t sourcePort() const;
  void send(const std::string& bytes) const;
  // Ends the connection with a reset.
  void reset();

 private:
  int descriptor_;
};

}  // namespace ostravel::testing
