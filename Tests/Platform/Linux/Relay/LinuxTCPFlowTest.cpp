#include "Platform/Linux/Relay/LinuxTCPFlow.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/Kernel/KernelAddress.h"
#include "Platform/Linux/Relay/PipeChunk.h"
#include "Platform/Linux/Relay/RedirectPath.h"
#include "Tests/Platform/Linux/Relay/Support/RelayTest.h"

namespace ostravel::linuxplatform::test {
namespace {

using platform::Data;
using platform::OptionalError;

class LinuxTCPFlowTest : public RelayTest {
 protected:
  // A flow that has been released by a read and waits for its connection.
  struct Released {
    std::shared_ptr<LinuxTCPFlow> flow;
    ApplicationSocket application;
    std::future<ReadOutcome> read;
  };

  Released releaseFlow() {
    ApplicationSocket application(kApplicationIPv4);
    Flow made = makeFlow(application.local());
    auto [completion, future] = readCompletion();
    made.flow->read(std::move(completion));
    EXPECT_EQ(made.verdict->wait(), "redirect 0");
    return {std::move(made.flow), std::move(application), std::move(future)};
  }

  // The address of some application, on any port.
  SocketEndpoint anySource() { return ApplicationSocket(kApplicationIPv4).local(); }
};

TEST_F(LinuxTCPFlowTest, NamesItsApplicationAndItsDestination) {
  const SocketEndpoint source = anySource();
  const Flow made = makeFlow(source);
  const SocketEndpoint destination = tupleOf(source).destination;
  EXPECT_EQ(made.flow->sourceAppSigningIdentifier(), "org.example.browser");
  EXPECT_EQ(made.flow->remoteEndpoint(),
            (platform::HostEndpoint{destination.addressText(), std::to_string(destination.port)}));
}

// There are one of each and two watches for every tunnel, however long it is idle.
TEST_F(LinuxTCPFlowTest, AnIdleTunnelKeepsLittle) {
  EXPECT_LE(sizeof(LinuxTCPFlow), 176U);
  EXPECT_LE(sizeof(LinuxTCPConnection), 136U);
  EXPECT_LE(sizeof(FlowRecord), 136U);
  EXPECT_LE(sizeof(Poller::Watch), 32U);
}

class NamedFlowTest : public LinuxTCPFlowTest {
 protected:
  // A flow to 192.0.2.1 with this name.
  std::shared_ptr<LinuxTCPFlow> makeNamedFlow(FlowName name) {
    return std::make_shared<LinuxTCPFlow>(
        loop(), anySource(),
        recordOf("org.example.browser", *parseAddressLiteral({"192.0.2.1", "443"})),
        std::make_unique<RecordedPacket>(std::make_shared<Verdict>()), nullptr, std::move(name));
  }

