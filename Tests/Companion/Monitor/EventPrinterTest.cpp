#include "Companion/Monitor/EventPrinter.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "Tests/Companion/Events/EventMaker.h"

namespace ostravel::companion::test {
namespace {

// The flow that each printed event belongs to.
std::vector<std::string> printed(EventFilter filter, const std::vector<ReceivedEvent>& events) {
  std::vector<std::string> flows;
  EventPrinter printer(
      {.asJSON = true, .filter = std::move(filter)}, [&flows](std::string_view line) {
        const std::string_view rest = line.substr(std::string("{\"flow_id\":\"").size());
        flows.emplace_back(rest.substr(0, rest.find('"')));
      });
  for (const ReceivedEvent& event : events) {
    printer.print(event);
  }
  return flows;
}

using Flows = std::vector<std::string>;

ReceivedEvent of(const std::string& application, ReceivedEvent event) {
  event.appId = application;
  return event;
}

TEST(EventPrinter, ShowsEveryEventByDefault) {
  EXPECT_EQ(printed({}, {started("a"), proxyEvent("proxy_recovered", 0.0), closed("a", 1.0)}),
            (Flows{"a", "", "a"}));
}

TEST(EventPrinter, FollowsAnApplicationWhereItIsNotNamed) {
  EXPECT_EQ(printed({.applications = {"FIREFOX", "wget"}},
                    {of("/usr/lib/firefox/firefox", started("a")), started("b"),
                     of("", closedWithError("a", 1.0)), of("", closed("b", 1.0)),
                     proxyEvent("proxy_unreachable", 0.0), of("/usr/bin/wget", started("c"))}),
            (Flows{"a", "a", "", "c"}));
}

TEST(EventPrinter, FollowsAHost) {
  EXPECT_EQ(
      printed({.hosts = {"example.net"}}, {started("a"), started("b", 0.0, "www.example.net:443"),
                                           succeeded("a", 1.0), succeeded("b", 1.0)}),
      (Flows{"b", "b"}));
}

TEST(EventPrinter, ShowsEachFailureOnce) {
  EXPECT_EQ(printed({.onlyFailures = true},
                    {started("a"), refused("a", 1.0), closed("a", 1.0), started("b"),
                     timedOut("b", 5.0), closedWithError("b", 5.0), started("c"),
                     succeeded("c", 1.0), closed("c", 2.0), proxyEvent("proxy_unreachable", 3.0),
                     proxyEvent("proxy_recovered", 4.0), started("d"), closed("d", 1.0)}),
            (Flows{"a", "b", "", "d"}));
}

TEST(EventPrinter, SumsUpTheFlowsThatItShows) {
  EventPrinter printer({.filter = {.hosts = {"example.org"}, .onlyFailures = true}},
                       [](std::string_view) {});
  for (const ReceivedEvent& event :
       {started("a"), refused("a", 0.2), closed("a", 0.2), started("b"), succeeded("b", 1.0, "318"),
        closed("b", 2.0), started("c", 0.0, "other.example:80"), closed("c", 0.5), started("d"),
        timedOut("d", 5.0), closedWithError("d", 5.0)}) {
    printer.print(event);
  }
  EXPECT_EQ(printer.summary().text(),
            "3 flows, 2 failed (1 refused, 1 timed out), slowest 5.00 s: /usr/bin/curl to "
            "example.org:443");
}

TEST(EventPrinter, SumsUpWithoutAnyFlow) {
  EventPrinter printer({}, [](std::string_view) {});
  EXPECT_EQ(printer.summary().text(), "0 flows, none failed");
}

TEST(EventPrinter, ReportsWhenTheProxyHungAndWhatItHit) {
  std::vector<std::string> lines;
  EventPrinter printer({.filter = {.onlyFailures = true},
                        .style = [] { return EventLineStyle{.time = TimeStyle::utc}; }},
                       [&lines](std::string_view line) { lines.emplace_back(line); });
  printer.print(started("a"));
  printer.print(timedOut("a", 5.0));
  printer.print(closedWithError("a", 5.0));
  printer.print(started("b", 6.0));
  printer.print(succeeded("b", 7.0));
  printer.tick(kNoon + 15.0);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_TRUE(lines[0].find(" timed out ") != std::string::npos) << lines[0];
  EXPECT_EQ(lines[1],
            "2025-11-16T12:00:05.000Z error The proxy hangs, since 2025-11-16T12:00:00.000Z: new "
            "connections go direct.");
  const std::string told =
      "The proxy hung from 2025-11-16T12:00:00.000Z to 2025-11-16T12:00:07.000Z (7.00 s). It "
      "accepted connections but did not answer. 1 connection waited for it and then went direct: "
      "/usr/bin/curl (1). No connection was lost.";
  EXPECT_EQ(lines[2], "2025-11-16T12:00:15.000Z info  " + told);
  EXPECT_EQ(printer.outages(), std::vector<std::string>{told});
}

TEST(EventPrinter, NamesTheMachineOfAnOutage) {
  std::vector<std::string> lines;
  EventPrinter printer({}, [&lines](std::string_view line) { lines.emplace_back(line); });
  ReceivedEvent unreachable = proxyEvent("proxy_unreachable", 0.0);
  unreachable.host = "host-1";
  printer.print(unreachable);
  ReceivedEvent recovered = proxyEvent("proxy_recovered", 1.0);
  recovered.host = "host-1";
  printer.print(recovered);
  printer.tick(kNoon + 20.0);
  // The events themselves, and the end of the outage.
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_TRUE(lines[2].starts_with("host-1           ")) << lines[2];
  EXPECT_NE(lines[2].find("The proxy could not be reached from "), std::string::npos);
  EXPECT_TRUE(printer.outages().front().starts_with("host-1: The proxy "));
}

TEST(EventPrinter, AddsNothingToJSON) {
  int lines = 0;
  EventPrinter printer({.asJSON = true}, [&lines](std::string_view) { ++lines; });
  printer.print(started("a"));
  printer.print(timedOut("a", 5.0));
  printer.tick(kNoon + 60.0);
  EXPECT_EQ(lines, 2);
  EXPECT_EQ(printer.outages().size(), 1U);
}

TEST(EventPrinter, WritesReadableLines) {
  std::string line;
  EventPrinter printer({.style = [] { return EventLineStyle{.time = TimeStyle::utc}; }},
                       [&line](std::string_view text) { line = text; });
  printer.print(started("a"));
  EXPECT_TRUE(line.starts_with("2025-11-16T12:00:00.000Z info  a        connecting ")) << line;
}

}  // namespace
}  // namespace ostravel::companion::test
