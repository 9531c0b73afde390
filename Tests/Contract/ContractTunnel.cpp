#include "Tests/Contract/ContractTunnel.h"

#include <cstddef>
#include <utility>

namespace ostravel::contract {

ContractTunnel::ContractTunnel(std::shared_ptr<platform::AppProxyTCPFlow> flow, Connect connect)
    : flow_(std::move(flow)), connect_(std::move(connect)) {}

void ContractTunnel::start() {
  ++started_;
  flow_->open(std::nullopt, [self = shared_from_this()](const platform::OptionalError& error) {
    const OverlapCheck::Scope scope(self->overlap_);
    ++self->completed_;
    if (error) {
      self->close(error);
    } else {
      self->connect();
    }
  });
}

void ContractTunnel::close(const platform::OptionalError& error) {
  if (isClosed_.exchange(true)) {
    return;
  }
  flow_->closeRead(error);
  flow_->closeWrite(error);
  if (const auto proxy = connection()) {
    proxy->cancel();
  }
}

void ContractTunnel::connect() {
  {
    const std::lock_guard guard(lock_);
    connection_ = connect_();
  }
  up();
  down();
  isRelaying_ = true;
}

void ContractTunnel::up() {
  if (isClosed_) {
    return;
  }
  ++started_;
  flow_->read([self = shared_from_this()](std::optional<platform::Data> data,
                                          const platform::OptionalError& error) {
    const OverlapCheck::Scope scope(self->overlap_);
    ++self->completed_;
    self->sendUp(std::move(data), error);
  });
}

void ContractTunnel::sendUp(std::optional<platform::Data> data,
                            const platform::OptionalError& error) {
  if (error || !data || data->empty()) {
    close(error);
    return;
  }
  ++started_;
  connection()->write(std::move(*data),
                      [self = shared_from_this()](const platform::OptionalError& failure) {
                        const OverlapCheck::Scope scope(self->overlap_);
                        ++self->completed_;
                        if (failure) {
                          self->close(failure);
                        } else {
                          self->up();
                        }
                      });
}

void ContractTunnel::down() {
  // As much as the provider asks for.
  constexpr std::size_t kMaximum = 512 * 1024;
  if (isClosed_) {
    return;
  }
  ++started_;
  connection()->read(1, kMaximum,
                     [self = shared_from_this()](std::optional<platform::Data> data,
                                                 const platform::OptionalError& error) {
                       const OverlapCheck::Scope scope(self->overlap_);
                       ++self->completed_;
                       self->sendDown(std::move(data), error);
                     });
}

void ContractTunnel::sendDown(std::optional<platform::Data> data,
                              const platform::OptionalError& error) {
  if (error || !data || data->empty()) {
    close(error);
    return;
  }
  ++started_;
  flow_->write(std::move(*data),
               [self = shared_from_this()](const platform::OptionalError& failure) {
                 const OverlapCheck::Scope scope(self->overlap_);
                 ++self->completed_;
                 if (failure) {
                   self->close(failure);
                 } else {
                   self->down();
                 }
               });
}

std::shared_ptr<platform::TCPConnection> ContractTunnel::connection() const {
  const std::lock_guard guard(lock_);
  return connection_;
}

}  // namespace ostravel::contract
