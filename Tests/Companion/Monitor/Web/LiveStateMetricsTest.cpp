#include <gtest/gtest.h>
#include <jansson.h>

#include <string>

#include "Base/JSONHandle.h"
#include "Companion/Monitor/Web/LiveState.h"
#include "Tests/Companion/Events/EventMaker.h"

namespace ostravel::companion::test {
namespace {

class LiveStateMetricsTest : public ::testing::Test {
 protected:
  // The value of a sample, as it is written; empty if there is none.
  std::string value(const std::string& sample, bool byApplication = false) const {
    const std::string text = "\n" + state_.metrics(byApplication);
    const std::size_t at = text.find("\n" + sample + " ");
    if (at == std::string::npos) {
      return "";
    }
    const std::size_t begin = at + sample.size() + 2;
    return text.substr(begin, text.find('\n', begin) - begin);
  }

  LiveState state_;
};

TEST_F(LiveStateMetricsTest, CountsEvents) {
  for (const ReceivedEvent& event :
       {started("a"), succeeded("a", 1.0, "4"), closed("a", 2.0), started("b"), refused("b", 1.0),
        started("c"), timedOut("c", 5.0), closedWithError("c", 5.0), started("d"),
        succeeded("d", 1.0, "30"), started("e")}) {
    state_.receive(event);
  }
  state_.countMalformedFrame();
  EXPECT_EQ(value("ostravel_events_received_total"), "11");
  EXPECT_EQ(value("ostravel_malformed_frames_total"), "1");
  EXPECT_EQ(value("ostravel_flows_total"), "5");
  EXPECT_EQ(value("ostravel_flow_failures_total{outcome=\"refused\"}"), "1");
  EXPECT_EQ(value("ostravel_flow_failures_total{outcome=\"timed_out\"}"), "1");
  EXPECT_EQ(value("ostravel_flow_failures_total{outcome=\"reset\"}"), "0");
  EXPECT_EQ(value("ostravel_handshake_duration_seconds_bucket{le=\"0.0025\"}"), "0");
  EXPECT_EQ(value("ostravel_handshake_duration_seconds_bucket{le=\"0.005\"}"), "1");
  EXPECT_EQ(value("ostravel_handshake_duration_seconds_bucket{le=\"+Inf\"}"), "2");
  EXPECT_EQ(value("ostravel_handshake_duration_seconds_count"), "2");
  EXPECT_EQ(value("ostravel_handshake_duration_seconds_sum"), "0.034");
  EXPECT_EQ(value("ostravel_tunnels"), "1");
  EXPECT_EQ(value("ostravel_proxy_reachable"), "1");
  EXPECT_EQ(value("ostravel_proxy_outages_total"), "1");
  EXPECT_EQ(value("ostravel_extension_up"), "0");
  EXPECT_EQ(value("ostravel_events_lost_total"), "");
}

TEST_F(LiveStateMetricsTest, ReportsWhenTheProxyHungAndWhatItHit) {
  const std::string curl = "ostravel_last_proxy_outage_flows{application=\"/usr/bin/curl\"}";
  const std::string begin = "ostravel_last_proxy_outage_begin_timestamp_seconds";
  EXPECT_EQ(value(begin), "");
  for (const ReceivedEvent& event :
       {started("a"), succeeded("a", 1.0), started("b", 2.0), timedOut("b", 7.0),
        closedWithError("a", 8.0), started("c", 8.0), succeeded("c", 9.0)}) {
    state_.receive(event);
  }
  EXPECT_EQ(value("ostravel_proxy_outage"), "1");
  EXPECT_EQ(value("ostravel_last_proxy_outage_end_timestamp_seconds"), "");
  state_.tick(kNoon + 60.0);
  EXPECT_EQ(value("ostravel_proxy_outage"), "0");
  EXPECT_EQ(std::stod(value(begin)), kNoon + 2.0);
  EXPECT_EQ(std::stod(value("ostravel_last_proxy_outage_end_timestamp_seconds")), kNoon + 9.0);
  EXPECT_EQ(value("ostravel_proxy_outage_direct_flows_total"), "1");
  EXPECT_EQ(value("ostravel_proxy_outage_lost_flows_total"), "1");
  EXPECT_EQ(value(curl), "");
  EXPECT_EQ(value(curl, true), "2");
}

TEST_F(LiveStateMetricsTest, CountsTheFleet) {
  EXPECT_EQ(value("ostravel_fleet_machines"), "");
  EXPECT_EQ(value("ostravel_publish_waiting_events"), "");
  ReceivedEvent event = proxyEvent("proxy_unreachable", 0.0);
  event.host = "host-1";
  state_.receive(event);
  state_.setPublished(3, 4);
  state_.countDropped(5);
  EXPECT_EQ(value("ostravel_fleet_machines"), "1");
  EXPECT_EQ(value("ostravel_fleet_machines_direct"), "1");
  EXPECT_EQ(value("ostravel_events_lost_total"), "5");
  EXPECT_EQ(value("ostravel_publish_waiting_events"), "3");
  EXPECT_EQ(value("ostravel_publish_dropped_events_total"), "4");
}

TEST_F(LiveStateMetricsTest, AddsTheExtensionsAnswers) {
  const JSONHandle status(json_loads(
      R"({"proxying":{"active":true},"flows":{"offered":9,"proxied":3,"refused":1,)"
      R"("direct_by_reason":{"exempt_host":5}},"tunnels":{"bytes_sent":10,"bytes_received":20},)"
      R"("verdicts":{"time":{"count":2,"sum_us":100,"p50_us":50,"p90_us":50,"p99_us":50}},)"
      R"("events":{"failed":1,"dropped":1}})",
      0, nullptr));
  state_.setStatus(status.get(), "");
  EXPECT_EQ(value("ostravel_extension_up"), "1");
  EXPECT_EQ(value("ostravel_proxying"), "1");
  EXPECT_EQ(value("ostravel_decisions_total{action=\"direct\",reason=\"exempt_host\"}"), "5");
  EXPECT_EQ(value("ostravel_tunnel_bytes_total{direction=\"received\"}"), "20");
  EXPECT_EQ(value("ostravel_verdict_duration_seconds{quantile=\"0.5\"}"), "5e-05");
  EXPECT_EQ(value("ostravel_events_lost_total"), "2");
}

TEST_F(LiveStateMetricsTest, LabelsApplicationsOnlyWhenAsked) {
  for (int number = 0; number < 500; ++number) {
    ReceivedEvent event = started(std::to_string(number));
    event.appId = "application " + std::to_string(number);
    state_.receive(event);
  }
  EXPECT_EQ(value("ostravel_application_flows_total{application=\"application 0\"}"), "");
  EXPECT_EQ(value("ostravel_application_flows_total{application=\"application 0\"}", true), "1");
  EXPECT_EQ(value("ostravel_application_flows_total{application=\"others\"}", true), "400");
}

}  // namespace
}  // namespace ostravel::companion::test
