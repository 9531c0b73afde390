#include "Platform/Linux/Interception/AliveKeeper.h"

#include <poll.h>
#include <pthread.h>

#include <array>
#include <utility>

namespace ostravel::linuxplatform {

AliveKeeper::AliveKeeper(std::unique_ptr<InterceptionTable> table, Options options)
    : table_(std::move(table)), options_(std::move(options)), thread_([this] { run(); }) {}

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
  ::pthread_setname_np(::pthread_self(), "alive-keeper");
  while (true) {
    std::array<pollfd, 2> waited{
        {{stop_.descriptor(), POLLIN, 0}, {beats_.descriptor(), POLLIN, 0}}};
    if (::poll(waited.data(), waited.size(), -1) < 0) {
      continue;
    }
    if (waited[0].revents != 0) {
      return;
    }
    if (beats_.consume() && keepAlive() && options_.onRefreshed) {
      options_.onRefreshed();
    }
  }
}

bool AliveKeeper::keepAlive() {
  if (!options_.hasRoom()) {
    table_.reset();
    logFailure(
        "The kernel's table of tracked connections is nearly full; the rules are removed and "
        "everything goes direct until there is room (nf_conntrack_max)");
    return true;
  }
  if (table_) {
    auto error = table_->refreshAlive();
    if (!error && options_.adjust) {
      error = options_.adjust(*table_);
    }
    if (!error) {
      return true;
    }
    logFailure(error->localizedDescription);
    // Remove the old table first: the kernel rejects a second one of the same name.
    table_.reset();
  }
  return reinstall();
}

bool AliveKeeper::reinstall() {
  auto installed = options_.install();
  if (!installed) {
    logFailure(installed.error().localizedDescription);
    return false;
  }
  table_ = *std::move(installed);
  lastFailure_.clear();
  options_.log->info("OstravelProxy: Rules installed again");
  return true;
}

void AliveKeeper::logFailure(std::string description) {
  if (description != lastFailure_) {
    options_.log->error("OstravelProxy: %{public}s", {description});
    lastFailure_ = std::move(description);
  }
}

}  // namespace ostravel::linuxplatform
