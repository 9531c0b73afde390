#include "Platform/Simulation/SimulatedTCPFlow.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Platform/Simulation/SimulatedError.h"
#include "Platform/Simulation/Simulation.h"
#include "Tests/Support/Outcome.h"

namespace ostravel::simulation {
namespace {

using testing::Outcome;

using Lines = std::vector<std::string>;

class SimulatedTCPFlowTest : public ::testing::Test {
 protected:
  void open() {
    flow_->open(std::nullopt, opened_.completion());
    simulation_.run();
  }

  Simulation simulation_;
  std::shared_ptr<SimulatedTCPFlow> flow_ =
      simulation_.makeTCPFlow("com.example.app", {{"example.com", "443"}});
  const std::shared_ptr<SimulatedPeer> application_ = flow_->application();
  Outcome opened_;
  Outcome read_;
  Outcome written_;
};

const platform::Error kError{"Domain", 7, "reason"};

TEST_F(SimulatedTCPFlowTest, HasIdentifierAndEndpoint) {
  EXPECT_EQ(flow_->sourceAppSigningIdentifier(), "com.example.app");
  EXPECT_EQ(flow_->remoteEndpoint(), (platform::HostEndpoint{"example.com", "443"}));
  EXPECT_FALSE(simulation_.makeTCPFlow("x", std::nullopt)->remoteEndpoint());
}

TEST_F(SimulatedTCPFlowTest, FlowsAreNumbered) {
  EXPECT_EQ(flow_->name(), "flow 1");
  EXPECT_EQ(simulation_.makeTCPFlow("x", std::nullopt)->name(), "flow 2");
}

TEST_F(SimulatedTCPFlowTest, OpensThroughTheRunQueue) {
  EXPECT_FALSE(flow_->openWasRequested());
  flow_->open({{"192.0.2.1", "1"}}, opened_.completion());
  EXPECT_EQ(opened_.count(), 0);
  simulation_.run();
  EXPECT_EQ(opened_.count(), 1);
  EXPECT_FALSE(opened_.error());
  EXPECT_TRUE(flow_->openWasRequested());
  EXPECT_EQ(flow_->requestedLocalEndpoint(), (platform::HostEndpoint{"192.0.2.1", "1"}));
}

TEST_F(SimulatedTCPFlowTest, OpeningFailsOnRequest) {
  flow_->failOpen(kError);
  open();
  EXPECT_EQ(opened_.count(), 1);
  EXPECT_EQ(opened_.error(), kError);
  EXPECT_THROW(flow_->read(read_.readCompletion()), std::logic_error);
}

TEST_F(SimulatedTCPFlowTest, OpeningMayBeDelayed) {
  flow_->holdOpen();
  open();
  EXPECT_EQ(opened_.count(), 0);
  flow_->releaseOpen();
  EXPECT_EQ(opened_.count(), 0);
  simulation_.run();
  EXPECT_EQ(opened_.count(), 1);
}

TEST_F(SimulatedTCPFlowTest, ADelayedOpeningMayFail) {
  flow_->holdOpen();
  open();
  flow_->failOpen(kError);
  simulation_.run();
  EXPECT_EQ(opened_.count(), 0);
  flow_->releaseOpen();
  simulation_.run();
  EXPECT_EQ(opened_.count(), 1);
  EXPECT_EQ(opened_.error(), kError);
}

TEST_F(SimulatedTCPFlowTest, OpeningTwiceIsAnError) {
  open();
  EXPECT_THROW(flow_->open(std::nullopt, opened_.completion()), std::logic_error);
}

TEST_F(SimulatedTCPFlowTest, ReadingOrWritingBeforeItIsOpenIsAnError) {
  EXPECT_THROW(flow_->read(read_.readCompletion()), std::logic_error);
  flow_->open(std::nullopt, opened_.completion());
  EXPECT_THROW(flow_->write(platform::Data::copyOf("x"), written_.completion()), std::logic_error);
}

TEST_F(SimulatedTCPFlowTest, ReadsEverythingThatTheApplicationHasSent) {
  application_->send("before open, ");
  open();
  application_->send("after it");
  flow_->read(read_.readCompletion());
  EXPECT_EQ(read_.count(), 0);
  simulation_.run();
  EXPECT_EQ(read_.count(), 1);
  EXPECT_EQ(read_.lastText(), "before open, after it");
  EXPECT_EQ(application_->unreadBytes(), 0U);
}

TEST_F(SimulatedTCPFlowTest, AReadWaitsForBytes) {
  open();
  flow_->read(read_.readCompletion());
  simulation_.run();
  EXPECT_EQ(read_.count(), 0);
  EXPECT_TRUE(application_->readOutstanding());
  application_->send("x");
  simulation_.run();
  EXPECT_EQ(read_.lastText(), "x");
  EXPECT_FALSE(application_->readOutstanding());
}

TEST_F(SimulatedTCPFlowTest, WritesReachTheApplication) {
  open();
  flow_->write(platform::Data::copyOf("hello"), written_.completion());
  EXPECT_EQ(application_->writes(), (Lines{"hello"}));
  EXPECT_EQ(application_->received(), "");
  EXPECT_EQ(written_.count(), 0);
  simulation_.run();
  EXPECT_EQ(written_.count(), 1);
  EXPECT_FALSE(written_.error());
  EXPECT_EQ(application_->received(), "hello");
}

TEST_F(SimulatedTCPFlowTest, ShowsHowAndInWhichOrderItWasClosed) {
  open();
  simulation_.journal().clear();
  flow_->closeRead(kError);
  flow_->closeWrite(std::nullopt);
  flow_->closeRead(std::nullopt);
  EXPECT_TRUE(flow_->readWasClosed());
  EXPECT_TRUE(flow_->writeWasClosed());
  EXPECT_EQ(flow_->readCloseError(), kError);
  EXPECT_FALSE(flow_->writeCloseError());
  EXPECT_EQ(simulation_.journal().lines(),
            (Lines{"flow 1: closeRead: reason", "flow 1: closeWrite", "flow 1: closeRead"}));
}

TEST_F(SimulatedTCPFlowTest, AnOrderlyCloseIsAnEndForTheApplication) {
  open();
  flow_->closeRead(std::nullopt);
  EXPECT_FALSE(application_->sawEnd());
  flow_->closeWrite(std::nullopt);
  EXPECT_TRUE(application_->sawEnd());
  EXPECT_FALSE(application_->sawReset());
}

TEST_F(SimulatedTCPFlowTest, ACloseWithAnErrorBeforeAnyTransferGivesTheFlowBack) {
  open();
  flow_->closeRead(kError);
  flow_->closeWrite(kError);
  EXPECT_TRUE(application_->wasLeftToSystem());
  EXPECT_FALSE(application_->sawReset());
  EXPECT_FALSE(application_->sawEnd());
}

TEST_F(SimulatedTCPFlowTest, ACloseWithAnErrorIsAResetForTheApplication) {
  open();
  flow_->read(read_.readCompletion());
  flow_->closeRead(kError);
  EXPECT_TRUE(application_->sawReset());
  EXPECT_FALSE(application_->sawEnd());
  EXPECT_EQ(application_->resetReason(), kError);
}

TEST_F(SimulatedTCPFlowTest, ClosingEndsWhatIsOutstandingWithAnError) {
  open();
  application_->holdWrites();
  flow_->read(read_.readCompletion());
  flow_->write(platform::Data::copyOf("lost"), written_.completion());
  flow_->closeRead(std::nullopt);
  flow_->closeWrite(std::nullopt);
  EXPECT_EQ(read_.count() + written_.count(), 0);
  simulation_.run();
  EXPECT_EQ(read_.count(), 1);
  EXPECT_TRUE(read_.error());
  EXPECT_EQ(written_.count(), 1);
  EXPECT_TRUE(written_.error());
  EXPECT_EQ(application_->received(), "");
}

TEST_F(SimulatedTCPFlowTest, NothingIsTransferredAfterClosing) {
  open();
  flow_->closeRead(std::nullopt);
  flow_->closeWrite(std::nullopt);
  application_->send("unheard");
  flow_->read(read_.readCompletion());
  flow_->write(platform::Data::copyOf("x"), written_.completion());
  simulation_.run();
  EXPECT_TRUE(read_.error());
  EXPECT_TRUE(written_.error());
  EXPECT_EQ(application_->received(), "");
}

TEST_F(SimulatedTCPFlowTest, OneSideMayBeClosedBeforeTheOther) {
  open();
  flow_->closeRead(std::nullopt);
  flow_->write(platform::Data::copyOf("still"), written_.completion());
  simulation_.run();
  EXPECT_EQ(application_->received(), "still");
}

TEST_F(SimulatedTCPFlowTest, DestroyedBeforeItCarriedAnythingItIsLeftToTheSystem) {
  open();
  flow_.reset();
  EXPECT_TRUE(application_->wasLeftToSystem());
  EXPECT_FALSE(application_->sawReset());
}

TEST_F(SimulatedTCPFlowTest, DestroyedAfterATransferItIsReset) {
  open();
  application_->send("x");
  flow_->read(read_.readCompletion());
  simulation_.run();
  flow_.reset();
  EXPECT_FALSE(application_->wasLeftToSystem());
  EXPECT_TRUE(application_->sawReset());
}

TEST_F(SimulatedTCPFlowTest, DestroyedAfterAnOrderlyCloseItIsNotReset) {
  open();
  application_->send("x");
  flow_->read(read_.readCompletion());
  simulation_.run();
  flow_->closeRead(std::nullopt);
  flow_->closeWrite(std::nullopt);
  flow_.reset();
  EXPECT_TRUE(application_->sawEnd());
  EXPECT_FALSE(application_->sawReset());
  EXPECT_FALSE(application_->wasLeftToSystem());
}

TEST_F(SimulatedTCPFlowTest, DestructionCancelsWhatIsOutstanding) {
  open();
  opened_ = {};
  application_->send("x");
  flow_->read(read_.readCompletion());
  flow_->write(platform::Data::copyOf("y"), written_.completion());
  const auto other = simulation_.makeTCPFlow("other", std::nullopt);
  auto unopened = simulation_.makeTCPFlow("unopened", std::nullopt);
  unopened->open(std::nullopt, opened_.completion());
  unopened.reset();
  flow_.reset();
  EXPECT_EQ(opened_.count() + read_.count() + written_.count(), 0);
  simulation_.run();
  EXPECT_EQ(opened_.count(), 1);
  EXPECT_EQ(opened_.error(), operationCancelled());
  EXPECT_EQ(read_.count(), 1);
  EXPECT_EQ(read_.error(), operationCancelled());
  EXPECT_EQ(written_.count(), 1);
  EXPECT_EQ(written_.error(), operationCancelled());
  EXPECT_EQ(application_->received(), "");
}

TEST_F(SimulatedTCPFlowTest, ACompletionMayDestroyTheFlow) {
  open();
  bool completed = false;
  application_->send("x");
  flow_->read([&](const auto&, const auto&) {
    flow_.reset();
    completed = true;
  });
  simulation_.run();
  EXPECT_TRUE(completed);
}

TEST_F(SimulatedTCPFlowTest, ACompletionReleasesWhatItHoldsAtTheEndOfTheRun) {
  std::weak_ptr<SimulatedTCPFlow> weakFlow;
  {
    Simulation simulation;
    const auto flow = simulation.makeTCPFlow("self-held", std::nullopt);
    weakFlow = flow;
    flow->holdOpen();
    flow->open(std::nullopt, [flow](const platform::OptionalError&) {});
  }
  EXPECT_TRUE(weakFlow.expired());
}

TEST_F(SimulatedTCPFlowTest, ItsOperationsAreInTheJournal) {
  open();
  application_->send("hello");
  flow_->read(read_.readCompletion());
  simulation_.run();
  flow_->write(platform::Data::copyOf("a"), written_.completion());
  simulation_.run();
  application_->endSending();
  flow_->read(read_.readCompletion());
  simulation_.run();
  flow_->closeRead(std::nullopt);
  flow_->closeWrite(std::nullopt);
  flow_.reset();
  EXPECT_EQ(simulation_.journal().lines(),
            (Lines{"flow 1: open", "flow 1: opened", "flow 1: read", "flow 1: read 5 bytes",
                   "flow 1: write 1 byte", "flow 1: written", "flow 1: read", "flow 1: read end",
                   "flow 1: closeRead", "flow 1: closeWrite", "flow 1: destroyed"}));
}

}  // namespace
}  // namespace ostravel::simulation
