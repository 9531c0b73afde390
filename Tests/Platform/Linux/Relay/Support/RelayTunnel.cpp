#include "Tests/Platform/Linux/Relay/Support/RelayTunnel.h"

#include <optional>
#include <utility>

namespace ostravel::linuxplatform::test {

using platform::Data;
using platform::OptionalError;

namespace {

constexpr std::size_t kReadMaximum = 524288;

}  // namespace

void RelayTunnel::start() {
  pipeLocalToRemote();
  pipeRemoteToLocal();
}

void RelayTunnel::pipeLocalToRemote() {
  if (isClosed_) {
    return;
  }
  flow_->read([weakSelf = weak_from_this()](std::optional<Data> data, OptionalError error) {
    const auto self = weakSelf.lock();
    if (!self) {
      return;
    }
    if (self->hasRead(data, error)) {
      self->connection_->write(*std::move(data), [self](const OptionalError& writeError) {
        if (self->hasWritten(writeError)) {
          self->pipeLocalToRemote();
        }
      });
    }
  });
}

void RelayTunnel::pipeRemoteToLocal() {
  if (isClosed_) {
    return;
  }
  connection_->read(1, kReadMaximum,
                    [weakSelf = weak_from_this()](std::optional<Data> data, OptionalError error) {
                      const auto self = weakSelf.lock();
                      if (!self) {
                        return;
                      }
                      if (self->hasRead(data, error)) {
                        self->flow_->write(*std::move(data),
                                           [self](const OptionalError& writeError) {
                                             if (self->hasWritten(writeError)) {
                                               self->pipeRemoteToLocal();
                                             }
                                           });
                      }
                    });
}

bool RelayTunnel::hasRead(const std::optional<Data>& data, const OptionalError& error) {
  const bool hasBytes = !error && data && !data->empty();
  if (!hasBytes) {
    close(error);
  }
  return hasBytes;
}

bool RelayTunnel::hasWritten(const OptionalError& error) {
  if (error) {
    close(error);
  }
  return !error;
}

void RelayTunnel::close(const OptionalError& error) {
  if (isClosed_.exchange(true)) {
    return;
  }
  flow_->closeRead(error);
  flow_->closeWrite(error);
  connection_->cancel();
  closed_.set_value();
}

RelayTunnelTest::Tunnel RelayTunnelTest::makeTunnel() {
  CarriedFlow carried = carryFlow();
  Connected connected = connect();
  auto tunnel = std::make_shared<RelayTunnel>(carried.flow, connected.connection);
  onLoop([&tunnel] { tunnel->start(); });
  return {std::move(carried.application), std::move(connected.server), std::move(tunnel)};
}

}  // namespace ostravel::linuxplatform::test
