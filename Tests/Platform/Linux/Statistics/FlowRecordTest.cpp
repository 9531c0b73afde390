#include "Platform/Linux/Statistics/FlowRecord.h"

#include <gtest/gtest.h>

#include <chrono>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ostravel::linuxplatform {
namespace {

using platform::FlowEnd;
using platform::FlowRule;
using Action = FlowRecord::Action;

const std::string kIdentifier = "D7A6D6B1-53C9-4E54-8E4C-7D0D53E0F2F4";

class FlowRecordTest : public ::testing::Test {
 protected:
  std::uint64_t endsOf(FlowEnd end) const {
    return counters_.ends[static_cast<std::size_t>(end)].load();
  }

  SharedTexts applications_;
  FlowCounters counters_;
  FlowRecord record_{{.application = "/usr/bin/curl",
                      .destination = {AddressFamily::ipv4, {192, 0, 2, 1}, 443},
                      .user = 1000,
                      .process = 4711,
                      .begin = FlowRecord::Clock::now()},
                     applications_,
                     1763271815.5,
                     counters_};
};

TEST_F(FlowRecordTest, HasItsInitialValues) {
  record_.publish(17);
  const auto view = record_.view();
  EXPECT_EQ(view.sequence, 17U);
  EXPECT_EQ(view.time, 1763271815.5);
  EXPECT_EQ(view.application, "/usr/bin/curl");
  EXPECT_EQ(view.destination, "192.0.2.1:443");
  EXPECT_EQ(view.user, 1000U);
  EXPECT_EQ(view.process, 4711);
  EXPECT_EQ(view.flowID, "");
}

TEST_F(FlowRecordTest, HasAddressAndName) {
  EXPECT_EQ(record_.view().host, "");
  record_.named("www.example.org");
  EXPECT_EQ(record_.view().host, "www.example.org");
  EXPECT_EQ(record_.view().destination, "192.0.2.1:443");
  record_.named(std::string(5000, 'n'));
  EXPECT_EQ(record_.view().host.size(), FlowRecord::kLongestText);
}

TEST_F(FlowRecordTest, IsDirectWithoutADecision) {
  const auto view = record_.view();
  EXPECT_EQ(view.action, Action::direct);
  EXPECT_EQ(view.reason, "no_handler");
  EXPECT_EQ(view.outcome, "direct");
  EXPECT_FALSE(view.isOpen);
}

TEST_F(FlowRecordTest, CountsATunnelThroughItsLife) {
  record_.decided(FlowRule::proxied);
  EXPECT_EQ(record_.view().outcome, "pending");
  EXPECT_EQ(counters_.pending, 1);

  record_.identified(kIdentifier);
  record_.handshakeStarted();
  record_.handshakeSucceeded();
  EXPECT_EQ(record_.view().outcome, "established");
  EXPECT_EQ(record_.view().flowID, kIdentifier);
  EXPECT_EQ(counters_.pending, 0);
  EXPECT_EQ(counters_.open, 1);
  EXPECT_EQ(counters_.handshakes.snapshot().count(), 1U);

  record_.sent(10);
  record_.received(20);
  record_.received(1);
  record_.ended(FlowEnd::closed, "eof");
  const auto view = record_.view();
  EXPECT_EQ(view.outcome, "closed");
  EXPECT_EQ(view.detail, "eof");
  EXPECT_EQ(view.bytesSent, 10U);
  EXPECT_EQ(view.bytesReceived, 21U);
  EXPECT_LE(*view.connected, *view.established);
  EXPECT_LE(*view.established, *view.ended);
  EXPECT_FALSE(view.isOpen);
  EXPECT_EQ(counters_.open, 0);
  EXPECT_EQ(endsOf(FlowEnd::closed), 1U);
}

TEST_F(FlowRecordTest, OnlyTheFirstEndCounts) {
  record_.decided(FlowRule::proxied);
  record_.ended(FlowEnd::timedOut, "too late");
  record_.ended(FlowEnd::connectionFailed, "closed");
  record_.handshakeSucceeded();
  EXPECT_EQ(record_.view().outcome, "timed_out");
  EXPECT_EQ(record_.view().detail, "too late");
  EXPECT_EQ(counters_.pending, 0);
  EXPECT_EQ(counters_.open, 0);
  EXPECT_EQ(endsOf(FlowEnd::connectionFailed), 0U);
}

TEST_F(FlowRecordTest, TheEndOfAFlowThatWasNotTakenIsNotCounted) {
  record_.decided(FlowRule::gateClosed);
  record_.ended(FlowEnd::abandoned, "");
  EXPECT_EQ(record_.view().outcome, "direct");
  EXPECT_EQ(record_.view().reason, "gate_closed");
  EXPECT_EQ(counters_.pending, 0);
  EXPECT_EQ(endsOf(FlowEnd::abandoned), 0U);
}

TEST_F(FlowRecordTest, EveryRuleHasAnActionAndAWord) {
  EXPECT_EQ(actionOf(FlowRule::proxied), Action::proxied);
  EXPECT_EQ(actionOf(FlowRule::refusedUDP), Action::refused);
  for (const auto rule : {FlowRule::exemptApplication, FlowRule::exemptHost,
                          FlowRule::realtimeMedia, FlowRule::gateClosed, FlowRule::localProxy}) {
    EXPECT_EQ(actionOf(rule), Action::direct);
    EXPECT_NE(nameOf(rule), "unknown");
  }
}

// Keeps each line with what it is about.
class NotingLog final : public platform::Log {
 public:
  std::vector<std::string> lines;

