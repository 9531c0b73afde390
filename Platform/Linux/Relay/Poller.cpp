#include "Platform/Linux/Relay/Poller.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <system_error>
#include <utility>

namespace ostravel::linuxplatform {

namespace {

// Identifies the event of wake(), which needs no handling.
constexpr Poller::Key kWakeUp = ~Poller::Key{0};

constexpr std::uint32_t kReading = EPOLLIN | EPOLLRDHUP | EPOLLPRI | EPOLLET;
constexpr std::uint32_t kReadingAndWriting = kReading | EPOLLOUT;

// Reported once, with data or without. A short receive does not consume them, so there is more to
// receive.
constexpr std::uint32_t kMoreIsCertain = EPOLLRDHUP | EPOLLHUP | EPOLLPRI;
constexpr std::uint32_t kEnded = EPOLLRDHUP | EPOLLHUP;
constexpr std::uint32_t kWritable = EPOLLOUT | EPOLLHUP | EPOLLERR;

epoll_event eventOf(std::uint32_t events, Poller::Key key) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  return event;
}

}  // namespace

Poller::Poller() : epoll_(::epoll_create1(EPOLL_CLOEXEC)), preferred_(kWakeUp) {
  if (!epoll_.isOpen()) {
    throw std::system_error(errno, std::generic_category(), "epoll_create1");
  }
  // Edge-triggered, so that the signal need not be read.
  epoll_event event = eventOf(EPOLLIN | EPOLLET, kWakeUp);
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wakeUps_.descriptor(), &event) != 0) {
    throw std::system_error(errno, std::generic_category(), "epoll_ctl");
  }
}

Poller::~Poller() = default;

// Watches

Poller::Watch* Poller::add(int descriptor) {
  reclaimRemoved();
  if (free_.empty()) {
    const auto place = static_cast<std::uint32_t>(watches_.size());
    watches_.emplace_back().place_ = place;
    free_.push_back(place);
  }
  Watch& watch = watches_[free_.back()];
  epoll_event event = eventOf(kReading, watch.key());
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
    return nullptr;
  }
  free_.pop_back();
  return &watch;
}

void Poller::remove(Watch& watch) {
  reclaim(watch);
}

void Poller::removeFromOutside(Watch& watch) {
  watch.isRemoved_ = true;
  const std::lock_guard guard(lock_);
  removed_.push_back(&watch);
  hasRemoved_ = true;
}

void Poller::reclaim(Watch& watch) {
  // Destroyed at the end of the function, because captures of tasks may use this poller.
  const Watch::Waiting waiting = std::exchange(watch.waiting_, {});
  ++watch.generation_;
  watch.isReadAwaited_ = false;
  watch.isWriteAwaited_ = false;
  watch.isReadable_ = false;
  watch.isWritable_ = false;
  watch.isMoreCertain_ = false;
  watch.isWrittenTo_ = false;
  watch.isRemoved_ = false;
  free_.push_back(watch.place_);
}

void Poller::reclaimRemoved() {
  if (!hasRemoved_) {
    return;
  }
  std::vector<Watch*> removed;
  {
    const std::lock_guard guard(lock_);
    removed.swap(removed_);
    hasRemoved_ = false;
  }
  for (Watch* const watch : removed) {
    reclaim(*watch);
  }
}

// Waiting for one

Poller::Watch::Tasks& Poller::Watch::tasks() {
  if (!std::holds_alternative<std::unique_ptr<Tasks>>(waiting_)) {
    waiting_ = std::make_unique<Tasks>();
  }
  return *std::get<std::unique_ptr<Tasks>>(waiting_);
}

void Poller::waitUntilReadable(Watch& watch, Task task) {
  watch.tasks().reading = std::move(task);
  watch.isReadAwaited_ = true;
}

void Poller::waitUntilWritable(Watch& watch, int descriptor, Task task) {
  watch.tasks().writing = std::move(task);
  waitUntilWritable(watch, descriptor);
}

