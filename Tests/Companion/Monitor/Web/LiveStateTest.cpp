#include "Companion/Monitor/Web/LiveState.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <chrono>
#include <cstdlib>
#include <set>
#include <string>

#include "Base/JSONHandle.h"
#include "Tests/Companion/Events/EventMaker.h"

namespace ostravel::companion::test {
namespace {

using namespace std::chrono_literals;

JSONHandle parse(const std::string& text) {
  return JSONHandle(json_loads(text.c_str(), 0, nullptr));
}

std::string text(const json_t* object, const char* first, const char* second) {
  const char* const value =
      json_string_value(json_object_get(json_object_get(object, first), second));
  return value == nullptr ? "" : value;
}

class LiveStateTest : public ::testing::Test {
 protected:
  std::string sentence() const {
    return text(parse(state_.whole().json).get(), "sentence", "text");
  }
  std::string word() const { return text(parse(state_.whole().json).get(), "sentence", "state"); }

  LiveState state_;
};

TEST_F(LiveStateTest, DescribesTheStateInOneSentence) {
  EXPECT_EQ(sentence(), "No event has come from the extension yet.");
  ReceivedEvent start = proxyEvent("provider_started", 0.0);
  state_.receive(start);
  EXPECT_EQ(sentence(), "The extension has started; no connection has been proxied yet.");
  state_.receive(started("a"));
  state_.receive(succeeded("a", 1.0));
  EXPECT_EQ(sentence(), "New connections are proxied.");
  state_.receive(proxyEvent("proxy_unreachable", 2.0));
  EXPECT_EQ(sentence(), "The proxy does not answer; new connections go direct.");
  EXPECT_EQ(word(), "direct");
  state_.receive(proxyEvent("proxy_recovered", 3.0));
  state_.tick(kNoon + 60.0);
  EXPECT_EQ(word(), "proxied");
  state_.receive(proxyEvent("provider_stopped", 4.0));
  EXPECT_EQ(sentence(), "The extension has stopped; connections go direct.");
}

TEST_F(LiveStateTest, WarnsOfAProxyThatHangs) {
  state_.receive(started("a"));
  state_.receive(succeeded("a", 1.0));
  state_.receive(started("b", 2.0));
  state_.receive(timedOut("b", 7.0));
  state_.tick(kNoon + 8.0);
  EXPECT_EQ(word(), "warning");
  state_.receive(started("c", 9.0));
  state_.receive(succeeded("c", 10.0));
  state_.tick(kNoon + 30.0);
  EXPECT_EQ(word(), "proxied");
}

TEST_F(LiveStateTest, SaysThatTheProxyHangsDuringItsTrial) {
  state_.receive(started("a", 2.0));
  state_.receive(timedOut("a", 7.0));
  const JSONHandle status =
      parse(R"({"proxying":{"active":false,"message":"Nothing answers.","since":5},)"
            R"("flows":{"direct_by_reason":{"on_trial":3,"exempt_host":9}}})");
  state_.setStatus(status.get(), "");
  EXPECT_EQ(sentence(), "The proxy hangs: new connections go direct.");
  const JSONHandle later =
      parse(R"({"proxying":{"active":false,"message":"Nothing answers.","since":5},)"
            R"("flows":{"direct_by_reason":{"on_trial":5,"gate_closed":1,"exempt_host":20}}})");
  state_.setStatus(later.get(), "");
  const JSONHandle whole = parse(state_.whole().json);
  const json_t* const outage = json_array_get(json_object_get(whole.get(), "outages"), 0);
  const std::string text = json_string_value(json_object_get(outage, "text"));
  EXPECT_NE(text.find(" 3 others went direct at once. No connection was lost."), std::string::npos)
      << text;
}

TEST_F(LiveStateTest, KeepsTheMachinesOfAFleetApart) {
  const auto of = [](const std::string& host, ReceivedEvent event) {
    event.host = host;
    return event;
  };
  state_.receive(of("host-1", started("a")));
  state_.receive(of("host-1", succeeded("a", 1.0)));
  EXPECT_EQ(sentence(), "1 machine, with no proxy out of service.");
  EXPECT_EQ(word(), "proxied");
  state_.receive(of("host-2", proxyEvent("proxy_unreachable", 2.0)));
  EXPECT_EQ(sentence(), "2 machines, 1 of them without a proxy: connections go direct there.");
  state_.receive(of("host-2", proxyEvent("proxy_recovered", 3.0)));
  EXPECT_EQ(word(), "warning");
  state_.tick(kNoon + 60.0);
  EXPECT_EQ(sentence(), "2 machines, with no proxy out of service.");
  state_.countDropped(7);
  const JSONHandle whole = parse(state_.whole().json);
  EXPECT_EQ(json_integer_value(json_object_get(whole.get(), "machines")), 2);
  const json_t* const flow = json_array_get(json_object_get(whole.get(), "flows"), 0);
  EXPECT_STREQ(json_string_value(json_object_get(flow, "host")), "host-1");
  const json_t* const outage = json_array_get(json_object_get(whole.get(), "outages"), 0);
  EXPECT_STREQ(json_string_value(json_object_get(outage, "host")), "host-2");
  const json_t* const counts = json_object_get(whole.get(), "counts");
  EXPECT_EQ(json_integer_value(json_object_get(counts, "lost_events")), 7);
}

TEST_F(LiveStateTest, PrefersTheExtensionsAnswers) {
  const JSONHandle status = parse(
      R"({"proxying":{"active":false,"message":"New connections go direct: no proxy.","since":5},)"
      R"("events":{"failed":2,"dropped":3}})");
  state_.receive(started("a"));
  state_.receive(succeeded("a", 1.0));
  state_.setStatus(status.get(), "");
  EXPECT_EQ(sentence(), "New connections go direct: no proxy.");
  const JSONHandle whole = parse(state_.whole().json);
  EXPECT_EQ(
      json_integer_value(json_object_get(json_object_get(whole.get(), "counts"), "lost_events")),
      5);
  state_.setStatus(nullptr, "not running");
  EXPECT_EQ(sentence(), "New connections are proxied.");
  const JSONHandle without = parse(state_.whole().json);
  EXPECT_STREQ(json_string_value(json_object_get(without.get(), "problem")), "not running");
}

TEST_F(LiveStateTest, ReturnsChangesSinceARevision) {
  state_.receive(started("a"));
  const LiveState::Cursor before = state_.whole().cursor;
  EXPECT_FALSE(state_.changesSince(before, 0ms));
  state_.receive(started("b"));
  state_.tick(kNoon);
  const auto update = state_.changesSince(before, 0ms);
  ASSERT_TRUE(update);
  const JSONHandle json = parse(update->json);
  const json_t* const flows = json_object_get(json.get(), "flows");
  ASSERT_EQ(json_array_size(flows), 1U);
  EXPECT_STREQ(json_string_value(json_object_get(json_array_get(flows, 0), "id")), "b");
  EXPECT_EQ(json_array_size(json_object_get(json.get(), "samples")), 1U);
  EXPECT_FALSE(state_.changesSince(update->cursor, 0ms));
}

TEST_F(LiveStateTest, BoundsAnUpdateAndSendsTheRestWithTheNext) {
  LiveState::Cursor cursor = state_.whole().cursor;
  for (int number = 0; number < 2500; ++number) {
    state_.receive(started(std::to_string(number)));
  }
  std::set<std::string> seen;
  for (int count = 0; count < 3; ++count) {
    state_.tick(kNoon + count);
    const auto update = state_.changesSince(cursor, 0ms);
    ASSERT_TRUE(update);
    cursor = update->cursor;
    const JSONHandle json = parse(update->json);
    const json_t* const flows = json_object_get(json.get(), "flows");
    EXPECT_LE(json_array_size(flows), LiveState::kMostChanges);
    std::size_t index = 0;
    const json_t* flow = nullptr;
    json_array_foreach(flows, index, flow) {
      seen.insert(json_string_value(json_object_get(flow, "id")));
    }
  }
  EXPECT_EQ(seen.size(), 2500U);
}

TEST_F(LiveStateTest, ReturnsTheStepsOfAFlow) {
  state_.receive(started("a"));
  state_.receive(succeeded("a", 1.0));
  const JSONHandle flow = parse(state_.flow("a"));
  EXPECT_EQ(json_array_size(json_object_get(flow.get(), "events")), 2U);
  EXPECT_EQ(state_.flow("b"), "");
}

TEST_F(LiveStateTest, ShowsDecisionsAsRows) {
  const JSONHandle decisions = parse(
      R"([{"sequence":7,"time":5.5,"protocol":"tcp","application":"vpn","destination":"h:1",)"
      R"("action":"direct","reason":"exempt_application","outcome":"direct","steps_us":{"decided":40}},)"
      R"({"sequence":8,"time":6,"protocol":"tcp","application":"curl","destination":"h:2",)"
      R"("action":"proxied","reason":"proxied","outcome":"established","flow_id":"F",)"
      R"("handshake_ms":2.5,"bytes_sent":10,"bytes_received":20,"steps_us":{}},)"
      R"({"sequence":9,"time":6,"protocol":"udp","application":"","destination":"h:443",)"
      R"("action":"refused","reason":"quic_refused","outcome":"refused","steps_us":{}}])");
  state_.addDecisions(decisions.get());
  const JSONHandle whole = parse(state_.whole().json);
  const json_t* const rows = json_object_get(whole.get(), "flows");
  ASSERT_EQ(json_array_size(rows), 3U);
  const auto value = [rows](std::size_t row, const char* key) {
    const json_t* const found = json_object_get(json_array_get(rows, row), key);
    return json_is_string(found) ? std::string(json_string_value(found))
                                 : std::to_string(json_number_value(found));
  };
  EXPECT_EQ(value(0, "id"), "#7");
  EXPECT_EQ(value(0, "why"), "exempt_application");
  EXPECT_EQ(value(1, "id"), "F");
  EXPECT_EQ(value(1, "outcome"), "open");
  EXPECT_EQ(value(1, "answer"), "0.002500");
  EXPECT_EQ(value(1, "received"), "20.000000");
  EXPECT_EQ(value(2, "outcome"), "UDP refused");
}

TEST_F(LiveStateTest, CountsWhatWentDirectBecauseOfTheProxyAsHit) {
  state_.receive(started("a", 2.0));
  state_.receive(timedOut("a", 7.0));
  const std::string direct =
      R"("time":5,"protocol":"tcp","destination":"h:1","action":"direct","outcome":"direct",)";
  const JSONHandle decisions =
      parse("[{" + direct + R"("sequence":1,"application":"wget","reason":"on_trial"},{)" + direct +
            R"("sequence":2,"application":"vpn","reason":"exempt_application"},{)" + direct +
            R"("sequence":3,"application":"","reason":"handshake_share"}])");
  state_.addDecisions(decisions.get());
  // What is reported again is the same flow.
  state_.addDecisions(decisions.get());
  const JSONHandle whole = parse(state_.whole().json);
  const json_t* const outage = json_array_get(json_object_get(whole.get(), "outages"), 0);
  const json_t* const hit = json_object_get(outage, "applications");
  EXPECT_EQ(json_integer_value(json_object_get(hit, "wget")), 1);
  EXPECT_EQ(json_object_get(hit, "vpn"), nullptr);
}

TEST_F(LiveStateTest, CountsTheFirstDecisionsOfANewProcessAsHit) {
  state_.receive(started("a", 2.0));
  state_.receive(timedOut("a", 7.0));
  const JSONHandle decisions = parse(
      R"([{"sequence":1,"application":"wget","reason":"on_trial",)"
      R"("time":5,"protocol":"tcp","destination":"h:1","action":"direct","outcome":"direct"}])");
  state_.addDecisions(decisions.get());
  state_.restartDecisions();
  state_.addDecisions(decisions.get());
  state_.addDecisions(decisions.get());
  const JSONHandle whole = parse(state_.whole().json);
  const json_t* const outage = json_array_get(json_object_get(whole.get(), "outages"), 0);
  EXPECT_EQ(json_integer_value(json_object_get(json_object_get(outage, "applications"), "wget")),
            2);
  // With rows that the page tells apart.
  const json_t* const rows = json_object_get(whole.get(), "flows");
  EXPECT_STREQ(json_string_value(json_object_get(json_array_get(rows, 0), "id")), "#1");
  EXPECT_STREQ(json_string_value(json_object_get(json_array_get(rows, 1), "id")), "#2");
}

TEST_F(LiveStateTest, CountsAllThatANewProcessLeavesToTheSystem) {
  const auto report = [this](int start, int direct) {
    const JSONHandle status(json_pack("{s:{s:i}, s:{s:{s:i}}}", "program", "started_at", start,
                                      "flows", "direct_by_reason", "gate_closed", direct));
    state_.setStatus(status.get(), "");
  };
  const auto atOnce = [this] {
    const JSONHandle whole = parse(state_.whole().json);
    const json_t* const outage = json_array_get(json_object_get(whole.get(), "outages"), 0);
    const std::string text = json_string_value(json_object_get(outage, "text"));
    return std::atoi(text.substr(text.find("direct. ") + 8).c_str());
  };
  state_.receive(started("a", 2.0));
  state_.receive(timedOut("a", 7.0));
  // Before that, the monitor knows of nothing.
  report(100, 5);
  report(100, 7);
  EXPECT_EQ(atOnce(), 2);
  // Fewer and more than the old process.
  report(200, 3);
  EXPECT_EQ(atOnce(), 5);
  report(300, 10);
  EXPECT_EQ(atOnce(), 15);
}

TEST_F(LiveStateTest, SaysThatThereAreMoreMachinesThanItCounts) {
  ReceivedEvent event = proxyEvent("provider_started", 0.0);
  for (std::size_t number = 0; number < LiveState::kMostMachines; ++number) {
    event.host = "host-" + std::to_string(number);
    state_.receive(event);
  }
  state_.receive(event);
  EXPECT_EQ(sentence(), "200000 machines, with no proxy out of service.");
  // Not counted, and neither is its proxy; its outage is.
  event = proxyEvent("proxy_unreachable", 1.0);
  event.host = "one-too-many";
  state_.receive(event);
  EXPECT_EQ(sentence(),
            "More than 200000 machines, 1 of them with a proxy that does not serve all "
            "connections.");
  // One that is counted still is.
  event.host = "host-0";
  state_.receive(event);
  EXPECT_EQ(sentence(),
            "More than 200000 machines, 1 of them without a proxy: connections go direct there.");
}

TEST_F(LiveStateTest, KeepsTheLastDecisions) {
  std::uint64_t sequence = 0;
  for (int answer = 0; answer < 3; ++answer) {
    std::string json;
    for (int decision = 0; decision < 1000; ++decision) {
      json += std::string(json.empty() ? "[" : ",") +
              "{\"sequence\":" + std::to_string(++sequence) +
              R"(,"time":1,"protocol":"tcp","application":"a","destination":"h:1",)"
              R"("action":"direct","reason":"exempt_application","outcome":"direct"})";
    }
    state_.addDecisions(parse(json + "]").get());
  }
  const std::string whole = state_.whole().json;
  EXPECT_EQ(json_array_size(json_object_get(parse(whole).get(), "flows")),
            LiveState::kMostDecisions);
  EXPECT_EQ(whole.find("\"#1000\""), std::string::npos);
  EXPECT_NE(whole.find("\"#1001\""), std::string::npos);
}

TEST_F(LiveStateTest, MeasuresThroughputBetweenAnswers) {
  const auto answer = [this](double now, int sent) {
    const JSONHandle status(json_pack("{s:{s:f}, s:{s:i, s:i, s:i}}", "program", "now", now,
                                      "tunnels", "now", 4, "bytes_sent", sent, "bytes_received",
                                      0));
    state_.setStatus(status.get(), "");
    state_.tick(now);
    const JSONHandle whole = parse(state_.whole().json);
    const json_t* const samples = json_object_get(whole.get(), "samples");
    const json_t* const last = json_array_get(samples, json_array_size(samples) - 1);
    EXPECT_EQ(json_number_value(json_array_get(last, 2)), 4.0);
    const json_t* const value = json_array_get(last, 6);
    return json_is_null(value) ? -1.0 : json_number_value(value);
  };
  EXPECT_EQ(answer(10.0, 100), -1.0);
  EXPECT_EQ(answer(12.0, 500), 200.0);
  // The extension was restarted.
  EXPECT_EQ(answer(13.0, 5), -1.0);
  EXPECT_EQ(answer(14.0, 10), 5.0);
}

TEST_F(LiveStateTest, KeepsOneHour) {
  for (std::size_t second = 0; second < LiveState::kMostSamples + 10; ++second) {
    state_.tick(kNoon + static_cast<double>(second));
  }
  const JSONHandle whole = parse(state_.whole().json);
  EXPECT_EQ(json_array_size(json_object_get(whole.get(), "samples")), LiveState::kMostSamples);
}

}  // namespace
}  // namespace ostravel::companion::test
