#include "Extension/ProxyTunnelCore/ProxyTunnelMonitoringClient.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Simulation/Simulation.h"
#include "Tests/Extension/Support/Bytes.h"
#include "Tests/Extension/Support/MonitoringRecord.h"
#include "Tests/Extension/Support/SocketCallLines.h"

namespace ostravel {
namespace {

using platform::Error;
using platform::OptionalError;
using platform::SocketAddressLayout;
using simulation::RunOrder;
using simulation::Simulation;
using simulation::SimulationOptions;
using simulation::SocketCallKind;
using test::bytesOf;
using test::linesOf;
using test::parseFrame;

using Lines = std::vector<std::string>;

ProxyTunnelMonitoringEvent makeEvent(Simulation& simulation, const std::string& signal,
                                     double timestamp = 1.0) {
  return {simulation.uuidSource(),
          signal,
          std::nullopt,
          "info",
          "extension.code",
          "message",
          std::nullopt,
          std::nullopt,
          timestamp,
          "1970-01-01T00:00:01Z"};
}

// --- emit, with a sender that keeps what it receives

class MonitoringClientEmit : public testing::Test {
 protected:
  static constexpr const char* kPath = "/tmp/m.sock";

  std::shared_ptr<ProxyTunnelMonitoringClient> make(std::optional<std::string> path) {
    return std::make_shared<ProxyTunnelMonitoringClient>(
        simulation_, std::move(path),
        simulation_.makeQueue("com.ostravel.proxyTunnelMonitoring",
                              platform::DispatchQueueKind::serial),
        ProxyTunnelMonitoringFrameEncoder(),
        [this](const std::string& sentPath, std::span<const std::byte> frame) {
          sent_.push_back(sentPath + " " + parseFrame(frame).signal);
          return std::exchange(senderError_, std::nullopt);
        });
  }

  ProxyTunnelMonitoringEvent event(const std::string& signal, double timestamp = 1.0) {
    return makeEvent(simulation_, signal, timestamp);
  }

