#include "Platform/Simulation/SimulatedSockets.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace ostravel::simulation {

namespace {

using platform::SocketCallResult;

constexpr SocketCallResult kSuccess{0, 0};

constexpr SocketCallResult failure(int error) {
  return {-1, error};
}

}  // namespace

SimulatedSockets::SimulatedSockets(FaultSource& faults) : faults_(faults) {}

void SimulatedSockets::answerNext(SocketCallKind kind, SocketCallResult result) {
  nextAnswers_[kind].push_back(result);
}

void SimulatedSockets::answerAlways(SocketCallKind kind, std::optional<SocketCallResult> result) {
  standingAnswers_.erase(kind);
  if (result) {
    standingAnswers_.emplace(kind, *result);
  }
}

std::vector<SocketCall> SimulatedSockets::calls(SocketCallKind kind) const {
  std::vector<SocketCall> found;
  std::copy_if(calls_.begin(), calls_.end(), std::back_inserter(found),
               [kind](const SocketCall& call) { return call.kind == kind; });
  return found;
}

SocketCallResult SimulatedSockets::socket(int family, int type, int protocol) {
  SocketCall call{.kind = SocketCallKind::socket,
                  .family = family,
                  .type = type,
                  .protocol = protocol,
                  .bytes = {},
                  .result = {}};
  auto result = scriptedAnswer(call.kind);
  if (!result) {
    result = SocketCallResult{nextDescriptor_++, 0};
  }
  if (result->value >= 0) {
    call.descriptor = static_cast<int>(result->value);
    open_[call.descriptor] = Descriptor{.family = family, .flags = O_RDWR, .delivery = {}};
  }
  return record(std::move(call), *result);
}

SocketCallResult SimulatedSockets::statusFlags(int descriptor) {
  const auto scripted = scriptedAnswer(SocketCallKind::statusFlags);
  const auto* const socket = find(descriptor);
  const auto usual = socket != nullptr ? SocketCallResult{socket->flags, 0} : failure(EBADF);
  return record(
      {.kind = SocketCallKind::statusFlags, .descriptor = descriptor, .bytes = {}, .result = {}},
      scripted.value_or(usual));
}

SocketCallResult SimulatedSockets::setStatusFlags(int descriptor, int flags) {
  auto result = scriptedAnswer(SocketCallKind::setStatusFlags);
  auto* const socket = find(descriptor);
  if (!result) {
    result = socket != nullptr ? kSuccess : failure(EBADF);
  }
  if (socket != nullptr && result->value >= 0) {
    socket->flags = flags;
  }
  return record({.kind = SocketCallKind::setStatusFlags,
                 .descriptor = descriptor,
                 .flags = flags,
                 .bytes = {},
                 .result = {}},
                *result);
}

SocketCallResult SimulatedSockets::connect(int descriptor, std::span<const std::byte> address) {
  auto result = scriptedAnswer(SocketCallKind::connect);
  auto* const socket = find(descriptor);
  if (!result) {
    result = socket != nullptr ? connectUsual(*socket) : failure(EBADF);
  } else if (socket != nullptr && result->value == 0) {
    becomeConnected(*socket);
  }
  return record({.kind = SocketCallKind::connect,
                 .descriptor = descriptor,
                 .bytes = {address.begin(), address.end()},
                 .result = {}},
                *result);
}

SocketCallResult SimulatedSockets::connectUsual(Descriptor& socket) {
  Peer peer = socket.family == AF_UNIX ? local_ : tcp_;
  if (peer == Peer::listens && faults_.socketIsRefused()) {
    peer = Peer::refuses;
  }
  const bool takesTwoSteps = socket.family != AF_UNIX && (socket.flags & O_NONBLOCK) != 0;
  if (takesTwoSteps) {
    socket.isConnecting = peer == Peer::isSilent;
    socket.isConnected = peer == Peer::listens;
    socket.pendingError = peer == Peer::refuses ? ECONNREFUSED : 0;
    return failure(EINPROGRESS);
  }
  if (peer == Peer::listens) {
    becomeConnected(socket);
    return kSuccess;
  }
  return failure(peer == Peer::isSilent ? ETIMEDOUT : ECONNREFUSED);
}

