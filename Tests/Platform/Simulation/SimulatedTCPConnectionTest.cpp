#include "Platform/Simulation/SimulatedTCPConnection.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
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

using platform::TCPConnectionState;
using States = std::vector<TCPConnectionState>;

const platform::Error kError{"Domain", 7, "reason"};

class StateObserver : public platform::KeyValueObserver {
 public:
  void observeValue(std::optional<std::string_view> keyPath,
                    platform::Observable* object) override {
    EXPECT_EQ(keyPath, "state");
    seen.push_back(dynamic_cast<platform::TCPConnection&>(*object).state());
    if (onChange) {
      onChange();
    }
  }

  States seen;
  std::function<void()> onChange;
};

class SimulatedTCPConnectionTest : public ::testing::Test {
 protected:
  Simulation simulation_;
  std::shared_ptr<SimulatedTCPConnection> connection_ = make();
  const std::shared_ptr<SimulatedPeer> peer_ = connection_->peer();
  std::shared_ptr<StateObserver> observer_ = std::make_shared<StateObserver>();
  Outcome read_;
  Outcome written_;

 private:
  std::shared_ptr<SimulatedTCPConnection> make() {
    const auto made =
        simulation_.createTCPConnection({"127.0.0.1", "8080"}, platform::TLSPolicy::disabled);
    return simulation_.connection(0);
  }
};

TEST_F(SimulatedTCPConnectionTest, IsConnectingAtFirst) {
  EXPECT_EQ(connection_->state(), TCPConnectionState::connecting);
  simulation_.run();
  EXPECT_EQ(connection_->state(), TCPConnectionState::connecting);
  EXPECT_FALSE(connection_->error());
}

TEST_F(SimulatedTCPConnectionTest, AnAcceptanceIsObserved) {
  connection_->addObserver(observer_, "state");
  connection_->accept();
  EXPECT_EQ(connection_->state(), TCPConnectionState::connecting);
  simulation_.run();
  EXPECT_EQ(connection_->state(), TCPConnectionState::connected);
  EXPECT_EQ(observer_->seen, (States{TCPConnectionState::connected}));
}

TEST_F(SimulatedTCPConnectionTest, ARefusalIsObservedWithItsError) {
  connection_->addObserver(observer_, "state");
  connection_->refuse();
  simulation_.run();
  EXPECT_EQ(observer_->seen, (States{TCPConnectionState::disconnected}));
  EXPECT_EQ(connection_->error()->domain, platform::kPOSIXErrorDomain);
  EXPECT_EQ(connection_->error()->code, ECONNREFUSED);
}

TEST_F(SimulatedTCPConnectionTest, TheTestMaySetTheStateAtOnce) {
  connection_->addObserver(observer_, "state");
  connection_->setState(TCPConnectionState::waiting);
  connection_->setState(TCPConnectionState::connected);
  connection_->setState(TCPConnectionState::disconnected, kError);
  EXPECT_EQ(observer_->seen, (States{TCPConnectionState::waiting, TCPConnectionState::connected,
                                     TCPConnectionState::disconnected}));
  EXPECT_EQ(connection_->error(), kError);
}

TEST_F(SimulatedTCPConnectionTest, AStateThatDoesNotChangeIsNotObserved) {
  connection_->addObserver(observer_, "state");
  connection_->setState(TCPConnectionState::connecting);
  EXPECT_TRUE(observer_->seen.empty());
}

TEST_F(SimulatedTCPConnectionTest, TransfersWaitForTheConnection) {
  connection_->read(1, 100, read_.readCompletion());
  connection_->write(platform::Data::copyOf("request"), written_.completion());
  peer_->send("early");
  simulation_.run();
  EXPECT_EQ(read_.count() + written_.count(), 0);
  connection_->accept();
  simulation_.run();
  EXPECT_EQ(read_.lastText(), "early");
  EXPECT_EQ(peer_->received(), "request");
}