  Simulation simulation_;
  // "PATH SIGNAL" for each frame.
  Lines sent_;
  // The next sending fails with it.
  OptionalError senderError_;
};

TEST_F(MonitoringClientEmit, SendsOneFrameToThePath) {
  const auto client = make(kPath);

  client->emit(event("signal"));
  simulation_.run();

  EXPECT_EQ(sent_, Lines{"/tmp/m.sock signal"});
}

TEST_F(MonitoringClientEmit, ReturnsBeforeAnythingIsSent) {
  const auto client = make(kPath);

  client->emit(event("signal"));

  EXPECT_EQ(sent_, Lines{});
}

TEST_F(MonitoringClientEmit, DropsEventsSilentlyWithoutAPath) {
  const auto client = make(std::nullopt);

  client->emit(event("signal"));

  EXPECT_FALSE(simulation_.runOne());
  EXPECT_EQ(sent_, Lines{});
  EXPECT_EQ(simulation_.systemLogLines(), Lines{});
}

TEST_F(MonitoringClientEmit, DropsEventsSilentlyWithAnEmptyPath) {
  const auto client = make("");

  client->emit(event("signal"));

  EXPECT_FALSE(simulation_.runOne());
  EXPECT_EQ(simulation_.systemLogLines(), Lines{});
}

TEST_F(MonitoringClientEmit, DoesNotEvenEncodeWithoutAPath) {
  const auto client = make(std::nullopt);

  client->emit(event("signal", std::nan("")));
  simulation_.run();

  EXPECT_EQ(simulation_.systemLogLines(), Lines{});
}

TEST_F(MonitoringClientEmit, KnowsWhetherThereIsAPath) {
  EXPECT_FALSE(make(std::nullopt)->hasSocketPath());
  EXPECT_FALSE(make("")->hasSocketPath());
  const auto client = make(kPath);
  EXPECT_TRUE(client->hasSocketPath());
  EXPECT_TRUE(client->counts().hasPath);
  client->updateSocketPath(" \t\n");
  EXPECT_FALSE(client->hasSocketPath());
  EXPECT_FALSE(client->counts().hasPath);
}

TEST_F(MonitoringClientEmit, TrimsAnUpdatedPath) {
  const auto client = make(std::nullopt);

  client->updateSocketPath("  /tmp/m.sock\n");
  client->emit(event("signal"));
  simulation_.run();

  EXPECT_EQ(sent_, Lines{"/tmp/m.sock signal"});
}

TEST_F(MonitoringClientEmit, KeepsWhiteSpaceInsideThePath) {
  const auto client = make(std::nullopt);

  client->updateSocketPath("\t/tmp/a b.sock\r\n");
  client->emit(event("signal"));
  simulation_.run();

  EXPECT_EQ(sent_, Lines{"/tmp/a b.sock signal"});
}

TEST_F(MonitoringClientEmit, IsSwitchedOffByAPathOfWhiteSpace) {
  const auto client = make(kPath);

  client->updateSocketPath(" \t\n");
  client->emit(event("signal"));
  simulation_.run();

  EXPECT_EQ(sent_, Lines{});
}

TEST_F(MonitoringClientEmit, IsSwitchedOffByAnAbsentPath) {
  const auto client = make(kPath);

  client->updateSocketPath(std::nullopt);
  client->emit(event("signal"));
  simulation_.run();

  EXPECT_EQ(sent_, Lines{});
}

TEST_F(MonitoringClientEmit, UsesThePathInEffectWhenItWasCalled) {
  const auto client = make("/old");
  client->emit(event("one"));
  client->updateSocketPath("/new");
  client->emit(event("two"));
  client->updateSocketPath(std::nullopt);

  simulation_.run();

  EXPECT_EQ(sent_, (Lines{"/old one", "/new two"}));
}

TEST_F(MonitoringClientEmit, DeliversAlsoWhenTheClientIsGone) {
  auto client = make(kPath);
  client->emit(event("signal"));

  client.reset();
  simulation_.run();

  EXPECT_EQ(sent_, Lines{"/tmp/m.sock signal"});
}

TEST_F(MonitoringClientEmit, LogsAFailureExplainsItAndContinues) {
  const auto client = make(kPath);
  senderError_ = Error{"SomeDomain", 5, "Went wrong"};

  client->emit(event("one"));
  client->emit(event("two"));
  simulation_.run();

  EXPECT_EQ(sent_, (Lines{"/tmp/m.sock one", "/tmp/m.sock two"}));
  EXPECT_EQ(simulation_.systemLogLines(),
            (Lines{"OstravelProxy monitoring send failed: Error Domain=SomeDomain Code=5 "
                   "\"Went wrong\"",
                   "OstravelProxy monitoring events lost: 1 for /tmp/m.sock: Went wrong"}));
  EXPECT_EQ(simulation_.logLines(), Lines{});
}

TEST_F(MonitoringClientEmit, SaysWhenEventsAreDeliveredAgain) {
  const auto client = make(kPath);
  for (const char* const signal : {"one", "two"}) {
    senderError_ = Error{"SomeDomain", 5, "Went wrong"};
    client->emit(event(signal));
    simulation_.run();
  }
  simulation_.advance(std::chrono::minutes(1));

  client->emit(event("three"));
  simulation_.run();

  EXPECT_EQ(simulation_.systemLogLines().back(),
            "OstravelProxy monitoring events lost: 1 for /tmp/m.sock: events are delivered again");
}

TEST_F(MonitoringClientEmit, LogsAnEventThatCannotBeEncodedAndSendsNothing) {
  const auto client = make(kPath);

  client->emit(event("one", std::nan("")));
  client->emit(event("two"));
  simulation_.run();

  EXPECT_EQ(sent_, Lines{"/tmp/m.sock two"});
  ASSERT_EQ(simulation_.systemLogLines().size(), 2U);
  EXPECT_TRUE(simulation_.systemLogLines()[0].starts_with(
      "OstravelProxy monitoring send failed: Error Domain=JSONEncoding Code=1 \""))
      << simulation_.systemLogLines()[0];
  EXPECT_EQ(simulation_.logLines(), Lines{});
}

// --- emit while events are not delivered

class MonitoringClientBound : public MonitoringClientEmit {
 protected:
  // Nothing runs meanwhile, as when the first delivery does not return.
  void emitAll(ProxyTunnelMonitoringClient& client, int count) {
    for (int number = 0; number < count; ++number) {
      client.emit(event("signal-" + std::to_string(number)));
    }
  }

  static std::string droppedLine(std::size_t count) {
    return "OstravelProxy monitoring events dropped: " + std::to_string(count);
  }

