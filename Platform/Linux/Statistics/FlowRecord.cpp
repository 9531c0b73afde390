#include "Platform/Linux/Statistics/FlowRecord.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace ostravel::linuxplatform {

using platform::FlowEnd;
using platform::FlowRule;

namespace {

constexpr double kMicrosecondsPerSecond = 1'000'000;

// Identifiers and names are ASCII. If anything else is cut within a character, printing replaces
// the rest of it.
std::string cut(std::string_view text) {
  return std::string(text.substr(0, FlowRecord::kLongestText));
}

std::string textOf(const SocketEndpoint& endpoint) {
  const std::string address = endpoint.addressText();
  const std::string port = ":" + std::to_string(endpoint.port);
  return endpoint.family == AddressFamily::ipv6 ? "[" + address + "]" + port : address + port;
}

// Steps of a flow that end within seconds. The longest that fits takes more than an hour.
std::uint32_t briefly(std::int64_t microseconds) {
  constexpr std::int64_t kLongest = std::numeric_limits<std::uint32_t>::max() - 1;
  return static_cast<std::uint32_t>(std::clamp<std::int64_t>(microseconds, 0, kLongest));
}

template <typename Count>
void change(std::atomic<Count>& count, Count difference) {
  count.fetch_add(difference, std::memory_order_relaxed);
}

template <typename Step>
std::optional<FlowRecord::Elapsed> stepOf(const std::atomic<Step>& step, Step notYet) {
  const Step microseconds = step.load(std::memory_order_relaxed);
  return microseconds == notYet ? std::nullopt : std::optional(FlowRecord::Elapsed(microseconds));
}

}  // namespace

FlowRecord::FlowRecord(const Origin& origin, SharedTexts& applications, double time,
                       FlowCounters& counters)
    : begin_(origin.begin),
      time_(time),
      counters_(counters),
      application_(applications.of(origin.application)),
      user_(origin.user.value_or(kNoUser)),
      process_(origin.process.value_or(kNoProcess)),
      destination_(origin.destination),
      isUDP_(origin.isUDP) {}

FlowRecord::~FlowRecord() {
  delete details_.load(std::memory_order_relaxed);
}

const FlowRecord::Details& FlowRecord::details() const {
  static const Details kNone;
  const Details* const details = details_.load(std::memory_order_acquire);
  return details != nullptr ? *details : kNone;
}

void FlowRecord::replaceDetails(Details details) {
  delete details_.exchange(new Details(std::move(details)));
}

FlowRecord::Action FlowRecord::action() const {
  return rule_ == kNoRule ? Action::direct : actionOf(static_cast<FlowRule>(rule_));
}

std::string_view FlowRecord::reason() const {
  if (rule_ != kNoRule) {
    return nameOf(static_cast<FlowRule>(rule_));
  }
  const char* const leftFor = details().leftFor;
  return leftFor != nullptr ? leftFor : "no_handler";
}

std::int64_t FlowRecord::elapsed() const {
  return std::chrono::duration_cast<Elapsed>(Clock::now() - begin_).count();
}

void FlowRecord::decided(FlowRule rule) {
  // Its bits, without the one that a field of seven cannot have.
  rule_ = static_cast<std::uint8_t>(rule) & kNoRule;
  if (action() == Action::proxied) {
    change<std::int64_t>(counters_.pending, 1);
  }
}

void FlowRecord::named(const std::string& host) {
  if (!host.empty() || !details().host.empty()) {
    replaceDetails({.host = cut(host), .leftFor = details().leftFor, .detail = {}});
  }
}

void FlowRecord::left(std::string_view reason) {
  replaceDetails({.host = details().host, .leftFor = reason.data(), .detail = {}});
}

void FlowRecord::identified(const std::string& flowID) {
  if (hasIdentifier_.load(std::memory_order_relaxed)) {
    return;
  }
  FlowIdentifier identifier(flowID);
  if (identifier.isUUID()) {
    identifier_ = std::move(identifier);
    hasIdentifier_.store(true, std::memory_order_release);
  }
}

void FlowRecord::handshakeStarted() {
  connected_.store(briefly(elapsed()), std::memory_order_relaxed);
}

