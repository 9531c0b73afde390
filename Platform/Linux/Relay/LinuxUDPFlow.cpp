#include "Platform/Linux/Relay/LinuxUDPFlow.h"

#include <utility>

namespace ostravel::linuxplatform {

namespace {

constexpr std::uint8_t kReadDirection = 1;
constexpr std::uint8_t kWriteDirection = 2;
constexpr std::uint8_t kBothDirections = kReadDirection | kWriteDirection;

}  // namespace

LinuxUDPFlow::LinuxUDPFlow(const FlowTuple& tuple, std::string identifier,
                           std::unique_ptr<HeldPacket> packet, Reference<FlowRecord> record)
    : source_(tuple.source),
      identifier_(std::move(identifier)),
      packet_(std::move(packet)),
      record_(std::move(record)) {}

std::optional<platform::HostEndpoint> LinuxUDPFlow::localEndpoint() const {
  return platform::HostEndpoint{source_.addressText(), std::to_string(source_.port)};
}

void LinuxUDPFlow::closeRead(platform::OptionalError /*error*/) {
  close(kReadDirection);
}

void LinuxUDPFlow::closeWrite(platform::OptionalError /*error*/) {
  close(kWriteDirection);
}

void LinuxUDPFlow::close(std::uint8_t direction) {
  const std::uint8_t before = closed_.fetch_or(direction);
  if (before != kBothDirections && (before | direction) == kBothDirections) {
    packet_->refuse();
  }
}

}  // namespace ostravel::linuxplatform