  // What a connection that is created when the flow has been opened would ask for; empty if that
  // is not by name.
  std::string openedFor(LinuxTCPFlow& flow) {
    std::promise<std::string> target;
    flow.open(std::nullopt, [&target](const OptionalError& /*error*/) {
      const ConnectByName* const current = ConnectByName::current();
      target.set_value(current != nullptr ? current->named + " " + current->literal : "");
    });
    return waitFor(target.get_future());
  }
};

TEST_F(NamedFlowTest, GoesByItsName) {
  const auto flow = makeNamedFlow({.host = "www.example"});
  const platform::HostEndpoint named{"www.example", "443"};
  EXPECT_EQ(flow->remoteEndpoint(), named);
  EXPECT_EQ(openedFor(*flow), "www.example:443 192.0.2.1:443");
  EXPECT_EQ(flow->remoteEndpoint(), named);
  EXPECT_EQ(onLoop([] { return ConnectByName::current(); }), nullptr);
}

TEST_F(NamedFlowTest, IsOnlyDecidedOnByItsName) {
  const auto flow = makeNamedFlow({.host = "www.example", .isForConnect = false});
  EXPECT_EQ(flow->remoteEndpoint(), (platform::HostEndpoint{"www.example", "443"}));
  EXPECT_EQ(openedFor(*flow), "");
  EXPECT_EQ(flow->remoteEndpoint(), (platform::HostEndpoint{"192.0.2.1", "443"}));
}

TEST_F(LinuxTCPFlowTest, OpenSucceedsWithoutTouchingThePacket) {
  const Flow made = makeFlow(anySource());
  auto [completion, future] = errorCompletion();
  made.flow->open(std::nullopt, std::move(completion));
  EXPECT_FALSE(waitFor(std::move(future)));
  EXPECT_EQ(made.verdict->current(), "");
}

TEST_F(LinuxTCPFlowTest, OpenAfterACloseIsCancelled) {
  const Flow made = makeFlow(anySource());
  made.flow->closeRead(std::nullopt);
  auto [completion, future] = errorCompletion();
  made.flow->open(std::nullopt, std::move(completion));
  const auto error = waitFor(std::move(future));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, ECANCELED);
}

TEST_F(LinuxTCPFlowTest, CompletionsNeverRunInsideTheCall) {
  CarriedFlow carried = carryFlow();
  carried.application.send("there is something to read");
  std::atomic<int> completed = 0;
  onLoop([&] {
    carried.flow->open(std::nullopt, [&](const OptionalError&) { ++completed; });
    carried.flow->read([&](const std::optional<Data>&, const OptionalError&) { ++completed; });
    carried.flow->write(Data::copyOf("some bytes"), [&](const OptionalError&) { ++completed; });
    EXPECT_EQ(completed, 0);
  });
  EXPECT_TRUE(eventually([&] { return completed == 3; }));
  onLoop([&] {
    carried.flow->read([&](const std::optional<Data>&, const OptionalError&) { ++completed; });
    carried.flow->closeRead(std::nullopt);
    carried.flow->closeWrite(std::nullopt);
    carried.flow->write(Data::copyOf("too late"), [&](const OptionalError&) { ++completed; });
    EXPECT_EQ(completed, 3);
  });
  EXPECT_TRUE(eventually([&] { return completed == 5; }));
}

TEST_F(LinuxTCPFlowTest, TheFirstReadReleasesThePacket) {
  const Flow made = makeFlow(anySource());
  made.flow->read(readCompletion().first);
  EXPECT_EQ(made.verdict->wait(), "redirect 0");
}

TEST_F(LinuxTCPFlowTest, LeavesTheFlowIfConnectionsNoLongerArrive) {
  loops_.redirectPath().setUsable(AddressFamily::ipv4, false);
  const Flow made = makeFlow(anySource());
  const ReadOutcome outcome = read(*made.flow);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, ECONNABORTED);
  EXPECT_EQ(made.verdict->current(), "accept");
  const auto error = write(*made.flow, "x");
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, ECONNABORTED);
}

TEST_F(LinuxTCPFlowTest, TheFirstWriteReleasesThePacketAndArrives) {
  ApplicationSocket application(kApplicationIPv4);
  const Flow made = makeFlow(application.local());
  auto [completion, future] = errorCompletion();
  made.flow->write(Data::copyOf("hello"), std::move(completion));
  EXPECT_EQ(made.verdict->wait(), "redirect 0");
  EXPECT_EQ(arrive(application), 0);
  EXPECT_FALSE(waitFor(std::move(future)));
  EXPECT_EQ(application.receive(5).bytes, "hello");
}

TEST_F(LinuxTCPFlowTest, AnEmptyWriteSucceeds) {
  const CarriedFlow carried = carryFlow();
  EXPECT_FALSE(write(*carried.flow, ""));
}

TEST_F(LinuxTCPFlowTest, AWriteOfMissingBytesFails) {
  const CarriedFlow carried = carryFlow();
  auto chunk = onLoop([this] {
    auto pipe = loop().pipes().take(nullptr);
    EXPECT_TRUE(pipe);
    // An empty pipe without a writer is at its end.
    pipe->writeEnd = FileDescriptor();
    return std::make_unique<PipeChunk>(loop().pipes(), *std::move(pipe), 10);
  });
  auto [completion, future] = errorCompletion();
  carried.flow->write(Data(std::move(chunk)), std::move(completion));
  const auto error = waitFor(std::move(future));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, EIO);
}

