#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Platform/Interface/Error.h"
#include "Tests/Simulator/HistoryEvent.h"
#include "Tests/Simulator/ProtocolModel.h"

namespace ostravel::simulator {

// A broken promise, and the flow that broke it, if one did.
struct Violation {
  std::string invariant;
  std::uint32_t flow = 0;
};

// Reads the events at the seam, one after the other, and compares them with the system's promises.
// It keeps a small model of every flow and of the provider; it knows nothing about the system's
// classes, the run that makes the history, or its faults. The first broken promise is kept; later
// events are not judged.
//
// Some of what the system does on purpose looks wrong at first. The model expects it:
//
//  - A success that arrives after the close still counts: it is reported, its leftover is written
//    to the closed flow, and its identifier stays among the established ones for ever.
//  - After the close the handshake keeps reading: the answer is read after a request that was
//    written meanwhile. And a chunk that was being read is still written.
//  - A close that comes while the handshake is being started does not stop that: the start is
//  reported
//    after the close, the request is written to the cancelled connection, and the observer may be
//    removed by the start.
//  - A timeout that has begun when the answer arrives is reported after the success.
//  - Stopping forgets the tunnels without closing them. Their identifiers are never released.
class HistoryChecker {
 public:
  // What the end of a run, or the test peer of the provider, says.
  struct Counts {
    std::size_t pending = 0;
    std::size_t established = 0;
  };

  static constexpr std::size_t kMaxPending = 48;
  static constexpr std::chrono::nanoseconds kHandshakeTimeout = std::chrono::seconds(5);
  // How long a closed tunnel may exist after its last operation.
  static constexpr std::chrono::nanoseconds kReleaseTimeout = std::chrono::seconds(10);

  enum class Monitor {
    // Every monitoring event arrives.
    reliable,
    // Some are lost; those that arrive are not judged.
    unreliable,
  };

  // occupiedSlots: how many handshake slots of every provider belong to flows that are not part of
  // the history.
  explicit HistoryChecker(Monitor monitor, std::size_t occupiedSlots = 0)
      : hasReliableMonitor_(monitor == Monitor::reliable), occupiedSlots_(occupiedSlots) {}

  // content: a digest of the event's bytes.
  void consume(const HistoryEvent& event, std::uint64_t content, std::chrono::nanoseconds now);

  // Between two steps: what the provider counts.
  void compareCounts(const Counts& counts);
  // Before time advances to this moment: nothing earlier is pending.
  void passTime(std::chrono::nanoseconds now);
  // Time has jumped to this moment while nothing could run: what is overdue is not late yet.
  void excuseDelay(std::chrono::nanoseconds now);
  // Everything is over and has been released.
  void finish();

  void fail(std::string invariant, std::uint32_t flow = 0);
  const std::optional<Violation>& violation() const { return violation_; }

  // Counts of what happened, so that a test can check that it tested something.
  std::size_t tunnels() const { return tunnels_; }
  std::size_t successes() const { return successes_; }
  std::size_t timeouts() const { return timeouts_; }
  std::size_t rejections() const { return rejections_; }
  std::size_t mostPending() const { return mostPending_; }

 private:
  enum class Gate : std::uint8_t { open, closed, unknown };

  // The monitoring events of one flow, as bits.
  enum EventBit : std::uint16_t {
    kStarted = 1,
    kWriteFailed = 2,
    kReadFailed = 4,
    kInvalid = 8,
    kRejected = 16,
    kSucceeded = 32,
    kLeftoverFailed = 64,
    kTimedOut = 128,
    kBacklog = 256,
    kClosed = 512,
  };

  struct Chunk {
    std::size_t size = 0;
    std::uint64_t content = 0;
  };

  struct Flow {
    OfferedFlow facts;
    std::uint32_t provider = 0;
    bool taken = false;
    bool openRequested = false;
    bool opened = false;
    bool openFailed = false;
    // Its provider was stopped or released: it may be destroyed without having been closed.
    bool mayVanish = false;
    // The step in which its tunnel was forgotten, or 0.
    std::uint64_t forgottenInStep = 0;
    bool rejected = false;

    bool tunnel = false;
    std::chrono::nanoseconds startedAt{0};
    bool observing = false;
    // The observer was added in this step: a notification may have arrived before the system knows
    // that there is something to remove.
    bool beganToObserve = false;
    bool mustBeginHandshake = false;
    // From the notification that the connection is established until the request is sent.
    bool isBeginning = false;
    bool closedWhileBeginning = false;
    bool requestSent = false;
    std::string flowId;
    std::string answer;
    Verdict verdict = Verdict::incomplete;
    std::uint64_t establishedInStep = 0;
    bool countsAsEstablished = false;

    // Outstanding operations.
    bool flowReads = false;
    bool flowWrites = false;
    bool connectionReads = false;
    bool connectionWrites = false;
    std::optional<Chunk> toProxy;
    std::optional<Chunk> toApplication;
    bool leftoverIsNext = false;
    bool leftoverIsWritten = false;

