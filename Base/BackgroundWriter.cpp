#include "Base/BackgroundWriter.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <mutex>
#include <utility>

namespace ostravel {

namespace {

using namespace std::chrono_literals;

// An output without room returns at least this often; otherwise it is stuck.
constexpr auto kLeaving = 200ms;

// Limits in a crash, in steps of a millisecond. A live thread makes progress within the first one
// even on a busy machine; the second one keeps a slow reader from delaying the end.
constexpr int kLongestStandstill = 200;
constexpr int kLongestCrash = 1000;

// Filled by one thread at a time. The size changes last, so that the bytes it covers are complete.
struct Buffer {
  explicit Buffer(std::size_t capacity) : bytes(std::make_unique_for_overwrite<char[]>(capacity)) {}

  std::string_view text() const { return {bytes.get(), size.load(std::memory_order_acquire)}; }

  void append(std::string_view record) {
    const std::size_t end = size.load(std::memory_order_relaxed);
    std::memcpy(bytes.get() + end, record.data(), record.size());
    size.store(end + record.size(), std::memory_order_release);
  }

  const std::unique_ptr<char[]> bytes;
  std::atomic<std::size_t> size = 0;
};

}  // namespace

struct BackgroundWriter::State {
  State(std::unique_ptr<Output> outputOfWriter, std::size_t capacityOfBuffer)
      : output(std::move(outputOfWriter)), capacity(capacityOfBuffer) {}

  Buffer& filled() { return buffers[filledIndex]; }
  Buffer& written() { return buffers[1 - filledIndex]; }

  // True if the thread has work to do. Called with the lock held.
  bool hasWork() { return filled().size > 0 || dropped > 0; }

  // In the counting of buffersWritten, including the buffer that is being filled. Called with the
  // lock held.
  std::size_t lastBufferInUse() {
    // The number of dropped records goes into the buffer after it.
    return exchanges + (hasWork() ? 1 : 0) + (dropped > 0 ? 1 : 0);
  }

  void run() {
    threadID = ::gettid();
    std::unique_lock lock(mutex);
    while (waitForWork(lock)) {
      exchangeBuffers();
      lock.unlock();
      writeBuffer();
      lock.lock();
      ++buffersWritten;
      progress.notify_all();
      gather(lock);
    }
    hasEnded = true;
    progress.notify_all();
  }

  void gather(std::unique_lock<std::mutex>& lock) {
    isGathering = true;
    wakeUp.wait_for(lock, kGathering, [this] { return isHurried(); });
    isGathering = false;
  }

  bool isHurried() const {
    return isEnding || flushers > 0 || hasUrgentRecord || records >= kManyRecords || dropped > 0;
  }

  // Counts a record; true if the thread has to be woken for it. Called with the lock held.
  bool noteRecord(Urgency urgency) {
    ++records;
    hasUrgentRecord = hasUrgentRecord || urgency == Urgency::urgent;
    const bool endsGathering = isGathering && isHurried();
    isGathering = isGathering && !endsGathering;
    return std::exchange(isCallNeeded, false) || endsGathering;
  }

  // False once no work is left and none can follow.
  bool waitForWork(std::unique_lock<std::mutex>& lock) {
    while (!hasWork() && !isEnding) {
      isCallNeeded = true;
      wakeUp.wait(lock);
      isCallNeeded = false;
    }
    return hasWork() && !isAbandoned;
  }

  void exchangeBuffers() {
    filledIndex = 1 - filledIndex;
    ++exchanges;
    records = 0;
    hasUrgentRecord = false;
    if (dropped > 0) {
      const std::string record = output->dropped(std::exchange(dropped, 0));
      if (record.size() <= capacity) {
        filled().append(record);
      }
    }
  }

  void writeBuffer() {
    const std::string_view text = written().text();
    while (done < text.size() && !isAbandoned) {
      done += output->write(text.substr(done));
    }
    written().size = 0;
    done = 0;
  }

  std::size_t waitingBytes() const { return buffers[0].size + buffers[1].size - done; }