TEST_F(LinuxTCPFlowTest, CarriesBytesOverIPv6) {
  ApplicationSocket application(kApplicationIPv6);
  const Flow made = makeFlow(application.local());
  auto [completion, future] = readCompletion();
  made.flow->read(std::move(completion));
  made.verdict->wait();
  ASSERT_EQ(arrive(application), 0);
  application.send("over IPv6");
  EXPECT_EQ(waitFor(std::move(future)).bytes, "over IPv6");
}

TEST_F(LinuxTCPFlowTest, ACloseBeforeTheReleaseRefuses) {
  const std::vector<std::function<void(LinuxTCPFlow&)>> closes{
      [](LinuxTCPFlow& flow) { flow.closeRead(std::nullopt); },
      [](LinuxTCPFlow& flow) { flow.closeWrite(std::nullopt); }};
  for (const auto& close : closes) {
    const Flow made = makeFlow(anySource());
    close(*made.flow);
    EXPECT_EQ(made.verdict->wait(), "refuse");
  }
}

TEST_F(LinuxTCPFlowTest, ACloseWithAnErrorBeforeTheReleaseLeavesTheFlow) {
  const std::vector<std::function<void(LinuxTCPFlow&)>> closes{
      [](LinuxTCPFlow& flow) { flow.closeRead(someError()); },
      [](LinuxTCPFlow& flow) { flow.closeWrite(someError()); }};
  for (const auto& close : closes) {
    const Flow made = makeFlow(anySource());
    close(*made.flow);
    EXPECT_EQ(made.verdict->wait(), "accept");
  }
}

TEST_F(LinuxTCPFlowTest, AReadAfterAHeldFlowHasEndedIsCancelled) {
  const std::vector<std::pair<platform::OptionalError, std::string>> ends{{std::nullopt, "refuse"},
                                                                          {someError(), "accept"}};
  for (const auto& [error, verdict] : ends) {
    const Flow made = makeFlow(anySource());
    made.flow->closeRead(error);
    const auto outcome = read(*made.flow);
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->code, ECANCELED);
    EXPECT_EQ(made.verdict->current(), verdict);
  }
}

TEST_F(LinuxTCPFlowTest, ARefusalOutlivesItsFlow) {
  Flow made = makeFlow(anySource());
  made.flow->closeRead(std::nullopt);
  made.flow.reset();
  EXPECT_EQ(made.verdict->wait(), "refuse");
}

TEST_F(LinuxTCPFlowTest, DestructionBeforeTheReleaseLeavesTheFlow) {
  Flow made = makeFlow(anySource());
  made.flow.reset();
  EXPECT_EQ(made.verdict->current(), "accept");
}

TEST_F(LinuxTCPFlowTest, ReportsAnAbandonedConnectionAndResetsALateOne) {
  Released released = releaseFlow();
  auto [completion, written] = errorCompletion();
  const auto start = std::chrono::steady_clock::now();
  released.flow->write(Data::copyOf("hello"), std::move(completion));

  const auto outcome = waitFor(std::move(released.read));
  EXPECT_GE(std::chrono::steady_clock::now() - start, limits::kAcceptTimeout - 100ms);
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, ETIMEDOUT);
  EXPECT_NE(outcome.error->localizedDescription.find("application gave up"), std::string::npos);
  EXPECT_EQ(waitFor(std::move(written)), outcome.error);
  EXPECT_EQ(read(*released.flow).error, outcome.error);

  ASSERT_EQ(arrive(released.application), 0);
  EXPECT_EQ(released.application.receiveToEnd().error, ECONNRESET);
}

TEST_F(LinuxTCPFlowTest, AConnectionThatArrivesTwiceIsResetTheSecondTime) {
  CarriedFlow carried = carryFlow();
  const std::uint16_t port = carried.application.local().port;
  carried.application.reset();
  ApplicationSocket again(kApplicationIPv4, port);
  ASSERT_EQ(arrive(again), 0);
  EXPECT_EQ(again.receiveToEnd().error, ECONNRESET);
}

