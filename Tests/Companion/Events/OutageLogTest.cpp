#include "Companion/Events/OutageLog.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "Companion/Events/FlowHistory.h"
#include "Tests/Companion/Events/EventMaker.h"

namespace ostravel::companion::test {
namespace {

class OutageLogTest : public ::testing::Test {
 protected:
  void apply(const ReceivedEvent& event) { outages_.add(*flows_.apply(event)); }

  void timeOut(const std::string& id, double begin, const std::string& application) {
    ReceivedEvent start = started(id, begin);
    start.appId = application;
    apply(start);
    ReceivedEvent end = timedOut(id, begin + 5.0);
    end.appId = application;
    apply(end);
    apply(closedWithError(id, begin + 5.0));
  }

  void answer(const std::string& id, double at) {
    apply(started(id, at - 1.0));
    apply(succeeded(id, at));
  }

  Outage last() const { return *outages_.outages().back(); }

  FlowHistory flows_;
  OutageLog outages_;
};

TEST_F(OutageLogTest, SumsUpAProxyThatHung) {
  timeOut("a", 0.0, "curl");
  timeOut("b", 1.0, "curl");
  timeOut("c", 2.0, "wget");

  ASSERT_EQ(outages_.outages().size(), 1U);
  EXPECT_EQ(last().begin, kNoon);
  EXPECT_EQ(last().applications, (std::map<std::string, std::uint64_t>{{"curl", 2}, {"wget", 1}}));
  EXPECT_EQ(outageKind(last()), "hung");
  EXPECT_EQ(outageText(last()),
            "It accepted connections but did not answer. 3 connections waited for it and then went "
            "direct. No connection was lost.");
}

TEST_F(OutageLogTest, BeginsWithTheFirstFlowThatGotNoAnswer) {
  apply(started("early", 0.0));
  timeOut("late", 2.0, "curl");
  apply(timedOut("early", 8.0));
  EXPECT_EQ(last().begin, kNoon);
}

TEST_F(OutageLogTest, EndsOnceNothingHasFailedForAWhile) {
  timeOut("a", 0.0, "curl");
  answer("b", 6.0);
  outages_.tick(kNoon + 5.0 + OutageLog::kQuietSeconds - 0.1);
  EXPECT_FALSE(last().end);
  outages_.tick(kNoon + 5.0 + OutageLog::kQuietSeconds);
  EXPECT_EQ(last().end, kNoon + 6.0);
  timeOut("b", 100.0, "curl");
  EXPECT_EQ(outages_.outages().size(), 2U);
  EXPECT_EQ(outages_.total(), 2U);
}

// It is tried less and less often.
TEST_F(OutageLogTest, LastsUntilTheProxyHasAnswered) {
  timeOut("a", 0.0, "curl");
  outages_.tick(kNoon + 60.0);
  timeOut("b", 60.0, "curl");
  outages_.tick(kNoon + 3600.0);
  ASSERT_EQ(outages_.outages().size(), 1U);
  EXPECT_FALSE(last().end);
  answer("c", 3600.0);
  outages_.tick(kNoon + 3600.0);
  EXPECT_EQ(last().end, kNoon + 3600.0);
}

TEST_F(OutageLogTest, LastsWhileTheProxyCannotBeReached) {
  outages_.setReachable("", false, kNoon);
  outages_.tick(kNoon + 3600.0);
  EXPECT_FALSE(last().end);
  outages_.setReachable("", true, kNoon + 3601.0);
  outages_.tick(kNoon + 3601.0 + OutageLog::kQuietSeconds);
  EXPECT_EQ(last().end, kNoon + 3601.0);
  EXPECT_EQ(outageKind(last()), "unreachable");
  EXPECT_EQ(outageText(last()),
            "It did not accept connections. New connections went direct at once. No connection "
            "was lost.");
}

TEST_F(OutageLogTest, CallsAProxyThatHangsAndThenEndsBoth) {
  timeOut("a", 0.0, "curl");
  outages_.setReachable("", false, kNoon + 6.0);
  ASSERT_EQ(outages_.outages().size(), 1U);
  EXPECT_EQ(outageKind(last()), "hung and unreachable");
}

TEST_F(OutageLogTest, CountsTunnelsThatItEnded) {
  apply(started("open", 0.0));
  apply(succeeded("open", 1.0));
  outages_.setReachable("", false, kNoon + 2.0);
  apply(closedWithError("open", 3.0));
  EXPECT_EQ(last().reset, 1U);
  EXPECT_EQ(outageText(last()),
            "It did not accept connections. New connections went direct at once. Lost: 1 open "
            "tunnel ended with an error.");
}

TEST_F(OutageLogTest, RefusalsAndResetsAreNotAnOutage) {
  apply(started("a", 0.0));
  apply(refused("a", 1.0));
  apply(started("b", 0.0));
  apply(succeeded("b", 1.0));
  apply(closedWithError("b", 2.0));
  EXPECT_TRUE(outages_.outages().empty());
}

TEST_F(OutageLogTest, CallsAProxyThatAnswersNonsenseFaulty) {
  apply(started("a", 0.0));
  apply(flowEvent("a", "connect_handshake_invalid", 1.0, {{"reason", "x"}}, "error"));
  EXPECT_EQ(outageKind(last()), "faulty");
  EXPECT_NE(outageText(last()).find("Lost: 1 connection got an invalid answer."),
            std::string::npos);
}

TEST_F(OutageLogTest, EndsWithTheFirstAnswerAfterTheLastFailure) {
  timeOut("a", 0.0, "curl");
  answer("between", 7.0);
  timeOut("b", 4.0, "curl");
  answer("c", 12.0);
  answer("d", 14.0);
  outages_.tick(kNoon + 9.0 + OutageLog::kQuietSeconds);
  EXPECT_EQ(last().end, kNoon + 12.0);
}

TEST_F(OutageLogTest, CountsRecoveriesThatDidNotLast) {
  timeOut("a", 0.0, "curl");
  answer("b", 6.0);
  timeOut("c", 8.0, "curl");
  timeOut("d", 8.5, "curl");
  EXPECT_EQ(outages_.outages().size(), 1U);
  EXPECT_EQ(outageText(last()),
            "It accepted connections but did not answer. In between it recovered for 2.00 s. 3 "
            "connections waited for it and then went direct. No connection was lost.");
  outages_.setReachable("", false, kNoon + 14.0);
  outages_.setReachable("", true, kNoon + 15.0);
  outages_.setReachable("", false, kNoon + 16.5);
  EXPECT_NE(outageText(last()).find("In between it recovered 2 times, for 3.50 s in all."),
            std::string::npos);
}

TEST_F(OutageLogTest, DoesNotCallASingleAnswerARecovery) {
  apply(started("waiting", 0.0));
  answer("lucky", 2.0);
  timeOut("a", 1.0, "curl");
  answer("lucky too", 7.0);
  apply(timedOut("waiting", 8.0));
  EXPECT_EQ(last().recoveries, 0U);
}

TEST_F(OutageLogTest, CountsTunnelsThatEndedBeforeTheProbe) {
  for (const char* const id : {"long ago", "open"}) {
    apply(started(id, 0.0));
    apply(succeeded(id, 1.0));
  }
  apply(closedWithError("long ago", 5.0));
  apply(closedWithError("open", 9.5));
  outages_.setReachable("", false, kNoon + 10.0);
  EXPECT_EQ(last().reset, 1U);
  EXPECT_EQ(last().begin, kNoon + 9.5);
  EXPECT_EQ(outages_.totalLost(), 1U);
}

TEST_F(OutageLogTest, CountsFlowsThatWentDirectAtOnce) {
  outages_.countDirect(5);
  timeOut("a", 0.0, "curl");
  outages_.countDirect(2);
  EXPECT_EQ(last().atOnce, 2U);
  EXPECT_EQ(outageText(last()),
            "It accepted connections but did not answer. 1 connection waited for it and then went "
            "direct. 2 others went direct at once. No connection was lost.");
}

TEST_F(OutageLogTest, NamesApplicationsThatWentDirectAtOnce) {
  outages_.addDirect("before");
  timeOut("a", 0.0, "curl");
  outages_.addDirect("wget");
  outages_.addDirect("curl");
  EXPECT_EQ(last().applications,
            (std::map<std::string, std::uint64_t>{{"curl", 2U}, {"wget", 1U}}));
}

TEST_F(OutageLogTest, KeepsTheMachinesOfAFleetApart) {
  ReceivedEvent event = timedOut("a", 5.0);
  event.host = "host-1";
  apply(event);
  outages_.setReachable("host-2", false, kNoon);
  outages_.setReachable("host-2", true, kNoon + 1.0);
  outages_.tick(kNoon + 1.0 + OutageLog::kQuietSeconds);
  ASSERT_EQ(outages_.outages().size(), 2U);
  EXPECT_EQ(outages_.lastingCount(), 1U);
  EXPECT_EQ(last().host, "host-1");
  EXPECT_EQ(outageKind(last()), "hung");
  EXPECT_EQ(outages_.lasting(), nullptr);
}

TEST_F(OutageLogTest, ReportsWhenAnOutageBeginsAndEnds) {
  std::vector<std::string> lines;
  outages_ = OutageLog(
      [&lines](const Outage& outage) { lines.push_back(outageLine(outage, TimeStyle::utc)); });
  timeOut("a", 0.0, "curl");
  timeOut("b", 0.5, "wget");
  timeOut("c", 1.0, "curl");
  answer("d", 7.0);
  outages_.tick(kNoon + 100.0);
  EXPECT_EQ(
      lines,
      (std::vector<std::string>{
          "The proxy hangs, since 2025-11-16T12:00:00.000Z: new connections go direct.",
          "The proxy hung from 2025-11-16T12:00:00.000Z to 2025-11-16T12:00:07.000Z (7.00 s). It "
          "accepted connections but did not answer. 3 connections waited for it and then went "
          "direct: curl (2), wget (1). No connection was lost."}));
}

TEST_F(OutageLogTest, WritesALineForEachKindOfOutage) {
  Outage outage;
  outage.begin = kNoon;
  outage.wasUnreachable = true;
  EXPECT_EQ(outageLine(outage, TimeStyle::utc),
            "The proxy cannot be reached, since 2025-11-16T12:00:00.000Z: new connections go "
            "direct.");
  outage.end = kNoon + 60.0;
  outage.reset = 2;
  outage.applications = {{"\x1b[2J", 2}};
  EXPECT_EQ(outageLine(outage, TimeStyle::utc),
            "The proxy could not be reached from 2025-11-16T12:00:00.000Z to "
            "2025-11-16T12:01:00.000Z (60.0 s). It did not accept connections. New connections "
            "went direct at once. Lost: 2 open tunnels ended with an error: \\x1b[2J (2).");
}

TEST_F(OutageLogTest, BoundsTheMachinesWhoseProxyFails) {
  constexpr std::size_t kFurther = 5;
  for (std::size_t number = 0; number < OutageLog::kMostLasting + kFurther; ++number) {
    outages_.setReachable("machine-" + std::to_string(number), false, kNoon);
  }
  EXPECT_EQ(outages_.lastingCount(), OutageLog::kMostLasting);
  EXPECT_EQ(outages_.total(), OutageLog::kMostLasting + kFurther);
}

TEST_F(OutageLogTest, BoundsTheTunnelsThatMayBeItsConsequence) {
  for (int number = 0; number < 1500; ++number) {
    const std::string id = std::to_string(number);
    apply(started(id, 0.0));
    apply(succeeded(id, 0.1));
    apply(closedWithError(id, 1.0));
  }
  outages_.setReachable("", false, kNoon + 1.5);
  EXPECT_EQ(last().reset, 1000U);
}

TEST_F(OutageLogTest, IsBounded) {
  for (int number = 0; number < 200; ++number) {
    timeOut(std::to_string(number), 0.0, "application " + std::to_string(number));
  }
  EXPECT_LE(last().applications.size(), OutageLog::kMostApplications + 1);
  EXPECT_EQ(last().applications.at("others"), 200U - OutageLog::kMostApplications);
  for (int number = 1; number < 200; ++number) {
    const double begin = 1000.0 * number;
    answer("answer" + std::to_string(number), begin - 100.0);
    outages_.tick(kNoon + begin);
    timeOut("later" + std::to_string(number), begin, "curl");
  }
  EXPECT_EQ(outages_.outages().size(), OutageLog::kMostOutages);
  EXPECT_EQ(outages_.total(), 200U);
}

}  // namespace
}  // namespace ostravel::companion::test