  void writeLeftovers() noexcept {
    const std::string_view text = written().text();
    std::size_t at = done;
    while (at < text.size()) {
      const std::size_t size = output->writeInCrash(text.substr(at));
      if (size == 0) {
        return;
      }
      at += size;
    }
    std::string_view rest = filled().text();
    while (!rest.empty()) {
      const std::size_t size = output->writeInCrash(rest);
      if (size == 0) {
        return;
      }
      rest.remove_prefix(size);
    }
  }

  const std::unique_ptr<Output> output;
  const std::size_t capacity;

  std::mutex mutex;
  // For the thread, and for the threads that wait for it.
  std::condition_variable wakeUp;
  std::condition_variable progress;
  // Since the buffers changed places.
  std::size_t dropped = 0;
  std::size_t droppedInAll = 0;
  std::size_t records = 0;
  bool hasUrgentRecord = false;
  std::size_t exchanges = 0;
  std::size_t buffersWritten = 0;
  int flushers = 0;
  // The thread sleeps and has not been woken yet.
  bool isCallNeeded = false;
  // The thread pauses and has not been woken yet.
  bool isGathering = false;
  bool isEnding = false;
  bool hasEnded = false;
  std::atomic<bool> isAbandoned = false;

  // Changed with the lock held; the signal handler of a crash reads them without it.
  std::array<Buffer, 2> buffers{Buffer(capacity), Buffer(capacity)};
  std::atomic<unsigned> filledIndex = 0;
  // The bytes of the buffer being written that have been written or lost.
  std::atomic<std::size_t> done = 0;
  std::atomic<pid_t> threadID = 0;
};

BackgroundWriter::BackgroundWriter(std::unique_ptr<Output> output, std::size_t capacity,
                                   const char* threadName)
    : state_(std::make_shared<State>(std::move(output), capacity)),
      thread_([state = state_] { state->run(); }) {
  ::pthread_setname_np(thread_.native_handle(), threadName);
}

BackgroundWriter::~BackgroundWriter() {
  std::unique_lock lock(state_->mutex);
  state_->isEnding = true;
  state_->wakeUp.notify_one();
  const auto hasEnded = [this] { return state_->hasEnded; };
  if (!state_->progress.wait_for(lock, kFarewell, hasEnded)) {
    state_->isAbandoned = true;
    if (!state_->progress.wait_for(lock, kLeaving, hasEnded)) {
      thread_.detach();
      return;
    }
  }
  lock.unlock();
  thread_.join();
}

void BackgroundWriter::push(std::string_view record, Urgency urgency) {
  bool isCallNeeded = false;
  {
    const std::lock_guard lock(state_->mutex);
    Buffer& buffer = state_->filled();
    if (state_->dropped > 0 || record.size() > state_->capacity - buffer.size) {
      ++state_->dropped;
      ++state_->droppedInAll;
    } else {
      buffer.append(record);
    }
    isCallNeeded = state_->noteRecord(urgency);
  }
  if (isCallNeeded) {
    state_->wakeUp.notify_one();
  }
}

std::size_t BackgroundWriter::droppedCount() const {
  const std::lock_guard lock(state_->mutex);
  return state_->droppedInAll;
}

bool BackgroundWriter::flush(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(state_->mutex);
  ++state_->flushers;
  state_->wakeUp.notify_one();
  const auto isDone = [this, last = state_->lastBufferInUse()] {
    return state_->buffersWritten >= last;
  };
  const bool result = state_->progress.wait_until(lock, deadline, isDone);
  --state_->flushers;
  return result;
}

void BackgroundWriter::writeInCrash() noexcept {
  State& state = *state_;
  std::size_t waiting = state.waitingBytes();
  if (state.threadID != ::gettid()) {
    int standstill = 0;
    for (int waited = 0; waiting > 0 && waited < kLongestCrash && standstill < kLongestStandstill;
         ++waited) {
      const timespec millisecond{.tv_sec = 0, .tv_nsec = 1'000'000};
      ::nanosleep(&millisecond, nullptr);
      const std::size_t now = state.waitingBytes();
      standstill = now == waiting ? standstill + 1 : 0;
      waiting = now;
    }
  }
  if (waiting > 0) {
    state.writeLeftovers();
  }
}

}  // namespace ostravel
