#pragma once

#include <jansson.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "Base/JSONHandle.h"
#include "Companion/Events/FlowHistory.h"
#include "Companion/Events/OutageLog.h"
#include "Companion/Events/ReceivedEvent.h"
#include "Companion/Monitor/Web/FlowCounters.h"

namespace ostravel::companion {

// The data of the page and the metrics: from the events, and from the extension's answers on its
// control socket; of a fleet, from the events only. Owned by main. Usable from any thread; bounded
// by the limits of FlowHistory and those below.
class LiveState {
 public:
  // An hour of one sample per second.
  static constexpr std::size_t kMostSamples = 3600;
  static constexpr std::size_t kMostDecisions = 2000;
  // Limit on the machines of a fleet. Further ones are not counted, and the sentence says so.
  static constexpr std::size_t kMostMachines = 200'000;
  // Limit on the flows in one update; the others follow in the next one.
  static constexpr std::size_t kMostChanges = 1000;

  // The changes that a page has seen.
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

  // The number of events that machines of the fleet had to drop.
  void countDropped(std::uint64_t events);

  // This machine's events for the fleet: how many wait for the server, and how many were dropped.
  void setPublished(std::uint64_t waiting, std::uint64_t dropped);

  // The answers to "status" and "decisions"; null if there is none, for the reason in `problem`.
  void setStatus(const json_t* status, const std::string& problem);
  void addDecisions(const json_t* decisions);
  // The following decisions are of a new process of the extension, which numbers them from 1 again.
  void restartDecisions();

  // Adds a sample to the time series. Called once a second.
  void tick(double now);

  // The complete data, for a page that has been opened.
  Update whole() const;

  // The changes since the cursor; waits for the next sample. Empty if none follows in time.
  std::optional<Update> changesSince(const Cursor& cursor,
                                     std::chrono::milliseconds patience) const;

  // The history of one flow; empty if the flow is unknown.
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
  Sentence sentenceOfFleet() const;
  void receiveState(const ReceivedEvent& event);
  void receiveStateOfMachine(const ReceivedEvent& event);
  void countDirect();
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
  std::uint64_t droppedByMachines_ = 0;
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
  double startedAt_ = 0;  // of the extension
  std::optional<std::uint64_t> directBefore_;

  struct Published {
    std::uint64_t waiting = 0;
    std::uint64_t dropped = 0;
  };
  std::optional<Published> published_;

  // The machines of a fleet, and those whose new connections are known to go direct.
  std::set<std::string> machines_;
  bool hasMoreMachines_ = false;
  std::set<std::string> directMachines_;

  // By a number that continues when the extension is restarted.
  std::map<std::uint64_t, Decision> decisions_;
  std::uint64_t lastDecision_ = 0;
  std::uint64_t decisionsBeforeRestart_ = 0;
  std::uint64_t decisionRevision_ = 0;

  std::deque<Sample> samples_;
};

}  // namespace ostravel::companion