TEST_F(LinuxTCPFlowTest, DeliversTheEndOfTheStreamRepeatedly) {
  CarriedFlow carried = carryFlow();
  carried.application.send("last words");
  carried.application.endSending();
  EXPECT_EQ(read(*carried.flow).bytes, "last words");
  EXPECT_TRUE(read(*carried.flow).isEnd());
  EXPECT_TRUE(read(*carried.flow).isEnd());
}

TEST_F(LinuxTCPFlowTest, AReadSeesTheApplicationsReset) {
  CarriedFlow carried = carryFlow();
  auto [completion, future] = readCompletion();
  carried.flow->read(std::move(completion));
  carried.application.reset();
  const auto outcome = waitFor(std::move(future));
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, ECONNRESET);
  EXPECT_EQ(outcome.error->domain, platform::kPOSIXErrorDomain);
}

TEST_F(LinuxTCPFlowTest, AFailedWriteIsNotFollowedByAnOrderlyEnd) {
  CarriedFlow carried = carryFlow();
  carried.application.reset();
  // The kernel reports the reset to only one call.
  ASSERT_TRUE(eventually([&] { return true; }));
  OptionalError failed;
  while (!failed) {
    failed = write(*carried.flow, "into the void");
  }
  const auto outcome = read(*carried.flow);
  EXPECT_TRUE(outcome.error);
  EXPECT_FALSE(outcome.isEnd());
}

// Counts the resets of connections that have arrived.
class ResetWatcher final : public RedirectPath::Watcher {
 public:
  void connectionIsMissing(unsigned /*loopIndex*/, const FlowTuple& /*tuple*/) override {}
  void connectionWillBeReset(const FlowTuple& tuple) override { reset_.push_back(tuple); }
  void connectionsCannotBeAccepted(unsigned /*loopIndex*/, AddressFamily /*family*/,
                                   int /*error*/) override {}

  std::vector<FlowTuple> reset_;
};

TEST_F(LinuxTCPFlowTest, AnnouncesResets) {
  const auto watcher = std::make_shared<ResetWatcher>();
  loops_.redirectPath().setWatcher(watcher);
  CarriedFlow closed = carryFlow();
  CarriedFlow destroyed = carryFlow();
  CarriedFlow ended = carryFlow();
  onLoop([&] {
    closed.flow->closeRead(platform::posixError(ETIMEDOUT, "too late"));
    closed.flow->closeWrite(platform::posixError(ETIMEDOUT, "too late"));
  });
  EXPECT_EQ(watcher->reset_, std::vector{tupleOf(closed.application.local())});
  onLoop([&] { destroyed.flow.reset(); });
  EXPECT_EQ(watcher->reset_, (std::vector{tupleOf(closed.application.local()),
                                          tupleOf(destroyed.application.local())}));
  onLoop([&] {
    ended.flow->closeRead(std::nullopt);
    ended.flow->closeWrite(std::nullopt);
    ended.flow.reset();
    closed.flow.reset();
  });
  EXPECT_EQ(watcher->reset_.size(), 2U);
}

TEST_F(LinuxTCPFlowTest, ClosingBothDirectionsEndsInOrder) {
  CarriedFlow carried = carryFlow();
  EXPECT_FALSE(write(*carried.flow, "all of it"));
  carried.flow->closeRead(std::nullopt);
  carried.flow->closeWrite(std::nullopt);
  const auto received = carried.application.receiveToEnd();
  EXPECT_EQ(received.bytes, "all of it");
  EXPECT_EQ(received.error, 0);
}

TEST_F(LinuxTCPFlowTest, AnOrderlyCloseOutlivesItsFlow) {
  CarriedFlow carried = carryFlow();
  EXPECT_FALSE(write(*carried.flow, "all of it"));
  carried.flow->closeRead(std::nullopt);
  carried.flow->closeWrite(std::nullopt);
  carried.flow.reset();
  const auto received = carried.application.receiveToEnd();
  EXPECT_EQ(received.bytes, "all of it");
  EXPECT_EQ(received.error, 0);
}

