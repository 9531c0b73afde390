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
#include "Tests/Support/TestSocket.h"

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

// Options of a connecting socket.
struct SocketSettings {
  // SO_MARK
  std::uint32_t mark = 0;
  // 0: chosen by the kernel.
  std::uint16_t sourcePort = 0;
};

// A TCP socket that has begun to connect and does not wait.
class Connecting : public TestSocket {
 public:
  Connecting(const std::string& address, std::uint16_t port, const SocketSettings& settings = {});
};

// The same, connected by another process, as the socket of an application is: this process plays
// the extension, whose own connections are not offered. The process remains until the end.
class ConnectingApplication : public TestSocket {
 public:
  ConnectingApplication(const std::string& address, std::uint16_t port);
  ConnectingApplication(const ConnectingApplication&) = delete;
  ConnectingApplication& operator=(const ConnectingApplication&) = delete;
  ~ConnectingApplication();

 private:
  pid_t process_;
};

}  // namespace ostravel::testing
