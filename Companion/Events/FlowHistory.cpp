#include "Companion/Events/FlowHistory.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "Base/UTF8.h"

namespace ostravel::companion {
namespace {

// At the boundary of a character.
std::string cut(std::string_view text) {
  if (text.size() <= FlowRecord::kLongestText) {
    return std::string(text);
  }
  std::string_view rest = text;
  while (text.size() - rest.size() < FlowRecord::kLongestText) {
    rest.remove_prefix(firstCodePoint(rest).size);
  }
  return std::string(text.substr(0, text.size() - rest.size())) + "…";
}

FlowOutcome outcomeOfRejection(const ReceivedEvent& event) {
  return event.code == "extension.connect_handshake_backlog_exceeded" ? FlowOutcome::backlog
                                                                      : FlowOutcome::refused;
}

// Before the proxy's answer only an error of the connection to it ends a flow.
FlowOutcome outcomeOfEnd(FlowOutcome before, const ReceivedEvent& event) {
  if (before == FlowOutcome::connecting) {
    return FlowOutcome::failed;
  }
  if (before != FlowOutcome::open) {
    return before;
  }
  return event.level == "error" ? FlowOutcome::reset : FlowOutcome::closed;
}

FlowOutcome outcomeAfter(FlowOutcome before, const ReceivedEvent& event) {
  if (event.signal == "connect_handshake_succeeded") {
    return FlowOutcome::open;
  }
  if (event.signal == "connect_handshake_rejected") {
    return outcomeOfRejection(event);
  }
  if (event.signal == "connect_handshake_invalid") {
    return FlowOutcome::invalidAnswer;
  }
  if (event.signal == "connect_handshake_timed_out") {
    return FlowOutcome::timedOut;
  }
  if (event.signal == "tunnel_closed") {
    return outcomeOfEnd(before, event);
  }
  // A failed write or read. The cancelled read that follows another failure adds nothing.
  if (event.level == "error" && before == FlowOutcome::connecting) {
    return FlowOutcome::failed;
  }
  return before;
}

std::string reasonOf(const ReceivedEvent& event) {
  if (event.level == "info") {
    return "The proxy closed the connection without an answer";
  }
  for (const std::string_view key : {"status_line", "reason", "detail"}) {
    if (const std::string* text = event.detail(key)) {
      return cut(*text);
    }
  }
  return cut(event.message);
}

bool isLast(const ReceivedEvent& event, FlowOutcome outcome) {
  // A flow that was left to the system because of the backlog has only this event.
  return event.signal == "tunnel_closed" || outcome == FlowOutcome::backlog;
}

std::string detailsOf(const ReceivedEvent& event) {
  std::string text;
  for (const auto& [key, value] : event.details) {
    text += (text.empty() ? "" : ", ") + key + " " + value;
  }
  return cut(text);
}

}  // namespace

std::string_view outcomeText(FlowOutcome outcome) {
  switch (outcome) {
    case FlowOutcome::connecting:
      return "connecting";
    case FlowOutcome::open:
      return "open";
    case FlowOutcome::closed:
      return "closed";
    case FlowOutcome::reset:
      return "reset";
    case FlowOutcome::refused:
      return "refused";
    case FlowOutcome::invalidAnswer:
      return "invalid answer";
    case FlowOutcome::timedOut:
      return "timed out";
    case FlowOutcome::backlog:
      return "backlog";
    case FlowOutcome::failed:
      break;
  }
  return "failed";
}

std::string_view outcomeName(FlowOutcome outcome) {
  switch (outcome) {
    case FlowOutcome::invalidAnswer:
      return "invalid_answer";
    case FlowOutcome::timedOut:
      return "timed_out";
    default:
      return outcomeText(outcome);
  }
}

bool isFailure(FlowOutcome outcome) {
  return outcome != FlowOutcome::connecting && outcome != FlowOutcome::open &&
         outcome != FlowOutcome::closed;
}

const FlowRecord* FlowHistory::apply(const ReceivedEvent& event) {
  if (event.flowId.empty()) {
    return nullptr;
  }
  const std::string id = cut(event.flowId);
  FlowRecord& record = recordOf(id);
  const bool wasOpen = record.outcome == FlowOutcome::open;
  update(record, event);
  const bool isOpen = record.outcome == FlowOutcome::open;
  open_ = open_ + (isOpen ? 1 : 0) - (wasOpen ? 1 : 0);
  record.revision = ++revision_;
  moveToEnd(id, record.endedAt ? ended_ : live_);
  forgetBeyond(ended_, limits_.ended);
  forgetBeyond(live_, limits_.live);
  return &record;
}

const FlowRecord* FlowHistory::find(std::string_view id) const {
  const auto place = places_.find(std::string(id));
  return place == places_.end() ? nullptr : &*place->second.position;
}

std::vector<const FlowRecord*> FlowHistory::changedSince(std::uint64_t revision,
                                                         std::size_t most) const {
  std::vector<const FlowRecord*> changed;
  for (const Records* records : {&live_, &ended_}) {
    for (auto record = records->rbegin(); record != records->rend() && record->revision > revision;
         ++record) {
      changed.push_back(&*record);
    }
  }
  const auto isEarlier = [](const FlowRecord* left, const FlowRecord* right) {
    return left->revision < right->revision;
  };
  std::sort(changed.begin(), changed.end(), isEarlier);
  changed.resize(std::min(changed.size(), most));
  return changed;
}

FlowRecord& FlowHistory::recordOf(const std::string& id) {
  const auto known = places_.find(id);
  if (known != places_.end()) {
    return *known->second.position;
  }
  live_.emplace_back().id = id;
  places_[id] = {&live_, std::prev(live_.end())};
  return live_.back();
}

void FlowHistory::update(FlowRecord& record, const ReceivedEvent& event) {
  record.host = event.host;
  if (!event.appId.empty()) {
    record.application = cut(event.appId);
  }
  if (const std::string* remote = event.detail("remote")) {
    record.destination = cut(*remote);
  }
  if (event.signal == "connect_handshake_started") {
    record.startedAt = event.timestamp;
  }
  const FlowOutcome outcome = outcomeAfter(record.outcome, event);
  record.hasJustFailed = isFailure(outcome) && outcome != record.outcome;
  if (record.hasJustFailed) {
    record.reason = reasonOf(event);
  }
  const bool isAnswered = record.outcome == FlowOutcome::connecting &&
                          outcome != FlowOutcome::connecting && record.startedAt;
  if (isAnswered) {
    record.handshakeSeconds = event.timestamp - *record.startedAt;
  }
  if (const std::string* elapsed = event.detail("elapsed_ms")) {
    record.handshakeSeconds = std::strtod(elapsed->c_str(), nullptr) / 1000.0;
  }
  record.outcome = outcome;
  if (isLast(event, outcome)) {
    record.endedAt = event.timestamp;
  }
  record.changedAt = event.timestamp;
  if (record.steps.size() < FlowRecord::kMostSteps) {
    record.steps.push_back({event.timestamp, cut(event.signal), detailsOf(event)});
  }
}

void FlowHistory::moveToEnd(const std::string& id, Records& to) {
  Place& place = places_.at(id);
  to.splice(to.end(), *place.records, place.position);
  place.records = &to;
}

void FlowHistory::forgetBeyond(Records& records, std::size_t most) {
  while (records.size() > most) {
    open_ -= records.front().outcome == FlowOutcome::open ? 1 : 0;
    places_.erase(records.front().id);
    records.pop_front();
  }
}

}  // namespace ostravel::companion
