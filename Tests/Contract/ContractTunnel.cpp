#include "Tests/Contract/ContractTunnel.h"

#include <cstddef>
#include <utility>

namespace ostravel::contract {

ContractTunnel::ContractTunnel(std::shared_ptr<platform::AppProxyTCPFlow> flow, Connect connect)
    : flow_(std::move(flow)), connect_(std::move(connect)) {}

void ContractTunnel::start() {
  flow_->open(std::nullopt, thenContinue(&ContractTunnel::connect));
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
  if (!isClosed_) {
    flow_->read(thenWrite(&ContractTunnel::writeUp, &ContractTunnel::up));
  }
}

void ContractTunnel::down() {
  // As much as the provider asks for.
  constexpr std::size_t kMaximum = 512 * 1024;
  if (!isClosed_) {
    connection()->read(1, kMaximum, thenWrite(&ContractTunnel::writeDown, &ContractTunnel::down));
  }
}

void ContractTunnel::writeUp(platform::Data data, platform::ErrorCompletion completion) {
  connection()->write(std::move(data), std::move(completion));
}

void ContractTunnel::writeDown(platform::Data data, platform::ErrorCompletion completion) {
  flow_->write(std::move(data), std::move(completion));
}

platform::ReadCompletion ContractTunnel::thenWrite(Write write, Step next) {
  ++started_;
  return [self = shared_from_this(), write, next](std::optional<platform::Data> data,
                                                  const platform::OptionalError& error) {
    const OverlapCheck::Scope scope(self->overlap_);
    ++self->completed_;
    if (error || !data || data->empty()) {
      self->close(error);
    } else {
      (*self.*write)(std::move(*data), self->thenContinue(next));
    }
  };
}

platform::ErrorCompletion ContractTunnel::thenContinue(Step next) {
  ++started_;
  return [self = shared_from_this(), next](const platform::OptionalError& error) {
    const OverlapCheck::Scope scope(self->overlap_);
    ++self->completed_;
    if (error) {
      self->close(error);
    } else {
      (*self.*next)();
    }
  };
}

std::shared_ptr<platform::TCPConnection> ContractTunnel::connection() const {
  const std::lock_guard guard(lock_);
  return connection_;
}

}  // namespace ostravel::contract
