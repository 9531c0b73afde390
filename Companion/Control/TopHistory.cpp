#include "Companion/Control/TopHistory.h"

#include <algorithm>
#include <array>
#include <map>
#include <string_view>
#include <tuple>
#include <utility>

#include "Companion/Control/AnswerText.h"

namespace ostravel::companion {
namespace {

bool isFailure(const std::string& outcome) {
  constexpr std::array<std::string_view, 9> kFailures{
      "failed",    "rejected",       "invalid",           "timed_out", "backlog",
      "no_answer", "request_failed", "connection_failed", "abandoned"};
  return std::ranges::find(kFailures, outcome) != kFailures.end();
}

}  // namespace

void TopHistory::add(const json_t* status, const json_t* tunnels, const json_t* decisions) {
  addSample(status);
  std::map<std::string, Application> byName;
  std::map<std::string, std::size_t> handshakes;
  std::size_t index = 0;
  json_t* flow = nullptr;
  json_array_foreach(memberOf(tunnels, "tunnels"), index, flow) {
    Application& application = byName[textOf(flow, "application")];
    ++(textOf(flow, "outcome") == "pending" ? application.pending : application.tunnels);
    application.sent += numberOf(flow, "bytes_sent").value_or(0);
    application.received += numberOf(flow, "bytes_received").value_or(0);
  }
  json_array_foreach(memberOf(decisions, "decisions"), index, flow) {
    const std::string name = textOf(flow, "application");
    Application& application = byName[name];
    ++application.flows;
    application.failures += isFailure(textOf(flow, "outcome")) ? 1 : 0;
    if (const auto handshake = numberOf(flow, "handshake_ms")) {
      application.handshakeMilliseconds += *handshake;
      ++handshakes[name];
    }
  }
  applications_.clear();
  for (auto& [name, application] : byName) {
    application.name = name.empty() ? "(unknown)" : name;
    if (const std::size_t count = handshakes[name]; count > 0) {
      application.handshakeMilliseconds /= static_cast<double>(count);
    }
    applications_.push_back(std::move(application));
  }
  std::ranges::sort(applications_, [](const Application& left, const Application& right) {
    return std::tuple(right.tunnels + right.pending, right.flows, left.name) <
           std::tuple(left.tunnels + left.pending, left.flows, right.name);
  });
}

JSONHandle TopHistory::latest() const {
  const Sample sample = samples_.empty() ? Sample() : samples_.back();
  JSONHandle result(json_object());
  const auto set = [](json_t* object, const char* name, double number) {
    json_object_set_new(object, name, json_real(number));
  };
  const auto setCount = [](json_t* object, const char* name, double count) {
    json_object_set_new(object, name, json_integer(static_cast<json_int_t>(count)));
  };
  set(result.get(), "time", lastTime_);
  json_object_set_new(result.get(), "active", json_boolean(isProxying_));
  json_object_set_new(result.get(), "message", json_string(message_.c_str()));
  json_object_set_new(result.get(), "gate", json_string(sample.gate > 0 ? "open" : "closed"));
  setCount(result.get(), "pending", sample.pending);
  setCount(result.get(), "tunnels", sample.tunnels);
  set(result.get(), "bytes_per_second", sample.bytesPerSecond);
  set(result.get(), "handshake_ms", sample.handshakeMicroseconds / 1000);
  json_t* const applications = json_array();
  json_object_set_new(result.get(), "applications", applications);
  for (const Application& each : applications_) {
    json_t* const application = json_object();
    json_object_set_new(application, "application", json_string(each.name.c_str()));
    setCount(application, "tunnels", static_cast<double>(each.tunnels));
    setCount(application, "pending", static_cast<double>(each.pending));
    setCount(application, "bytes_sent", each.sent);
    setCount(application, "bytes_received", each.received);
    set(application, "handshake_ms", each.handshakeMilliseconds);
    setCount(application, "flows", static_cast<double>(each.flows));
    setCount(application, "failures", static_cast<double>(each.failures));
    json_array_append_new(applications, application);
  }
  return result;
}

void TopHistory::addSample(const json_t* status) {
  message_ = textOf(status, "proxying.message");
  isProxying_ = json_is_true(memberOf(status, "proxying.active"));
  const double time = numberOf(status, "program.now").value_or(0);
  const double bytes = numberOf(status, "tunnels.bytes_sent").value_or(0) +
                       numberOf(status, "tunnels.bytes_received").value_or(0);
  const double handshakes = numberOf(status, "handshakes.time.count").value_or(0);
  const double handshakeTime = numberOf(status, "handshakes.time.sum_us").value_or(0);
  Sample sample{.gate = textOf(status, "gate.state") == "open" ? 1.0 : 0.0,
                .pending = numberOf(status, "handshakes.pending_now").value_or(0),
                .tunnels = numberOf(status, "tunnels.now").value_or(0)};
  // Smaller counts than before come from a new process, whose counts begin at 0.
  const bool isContinued = lastTime_ > 0 && time > lastTime_ && bytes >= lastBytes_;
  if (isContinued) {
    sample.bytesPerSecond = (bytes - lastBytes_) / (time - lastTime_);
  }
  if (isContinued && handshakes > lastHandshakes_) {
    sample.handshakeMicroseconds =
        (handshakeTime - lastHandshakeTime_) / (handshakes - lastHandshakes_);
  }
  lastTime_ = time;
  lastBytes_ = bytes;
  lastHandshakes_ = handshakes;
  lastHandshakeTime_ = handshakeTime;
  samples_.push_back(sample);
  if (samples_.size() > kKeptSamples) {
    samples_.pop_front();
  }
}

}  // namespace ostravel::companion
