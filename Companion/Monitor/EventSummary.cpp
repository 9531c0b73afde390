#include "Companion/Monitor/EventSummary.h"

#include "Base/CountedText.h"
#include "Base/PrintableText.h"
#include "Companion/Shared/TimeText.h"

namespace ostravel::companion {

void EventSummary::add(const FlowRecord& flow) {
  flows_ += flow.steps.size() == 1 ? 1 : 0;
  if (flow.hasJustFailed) {
    ++failures_;
    ++failuresByOutcome_[flow.outcome];
  }
  if (flow.handshakeSeconds && *flow.handshakeSeconds > slowestSeconds_) {
    slowestSeconds_ = *flow.handshakeSeconds;
    slowestFlow_ = (flow.application.empty() ? "-" : printableText(flow.application)) + " to " +
                   (flow.destination.empty() ? "-" : printableText(flow.destination));
  }
}

std::string EventSummary::text() const {
  std::string text = counted(flows_, "flow") + ", " +
                     (failures_ == 0 ? "none" : std::to_string(failures_)) + " failed";
  std::string separator = " (";
  for (const auto& [outcome, count] : failuresByOutcome_) {
    text += separator + std::to_string(count) + " " + std::string(outcomeText(outcome));
    separator = ", ";
  }
  text += failures_ == 0 ? "" : ")";
  if (slowestSeconds_ >= 0.0) {
    text += ", slowest " + durationText(slowestSeconds_) + ": " + slowestFlow_;
  }
  return text;
}

}  // namespace ostravel::companion
