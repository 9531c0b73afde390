#include "Companion/Monitor/Web/LiveState.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>
#include <utility>
#include <vector>

#include "Companion/Shared/TimeText.h"

namespace ostravel::companion {
namespace {

JSONHandle object() {
  return JSONHandle(json_object());
}

void set(const JSONHandle& object, const char* key, JSONHandle value) {
  json_object_set_new(object.get(), key, value.release());
}

void set(const JSONHandle& object, const char* key, std::string_view text) {
  json_object_set_new(object.get(), key, json_stringn(text.data(), text.size()));
}

void set(const JSONHandle& object, const char* key, double number) {
  json_object_set_new(object.get(), key, json_real(number));
}

void set(const JSONHandle& object, const char* key, std::uint64_t number) {
  json_object_set_new(object.get(), key, json_integer(static_cast<json_int_t>(number)));
}

void set(const JSONHandle& object, const char* key, const std::optional<double>& number) {
  if (number) {
    set(object, key, *number);
  }
}

void append(const JSONHandle& array, JSONHandle value) {
  json_array_append_new(array.get(), value.release());
}

void append(const JSONHandle& array, const std::optional<double>& number) {
  json_array_append_new(array.get(), number ? json_real(*number) : json_null());
}

// The member at a path such as {"gate", "state"}, or null.
const json_t* member(const json_t* object, std::initializer_list<const char*> path) {
  for (const char* const key : path) {
    object = json_object_get(object, key);
  }
  return object;
}

std::string textOf(const json_t* value) {
  return json_is_string(value) ? std::string(json_string_value(value), json_string_length(value))
                               : std::string();
}

std::optional<double> numberOf(const json_t* value) {
  return json_is_number(value) ? std::optional(json_number_value(value)) : std::nullopt;
}

std::uint64_t countOf(const json_t* value) {
  return json_is_integer(value) && json_integer_value(value) > 0
             ? static_cast<std::uint64_t>(json_integer_value(value))
             : 0;
}

JSONHandle rowOf(const FlowRecord& flow) {
  JSONHandle row = object();
  set(row, "id", flow.id);
  if (!flow.host.empty()) {
    set(row, "host", flow.host);
  }
  set(row, "application", flow.application);
  set(row, "destination", flow.destination);
  set(row, "outcome", outcomeText(flow.outcome));
  if (!flow.reason.empty()) {
    set(row, "reason", flow.reason);
  }
  set(row, "time", flow.startedAt.value_or(flow.changedAt));
  set(row, "answer", flow.handshakeSeconds);
  set(row, "end", flow.endedAt);
  return row;
}

// Translates an outcome of the control socket to one of FlowOutcome.
std::string_view outcomeOfDecision(std::string_view outcome, std::string_view action) {
  constexpr std::array<std::pair<std::string_view, std::string_view>, 9> kWords = {{
      {"pending", "connecting"},
      {"established", "open"},
      {"failed", "reset"},
      {"rejected", "refused"},
      {"invalid", "invalid answer"},
      {"timed_out", "timed out"},
      {"no_answer", "failed"},
      {"request_failed", "failed"},
      {"connection_failed", "failed"},
  }};
  if (action == "refused") {
    return "UDP refused";
  }
  const auto* const word = std::find_if(
      kWords.begin(), kWords.end(), [outcome](const auto& pair) { return pair.first == outcome; });
  return word == kWords.end() ? outcome : word->second;
}

void copy(const JSONHandle& row, const char* key, const json_t* from, const char* name) {
  if (json_t* const value = json_object_get(from, name)) {
    json_object_set(row.get(), key, value);
  }
}

// number: of all decisions that the monitor knows.
JSONHandle rowOfDecision(const json_t* decision, std::uint64_t number) {
  JSONHandle row = object();
  const std::string flowId = textOf(json_object_get(decision, "flow_id"));
  // Events of the same flow extend the same row.
  set(row, "id", flowId.empty() ? "#" + std::to_string(number) : flowId);
  for (const char* const key : {"application", "destination", "time", "user", "pid", "protocol"}) {
    copy(row, key, decision, key);
  }
  copy(row, "decided", decision, "time");
  copy(row, "why", decision, "reason");
  copy(row, "sent", decision, "bytes_sent");
  copy(row, "received", decision, "bytes_received");
  copy(row, "steps", decision, "steps_us");
  copy(row, "detail", decision, "detail");
  const std::string outcome = textOf(json_object_get(decision, "outcome"));
  set(row, "outcome", outcomeOfDecision(outcome, textOf(json_object_get(decision, "action"))));
  if (const auto milliseconds = numberOf(json_object_get(decision, "handshake_ms"))) {
    set(row, "answer", *milliseconds / 1000.0);
  }
  return row;
}

JSONHandle objectOf(const Outage& outage) {
  JSONHandle result = object();
  if (!outage.host.empty()) {
    set(result, "host", outage.host);
  }
  set(result, "begin", outage.begin);
  set(result, "end", outage.end);
  set(result, "kind", outageKind(outage));
  set(result, "text", outageText(outage));
  set(result, "waited", outage.waited());
  set(result, "lost", outage.lost());
  JSONHandle applications = object();
  for (const auto& [name, count] : outage.applications) {
    set(applications, name.c_str(), count);
  }
  set(result, "applications", std::move(applications));
  return result;
}

// Why flows go direct although the proxy should carry them.
constexpr std::array kReasonsOfProxy = {"gate_closed", "on_trial", "handshake_share"};

bool isDirectForProxy(const json_t* decision) {
  const std::string reason = textOf(json_object_get(decision, "reason"));
  return textOf(json_object_get(decision, "action")) == "direct" &&
         std::find(kReasonsOfProxy.begin(), kReasonsOfProxy.end(), reason) != kReasonsOfProxy.end();
}

}  // namespace

void LiveState::receive(const ReceivedEvent& event) {
  const std::lock_guard lock(mutex_);
  ++events_;
  if (event.signal == "proxy_unreachable" || event.signal == "proxy_recovered") {
    outages_.setReachable(event.host, event.signal == "proxy_recovered", event.timestamp);
  }
  if (event.host.empty()) {
    receiveState(event);
  } else {
    receiveStateOfMachine(event);
  }
  const FlowRecord* const flow = flows_.apply(event);
  if (flow == nullptr) {
    return;
  }
  counters_.add(*flow);
  outages_.add(*flow);
  if (event.signal == "connect_handshake_succeeded") {
    slowestAnswer_ = std::max(slowestAnswer_, flow->handshakeSeconds.value_or(-1.0));
  }
}

void LiveState::receiveState(const ReceivedEvent& event) {
  if (event.signal == "provider_started" || event.signal == "provider_stopped") {
    isRunning_ = event.signal == "provider_started";
    reachableSince_ = event.timestamp;
    // Unknown until the first probe after the start.
    isReachable_.reset();
  } else if (event.signal == "proxy_unreachable" || event.signal == "proxy_recovered") {
    isReachable_ = event.signal == "proxy_recovered";
    reachableSince_ = event.timestamp;
  } else if (event.signal == "connect_handshake_succeeded" && !isReachable_) {
    // A successful tunnel proves it; a proxy that is reachable from the start causes no event.
    isReachable_ = true;
    reachableSince_ = event.timestamp;
  }
}

void LiveState::receiveStateOfMachine(const ReceivedEvent& event) {
  if (machines_.size() >= kMostMachines && !machines_.contains(event.host)) {
    hasMoreMachines_ = true;
    return;
  }
  machines_.insert(event.host);
  if (event.signal == "proxy_unreachable" || event.signal == "provider_stopped") {
    directMachines_.insert(event.host);
  } else if (event.signal == "proxy_recovered" || event.signal == "connect_handshake_succeeded") {
    directMachines_.erase(event.host);
  }
}

void LiveState::countDropped(std::uint64_t events) {
  const std::lock_guard lock(mutex_);
  droppedByMachines_ += events;
}

void LiveState::setPublished(std::uint64_t waiting, std::uint64_t dropped) {
  const std::lock_guard lock(mutex_);
  published_ = {waiting, dropped};
}

void LiveState::countMalformedFrame() {
  const std::lock_guard lock(mutex_);
  ++malformed_;
}

void LiveState::setStatus(const json_t* status, const std::string& problem) {
  const std::lock_guard lock(mutex_);
  status_.reset(status == nullptr ? nullptr : json_deep_copy(status));
  statusProblem_ = status == nullptr ? problem : "";
  countDirect();
}

// Flows that do not reach the proxy cause no events.
void LiveState::countDirect() {
  if (!status_) {
    return;
  }
  std::uint64_t direct = 0;
  for (const char* const reason : kReasonsOfProxy) {
    direct += countOf(member(status_.get(), {"flows", "direct_by_reason", reason}));
  }
  const double startedAt = numberOf(member(status_.get(), {"program", "started_at"})).value_or(0.0);
  // A new process counts from the beginning.
  if (directBefore_ && (startedAt != startedAt_ || direct < *directBefore_)) {
    directBefore_ = 0;
  }
  if (directBefore_) {
    outages_.countDirect(direct - *directBefore_);
  }
  directBefore_ = direct;
  startedAt_ = startedAt;
}

void LiveState::addDecisions(const json_t* decisions) {
  const std::lock_guard lock(mutex_);
  std::size_t index = 0;
  const json_t* decision = nullptr;
  json_array_foreach(decisions, index, decision) {
    const std::uint64_t number =
        decisionsBeforeRestart_ + countOf(json_object_get(decision, "sequence"));
    lastDecision_ = std::max(lastDecision_, number);
    const auto [known, isNew] = decisions_.try_emplace(number);
    known->second.row = rowOfDecision(decision, number);
    known->second.revision = ++decisionRevision_;
    const std::string application = textOf(json_object_get(decision, "application"));
    if (isNew && !application.empty() && isDirectForProxy(decision)) {
      outages_.addDirect(application);
    }
  }
  while (decisions_.size() > kMostDecisions) {
    decisions_.erase(decisions_.begin());
  }
}

void LiveState::restartDecisions() {
  const std::lock_guard lock(mutex_);
  decisionsBeforeRestart_ = lastDecision_;
}

void LiveState::tick(double now) {
  const std::lock_guard lock(mutex_);
  now_ = now;
  outages_.tick(now);
  Sample sample;
  sample.time = now;
  sample.isGateOpen = isReachable_;
  sample.tunnels = flows_.openCount();
  sample.pending = flows_.liveCount() - flows_.openCount();
  std::uint64_t failures = 0;
  for (const auto& [outcome, count] : counters_.failures) {
    failures += count;
  }
  sample.failures = failures - std::exchange(failuresBefore_, failures);
  if (slowestAnswer_ >= 0.0) {
    sample.slowestAnswer = std::exchange(slowestAnswer_, -1.0);
  }
  if (status_) {
    const std::string gate = textOf(member(status_.get(), {"gate", "state"}));
    sample.isGateOpen = gate == "unknown" ? std::nullopt : std::optional(gate == "open");
    sample.tunnels = countOf(member(status_.get(), {"tunnels", "now"}));
    sample.pending = countOf(member(status_.get(), {"handshakes", "pending_now"}));
    measureThroughput(sample);
  }
  samples_.push_back(sample);
  if (samples_.size() > kMostSamples) {
    samples_.pop_front();
  }
  ++ticks_;
  changed_.notify_all();
}

void LiveState::measureThroughput(Sample& sample) {
  const auto at = numberOf(member(status_.get(), {"program", "now"})).value_or(sample.time);
  const auto sent = static_cast<double>(countOf(member(status_.get(), {"tunnels", "bytes_sent"})));
  const auto received =
      static_cast<double>(countOf(member(status_.get(), {"tunnels", "bytes_received"})));
  const double seconds = at - measuredAt_;
  // A new process counts from the beginning.
  const bool isComparable =
      sentBefore_ >= 0.0 && sent >= sentBefore_ && received >= receivedBefore_ && seconds > 0.0;
  if (isComparable) {
    sample.sentPerSecond = (sent - sentBefore_) / seconds;
    sample.receivedPerSecond = (received - receivedBefore_) / seconds;
  }
  // The same answer as before.
  if (seconds == 0.0 && !samples_.empty()) {
    sample.sentPerSecond = samples_.back().sentPerSecond;
    sample.receivedPerSecond = samples_.back().receivedPerSecond;
  }
  if (seconds > 0.0 || seconds < -1.0) {
    sentBefore_ = sent;
    receivedBefore_ = received;
    measuredAt_ = at;
  }
}

LiveState::Sentence LiveState::sentence() const {
  if (!machines_.empty()) {
    return sentenceOfFleet();
  }
  Sentence sentence = status_ ? sentenceOfStatus() : sentenceOfEvents();
  const Outage* const outage = outages_.lasting();
  if (outage == nullptr) {
    return sentence;
  }
  if (sentence.state == "proxied") {
    return {"warning",
            "The proxy accepts connections, but does not serve all of them; those go direct.",
            outage->begin};
  }
  // While the proxy hangs, its trials pause, which is less telling.
  if (outageKind(*outage) == "hung") {
    return {"direct", "The proxy hangs: new connections go direct.", outage->begin};
  }
  return sentence;
}

LiveState::Sentence LiveState::sentenceOfStatus() const {
  const bool isActive = json_is_true(member(status_.get(), {"proxying", "active"}));
  return {isActive ? "proxied" : "direct", textOf(member(status_.get(), {"proxying", "message"})),
          numberOf(member(status_.get(), {"proxying", "since"}))};
}

LiveState::Sentence LiveState::sentenceOfEvents() const {
  if (isRunning_ == false) {
    return {"direct", "The extension has stopped; connections go direct.", reachableSince_};
  }
  if (isReachable_) {
    return *isReachable_
               ? Sentence{"proxied", "New connections are proxied.", reachableSince_}
               : Sentence{"direct", "The proxy does not answer; new connections go direct.",
                          reachableSince_};
  }
  return {"unknown",
          isRunning_ ? "The extension has started; no connection has been proxied yet."
                     : "No event has come from the extension yet.",
          std::nullopt};
}

LiveState::Sentence LiveState::sentenceOfFleet() const {
  const auto count = [](std::size_t machines) {
    return std::to_string(machines) + (machines == 1 ? " machine" : " machines");
  };
  const std::string all = (hasMoreMachines_ ? "More than " : "") + count(machines_.size());
  const std::size_t troubled = outages_.lastingCount();
  if (directMachines_.empty() && troubled == 0) {
    return {"proxied", all + ", with no proxy out of service.", std::nullopt};
  }
  if (directMachines_.empty()) {
    return {"warning",
            all + ", " + std::to_string(troubled) +
                " of them with a proxy that does not serve all connections.",
            std::nullopt};
  }
  return {"direct",
          all + ", " + std::to_string(directMachines_.size()) +
              " of them without a proxy: connections go direct there.",
          std::nullopt};
}

std::uint64_t LiveState::lostEvents() const {
  return countOf(member(status_.get(), {"events", "failed"})) +
         countOf(member(status_.get(), {"events", "dropped"})) + droppedByMachines_;
}

JSONHandle LiveState::common() const {
  JSONHandle result = object();
  set(result, "now", now_);
  const Sentence now = sentence();
  JSONHandle state = object();
  set(state, "state", now.state);
  set(state, "text", now.text);
  set(state, "since", now.since);
  set(result, "sentence", std::move(state));
  JSONHandle counts = object();
  set(counts, "flows", counters_.flows);
  JSONHandle failures = object();
  for (const auto& [outcome, count] : counters_.failures) {
    set(failures, std::string(outcomeName(outcome)).c_str(), count);
  }
  set(counts, "failures", std::move(failures));
  set(counts, "lost", outages_.totalLost());
  set(counts, "events", events_);
  set(counts, "lost_events", lostEvents());
  set(counts, "malformed", malformed_);
  set(result, "counts", std::move(counts));
  JSONHandle outages(json_array());
  for (const Outage* const outage : outages_.outages()) {
    append(outages, objectOf(*outage));
  }
  set(result, "outages", std::move(outages));
  if (!machines_.empty()) {
    set(result, "machines", std::uint64_t{machines_.size()});
  }
  if (status_) {
    json_object_set(result.get(), "status", status_.get());
  } else {
    set(result, "problem", statusProblem_);
  }
  return result;
}

JSONHandle LiveState::changedFlows(Cursor& cursor) const {
  JSONHandle rows(json_array());
  // In the order of change, so that the rest of a bounded update follows with the next one.
  std::vector<std::pair<std::uint64_t, const Decision*>> decisions;
  for (const auto& [sequence, decision] : decisions_) {
    if (decision.revision > cursor.decisions) {
      decisions.emplace_back(decision.revision, &decision);
    }
  }
  std::sort(decisions.begin(), decisions.end());
  for (const auto& [revision, decision] : decisions) {
    json_array_append(rows.get(), decision->row.get());
    cursor.decisions = revision;
  }
  // After the decisions, because events contain more about a proxied flow.
  return rows;
}

LiveState::Update LiveState::finish(JSONHandle result, Cursor cursor) const {
  JSONHandle place(json_array());
  for (const std::uint64_t value : {cursor.tick, cursor.flows, cursor.decisions}) {
    json_array_append_new(place.get(), json_integer(static_cast<json_int_t>(value)));
  }
  set(result, "cursor", std::move(place));
  char* const text = json_dumps(result.get(), JSON_COMPACT | JSON_REAL_PRECISION(15));
  Update update{text == nullptr ? "{}" : text, cursor};
  std::free(text);
  return update;
}

namespace {

template <typename Sample>
JSONHandle rowOfSample(const Sample& sample) {
  JSONHandle row(json_array());
  append(row, std::optional(sample.time));
  append(row, sample.isGateOpen ? std::optional(*sample.isGateOpen ? 1.0 : 0.0) : std::nullopt);
  append(row, std::optional(static_cast<double>(sample.tunnels)));
  append(row, std::optional(static_cast<double>(sample.pending)));
  append(row, std::optional(static_cast<double>(sample.failures)));
  append(row, sample.slowestAnswer ? std::optional(*sample.slowestAnswer * 1000.0) : std::nullopt);
  append(row, sample.sentPerSecond);
  append(row, sample.receivedPerSecond);
  return row;
}

}  // namespace

LiveState::Update LiveState::whole() const {
  const std::lock_guard lock(mutex_);
  Cursor cursor{ticks_, 0, 0};
  JSONHandle result = common();
  JSONHandle rows = changedFlows(cursor);
  for (const FlowRecord* const flow : flows_.changedSince(0, flows_.size())) {
    append(rows, rowOf(*flow));
  }
  cursor.flows = flows_.revision();
  set(result, "flows", std::move(rows));
  JSONHandle samples(json_array());
  for (const Sample& sample : samples_) {
    append(samples, rowOfSample(sample));
  }
  set(result, "samples", std::move(samples));
  return finish(std::move(result), cursor);
}

std::optional<LiveState::Update> LiveState::changesSince(const Cursor& seen,
                                                         std::chrono::milliseconds patience) const {
  std::unique_lock lock(mutex_);
  // A cursor from an earlier run of the monitor may be ahead.
  const auto isNew = [this, &seen] { return ticks_ != seen.tick; };
  if (!changed_.wait_for(lock, patience, isNew)) {
    return std::nullopt;
  }
  Cursor cursor = seen;
  JSONHandle result = common();
  JSONHandle rows = changedFlows(cursor);
  for (const FlowRecord* const flow : flows_.changedSince(seen.flows, kMostChanges)) {
    append(rows, rowOf(*flow));
    cursor.flows = flow->revision;
  }
  set(result, "flows", std::move(rows));
  JSONHandle samples(json_array());
  const std::uint64_t missed = std::min<std::uint64_t>(ticks_ - seen.tick, samples_.size());
  for (std::size_t index = samples_.size() - missed; index < samples_.size(); ++index) {
    append(samples, rowOfSample(samples_[index]));
  }
  set(result, "samples", std::move(samples));
  cursor.tick = ticks_;
  return finish(std::move(result), cursor);
}

std::string LiveState::flow(const std::string& id) const {
  const std::lock_guard lock(mutex_);
  const FlowRecord* const record = flows_.find(id);
  if (record == nullptr) {
    return "";
  }
  JSONHandle result = rowOf(*record);
  JSONHandle steps(json_array());
  for (const FlowRecord::Step& step : record->steps) {
    JSONHandle each = object();
    set(each, "time", step.timestamp);
    set(each, "signal", step.signal);
    set(each, "detail", step.detail);
    append(steps, std::move(each));
  }
  set(result, "events", std::move(steps));
  return finish(std::move(result), {}).json;
}

}  // namespace ostravel::companion
