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

// The packets that arrive at the queue until one has come or the limit is over. Every packet gets
// its verdict from the test.
struct OfferedPacket {
  std::uint32_t id = 0;
  std::uint32_t mark = 0;
  std::optional<uid_t> uid;
  std::uint32_t outputInterface = 0;
  std::vector<std::byte> bytes;
};
std::vector<OfferedPacket> waitForPackets(linuxplatform::PacketQueue& queue,
                                          std::chrono::milliseconds limit);

// A listening TCP socket on loopback, closed at the end.
class Listener {
 public:
  explicit Listener(const std::string& address, std::uint16_t port = 0);
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener();

  std::uint16_t port() const { return port_; }
  // The source port of the next connection; 0 when none comes within the limit.
  std::uint16_t acceptOne(std::chrono::milliseconds limit);
  // The same, ended with a reset.
  std::uint16_t acceptAndResetOne(std::chrono::milliseconds limit);

 private:
  std::uint16_t acceptOne(std::chrono::milliseconds limit, bool resets);

  int descriptor_;
  std::uint16_t port_ = 0;
};

// How a socket that connects differs from most.
struct SocketSettings {
  // SO_MARK
  std::uint32_t mark = 0;
  // 0: of the kernel's choice.
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

  // 0 when it stands, errno when it failed, EINPROGRESS when the limit was over first.
  int result(std::chrono::milliseconds limit) const;
  std::uint16_t sourcePort() const;
  void send(const std::string& bytes) const;
  // Ends the connection with a reset.
  void reset();

 private:
  int descriptor_;
};

// What a command prints; the command must succeed.
std::string outputOf(const std::string& command);

}  // namespace ostravel::testing
