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

#include "Base/SharedTexts.h"
#include "Platform/Interface/Clock.h"
#include "Platform/Interface/Log.h"
#include "Platform/Linux/Statistics/DurationHistogram.h"
#include "Platform/Linux/Statistics/FlowCounters.h"
#include "Platform/Linux/Statistics/FlowRecord.h"
#include "Platform/Linux/Statistics/LiveFlows.h"
#include "Platform/Linux/Statistics/SingleWriterCount.h"

namespace ostravel::linuxplatform {

// Records the decisions about flows: counts since the start, the latest decisions, and the open
// flows that were taken. Owned by the process entry; outlives every flow.
//
// One thread writes, the one that decides; it takes no lock and never waits. Any thread may read.
// While one reads, the writer keeps the records that it would otherwise release.
class FlowJournal {
 public:
  using TimePoint = FlowRecord::Clock::time_point;

  static constexpr std::size_t kKeptDecisions = 1000;
  // Limit on the records of flows that are left to the system before they are offered, so that a
  // flood neither costs much nor displaces all other records.
  static constexpr std::size_t kKeptPerSecond = 20;

  // loops: how many event loops carry flows. log: as for FlowCounters.
  FlowJournal(const platform::Clock& clock, unsigned loops, platform::Log* log = nullptr);
  FlowJournal(const FlowJournal&) = delete;
  FlowJournal& operator=(const FlowJournal&) = delete;

  // For the thread that decides:

  // Returns the record of a flow that is about to be offered. loop: carries it if it is taken.
  Reference<FlowRecord> open(const FlowRecord::Origin& origin, unsigned loop);
  // Called after the offer. Counts and keeps the decision.
  void publish(Reference<FlowRecord> record);
  // Counts a flow that is left to the system without an offer. reason: of static storage. True if
  // the caller should also record it, with publishLeft().
  bool countLeft(std::string_view reason, TimePoint now);
  // host: as in FlowRecord::named; empty if unknown.
  void publishLeft(const FlowRecord::Origin& origin, std::string_view reason,
                   const std::string& host = {});
  // Releases the flows that have ended. Call it periodically.
  void maintain();

  // For any thread:

  struct Decisions {
    // The sequence number of the latest decision.
    std::uint64_t last = 0;
    // How many of the requested decisions are no longer kept.
    std::uint64_t missed = 0;
    std::vector<FlowRecord::View> flows;
  };
  // Without `after` the latest decisions, otherwise those that follow this number; oldest first.
  // With updatedAfter (seconds since 1970) also earlier ones that have changed since then.
  Decisions decisions(std::optional<std::uint64_t> after, std::optional<double> updatedAfter,
                      std::size_t limit) const;

  struct Tunnels {
    std::size_t count = 0;
    std::vector<FlowRecord::View> flows;
  };
  // The open flows that were taken, newest first.
  Tunnels tunnels(std::size_t limit) const;

  struct Totals {
    std::uint64_t examined = 0;
    std::uint64_t direct = 0;
    std::uint64_t refused = 0;
    std::uint64_t proxied = 0;
    // Of those, the ones that were given back to the system after they had waited for the proxy.
    std::uint64_t directInTheEnd = 0;
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

  // When a handshake last succeeded, and when one last reached its deadline; seconds since 1970, 0
  // for never.
  struct Handshakes {
    double success = 0;
    double timeout = 0;
  };
  Handshakes lastHandshakes() const;

 private:
  // Exceeds the number of reasons.
  static constexpr std::size_t kMaximumReasons = 40;
  // Bounds one call's work in both places to that of a quarter of a second at a thousand flows a
  // second.
  static constexpr std::size_t kSweptPerFlow = 2;
  static constexpr std::size_t kSweptPerTurn = 4096;

  struct Reason {
    std::atomic<const char*> name = nullptr;
    SingleWriterCount count;
  };

  // Marks a reader: while it exists, the records that it sees are kept.
  class Reading;

  void countDirect(std::string_view reason);
  void keep(Reference<FlowRecord> record);
  void release();

  const platform::Clock& clock_;
  SharedTexts applications_;
  std::deque<FlowCounters> counters_;
  DurationHistogram verdicts_;
  SingleWriterCount refused_;
  SingleWriterCount proxied_;
  std::array<Reason, kMaximumReasons> reasons_;

  std::atomic<std::uint64_t> last_ = 0;
  std::array<std::atomic<FlowRecord*>, kKeptDecisions> decisions_{};
  LiveFlows live_;
  mutable std::mutex readerLock_;
  mutable std::atomic<bool> isRead_ = false;

  // For the writer only.
  std::array<Reference<FlowRecord>, kKeptDecisions> owned_;
  std::vector<Reference<FlowRecord>> retired_;
  TimePoint keptSince_;
  std::size_t keptCount_ = 0;
};

}  // namespace ostravel::linuxplatform
