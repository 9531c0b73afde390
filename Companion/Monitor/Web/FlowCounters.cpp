#include "Companion/Monitor/Web/FlowCounters.h"

#include <algorithm>

namespace ostravel::companion {

void FlowCounters::add(const FlowRecord& flow) {
  const bool isNew = flow.steps.size() == 1;
  const bool isKnown = applications.contains(flow.application);
  Application& application =
      applications[isKnown || applications.size() < kMostApplications ? flow.application
                                                                      : "others"];
  if (isNew) {
    ++flows;
    ++application.flows;
  }
  if (flow.hasJustFailed) {
    ++failures[flow.outcome];
    ++application.failures;
  }
  const bool isAnswer = !flow.steps.empty() &&
                        flow.steps.back().signal == "connect_handshake_succeeded" &&
                        flow.handshakeSeconds;
  if (isAnswer) {
    const auto* const bound =
        std::lower_bound(kBounds.begin(), kBounds.end(), *flow.handshakeSeconds);
    ++answerBuckets.at(static_cast<std::size_t>(bound - kBounds.begin()));
    answerSeconds += *flow.handshakeSeconds;
    ++answers;
  }
}

}  // namespace ostravel::companion
