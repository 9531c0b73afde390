#include "Companion/Events/FlowHistory.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Base/UTF8.h"
#include "Tests/Companion/Events/EventMaker.h"

namespace ostravel::companion::test {
namespace {

TEST(FlowHistory, RemembersAFlowByItsIdentifier) {
  FlowHistory flows;
  flows.apply(started("one"));
  flows.apply(started("two", 1.0, "example.net:80"));
  const FlowRecord* const record = flows.apply(succeeded("one", 2.0, "12.5"));

  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->destination, "example.org:443");
  EXPECT_EQ(record->application, "/usr/bin/curl");
  EXPECT_EQ(record->outcome, FlowOutcome::open);
  EXPECT_EQ(record->startedAt, kNoon);
  EXPECT_EQ(record->handshakeSeconds, 0.0125);
  EXPECT_EQ(record->endedAt, std::nullopt);
  EXPECT_EQ(flows.find("two")->destination, "example.net:80");
  EXPECT_EQ(flows.find("three"), nullptr);
}

TEST(FlowHistory, AnEventOfTheProviderBelongsToNoFlow) {
  FlowHistory flows;
  EXPECT_EQ(flows.apply(proxyEvent("proxy_unreachable", 0.0)), nullptr);
}

struct Course {
  std::vector<ReceivedEvent> events;
  FlowOutcome outcome;
  std::string reason;
};

TEST(FlowHistory, ReportsTheOutcomeOfAFlow) {
  ReceivedEvent backlog =
      flowEvent("f", "connect_handshake_rejected", 0.0, {{"pending_handshakes", "48"}}, "error");
  backlog.code = "extension.connect_handshake_backlog_exceeded";
  const ReceivedEvent start = started("f");
  for (const Course& course : std::vector<Course>{
           {{start}, FlowOutcome::connecting, ""},
           {{start, succeeded("f", 1.0)}, FlowOutcome::open, ""},
           {{start, succeeded("f", 1.0), closed("f", 2.0)}, FlowOutcome::closed, ""},
           {{start, succeeded("f", 1.0), closedWithError("f", 2.0)},
            FlowOutcome::reset,
            "Connection reset by peer"},
           {{start, refused("f", 1.0), closed("f", 1.0)},
            FlowOutcome::refused,
            "HTTP/1.1 403 Forbidden"},
           {{start, timedOut("f", 5.0), closedWithError("f", 5.0),
             flowEvent("f", "connect_handshake_read_failed", 5.0, {{"detail", "x"}}, "error")},
            FlowOutcome::timedOut,
            "Sentence"},
           {{start, closed("f", 1.0)},
            FlowOutcome::failed,
            "The proxy closed the connection without an answer"},
           {{closedWithError("f", 1.0, "Connection refused")},
            FlowOutcome::failed,
            "Connection refused"},
           {{start,
             flowEvent("f", "connect_handshake_write_failed", 1.0, {{"detail", "EPIPE"}}, "error"),
             closedWithError("f", 1.0)},
            FlowOutcome::failed,
            "EPIPE"},
           {{start, flowEvent("f", "connect_handshake_invalid", 1.0,
                              {{"reason", "connect_status_line_missing"}}, "error")},
            FlowOutcome::invalidAnswer,
            "connect_status_line_missing"},
           {{backlog}, FlowOutcome::backlog, "Sentence"}}) {
    FlowHistory flows;
    int failures = 0;
    for (const ReceivedEvent& event : course.events) {
      failures += flows.apply(event)->hasJustFailed ? 1 : 0;
    }
    const FlowRecord& flow = *flows.find("f");
    EXPECT_EQ(flow.outcome, course.outcome) << outcomeText(course.outcome);
    EXPECT_EQ(flow.reason, course.reason);
    EXPECT_EQ(failures, isFailure(course.outcome) ? 1 : 0) << outcomeText(course.outcome);
  }
}

TEST(FlowHistory, KeepsTheStepsOfAFlow) {
  FlowHistory flows;
  flows.apply(started("f"));
  flows.apply(succeeded("f", 1.0));
  flows.apply(closed("f", 2.0));
  const auto& steps = flows.find("f")->steps;
  ASSERT_EQ(steps.size(), 3U);
  EXPECT_EQ(steps[1].signal, "connect_handshake_succeeded");
  EXPECT_EQ(steps[1].timestamp, kNoon + 1.0);
  EXPECT_EQ(steps[1].detail, "elapsed_ms 1.5");
}

TEST(FlowHistory, ForgetsTheFlowThatChangedLongestAgo) {
  FlowHistory flows({.ended = 2, .live = 2});
  for (const char* id : {"a", "b", "c"}) {
    flows.apply(started(id));
    flows.apply(succeeded(id, 1.0));
  }
  EXPECT_EQ(flows.find("a"), nullptr);
  EXPECT_EQ(flows.openCount(), 2U);
  for (const char* id : {"d", "e", "f"}) {
    flows.apply(closed(id, 2.0));
  }
  EXPECT_EQ(flows.find("d"), nullptr);
  EXPECT_NE(flows.find("e"), nullptr);
  // A flow that is still open is not displaced by those that have ended.
  EXPECT_NE(flows.find("b"), nullptr);
  EXPECT_EQ(flows.liveCount(), 2U);
}

TEST(FlowHistory, ListsChangesSinceARevision) {
  FlowHistory flows;
  flows.apply(started("a"));
  flows.apply(started("b"));
  const std::uint64_t before = flows.revision();
  EXPECT_TRUE(flows.changedSince(before, 10).empty());
  flows.apply(started("c"));
  flows.apply(closed("a", 1.0));
  const auto changed = flows.changedSince(before, 10);
  ASSERT_EQ(changed.size(), 2U);
  EXPECT_EQ(changed[0]->id, "c");
  EXPECT_EQ(changed[1]->id, "a");
  EXPECT_EQ(flows.changedSince(0, 1).front()->id, "b");
}

TEST(FlowHistory, CutsLongTextsBetweenCharacters) {
  FlowHistory flows;
  std::string application;
  for (int count = 0; count < 100'000; ++count) {
    application += "ü";
  }
  ReceivedEvent event = started("f");
  event.appId = "x" + application;
  const FlowRecord* const flow = flows.apply(event);
  EXPECT_LE(flow->application.size(), FlowRecord::kLongestText + 8);
  EXPECT_TRUE(isWellFormedUTF8(flow->application));
}

TEST(FlowHistory, BoundsTheStepsOfAFlow) {
  FlowHistory flows;
  for (int count = 0; count < 1000; ++count) {
    flows.apply(started("f"));
  }
  EXPECT_EQ(flows.find("f")->steps.size(), FlowRecord::kMostSteps);
}

}  // namespace
}  // namespace ostravel::companion::test
