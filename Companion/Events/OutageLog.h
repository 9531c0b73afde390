#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Companion/Events/FlowHistory.h"
#include "Companion/Shared/TimeText.h"

namespace ostravel::companion {

// A period in which the proxy failed.
struct Outage {
  std::string host;             // whose proxy it is; empty for this machine's
  double begin = 0;             // seconds since 1970
  std::optional<double> end;    // absent while it lasts
  bool wasUnreachable = false;  // it did not accept connections
  std::uint64_t timedOut = 0;   // flows that it accepted and did not answer in time
  std::uint64_t backlog = 0;    // flows that exceeded the limit of pending handshakes
  std::uint64_t brokeOff = 0;   // flows whose connection to it failed
  std::uint64_t invalid = 0;    // flows with an invalid answer
  std::uint64_t reset = 0;      // tunnels that ended with an error meanwhile
  std::uint64_t atOnce = 0;     // flows that went direct without waiting for it, as far as known
  // Times that it answered in between, and for how long in all.
  std::uint64_t recoveries = 0;
  double recoveredSeconds = 0;
  // The flows above by application; of those that went direct at once only the ones whose
  // application is known. Bounded: further ones are counted under "others".
  std::map<std::string, std::uint64_t> applications;

  // Flows that waited for the proxy and then went direct.
  std::uint64_t waited() const { return timedOut + backlog + brokeOff; }
  std::uint64_t lost() const { return reset + invalid; }
};

// Groups the proxy's failures, so that users see one outage instead of a thousand failed flows. An
// outage begins with the start of the first flow that receives no answer, or when the proxy becomes
// unreachable. It ends with the proxy's first answer after the last failure, or when the proxy is
// reachable again, which is certain once nothing has failed for kQuietSeconds. A hung proxy is
// rarely tried, so silence proves nothing. Shorter recoveries are counted. A refusal is the proxy's
// decision and not a failure. Each machine of a fleet has its own outages. Used by one thread at a
// time.
class OutageLog {
 public:
  static constexpr double kQuietSeconds = 10.0;
  // The extension's next probe detects that the proxy has ended, after its tunnels have.
  static constexpr double kNoticeSeconds = 2.0;
  static constexpr std::size_t kMostOutages = 50;
  static constexpr std::size_t kMostLasting = 10'000;
  static constexpr std::size_t kMostApplications = 20;

  // Called when an outage begins and when it has ended.
  using Changed = std::function<void(const Outage&)>;
  explicit OutageLog(Changed changed = nullptr) : changed_(std::move(changed)) {}

  // Call it with the flow after each of its events.
  void add(const FlowRecord& flow);

  void setReachable(const std::string& host, bool isReachable, double now);

  // Flows of this machine that were left to the system because of the proxy.
  void countDirect(std::uint64_t flows);
  // One of these flows, whose application is known.
  void addDirect(const std::string& application);

  // Ends an outage when its quiet time is over. Call it periodically.
  void tick(double now);

  // The latest outages, oldest first. Valid until the next call of another function.
  std::vector<const Outage*> outages(std::size_t most = kMostOutages) const;
  // The current outage of this machine; null if there is none.
  const Outage* lasting() const;
  std::size_t lastingCount() const { return lasting_.size(); }

  // Since the beginning.
  std::uint64_t total() const { return total_; }
  std::uint64_t totalWaited() const { return totalWaited_; }
  std::uint64_t totalLost() const { return totalLost_; }

 private:
  struct Lasting {
    Outage outage;
    bool isReachable = true;
    double lastTrouble = 0;
    // The proxy's first answer since then.
    std::optional<double> answeredAt;
  };

  struct Reset {
    std::string host;
    std::string application;
    double time;
  };

  Lasting* find(const std::string& host);
  Lasting* current(const std::string& host, double begin, double now);
  void addTrouble(const FlowRecord& flow);
  void addReset(const FlowRecord& flow);
  void takeEarlierResets(Lasting& lasting, double now);

  Changed changed_;
  std::map<std::string, Lasting> lasting_;  // by host
  std::deque<Outage> ended_;
  // The latest failures, whose cause may be an outage that is detected later.
  std::deque<Reset> resets_;
  std::uint64_t total_ = 0;
  std::uint64_t totalWaited_ = 0;
  std::uint64_t totalLost_ = 0;
};

// "hung", "unreachable", "hung and unreachable" or "faulty".
std::string outageKind(const Outage& outage);

// A few short sentences: what happened, where the connections went, and whether any was lost.
std::string outageText(const Outage& outage);

// One line for a person, safe to print:
//
//   The proxy hung from 14:03:05.112 to 14:03:27.410 (22.3 s). It accepted connections but did not
//   answer. 4 connections waited for it and then went direct: /usr/bin/curl (3), /usr/bin/wget (1).
//   No connection was lost.
std::string outageLine(const Outage& outage, TimeStyle time);

}  // namespace ostravel::companion
