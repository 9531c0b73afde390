#include "Platform/Simulation/Schedule/RunQueue.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace ostravel::simulation {

namespace {

std::chrono::nanoseconds later(std::chrono::nanoseconds moment, std::chrono::nanoseconds delay) {
  constexpr auto kEndOfTime = std::chrono::nanoseconds::max();
  return delay > kEndOfTime - moment ? kEndOfTime : moment + delay;
}

// Removes an item from the stack, also when it throws.
template <typename Action>
class AtEnd {
 public:
  explicit AtEnd(Action action) : action_(std::move(action)) {}
  AtEnd(const AtEnd&) = delete;
  AtEnd& operator=(const AtEnd&) = delete;
  ~AtEnd() { action_(); }

 private:
  Action action_;
};

}  // namespace

RunQueue::RunQueue(RunOrder order, SeededRandom random) : order_(order), random_(random) {}

RunQueue::RunQueue(Chooser chooser)
    : order_(RunOrder::seeded), random_(0, 0), chooser_(std::move(chooser)) {}

std::uint64_t RunQueue::draw(std::uint64_t bound) {
  if (order_ == RunOrder::fixed || bound < 2) {
    return 0;
  }
  return chooser_ ? chooser_(bound) : random_.below(bound);
}

void RunQueue::post(Work work) {
  const ItemNumber number = nextItem_++;
  items_.emplace(number, Item{std::move(work), nullptr});
  makeRunnable(number);
}

void RunQueue::post(const std::shared_ptr<WorkLane>& lane, ItemKind kind, Work work) {
  const ItemNumber number = nextItem_++;
  items_.emplace(number, Item{std::move(work), lane});
  lane->submit(number, kind);
  publish(*lane);
}

void RunQueue::postAfter(std::chrono::nanoseconds delay, Work work) {
  if (delay <= std::chrono::nanoseconds::zero()) {
    post(std::move(work));
    return;
  }
  setAlarm(later(now_, delay), [this, work = std::move(work)]() mutable { post(std::move(work)); });
}

void RunQueue::runInCaller(const std::shared_ptr<WorkLane>& lane, ItemKind kind, const Work& work) {
  const bool fromItemOfSameLane = !running_.empty() && running_.back() == lane.get();
  if (fromItemOfSameLane || lane->runningItemBlocks(kind)) {
    throw std::logic_error("sync on queue \"" + lane->label() +
                           "\" waits for an item that waits for it");
  }
  const ItemNumber end = nextItem_++;
  while (const auto preceding = lane->nextBefore(end, kind)) {
    execute(*preceding);
  }
  lane->startUnsubmitted(kind);
  running_.push_back(lane.get());
  const AtEnd finish([this, &lane] {
    running_.pop_back();
    lane->finish();
    publish(*lane);
  });
  work();
}

RunQueue::AlarmKey RunQueue::setAlarm(std::chrono::nanoseconds moment, Work work) {
  const AlarmKey key{moment, nextAlarm_++};
  alarms_.emplace(key, std::move(work));
  return key;
}

void RunQueue::cancelAlarm(const AlarmKey& alarm) {
  // Destroying the work may set or cancel other alarms.
  const auto cancelled = alarms_.extract(alarm);
}

bool RunQueue::runOne() {
  requireOutsideOfItems();
  soundDueAlarms();
  if (runnable_.empty()) {
    itemsAtThisMoment_ = 0;
    return false;
  }
  if (++itemsAtThisMoment_ > kMaximumItemsPerMoment) {
    throw std::logic_error("the run does not come to an end: items submit items without end");
  }
  execute(pick());
  return true;
}

bool RunQueue::runAnother() {
  if (!canRunAnother()) {
    return false;
  }
  ++itemsAtThisMoment_;
  execute(pick());
  return true;
}

void RunQueue::run() {
  while (runOne()) {
  }
}

void RunQueue::advance(std::chrono::nanoseconds duration) {
  const auto end = later(now_, duration);
  runUntil([] { return false; }, duration);
  now_ = std::max(now_, end);
}

void RunQueue::spend(std::chrono::nanoseconds duration) {
  now_ = later(now_, duration);
}

bool RunQueue::runUntil(const std::function<bool()>& predicate, std::chrono::nanoseconds limit) {
  const auto end = later(now_, limit);
  while (!predicate()) {
    if (runOne()) {
      continue;
    }
    // An alarm may have gone off.
    if (predicate()) {
      break;
    }
    const auto alarm = nextAlarm();
    if (!alarm || *alarm > end) {
      return false;
    }
    now_ = *alarm;
  }
  return true;
}

void RunQueue::clear() {
  // Destroying what an item holds may submit further items.
  while (!items_.empty() || !alarms_.empty()) {
    runnable_.clear();
    const auto items = std::exchange(items_, {});
    const auto alarms = std::exchange(alarms_, {});
  }
  runnable_.clear();
}

void RunQueue::makeRunnable(ItemNumber item) {
  runnable_.insert(std::upper_bound(runnable_.begin(), runnable_.end(), item), item);
}

void RunQueue::publish(WorkLane& lane) {
  for (const ItemNumber item : lane.takeStartable()) {
    makeRunnable(item);
  }
}

ItemNumber RunQueue::pick() {
  return runnable_[draw(runnable_.size())];
}

void RunQueue::execute(ItemNumber number) {
  const auto entry = items_.find(number);
  Item item = std::move(entry->second);
  items_.erase(entry);
  runnable_.erase(std::lower_bound(runnable_.begin(), runnable_.end(), number));
  if (item.lane) {
    item.lane->start(number);
  }
  running_.push_back(item.lane.get());
  const AtEnd finish([this, &item] {
    // The item's captures are destroyed as part of the item.
    item.work = nullptr;
    running_.pop_back();
    if (item.lane) {
      item.lane->finish();
      publish(*item.lane);
    }
  });
  item.work();
}

void RunQueue::soundDueAlarms() {
  while (!alarms_.empty() && alarms_.begin()->first.first <= now_) {
    const auto first = alarms_.begin();
    const Work work = std::move(first->second);
    alarms_.erase(first);
    work();
  }
}

std::optional<std::chrono::nanoseconds> RunQueue::nextAlarm() const {
  if (alarms_.empty()) {
    return std::nullopt;
  }
  return alarms_.begin()->first.first;
}

void RunQueue::requireOutsideOfItems() const {
  if (!running_.empty()) {
    throw std::logic_error("the run is driven from one of its own items");
  }
}

}  // namespace ostravel::simulation