  // More than fit.
  static constexpr int kMany = 20'000;
};

TEST_F(MonitoringClientBound, DropsTheNewestEventsAndCountsThem) {
  const auto client = make(kPath);

  emitAll(*client, kMany);
  EXPECT_LE(client->counts().waitingBytes, ProxyTunnelMonitoringClient::kMaxWaitingBytes);
  simulation_.run();
  EXPECT_EQ(client->counts().waitingBytes, 0U);

  ASSERT_GT(sent_.size(), 1000U);
  ASSERT_LT(sent_.size(), static_cast<std::size_t>(kMany));
  for (std::size_t number = 0; number < sent_.size(); ++number) {
    ASSERT_EQ(sent_[number], "/tmp/m.sock signal-" + std::to_string(number));
  }
  EXPECT_EQ(simulation_.systemLogLines(), Lines{droppedLine(kMany - sent_.size())});
  EXPECT_EQ(simulation_.logLines(), Lines{});
}

TEST_F(MonitoringClientBound, SubmitsNoWorkItemForADroppedEvent) {
  const auto client = make(kPath);
  emitAll(*client, kMany);

  std::size_t items = 0;
  while (simulation_.runOne()) {
    ++items;
  }

  EXPECT_EQ(items, sent_.size());
}

TEST_F(MonitoringClientBound, ReportsOnlyOnceHalfOfTheRoomIsFree) {
  const auto client = make(kPath);
  emitAll(*client, kMany);

  while (simulation_.systemLogLines().empty() && simulation_.runOne()) {
  }
  const std::size_t sentBefore = sent_.size();
  simulation_.run();

  EXPECT_NEAR(static_cast<double>(sentBefore), static_cast<double>(sent_.size()) / 2.0, 2.0);
  EXPECT_EQ(simulation_.systemLogLines().size(), 1U);
}

TEST_F(MonitoringClientBound, TakesEventsAgainAsSoonAsOneIsDelivered) {
  const auto client = make(kPath);
  emitAll(*client, kMany);
  simulation_.runOne();

  client->emit(event("late"));
  simulation_.run();

  EXPECT_EQ(sent_.back(), "/tmp/m.sock late");
}

TEST_F(MonitoringClientBound, ReportsNothingWhileDeliveryFails) {
  const auto client = make(kPath);
  emitAll(*client, kMany);
  bool fails = true;
  while (fails) {
    senderError_ = Error{"SomeDomain", 5, "Went wrong"};
    fails = simulation_.runOne();
  }
  for (const std::string& line : simulation_.systemLogLines()) {
    ASSERT_TRUE(line.starts_with("OstravelProxy monitoring send failed: ") ||
                line.starts_with("OstravelProxy monitoring events lost: "))
        << line;
  }
  const std::size_t dropped = kMany - sent_.size();

  senderError_.reset();
  client->emit(event("delivered"));
  simulation_.run();

  EXPECT_EQ(simulation_.systemLogLines().back(), droppedLine(dropped));
}

TEST_F(MonitoringClientBound, CountsAfreshAfterAReport) {
  const auto client = make(kPath);
  emitAll(*client, kMany);
  simulation_.run();
  const std::size_t first = kMany - sent_.size();
  sent_.clear();

  emitAll(*client, kMany);
  simulation_.run();

  EXPECT_EQ(simulation_.systemLogLines(),
            (Lines{droppedLine(first), droppedLine(kMany - sent_.size())}));
}

TEST_F(MonitoringClientBound, DropsAnEventThatIsLargerThanTheRoom) {
  const auto client = make(kPath);

  client->emit(event(std::string(ProxyTunnelMonitoringClient::kMaxWaitingBytes, 'x')));
  client->emit(event("small"));
  simulation_.run();

  EXPECT_EQ(sent_, Lines{"/tmp/m.sock small"});
  EXPECT_EQ(simulation_.systemLogLines(), Lines{droppedLine(1)});
  EXPECT_EQ(client->counts().emitted, 2U);
  EXPECT_EQ(client->counts().dropped, 1U);
}

TEST_F(MonitoringClientBound, CountsNothingWithoutAPath) {
  const auto client = make(std::nullopt);
  emitAll(*client, kMany);

  client->updateSocketPath(kPath);
  client->emit(event("signal"));
  simulation_.run();

  EXPECT_EQ(simulation_.systemLogLines(), Lines{});
}

TEST(MonitoringClientOrder, IsThatOfEmitWhateverRunsInBetween) {
  for (std::uint64_t seed = 1; seed <= 50; ++seed) {
    SimulationOptions options;
    options.order = RunOrder::seeded;
    options.seed = seed;
    Simulation simulation(options);
    Lines sent;
    ProxyTunnelMonitoringClient client(
        simulation, "/tmp/m.sock",
        simulation.makeQueue("monitoring", platform::DispatchQueueKind::serial),
        ProxyTunnelMonitoringFrameEncoder(),
        [&sent](const std::string&, std::span<const std::byte> frame) {
          sent.push_back(parseFrame(frame).signal);
          return OptionalError();
        });
    Lines emitted;
    for (int number = 0; number < 20; ++number) {
      emitted.push_back("signal-" + std::to_string(number));
      client.emit(makeEvent(simulation, emitted.back()));
      simulation.post([] {});
    }

    simulation.run();

    ASSERT_EQ(sent, emitted) << "seed " << seed;
  }
}

// --- sendFrameToSocket

class SendFrameToSocket : public testing::Test {
 protected:
  void SetUp() override { sockets().localListening(true); }
  void TearDown() override { EXPECT_EQ(sockets().openDescriptors(), 0U); }

