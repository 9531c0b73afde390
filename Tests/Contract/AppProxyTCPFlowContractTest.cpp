#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Platform/Interface/AppProxyTCPFlow.h"
#include "Tests/Contract/ContractTest.h"
#include "Tests/Contract/StreamContractTest.h"
#include "Tests/Support/Outcome.h"

namespace ostravel::contract {
namespace {

const platform::Error kError{"OstravelProxy", 1002, "Proxy CONNECT handshake timed out"};

class AppProxyTCPFlowContractTest : public StreamContractTest {
 protected:
  void startReading(platform::ReadCompletion completion) override {
    flow_->read(std::move(completion));
  }
  void startWriting(platform::Data data, platform::ErrorCompletion completion) override {
    flow_->write(std::move(data), std::move(completion));
  }
  bool applicationSawSomeEnd() const { return sawSomeEnd(*application_); }

  void open() {
    Outcome opened;
    flow_->open(std::nullopt, opened.completion());
    ASSERT_TRUE(waitUntil([&] { return opened.isDone(); }));
    ASSERT_FALSE(opened.error());
  }

  // A first exchange, after which the application is connected on every platform.
  void exchange() {
    open();
    application_->send("ping");
    ASSERT_EQ(readAll(4), "ping");
    ASSERT_FALSE(write("pong"));
    ASSERT_TRUE(waitUntil([&] { return application_->received() == "pong"; }));
  }
  void close(const platform::OptionalError& error) {
    flow_->closeRead(error);
    flow_->closeWrite(error);
  }

