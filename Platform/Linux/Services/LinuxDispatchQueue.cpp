#include "Platform/Linux/Services/LinuxDispatchQueue.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <utility>

#include "Platform/Linux/Services/LocalTurns.h"

namespace ostravel::linuxplatform {

using platform::DispatchQueueKind;

namespace {

// After this many items the thread is passed to other queues.
constexpr int kItemsPerTurn = 64;

// The only copy of this label.
const std::string& keptLabel(std::string label) {
  // Most queues are made for tunnels, all with the same label.
  static std::atomic<const std::string*> latest = nullptr;
  if (const auto* const kept = latest.load(); kept != nullptr && *kept == label) {
    return *kept;
  }
  static std::mutex lock;
  // Never destroyed, because queues may outlive objects of static storage.
  static auto& labels = *new std::set<std::string>;
  const std::lock_guard guard(lock);
  const std::string& kept = *labels.insert(std::move(label)).first;
  latest = &kept;
  return kept;
}

}  // namespace

// One waiting item: either its work, or a thread that will run the item itself.
struct LinuxDispatchQueue::Entry {
  Entry(Access accessOfItem, Work workOfItem) : access(accessOfItem), work(std::move(workOfItem)) {}

  const Access access;
  // Set if the entry is part of a Waiter.
  Waiter* waiter = nullptr;
  Entry* next = nullptr;
  Work work;
};

// A thread in a sync call. Lives on that thread's stack.
struct LinuxDispatchQueue::Waiter {
  explicit Waiter(Access access) : entry(access, nullptr) { entry.waiter = this; }

  Entry entry;
  // Signalled when the thread may run its item, and when there is something to run before it.
  std::condition_variable wakeUp;
  bool isAdmitted = false;
  Waiter* next = nullptr;
};

// First in, first out, linked through the entries.
class LinuxDispatchQueue::EntryList {
 public:
  Entry* first() const { return first_; }

  void append(Entry* entry) {
    (first_ == nullptr ? first_ : last_->next) = entry;
    last_ = entry;
  }

  Entry* takeFirst() {
    Entry* const entry = first_;
    if (entry != nullptr) {
      first_ = entry->next;
    }
    return entry;
  }

