#include "Tests/Simulator/SimulatorSockets.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace ostravel::simulator {

namespace {

using platform::SocketCallResult;

// One call in this many fails.
constexpr std::uint64_t kErrorOdds = 20;
constexpr std::size_t kPrefixSize = 4;

constexpr SocketCallResult failure(int error) {
  return {-1, error};
}

}  // namespace

SocketCallResult SimulatorSockets::socket(int family, int /*type*/, int /*protocol*/) {
  if (world_.strikes(Fault::socketErrors, kErrorOdds)) {
    if (family == AF_INET) {
      world_.record({.kind = HistoryKind::probeDone});
    }
    return failure(EMFILE);
  }
  const int descriptor = nextDescriptor_++;
  open_[descriptor].family = family;
  return {descriptor, 0};
}

SocketCallResult SimulatorSockets::statusFlags(int /*descriptor*/) {
  return world_.strikes(Fault::socketErrors, kErrorOdds) ? failure(EBADF) : SocketCallResult{};
}

SocketCallResult SimulatorSockets::setStatusFlags(int /*descriptor*/, int /*flags*/) {
  return world_.strikes(Fault::socketErrors, kErrorOdds) ? failure(EBADF) : SocketCallResult{};
}

SocketCallResult SimulatorSockets::connect(int descriptor, std::span<const std::byte> /*address*/) {
  Descriptor& socket = open_.at(descriptor);
  if (world_.strikes(Fault::socketErrors, kErrorOdds)) {
    return failure(ENETUNREACH);
  }
  if (socket.family != AF_INET) {
    socket.isConnected = monitorListens_ && !world_.strikes(Fault::failingMonitor, 6);
    return socket.isConnected ? SocketCallResult{} : failure(ECONNREFUSED);
  }
  // Both ways of connecting occur: at once and in two steps.
  const bool isAtOnce = world_.below(4) == 0;
  if (isAtOnce) {
    socket.isConnected = proxyListens_;
    return socket.isConnected ? SocketCallResult{} : failure(ECONNREFUSED);
  }
  socket.failsToPoll = world_.strikes(Fault::flappingProxy, 8);
  socket.pendingError = proxyListens_ ? 0 : ECONNREFUSED;
  return failure(EINPROGRESS);
}

SocketCallResult SimulatorSockets::pollWritable(int descriptor, std::chrono::milliseconds timeout) {
  if (open_.at(descriptor).failsToPoll) {
    world_.spend(timeout);
    return {0, 0};
  }
  return world_.strikes(Fault::socketErrors, kErrorOdds) ? failure(EINTR) : SocketCallResult{1, 0};
}

SocketCallResult SimulatorSockets::pendingError(int descriptor) {
  Descriptor& socket = open_.at(descriptor);
  if (world_.strikes(Fault::socketErrors, kErrorOdds)) {
    return failure(ENOBUFS);
  }
  socket.isConnected = socket.pendingError == 0;
  return {socket.pendingError, 0};
}

SocketCallResult SimulatorSockets::write(int descriptor, std::span<const std::byte> bytes) {
  Descriptor& socket = open_.at(descriptor);
  if (world_.strikes(Fault::failingMonitor, 6)) {
    return failure(EPIPE);
  }
  const bool isShort = world_.strikes(Fault::shortReads, 4);
  const std::size_t taken = isShort ? 1 + world_.below(bytes.size()) : bytes.size();
  socket.written.append(reinterpret_cast<const char*>(bytes.data()), taken);
  return {static_cast<long>(taken), 0};
}

void SimulatorSockets::close(int descriptor) {
  const auto at = open_.find(descriptor);
  const Descriptor socket = std::move(at->second);
  open_.erase(at);
  if (socket.family == AF_INET) {
    world_.record({.kind = HistoryKind::probeDone, .number = socket.isConnected ? 1U : 0U});
    return;
  }
  const std::string_view frame = socket.written;
  if (frame.size() <= kPrefixSize) {
    return;
  }
  std::size_t length = 0;
  for (const char byte : frame.substr(0, kPrefixSize)) {
    length = length * 256 + static_cast<unsigned char>(byte);
  }
  // One that was cut off is of no use to a monitor.
  if (frame.size() == kPrefixSize + length) {
    world_.record({.kind = HistoryKind::eventReceived, .bytes = frame.substr(kPrefixSize)});
  }
}

}  // namespace ostravel::simulator