void FlowRecord::handshakeSucceeded() {
  auto phase = Phase::pending;
  // Another thread may have reported that the deadline has passed.
  if (!phase_.compare_exchange_strong(phase, Phase::established)) {
    return;
  }
  const std::int64_t now = elapsed();
  established_.store(briefly(now), std::memory_order_relaxed);
  counters_.handshakes.record(
      Elapsed(now - std::int64_t{connected_.load(std::memory_order_relaxed)}));
  counters_.lastSuccess.store(timeAfter(now), std::memory_order_relaxed);
  change<std::uint64_t>(counters_.established, 1);
  change<std::int64_t>(counters_.pending, -1);
  change<std::int64_t>(counters_.open, 1);
}

void FlowRecord::ended(FlowEnd end, std::string_view detail) {
  if (action() != Action::proxied) {
    return;
  }
  const auto phase = phase_.exchange(Phase::over);
  if (phase == Phase::over) {
    return;
  }
  const std::int64_t now = elapsed();
  details_.store(new Details{.host = details().host,
                             .ended = now,
                             .detail = std::string(detail.substr(0, kLongestDetail)),
                             .before = std::unique_ptr<const Details>(details_.load())},
                 std::memory_order_release);
  if (end == FlowEnd::timedOut) {
    counters_.lastTimeout.store(timeAfter(now), std::memory_order_relaxed);
  }
  change<std::uint64_t>(counters_.ends[static_cast<std::size_t>(end)], 1);
  change<std::int64_t>(phase == Phase::established ? counters_.open : counters_.pending, -1);
  logFailure(end);
  end_.store(static_cast<std::uint8_t>(end), std::memory_order_release);
}

void FlowRecord::logFailure(FlowEnd end) const {
  platform::Log* const log = counters_.log;
  if (log == nullptr) {
    return;
  }
  const bool isFailure = end == FlowEnd::connectionFailed || end == FlowEnd::noAnswer;
  if (!isFailure) {
    return;
  }
  const std::string flowID = identifier();
  const platform::LogFields fields{.flowID = flowID,
                                   .application = *application_,
                                   // The only event of such an end.
                                   .code = "extension.tunnel_closed"};
  if (end == FlowEnd::connectionFailed) {
    log->error("OstravelProxy: The connection to the proxy failed: %{public}s", {details().detail},
               fields);
  } else {
    log->error("OstravelProxy: The proxy closed the connection without an answer", {}, fields);
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
  decided_ = briefly(elapsed());
  return Elapsed(decided_);
}

std::string_view FlowRecord::outcome(std::uint8_t end) const {
  if (action() != Action::proxied) {
    return nameOf(action());
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
            .isUDP = isUDP_,
            .application = cut(*application_),
            .destination = textOf(destination_),
            .host = details().host,
            .user = user_ == kNoUser ? std::nullopt : std::optional(user_),
            .process = process_ == kNoProcess ? std::nullopt : std::optional(process_),
            .action = action(),
            .reason = reason(),
            .outcome = outcome(end),
            .flowID = identifier(),
            .detail = end == kNoEnd ? std::string() : details().detail,
            .decided = Elapsed(decided_),
            .connected = stepOf(connected_, kNotYetBriefly),
            .established = stepOf(established_, kNotYetBriefly),
            .ended = end == kNoEnd ? std::nullopt : std::optional(Elapsed(details().ended)),
            .bytesSent = bytesSent_,
            .bytesReceived = bytesReceived_,
            .isOpen = action() == Action::proxied && end == kNoEnd};
  return view;
}

std::string FlowRecord::identifier() const {
  return hasIdentifier_.load(std::memory_order_acquire) ? identifier_.text() : std::string();
}

double FlowRecord::lastChange() const {
  const auto microsecondsOf = [](const std::atomic<std::uint32_t>& step) {
    const std::uint32_t microseconds = step.load(std::memory_order_relaxed);
    return microseconds == kNotYetBriefly ? kNotYet : std::int64_t{microseconds};
  };
  const std::int64_t last = std::max({std::int64_t{decided_}, microsecondsOf(connected_),
                                      microsecondsOf(established_), details().ended});
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