void SimulatedSockets::becomeConnected(Descriptor& socket) {
  socket.isConnected = true;
  if (socket.family == AF_UNIX) {
    socket.delivery = localDeliveries_.size();
    localDeliveries_.emplace_back();
  }
}

SocketCallResult SimulatedSockets::pollWritable(int descriptor, std::chrono::milliseconds timeout) {
  const auto scripted = scriptedAnswer(SocketCallKind::pollWritable);
  const auto* const socket = find(descriptor);
  const bool isWaiting = socket != nullptr && socket->isConnecting;
  // For a closed descriptor poll(2) succeeds and reports it in the events.
  return record({.kind = SocketCallKind::pollWritable,
                 .descriptor = descriptor,
                 .bytes = {},
                 .timeout = timeout,
                 .result = {}},
                scripted.value_or(SocketCallResult{isWaiting ? 0 : 1, 0}));
}

SocketCallResult SimulatedSockets::pendingError(int descriptor) {
  const auto scripted = scriptedAnswer(SocketCallKind::pendingError);
  auto* const socket = find(descriptor);
  // Reading the error clears it.
  const auto usual = socket != nullptr ? SocketCallResult{std::exchange(socket->pendingError, 0), 0}
                                       : failure(EBADF);
  return record(
      {.kind = SocketCallKind::pendingError, .descriptor = descriptor, .bytes = {}, .result = {}},
      scripted.value_or(usual));
}

SocketCallResult SimulatedSockets::write(int descriptor, std::span<const std::byte> bytes) {
  auto result = scriptedAnswer(SocketCallKind::write);
  auto* const socket = find(descriptor);
  if (!result) {
    if (socket == nullptr) {
      result = failure(EBADF);
    } else if (!socket->isConnected) {
      result = failure(ENOTCONN);
    } else {
      result = SocketCallResult{static_cast<long>(bytes.size()), 0};
    }
  }
  if (socket != nullptr && socket->delivery && result->value > 0) {
    const auto taken = std::min(bytes.size(), static_cast<std::size_t>(result->value));
    localDeliveries_[*socket->delivery].append(reinterpret_cast<const char*>(bytes.data()), taken);
  }
  return record({.kind = SocketCallKind::write,
                 .descriptor = descriptor,
                 .bytes = {bytes.begin(), bytes.end()},
                 .result = {}},
                *result);
}

void SimulatedSockets::close(int descriptor) {
  record({.kind = SocketCallKind::close, .descriptor = descriptor, .bytes = {}, .result = {}},
         scriptedAnswer(SocketCallKind::close).value_or(kSuccess));
  if (open_.erase(descriptor) == 0) {
    throw std::logic_error("closes socket " + std::to_string(descriptor) + ", which is not open");
  }
}

std::optional<SocketCallResult> SimulatedSockets::scriptedAnswer(SocketCallKind kind) {
  const auto next = nextAnswers_.find(kind);
  if (next != nextAnswers_.end() && !next->second.empty()) {
    const auto result = next->second.front();
    next->second.pop_front();
    return result;
  }
  const auto standing = standingAnswers_.find(kind);
  if (standing != standingAnswers_.end()) {
    return standing->second;
  }
  return std::nullopt;
}

SocketCallResult SimulatedSockets::record(SocketCall call, SocketCallResult result) {
  call.result = result;
  calls_.push_back(std::move(call));
  return result;
}

SimulatedSockets::Descriptor* SimulatedSockets::find(int descriptor) {
  const auto at = open_.find(descriptor);
  return at == open_.end() ? nullptr : &at->second;
}

}  // namespace ostravel::simulation