 private:
  void write(platform::LogLevel level, std::string_view format,
             std::span<const platform::LogArgument> arguments) override {
    writeAbout({}, level, format, arguments);
  }
  void writeAbout(const platform::LogFields& fields, platform::LogLevel level,
                  std::string_view format,
                  std::span<const platform::LogArgument> arguments) override {
    lines.push_back(std::string(nameOf(level)) + "|" + platform::formatLogLine(format, arguments) +
                    "|" + std::string(fields.flowID) + "|" + std::string(fields.application) + "|" +
                    std::string(fields.code));
  }
};

TEST_F(FlowRecordTest, LogsAFailureThatTheCoreDoesNotLog) {
  NotingLog log;
  const auto endWith = [&log, this](FlowEnd end, std::string_view detail) {
    counters_.log = &log;
    FlowRecord record({.application = "/usr/bin/curl"}, applications_, 0, counters_);
    record.decided(FlowRule::proxied);
    record.identified(kIdentifier);
    record.ended(end, detail);
    record.ended(FlowEnd::connectionFailed, "again");
  };
  for (const auto end :
       {FlowEnd::closed, FlowEnd::failed, FlowEnd::rejected, FlowEnd::invalid, FlowEnd::timedOut,
        FlowEnd::backlog, FlowEnd::requestFailed, FlowEnd::abandoned}) {
    endWith(end, "logged by the core, or no failure");
  }
  EXPECT_EQ(log.lines, std::vector<std::string>());
  endWith(FlowEnd::connectionFailed, "Connection refused");
  endWith(FlowEnd::noAnswer, "");
  const std::string about = "|" + kIdentifier + "|/usr/bin/curl|extension.tunnel_closed";
  EXPECT_EQ(
      log.lines,
      (std::vector<std::string>{
          "error|OstravelProxy: The connection to the proxy failed: Connection refused" + about,
          "error|OstravelProxy: The proxy closed the connection without an answer" + about}));
}

TEST_F(FlowRecordTest, CutsLongTexts) {
  const std::string application(5000, 'a');
  FlowRecord record({.application = application}, applications_, 0, counters_);
  record.decided(FlowRule::proxied);
  record.ended(FlowEnd::rejected, std::string(5000, 's'));
  const auto view = record.view();
  EXPECT_EQ(view.application.size(), FlowRecord::kLongestText);
  EXPECT_EQ(view.detail.size(), FlowRecord::kLongestDetail);
}

TEST_F(FlowRecordTest, WritesAnIPv6DestinationInBrackets) {
  const FlowRecord record(
      {.destination = {AddressFamily::ipv6,
                       {0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
                       80}},
      applications_, 0, counters_);
  EXPECT_EQ(record.view().destination, "[2001:db8::1]:80");
}

TEST_F(FlowRecordTest, IsWithoutUserAndProcessIfTheyAreUnknown) {
  const FlowRecord record({}, applications_, 0, counters_);
  EXPECT_EQ(record.view().user, std::nullopt);
  EXPECT_EQ(record.view().process, std::nullopt);
  EXPECT_EQ(record.view().application, "");
  const FlowRecord ofRoot({.user = 0}, applications_, 0, counters_);
  EXPECT_EQ(ofRoot.view().user, 0U);
}

// There is one for each tunnel.
TEST_F(FlowRecordTest, IsSmall) {
  EXPECT_LE(sizeof(FlowRecord), 184U);
}

TEST_F(FlowRecordTest, IgnoresAnIdentifierOfAnotherForm) {
  record_.identified("FLOW");
  EXPECT_EQ(record_.view().flowID, "");
}

TEST_F(FlowRecordTest, ItsLastStepIsItsLastChange) {
  record_.decided(FlowRule::proxied);
  record_.publish(1);
  const double before = record_.lastChange();
  record_.handshakeStarted();
  record_.handshakeSucceeded();
  record_.ended(FlowEnd::closed, "eof");
  EXPECT_GE(record_.lastChange(), before);
  EXPECT_GE(before, 1763271815.5);
}

}  // namespace
}  // namespace ostravel::linuxplatform