TEST_F(LinuxTCPFlowTest, ClosingTheWriteDirectionLeavesReading) {
  CarriedFlow carried = carryFlow();
  carried.flow->closeWrite(std::nullopt);
  EXPECT_EQ(carried.application.receiveToEnd().error, 0);
  carried.application.send("still heard");
  EXPECT_EQ(read(*carried.flow).bytes, "still heard");
  const auto error = write(*carried.flow, "not any more");
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, ECANCELED);
}

TEST_F(LinuxTCPFlowTest, ClosingTheReadDirectionDiscardsAndLeavesWriting) {
  CarriedFlow carried = carryFlow();
  auto [completion, future] = readCompletion();
  carried.flow->read(std::move(completion));
  carried.flow->closeRead(std::nullopt);
  const auto outcome = waitFor(std::move(future));
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, ECANCELED);

  // More than the kernel buffers, so that it would stall unless it were discarded.
  carried.application.send(std::string(32 * 1024 * 1024, 'd'));
  EXPECT_TRUE(eventually([&] { return loop().counters().discardedBytes == 32 * 1024 * 1024; }));
  EXPECT_FALSE(write(*carried.flow, "still said"));
  EXPECT_EQ(carried.application.receive(10).bytes, "still said");
}

TEST_F(LinuxTCPFlowTest, ClosingTheReadDirectionBetweenReadsDiscardsToo) {
  CarriedFlow carried = carryFlow();
  carried.flow->closeRead(std::nullopt);
  carried.application.send(std::string(32 * 1024 * 1024, 'd'));
  EXPECT_FALSE(write(*carried.flow, "still said"));
  EXPECT_EQ(carried.application.receive(10).bytes, "still said");
}

TEST_F(LinuxTCPFlowTest, ClosingEitherDirectionWithAnErrorResets) {
  for (const bool closesRead : {true, false}) {
    CarriedFlow carried = carryFlow();
    auto [completion, future] = readCompletion();
    carried.flow->read(std::move(completion));
    if (closesRead) {
      carried.flow->closeRead(someError());
    } else {
      carried.flow->closeWrite(someError());
    }
    const auto outcome = waitFor(std::move(future));
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->code, ECANCELED);
    EXPECT_EQ(carried.application.receiveToEnd().error, ECONNRESET);
  }
}

TEST_F(LinuxTCPFlowTest, ASecondCloseOfADirectionHasNoEffect) {
  CarriedFlow carried = carryFlow();
  carried.flow->closeRead(std::nullopt);
  carried.flow->closeRead(someError());
  EXPECT_FALSE(write(*carried.flow, "intact"));
  carried.flow->closeWrite(std::nullopt);
  carried.flow->closeWrite(someError());
  const auto received = carried.application.receiveToEnd();
  EXPECT_EQ(received.bytes, "intact");
  EXPECT_EQ(received.error, 0);
}

TEST_F(LinuxTCPFlowTest, ClosedWithAnErrorBetweenReleaseAndArrivalResets) {
  Released released = releaseFlow();
  released.flow->closeRead(someError());
  released.flow->closeWrite(someError());
  const auto outcome = waitFor(std::move(released.read));
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, ECANCELED);
  ASSERT_EQ(arrive(released.application), 0);
  EXPECT_EQ(released.application.receiveToEnd().error, ECONNRESET);
}

TEST_F(LinuxTCPFlowTest, ClosedInOrderBetweenReleaseAndArrivalEndsInOrder) {
  Released released = releaseFlow();
  released.flow->closeRead(std::nullopt);
  released.flow->closeWrite(std::nullopt);
  EXPECT_EQ(waitFor(std::move(released.read)).error->code, ECANCELED);
  released.flow.reset();
  ASSERT_EQ(arrive(released.application), 0);
  const auto received = released.application.receiveToEnd();
  EXPECT_EQ(received.error, 0);
  EXPECT_EQ(received.bytes, "");
}

TEST_F(LinuxTCPFlowTest, AWriteDirectionClosedBeforeTheArrivalIsClosedOnIt) {
  Released released = releaseFlow();
  released.flow->closeWrite(std::nullopt);
  ASSERT_EQ(arrive(released.application), 0);
  EXPECT_EQ(released.application.receiveToEnd().error, 0);
  released.application.send("still heard");
  EXPECT_EQ(waitFor(std::move(released.read)).bytes, "still heard");
}

