#include "Extension/FilterDataProvider/PacketTunnelProvider.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "Tests/Extension/Support/Bytes.h"
#include "Tests/Extension/Support/NotingPlatform.h"
#include "Tests/Extension/Support/ProviderTest.h"

namespace ostravel {
namespace {

using platform::ConfigurationValue;
using platform::Error;
using platform::HostEndpoint;
using platform::LogLevel;
using platform::NetworkRule;
using platform::NetworkRuleProtocol;
using platform::OptionalError;
using platform::ProviderStopReason;
using test::EventFacts;
using test::NotingPlatform;
using test::ProviderTest;
using namespace std::chrono_literals;

using Lines = std::vector<std::string>;

// A completion that keeps what it was called with.
struct Completions {
  std::vector<OptionalError> errors;

  platform::ErrorCompletion next() {
    return [this](OptionalError error) { errors.push_back(std::move(error)); };
  }
};

// --- Construction and destruction

class ProviderConstruction : public ProviderTest {};

TEST_F(ProviderConstruction, StartsEmptyWithTheGateClosed) {
  EXPECT_EQ(peer().activeTunnelCount(), 0U);
  EXPECT_EQ(peer().cacheSize(), 0U);
  EXPECT_EQ(peer().admission().pendingCount(), 0U);
  EXPECT_EQ(peer().establishedCount(), 0U);
  EXPECT_TRUE(bypassesNewFlows());
}

TEST_F(ProviderConstruction, IsLogged) {
  EXPECT_EQ(simulation_.logLines(), Lines{"OstravelProxy: init()"});
  EXPECT_EQ(simulation_.logRecords()[0].level, LogLevel::info);
  EXPECT_EQ(simulation_.logRecords()[0].subsystem, "com.ostravel.simulation");
  EXPECT_EQ(simulation_.logRecords()[0].category, "OstravelProxy");
}

TEST_F(ProviderConstruction, ProbesNothing) {
  simulation_.advance(10s);

  EXPECT_TRUE(sockets().calls().empty());
}

TEST_F(ProviderConstruction, MakesItsFourQueues) {
  NotingPlatform platform(simulation_);

  const auto provider = std::make_shared<PacketTunnelProvider>(platform, simulation_);

  EXPECT_EQ(platform.notes(), (Lines{"queue com.ostravel.activeTunnels concurrent",
                                     "queue com.ostravel.proxyTunnelMonitoring serial",
                                     "queue com.ostravel.proxyHealth serial",
                                     "queue com.ostravel.bypassCache concurrent"}));
}

TEST_F(ProviderConstruction, IsUndoneWithALogLine) {
  provider_.reset();

  EXPECT_EQ(simulation_.logLines(), (Lines{"OstravelProxy: init()", "OstravelProxy: deinit"}));
  EXPECT_EQ(simulation_.logRecords()[1].level, LogLevel::info);
}

// --- Start

class ProviderStart : public ProviderTest {
 protected:
  // The network settings are pending when it is destroyed.
  void loseProviderDuringStart(Completions& completions) {
    simulation_.holdNetworkSettings();
    provider_->startProxy(std::nullopt, completions.next());
    simulation_.run();
    provider_.reset();
  }