void Poller::setClient(Watch& watch, std::weak_ptr<Client> client) {
  cancelWaits(watch);
  watch.waiting_ = std::move(client);
}

void Poller::waitUntilWritable(Watch& watch, int descriptor) {
  watch.isWriteAwaited_ = true;
  if (!watch.isWrittenTo_) {
    watch.isWrittenTo_ = true;
    // If the socket is writable already, this reports it, so no event is missed. It cannot fail,
    // because it allocates nothing.
    epoll_event event = eventOf(kReadingAndWriting, watch.key());
    ::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, descriptor, &event);
  }
}

void Poller::cancelWaits(Watch& watch) {
  watch.isReadAwaited_ = false;
  watch.isWriteAwaited_ = false;
  const Watch::Waiting waiting = std::exchange(watch.waiting_, {});
}

void Poller::dropWaits() {
  // By index: destroying a task may add or remove watches.
  for (std::size_t place = 0; place < watches_.size(); ++place) {
    cancelWaits(watches_[place]);
  }
}

Poller::Watch* Poller::find(Key key) {
  const auto place = static_cast<std::uint32_t>(key);
  if (place >= watches_.size()) {
    return nullptr;
  }
  Watch& watch = watches_[place];
  return watch.key() == key && !watch.isRemoved_ ? &watch : nullptr;
}

void Poller::runDue(Key key) {
  if (Watch* const watch = find(key); watch != nullptr && isReadingDue(*watch)) {
    watch->isReadAwaited_ = false;
    watch->run(&Client::readable, &Watch::Tasks::reading);
  }
  // That may have removed the watch.
  if (Watch* const watch = find(key); watch != nullptr && isWritingDue(*watch)) {
    watch->isWriteAwaited_ = false;
    watch->run(&Client::writable, &Watch::Tasks::writing);
  }
}

void Poller::Watch::run(void (Client::*clientsWork)(), Task Tasks::*taskOf) {
  if (const auto* const client = std::get_if<std::weak_ptr<Client>>(&waiting_)) {
    if (const auto found = client->lock()) {
      (found.get()->*clientsWork)();
    }
  } else {
    // Moved out first: it may remove the watch.
    Task task = std::move(tasks().*taskOf);
    task();
  }
}

// Events

void Poller::wait(std::optional<std::chrono::milliseconds> limit) {
  reclaimRemoved();
  const int timeout =
      limit ? static_cast<int>(std::min<std::chrono::milliseconds::rep>(limit->count(), INT_MAX))
            : -1;
  const int count = ::epoll_wait(epoll_.get(), events_.data(), kEventsPerWait, timeout);
  eventCount_ = count > 0 ? static_cast<std::size_t>(count) : 0;
}

Poller::Rank Poller::rankOf(const epoll_event& event) const {
  if (event.data.u64 == preferred_) {
    return Rank::preferred;
  }
  return (event.events & kEnded) != 0 ? Rank::ended : Rank::usual;
}

void Poller::dispatch(Rank rank) {
  for (std::size_t index = 0; index < eventCount_; ++index) {
    if (rankOf(events_[index]) == rank) {
      handle(events_[index]);
    }
  }
}

void Poller::handle(const epoll_event& event) {
  const Key key = event.data.u64;
  Watch* const watch = key == kWakeUp ? nullptr : find(key);
  // The task of an earlier event may have removed the watch, and its memory may be in use again.
  if (watch == nullptr) {
    return;
  }
  const std::uint32_t events = event.events;
  watch->isReadable_ = watch->isReadable_ || (events & ~std::uint32_t{EPOLLOUT}) != 0;
  watch->isMoreCertain_ = watch->isMoreCertain_ || (events & kMoreIsCertain) != 0;
  watch->isWritable_ = watch->isWritable_ || (events & kWritable) != 0;
  runDue(key);
}

}  // namespace ostravel::linuxplatform
