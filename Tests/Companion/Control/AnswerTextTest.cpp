#include "Companion/Control/AnswerText.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>

#include "Base/JSONHandle.h"

namespace ostravel::companion {
namespace {

JSONHandle parsed(const std::string& text) {
  return JSONHandle(json_loads(text.c_str(), 0, nullptr));
}

const std::string kStatus = R"({
  "program": {"version": "0.1.0", "pid": 7, "started_at": 1763271000.0, "now": 1763271815.0},
  "proxying": {"active": false, "reason": "proxy_unreachable", "since": 1763271805.0,
               "message": "New connections go direct: nothing answers on 127.0.0.1:8080."},
  "proxy": {"address": "127.0.0.1:8080", "serves": false, "reason": "/usr/sbin/nginx (process 4711, user www-data) listens on port 8080 and does not answer CONNECT as a proxy does: HTTP/1.1 405 Not Allowed"},
  "gate": {"state": "closed", "since": 1763271805.0, "last_probe": {"at": 1763271814.5, "reachable": false}},
  "flows": {"offered": 123456, "direct": 100000, "refused": 456, "proxied": 23000, "held_now": 3,
            "direct_by_reason": {"gate_closed": 70000, "exempt_application": 20000, "exempt_host": 9000,
                                 "handshake_share": 900, "on_trial": 90, "proxy_not_trusted": 10}},
  "handshakes": {"pending_now": 2, "limit": 48,
                 "outcomes": {"established": 22000, "timed_out": 5, "rejected": 0},
                 "time": {"count": 22000, "sum_us": 1, "p50_us": 3327, "p90_us": 4095, "p99_us": 1310719}},
  "tunnels": {"now": 4, "total": 22000, "bytes_sent": 1048576, "bytes_received": 5368709120},
  "verdicts": {"time": {"count": 1, "sum_us": 1, "p50_us": 80, "p90_us": 95, "p99_us": 319}},
  "queue": {"waiting": 0, "dropped": 0, "user_dropped": 0},
  "identifiers": {"registrations": 2, "processes": 31}, "names": {"use": "connect", "known": 17}, "guardian": "running",
  "log": {"dropped_lines": 0}, "descriptors": {"open": 40, "limit": 524288},
  "events": {"configured": true, "emitted": 88000, "failed": 1, "dropped": 2, "waiting_bytes": 0}
})";

TEST(AnswerTextTest, SaysFirstWhetherConnectionsAreProxied) {
  const auto text = statusText(parsed(kStatus).get());
  EXPECT_EQ(text.substr(0, text.find('\n')),
            "New connections go direct: nothing answers on 127.0.0.1:8080.");
}

TEST(AnswerTextTest, FitsOnAScreen) {
  std::istringstream lines(statusText(parsed(kStatus).get()));
  std::size_t count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    EXPECT_LE(line.size(), 80U) << line;
    EXPECT_FALSE(line.ends_with(' ')) << line;
  }
  EXPECT_LE(count, 24U);
}

TEST(AnswerTextTest, ShowsWhatIsKnown) {
  const auto text = statusText(parsed(kStatus).get());
  for (const auto* part :
       {"70000 gate_closed, 20000 exempt_application", "5 timed_out", "half within 3.3 ms",
        "received 5.0 GiB", "1 not delivered, 2 dropped", "none on 127.0.0.1:8080: /usr/sbin/nginx",
        "17 known, used to decide and to ask the proxy",
        "2 registrations; 31 recent senders identified"}) {
    EXPECT_NE(text.find(part), std::string::npos) << part;
  }
  EXPECT_EQ(text.find("rejected"), std::string::npos);
}

TEST(AnswerTextTest, CountsFlowsThatWaitedForTheProxyAsDirect) {
  EXPECT_NE(statusText(parsed(kStatus).get()).find("23000 proxied, 100000 direct, 456 refused"),
            std::string::npos);
  const auto text = statusText(parsed(R"({"flows":{"offered":10,"direct":3,"refused":1,
      "proxied":6,"direct_in_the_end":4,"held_now":0}})")
                                   .get());
  EXPECT_NE(text.find("10 examined: 2 proxied, 7 direct (4 after waiting for the proxy),\n"
                      "             1 refused;"),
            std::string::npos)
      << text;
  // While its decision is being counted.
  EXPECT_NE(statusText(parsed(R"({"flows":{"direct_in_the_end":1}})").get()).find(" 0 proxied, 1"),
            std::string::npos);
}

TEST(AnswerTextTest, SaysWhyThereAreNoNames) {
  EXPECT_NE(statusText(parsed(R"({"names":{"use":"off"}})").get()).find("(--names off)"),
            std::string::npos);
  EXPECT_NE(statusText(parsed(R"({"names":{"use":"decide"}})").get()).find("cannot be observed"),
            std::string::npos);
  EXPECT_NE(statusText(parsed(R"({"names":{"use":"decide","known":3}})").get())
                .find("3 known, used to decide\n"),
            std::string::npos);
}

TEST(AnswerTextTest, WorksWithoutAnyMember) {
  EXPECT_FALSE(statusText(parsed("{}").get()).empty());
  EXPECT_FALSE(flowText(parsed("{}").get()).empty());
  EXPECT_FALSE(explanationText(parsed("{}").get()).empty());
}

