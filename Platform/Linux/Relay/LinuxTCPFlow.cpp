#include "Platform/Linux/Relay/LinuxTCPFlow.h"

#include <cerrno>
#include <utility>

#include "Platform/Interface/ProviderError.h"
#include "Platform/Linux/Relay/EventLoop.h"
#include "Platform/Linux/Relay/RedirectPath.h"
#include "Platform/Linux/Relay/SocketError.h"
#include "Platform/Linux/Services/RelayLimits.h"

namespace ostravel::linuxplatform {

using platform::OptionalError;
using Direction = StreamSocket::Direction;

LinuxTCPFlow::LinuxTCPFlow(EventLoop& loop, const FlowTuple& tuple,
                           std::shared_ptr<const std::string> identifier,
                           const SocketEndpoint& remote, std::unique_ptr<HeldPacket> packet,
                           std::shared_ptr<UserShare> user, std::optional<FlowName> name,
                           std::shared_ptr<FlowRecord> record)
    : tuple_(tuple),
      remote_(remote),
      identifier_(std::move(identifier)),
      name_(name ? std::make_unique<FlowName>(*std::move(name)) : nullptr),
      packet_(std::move(packet)),
      record_(std::move(record)),
      stream_(loop, *this, std::move(user), record_.get()) {}

LinuxTCPFlow::~LinuxTCPFlow() {
  if (record_) {
    // Ignored if the end has already been reported.
    record_->ended(platform::FlowEnd::abandoned, "");
  }
}

std::optional<platform::HostEndpoint> LinuxTCPFlow::remoteEndpoint() const {
  return name_ ? platform::HostEndpoint{name_->host, std::to_string(remote_.port)}
               : remoteLiteral();
}

platform::HostEndpoint LinuxTCPFlow::remoteLiteral() const {
  return {remote_.addressText(), std::to_string(remote_.port)};
}

std::optional<ConnectByName> LinuxTCPFlow::connectByName() const {
  if (!name_) {
    return std::nullopt;
  }
  const bool isIPv6 = remote_.family == AddressFamily::ipv6;
  const platform::HostEndpoint remote = remoteLiteral();
  const std::string literal = isIPv6 ? "[" + remote.hostname + "]" : remote.hostname;
  return ConnectByName{name_->host + ":" + remote.port, literal + ":" + remote.port,
                       name_->onUnresolvable};
}

void LinuxTCPFlow::open(std::optional<platform::HostEndpoint> /*localEndpoint*/,
                        platform::ErrorCompletion completion) {
  if (name_ && !name_->isForConnect) {
    name_.reset();
  }
  stream_.loop().post([weakSelf = weak_from_this(), completion = std::move(completion)]() mutable {
    const auto self = weakSelf.lock();
    if (!self || self->stage_ == Stage::ended) {
      completion(socketError(ECANCELED));
      return;
    }
    const EventLoop::Service service(self->stream_.loop(), self->stream_.user());
    const auto byName = self->connectByName();
    const ConnectByName::Scope scope(byName ? &*byName : nullptr);
    completion(std::nullopt);
  });
}

void LinuxTCPFlow::read(platform::ReadCompletion completion) {
  stream_.loop().runWith(*this, [completion = std::move(completion)](LinuxTCPFlow& self) mutable {
    self.releasePacket();
    self.stream_.read(1, limits::kMaximumChunk, std::move(completion));
  });
}

void LinuxTCPFlow::write(platform::Data data, platform::ErrorCompletion completion) {
  stream_.loop().runWith(*this, [data = std::move(data),
                                 completion = std::move(completion)](LinuxTCPFlow& self) mutable {
    self.releasePacket();
    self.stream_.write(std::move(data), std::move(completion));
  });
}

void LinuxTCPFlow::closeRead(OptionalError error) {
  stream_.loop().runWith(*this, [error = std::move(error)](LinuxTCPFlow& self) {
    self.close(Direction::read, error);
  });
}

void LinuxTCPFlow::closeWrite(OptionalError error) {
  stream_.loop().runWith(*this, [error = std::move(error)](LinuxTCPFlow& self) {
    self.close(Direction::write, error);
  });
}

void LinuxTCPFlow::releasePacket() {
  if (stage_ != Stage::held) {
    return;
  }
  EventLoop& loop = stream_.loop();
  const auto self = shared_from_this();
  if (stream_.user()) {
    stream_.user()->handshakeSucceeded();
  }
  if (const RedirectPath* const path = loop.redirectPath();
      path != nullptr && !path->isUsable(tuple_.source.family)) {
    leaveHeld();
    return;
  }
  stage_ = Stage::released;
  loop.listener().expect(std::shared_ptr<FlowListener::Waiter>(self, this));
  packet_->redirect(loop.index());
  packet_.reset();
  loop.listener().acceptReleased(tuple_.source.family);
}

// Redirected connections have ceased to arrive since the flow was offered; this one would be reset.
void LinuxTCPFlow::leaveHeld() {
  stage_ = Stage::ended;
  packet_->accept();
  packet_.reset();
  platform::Error error = socketError(ECONNABORTED);
  error.localizedDescription = "Connections cannot be accepted; this one was left to the system";
  stream_.fail(std::move(error));
}

void LinuxTCPFlow::endHeld(const OptionalError& error) {
  if (platform::isHandshakeTimeout(error) && stream_.user()) {
    stream_.user()->handshakeTimedOut(UserShare::Clock::now());
  }
  if (error) {
    packet_->accept();
  } else {
    packet_->refuse();
  }
  packet_.reset();
}

void LinuxTCPFlow::close(Direction direction, const OptionalError& error) {
  if (stage_ == Stage::ended || stream_.isClosed(direction)) {
    return;
  }
  const bool isHeld = stage_ == Stage::held;
  if (isHeld) {
    endHeld(error);
  }
  if (isHeld || error) {
    if (RedirectPath* const path = stream_.loop().redirectPath();
        stage_ == Stage::carried && path != nullptr) {
      path->prepareReset(tuple_);
    }
    stage_ = Stage::ended;
    stream_.fail(socketError(ECANCELED));
    return;
  }
  stream_.closeInOrder(direction);
  const bool isClosed = stream_.isClosed(Direction::read) && stream_.isClosed(Direction::write);
  if (isClosed && stage_ == Stage::released) {
    // The connection that is about to arrive must see an end of stream, not a reset.
    const auto self = shared_from_this();
    stream_.loop().listener().keep(std::shared_ptr<FlowListener::Waiter>(self, this));
  }
}

void LinuxTCPFlow::accepted(LoopSocket socket) {
  if (stage_ != Stage::released) {
    socket.reset();
    return;
  }
  stage_ = Stage::carried;
  stream_.attach(std::move(socket));
}

void LinuxTCPFlow::timedOut() {
  if (stage_ != Stage::released) {
    return;
  }
  stage_ = Stage::ended;
  EventLoop& loop = stream_.loop();
  if (RedirectPath* const path = loop.redirectPath()) {
    path->reportMissing(loop.index(), tuple_);
  }
  platform::Error error = socketError(ETIMEDOUT);
  error.localizedDescription = "The application gave up before its connection was made";
  stream_.fail(std::move(error));
}

std::shared_ptr<StreamSocket> LinuxTCPFlow::sharedStream() {
  return {shared_from_this(), &stream_};
}

}  // namespace ostravel::linuxplatform