  simulation::SimulatedSockets& sockets() { return simulation_.sockets(); }

  OptionalError send(const std::string& path, std::string_view frame) {
    return ProxyTunnelMonitoringClient::sendFrameToSocket(sockets(), path, bytesOf(frame));
  }

  Lines calls() { return linesOf(sockets().calls()); }

  const std::string openCall_ =
      "socket " + std::to_string(AF_UNIX) + " " + std::to_string(SOCK_STREAM) + " 0";
  Simulation simulation_;
};

TEST_F(SendFrameToSocket, OpensConnectsWritesAndCloses) {
  EXPECT_EQ(send("/tmp/m.sock", "frame"), std::nullopt);

  EXPECT_EQ(calls(), (Lines{openCall_, "connect 13 bytes", "write 5 bytes", "close"}));
  EXPECT_EQ(sockets().localDeliveries(), Lines{"frame"});
}

TEST_F(SendFrameToSocket, MakesAConnectionForEachFrame) {
  send("/tmp/m.sock", "one");
  send("/tmp/m.sock", "two");

  EXPECT_EQ(sockets().localDeliveries(), (Lines{"one", "two"}));
}

TEST_F(SendFrameToSocket, ConnectsToTheLinuxAddressBytes) {
  send("/m", "frame");

  const int family = AF_UNIX;
  EXPECT_EQ(sockets().calls(SocketCallKind::connect).at(0).bytes, bytesOf({family, 0, '/', 'm'}));
}

TEST_F(SendFrameToSocket, ConnectsToTheDarwinAddressBytes) {
  sockets().setAddressLayout(SocketAddressLayout::darwinABI);

  send("/m", "frame");

  const int family = AF_UNIX;
  EXPECT_EQ(sockets().calls(SocketCallKind::connect).at(0).bytes, bytesOf({0, family, '/', 'm'}));
}

TEST_F(SendFrameToSocket, TakesAPathOf103Bytes) {
  EXPECT_EQ(send(std::string(103, 'p'), "frame"), std::nullopt);

  EXPECT_EQ(sockets().calls(SocketCallKind::connect).at(0).bytes.size(), 105U);
}

TEST_F(SendFrameToSocket, RefusesAPathOf104BytesAfterHavingOpenedTheSocket) {
  EXPECT_EQ(send(std::string(104, 'p'), "frame"),
            (Error{"OstravelProxy", 1101, "Monitoring socket path too long"}));

  EXPECT_EQ(calls(), (Lines{openCall_, "close"}));
}

TEST_F(SendFrameToSocket, AcceptsDescriptorZero) {
  sockets().answerNext(SocketCallKind::socket, {0, 0});

  EXPECT_EQ(send("/tmp/m.sock", "frame"), std::nullopt);
}

TEST_F(SendFrameToSocket, FailsWithoutASocketAndClosesNothing) {
  sockets().answerNext(SocketCallKind::socket, {-1, EMFILE});

  EXPECT_EQ(send("/tmp/m.sock", "frame"),
            (Error{"NSPOSIXErrorDomain", EMFILE, "Failed to open monitoring socket"}));
  EXPECT_EQ(calls(), Lines{openCall_});
}

TEST_F(SendFrameToSocket, ReportsAFailureToOpenBeforeAPathThatIsTooLong) {
  sockets().answerNext(SocketCallKind::socket, {-1, EMFILE});

  EXPECT_EQ(send(std::string(104, 'p'), "frame")->code, EMFILE);
}

TEST_F(SendFrameToSocket, FailsWithoutAListener) {
  sockets().localListening(false);

  EXPECT_EQ(send("/tmp/m.sock", "frame"),
            (Error{"NSPOSIXErrorDomain", ECONNREFUSED, "Failed to connect to monitoring socket"}));
  EXPECT_EQ(calls(), (Lines{openCall_, "connect 13 bytes", "close"}));
}

TEST_F(SendFrameToSocket, ContinuesAfterAPartialWrite) {
  sockets().answerNext(SocketCallKind::write, {2, 0});
  sockets().answerNext(SocketCallKind::write, {1, 0});

  EXPECT_EQ(send("/tmp/m.sock", "frames"), std::nullopt);

  EXPECT_EQ(calls(), (Lines{openCall_, "connect 13 bytes", "write 6 bytes", "write 4 bytes",
                            "write 3 bytes", "close"}));
  EXPECT_EQ(sockets().localDeliveries(), Lines{"frames"});
}

TEST_F(SendFrameToSocket, FailsWhenAWriteTakesNothing) {
  sockets().answerNext(SocketCallKind::write, {0, ENOSPC});

  EXPECT_EQ(send("/tmp/m.sock", "frame"),
            (Error{"NSPOSIXErrorDomain", ENOSPC, "Failed to write monitoring frame"}));
  EXPECT_EQ(calls().back(), "close");
}

TEST_F(SendFrameToSocket, WritesNothingOfAnEmptyFrame) {
  EXPECT_EQ(send("/tmp/m.sock", ""), std::nullopt);

  EXPECT_EQ(calls(), (Lines{openCall_, "connect 13 bytes", "close"}));
}

class SendFrameToFailingSocket : public SendFrameToSocket,
                                 public testing::WithParamInterface<int> {};

TEST_P(SendFrameToFailingSocket, FailsWithoutTryingAgain) {
  sockets().answerNext(SocketCallKind::write, {2, 0});
  sockets().answerNext(SocketCallKind::write, {-1, GetParam()});

  EXPECT_EQ(send("/tmp/m.sock", "frame"),
            (Error{"NSPOSIXErrorDomain", GetParam(), "Failed to write monitoring frame"}));
  EXPECT_EQ(calls(),
            (Lines{openCall_, "connect 13 bytes", "write 5 bytes", "write 3 bytes", "close"}));
}

INSTANTIATE_TEST_SUITE_P(Errors, SendFrameToFailingSocket,
                         testing::Values(EPIPE, EINTR, EAGAIN, ECONNRESET));

// --- Both together

class MonitoringClientOverSockets : public testing::Test {
 protected:
  void emit(const std::string& signal) { client_.emit(makeEvent(simulation_, signal)); }