  FlowEnds ends_ = environment_->makeFlow("com.example.app");
  std::shared_ptr<platform::AppProxyTCPFlow> flow_ = std::move(ends_.flow);
  const std::shared_ptr<ContractPeer> application_ = std::move(ends_.application);
};

TEST_P(AppProxyTCPFlowContractTest, HasItsIdentifierAndItsRemoteEndpoint) {
  EXPECT_EQ(flow_->sourceAppSigningIdentifier(), "com.example.app");
  EXPECT_EQ(flow_->remoteEndpoint(), kDestination);
}

TEST_P(AppProxyTCPFlowContractTest, OpensOnceAndNotInsideTheCall) {
  Outcome opened;
  CallInProgress::run([&] { flow_->open(std::nullopt, opened.completion()); });
  ASSERT_TRUE(waitUntil([&] { return opened.isDone(); }));
  environment_->settle();
  EXPECT_EQ(opened.count(), 1);
  EXPECT_FALSE(opened.error());
  EXPECT_FALSE(opened.ranInsideCall());
}

TEST_P(AppProxyTCPFlowContractTest, ReadsWhatTheApplicationHasSent) {
  open();
  application_->send("hello");
  EXPECT_EQ(readAll(5), "hello");
}

TEST_P(AppProxyTCPFlowContractTest, AReadThatCanCompleteAtOnceDoesNotInsideTheCall) {
  exchange();
  application_->send("hello");
  environment_->settle();
  Outcome outcome;
  CallInProgress::run([&] { flow_->read(outcome.readCompletion()); });
  ASSERT_TRUE(waitUntil([&] { return outcome.isDone(); }));
  environment_->settle();
  EXPECT_FALSE(outcome.ranInsideCall());
  EXPECT_EQ(outcome.count(), 1);
}

TEST_P(AppProxyTCPFlowContractTest, AReadWaitsForBytes) {
  exchange();
  Outcome outcome;
  flow_->read(outcome.readCompletion());
  environment_->settle();
  EXPECT_EQ(outcome.count(), 0);
  application_->send("x");
  ASSERT_TRUE(waitUntil([&] { return outcome.isDone(); }));
  EXPECT_EQ(outcome.text(), "x");
  EXPECT_FALSE(outcome.error());
}

TEST_P(AppProxyTCPFlowContractTest, TheEndComesAfterTheBytes) {
  open();
  application_->send("last words");
  application_->endSending();
  EXPECT_EQ(readAll(10), "last words");
  EXPECT_TRUE(read().isEnd());
}

TEST_P(AppProxyTCPFlowContractTest, TheEndIsReportedAgain) {
  open();
  application_->endSending();
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(read().isEnd());
  }
}

TEST_P(AppProxyTCPFlowContractTest, WritesReachTheApplication) {
  open();
  Outcome outcome;
  CallInProgress::run([&] { flow_->write(platform::Data::copyOf("hello"), outcome.completion()); });
  ASSERT_TRUE(waitUntil([&] { return outcome.isDone(); }));
  ASSERT_TRUE(waitUntil([&] { return application_->received() == "hello"; }));
  environment_->settle();
  EXPECT_EQ(outcome.count(), 1);
  EXPECT_FALSE(outcome.error());
  EXPECT_FALSE(outcome.ranInsideCall());
}

TEST_P(AppProxyTCPFlowContractTest, WritesArriveInOrder) {
  open();
  std::string sent;
  for (int i = 0; i < 200; ++i) {
    const auto piece = std::to_string(i) + ",";
    sent += piece;
    ASSERT_FALSE(write(piece));
  }
  EXPECT_TRUE(waitUntil([&] { return application_->received() == sent; }));
}

TEST_P(AppProxyTCPFlowContractTest, AWriteLargerThanAnyBufferArrivesWhole) {
  open();
  const auto sent = patternBytes(kLarge);
  ASSERT_FALSE(write(sent));
  ASSERT_TRUE(waitUntil([&] { return application_->receivedCount() == sent.size(); }));
  EXPECT_TRUE(application_->received() == sent);
}

TEST_P(AppProxyTCPFlowContractTest, ManyBytesAreReadExactly) {
  open();
  const auto sent = patternBytes(kLarge);
  application_->send(sent);
  application_->endSending();
  EXPECT_TRUE(readAll(sent.size()) == sent);
  EXPECT_TRUE(read().isEnd());
}

TEST_P(AppProxyTCPFlowContractTest, AReadAndAWriteMayBeOutstandingTogether) {
  exchange();
  Outcome outcome;
  flow_->read(outcome.readCompletion());
  EXPECT_FALSE(write("while a read waits"));
  EXPECT_EQ(outcome.count(), 0);
  application_->send("now");
  ASSERT_TRUE(waitUntil([&] { return outcome.isDone(); }));
  EXPECT_EQ(outcome.text().front(), 'n');
}

TEST_P(AppProxyTCPFlowContractTest, ASecondReadIsAProgrammingError) {
  exchange();
  expectSecondReadToBeRefused();
}

TEST_P(AppProxyTCPFlowContractTest, ASecondWriteIsAProgrammingError) {
  exchange();
  application_->stopReceiving();
  expectSecondWriteToBeRefused();
}

TEST_P(AppProxyTCPFlowContractTest, AResetOfTheApplicationFailsTheRead) {
  exchange();
  Outcome outcome;
  flow_->read(outcome.readCompletion());
  application_->reset();
  ASSERT_TRUE(waitUntil([&] { return outcome.isDone(); }));
  EXPECT_TRUE(outcome.error());
  environment_->settle();
  EXPECT_EQ(outcome.count(), 1);
}

TEST_P(AppProxyTCPFlowContractTest, AResetOfTheApplicationFailsTheWrite) {
  exchange();
  application_->stopReceiving();
  application_->reset();
  environment_->settle();
  // Writes before the arrival of the reset still succeed, and a busy kernel may take a while.
  constexpr int kPatience = 10'000;
  platform::OptionalError error;
  for (int attempt = 0; !error && attempt < kPatience; ++attempt) {
    error = write("too late");
  }
  EXPECT_TRUE(error);
}

TEST_P(AppProxyTCPFlowContractTest, AnOrderlyCloseIsAnEndForTheApplication) {
  exchange();
  close(std::nullopt);
  ASSERT_TRUE(waitUntil([&] { return applicationSawSomeEnd(); }));
  EXPECT_TRUE(application_->sawEnd());
  EXPECT_FALSE(application_->sawReset());
}

TEST_P(AppProxyTCPFlowContractTest, AnOrderlyCloseLosesNothingThatWasAcknowledged) {
  exchange();
  application_->stopReceiving();
  const auto acknowledged = writeAcknowledged(256 * 1024);
  close(std::nullopt);
  flow_.reset();
  application_->resumeReceiving();
  ASSERT_TRUE(waitUntil([&] { return applicationSawSomeEnd(); }));
  EXPECT_FALSE(application_->sawReset());
  EXPECT_TRUE(application_->received() == "pong" + acknowledged);
}

TEST_P(AppProxyTCPFlowContractTest, UnreadBytesDoNotMakeAnOrderlyCloseAReset) {
  exchange();
  application_->send(patternBytes(kLarge));
  environment_->settle();
  ASSERT_FALSE(write("answer before the request was read"));
  close(std::nullopt);
  ASSERT_TRUE(waitUntil([&] { return applicationSawSomeEnd(); }));
  EXPECT_TRUE(application_->sawEnd());
  EXPECT_FALSE(application_->sawReset());
  EXPECT_EQ(application_->received(), "ponganswer before the request was read");
}

TEST_P(AppProxyTCPFlowContractTest, ACloseWithAnErrorIsAResetForTheApplication) {
  exchange();
  close(kError);
  ASSERT_TRUE(waitUntil([&] { return applicationSawSomeEnd(); }));
  EXPECT_TRUE(application_->sawReset());
}

TEST_P(AppProxyTCPFlowContractTest, ACloseWithAnErrorGivesAHeldFlowBackAndResetsAnyOther) {
  open();
  close(kError);
  ASSERT_TRUE(
      waitUntil([&] { return application_->sawReset() || application_->wasLeftToSystem(); }));
  environment_->settle();
  EXPECT_EQ(application_->wasLeftToSystem(), environment_->holdsFirstPacket());
  EXPECT_EQ(application_->sawReset(), !environment_->holdsFirstPacket());
  EXPECT_FALSE(application_->sawEnd());
  EXPECT_EQ(application_->received(), "");
}

TEST_P(AppProxyTCPFlowContractTest, ACloseWithoutAnErrorGivesNothingBack) {
  open();
  close(std::nullopt);
  ASSERT_TRUE(waitUntil([&] { return applicationSawSomeEnd(); }));
  close(kError);
  environment_->settle();
  EXPECT_FALSE(application_->wasLeftToSystem());
}

TEST_P(AppProxyTCPFlowContractTest, AFlowThatWasGivenBackTransfersNothing) {
  open();
  close(kError);
  close(std::nullopt);
  EXPECT_TRUE(read().error());
  EXPECT_TRUE(write("late"));
  environment_->settle();
  EXPECT_EQ(application_->wasLeftToSystem(), environment_->holdsFirstPacket());
  EXPECT_EQ(application_->received(), "");
}

TEST_P(AppProxyTCPFlowContractTest, NothingIsGivenBackAfterTheFirstRead) {
  open();
  Outcome outcome;
  flow_->read(outcome.readCompletion());
  environment_->settle();
  close(kError);
  ASSERT_TRUE(waitUntil([&] { return application_->sawReset(); }));
  EXPECT_FALSE(application_->wasLeftToSystem());
}

TEST_P(AppProxyTCPFlowContractTest, OneDirectionMayBeClosedBeforeTheOther) {
  exchange();
  flow_->closeRead(std::nullopt);
  ASSERT_FALSE(write("still written"));
  EXPECT_TRUE(waitUntil([&] { return application_->received() == "pongstill written"; }));
  flow_->closeWrite(std::nullopt);
  EXPECT_TRUE(waitUntil([&] { return application_->sawEnd(); }));
}

TEST_P(AppProxyTCPFlowContractTest, ReadingContinuesAfterWritingHasEnded) {
  exchange();
  flow_->closeWrite(std::nullopt);
  ASSERT_TRUE(waitUntil([&] { return application_->sawEnd(); }));
  application_->send("still read");
  EXPECT_EQ(readAll(10), "still read");
  flow_->closeRead(std::nullopt);
  environment_->settle();
  EXPECT_FALSE(application_->sawReset());
}

TEST_P(AppProxyTCPFlowContractTest, LaterClosesHaveNoEffect) {
  exchange();
  close(std::nullopt);
  close(kError);
  ASSERT_TRUE(waitUntil([&] { return applicationSawSomeEnd(); }));
  environment_->settle();
  EXPECT_FALSE(application_->sawReset());
}

TEST_P(AppProxyTCPFlowContractTest, ClosingEndsAnOutstandingReadWithAnError) {
  for (const auto& error : {platform::OptionalError{}, platform::OptionalError{kError}}) {
    auto ends = environment_->makeFlow("com.example.other");
    flow_ = std::move(ends.flow);
    open();
    Outcome outcome;
    flow_->read(outcome.readCompletion());
    environment_->settle();
    ASSERT_EQ(outcome.count(), 0);
    CallInProgress::run([&] { close(error); });
    ASSERT_TRUE(waitUntil([&] { return outcome.isDone(); }));
    environment_->settle();
    EXPECT_EQ(outcome.count(), 1);
    EXPECT_TRUE(outcome.error());
    EXPECT_FALSE(outcome.ranInsideCall());
  }
}

TEST_P(AppProxyTCPFlowContractTest, ClosingEndsAnOutstandingWriteOnce) {
  exchange();
  application_->stopReceiving();
  Outcome outcome;
  flow_->write(platform::Data::copyOf(std::string(kLarge * 4, 'x')), outcome.completion());
  close(kError);
  ASSERT_TRUE(waitUntil([&] { return outcome.isDone(); }));
  environment_->settle();
  EXPECT_EQ(outcome.count(), 1);
  EXPECT_TRUE(outcome.error());
  application_->resumeReceiving();
  EXPECT_TRUE(waitUntil([&] { return application_->sawReset(); }));
}

TEST_P(AppProxyTCPFlowContractTest, NothingIsTransferredAfterClosing) {
  for (const auto& error : {platform::OptionalError{}, platform::OptionalError{kError}}) {
    auto ends = environment_->makeFlow("com.example.other");
    flow_ = std::move(ends.flow);
    open();
    ends.application->send("ping");
    ASSERT_EQ(readAll(4), "ping");
    close(error);
    EXPECT_TRUE(read().error());
    EXPECT_TRUE(write("late"));
    ASSERT_TRUE(
        waitUntil([&] { return ends.application->sawEnd() || ends.application->sawReset(); }));
    EXPECT_EQ(ends.application->received(), "");
  }
}

TEST_P(AppProxyTCPFlowContractTest, DestructionCompletesWhatIsOutstandingOnce) {
  exchange();
  Outcome reading;
  Outcome writing;
  application_->stopReceiving();
  startBoth(reading, writing);
  CallInProgress::run([&] { flow_.reset(); });
  application_->resumeReceiving();
  ASSERT_TRUE(waitUntil([&] { return applicationSawSomeEnd(); }));
  expectBothToHaveFailed(reading, writing);
  // Not closed, and something was carried.
  EXPECT_TRUE(application_->sawReset());
}

TEST_P(AppProxyTCPFlowContractTest, DestructionDuringOpenCompletesItOnce) {
  Outcome opening;
  CallInProgress::run([&] {
    flow_->open(std::nullopt, opening.completion());
    flow_.reset();
  });
  ASSERT_TRUE(waitUntil([&] { return opening.isDone(); }));
  environment_->settle();
  EXPECT_EQ(opening.count(), 1);
  EXPECT_FALSE(opening.ranInsideCall());
}

TEST_P(AppProxyTCPFlowContractTest, DestroyedUnopenedItIsLeftToTheSystem) {
  flow_.reset();
  EXPECT_TRUE(waitUntil([&] { return application_->wasLeftToSystem(); }));
  EXPECT_FALSE(application_->sawReset());
}

TEST_P(AppProxyTCPFlowContractTest, DestroyedAfterOpeningOnlyAHeldFlowIsLeftToTheSystem) {
  open();
  flow_.reset();
  ASSERT_TRUE(
      waitUntil([&] { return application_->wasLeftToSystem() || application_->sawReset(); }));
  environment_->settle();
  EXPECT_EQ(application_->wasLeftToSystem(), environment_->holdsFirstPacket());
}

TEST_P(AppProxyTCPFlowContractTest, ACompletionMayHoldTheLastReference) {
  exchange();
  Outcome outcome;
  auto completion = outcome.readCompletion();
  auto& flow = *flow_;
  flow.read([held = std::move(flow_), completion = std::move(completion)](
                std::optional<platform::Data> data, platform::OptionalError error) mutable {
    held->closeRead(std::nullopt);
    held->closeWrite(std::nullopt);
    held.reset();
    completion(std::move(data), std::move(error));
  });
  application_->send("x");
  ASSERT_TRUE(waitUntil([&] { return outcome.isDone(); }));
  EXPECT_EQ(outcome.text(), "x");
  EXPECT_TRUE(waitUntil([&] { return application_->sawEnd(); }));
}

TEST_P(AppProxyTCPFlowContractTest, ACompletionReleasesWhatItHolds) {
  exchange();
  auto held = std::make_shared<int>(0);
  const std::weak_ptr<int> weakHeld = held;
  flow_->read([held](const auto&, const auto&) {});
  flow_->write(platform::Data::copyOf("x"), [held = std::move(held)](const auto&) {});
  application_->send("y");
  EXPECT_TRUE(waitUntil([&] { return weakHeld.expired(); }));
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Contract, AppProxyTCPFlowContractTest,
                         ::testing::ValuesIn(contractPlatforms()), platformName);

}  // namespace ostravel::contract
