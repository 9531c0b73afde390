#include "Tests/Simulator/HistoryChecker.h"

#include <algorithm>
#include <bit>
#include <utility>

#include "Base/ParseNumber.h"
#include "Tests/Simulator/Digest.h"

namespace ostravel::simulator {

namespace {

constexpr std::string_view kOwnDomain = "OstravelProxy";
constexpr std::int64_t kBacklogExceeded = 1001;
constexpr std::int64_t kHandshakeTimedOut = 1002;

constexpr std::uint64_t kHandshakeRead = 4096;
constexpr std::uint64_t kRelayRead = 524288;

// As NWTCPConnection numbers them.
constexpr std::uint64_t kStateConnected = 3;
constexpr std::uint64_t kStateDisconnected = 4;
constexpr std::uint64_t kStateCancelled = 5;

constexpr std::size_t kIdentifierSize = 36;

bool isOwn(const platform::Error& error, std::int64_t code) {
  return error.domain == kOwnDomain && error.code == code;
}

bool isIdentifier(std::string_view text) {
  constexpr std::string_view kForm = "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX";
  return text.size() == kIdentifierSize &&
         std::equal(text.begin(), text.end(), kForm.begin(), [](char byte, char form) {
           const bool isDigit = (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'F');
           return form == '-' ? byte == '-' : isDigit;
         });
}

}  // namespace

void HistoryChecker::fail(std::string invariant, std::uint32_t flow) {
  if (!violation_) {
    violation_ = Violation{std::move(invariant), flow};
  }
}

HistoryChecker::Flow& HistoryChecker::flowOf(const HistoryEvent& event) {
  if (flows_.size() < event.flow) {
    flows_.resize(event.flow);
  }
  if (touched_.empty() || touched_.back() != event.flow) {
    touched_.push_back(event.flow);
  }
  return flows_[event.flow - 1];
}

void HistoryChecker::consume(const HistoryEvent& event, std::uint64_t content,
                             std::chrono::nanoseconds now) {
  if (violation_) {
    return;
  }
  now_ = now;
  if (event.kind <= HistoryKind::providerReleased) {
    consumeProvider(event);
  } else if (event.kind <= HistoryKind::flowDestroyed) {
    consumeFlow(event, content);
  } else if (event.kind <= HistoryKind::timeoutFired) {
    consumeConnection(event, content);
  } else if (event.kind == HistoryKind::probeDone) {
    probe(event.number == 1);
  } else if (event.kind == HistoryKind::eventReceived) {
    receive(event.bytes);
  } else if (event.kind == HistoryKind::logLine) {
    readLog(event.bytes);
  } else if (event.kind == HistoryKind::preempted) {
    wasPreempted_ = true;
  } else if (event.kind == HistoryKind::stepDone) {
    finishStep();
  }
}

// The provider

void HistoryChecker::consumeProvider(const HistoryEvent& event) {
  switch (event.kind) {
    case HistoryKind::providerMade:
      ++provider_;
      hasProvider_ = true;
      isRunning_ = false;
      gate_ = Gate::closed;
      pending_ = occupiedSlots_;
      established_ = 0;
      lastProbe_.reset();
      break;
    case HistoryKind::providerStarted:
      isRunning_ = true;
      expectedStarts_ += event.number;
      break;
    case HistoryKind::providerStopped:
      isRunning_ = false;
      isBeingStopped_ = true;
      expectedStops_ += event.number;
      break;
    default:
      hasProvider_ = false;
      // Its last event may be lost with it.
      expectedHealth_.clear();
      break;
  }
  if (event.kind == HistoryKind::providerStopped || event.kind == HistoryKind::providerReleased) {
    for (Flow& flow : flows_) {
      flow.mayVanish = true;
      // A stop that preempts an offer comes before its tunnel is registered, and does not forget
      // it.
      if (flow.tunnel && flow.forgottenInStep == 0 && !wasPreempted_) {
        flow.forgottenInStep = step_;
      }
    }
  }
}

void HistoryChecker::probe(bool isReachable) {
  if (!hasProvider_) {
    return;
  }
  // A probe that was preempted by the stop still completes.
  if (!isRunning_ && !wasPreempted_) {
    fail("the proxy is probed although the provider is stopped");
  }
  gate_ = isReachable ? Gate::open : Gate::closed;
  ++gateChanges_;
  if (lastProbe_ != isReachable && (lastProbe_ || !isReachable)) {
    expectedHealth_.push_back(isReachable ? "extension.proxy_recovered"
                                          : "extension.proxy_unreachable");
  }
  lastProbe_ = isReachable;
}

void HistoryChecker::answer(const HistoryEvent& event) {
  Flow& flow = flowOf(event);
  flow.taken = event.number == 1;
  const Expectation expectation = flow.facts.expectation;
  const bool gateMayHaveMoved = wasPreempted_ || gateChanges_ != gateChangesAtOffer_;
  const bool wants = expectation != Expectation::leave;
  if (flow.taken && !wants) {
    fail("a flow that is to be left to the system is taken", event.flow);
  }
  if (!gateMayHaveMoved && gateAtOffer_ != Gate::unknown) {
    const bool isOpen = gateAtOffer_ == Gate::open;
    if (flow.taken && !isOpen) {
      fail("a flow is taken although the gate is closed", event.flow);
    }
    if (!flow.taken && isOpen && wants) {
      fail("a flow is left to the system although the gate is open", event.flow);
    }
  }
  if (flow.taken && expectation == Expectation::carry && !flow.openRequested) {
    fail("a flow is taken and not opened", event.flow);
  }
  if (flow.taken && expectation == Expectation::drop && !(flow.readClosed && flow.writeClosed)) {
    fail("a flow is dropped and not closed", event.flow);
  }
  if (!flow.taken && (flow.openRequested || flow.readClosed || flow.writeClosed)) {
    fail("a flow that is left to the system is touched", event.flow);
  }
}

// The flow

void HistoryChecker::consumeFlow(const HistoryEvent& event, std::uint64_t content) {
  Flow& flow = flowOf(event);
  switch (event.kind) {
    case HistoryKind::flowOffered:
      flow.facts = *event.offered;
      flow.provider = provider_;
      gateAtOffer_ = gate_;
      gateChangesAtOffer_ = gateChanges_;
      break;
    case HistoryKind::flowAnswered:
      answer(event);
      break;
    case HistoryKind::flowOpen:
      if (std::exchange(flow.openRequested, true) || flow.facts.expectation != Expectation::carry) {
        fail("a flow is opened that must not be", event.flow);
      }
      break;
    case HistoryKind::flowOpenDone:
      flow.opened = event.error == nullptr;
      flow.openFailed = !flow.opened;
      if (flow.openFailed) {
        endBecauseOf(flow, event.error);
      }
      break;
    case HistoryKind::flowRead:
      if (flow.verdict != Verdict::established || flow.readClosed || flow.flowReads ||
          flow.toProxy) {
        fail("the application is read out of turn", event.flow);
      }
      flow.flowReads = true;
      break;
    case HistoryKind::flowReadDone:
      readFromFlow(flow, event);
      if (!event.bytes.empty()) {
        flow.toProxy = Chunk{event.bytes.size(), content};
      }
      break;
    case HistoryKind::flowWrite:
      writeToFlow(flow, event, content);
      break;
    case HistoryKind::flowWriteDone:
      writtenToFlow(flow, event);
      break;
    case HistoryKind::flowCloseRead:
      closeRead(flow, event);
      break;
    case HistoryKind::flowCloseWrite:
      if (!flow.readClosed || std::exchange(flow.writeClosed, true)) {
        fail("the write side is closed out of turn", event.flow);
      }
      if (event.error != nullptr ? flow.closeError != *event.error : flow.closeError.has_value()) {
        fail("the two sides are closed with different errors", event.flow);
      }
      break;
    default:
      flow.flowGone = true;
      if (flow.taken && flow.openRequested && !flow.writeClosed && !flow.mayVanish) {
        fail("a flow is destroyed that was not closed", event.flow);
      }
      break;
  }
}

void HistoryChecker::endBecauseOf(Flow& flow, const platform::Error* error) {
  if (error == nullptr) {
    flow.mustEnd = true;
  } else {
    flow.mustFail.push_back(*error);
  }
}

void HistoryChecker::readFromFlow(Flow& flow, const HistoryEvent& event) {
  if (!std::exchange(flow.flowReads, false)) {
    fail("a read of the application completes twice", event.flow);
  }
  if (isAlive(flow) && event.bytes.empty()) {
    endBecauseOf(flow, event.error);
  }
}

void HistoryChecker::writeToFlow(Flow& flow, const HistoryEvent& event, std::uint64_t content) {
  if (std::exchange(flow.flowWrites, true)) {
    fail("the application is written to while a write is outstanding", event.flow);
  }
  if (!flow.toApplication || flow.toApplication->size != event.bytes.size() ||
      flow.toApplication->content != content) {
    fail("the application gets other bytes than the proxy sent", event.flow);
  }
  flow.toApplication.reset();
  flow.leftoverIsWritten = std::exchange(flow.leftoverIsNext, false);
}

void HistoryChecker::writtenToFlow(Flow& flow, const HistoryEvent& event) {
  if (!std::exchange(flow.flowWrites, false)) {
    fail("a write to the application completes twice", event.flow);
  }
  if (std::exchange(flow.leftoverIsWritten, false) && event.error != nullptr && isAlive(flow)) {
    flow.expectedEvents |= kLeftoverFailed;
  }
  if (event.error != nullptr && isAlive(flow)) {
    endBecauseOf(flow, event.error);
  }
}

void HistoryChecker::closeRead(Flow& flow, const HistoryEvent& event) {
  if (std::exchange(flow.readClosed, true)) {
    fail("a flow is closed twice", event.flow);
    return;
  }
  if (event.error != nullptr) {
    flow.closeError = *event.error;
  }
  flow.closedInStep = step_;
  if (flow.facts.expectation == Expectation::drop) {
    if (event.error != nullptr) {
      fail("a dropped flow is closed with an error", event.flow);
    }
    return;
  }
  if (!flow.tunnel && flow.opened) {
    if (event.error == nullptr || !isOwn(*event.error, kBacklogExceeded)) {
      fail("an opened flow is closed without a tunnel", event.flow);
    }
    rejectForBacklog(flow);
    return;
  }
  if (event.error != nullptr ? std::find(flow.mustFail.begin(), flow.mustFail.end(),
                                         *event.error) == flow.mustFail.end()
                             : !flow.mustEnd) {
    fail("a flow is closed for another reason than it has", event.flow);
  }
  if (flow.tunnel) {
    closeTunnel(flow, event);
  }
}

void HistoryChecker::closeTunnel(Flow& flow, const HistoryEvent& event) {
  flow.expectedEvents |= kClosed;
  const bool isFailure = event.error != nullptr;
  if (isFailure && isCurrent(flow)) {
    if (wasPreempted_) {
      gate_ = Gate::unknown;
      ++gateChanges_;
    } else if (flow.verdict != Verdict::established) {
      gate_ = Gate::closed;
      ++gateChanges_;
    }
  }
}

void HistoryChecker::rejectForBacklog(Flow& flow) {
  flow.rejected = true;
  flow.expectedEvents |= kBacklog;
  ++rejections_;
  if (isCurrent(flow) && !wasPreempted_ && pending_ < kMaxPending) {
    fail("a flow is rejected although a handshake slot is free");
  }
}

// The connection

void HistoryChecker::consumeConnection(const HistoryEvent& event, std::uint64_t content) {
  Flow& flow = flowOf(event);
  switch (event.kind) {
    case HistoryKind::connectionMade:
      if (!flow.opened || flow.tunnel) {
        fail("a connection is made out of turn", event.flow);
      }
      flow.flowId = event.bytes;
      makeConnection(flow);
      flowsById_.insert_or_assign(flow.flowId, event.flow);
      handshakes_.push_back(event.flow);
      break;
    case HistoryKind::observerAdded:
      if (std::exchange(flow.observing, true)) {
        fail("a second observer is added", event.flow);
      }
      flow.beganToObserve = true;
      break;
    case HistoryKind::observerReady:
      if (event.number == kStateConnected && !flow.readClosed) {
        beginHandshake(flow);
      }
      break;
    case HistoryKind::observerRemoved:
      if (!std::exchange(flow.observing, false)) {
        fail("an observer is removed that is not registered", event.flow);
      }
      break;
    case HistoryKind::stateNotified:
      notify(flow, event);
      break;
    case HistoryKind::connectionRead:
      readFromConnection(flow, event);
      break;
    case HistoryKind::connectionReadDone:
      if (!std::exchange(flow.connectionReads, false)) {
        fail("a read of the proxy completes twice", event.flow);
      }
      if (!isAlive(flow)) {
        break;
      }
      if (flow.verdict == Verdict::incomplete) {
        readAnswer(flow, event);
      } else if (event.bytes.empty()) {
        endBecauseOf(flow, event.error);
      } else {
        flow.toApplication = Chunk{event.bytes.size(), content};
      }
      break;
    case HistoryKind::connectionWrite:
      writeToConnection(flow, event, content);
      break;
    case HistoryKind::connectionWriteDone:
      writtenToConnection(flow, event);
      break;
    case HistoryKind::connectionCancel:
      cancel(flow, event);
      break;
    case HistoryKind::connectionDestroyed:
      flow.connectionGone = true;
      if (!flow.cancelled && !flow.mayVanish) {
        fail("a connection is destroyed that was not cancelled", event.flow);
      }
      break;
    default:
      timeOut(flow, event);
      break;
  }
}

void HistoryChecker::makeConnection(Flow& flow) {
  flow.tunnel = true;
  flow.startedAt = now_;
  // The stop that it preempts may forget it as well.
  flow.mayVanish = flow.mayVanish || isBeingStopped_;
  ++tunnels_;
  if (!isIdentifier(flow.flowId) || flowsById_.contains(flow.flowId)) {
    fail("a flow identifier is malformed or used twice");
  }
  if (!isCurrent(flow)) {
    return;
  }
  if (pending_ >= kMaxPending) {
    fail("a tunnel is admitted above the limit");
  }
  ++pending_;
  mostPending_ = std::max(mostPending_, pending_);
}

void HistoryChecker::notify(Flow& flow, const HistoryEvent& event) {
  if (!flow.observing) {
    fail("an observer is notified that is not registered", event.flow);
  }
  if (event.number == kStateConnected) {
    beginHandshake(flow);
  } else if (event.number == kStateDisconnected) {
    endBecauseOf(flow, event.error);
  } else if (event.number == kStateCancelled) {
    endBecauseOf(flow, nullptr);
  }
}

// A request that is not UTF-8 cannot be sent; then the tunnel ends without an error.
void HistoryChecker::beginHandshake(Flow& flow) {
  if (flow.requestSent) {
    // Notified once more before the observer was removed.
    return;
  }
  flow.isBeginning = true;
  if (isUTF8(flow.facts.host) && isUTF8(flow.facts.port)) {
    flow.mustBeginHandshake = true;
  } else {
    endBecauseOf(flow, nullptr);
  }
}

void HistoryChecker::writeToConnection(Flow& flow, const HistoryEvent& event,
                                       std::uint64_t content) {
  if (std::exchange(flow.connectionWrites, true)) {
    fail("the proxy is written to while a write is outstanding", event.flow);
  }
  if (!flow.requestSent) {
    sendRequest(flow, event);
    return;
  }
  if (!flow.toProxy || flow.toProxy->size != event.bytes.size() ||
      flow.toProxy->content != content || flow.verdict != Verdict::established) {
    fail("the proxy gets other bytes than the application sent", event.flow);
  }
  flow.toProxy.reset();
}

void HistoryChecker::sendRequest(Flow& flow, const HistoryEvent& event) {
  flow.requestSent = true;
  flow.mustBeginHandshake = false;
  flow.isBeginning = false;
  flow.expectedEvents |= kStarted;
  if (event.bytes != expectedRequest(flow.facts, flow.flowId) || event.number < kStateConnected) {
    fail("the request is not the one for this flow", event.flow);
  }
}

void HistoryChecker::writtenToConnection(Flow& flow, const HistoryEvent& event) {
  if (!std::exchange(flow.connectionWrites, false)) {
    fail("a write to the proxy completes twice", event.flow);
  }
  if (event.error == nullptr || !isAlive(flow)) {
    return;
  }
  if (flow.verdict == Verdict::incomplete) {
    flow.expectedEvents |= kWriteFailed;
  }
  endBecauseOf(flow, event.error);
}

void HistoryChecker::readFromConnection(Flow& flow, const HistoryEvent& event) {
  const bool isHandshake = flow.verdict == Verdict::incomplete;
  if (std::exchange(flow.connectionReads, true) || !flow.requestSent) {
    fail("the proxy is read out of turn", event.flow);
  }
  if (event.number != (isHandshake ? kHandshakeRead : kRelayRead)) {
    fail("the proxy is asked for the wrong number of bytes", event.flow);
  }
  if (!isHandshake && flow.readClosed) {
    fail("the proxy is read after the close", event.flow);
  }
  if (!isHandshake && (flow.toApplication || flow.flowWrites)) {
    fail("the proxy is read before the application has taken what was read", event.flow);
  }
}

void HistoryChecker::readAnswer(Flow& flow, const HistoryEvent& event) {
  if (event.bytes.empty()) {
    if (event.error != nullptr) {
      flow.expectedEvents |= kReadFailed;
    }
    endBecauseOf(flow, event.error);
    return;
  }
  flow.answer += event.bytes;
  const auto judgement = judgeAnswer(flow.answer);
  flow.verdict = judgement.verdict;
  switch (judgement.verdict) {
    case Verdict::incomplete:
      break;
    case Verdict::established:
      establish(flow, judgement.leftover);
      break;
    case Verdict::rejected:
      flow.expectedEvents |= kRejected;
      endBecauseOf(flow, nullptr);
      break;
    case Verdict::invalid:
      flow.expectedEvents |= kInvalid;
      endBecauseOf(flow, nullptr);
      break;
  }
  if (judgement.verdict != Verdict::incomplete) {
    flow.answer = {};
  }
}

void HistoryChecker::establish(Flow& flow, std::string_view leftover) {
  flow.expectedEvents |= kSucceeded;
  flow.establishedInStep = step_;
  ++successes_;
  if (!leftover.empty()) {
    flow.toApplication = Chunk{leftover.size(), digestOf(leftover)};
    flow.leftoverIsNext = true;
  }
  if (!isCurrent(flow)) {
    return;
  }
  if (flow.readClosed && flow.closedInStep == step_) {
    ++uncertainCounts_;
  }
  if (!flow.cancelled) {
    --pending_;
    flow.countsAsEstablished = true;
  }
  ++established_;
}

void HistoryChecker::timeOut(Flow& flow, const HistoryEvent& event) {
  ++timeouts_;
  const bool isBeingEstablished = flow.establishedInStep == step_;
  if (flow.readClosed || (flow.verdict == Verdict::established && !isBeingEstablished)) {
    fail("the handshake times out although it is over", event.flow);
  }
  if (now_ < flow.startedAt + kHandshakeTimeout) {
    fail("the handshake times out early", event.flow);
  }
  if (flow.forgottenInStep != 0 && flow.forgottenInStep != step_) {
    fail("the handshake of a forgotten tunnel times out", event.flow);
  }
  flow.expectedEvents |= kTimedOut;
  flow.mustFail.push_back(
      {std::string(kOwnDomain), kHandshakeTimedOut, "Proxy CONNECT handshake timed out"});
}

void HistoryChecker::cancel(Flow& flow, const HistoryEvent& event) {
  if (!flow.writeClosed || std::exchange(flow.cancelled, true)) {
    fail("the connection is cancelled out of turn", event.flow);
  }
  if (flow.isBeginning) {
    flow.closedWhileBeginning = true;
  } else if (flow.observing && !flow.beganToObserve) {
    fail("a closed tunnel still observes its connection", event.flow);
  }
  if (!isCurrent(flow)) {
    return;
  }
  if (flow.countsAsEstablished) {
    --established_;
    if (flow.establishedInStep == step_) {
      ++uncertainCounts_;
    }
  } else {
    --pending_;
  }
}

// Monitoring

void HistoryChecker::receive(std::string_view json) {
  if (!hasReliableMonitor_) {
    return;
  }
  struct Code {
    std::string_view code;
    std::uint16_t bit;
  };
  constexpr Code kCodes[] = {
      {"extension.connect_handshake_started", kStarted},
      {"extension.connect_handshake_succeeded", kSucceeded},
      {"extension.tunnel_closed", kClosed},
      {"extension.connect_handshake_write_failed", kWriteFailed},
      {"extension.connect_handshake_read_failed", kReadFailed},
      {"extension.connect_handshake_invalid", kInvalid},
      {"extension.connect_handshake_non_200", kRejected},
      {"extension.connect_handshake_leftover_write_failed", kLeftoverFailed},
      {"extension.connect_handshake_timed_out", kTimedOut},
      {"extension.connect_handshake_backlog_exceeded", kBacklog},
  };
  const auto code = textMember(json, R"("code":")");
  for (const auto& [name, bit] : kCodes) {
    if (code == name) {
      const auto found = flowsById_.find(std::string(textMember(json, R"("flow_id":")")));
      if (found != flowsById_.end()) {
        receiveForFlow(bit, found->second, json);
      } else if (bit != kBacklog) {
        fail("an event concerns an unknown flow");
      }
      return;
    }
  }
  if (code == "extension.provider_started") {
    expectedStarts_ -= expectedStarts_ > 0 ? 1 : 0;
  } else if (code == "extension.provider_stopped") {
    expectedStops_ -= expectedStops_ > 0 ? 1 : 0;
  } else if (hasProvider_) {
    if (expectedHealth_.empty() || expectedHealth_.front() != code) {
      fail("the proxy's health is reported wrongly");
      return;
    }
    expectedHealth_.pop_front();
  }
}

void HistoryChecker::readLog(std::string_view line) {
  constexpr std::string_view kDropped = "OstravelProxy monitoring events dropped: ";
  if (line.starts_with(kDropped)) {
    droppedEvents_ += parseNumber<std::size_t>(line.substr(kDropped.size())).value_or(0);
  }
}

void HistoryChecker::receiveForFlow(std::uint16_t bit, std::uint32_t number,
                                    std::string_view json) {
  Flow& flow = flows_[number - 1];
  if ((flow.receivedEvents & bit) != 0) {
    fail("an event is reported twice", number);
  }
  const bool isAfterClose = (flow.receivedEvents & kClosed) != 0;
  if (isAfterClose && bit == kStarted && !flow.closedWhileBeginning) {
    fail("a handshake starts after the close", number);
  }
  if (bit == kSucceeded && (flow.receivedEvents & kStarted) == 0) {
    fail("a handshake succeeds that was not started", number);
  }
  if (bit == kClosed) {
    const auto detail = textMember(json, R"("detail":")");
    const auto expected =
        flow.closeError ? std::string_view(flow.closeError->localizedDescription) : "eof";
    if (flow.readClosed && detail != expected) {
      fail("the end is reported with another reason", number);
    }
  }
  flow.receivedEvents |= bit;
}

// Between the steps

void HistoryChecker::finishStep() {
  for (const std::uint32_t number : touched_) {
    flows_[number - 1].beganToObserve = false;
    judgeTouched(number);
    expectRelease(flows_[number - 1], number);
  }
  touched_.clear();
  wasPreempted_ = false;
  isBeingStopped_ = false;
  ++step_;
}

void HistoryChecker::judgeTouched(std::uint32_t number) {
  const Flow& flow = flows_[number - 1];
  if (flow.flowGone || !flow.openRequested) {
    return;
  }
  if (flow.opened && !flow.tunnel && !flow.rejected && isCurrent(flow)) {
    fail("an opened flow has no tunnel", number);
  }
  if (hasReasonToClose(flow) && !flow.writeClosed) {
    fail("a flow is not closed although it has ended", number);
  }
  if (!flow.tunnel) {
    return;
  }
  if (flow.writeClosed && !flow.cancelled) {
    fail("a closed tunnel has not cancelled its connection", number);
  }
  if (flow.cancelled && flow.observing) {
    fail("a closed tunnel still observes its connection", number);
  }
  if (flow.requestSent && flow.observing) {
    fail("a tunnel observes its connection after its handshake has begun", number);
  }
  if (flow.mustBeginHandshake && !flow.writeClosed) {
    fail("the connection is established and no request is sent", number);
  }
  if (!flow.writeClosed) {
    judgeRelay(flow, number);
  }
}

void HistoryChecker::judgeRelay(const Flow& flow, std::uint32_t number) {
  if (flow.verdict == Verdict::established) {
    if (flow.flowReads == flow.connectionWrites || flow.connectionReads == flow.flowWrites) {
      fail("a direction of an established tunnel waits for nothing, or for two things", number);
    }
  } else if (flow.requestSent && flow.connectionReads == flow.connectionWrites) {
    fail("a handshake waits for nothing, or for two things", number);
  } else if (!flow.requestSent && !flow.observing) {
    fail("a tunnel does not observe its connection", number);
  }
}

bool HistoryChecker::isIdle(const Flow& flow) {
  return !flow.flowReads && !flow.flowWrites && !flow.connectionReads && !flow.connectionWrites;
}

void HistoryChecker::expectRelease(Flow& flow, std::uint32_t number) {
  const bool isLeft = flow.cancelled && !(flow.flowGone && flow.connectionGone);
  if (isLeft && isIdle(flow) && !std::exchange(flow.mustBeReleased, true)) {
    releases_.push_back({number, now_ + kReleaseTimeout});
  }
}

void HistoryChecker::judgeReleases(std::chrono::nanoseconds now) {
  while (!releases_.empty() && releases_.front().limit < now) {
    const std::uint32_t number = releases_.front().flow;
    releases_.pop_front();
    Flow& flow = flows_[number - 1];
    flow.mustBeReleased = false;
    if (isIdle(flow) && !(flow.flowGone && flow.connectionGone)) {
      fail("a closed tunnel is not released", number);
    }
  }
}

void HistoryChecker::compareCounts(const Counts& counts) {
  if (violation_) {
    return;
  }
  const auto distance = [](std::size_t left, std::size_t right) {
    return left > right ? left - right : right - left;
  };
  if (distance(counts.pending, pending_) > uncertainCounts_ ||
      distance(counts.established, established_) > uncertainCounts_) {
    fail("the admission controller counts " + std::to_string(counts.pending) + " pending and " +
         std::to_string(counts.established) + " established, a recount " +
         std::to_string(pending_) + " and " + std::to_string(established_));
  }
  if (uncertainCounts_ > 0) {
    pending_ = counts.pending;
    established_ = counts.established;
    uncertainCounts_ = 0;
  }
}

void HistoryChecker::passTime(std::chrono::nanoseconds now) {
  judgeReleases(now);
  while (!handshakes_.empty()) {
    const std::uint32_t number = handshakes_.front();
    const Flow& flow = flows_[number - 1];
    const bool isOver = flow.flowGone || flow.writeClosed || flow.verdict == Verdict::established;
    if (!isOver) {
      if (now > flow.startedAt + kHandshakeTimeout) {
        fail("a handshake is pending for longer than its time-out", number);
      }
      return;
    }
    handshakes_.pop_front();
  }
}

void HistoryChecker::excuseDelay(std::chrono::nanoseconds now) {
  for (const std::uint32_t number : handshakes_) {
    Flow& flow = flows_[number - 1];
    flow.startedAt = std::max(flow.startedAt, now - kHandshakeTimeout);
  }
  for (Release& release : releases_) {
    release.limit = std::max(release.limit, now);
  }
}

void HistoryChecker::finish() {
  if (violation_) {
    return;
  }
  for (std::size_t i = 0; i < flows_.size(); ++i) {
    judgeEnd(flows_[i], static_cast<std::uint32_t>(i + 1));
  }
  if (hasReliableMonitor_ && (expectedStarts_ > 0 || expectedStops_ > 0)) {
    fail("a start or a stop of the provider was not reported");
  }
  if (hasReliableMonitor_ && !expectedHealth_.empty()) {
    fail("a change of the proxy's health was not reported");
  }
}

void HistoryChecker::judgeEnd(const Flow& flow, std::uint32_t number) {
  if (flow.openRequested && !flow.flowGone) {
    fail("a flow is never destroyed", number);
  }
  if (flow.tunnel && !flow.connectionGone) {
    fail("a connection is never destroyed", number);
  }
  if (hasReliableMonitor_ && flow.tunnel) {
    judgeEvents(flow, number);
  }
}

// The room for waiting events is limited: thousands of tunnels that end in one moment may fill it.
void HistoryChecker::judgeEvents(const Flow& flow, std::uint32_t number) {
  const unsigned expected = flow.expectedEvents;
  const unsigned received = flow.receivedEvents;
  const auto missing = static_cast<std::size_t>(std::popcount(expected & ~received));
  if ((received & ~expected) == 0 && missing <= droppedEvents_) {
    droppedEvents_ -= missing;
    return;
  }
  fail("the reported events are not those that happened: " + std::to_string(flow.receivedEvents) +
           " instead of " + std::to_string(flow.expectedEvents),
       number);
}

}  // namespace ostravel::simulator
