#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Base/FlowIdentifier.h"
#include "Base/ReferenceCounted.h"
#include "Base/SharedText.h"
#include "Base/SharedTexts.h"
#include "Platform/Interface/FlowObserver.h"
#include "Platform/Linux/Kernel/FlowTuple.h"
#include "Platform/Linux/Statistics/FlowCounters.h"
#include "Platform/Linux/Statistics/SingleWriterCount.h"

namespace ostravel::linuxplatform {

// The history of one flow from its first packet on: the decision, its reason, and the time of each
// step. Made by the journal and shared with the flow, which reports to it. Written by the thread
// that decides until it is published, then by the flow's event loop; readable from any thread at
// any time. Its counters outlive it.
class FlowRecord final : public platform::FlowObserver, public ReferenceCounted {
 public:
  using Clock = std::chrono::steady_clock;
  using Elapsed = std::chrono::microseconds;

  enum class Action : std::uint8_t { direct, refused, proxied };

  struct Origin {
    bool isUDP = false;
    // Empty if unknown.
    std::string_view application = {};
    SocketEndpoint destination = {};
    std::optional<uid_t> user = std::nullopt;
    std::optional<pid_t> process = std::nullopt;
    // When the first packet was read.
    Clock::time_point begin = {};
  };

  // Longer identifiers, names and details are truncated to these sizes.
  static constexpr std::size_t kLongestText = 255;
  static constexpr std::size_t kLongestDetail = 120;

  // applications: keeps the application's identifier. time: of origin.begin, in seconds since 1970.
  FlowRecord(const Origin& origin, SharedTexts& applications, double time, FlowCounters& counters);
  ~FlowRecord() override;

  // platform::FlowObserver
  void decided(platform::FlowRule rule) override;
  void identified(const std::string& flowID) override;
  void handshakeStarted() override;
  void handshakeSucceeded() override;
  void ended(platform::FlowEnd end, std::string_view detail) override;

  // Before it is published: the name under which the application has looked the address up.
  void named(const std::string& host);
  // The flow was left to the system before it could be offered. reason: of static storage.
  void left(std::string_view reason);
  // Count bytes read from and written to the application.
  void sent(std::size_t bytes);
  void received(std::size_t bytes);

  // The application's identifier, not truncated.
  const SharedText& application() const { return application_; }
  const SocketEndpoint& destination() const { return destination_; }
  Action action() const;
  // Of static storage.
  std::string_view reason() const;
  // True if the record will not change any more.
  bool hasEnded() const {
    return action() != Action::proxied || end_.load(std::memory_order_acquire) != kNoEnd;
  }

  // A copy of the record.
  struct View {
    std::uint64_t sequence = 0;
    double time = 0;
    bool isUDP = false;
    std::string application;
    // host:port, with an IPv6 literal in brackets.
    std::string destination;
    // Empty if unknown.
    std::string host;
    std::optional<uid_t> user;
    std::optional<pid_t> process;
    Action action = Action::direct;
    std::string_view reason;
    std::string_view outcome;
    // Empty if no tunnel was made.
    std::string flowID;
    std::string detail;
    Elapsed decided{};
    std::optional<Elapsed> connected;
    std::optional<Elapsed> established;
    std::optional<Elapsed> ended;
    std::uint64_t bytesSent = 0;
    std::uint64_t bytesReceived = 0;
    bool isOpen = false;
  };
  View view() const;
  std::uint64_t sequence() const { return sequence_; }
  // The time of its last step, in seconds since 1970.
  double lastChange() const;

  // For the journal, before the record is shared: sets its number, and returns the time that the
  // decision took.
  Elapsed publish(std::uint64_t sequence);

 private:
  static constexpr std::uint8_t kNoEnd = 0xFF;
  static constexpr std::uint8_t kNoRule = 0x7F;
  static constexpr std::int64_t kNotYet = -1;
  static constexpr std::uint32_t kNotYetBriefly = ~std::uint32_t{0};
  // No user has this number (chown(2)), and no process the other one.
  static constexpr uid_t kNoUser = ~uid_t{0};
  static constexpr pid_t kNoProcess = 0;

  // The phase of a flow that was taken.
  enum class Phase : std::uint8_t { pending, established, over };

  std::int64_t elapsed() const;
  void logFailure(platform::FlowEnd end) const;
  // In seconds since 1970.
  double timeAfter(std::int64_t microseconds) const;
  std::string_view outcome(std::uint8_t end) const;

  std::string identifier() const;

  // What few flows have while they are open.
  struct Details {
    // Empty if unknown.
    std::string host;
    // Why it was left to the system before it could be offered; null if it was not.
    const char* leftFor = nullptr;
    // Microseconds after begin_.
    std::int64_t ended = kNotYet;
    std::string detail;
    // What these have replaced at the end, and what a reader may still see.
    std::unique_ptr<const Details> before = nullptr;
  };
  const Details& details() const;
  // Before it is published.
  void replaceDetails(Details details);

  // There is one for each tunnel as long as it lives, so every member is as small as it can be.
  // Microseconds after begin_, as the next two. All three end within seconds.
  std::uint32_t decided_ = 0;
  const Clock::time_point begin_;
  const double time_;
  FlowCounters& counters_;
  const SharedText application_;
  // Null if there are none. Replaced once at most after it was published.
  std::atomic<const Details*> details_ = nullptr;
  std::uint64_t sequence_ = 0;
  // Written once, before hasIdentifier_.
  FlowIdentifier identifier_;
  SingleWriterCount bytesSent_;
  SingleWriterCount bytesReceived_;
  std::atomic<std::uint32_t> connected_ = kNotYetBriefly;
  std::atomic<std::uint32_t> established_ = kNotYetBriefly;
  const uid_t user_;
  const pid_t process_;
  const SocketEndpoint destination_;
  // Neither is changed after the flow was offered.
  bool isUDP_ : 1;
  std::uint8_t rule_ : 7 = kNoRule;
  std::atomic<bool> hasIdentifier_ = false;
  // If several threads report an end, the first one counts.
  std::atomic<Phase> phase_ = Phase::pending;
  // A FlowEnd, or kNoEnd. Written after its detail.
  std::atomic<std::uint8_t> end_ = kNoEnd;
};

// Its name in the control protocol.
std::string_view nameOf(platform::FlowRule rule);
std::string_view nameOf(platform::FlowEnd end);
std::string_view nameOf(FlowRecord::Action action);

// What the core does with a flow to which this rule applies.
FlowRecord::Action actionOf(platform::FlowRule rule);

}  // namespace ostravel::linuxplatform