TEST_F(SimulatedTCPConnectionTest, ARefusalFailsWhatIsOutstanding) {
  connection_->read(1, 100, read_.readCompletion());
  connection_->write(platform::Data::copyOf("request"), written_.completion());
  connection_->refuse(kError);
  simulation_.run();
  EXPECT_EQ(read_.error(), kError);
  EXPECT_EQ(written_.error(), kError);
}

TEST_F(SimulatedTCPConnectionTest, IsDisconnectedOnceTheEndWasRead) {
  connection_->accept();
  peer_->send("x");
  peer_->endSending();
  connection_->read(1, 100, read_.readCompletion());
  simulation_.run();
  EXPECT_EQ(connection_->state(), TCPConnectionState::connected);
  connection_->read(1, 100, read_.readCompletion());
  simulation_.run();
  EXPECT_TRUE(read_.isEnd());
  EXPECT_EQ(connection_->state(), TCPConnectionState::disconnected);
  EXPECT_FALSE(connection_->error());
}

TEST_F(SimulatedTCPConnectionTest, APeersResetIsObservedWithItsError) {
  connection_->addObserver(observer_, "state");
  connection_->accept();
  simulation_.run();
  peer_->reset(kError);
  simulation_.run();
  EXPECT_EQ(connection_->state(), TCPConnectionState::disconnected);
  EXPECT_EQ(connection_->error(), kError);
  EXPECT_EQ(observer_->seen.back(), TCPConnectionState::disconnected);
}

TEST_F(SimulatedTCPConnectionTest, CancelEndsInOrderAndFailsWhatIsOutstanding) {
  connection_->addObserver(observer_, "state");
  connection_->accept();
  connection_->write(platform::Data::copyOf("acknowledged"), written_.completion());
  simulation_.run();
  connection_->read(1, 100, read_.readCompletion());
  connection_->cancel();
  EXPECT_EQ(read_.count(), 0);
  simulation_.run();
  EXPECT_EQ(read_.count(), 1);
  EXPECT_EQ(read_.error()->code, ECANCELED);
  EXPECT_EQ(connection_->state(), TCPConnectionState::cancelled);
  EXPECT_EQ(observer_->seen.back(), TCPConnectionState::cancelled);
  EXPECT_TRUE(connection_->wasCancelled());
  EXPECT_EQ(peer_->received(), "acknowledged");
  EXPECT_TRUE(peer_->sawEnd());
  EXPECT_FALSE(peer_->sawReset());
}

TEST_F(SimulatedTCPConnectionTest, CancelWorksInEveryStateAndIsFinal) {
  connection_->addObserver(observer_, "state");
  connection_->setState(TCPConnectionState::disconnected, kError);
  connection_->cancel();
  connection_->cancel();
  simulation_.run();
  EXPECT_EQ(connection_->state(), TCPConnectionState::cancelled);
  connection_->accept();
  simulation_.run();
  EXPECT_EQ(connection_->state(), TCPConnectionState::cancelled);
  EXPECT_EQ(observer_->seen,
            (States{TCPConnectionState::disconnected, TCPConnectionState::cancelled}));
}

TEST_F(SimulatedTCPConnectionTest, ARemovedObserverIsNotNotified) {
  connection_->addObserver(observer_, "state");
  EXPECT_EQ(connection_->observerCount(), 1U);
  connection_->removeObserver(*observer_, "state");
  EXPECT_EQ(connection_->observerCount(), 0U);
  connection_->setState(TCPConnectionState::connected);
  EXPECT_TRUE(observer_->seen.empty());
}

TEST_F(SimulatedTCPConnectionTest, ADestroyedObserverIsNeitherNotifiedNorHeld) {
  connection_->addObserver(observer_, "state");
  const std::weak_ptr<StateObserver> weakObserver = observer_;
  observer_.reset();
  EXPECT_TRUE(weakObserver.expired());
  connection_->setState(TCPConnectionState::connected);
}

