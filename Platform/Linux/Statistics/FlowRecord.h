#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Interface/FlowObserver.h"
#include "Platform/Linux/Statistics/FlowCounters.h"

namespace ostravel::linuxplatform {

// The life of one flow, from its first packet on: what was decided and why, and when each step
// was. Made by the journal and shared with the flow, which reports to it. Written by the thread
// that decides until it is published, and by the flow's event loop after that; may be read from any
// thread at any time. Its counters outlive it.
class FlowRecord final : public platform::FlowObserver {
 public:
  using Clock = std::chrono::steady_clock;
  using Elapsed = std::chrono::microseconds;

  enum class Action : std::uint8_t { direct, refused, proxied };

  struct Origin {
    bool isUDP = false;
    // Empty if unknown.
    std::string application = {};
    // host:port, an IPv6 literal in brackets.
    std::string destination = {};
    std::optional<uid_t> user = std::nullopt;
    std::optional<pid_t> process = std::nullopt;
    // When the first packet was read.
    Clock::time_point begin = {};
  };

  // Longer identifiers, destinations and details are cut to this.
  static constexpr std::size_t kLongestText = 255;
  static constexpr std::size_t kLongestDetail = 120;

  // time: of origin.begin, in seconds since 1970.
  FlowRecord(Origin origin, double time, FlowCounters& counters);

  // platform::FlowObserver
  void decided(platform::FlowRule rule) override;
  void identified(const std::string& flowID) override;
  void handshakeStarted() override;
  void handshakeSucceeded() override;
  void ended(platform::FlowEnd end, std::string_view detail) override;

  // Left to the system before it could be offered. reason: of static storage.
  void left(std::string_view reason);
  // Bytes of the application that were read from it, and that were written to it.
  void sent(std::size_t bytes);
  void received(std::size_t bytes);

  Action action() const { return action_; }
  // Of static storage.
  std::string_view reason() const { return reason_; }
  // Nothing more will happen.
  bool hasEnded() const {
    return action_ != Action::proxied || end_.load(std::memory_order_acquire) != kNoEnd;
  }

  // A copy of all of it.
  struct View {
    std::uint64_t sequence = 0;
    double time = 0;
    bool isUDP = false;
    std::string application;
    std::string destination;
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
  // When something last happened to it, in seconds since 1970.
  double lastChange() const;

  // For the journal, before anybody else can see the record: its number, and the time that the
  // decision took.
  Elapsed publish(std::uint64_t sequence);

 private:
  static constexpr std::uint8_t kNoEnd = 0xFF;
  static constexpr std::int64_t kNotYet = -1;
  // A UUID as text (RFC 9562).
  static constexpr std::size_t kIdentifierSize = 36;

  using Step = std::atomic<std::int64_t>;
  // Of a flow that was taken.
  enum class Phase : std::uint8_t { pending, established, over };

  std::int64_t elapsed() const;
  // In seconds since 1970.
  double timeAfter(std::int64_t microseconds) const;
  std::string_view outcome(std::uint8_t end) const;

  const Origin origin_;
  const double time_;
  FlowCounters& counters_;
  // Not changed after the flow was offered.
  Action action_ = Action::direct;
  std::string_view reason_ = "no_handler";
  std::uint64_t sequence_ = 0;
  std::int64_t decided_ = 0;
  // Microseconds after the beginning.
  Step connected_ = kNotYet;
  Step established_ = kNotYet;
  Step ended_ = kNotYet;
  // Written once, before hasIdentifier_.
  std::array<char, kIdentifierSize> identifier_{};
  std::atomic<bool> hasIdentifier_ = false;
  // Of several threads that report an end the first one is right.
  std::atomic<Phase> phase_ = Phase::pending;
  // A FlowEnd, or kNoEnd. Written after detail_.
  std::atomic<std::uint8_t> end_ = kNoEnd;
  std::string detail_;
  std::atomic<std::uint64_t> bytesSent_ = 0;
  std::atomic<std::uint64_t> bytesReceived_ = 0;
};

// The words of the control protocol.
std::string_view nameOf(platform::FlowRule rule);
std::string_view nameOf(platform::FlowEnd end);
std::string_view nameOf(FlowRecord::Action action);

// What the core does with a flow by this rule.
FlowRecord::Action actionOf(platform::FlowRule rule);

}  // namespace ostravel::linuxplatform
