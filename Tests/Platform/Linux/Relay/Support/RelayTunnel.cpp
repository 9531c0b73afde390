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
    if (error || !data || data->empty()) {
      self->close(error);
      return;
    }
    self->connection_->write(*std::move(data), [self](const OptionalError& writeError) {
      if (writeError) {
        self->close(writeError);
        return;
      }
      self->pipeLocalToRemote();
    });
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
                      if (error || !data || data->empty()) {
                        self->close(error);
                        return;
                      }
                      self->flow_->write(*std::move(data), [self](const OptionalError& writeError) {
                        if (writeError) {
                          self->close(writeError);
                          return;
                        }
                        self->pipeRemoteToLocal();
                      });
                    });
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

}  // namespace ostravel::linuxplatform::test