TEST_F(SimulatedTCPConnectionTest, AnObserverMayRemoveAnotherWhenNotified) {
  const auto other = std::make_shared<StateObserver>();
  connection_->addObserver(observer_, "state");
  connection_->addObserver(other, "state");
  observer_->onChange = [&] { connection_->removeObserver(*other, "state"); };
  connection_->setState(TCPConnectionState::connected);
  EXPECT_EQ(observer_->seen.size(), 1U);
  EXPECT_TRUE(other->seen.empty());
}

TEST_F(SimulatedTCPConnectionTest, AnObserverMayReleaseTheConnection) {
  connection_->addObserver(observer_, "state");
  observer_->onChange = [&] { connection_.reset(); };
  connection_->accept();
  simulation_.run();
  EXPECT_EQ(observer_->seen.size(), 1U);
  EXPECT_EQ(simulation_.connection(0), nullptr);
}

TEST_F(SimulatedTCPConnectionTest, AnotherKeyPathIsAnError) {
  EXPECT_THROW(connection_->addObserver(observer_, "error"), std::logic_error);
  connection_->addObserver(observer_, "state");
  EXPECT_THROW(connection_->removeObserver(*observer_, "error"), std::logic_error);
}

TEST_F(SimulatedTCPConnectionTest, AnObserverMayBeRemovedByItsDestructor) {
  class RemovesItself : public platform::KeyValueObserver {
   public:
    explicit RemovesItself(platform::TCPConnection& connection) : connection_(connection) {}
    ~RemovesItself() override { connection_.removeObserver(*this, "state"); }
    void observeValue(std::optional<std::string_view>, platform::Observable*) override {}

   private:
    platform::TCPConnection& connection_;
  };
  auto observer = std::make_shared<RemovesItself>(*connection_);
  connection_->addObserver(observer, "state");
  observer.reset();
  EXPECT_EQ(connection_->observerCount(), 0U);
}

TEST_F(SimulatedTCPConnectionTest, DestructionCancelsWhatIsOutstanding) {
  connection_->addObserver(observer_, "state");
  connection_->read(1, 100, read_.readCompletion());
  connection_->write(platform::Data::copyOf("x"), written_.completion());
  connection_->accept();
  peer_->send("y");
  connection_.reset();
  EXPECT_EQ(read_.count() + written_.count(), 0);
  simulation_.run();
  EXPECT_TRUE(observer_->seen.empty());
  EXPECT_EQ(read_.count(), 1);
  EXPECT_EQ(read_.error(), operationCancelled());
  EXPECT_EQ(written_.count(), 1);
  EXPECT_EQ(written_.error(), operationCancelled());
}

TEST_F(SimulatedTCPConnectionTest, DestructionWithoutCancelIsAResetForThePeer) {
  connection_->accept();
  simulation_.run();
  connection_.reset();
  EXPECT_TRUE(peer_->sawReset());
}

TEST_F(SimulatedTCPConnectionTest, DestructionAfterCancelIsAnEndForThePeer) {
  connection_->accept();
  simulation_.run();
  connection_->cancel();
  connection_.reset();
  EXPECT_TRUE(peer_->sawEnd());
  EXPECT_FALSE(peer_->sawReset());
}

TEST_F(SimulatedTCPConnectionTest, ChangesOfStateKeepTheirOrderUnderEverySeed) {
  for (std::uint64_t seed = 0; seed < 200; ++seed) {
    Simulation simulation({.order = RunOrder::seeded, .seed = seed, .faults = {.latency = 0.5}});
    const auto held =
        simulation.createTCPConnection({"127.0.0.1", "8080"}, platform::TLSPolicy::disabled);
    const auto connection = simulation.connection(0);
    const auto observer = std::make_shared<StateObserver>();
    connection->addObserver(observer, "state");
    connection->accept();
    connection->peer()->reset();
    connection->cancel();
    simulation.advance(std::chrono::seconds(1));
    ASSERT_EQ(observer->seen,
              (States{TCPConnectionState::connected, TCPConnectionState::disconnected,
                      TCPConnectionState::cancelled}))
        << seed;
  }
}

}  // namespace
}  // namespace ostravel::simulation
