#include "Platform/Linux/Statistics/FlowJournal.h"

#include <algorithm>
#include <utility>

namespace ostravel::linuxplatform {

using namespace std::chrono_literals;

// The writer removes a record from view and then checks for a reader; the reader announces itself
// and then looks at records. All four accesses are sequentially consistent, so either the writer
// keeps the record or the reader does not see it.
class FlowJournal::Reading {
 public:
  explicit Reading(const FlowJournal& journal) : journal_(journal), lock_(journal.readerLock_) {
    journal_.isRead_.store(true);
  }
  Reading(const Reading&) = delete;
  Reading& operator=(const Reading&) = delete;
  ~Reading() { journal_.isRead_.store(false); }

 private:
  const FlowJournal& journal_;
  const std::lock_guard<std::mutex> lock_;
};

FlowJournal::FlowJournal(const platform::Clock& clock, unsigned loops, platform::Log* log)
    : clock_(clock) {
  for (unsigned index = 0; index < loops; ++index) {
    counters_.emplace_back().log = log;
  }
}

Reference<FlowRecord> FlowJournal::open(const FlowRecord::Origin& origin, unsigned loop) {
  return makeReference<FlowRecord>(origin, applications_, clock_.secondsSince1970(),
                                   counters_[loop]);
}

void FlowJournal::publish(Reference<FlowRecord> record) {
  const auto sequence = last_.load(std::memory_order_relaxed) + 1;
  verdicts_.record(record->publish(sequence));
  switch (record->action()) {
    case FlowRecord::Action::direct:
      countDirect(record->reason());
      break;
    case FlowRecord::Action::refused:
      ++refused_;
      break;
    case FlowRecord::Action::proxied:
      ++proxied_;
      live_.add(record);
      break;
  }
  keep(std::move(record));
  live_.sweep(kSweptPerFlow, retired_);
  release();
}

bool FlowJournal::countLeft(std::string_view reason, TimePoint now) {
  countDirect(reason);
  if (now - keptSince_ >= 1s) {
    keptSince_ = now;
    keptCount_ = 0;
  }
  return ++keptCount_ <= kKeptPerSecond;
}

void FlowJournal::publishLeft(const FlowRecord::Origin& origin, std::string_view reason,
                              const std::string& host) {
  auto record = open(origin, 0);
  record->named(host);
  record->left(reason);
  record->publish(last_.load(std::memory_order_relaxed) + 1);
  keep(std::move(record));
  release();
}

void FlowJournal::maintain() {
  live_.sweep(kSweptPerTurn, retired_);
  release();
}

void FlowJournal::countDirect(std::string_view reason) {
  for (Reason& each : reasons_) {
    const char* const name = each.name.load(std::memory_order_relaxed);
    if (name == nullptr) {
      each.name.store(reason.data(), std::memory_order_release);
    }
    if (name == nullptr || std::string_view(name) == reason) {
      ++each.count;
      return;
    }
  }
}

void FlowJournal::keep(Reference<FlowRecord> record) {
  const std::uint64_t sequence = record->sequence();
  const std::size_t place = sequence % kKeptDecisions;
  decisions_[place].store(record.get());
  retired_.push_back(std::exchange(owned_[place], std::move(record)));
  last_.store(sequence, std::memory_order_release);
}

void FlowJournal::release() {
  if (!isRead_.load()) {
    retired_.clear();
  }
}

FlowJournal::Decisions FlowJournal::decisions(std::optional<std::uint64_t> after,
                                              std::optional<double> updatedAfter,
                                              std::size_t limit) const {
  Decisions result;
  const Reading reading(*this);
  const std::uint64_t last = last_.load(std::memory_order_acquire);
  const std::uint64_t oldest = last > kKeptDecisions ? last - kKeptDecisions + 1 : 1;
  result.last = last;
  if (after) {
    result.missed = oldest > *after + 1 ? oldest - *after - 1 : 0;
  }
  const std::uint64_t first =
      after ? *after + 1 : (last - oldest + 1 > limit ? last - limit + 1 : oldest);
  for (std::uint64_t number = oldest; number <= last && result.flows.size() < limit; ++number) {
    const FlowRecord* const record = decisions_[number % kKeptDecisions].load();
    // Replaced in the meantime.
    if (record == nullptr || record->sequence() != number) {
      continue;
    }
    if (number >= first || (updatedAfter && record->lastChange() > *updatedAfter)) {
      result.flows.push_back(record->view());
    }
  }
  return result;
}

FlowJournal::Tunnels FlowJournal::tunnels(std::size_t limit) const {
  Tunnels result;
  const Reading reading(*this);
  auto records = live_.all();
  std::erase_if(records, [](const FlowRecord* record) { return record->hasEnded(); });
  result.count = records.size();
  std::ranges::sort(records, std::ranges::greater(), &FlowRecord::sequence);
  records.resize(std::min(records.size(), limit));
  for (const FlowRecord* record : records) {
    result.flows.push_back(record->view());
  }
  return result;
}

FlowJournal::Totals FlowJournal::totals() const {
  Totals totals;
  totals.refused = refused_;
  totals.proxied = proxied_;
  for (const Reason& reason : reasons_) {
    if (const char* const name = reason.name.load(std::memory_order_acquire); name != nullptr) {
      const std::uint64_t count = reason.count;
      totals.directByReason[name] = count;
      totals.direct += count;
    }
  }
  totals.examined = totals.direct + totals.refused + totals.proxied;
  totals.verdicts = verdicts_.snapshot();
  std::vector<const DurationHistogram*> handshakes;
  for (const FlowCounters& loop : counters_) {
    totals.pending += loop.pending.load(std::memory_order_relaxed);
    totals.open += loop.open.load(std::memory_order_relaxed);
    totals.established += loop.established.load(std::memory_order_relaxed);
    for (std::size_t end = 0; end < kFlowEnds; ++end) {
      totals.ends[end] += loop.ends[end].load(std::memory_order_relaxed);
    }
    totals.bytesSent += loop.bytesSent.load(std::memory_order_relaxed);
    totals.bytesReceived += loop.bytesReceived.load(std::memory_order_relaxed);
    handshakes.push_back(&loop.handshakes);
  }
  for (const auto end : {platform::FlowEnd::timedOut, platform::FlowEnd::backlog,
                         platform::FlowEnd::requestFailed, platform::FlowEnd::connectionFailed}) {
    totals.directInTheEnd += totals.ends[static_cast<std::size_t>(end)];
  }
  totals.handshakes = DurationHistogram::sumOf(handshakes);
  return totals;
}

FlowJournal::Handshakes FlowJournal::lastHandshakes() const {
  Handshakes last;
  for (const FlowCounters& loop : counters_) {
    last.success = std::max(last.success, loop.lastSuccess.load(std::memory_order_relaxed));
    last.timeout = std::max(last.timeout, loop.lastTimeout.load(std::memory_order_relaxed));
  }
  return last;
}

}  // namespace ostravel::linuxplatform
