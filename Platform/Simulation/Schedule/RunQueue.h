#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Platform/Simulation/Schedule/SeededRandom.h"
#include "Platform/Simulation/Schedule/WorkLane.h"

namespace ostravel::simulation {

// Selects the next item among those that may run.
enum class RunOrder {
  // The one that was submitted first.
  fixed,
  // One drawn at random.
  seeded,
};

// The pending work of a run: items that may run now, and alarms in virtual time. Time does not pass
// while any item can run. Single-threaded.
class RunQueue {
 public:
  using Work = std::function<void()>;
  // By moment, then by the order in which they were set.
  using AlarmKey = std::pair<std::chrono::nanoseconds, std::uint64_t>;
  // Replaces the seed: returns a number below bound, which is above one.
  using Chooser = std::function<std::uint64_t(std::uint64_t bound)>;

  // If more items run at one moment of virtual time, they submit one another endlessly.
  static constexpr std::size_t kMaximumItemsPerMoment = 2'000'000;

  RunQueue(RunOrder order, SeededRandom random);
  // A seeded order whose numbers come from the chooser, so that a test can try all of them.
  explicit RunQueue(Chooser chooser);
  RunQueue(const RunQueue&) = delete;
  RunQueue& operator=(const RunQueue&) = delete;

  RunOrder order() const { return order_; }
  // Virtual time since the run began.
  std::chrono::nanoseconds now() const { return now_; }
  // A number below bound in the seeded order, zero in the fixed one.
  std::uint64_t draw(std::uint64_t bound);

  // An item on its own, or one of a lane.
  void post(Work work);
  void post(const std::shared_ptr<WorkLane>& lane, ItemKind kind, Work work);
  // An item on its own that may not run before the delay is over.
  void postAfter(std::chrono::nanoseconds delay, Work work);

  // Runs the work in the caller, after the items that must precede it in the lane. Throws
  // std::logic_error if it would wait for an item that waits for it.
  void runInCaller(const std::shared_ptr<WorkLane>& lane, ItemKind kind, const Work& work);

  // Calls the work once when virtual time reaches the moment; it may only post.
  AlarmKey setAlarm(std::chrono::nanoseconds moment, Work work);
  void cancelAlarm(const AlarmKey& alarm);

  // Runs one item; false when none can run at this moment of virtual time.
  bool runOne();
  // Called from an item: runs another one inside it, as a second thread would while the first is
  // preempted; false when none can run. The caller may hold no lock.
  bool runAnother();
  bool canRunAnother() const { return !running_.empty() && !runnable_.empty(); }
  // Runs items until none can run; virtual time does not pass. Like the two below it throws
  // std::logic_error when it is called from an item, and when it does not end.
  void run();
  // Lets virtual time pass, running what becomes due at its moment and in its order.
  void advance(std::chrono::nanoseconds duration);
  // Simulates an item that takes this long: time passes and nothing else happens.
  void spend(std::chrono::nanoseconds duration);
  // Runs items, and lets time pass whenever none can run, until the predicate holds or the limit of
  // virtual time is reached; returns whether it holds. The predicate is tested after every item.
  bool runUntil(const std::function<bool()>& predicate, std::chrono::nanoseconds limit);

  // Drops all items and alarms without running them.
  void clear();

 private:
  struct Item {
    Work work;
    std::shared_ptr<WorkLane> lane;
  };

  void makeRunnable(ItemNumber item);
  void publish(WorkLane& lane);
  ItemNumber pick();
  void execute(ItemNumber number);
  void soundDueAlarms();
  std::optional<std::chrono::nanoseconds> nextAlarm() const;
  void requireOutsideOfItems() const;

  const RunOrder order_;
  SeededRandom random_;
  const Chooser chooser_;
  std::chrono::nanoseconds now_{0};
  ItemNumber nextItem_ = 1;
  std::uint64_t nextAlarm_ = 1;
  std::size_t itemsAtThisMoment_ = 0;
  std::unordered_map<ItemNumber, Item> items_;
  // Ascending.
  std::vector<ItemNumber> runnable_;
  std::map<AlarmKey, Work> alarms_;
  // Lanes of the items that are running, innermost last; null for an item on its own.
  std::vector<const WorkLane*> running_;
};

}  // namespace ostravel::simulation