  Simulation simulation_;
  ProxyTunnelMonitoringClient client_{
      simulation_, "/tmp/m.sock",
      simulation_.makeQueue("monitoring", platform::DispatchQueueKind::serial),
      ProxyTunnelMonitoringFrameEncoder()};
};

TEST_F(MonitoringClientOverSockets, DeliversOneObjectPerConnection) {
  simulation_.sockets().localListening(true);

  emit("one");
  emit("two");
  simulation_.run();

  const auto& deliveries = simulation_.sockets().localDeliveries();
  ASSERT_EQ(deliveries.size(), 2U);
  EXPECT_EQ(parseFrame(bytesOf(deliveries[0])).signal, "one");
  EXPECT_EQ(parseFrame(bytesOf(deliveries[1])).signal, "two");
}

TEST_F(MonitoringClientOverSockets, LogsEachEventThatFindsNoListener) {
  emit("one");
  emit("two");
  simulation_.run();

  const std::string line =
      "OstravelProxy monitoring send failed: Error Domain=NSPOSIXErrorDomain Code=" +
      std::to_string(ECONNREFUSED) + " \"Failed to connect to monitoring socket\"";
  const std::string explanation =
      "OstravelProxy monitoring events lost: 1 for /tmp/m.sock: no program listens there";
  EXPECT_EQ(simulation_.systemLogLines(), (Lines{line, explanation, line}));
  EXPECT_EQ(simulation_.logLines(), Lines{});
}

TEST_F(MonitoringClientOverSockets, RetriesWithTheNextEvent) {
  emit("lost");
  simulation_.run();
  simulation_.sockets().localListening(true);

  emit("delivered");
  simulation_.run();

  ASSERT_EQ(simulation_.sockets().localDeliveries().size(), 1U);
  EXPECT_EQ(parseFrame(bytesOf(simulation_.sockets().localDeliveries()[0])).signal, "delivered");
}

}  // namespace
}  // namespace ostravel
