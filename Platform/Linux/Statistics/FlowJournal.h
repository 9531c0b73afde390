#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include "Platform/Interface/Clock.h"
#include "Platform/Linux/Statistics/DurationHistogram.h"
#include "Platform/Linux/Statistics/FlowCounters.h"
#include "Platform/Linux/Statistics/FlowRecord.h"
#include "Platform/Linux/Statistics/LiveFlows.h"

namespace ostravel::linuxplatform {

// What was decided about flows: counts since the start, the last decisions, and the flows that were
// taken and are not over. Owned by the process entry; outlives every flow.
//
// One thread writes, the one that decides about flows; it takes no lock and never waits. Any thread
// may read. While one reads, the writer keeps records that it would otherwise release.
class FlowJournal {
 public:
  using TimePoint = FlowRecord::Clock::time_point;

  static constexpr std::size_t kKeptDecisions = 1000;
  // Of flows that are left to the system unexamined, so that a flood neither costs much nor pushes
  // everything else out.
  static constexpr std::size_t kKeptPerSecond = 20;

  // loops: how many event loops carry flows.
  FlowJournal(const platform::Clock& clock, unsigned loops);
  FlowJournal(const FlowJournal&) = delete;
  FlowJournal& operator=(const FlowJournal&) = delete;

  // --- By the thread that decides.

  // A record for a flow that is about to be offered, on this loop if it is taken.
  std::shared_ptr<FlowRecord> open(FlowRecord::Origin origin, unsigned loop);
  // After the offer. Counts the decision, and keeps it.
  void publish(std::shared_ptr<FlowRecord> record);
  // Counts a flow that is left to the system without an offer. reason: of static storage. True if
  // the caller should also record it, with publishLeft().
  bool countLeft(std::string_view reason, TimePoint now);
  void publishLeft(FlowRecord::Origin origin, std::string_view reason);
  // Releases what is over. Call it periodically.
  void maintain();

  // --- By any thread.

  struct Decisions {
    // The largest number so far.
    std::uint64_t last = 0;
    // Newer than asked for, but no longer kept.
    std::uint64_t missed = 0;
    std::vector<FlowRecord::View> flows;
  };
  // The oldest after the number `after`, or without it the newest; oldest first. With
  // updatedAfter (seconds since 1970) also older ones to which something has happened since.
  Decisions decisions(std::optional<std::uint64_t> after, std::optional<double> updatedAfter,
                      std::size_t limit) const;

  struct Tunnels {
    std::size_t count = 0;
    std::vector<FlowRecord::View> flows;
  };
  // Flows that were taken and are not over, newest first.
  Tunnels tunnels(std::size_t limit) const;

  struct Totals {
    std::uint64_t examined = 0;
    std::uint64_t direct = 0;
    std::uint64_t refused = 0;
    std::uint64_t proxied = 0;
    std::map<std::string_view, std::uint64_t> directByReason;
    DurationHistogram::Snapshot verdicts;
    // The sums of all loops.
    std::int64_t pending = 0;
    std::int64_t open = 0;
    std::uint64_t established = 0;
    std::array<std::uint64_t, kFlowEnds> ends{};
    std::uint64_t bytesSent = 0;
    std::uint64_t bytesReceived = 0;
    DurationHistogram::Snapshot handshakes;
  };
  Totals totals() const;

  // When a handshake last succeeded, and last reached its deadline; seconds since 1970, 0 for
  // never.
  struct Handshakes {
    double success = 0;
    double timeout = 0;
  };
  Handshakes lastHandshakes() const;

 private:
  // More than there are reasons.
  static constexpr std::size_t kMaximumReasons = 40;
  // A quarter of a second's work at a thousand flows a second, in both places.
  static constexpr std::size_t kSweptPerFlow = 2;
  static constexpr std::size_t kSweptPerTurn = 4096;

  struct Reason {
    std::atomic<const char*> name = nullptr;
    std::atomic<std::uint64_t> count = 0;
  };

  // While it exists, records that were seen stay.
  class Reading;

  void countDirect(std::string_view reason);
  void keep(std::shared_ptr<FlowRecord> record);
  void release();

  const platform::Clock& clock_;
  std::deque<FlowCounters> counters_;
  DurationHistogram verdicts_;
  std::atomic<std::uint64_t> refused_ = 0;
  std::atomic<std::uint64_t> proxied_ = 0;
  std::array<Reason, kMaximumReasons> reasons_;

  std::atomic<std::uint64_t> last_ = 0;
  std::array<std::atomic<FlowRecord*>, kKeptDecisions> decisions_{};
  LiveFlows live_;
  mutable std::mutex readerLock_;
  mutable std::atomic<bool> isRead_ = false;

  // The writer's.
  std::array<std::shared_ptr<FlowRecord>, kKeptDecisions> owned_;
  std::vector<std::shared_ptr<FlowRecord>> retired_;
  TimePoint keptSince_;
  std::size_t keptCount_ = 0;
};

}  // namespace ostravel::linuxplatform
