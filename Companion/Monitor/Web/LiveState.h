#pragma once

#include <jansson.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "Base/JSONHandle.h"
#include "Companion/Events/FlowHistory.h"
#include "Companion/Events/ReceivedEvent.h"
#include "Companion/Monitor/Web/FlowCounters.h"
#include "Companion/Monitor/Web/OutageLog.h"

namespace ostravel::companion {

// Everything that the page and the metrics show: what the events said, and what the extension
// answered on its control socket, which events do not tell. Owned by main. Usable from any thread;
// bounded by the limits of FlowHistory and those below.
class LiveState {
 public:
  // An hour, a second each.
  static constexpr std::size_t kMostSamples = 3600;
  static constexpr std::size_t kMostDecisions = 2000;
  // Of flows in one update; the others follow in the next.
  static constexpr std::size_t kMostChanges = 1000;

  // Which changes a page has seen.
  struct Cursor {
    std::uint64_t tick = 0;
    std::uint64_t flows = 0;
    std::uint64_t decisions = 0;
  };

  struct Update {
    std::string json;
    Cursor cursor;
  };

  void receive(const ReceivedEvent& event);
  void countMalformedFrame();

  // The answers to "status" and "decisions"; null for no answer, and `problem` says why.
  void setStatus(const json_t* status, const std::string& problem);
  void addDecisions(const json_t* decisions);

  // Takes a sample of the time lines. Called once a second.
  void tick(double now);

  // All that a page shows when it is opened.
  Update whole() const;

  // What has changed since then; waits for the next sample. Empty when none comes in that time.
  std::optional<Update> changesSince(const Cursor& cursor,
                                     std::chrono::milliseconds patience) const;

  // The life of one flow; empty if it is not known.
  std::string flow(const std::string& id) const;

  // In the text format of Prometheus, version 0.0.4.
  std::string metrics(bool byApplication) const;

 private:
  struct Sample {
    double time = 0;
    std::optional<bool> isGateOpen;
    std::uint64_t tunnels = 0;
    std::uint64_t pending = 0;
    std::uint64_t failures = 0;
    std::optional<double> slowestAnswer;  // seconds
    std::optional<double> sentPerSecond;
    std::optional<double> receivedPerSecond;
  };

  struct Decision {
    std::uint64_t revision = 0;
    JSONHandle row;
  };

  struct Sentence {
    std::string state;
    std::string text;
    std::optional<double> since;
  };

  Sentence sentence() const;
  Sentence sentenceOfStatus() const;
  Sentence sentenceOfEvents() const;
  std::uint64_t lostEvents() const;
  JSONHandle common() const;
  JSONHandle changedFlows(Cursor& cursor) const;
  Update finish(JSONHandle object, Cursor cursor) const;
  void measureThroughput(Sample& sample);

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::uint64_t ticks_ = 0;

  FlowHistory flows_;
  FlowCounters counters_;
  OutageLog outages_;
  std::uint64_t events_ = 0;
  std::uint64_t malformed_ = 0;
  std::uint64_t resets_ = 0;
  std::optional<bool> isRunning_;
  std::optional<bool> isReachable_;
  double reachableSince_ = 0;
  double now_ = 0;
  double slowestAnswer_ = -1;
  std::uint64_t failuresBefore_ = 0;

  JSONHandle status_;
  std::string statusProblem_ = "not asked yet";
  double statusAt_ = 0;
  double sentBefore_ = -1;
  double receivedBefore_ = -1;
  double measuredAt_ = 0;

  std::map<std::uint64_t, Decision> decisions_;
  std::uint64_t decisionRevision_ = 0;

  std::deque<Sample> samples_;
};

}  // namespace ostravel::companion