    // Every reason to close it so far.
    bool mustEnd = false;
    std::vector<platform::Error> mustFail;
    platform::OptionalError closeError;
    bool readClosed = false;
    bool writeClosed = false;
    bool cancelled = false;
    std::uint64_t closedInStep = 0;
    bool flowGone = false;
    bool connectionGone = false;
    bool mustBeReleased = false;

    std::uint16_t expectedEvents = 0;
    std::uint16_t receivedEvents = 0;
  };

  Flow& flowOf(const HistoryEvent& event);
  bool isCurrent(const Flow& flow) const { return flow.provider == provider_ && hasProvider_; }
  bool isAlive(const Flow& flow) const { return !flow.flowGone; }
  void endBecauseOf(Flow& flow, const platform::Error* error);
  bool hasReasonToClose(const Flow& flow) const { return flow.mustEnd || !flow.mustFail.empty(); }

  void consumeProvider(const HistoryEvent& event);
  void answer(const HistoryEvent& event);
  void consumeFlow(const HistoryEvent& event, std::uint64_t content);
  void consumeConnection(const HistoryEvent& event, std::uint64_t content);
  void makeConnection(Flow& flow);
  void closeRead(Flow& flow, const HistoryEvent& event);
  void closeTunnel(Flow& flow, const HistoryEvent& event);
  void rejectForBacklog(Flow& flow);
  void cancel(Flow& flow, const HistoryEvent& event);
  void readFromFlow(Flow& flow, const HistoryEvent& event);
  void writeToFlow(Flow& flow, const HistoryEvent& event, std::uint64_t content);
  void writtenToFlow(Flow& flow, const HistoryEvent& event);
  void notify(Flow& flow, const HistoryEvent& event);
  void beginHandshake(Flow& flow);
  void writeToConnection(Flow& flow, const HistoryEvent& event, std::uint64_t content);
  void sendRequest(Flow& flow, const HistoryEvent& event);
  void writtenToConnection(Flow& flow, const HistoryEvent& event);
  void readFromConnection(Flow& flow, const HistoryEvent& event);
  void readAnswer(Flow& flow, const HistoryEvent& event);
  void establish(Flow& flow, std::string_view leftover);
  void timeOut(Flow& flow, const HistoryEvent& event);
  void probe(bool isReachable);
  void receive(std::string_view json);
  void receiveForFlow(std::uint16_t bit, std::uint32_t number, std::string_view json);
  void finishStep();
  void judgeTouched(std::uint32_t number);
  static bool isIdle(const Flow& flow);
  void expectRelease(Flow& flow, std::uint32_t number);
  void judgeReleases(std::chrono::nanoseconds now);
  void judgeRelay(const Flow& flow, std::uint32_t number);
  void judgeEnd(const Flow& flow, std::uint32_t number);
  void judgeEvents(const Flow& flow, std::uint32_t number);
  // A line of the system log.
  void readLog(std::string_view line);

  const bool hasReliableMonitor_;
  const std::size_t occupiedSlots_;
  std::optional<Violation> violation_;
  std::chrono::nanoseconds now_{0};
  // Counts from one, so that zero is no step.
  std::uint64_t step_ = 1;
  bool wasPreempted_ = false;
  // Flows that were closed and established in one step, so that the order decides what counts.
  std::size_t uncertainCounts_ = 0;

  std::uint32_t provider_ = 0;
  bool hasProvider_ = false;
  bool isRunning_ = false;
  // In this step.
  bool isBeingStopped_ = false;
  Gate gate_ = Gate::closed;
  std::uint64_t gateChanges_ = 0;
  std::uint64_t gateChangesAtOffer_ = 0;
  Gate gateAtOffer_ = Gate::closed;
  std::size_t pending_ = 0;
  std::size_t established_ = 0;
  std::optional<bool> lastProbe_;
  std::deque<std::string_view> expectedHealth_;
  std::size_t expectedStarts_ = 0;
  std::size_t expectedStops_ = 0;
  // Events that the core has reported as dropped and that are not yet found missing.
  std::size_t droppedEvents_ = 0;

  // By number; a deque, because what refers to a flow survives the next one.
  std::deque<Flow> flows_;
  std::vector<std::uint32_t> touched_;
  std::unordered_map<std::string, std::uint32_t> flowsById_;
  // Tunnels in the order of their start, as long as their handshake may be pending.
  std::deque<std::uint32_t> handshakes_;
  // Closed tunnels without an operation, in the order of the time by which they must be released.
  struct Release {
    std::uint32_t flow = 0;
    std::chrono::nanoseconds limit{0};
  };
  std::deque<Release> releases_;

  std::size_t tunnels_ = 0;
  std::size_t successes_ = 0;
  std::size_t timeouts_ = 0;
  std::size_t rejections_ = 0;
  std::size_t mostPending_ = 0;
};

}  // namespace ostravel::simulator