  // The monitoring sockets to which it has connected.
  Lines monitoringSocketPaths() {
    Lines paths;
    for (const auto& call : sockets().calls(simulation::SocketCallKind::connect)) {
      constexpr std::size_t kHeaderSize = 2;
      const std::string path = test::textOf(std::span(call.bytes).subspan(kHeaderSize));
      if (path.starts_with('/')) {
        paths.push_back(path);
      }
    }
    return paths;
  }
};

TEST_F(ProviderStart, LogsTheseLinesInThisOrder) {
  startProvider();

  EXPECT_EQ(simulation_.logLines(LogLevel::info),
            (Lines{"OstravelProxy: init()", "OstravelProxy: Starting Proxy provider...",
                   "OstravelProxy: Rules summary included=32 excluded=2 httpsOnly=false",
                   "OstravelProxy: Rules set successfully"}));
  EXPECT_EQ(simulation_.logLines().size(), 4U);
}

TEST_F(ProviderStart, CompletesOnceWithoutAnErrorAndNotInsideTheCall) {
  Completions completions;

  provider_->startProxy(std::nullopt, completions.next());
  EXPECT_TRUE(completions.errors.empty());
  simulation_.advance(1min);

  EXPECT_EQ(completions.errors, std::vector<OptionalError>{std::nullopt});
}

TEST_F(ProviderStart, IgnoresItsOptions) {
  Completions completions;

  provider_->startProxy(platform::ProviderConfiguration{{"monitoringSocketPath", "/other"}},
                        completions.next());
  simulation_.run();

  EXPECT_EQ(signals(), Lines{"provider_started"});
  EXPECT_EQ(completions.errors, std::vector<OptionalError>{std::nullopt});
}

TEST_F(ProviderStart, IsReported) {
  startProvider();

  EXPECT_EQ(events(), std::vector{(EventFacts{
                          .signal = "provider_started",
                          .code = "extension.provider_started",
                          .level = "info",
                          .message = "Transparent proxy provider started",
                      })});
  EXPECT_EQ(records()[0].timestamp, simulation::SimulatedClock::kStart);
  EXPECT_EQ(records()[0].loggedAt, "2020-09-13T12:26:40Z");
}

TEST_F(ProviderStart, PassesTheConfiguredPathToTheMonitoringClient) {
  startProvider();

  EXPECT_EQ(monitoringSocketPaths(), Lines{kSocketPath});
}

TEST_F(ProviderStart, TrimsTheConfiguredPath) {
  configure("  /tmp/m.sock\n");

  startProvider();

  EXPECT_EQ(monitoringSocketPaths(), Lines{"/tmp/m.sock"});
}

struct ConfigurationCase {
  const char* name;
  std::optional<platform::TunnelProviderProtocol> protocol;
};

void PrintTo(const ConfigurationCase& configuration, std::ostream* stream) {
  *stream << configuration.name;
}

class ProviderStartWithoutPath : public ProviderTest,
                                 public testing::WithParamInterface<ConfigurationCase> {};

TEST_P(ProviderStartWithoutPath, LogsTheSameLines) {
  simulation_.setProtocolConfiguration(GetParam().protocol);

  startProvider();

  EXPECT_EQ(simulation_.logLines(),
            (Lines{"OstravelProxy: init()", "OstravelProxy: Starting Proxy provider...",
                   "OstravelProxy: Rules summary included=32 excluded=2 httpsOnly=false",
                   "OstravelProxy: Rules set successfully"}));
}

TEST_P(ProviderStartWithoutPath, DropsItsEventAndContinues) {
  simulation_.setProtocolConfiguration(GetParam().protocol);
  Completions completions;

  provider_->startProxy(std::nullopt, completions.next());
  simulation_.run();

  EXPECT_TRUE(sockets().localDeliveries().empty());
  EXPECT_EQ(simulation_.systemLogLines(), Lines{});
  EXPECT_EQ(completions.errors, std::vector<OptionalError>{std::nullopt});
  EXPECT_EQ(simulation_.networkSettings().at(0).includedNetworkRules.size(), 32U);
  EXPECT_EQ(simulation_.networkSettings().at(0).excludedNetworkRules.size(), 2U);
}

ConfigurationCase configurationWith(const char* name, const char* key, ConfigurationValue value) {
  return {name, platform::TunnelProviderProtocol{
                    platform::ProviderConfiguration{{key, std::move(value)}}}};
}

ConfigurationCase pathIs(const char* name, ConfigurationValue value) {
  return configurationWith(name, "monitoringSocketPath", std::move(value));
}

INSTANTIATE_TEST_SUITE_P(
    Configurations, ProviderStartWithoutPath,
    testing::Values(
        ConfigurationCase{"None", std::nullopt},
        ConfigurationCase{"NoDictionary", platform::TunnelProviderProtocol{std::nullopt}},
        ConfigurationCase{"Empty",
                          platform::TunnelProviderProtocol{platform::ProviderConfiguration{}}},
        configurationWith("KeyInLowerCase", "monitoringsocketpath", std::string("/tmp/m.sock")),
        pathIs("Integer", std::int64_t{7}), pathIs("Real", 1.5), pathIs("Boolean", true),
        pathIs("OtherValue", platform::OtherConfigurationValue{}),
        pathIs("EmptyText", std::string()), pathIs("OnlySpace", std::string(" \n\t"))),
    [](const auto& configuration) { return configuration.param.name; });

TEST_F(ProviderStart, AsksForTheSettingsOfTheLocalProxy) {
  startProvider();

  ASSERT_EQ(simulation_.networkSettings().size(), 1U);
  EXPECT_EQ(simulation_.networkSettings()[0].tunnelRemoteAddress, "127.0.0.1");
}

std::string ruleText(const NetworkRule& rule) {
  return std::string(rule.protocol == NetworkRuleProtocol::tcp ? "tcp " : "udp ") +
         rule.destinationNetwork.hostname + "/" + std::to_string(rule.destinationPrefix) + " " +
         rule.destinationNetwork.port;
}

Lines ruleTexts(const std::vector<NetworkRule>& rules) {
  Lines texts;
  for (const auto& rule : rules) {
    texts.push_back(ruleText(rule));
  }
  return texts;
}

TEST_F(ProviderStart, IncludesTheseRulesInThisOrder) {
  startProvider();

  EXPECT_EQ(
      ruleTexts(simulation_.networkSettings().at(0).includedNetworkRules),
      (Lines{
          "tcp 0.0.0.0/0 80",     "tcp ::/0 80",     "tcp 127.0.0.1/32 80",    "tcp ::1/128 80",
          "udp 0.0.0.0/0 80",     "udp ::/0 80",     "tcp 0.0.0.0/0 443",      "tcp ::/0 443",
          "tcp 127.0.0.1/32 443", "tcp ::1/128 443", "udp 0.0.0.0/0 443",      "udp ::/0 443",
          "tcp 0.0.0.0/0 11434",  "tcp ::/0 11434",  "tcp 127.0.0.1/32 11434", "tcp ::1/128 11434",
          "tcp 0.0.0.0/0 1234",   "tcp ::/0 1234",   "tcp 127.0.0.1/32 1234",  "tcp ::1/128 1234",
          "tcp 0.0.0.0/0 8000",   "tcp ::/0 8000",   "tcp 127.0.0.1/32 8000",  "tcp ::1/128 8000",
          "tcp 0.0.0.0/0 5000",   "tcp ::/0 5000",   "tcp 127.0.0.1/32 5000",  "tcp ::1/128 5000",
          "tcp 0.0.0.0/0 7860",   "tcp ::/0 7860",   "tcp 127.0.0.1/32 7860",  "tcp ::1/128 7860",
      }));
}

TEST_F(ProviderStart, ExcludesTheLocalProxyInThisOrder) {
  startProvider();

  EXPECT_EQ(ruleTexts(simulation_.networkSettings().at(0).excludedNetworkRules),
            (Lines{"tcp 127.0.0.1/32 8080", "tcp ::1/128 8080"}));
}

TEST_F(ProviderStart, PassesOnARejectionOfItsRulesUnchanged) {
  const Error rejection{"NEDomain", 9, "Rules are not allowed"};
  simulation_.answerNetworkSettings(rejection);
  Completions completions;

  provider_->startProxy(std::nullopt, completions.next());
  simulation_.run();

  EXPECT_EQ(completions.errors, std::vector<OptionalError>{rejection});
  EXPECT_EQ(simulation_.logLines(LogLevel::error),
            Lines{"OstravelProxy: Failed to set rules: Rules are not allowed"});
  EXPECT_EQ(simulation_.logLines().back(),
            "OstravelProxy: Failed to set rules: Rules are not allowed");
}

TEST_F(ProviderStart, PassesOnThePlatformsOwnErrorObject) {
  Error rejection{"NEDomain", 9, "Rules are not allowed"};
  rejection.platformObject = std::make_shared<Error::PlatformObject>();
  simulation_.answerNetworkSettings(rejection);
  Completions completions;

  provider_->startProxy(std::nullopt, completions.next());
  simulation_.run();

  ASSERT_TRUE(completions.errors.at(0));
  EXPECT_EQ(completions.errors[0]->platformObject, rejection.platformObject);
}

TEST_F(ProviderStart, IsReportedAndProbesAlsoWhenItsRulesAreRejected) {
  simulation_.answerNetworkSettings(Error{"NEDomain", 9, "No"});
  startProvider();
  sockets().clearCalls();

  simulation_.advance(3s);

  EXPECT_EQ(signals(), Lines{"provider_started"});
  EXPECT_EQ(sockets().calls(simulation::SocketCallKind::connect).size(), 3U);
}

TEST_F(ProviderStart, LogsBeforeItCompletes) {
  Lines linesSeen;
  provider_->startProxy(std::nullopt,
                        [&](const OptionalError&) { linesSeen = simulation_.logLines(); });
  simulation_.run();

  EXPECT_EQ(linesSeen.back(), "OstravelProxy: Rules set successfully");
}

TEST_F(ProviderStart, IsCompletedSilentlyWhenTheProviderIsGone) {
  Completions completions;
  loseProviderDuringStart(completions);
  const auto logged = simulation_.logLines();

  simulation_.completeNetworkSettings(std::nullopt);
  simulation_.run();

  EXPECT_EQ(completions.errors, std::vector<OptionalError>{std::nullopt});
  EXPECT_EQ(simulation_.logLines(), logged);
}

TEST_F(ProviderStart, IsFailedSilentlyWhenTheProviderIsGone) {
  Completions completions;
  loseProviderDuringStart(completions);
  const auto logged = simulation_.logLines();
  const Error rejection{"NEDomain", 9, "No"};

  simulation_.completeNetworkSettings(rejection);
  simulation_.run();

  EXPECT_EQ(completions.errors, std::vector<OptionalError>{rejection});
  EXPECT_EQ(simulation_.logLines(), logged);
}

TEST_F(ProviderStart, DoesNotKeepTheProviderAlive) {
  simulation_.holdNetworkSettings();
  startProvider();
  const std::weak_ptr<PacketTunnelProvider> weakProvider = provider_;

  provider_.reset();
  simulation_.run();

  EXPECT_TRUE(weakProvider.expired());
}

// --- Stop

class ProviderStop : public ProviderTest {};

TEST_F(ProviderStop, LogsCompletesInsideTheCallAndStopsProbing) {
  startProvider();

  stopProvider(ProviderStopReason::none);

  EXPECT_EQ(simulation_.logLines().back(), "OstravelProxy: Stopping Proxy");
  EXPECT_EQ(simulation_.logRecords().back().level, LogLevel::info);
  EXPECT_EQ(simulation_.journal().linesWith("stopped").size(), 1U);
  // The event of the stop is on its way.
  simulation_.run();
  sockets().clearCalls();
  simulation_.advance(10s);
  EXPECT_TRUE(sockets().calls().empty());
}

class ProviderStopReasons : public ProviderTest, public testing::WithParamInterface<int> {};

TEST_P(ProviderStopReasons, AreReportedInDecimal) {
  startProvider();

  stopProvider(static_cast<ProviderStopReason>(GetParam()));

  EXPECT_EQ(events("provider_stopped"),
            std::vector{(EventFacts{.signal = "provider_stopped",
                                    .code = "extension.provider_stopped",
                                    .level = "info",
                                    .message = "Transparent proxy provider stopped",
                                    .context = {{{"reason", std::to_string(GetParam())}}}})});
}

INSTANTIATE_TEST_SUITE_P(Values, ProviderStopReasons, testing::Values(0, 1, 2, 13));

TEST_F(ProviderStop, EmptiesTheTableWithoutClosingATunnel) {
  startProvider();
  const auto flow = takeFlow();
  takeFlow();
  establish(1);
  ASSERT_EQ(peer().activeTunnelCount(), 2U);
  simulation_.journal().clear();

  stopProvider(ProviderStopReason::userInitiated);

  EXPECT_EQ(peer().activeTunnelCount(), 0U);
  EXPECT_EQ(simulation_.journal().linesWith("close"), Lines{});
  EXPECT_EQ(simulation_.journal().linesWith("cancel"), Lines{});
  EXPECT_EQ(events("tunnel_closed"), std::vector<EventFacts>{});
  EXPECT_FALSE(flow->readWasClosed());
}

TEST_F(ProviderStop, WaitsForTheTableChangesThatWereQueued) {
  startProvider();
  const auto flow = makeFlow();
  provider_->handleNewFlow(flow);
  while (simulation_.connectionCount() == 0) {
    ASSERT_TRUE(simulation_.runOne());
  }
  // The insertion is queued and has not run.
  ASSERT_EQ(peer().activeTunnelCount(), 0U);

  stopProvider(ProviderStopReason::none);
  simulation_.run();

  EXPECT_EQ(peer().activeTunnelCount(), 0U);
}

TEST_F(ProviderStop, LeavesCacheAdmissionAndGateAlone) {
  startProvider();
  takeFlow();
  const auto cached = peer().cacheSize();
  ASSERT_EQ(peer().admission().pendingCount(), 1U);

  stopProvider(ProviderStopReason::none);
  simulation_.run();

  EXPECT_EQ(peer().cacheSize(), cached);
  EXPECT_EQ(peer().admission().pendingCount(), 1U);
  EXPECT_FALSE(bypassesNewFlows());
}

TEST_F(ProviderStop, LeavesARequestThatThenFailsToTheDefaultLog) {
  startProvider();
  takeFlow();
  simulation_.peer(0)->holdWrites();
  simulation_.connection(0)->accept();
  simulation_.run();
  ASSERT_TRUE(simulation_.peer(0)->writeOutstanding());

  stopProvider(ProviderStopReason::none);
  simulation_.run();

  // Only the table held the tunnel, and only the tunnel its connection.
  const auto& last = simulation_.logRecords().back();
  EXPECT_EQ(last.line, "OstravelProxy: Error writing CONNECT: Operation canceled");
  EXPECT_EQ(last.level, LogLevel::error);
  EXPECT_EQ(last.subsystem, "");
  EXPECT_EQ(events("connect_handshake_write_failed"), std::vector<EventFacts>{});
}

TEST_F(ProviderStop, MayComeWithoutAStart) {
  stopProvider(ProviderStopReason::none);

  EXPECT_EQ(simulation_.journal().linesWith("stopped").size(), 1U);
}

}  // namespace
}  // namespace ostravel
