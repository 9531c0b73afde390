#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

namespace ostravel {

// Queues records, such as the lines of a log, and writes them on a thread, so that a stalled reader
// blocks only that thread. Usable from any thread; records are written in the order in which they
// were queued.
//
// Two buffers: one is filled while the other is written. When the first is full, records are
// dropped until the two are swapped; a record with their number replaces them. After each buffer
// the thread pauses, for kGathering or until there are kManyRecords, so that many records share a
// system call and few pay for waking the thread. An urgent record ends the pause.
class BackgroundWriter {
 public:
  // Receives the records. Owned by the writer; used by its thread only unless stated otherwise.
  class Output {
   public:
    Output() = default;
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    virtual ~Output() = default;

    // Writes the first of the records, of which there is at least one. Returns the number of bytes
    // that have been written or are lost because they cannot be; 0 if there is no room yet, and it
    // is then called again. May block indefinitely.
    virtual std::size_t write(std::string_view records) = 0;

    // The record that reports dropped records; empty for no such record. Must not use this writer.
    virtual std::string dropped(std::size_t count) = 0;

    // As write(), but never waits and is async-signal-safe: for the signal handler of a crashing
    // process.
    virtual std::size_t writeInCrash(std::string_view records) noexcept = 0;
  };

  // Capacity of each buffer. About five thousand lines together: seconds of the worst flood, and
  // little compared with the memory of the process. Unused pages cost nothing.
  static constexpr std::size_t kUsualCapacity = std::size_t{512} * 1024;

  // Too short for users to notice the delay of a line.
  static constexpr std::chrono::milliseconds kGathering{20};
  static constexpr std::size_t kManyRecords = 64;

  enum class Urgency { canWait, urgent };

  // How long the destructor waits for a stalled reader.
  static constexpr std::chrono::milliseconds kFarewell{500};

  // Throws std::system_error if the thread cannot be created. Its name has at most 15 bytes.
  BackgroundWriter(std::unique_ptr<Output> output, std::size_t capacity, const char* threadName);
  BackgroundWriter(const BackgroundWriter&) = delete;
  BackgroundWriter& operator=(const BackgroundWriter&) = delete;
  // Waits until everything is written, but not longer than kFarewell. A thread that is still stuck
  // in a system call is detached; it writes nothing more and frees the output when the call
  // returns.
  ~BackgroundWriter();

  // Accepts a record, or drops and counts it. Never waits for more than a memory copy.
  void push(std::string_view record, Urgency urgency = Urgency::canWait);

  // How many records were dropped since the start.
  std::size_t droppedCount() const;

  // Waits until all records pushed before are written; false if they are not by the deadline.
  [[nodiscard]] bool flush(std::chrono::steady_clock::time_point deadline);

  // For the handler of a signal that ends the process, on any thread: waits for the writer's thread
  // while it makes progress, then writes the rest without waiting. Async-signal-safe.
  void writeInCrash() noexcept;

 private:
  struct State;

  // Also held by the thread, which may outlive this object.
  const std::shared_ptr<State> state_;
  std::thread thread_;
};

}  // namespace ostravel