TEST_F(LinuxTCPFlowTest, DestructionBetweenReleaseAndArrivalResets) {
  Released released = releaseFlow();
  released.flow.reset();
  ASSERT_EQ(arrive(released.application), 0);
  EXPECT_EQ(released.application.receiveToEnd().error, ECONNRESET);
}

TEST_F(LinuxTCPFlowTest, DestructionWithoutCloseResets) {
  CarriedFlow carried = carryFlow();
  EXPECT_FALSE(write(*carried.flow, "half of it"));
  EXPECT_EQ(carried.application.receive(10).bytes, "half of it");
  carried.flow.reset();
  EXPECT_EQ(carried.application.receiveToEnd().error, ECONNRESET);
}

TEST_F(LinuxTCPFlowTest, DestructionCancelsOutstandingOperations) {
  CarriedFlow carried = carryFlow();
  auto cancelled = std::make_shared<std::atomic<int>>(0);
  const auto onDone = [cancelled](const OptionalError& error) {
    *cancelled += error && error->code == ECANCELED ? 1 : 0;
  };
  const auto onRead = [onDone](const std::optional<Data>&, const OptionalError& error) {
    onDone(error);
  };
  onLoop([&] {
    carried.flow->open(std::nullopt, onDone);
    carried.flow->read(onRead);
    carried.flow->write(Data::copyOf("done at once, reported later"), onDone);
    carried.flow.reset();
  });
  // The objects held by the completions are released as well.
  EXPECT_TRUE(eventually([&] { return cancelled.use_count() == 3; }));
  EXPECT_EQ(*cancelled, 3);
}

TEST_F(LinuxTCPFlowTest, ReturnsItsDescriptors) {
  const std::size_t before = budget_.inUse();
  CarriedFlow carried = carryFlow();
  EXPECT_EQ(budget_.inUse(), before + 1);
  // The completion of its read may still hold it.
  drain();
  carried.flow.reset();
  EXPECT_EQ(budget_.inUse(), before);
}

// The SYN of an application that connects as soon as its packet is released, as over loopback.
class ConnectingPacket final : public HeldPacket {
 public:
  explicit ConnectingPacket(std::function<void()> connect) : connect_(std::move(connect)) {}

  void accept() override {}
  void redirect(unsigned /*loopIndex*/) override { connect_(); }
  void refuse() override {}

 private:
  const std::function<void()> connect_;
};

TEST_F(LinuxTCPFlowTest, AcceptsItsConnectionDirectlyAfterTheRelease) {
  for (const char* const source : {kApplicationIPv4, kApplicationIPv6}) {
    ApplicationSocket application(source);
    const auto flow = std::make_shared<LinuxTCPFlow>(
        loop(), application.local(),
        recordOf("org.example.browser", tupleOf(application.local()).destination),
        std::make_unique<ConnectingPacket>([&] { EXPECT_EQ(arrive(application), 0); }));
    auto [onRead, read] = readCompletion();
    onLoop([&, completion = std::move(onRead)] {
      flow->read(completion);
      // Bytes that are written before the connection is accepted would stay here for now.
      flow->write(Data::copyOf("now"), [](const OptionalError& /*error*/) {});
      EXPECT_EQ(application.receive(3).bytes, "now");
    });
    application.send("x");
    EXPECT_EQ(waitFor(std::move(read)).bytes, "x");
  }
}

using LinuxTCPFlowDeathTest = LinuxTCPFlowTest;

TEST_F(LinuxTCPFlowDeathTest, OverlappingReadsOrWritesAreAProgrammingError) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        CarriedFlow carried = carryFlow();
        carried.flow->read(readCompletion().first);
        carried.flow->read(readCompletion().first);
        drain();
      },
      "a read of a stream that is being read");
  EXPECT_DEATH(
      {
        const Flow made = makeFlow(anySource());
        made.flow->write(Data::copyOf("a"), errorCompletion().first);
        made.flow->write(Data::copyOf("b"), errorCompletion().first);
        drain();
      },
      "a write to a stream that is being written to");
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