 private:
  Entry* first_ = nullptr;
  Entry* last_ = nullptr;
};

// A reader-writer lock whose queue contains items as well as threads.
//
// word_ records which items are running and whether any are waiting. While none is waiting, sync
// items enter and leave by changing it alone. Everything else needs the mutex; kWaiting changes
// only under it, and while kWaiting is set, items enter only from the front of the line.
//
// An item that makes the front of the line runnable by leaving admits it: threads are woken, shared
// items are submitted to the pool. An exclusive item at the front is run by the first thread in the
// line, which is waiting anyway, or by the pool if there is none.
class LinuxDispatchQueue::State final : public WorkerPool::Client,
                                        public std::enable_shared_from_this<State> {
 public:
  State(WorkerPool& pool, bool mayRunLocally) : pool_(pool), mayRunLocally_(mayRunLocally) {}

  void submit(Access access, Work work) {
    auto entry = std::make_unique<Entry>(access, std::move(work));
    pool_.itemSubmitted();
    const std::lock_guard lock(mutex_);
    if (access == Access::shared && tryEnter(Access::shared)) {
      ready_.append(entry.release());
      requestTurn();
      return;
    }
    joinLine(entry.release());
  }

  void runAndWait(Access access, const Work& work) {
    if (!tryEnter(access)) {
      waitInLine(access);
    }
    work();
    leave(access);
  }

  void takeTurn() override {
    std::unique_lock lock(mutex_);
    isPoolCalled_ = false;
    for (int i = 0; i < kItemsPerTurn; ++i) {
      if (!runNext(lock)) {
        return;
      }
    }
    if (ready_.first() != nullptr || isExclusiveItemRunnable()) {
      callPool();
    }
  }

 private:
  static constexpr std::uint32_t kWaiting = 1;    // the line is not empty
  static constexpr std::uint32_t kExclusive = 2;  // an exclusive item is running
  static constexpr std::uint32_t kOneShared = 4;  // one shared item; multiples count them

  bool tryEnter(Access access) {
    std::uint32_t word = word_.load();
    if (access == Access::exclusive) {
      return word == 0 && word_.compare_exchange_strong(word, kExclusive);
    }
    while ((word & (kWaiting | kExclusive)) == 0) {
      if (word_.compare_exchange_weak(word, word + kOneShared)) {
        return true;
      }
    }
    return false;
  }

  void leave(Access access) {
    if (access == Access::exclusive) {
      std::uint32_t onlyThis = kExclusive;
      if (word_.compare_exchange_strong(onlyThis, 0)) {
        return;
      }
      const std::lock_guard lock(mutex_);
      word_ -= kExclusive;
      admitAndCall();
      return;
    }
    if (word_.fetch_sub(kOneShared) == (kOneShared | kWaiting)) {
      const std::lock_guard lock(mutex_);
      admitAndCall();
    }
  }

  void joinLine(Entry* entry) {
    line_.append(entry);
    const auto before = word_.fetch_or(kWaiting);
    if ((before & (kWaiting | kExclusive)) == 0) {
      admitAndCall();
    }
  }

  void waitInLine(Access access) {
    Waiter self(access);
    std::unique_lock lock(mutex_);
    (firstWaiter_ == nullptr ? firstWaiter_ : lastWaiter_->next) = &self;
    lastWaiter_ = &self;
    joinLine(&self.entry);
    // Every runnable item is ahead of this thread's, which would have been admitted otherwise.
    while (!self.isAdmitted) {
      if (!runNext(lock)) {
        self.wakeUp.wait(lock);
      }
    }
  }

  // Admits all items from the front of the line that may enter now, except an exclusive one, which
  // needs a thread to run it.
  void admit() {
    while (Entry* const front = line_.first()) {
      const auto inside = word_ & ~kWaiting;
      const bool isExclusive = front->access == Access::exclusive;
      if ((inside & kExclusive) != 0 ||
          (isExclusive && (inside != 0 || front->waiter == nullptr))) {
        return;
      }
      line_.takeFirst();
      word_ += isExclusive ? kExclusive : kOneShared;
      if (front->waiter != nullptr) {
        admitWaiter(front->waiter);
      } else {
        front->next = nullptr;
        ready_.append(front);
        requestTurn();
        wakeFirstWaiter();
      }
    }
    word_ &= ~kWaiting;
  }

  void admitWaiter(Waiter* waiter) {
    firstWaiter_ = waiter->next;
    waiter->isAdmitted = true;
    waiter->wakeUp.notify_one();
  }

  void admitAndCall() {
    admit();
    if (!isExclusiveItemRunnable()) {
      return;
    }
    if (firstWaiter_ != nullptr) {
      wakeFirstWaiter();
    } else {
      callPool();
    }
  }

  bool isExclusiveItemRunnable() const {
    const Entry* const front = line_.first();
    return front != nullptr && front->waiter == nullptr && front->access == Access::exclusive &&
           word_ == kWaiting;
  }

  void wakeFirstWaiter() {
    if (firstWaiter_ != nullptr) {
      firstWaiter_->wakeUp.notify_one();
    }
  }

  void requestTurn() {
    LocalTurns* const here = mayRunLocally_ ? LocalTurns::current() : nullptr;
    if (here != nullptr) {
      here->giveTurn(pool_, shared_from_this());
    } else {
      pool_.submit(shared_from_this());
    }
  }

  void callPool() {
    if (!std::exchange(isPoolCalled_, true)) {
      requestTurn();
    }
  }

  // Runs one item that may run now; false if there is none. Called and left with the lock held.
  bool runNext(std::unique_lock<std::mutex>& lock) {
    if (ready_.first() != nullptr) {
      runOutside(lock, std::unique_ptr<Entry>(ready_.takeFirst()));
      word_ -= kOneShared;
    } else if (isExclusiveItemRunnable()) {
      std::unique_ptr<Entry> entry(line_.takeFirst());
      word_ = line_.first() == nullptr ? kExclusive : kExclusive | kWaiting;
      runOutside(lock, std::move(entry));
      word_ -= kExclusive;
    } else {
      return false;
    }
    admit();
    return true;
  }

  void runOutside(std::unique_lock<std::mutex>& lock, std::unique_ptr<Entry> entry) {
    lock.unlock();
    entry->work();
    // Destroy what the work owns while the item still counts as running.
    entry.reset();
    pool_.itemFinished();
    lock.lock();
  }

  WorkerPool& pool_;
  const bool mayRunLocally_;
  std::atomic<std::uint32_t> word_ = 0;
  // The pool was asked to run the exclusive item at the front and has not started.
  bool isPoolCalled_ = false;
  std::mutex mutex_;
  EntryList line_;
  // Admitted shared items that wait for a thread.
  EntryList ready_;
  // The threads in the line, in its order.
  Waiter* firstWaiter_ = nullptr;
  Waiter* lastWaiter_ = nullptr;
};

LinuxDispatchQueue::LinuxDispatchQueue(WorkerPool& pool, std::string label, DispatchQueueKind kind)
    : pool_(pool),
      label_(keptLabel(std::move(label))),
      usualAccess_(kind == DispatchQueueKind::serial ? Access::exclusive : Access::shared) {}

LinuxDispatchQueue::~LinuxDispatchQueue() = default;

void LinuxDispatchQueue::itemsNeverBlock() {
  neverBlocks_ = true;
}

LinuxDispatchQueue::State& LinuxDispatchQueue::state() {
  if (!hasState_.load(std::memory_order_acquire)) {
    // Shared by all queues, because each locks it only once.
    static std::mutex lock;
    const std::lock_guard guard(lock);
    if (!state_) {
      state_ = std::make_shared<State>(pool_, neverBlocks_);
      hasState_.store(true, std::memory_order_release);
    }
  }
  return *state_;
}

void LinuxDispatchQueue::async(Work work) {
  state().submit(usualAccess_, std::move(work));
}

void LinuxDispatchQueue::asyncBarrier(Work work) {
  state().submit(Access::exclusive, std::move(work));
}

void LinuxDispatchQueue::runSync(const Work& work) {
  state().runAndWait(usualAccess_, work);
}

void LinuxDispatchQueue::runSyncBarrier(const Work& work) {
  state().runAndWait(Access::exclusive, work);
}

}  // namespace ostravel::linuxplatform
