#include "Companion/Events/OutageLog.h"

#include <algorithm>

namespace ostravel::companion {
namespace {

const std::string kOthers = "others";

void countApplication(Outage& outage, const std::string& application) {
  const std::string name = application.empty() ? "unknown" : application;
  const bool isFull = outage.applications.size() >= OutageLog::kMostApplications;
  ++outage.applications[isFull && !outage.applications.contains(name) ? kOthers : name];
}

std::string counted(std::uint64_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string causeText(const Outage& outage) {
  const bool hung = outage.timedOut + outage.backlog > 0;
  if (outage.wasUnreachable) {
    return hung ? "The proxy did not answer, and then did not accept connections."
                : "The proxy did not accept connections.";
  }
  return hung ? "The proxy accepted connections but did not answer."
              : "The proxy broke connections off or answered nonsense.";
}

}  // namespace

void OutageLog::add(const FlowRecord& flow) {
  if (!flow.hasJustFailed || flow.outcome == FlowOutcome::refused) {
    return;
  }
  const bool lasts = !outages_.empty() && !outages_.back().end;
  if (flow.outcome == FlowOutcome::reset) {
    // Counted only during an outage, of which it may be a consequence: origins reset connections at
    // any time.
    if (lasts) {
      ++outages_.back().reset;
      countApplication(outages_.back(), flow.application);
    }
    return;
  }
  Outage& outage = current(flow.startedAt.value_or(flow.changedAt));
  lastTrouble_ = std::max(lastTrouble_, flow.changedAt);
  switch (flow.outcome) {
    case FlowOutcome::timedOut:
      ++outage.timedOut;
      break;
    case FlowOutcome::backlog:
      ++outage.backlog;
      break;
    case FlowOutcome::invalidAnswer:
      ++outage.invalid;
      break;
    default:
      ++outage.brokeOff;
      break;
  }
  countApplication(outage, flow.application);
}

void OutageLog::setReachable(bool isReachable, double now) {
  if (!isReachable && isReachable_) {
    current(now).wasUnreachable = true;
  }
  if (isReachable != isReachable_) {
    lastTrouble_ = std::max(lastTrouble_, now);
  }
  isReachable_ = isReachable;
}

void OutageLog::tick(double now) {
  const bool lasts = !outages_.empty() && !outages_.back().end;
  if (lasts && isReachable_ && now - lastTrouble_ >= kQuietSeconds) {
    outages_.back().end = lastTrouble_;
  }
}

Outage& OutageLog::current(double begin) {
  if (outages_.empty() || outages_.back().end) {
    outages_.emplace_back().begin = begin;
    lastTrouble_ = begin;
    ++total_;
    if (outages_.size() > kMostOutages) {
      outages_.pop_front();
    }
  }
  Outage& outage = outages_.back();
  outage.begin = std::min(outage.begin, begin);
  return outage;
}

std::string outageKind(const Outage& outage) {
  const bool hung = outage.timedOut + outage.backlog > 0;
  if (outage.wasUnreachable) {
    return hung ? "hung, then unreachable" : "unreachable";
  }
  return hung ? "hung" : "faulty";
}

std::string outageText(const Outage& outage) {
  std::string text = causeText(outage);
  if (outage.direct() > 0) {
    text += " " + counted(outage.direct(), "connection") + " waited for it and then went direct.";
  }
  if (outage.wasUnreachable) {
    text += " New connections went direct at once.";
  }
  if (outage.reset > 0) {
    text += " Lost: " + counted(outage.reset, "open tunnel") + " ended with an error.";
  }
  if (outage.invalid > 0) {
    text += " Lost: " + counted(outage.invalid, "connection") + " got an invalid answer.";
  }
  return text + (outage.reset + outage.invalid == 0 ? " No connection was lost." : "");
}

}  // namespace ostravel::companion
