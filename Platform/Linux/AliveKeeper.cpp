#include "Platform/Linux/AliveKeeper.h"

#include <poll.h>

#include <array>
#include <utility>

namespace ostravel::linuxplatform {

AliveKeeper::AliveKeeper(std::unique_ptr<InterceptionTable> table,
                         std::shared_ptr<platform::Log> log, std::function<void()> onRefreshed)
    : table_(std::move(table)),
      log_(std::move(log)),
      onRefreshed_(std::move(onRefreshed)),
      thread_([this] { run(); }) {}

AliveKeeper::~AliveKeeper() {
  removeTable();
}

void AliveKeeper::removeTable() {
  if (!thread_.joinable()) {
    return;
  }
  stop_.signal();
  thread_.join();
  table_.reset();
}

void AliveKeeper::run() {
  while (true) {
    std::array<pollfd, 2> waited{
        {{stop_.descriptor(), POLLIN, 0}, {beats_.descriptor(), POLLIN, 0}}};
    if (::poll(waited.data(), waited.size(), -1) < 0) {
      continue;
    }
    if (waited[0].revents != 0) {
      return;
    }
    if (beats_.consume()) {
      refresh();
    }
  }
}

void AliveKeeper::refresh() {
  const auto error = table_->refreshAlive();
  if (error && !failedLast_) {
    log_->error("OstravelProxy: %{public}s", {error->localizedDescription});
  }
  failedLast_ = error.has_value();
  if (!error && onRefreshed_) {
    onRefreshed_();
  }
}

}  // namespace ostravel::linuxplatform
