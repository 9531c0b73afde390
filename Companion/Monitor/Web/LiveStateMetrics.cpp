// The metrics of LiveState.
#include <jansson.h>

#include <array>
#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "Companion/Monitor/Web/LiveState.h"
#include "Companion/Monitor/Web/PrometheusText.h"

namespace ostravel::companion {
namespace {

constexpr std::array kFailures = {FlowOutcome::refused,  FlowOutcome::invalidAnswer,
                                  FlowOutcome::timedOut, FlowOutcome::backlog,
                                  FlowOutcome::failed,   FlowOutcome::reset};

json_t* at(const json_t* object, const char* first, const char* second) {
  return json_object_get(json_object_get(object, first), second);
}

void single(PrometheusText& text, const char* name, const char* type, const char* help,
            const json_t* value) {
  if (json_is_number(value)) {
    text.single(name, type, help, json_number_value(value));
  }
}

void answerTimes(PrometheusText& text, const FlowCounters& counters) {
  text.begin("ostravel_handshake_duration_seconds", "histogram",
             "Time from the CONNECT request to the proxy's agreement.");
  std::uint64_t sum = 0;
  for (std::size_t index = 0; index < counters.answerBuckets.size(); ++index) {
    sum += counters.answerBuckets.at(index);
    const bool isLast = index == FlowCounters::kBounds.size();
    std::string bound = "+Inf";
    if (!isLast) {
      bound = std::to_string(FlowCounters::kBounds.at(index));
      bound.erase(bound.find_last_not_of('0') + 1);
      bound += bound.ends_with('.') ? "0" : "";
    }
    text.sample(static_cast<double>(sum), {{"le", bound}}, "_bucket");
  }
  text.sample(counters.answerSeconds, {}, "_sum");
  text.sample(static_cast<double>(counters.answers), {}, "_count");
}

void applications(PrometheusText& text, const FlowCounters& counters) {
  text.begin("ostravel_application_flows_total", "counter", "Flows by application.");
  for (const auto& [name, count] : counters.applications) {
    text.sample(static_cast<double>(count.flows), {{"application", name}});
  }
  text.begin("ostravel_application_flow_failures_total", "counter",
             "Flows that failed, by application.");
  for (const auto& [name, count] : counters.applications) {
    text.sample(static_cast<double>(count.failures), {{"application", name}});
  }
}

void outages(PrometheusText& text, const OutageLog& log, bool byApplication) {
  text.single("ostravel_proxy_outages_total", "counter",
              "Times in which the proxy hung or could not be reached.",
              static_cast<double>(log.total()));
  text.single("ostravel_proxy_outage", "gauge", "Proxies that are out of service now.",
              static_cast<double>(log.lastingCount()));
  text.single("ostravel_proxy_outage_direct_flows_total", "counter",
              "Flows that waited for a proxy that was out of service and then went direct.",
              static_cast<double>(log.totalWaited()));
  text.single("ostravel_proxy_outage_lost_flows_total", "counter",
              "Flows that an outage of the proxy has ended with an error.",
              static_cast<double>(log.totalLost()));
  const std::vector<const Outage*> newest = log.outages(1);
  if (newest.empty()) {
    return;
  }
  const Outage& last = *newest.front();
  text.single("ostravel_last_proxy_outage_begin_timestamp_seconds", "gauge",
              "When the last outage of the proxy began, since 1970.", last.begin);
  if (last.end) {
    text.single("ostravel_last_proxy_outage_end_timestamp_seconds", "gauge",
                "When it ended; missing while it lasts.", *last.end);
  }
  if (byApplication) {
    text.begin("ostravel_last_proxy_outage_flows", "gauge", "Flows that it hit, by application.");
    for (const auto& [name, count] : last.applications) {
      text.sample(static_cast<double>(count), {{"application", name}});
    }
  }
}

void verdictTimes(PrometheusText& text, const json_t* status) {
  const json_t* const times = at(status, "verdicts", "time");
  if (!json_is_object(times)) {
    return;
  }
  constexpr double kMicroseconds = 1e6;
  text.begin("ostravel_verdict_duration_seconds", "summary",
             "Time from reading a flow's first packet to the decision about it.");
  for (const auto& [quantile, key] :
       {std::pair{"0.5", "p50_us"}, std::pair{"0.9", "p90_us"}, std::pair{"0.99", "p99_us"}}) {
    const json_t* const value = json_object_get(times, key);
    text.sample(json_is_number(value) ? json_number_value(value) / kMicroseconds
                                      : std::numeric_limits<double>::quiet_NaN(),
                {{"quantile", quantile}});
  }
  text.sample(json_number_value(json_object_get(times, "sum_us")) / kMicroseconds, {}, "_sum");
  text.sample(json_number_value(json_object_get(times, "count")), {}, "_count");
}

void decisions(PrometheusText& text, const json_t* status) {
  text.begin(
      "ostravel_decisions_total", "counter",
      "Flows by the decision about them and its reason. Those to be proxied that went direct "
      "after waiting for the proxy are flow failures as well.");
  text.sample(json_number_value(at(status, "flows", "proxied")),
              {{"action", "proxied"}, {"reason", "proxied"}});
  text.sample(json_number_value(at(status, "flows", "refused")),
              {{"action", "refused"}, {"reason", "quic_refused"}});
  const char* reason = nullptr;
  json_t* count = nullptr;
  json_object_foreach(at(status, "flows", "direct_by_reason"), reason, count) {
    text.sample(json_number_value(count), {{"action", "direct"}, {"reason", reason}});
  }
}

void extension(PrometheusText& text, const json_t* status) {
  text.single("ostravel_proxying", "gauge", "Whether a new connection is proxied now.",
              json_is_true(at(status, "proxying", "active")) ? 1.0 : 0.0);
  single(text, "ostravel_flows_offered_total", "counter", "First packets that were examined.",
         at(status, "flows", "offered"));
  decisions(text, status);
  text.begin("ostravel_tunnel_bytes_total", "counter", "Bytes through tunnels.");
  text.sample(json_number_value(at(status, "tunnels", "bytes_sent")), {{"direction", "sent"}});
  text.sample(json_number_value(at(status, "tunnels", "bytes_received")),
              {{"direction", "received"}});
  verdictTimes(text, status);
  single(text, "ostravel_flows_held", "gauge", "First packets that wait for a verdict.",
         at(status, "flows", "held_now"));
  single(text, "ostravel_queue_dropped_packets_total", "counter",
         "Packets that found the netfilter queue full.", at(status, "queue", "dropped"));
  single(text, "ostravel_log_lines_lost_total", "counter", "Log lines that nobody read in time.",
         at(status, "log", "dropped_lines"));
  single(text, "ostravel_open_descriptors", "gauge", "Descriptors of the extension.",
         at(status, "descriptors", "open"));
  single(text, "ostravel_start_time_seconds", "gauge",
         "When the extension was started, since 1970.", at(status, "program", "started_at"));
}

}  // namespace

std::string LiveState::metrics(bool byApplication) const {
  const std::lock_guard lock(mutex_);
  PrometheusText text;
  text.single("ostravel_events_received_total", "counter", "Events from the extension.",
              static_cast<double>(events_));
  text.single("ostravel_malformed_frames_total", "counter",
              "Connections to the monitoring socket that brought no valid event.",
              static_cast<double>(malformed_));
  text.single("ostravel_flows_total", "counter", "Flows that the events have told of.",
              static_cast<double>(counters_.flows));
  text.begin("ostravel_flow_failures_total", "counter", "Flows that failed, by what came of them.");
  for (const FlowOutcome outcome : kFailures) {
    const auto count = counters_.failures.find(outcome);
    text.sample(count == counters_.failures.end() ? 0.0 : static_cast<double>(count->second),
                {{"outcome", outcomeName(outcome)}});
  }
  answerTimes(text, counters_);
  text.single("ostravel_tunnels", "gauge", "Established tunnels.",
              static_cast<double>(flows_.openCount()));
  text.single("ostravel_handshakes_pending", "gauge", "Handshakes that wait for the proxy.",
              static_cast<double>(flows_.liveCount() - flows_.openCount()));
  if (isReachable_) {
    text.single("ostravel_proxy_reachable", "gauge", "Whether the proxy accepts connections.",
                *isReachable_ ? 1.0 : 0.0);
  }
  outages(text, outages_, byApplication);
  if (byApplication) {
    applications(text, counters_);
  }
  if (!machines_.empty()) {
    text.single("ostravel_fleet_machines", "gauge", "Machines that have sent an event.",
                static_cast<double>(machines_.size()));
    text.single("ostravel_fleet_machines_direct", "gauge",
                "Machines whose new connections are known to go direct.",
                static_cast<double>(directMachines_.size()));
  }
  if (published_) {
    text.single("ostravel_publish_waiting_events", "gauge",
                "Events that the fleet's server has not acknowledged.",
                static_cast<double>(published_->waiting));
    text.single("ostravel_publish_dropped_events_total", "counter",
                "Events that had to be dropped, in the life of the spool.",
                static_cast<double>(published_->dropped));
  }
  text.single("ostravel_extension_up", "gauge",
              "Whether the extension answers on its control socket.", status_ ? 1.0 : 0.0);
  if (status_ || !machines_.empty()) {
    text.single("ostravel_events_lost_total", "counter",
                "Events that could not be delivered to the monitor.",
                static_cast<double>(lostEvents()));
  }
  if (status_) {
    extension(text, status_.get());
  }
  return text.text();
}

}  // namespace ostravel::companion
