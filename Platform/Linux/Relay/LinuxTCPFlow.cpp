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

LinuxTCPFlow::LinuxTCPFlow(EventLoop& loop, const SocketEndpoint& source,
                           Reference<FlowRecord> record, std::unique_ptr<HeldPacket> packet,
                           Reference<UserShare> user, std::optional<FlowName> name)
    : StreamSocket(loop, std::move(user)),
      source_(source),
      name_(name ? std::make_unique<FlowName>(*std::move(name)) : nullptr),
      packet_(std::move(packet)),
      record_(std::move(record)) {}

LinuxTCPFlow::~LinuxTCPFlow() {
  prepareReset();
  // Ignored if the end has already been reported.
  record_->ended(platform::FlowEnd::abandoned, "");
}

FlowTuple LinuxTCPFlow::tuple() const {
  return {TransportProtocol::tcp, source_, destination()};
}

std::optional<platform::HostEndpoint> LinuxTCPFlow::remoteEndpoint() const {
  return name_ ? platform::HostEndpoint{name_->host, std::to_string(destination().port)}
               : remoteLiteral();
}

platform::HostEndpoint LinuxTCPFlow::remoteLiteral() const {
  return {destination().addressText(), std::to_string(destination().port)};
}

std::optional<ConnectByName> LinuxTCPFlow::connectByName() const {
  if (!name_) {
    return std::nullopt;
  }
  const bool isIPv6 = destination().family == AddressFamily::ipv6;
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
  loop().post(
      [weakSelf = std::weak_ptr(sharedSelf()), completion = std::move(completion)]() mutable {
        const auto self = weakSelf.lock();
        if (!self || self->stage_ == Stage::ended) {
          completion(socketError(ECANCELED));
          return;
        }
        const EventLoop::Service service(self->loop(), self->user());
        const auto byName = self->connectByName();
        const ConnectByName::Scope scope(byName ? &*byName : nullptr);
        completion(std::nullopt);
      });
}

void LinuxTCPFlow::read(platform::ReadCompletion completion) {
  loop().runWith(*this, [completion = std::move(completion)](LinuxTCPFlow& self) mutable {
    self.releasePacket();
    self.receive(1, limits::kMaximumChunk, std::move(completion));
  });
}

void LinuxTCPFlow::write(platform::Data data, platform::ErrorCompletion completion) {
  loop().runWith(*this, [data = std::move(data),
                         completion = std::move(completion)](LinuxTCPFlow& self) mutable {
    self.releasePacket();
    self.send(std::move(data), std::move(completion));
  });
}

void LinuxTCPFlow::closeRead(OptionalError error) {
  loop().runWith(*this, [error = std::move(error)](LinuxTCPFlow& self) {
    self.close(Direction::read, error);
  });
}

void LinuxTCPFlow::closeWrite(OptionalError error) {
  loop().runWith(*this, [error = std::move(error)](LinuxTCPFlow& self) {
    self.close(Direction::write, error);
  });
}

void LinuxTCPFlow::releasePacket() {
  if (stage_ != Stage::held) {
    return;
  }
  EventLoop& ourLoop = loop();
  if (user()) {
    user()->handshakeSucceeded();
  }
  if (const RedirectPath* const path = ourLoop.redirectPath();
      path != nullptr && !path->isUsable(source_.family)) {
    leaveHeld();
    return;
  }
  stage_ = Stage::released;
  ourLoop.listener().expect(waiter());
  packet_->redirect(ourLoop.index());
  packet_.reset();
  ourLoop.listener().acceptReleased(source_.family);
}

// Redirected connections have ceased to arrive since the flow was offered; this one would be reset.
void LinuxTCPFlow::leaveHeld() {
  stage_ = Stage::ended;
  packet_->accept();
  packet_.reset();
  platform::Error error = socketError(ECONNABORTED);
  error.localizedDescription = "Connections cannot be accepted; this one was left to the system";
  fail(std::move(error));
}

void LinuxTCPFlow::endHeld(const OptionalError& error) {
  if (platform::isHandshakeTimeout(error) && user()) {
    user()->handshakeTimedOut(UserShare::Clock::now());
  }
  if (error) {
    packet_->accept();
  } else {
    packet_->refuse();
  }
  packet_.reset();
}

// Destroying a socket that is still open resets the connection, too.
void LinuxTCPFlow::prepareReset() {
  if (RedirectPath* const path = loop().redirectPath(); isOpen() && path != nullptr) {
    path->prepareReset(tuple());
  }
}

void LinuxTCPFlow::close(Direction direction, const OptionalError& error) {
  if (stage_ == Stage::ended || isClosed(direction)) {
    return;
  }
  const bool isHeld = stage_ == Stage::held;
  if (isHeld) {
    endHeld(error);
  }
  if (isHeld || error) {
    prepareReset();
    stage_ = Stage::ended;
    fail(socketError(ECANCELED));
    return;
  }
  closeInOrder(direction);
  const bool areBothClosed = isClosed(Direction::read) && isClosed(Direction::write);
  if (areBothClosed && stage_ == Stage::released) {
    // The connection that is about to arrive must see an end of stream, not a reset.
    loop().listener().keep(waiter());
  }
}

void LinuxTCPFlow::accepted(LoopSocket socket) {
  if (stage_ != Stage::released) {
    socket.reset();
    return;
  }
  stage_ = Stage::carried;
  attach(std::move(socket));
}

void LinuxTCPFlow::timedOut() {
  if (stage_ != Stage::released) {
    return;
  }
  stage_ = Stage::ended;
  EventLoop& ourLoop = loop();
  if (RedirectPath* const path = ourLoop.redirectPath()) {
    path->reportMissing(ourLoop.index(), tuple());
  }
  platform::Error error = socketError(ETIMEDOUT);
  error.localizedDescription = "The application gave up before its connection was made";
  fail(std::move(error));
}

std::shared_ptr<LinuxTCPFlow> LinuxTCPFlow::sharedSelf() {
  return {shared_from_this(), this};
}

std::shared_ptr<FlowListener::Waiter> LinuxTCPFlow::waiter() {
  return {shared_from_this(), this};
}

}  // namespace ostravel::linuxplatform
