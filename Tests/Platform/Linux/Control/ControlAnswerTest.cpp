#include "Platform/Linux/Control/ControlAnswer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;

std::string textOf(const JSONHandle& value) {
  const std::unique_ptr<char, decltype(&std::free)> text(
      json_dumps(value.get(), JSON_COMPACT | JSON_ENCODE_ANY), &std::free);
  return text ? text.get() : "";
}

TEST(ControlAnswerTest, IsOneLine) {
  EXPECT_EQ(answerLine(ControlRequest::Kind::status, JSONHandle(json_object())),
            R"({"version":1,"ok":true,"request":"status","result":{}})"
            "\n");
  EXPECT_EQ(errorLine({"busy", "later"}, std::nullopt),
            R"({"version":1,"ok":false,"error":{"code":"busy","message":"later"}})"
            "\n");
}

TEST(ControlAnswerTest, EscapesWhatIsNotUTF8) {
  EXPECT_EQ(textOf(jsonText("\xffname")), R"("\\xffname")");
}

TEST(ControlAnswerTest, DescribesAFlowThatWasLeftAlone) {
  FlowRecord::View flow;
  flow.sequence = 3;
  flow.time = 1.5;
  flow.isUDP = true;
  flow.destination = "[2001:db8::1]:443";
  flow.reason = "realtime_media";
  flow.outcome = "direct";
  flow.decided = 12us;
  EXPECT_EQ(textOf(jsonOf(flow)),
            R"({"sequence":3,"time":1.5,"protocol":"udp","application":"",)"
            R"("destination":"[2001:db8::1]:443","action":"direct","reason":"realtime_media",)"
            R"("outcome":"direct","steps_us":{"decided":12},"open":false})");
}

TEST(ControlAnswerTest, DescribesATunnel) {
  FlowRecord::View flow;
  flow.application = "/usr/bin/curl";
  flow.destination = "192.0.2.1:443";
  flow.user = 1000;
  flow.process = 4711;
  flow.action = FlowRecord::Action::proxied;
  flow.reason = "proxied";
  flow.outcome = "closed";
  flow.flowID = "ID";
  flow.detail = "eof";
  flow.host = "www.example.org";
  flow.connected = 100us;
  flow.established = 1600us;
  flow.ended = 5000us;
  flow.bytesSent = 7;
  EXPECT_EQ(textOf(jsonOf(flow)),
            R"({"sequence":0,"time":0.0,"protocol":"tcp","application":"/usr/bin/curl",)"
            R"("destination":"192.0.2.1:443","host":"www.example.org","user":1000,"pid":4711,)"
            R"("action":"proxied",)"
            R"("reason":"proxied","outcome":"closed","flow_id":"ID","detail":"eof",)"
            R"("steps_us":{"decided":0,"connected":100,"established":1600,"ended":5000},)"
            R"("handshake_ms":1.5,"bytes_sent":7,"bytes_received":0,"open":false})");
}

TEST(ControlAnswerTest, DescribesAHistogram) {
  DurationHistogram histogram;
  EXPECT_EQ(textOf(jsonOf(histogram.snapshot())), R"({"count":0,"sum_us":0,"buckets":[]})");
  histogram.record(5us);
  histogram.record(5us);
  histogram.record(8us);
  EXPECT_EQ(textOf(jsonOf(histogram.snapshot())),
            R"({"count":3,"sum_us":18,"p50_us":5,"p90_us":9,"p99_us":9,"max_us":9,)"
            R"("buckets":[[5,2],[9,1]]})");
}

}  // namespace
}  // namespace ostravel::linuxplatform
