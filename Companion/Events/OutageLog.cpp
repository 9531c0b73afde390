#include "Companion/Events/OutageLog.h"

#include <algorithm>
#include <utility>

#include "Base/CountedText.h"
#include "Base/PrintableText.h"

namespace ostravel::companion {
namespace {

const std::string kOthers = "others";
constexpr std::size_t kMostResets = 1000;

void countApplication(Outage& outage, const std::string& application) {
  const std::string name = application.empty() ? "unknown" : application;
  const bool isFull = outage.applications.size() >= OutageLog::kMostApplications;
  ++outage.applications[isFull && !outage.applications.contains(name) ? kOthers : name];
}

bool hasHung(const Outage& outage) {
  return outage.timedOut + outage.backlog > 0;
}

std::string causeText(const Outage& outage) {
  if (outage.wasUnreachable) {
    return hasHung(outage)
               ? "It accepted connections but did not answer, and at times accepted none."
               : "It did not accept connections.";
  }
  return hasHung(outage) ? "It accepted connections but did not answer."
                         : "It broke connections off or answered nonsense.";
}

std::string recoveriesText(const Outage& outage) {
  if (outage.recoveries == 0) {
    return "";
  }
  const std::string length = durationText(outage.recoveredSeconds);
  return outage.recoveries == 1 ? " In between it recovered for " + length + "."
                                : " In between it recovered " + std::to_string(outage.recoveries) +
                                      " times, for " + length + " in all.";
}

// Most affected applications first.
std::string applicationsText(const Outage& outage) {
  std::vector<std::pair<std::string, std::uint64_t>> sorted(outage.applications.begin(),
                                                            outage.applications.end());
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const auto& left, const auto& right) { return left.second > right.second; });
  std::string text;
  for (const auto& [name, count] : sorted) {
    text += (text.empty() ? "" : ", ") + printableText(name) + " (" + std::to_string(count) + ")";
  }
  return text;
}

std::string consequencesText(const Outage& outage, const std::string& applications) {
  std::string text;
  if (outage.waited() > 0) {
    text += " " + counted(outage.waited(), "connection") + " waited for it and then went direct" +
            applications + ".";
  }
  if (outage.atOnce > 0) {
    text += " " + counted(outage.atOnce, outage.waited() > 0 ? "other" : "connection") +
            " went direct at once.";
  } else if (outage.wasUnreachable) {
    text += " New connections went direct at once.";
  }
  if (outage.reset > 0) {
    text += " Lost: " + counted(outage.reset, "open tunnel") + " ended with an error" +
            (outage.waited() > 0 ? "" : applications) + ".";
  }
  if (outage.invalid > 0) {
    text += " Lost: " + counted(outage.invalid, "connection") + " got an invalid answer" +
            (outage.waited() + outage.reset > 0 ? "" : applications) + ".";
  }
  return text + (outage.lost() == 0 ? " No connection was lost." : "");
}

}  // namespace

void OutageLog::add(const FlowRecord& flow) {
  const bool isAnswer = flow.outcome == FlowOutcome::open && !flow.hasJustFailed;
  if (isAnswer) {
    Lasting* const lasting = find(flow.host);
    if (lasting != nullptr && lasting->isReachable && !lasting->answeredAt) {
      lasting->answeredAt = flow.changedAt;
    }
    return;
  }
  if (!flow.hasJustFailed || flow.outcome == FlowOutcome::refused) {
    return;
  }
  if (flow.outcome == FlowOutcome::reset) {
    addReset(flow);
  } else {
    addTrouble(flow);
  }
}

// Counted only during an outage, of which it may be a consequence: origins reset connections at any
// time.
void OutageLog::addReset(const FlowRecord& flow) {
  if (Lasting* const lasting = find(flow.host)) {
    ++lasting->outage.reset;
    ++totalLost_;
    countApplication(lasting->outage, flow.application);
    return;
  }
  resets_.push_back({flow.host, flow.application, flow.changedAt});
  if (resets_.size() > kMostResets) {
    resets_.pop_front();
  }
}

void OutageLog::addTrouble(const FlowRecord& flow) {
  const bool isFirst = find(flow.host) == nullptr;
  Lasting* const lasting =
      current(flow.host, flow.startedAt.value_or(flow.changedAt), flow.changedAt);
  if (lasting == nullptr) {
    return;
  }
  Outage& outage = lasting->outage;
  switch (flow.outcome) {
    case FlowOutcome::timedOut:
      ++outage.timedOut;
      break;
    case FlowOutcome::backlog:
      ++outage.backlog;
      break;
    case FlowOutcome::invalidAnswer:
      ++outage.invalid;
      ++totalLost_;
      break;
    default:
      ++outage.brokeOff;
      takeEarlierResets(*lasting, flow.changedAt);
      break;
  }
  totalWaited_ += flow.outcome == FlowOutcome::invalidAnswer ? 0 : 1;
  countApplication(outage, flow.application);
  if (isFirst && changed_) {
    changed_(outage);
  }
}