TEST(AnswerTextTest, ShowsAFlowOnOneLine) {
  const auto line =
      flowText(parsed(R"({"time":1763271815.5,"protocol":"tcp","application":"/usr/bin/curl",
                 "destination":"192.0.2.1:443","reason":"proxied","outcome":"rejected",
                 "detail":"HTTP/1.1 403 Forbidden","bytes_sent":0,"bytes_received":0})")
                   .get());
  EXPECT_EQ(
      line.substr(line.find(' ')),
      " rejected    /usr/bin/curl              192.0.2.1:443          (HTTP/1.1 403 Forbidden)");
}

TEST(AnswerTextTest, FitsAFlowIntoTheTerminal) {
  const JSONHandle flow = parsed(R"({"time":1763271815.5,"protocol":"tcp",
      "application":"/opt/browser/lib/browser-main","destination":"[2001:db8:1:2:3:4:5:6]:443",
      "reason":"gate_closed","outcome":"direct"})");
  const auto onTerminal = [&flow](std::size_t width) {
    const std::string line = flowText(flow.get(), {.time = TimeStyle::timeOfDay, .width = width});
    return line.substr(line.find(' '));
  };
  EXPECT_EQ(onTerminal(120),
            " direct      /opt/browser/lib/browser-main [2001:db8:1:2:3:4:5:6]:443 gate_closed");
  EXPECT_EQ(onTerminal(80),
            " direct      browser-main               …:db8:1:2:3:4:5:6]:443 gate_clo…");
  EXPECT_EQ(onTerminal(40), " direct      browser… …:db8:1:2…");
}

TEST(AnswerTextTest, ShowsDateAndZoneOnRequest) {
  const auto line = flowText(parsed(R"({"time":1763271815.5})").get(), {.time = TimeStyle::utc});
  EXPECT_EQ(line.substr(0, line.find(' ')), "2025-11-16T05:43:35.500Z");
}

TEST(AnswerTextTest, ShowsAddressAndName) {
  const auto line = flowText(parsed(R"({"application":"/a","destination":"192.0.2.1:443",
      "host":"www.example.org","reason":"proxied","outcome":"established"})")
                                 .get());
  EXPECT_NE(line.find(" /a                         192.0.2.1:443          (www.example.org)"),
            std::string::npos)
      << line;
}

TEST(AnswerTextTest, NamesTheReasonOfADirectFlow) {
  const auto line = flowText(parsed(R"({"protocol":"udp","application":"","outcome":"direct",
      "destination":"[2001:db8::1]:443","reason":"gate_closed"})")
                                 .get());
  EXPECT_NE(line.find("(unknown)                  [2001:db8::1]:443      udp gate_closed"),
            std::string::npos);
}

TEST(AnswerTextTest, SaysThatAFlowWentDirectAfterWaiting) {
  const auto lineWith = [](const std::string& outcome) {
    return flowText(parsed(R"({"application":"/a","destination":"192.0.2.1:443",
        "reason":"proxied","outcome":")" +
                           outcome + "\"}")
                        .get());
  };
  for (const char* const outcome :
       {"timed_out", "backlog", "request_failed", "connection_failed"}) {
    EXPECT_TRUE(lineWith(outcome).ends_with(" went direct")) << outcome;
  }
  for (const char* const outcome : {"closed", "failed", "rejected", "no_answer", "established"}) {
    EXPECT_FALSE(lineWith(outcome).ends_with(" went direct")) << outcome;
  }
}

TEST(AnswerTextTest, LetsNothingDisturbTheTerminal) {
  const auto line = flowText(parsed(R"({"application":"a\u001b[2Jb","detail":"x\ny"})").get());
  EXPECT_EQ(line.find('\x1b'), std::string::npos);
  EXPECT_EQ(line.find('\n'), std::string::npos);
}

TEST(AnswerTextTest, ExplainsRuleByRule) {
  EXPECT_EQ(explanationText(parsed(R"({"action":"direct","reason":"gate_closed","application":"/a",
                           "application_from":"path","rules":[
                             {"rule":"port","decides":false,"message":"It is intercepted."},
                             {"rule":"gate","decides":true,"message":"It is closed."}]})")
                                .get()),
            "application    /a, from its path\n"
            "port           It is intercepted.\n"
            "gate        => It is closed.\n"
            "direct (gate_closed)\n");
}

TEST(AnswerTextTest, SaysOnceThatAFlowIsProxied) {
  EXPECT_EQ(explanationText(parsed(R"({"action":"proxied","reason":"proxied"})").get()),
            "proxied\n");
}

TEST(AnswerTextTest, WritesReadableQuantities) {
  EXPECT_EQ(bytesText(0), "0 B");
  EXPECT_EQ(bytesText(1023), "1023 B");
  EXPECT_EQ(bytesText(1536), "1.5 KiB");
  EXPECT_EQ(microsecondsText(90), "90 µs");
  EXPECT_EQ(microsecondsText(3250), "3.2 ms");
  EXPECT_EQ(microsecondsText(2'500'000), "2.5 s");
  EXPECT_EQ(spanText(-1), "0.0 s");
  EXPECT_EQ(spanText(61), "61 s");
  EXPECT_EQ(spanText(600), "10 min");
  EXPECT_EQ(spanText(86400), "24 h");
  EXPECT_EQ(spanText(864000), "10 d");
}

}  // namespace
}  // namespace ostravel::companion
