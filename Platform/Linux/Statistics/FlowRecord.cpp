#include "Platform/Linux/Statistics/FlowRecord.h"

#include <algorithm>
#include <utility>

namespace ostravel::linuxplatform {

using platform::FlowEnd;
using platform::FlowRule;

namespace {

constexpr double kMicrosecondsPerSecond = 1'000'000;

// Identifiers and destinations are ASCII. If anything else is cut within a character, printing
// replaces the rest of it.
std::string cut(std::string text) {
  text.resize(std::min(text.size(), FlowRecord::kLongestText));
  return text;
}

template <typename Count>
void change(std::atomic<Count>& count, Count difference) {
  count.fetch_add(difference, std::memory_order_relaxed);
}

std::optional<FlowRecord::Elapsed> stepOf(std::int64_t microseconds) {
  return microseconds < 0 ? std::nullopt : std::optional(FlowRecord::Elapsed(microseconds));
}

}  // namespace

FlowRecord::FlowRecord(Origin origin, double time, FlowCounters& counters, platform::Log* log)
    : origin_{origin.isUDP,
              cut(std::move(origin.application)),
              cut(std::move(origin.destination)),
              origin.user,
              origin.process,
              origin.begin},
      time_(time),
      counters_(counters),
      log_(log) {}

std::int64_t FlowRecord::elapsed() const {
  return std::chrono::duration_cast<Elapsed>(Clock::now() - origin_.begin).count();
}

void FlowRecord::decided(FlowRule rule) {
  action_ = actionOf(rule);
  reason_ = nameOf(rule);
  if (action_ == Action::proxied) {
    change<std::int64_t>(counters_.pending, 1);
  }
}

void FlowRecord::named(const std::string& host) {
  host_ = cut(host);
}

void FlowRecord::left(std::string_view reason) {
  reason_ = reason;
}

void FlowRecord::identified(const std::string& flowID) {
  if (flowID.size() == kIdentifierSize && !hasIdentifier_.load(std::memory_order_relaxed)) {
    std::ranges::copy(flowID, identifier_.begin());
    hasIdentifier_.store(true, std::memory_order_release);
  }
}

void FlowRecord::handshakeStarted() {
  connected_.store(elapsed(), std::memory_order_relaxed);
}

void FlowRecord::handshakeSucceeded() {
  auto phase = Phase::pending;
  // Another thread may have reported that the deadline has passed.
  if (!phase_.compare_exchange_strong(phase, Phase::established)) {
    return;
  }
  const std::int64_t now = elapsed();
  established_.store(now, std::memory_order_relaxed);
  counters_.handshakes.record(Elapsed(now - connected_.load(std::memory_order_relaxed)));
  counters_.lastSuccess.store(timeAfter(now), std::memory_order_relaxed);
  change<std::uint64_t>(counters_.established, 1);
  change<std::int64_t>(counters_.pending, -1);
  change<std::int64_t>(counters_.open, 1);
}

void FlowRecord::ended(FlowEnd end, std::string_view detail) {
  if (action_ != Action::proxied) {
    return;
  }
  const auto phase = phase_.exchange(Phase::over);
  if (phase == Phase::over) {
    return;
  }
  detail_ = detail.substr(0, kLongestDetail);
  const std::int64_t now = elapsed();
  ended_.store(now, std::memory_order_relaxed);
  if (end == FlowEnd::timedOut) {
    counters_.lastTimeout.store(timeAfter(now), std::memory_order_relaxed);
  }
  change<std::uint64_t>(counters_.ends[static_cast<std::size_t>(end)], 1);
  change<std::int64_t>(phase == Phase::established ? counters_.open : counters_.pending, -1);
  logFailure(end);
  end_.store(static_cast<std::uint8_t>(end), std::memory_order_release);
}

void FlowRecord::logFailure(FlowEnd end) const {
  if (log_ == nullptr) {
    return;
  }
  const bool isIdentified = hasIdentifier_.load(std::memory_order_acquire);
  const platform::LogFields fields{
      .flowID = isIdentified ? std::string_view(identifier_.data(), identifier_.size())
                             : std::string_view(),
      .application = origin_.application,
      // The only event of such an end.
      .code = "extension.tunnel_closed"};
  if (end == FlowEnd::connectionFailed) {
    log_->error("OstravelProxy: The connection to the proxy failed: %{public}s", {detail_}, fields);
  } else if (end == FlowEnd::noAnswer) {
    log_->error("OstravelProxy: The proxy closed the connection without an answer", {}, fields);
  }
}

void FlowRecord::sent(std::size_t bytes) {
  bytesSent_ += bytes;
  change<std::uint64_t>(counters_.bytesSent, bytes);
}

void FlowRecord::received(std::size_t bytes) {
  bytesReceived_ += bytes;
  change<std::uint64_t>(counters_.bytesReceived, bytes);
}

FlowRecord::Elapsed FlowRecord::publish(std::uint64_t sequence) {
  sequence_ = sequence;
  decided_ = elapsed();
  return Elapsed(decided_);
}

std::string_view FlowRecord::outcome(std::uint8_t end) const {
  if (action_ != Action::proxied) {
    return nameOf(action_);
  }
  if (end != kNoEnd) {
    return nameOf(static_cast<FlowEnd>(end));
  }
  return phase_.load() == Phase::pending ? "pending" : "established";
}

FlowRecord::View FlowRecord::view() const {
  // Loaded first: everything written before the end is then visible.
  const std::uint8_t end = end_.load(std::memory_order_acquire);
  View view{.sequence = sequence_,
            .time = time_,
            .isUDP = origin_.isUDP,
            .application = origin_.application,
            .destination = origin_.destination,
            .host = host_,
            .user = origin_.user,
            .process = origin_.process,
            .action = action_,
            .reason = reason_,
            .outcome = outcome(end),
            .flowID = {},
            .detail = end == kNoEnd ? std::string() : detail_,
            .decided = Elapsed(decided_),
            .connected = stepOf(connected_.load(std::memory_order_relaxed)),
            .established = stepOf(established_.load(std::memory_order_relaxed)),
            .ended = end == kNoEnd ? std::nullopt : stepOf(ended_.load(std::memory_order_relaxed)),
            .bytesSent = bytesSent_,
            .bytesReceived = bytesReceived_,
            .isOpen = action_ == Action::proxied && end == kNoEnd};
  if (hasIdentifier_.load(std::memory_order_acquire)) {
    view.flowID.assign(identifier_.data(), identifier_.size());
  }
  return view;
}

double FlowRecord::lastChange() const {
  const std::int64_t last = std::max({decided_, connected_.load(std::memory_order_relaxed),
                                      established_.load(std::memory_order_relaxed),
                                      ended_.load(std::memory_order_relaxed)});
  return timeAfter(last);
}

double FlowRecord::timeAfter(std::int64_t microseconds) const {
  return time_ + static_cast<double>(microseconds) / kMicrosecondsPerSecond;
}

std::string_view nameOf(FlowRule rule) {
  switch (rule) {
    case FlowRule::proxied:
      return "proxied";
    case FlowRule::exemptApplication:
      return "exempt_application";
    case FlowRule::exemptHost:
      return "exempt_host";
    case FlowRule::realtimeMedia:
      return "realtime_media";
    case FlowRule::gateClosed:
      return "gate_closed";
    case FlowRule::localProxy:
      return "to_the_proxy";
    case FlowRule::refusedUDP:
      return "quic_refused";
  }
  return "unknown";
}

std::string_view nameOf(FlowEnd end) {
  switch (end) {
    case FlowEnd::closed:
      return "closed";
    case FlowEnd::failed:
      return "failed";
    case FlowEnd::rejected:
      return "rejected";
    case FlowEnd::invalid:
      return "invalid";
    case FlowEnd::timedOut:
      return "timed_out";
    case FlowEnd::backlog:
      return "backlog";
    case FlowEnd::noAnswer:
      return "no_answer";
    case FlowEnd::requestFailed:
      return "request_failed";
    case FlowEnd::connectionFailed:
      return "connection_failed";
    case FlowEnd::abandoned:
      return "abandoned";
  }
  return "unknown";
}

std::string_view nameOf(FlowRecord::Action action) {
  switch (action) {
    case FlowRecord::Action::direct:
      return "direct";
    case FlowRecord::Action::refused:
      return "refused";
    case FlowRecord::Action::proxied:
      return "proxied";
  }
  return "unknown";
}

FlowRecord::Action actionOf(FlowRule rule) {
  switch (rule) {
    case FlowRule::proxied:
      return FlowRecord::Action::proxied;
    case FlowRule::refusedUDP:
      return FlowRecord::Action::refused;
    default:
      return FlowRecord::Action::direct;
  }
}

}  // namespace ostravel::linuxplatform