void OutageLog::setReachable(const std::string& host, bool isReachable, double now) {
  Lasting* const known = find(host);
  if (isReachable) {
    if (known != nullptr && !known->isReachable) {
      known->isReachable = true;
      known->lastTrouble = std::max(known->lastTrouble, now);
      known->answeredAt = now;
    }
    return;
  }
  Lasting* const lasting = current(host, now, now);
  if (lasting == nullptr) {
    return;
  }
  lasting->isReachable = false;
  lasting->answeredAt.reset();
  lasting->outage.wasUnreachable = true;
  takeEarlierResets(*lasting, now);
  if (known == nullptr && changed_) {
    changed_(lasting->outage);
  }
}

void OutageLog::countDirect(std::uint64_t flows) {
  if (Lasting* const lasting = find("")) {
    lasting->outage.atOnce += flows;
  }
}

void OutageLog::addDirect(const std::string& application) {
  if (Lasting* const lasting = find("")) {
    countApplication(lasting->outage, application);
  }
}

void OutageLog::tick(double now) {
  for (auto each = lasting_.begin(); each != lasting_.end();) {
    Lasting& lasting = each->second;
    if (!lasting.answeredAt || now - lasting.lastTrouble < kQuietSeconds) {
      ++each;
      continue;
    }
    lasting.outage.end = lasting.answeredAt;
    ended_.push_back(std::move(lasting.outage));
    each = lasting_.erase(each);
    if (ended_.size() > kMostOutages) {
      ended_.pop_front();
    }
    if (changed_) {
      changed_(ended_.back());
    }
  }
}

std::vector<const Outage*> OutageLog::outages(std::size_t most) const {
  std::vector<const Outage*> all;
  for (const Outage& outage : ended_) {
    all.push_back(&outage);
  }
  for (const auto& [host, lasting] : lasting_) {
    all.push_back(&lasting.outage);
  }
  std::stable_sort(all.begin(), all.end(), [](const Outage* left, const Outage* right) {
    return left->begin < right->begin;
  });
  if (all.size() > most) {
    all.erase(all.begin(), all.end() - static_cast<std::ptrdiff_t>(most));
  }
  return all;
}

const Outage* OutageLog::lasting() const {
  const auto found = lasting_.find("");
  return found == lasting_.end() ? nullptr : &found->second.outage;
}

OutageLog::Lasting* OutageLog::find(const std::string& host) {
  const auto found = lasting_.find(host);
  return found == lasting_.end() ? nullptr : &found->second;
}

// The current outage, which a new failure begins or prolongs. Null if other machines have too many.
OutageLog::Lasting* OutageLog::current(const std::string& host, double begin, double now) {
  Lasting* lasting = find(host);
  if (lasting == nullptr) {
    ++total_;
    if (lasting_.size() >= kMostLasting) {
      return nullptr;
    }
    lasting = &lasting_[host];
    lasting->outage.host = host;
    lasting->outage.begin = begin;
    lasting->lastTrouble = now;
  }
  lasting->outage.begin = std::min(lasting->outage.begin, begin);
  lasting->lastTrouble = std::max(lasting->lastTrouble, now);
  if (lasting->answeredAt && *lasting->answeredAt < now) {
    // Otherwise it answered one flow while another one already waited.
    if (begin > *lasting->answeredAt) {
      ++lasting->outage.recoveries;
      lasting->outage.recoveredSeconds += begin - *lasting->answeredAt;
    }
    lasting->answeredAt.reset();
  }
  return lasting;
}

// When a proxy is killed, its tunnels end before a probe detects it.
void OutageLog::takeEarlierResets(Lasting& lasting, double now) {
  Outage& outage = lasting.outage;
  std::erase_if(resets_, [&](const Reset& reset) {
    const bool isConsequence =
        reset.host == outage.host && reset.time > now - kNoticeSeconds && reset.time <= now;
    if (isConsequence) {
      ++outage.reset;
      ++totalLost_;
      outage.begin = std::min(outage.begin, reset.time);
      countApplication(outage, reset.application);
    }
    return isConsequence;
  });
}

std::string outageKind(const Outage& outage) {
  if (outage.wasUnreachable) {
    return hasHung(outage) ? "hung and unreachable" : "unreachable";
  }
  return hasHung(outage) ? "hung" : "faulty";
}

std::string outageText(const Outage& outage) {
  return causeText(outage) + recoveriesText(outage) + consequencesText(outage, "");
}

std::string outageLine(const Outage& outage, TimeStyle time) {
  const std::string begin = timeText(outage.begin, time);
  const bool hung = hasHung(outage);
  if (!outage.end) {
    const std::string what = outage.wasUnreachable ? "cannot be reached"
                             : hung                ? "hangs"
                                                   : "breaks connections off or answers nonsense";
    return "The proxy " + what + ", since " + begin + ": new connections go direct.";
  }
  const std::string what = hung                    ? "hung"
                           : outage.wasUnreachable ? "could not be reached"
                                                   : "was faulty";
  const std::string applications = applicationsText(outage);
  return "The proxy " + what + " from " + begin + " to " + timeText(*outage.end, time) + " (" +
         durationText(*outage.end - outage.begin) + "). " + causeText(outage) +
         recoveriesText(outage) +
         consequencesText(outage, applications.empty() ? "" : ": " + applications);
}

}  // namespace ostravel::companion
