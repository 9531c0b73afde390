#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Interface/TCPConnection.h"
#include "Tests/Contract/ContractTest.h"
#include "Tests/Contract/StateObserver.h"
#include "Tests/Contract/StreamContractTest.h"
#include "Tests/Support/Outcome.h"

namespace ostravel::contract {
namespace {

using platform::TCPConnectionState;

// What the relay asks for.
constexpr std::size_t kRelayMaximum = 512 * 1024;

class TCPConnectionContractTest : public StreamContractTest {
 protected:
  void startReading(platform::ReadCompletion completion) override {
    connection_->read(1, kRelayMaximum, std::move(completion));
  }
  void startWriting(platform::Data data, platform::ErrorCompletion completion) override {
    connection_->write(std::move(data), std::move(completion));
  }

  std::shared_ptr<platform::TCPConnection> connect(const platform::HostEndpoint& endpoint) {
    auto connection = environment_->connect(endpoint);
    connection->addObserver(observer_, "state");
    return connection;
  }
  // A connected connection, with its peer.
  void establish() {
    connection_ = connect(environment_->listeningEndpoint());
    ASSERT_TRUE(waitUntil([&] { return connection_->state() == TCPConnectionState::connected; }));
    peer_ = environment_->acceptPeer();
    ASSERT_NE(peer_, nullptr);
  }

  Outcome readBetween(std::size_t minimum, std::size_t maximum) {
    Outcome outcome;
    connection_->read(minimum, maximum, outcome.readCompletion());
    EXPECT_TRUE(waitUntil([&] { return outcome.isDone(); }));
    return outcome;
  }
  bool peerSawSomeEnd() const { return sawSomeEnd(*peer_); }

  const std::shared_ptr<StateObserver> observer_ = std::make_shared<StateObserver>();
  std::shared_ptr<platform::TCPConnection> connection_;
  std::shared_ptr<ContractPeer> peer_;
};

TEST_P(TCPConnectionContractTest, BecomesConnectedAndReportsIt) {
  establish();
  ASSERT_TRUE(waitUntil([&] { return observer_->saw(TCPConnectionState::connected); }));
  EXPECT_FALSE(connection_->error());
  EXPECT_FALSE(observer_->sawUnexpectedNotification());
}

TEST_P(TCPConnectionContractTest, ARefusedOneIsDisconnectedWithItsError) {
  connection_ = connect(environment_->refusingEndpoint());
  ASSERT_TRUE(waitUntil([&] { return observer_->saw(TCPConnectionState::disconnected); }));
  EXPECT_EQ(connection_->state(), TCPConnectionState::disconnected);
  ASSERT_TRUE(connection_->error());
  EXPECT_EQ(connection_->error()->domain, platform::kPOSIXErrorDomain);
  EXPECT_EQ(connection_->error()->code, ECONNREFUSED);
  EXPECT_FALSE(connection_->error()->localizedDescription.empty());
  EXPECT_FALSE(observer_->saw(TCPConnectionState::connected));
}

TEST_P(TCPConnectionContractTest, AChangeWithoutObserversIsReportedToTheNextOne) {
  connection_ = environment_->connect(environment_->refusingEndpoint());
  ASSERT_TRUE(waitUntil([&] { return connection_->state() == TCPConnectionState::disconnected; }));
  environment_->settle();
  connection_->addObserver(observer_, "state");
  ASSERT_TRUE(waitUntil([&] { return observer_->saw(TCPConnectionState::disconnected); }));
  EXPECT_FALSE(observer_->sawUnexpectedNotification());
  const auto other = std::make_shared<StateObserver>();
  connection_->addObserver(other, "state");
  environment_->settle();
  EXPECT_FALSE(other->saw(TCPConnectionState::disconnected));
}

TEST_P(TCPConnectionContractTest, ARefusalFailsEarlierOperations) {
  connection_ = connect(environment_->refusingEndpoint());
  Outcome reading;
  Outcome writing;
  CallInProgress::run([&] { startBoth(reading, writing); });
  expectBothToHaveFailed(reading, writing);
}

TEST_P(TCPConnectionContractTest, TransfersMayBeRequestedBeforeItIsConnected) {
  connection_ = connect(environment_->listeningEndpoint());
  Outcome reading;
  Outcome writing;
  connection_->read(1, 100, reading.readCompletion());
  connection_->write(platform::Data::copyOf("request"), writing.completion());
  ASSERT_TRUE(waitUntil([&] { return writing.isDone(); }));
  EXPECT_FALSE(writing.error());
  peer_ = environment_->acceptPeer();
  ASSERT_NE(peer_, nullptr);
  EXPECT_TRUE(waitUntil([&] { return peer_->received() == "request"; }));
  peer_->send("answer");
  ASSERT_TRUE(waitUntil([&] { return reading.isDone(); }));
  EXPECT_EQ(reading.text().front(), 'a');
}

TEST_P(TCPConnectionContractTest, CompletionsDoNotRunInsideTheCall) {
  establish();
  peer_->send("already there");
  environment_->settle();
  Outcome reading;
  Outcome writing;
  CallInProgress::run([&] {
    connection_->read(1, 100, reading.readCompletion());
    connection_->write(platform::Data::copyOf("x"), writing.completion());
  });
  ASSERT_TRUE(waitUntil([&] { return reading.isDone() && writing.isDone(); }));
  environment_->settle();
  EXPECT_FALSE(reading.ranInsideCall());
  EXPECT_FALSE(writing.ranInsideCall());
  EXPECT_EQ(reading.count(), 1);
  EXPECT_EQ(writing.count(), 1);
}

TEST_P(TCPConnectionContractTest, AReadWaitsForItsMinimum) {
  establish();
  Outcome reading;
  connection_->read(5, 100, reading.readCompletion());
  peer_->send("abc");
  environment_->settle();
  EXPECT_EQ(reading.count(), 0);
  peer_->send("def");
  ASSERT_TRUE(waitUntil([&] { return reading.isDone(); }));
  EXPECT_GE(reading.lastSize(), 5U);
  const auto text = reading.text();
  EXPECT_EQ(text, std::string("abcdef").substr(0, text.size()));
}

TEST_P(TCPConnectionContractTest, AReadDeliversAtMostItsMaximum) {
  establish();
  peer_->send("abcdefghij");
  std::string text;
  while (text.size() < 10) {
    const auto reading = readBetween(1, 3);
    ASSERT_GE(reading.lastSize(), 1U);
    ASSERT_LE(reading.lastSize(), 3U);
    text += reading.text();
  }
  EXPECT_EQ(text, "abcdefghij");
}

TEST_P(TCPConnectionContractTest, AnExactReadIsExact) {
  establish();
  const auto sent = patternBytes(100'000);
  peer_->send(sent);
  std::string text;
  for (const std::size_t size : {1U, 4096U, 65536U, 30'367U}) {
    const auto reading = readBetween(size, size);
    ASSERT_EQ(reading.lastSize(), size);
    text += reading.text();
  }
  EXPECT_TRUE(text == sent);
}

TEST_P(TCPConnectionContractTest, TheEndComesAfterTheBytes) {
  establish();
  peer_->send("last words");
  peer_->endSending();
  EXPECT_EQ(readAll(10), "last words");
  EXPECT_TRUE(read().isEnd());
}

TEST_P(TCPConnectionContractTest, TheEndDeliversLessThanAMinimum) {
  establish();
  Outcome reading;
  connection_->read(100, 100, reading.readCompletion());
  peer_->send("abc");
  peer_->endSending();
  ASSERT_TRUE(waitUntil([&] { return reading.isDone(); }));
  EXPECT_EQ(reading.text(), "abc");
  EXPECT_FALSE(reading.error());
  EXPECT_TRUE(read().isEnd());
}

TEST_P(TCPConnectionContractTest, IsDisconnectedWithoutErrorOnceTheEndWasRead) {
  establish();
  peer_->endSending();
  EXPECT_TRUE(read().isEnd());
  ASSERT_TRUE(waitUntil([&] { return observer_->saw(TCPConnectionState::disconnected); }));
  EXPECT_EQ(connection_->state(), TCPConnectionState::disconnected);
  EXPECT_FALSE(connection_->error());
}

TEST_P(TCPConnectionContractTest, APeersResetFailsTheReadAndDisconnects) {
  establish();
  Outcome reading;
  connection_->read(1, 100, reading.readCompletion());
  peer_->reset();
  ASSERT_TRUE(waitUntil([&] { return reading.isDone(); }));
  EXPECT_TRUE(reading.error());
  ASSERT_TRUE(waitUntil([&] { return observer_->saw(TCPConnectionState::disconnected); }));
  ASSERT_TRUE(connection_->error());
  EXPECT_EQ(connection_->error()->domain, platform::kPOSIXErrorDomain);
  environment_->settle();
  EXPECT_EQ(reading.count(), 1);
}

// This test and the next are also written for flows: each contract is complete on its own.
TEST_P(TCPConnectionContractTest, AWriteLargerThanAnyBufferArrivesWhole) {
  establish();
  const auto sent = patternBytes(kLarge);
  ASSERT_FALSE(write(sent));
  ASSERT_TRUE(waitUntil([&] { return peer_->receivedCount() == sent.size(); }));
  EXPECT_TRUE(peer_->received() == sent);
}

TEST_P(TCPConnectionContractTest, ManyBytesAreReadExactly) {
  establish();
  const auto sent = patternBytes(kLarge);
  peer_->send(sent);
  peer_->endSending();
  EXPECT_TRUE(readAll(sent.size()) == sent);
  EXPECT_TRUE(read().isEnd());
}

TEST_P(TCPConnectionContractTest, CancelIsAnOrderlyEndForThePeer) {
  establish();
  connection_->cancel();
  ASSERT_TRUE(waitUntil([&] { return peerSawSomeEnd(); }));
  EXPECT_TRUE(peer_->sawEnd());
  EXPECT_FALSE(peer_->sawReset());
}

TEST_P(TCPConnectionContractTest, CancelLosesNothingThatWasAcknowledged) {
  establish();
  peer_->stopReceiving();
  const auto acknowledged = writeAcknowledged(256 * 1024);
  connection_->cancel();
  connection_.reset();
  peer_->resumeReceiving();
  ASSERT_TRUE(waitUntil([&] { return peerSawSomeEnd(); }));
  EXPECT_FALSE(peer_->sawReset());
  EXPECT_TRUE(peer_->received() == acknowledged);
}

TEST_P(TCPConnectionContractTest, UnreadBytesDoNotMakeCancelAReset) {
  establish();
  peer_->send(patternBytes(kLarge));
  environment_->settle();
  ASSERT_FALSE(write("the last word"));
  connection_->cancel();
  ASSERT_TRUE(waitUntil([&] { return peerSawSomeEnd(); }));
  EXPECT_TRUE(peer_->sawEnd());
  EXPECT_FALSE(peer_->sawReset());
  EXPECT_EQ(peer_->received(), "the last word");
}

TEST_P(TCPConnectionContractTest, CancelFailsWhatIsOutstandingOnce) {
  establish();
  peer_->stopReceiving();
  Outcome reading;
  Outcome writing;
  startBoth(reading, writing);
  CallInProgress::run([&] { connection_->cancel(); });
  expectBothToHaveFailed(reading, writing);
}

TEST_P(TCPConnectionContractTest, CancelIsReported) {
  establish();
  // A notification that comes later would find the state that follows.
  ASSERT_TRUE(waitUntil([&] { return observer_->saw(TCPConnectionState::connected); }));
  connection_->cancel();
  connection_->cancel();
  ASSERT_TRUE(waitUntil([&] { return observer_->saw(TCPConnectionState::cancelled); }));
  EXPECT_EQ(connection_->state(), TCPConnectionState::cancelled);
  environment_->settle();
  int times = 0;
  for (const auto state : observer_->states()) {
    times += state == TCPConnectionState::cancelled ? 1 : 0;
  }
  EXPECT_EQ(times, 1);
}

TEST_P(TCPConnectionContractTest, CancelWorksWhileItIsConnecting) {
  connection_ = connect(environment_->silentEndpoint());
  Outcome reading;
  Outcome writing;
  startBoth(reading, writing);
  environment_->settle();
  EXPECT_EQ(connection_->state(), TCPConnectionState::connecting);
  EXPECT_EQ(reading.count() + writing.count(), 0);
  connection_->cancel();
  ASSERT_TRUE(waitUntil([&] { return observer_->saw(TCPConnectionState::cancelled); }));
  expectBothToHaveFailed(reading, writing);
}

TEST_P(TCPConnectionContractTest, CancelWorksAfterARefusal) {
  connection_ = connect(environment_->refusingEndpoint());
  ASSERT_TRUE(waitUntil([&] { return connection_->state() == TCPConnectionState::disconnected; }));
  connection_->cancel();
  EXPECT_TRUE(waitUntil([&] { return connection_->state() == TCPConnectionState::cancelled; }));
}

TEST_P(TCPConnectionContractTest, NothingIsTransferredAfterCancel) {
  establish();
  connection_->cancel();
  EXPECT_TRUE(read().error());
  EXPECT_TRUE(write("late"));
  ASSERT_TRUE(waitUntil([&] { return peerSawSomeEnd(); }));
  EXPECT_EQ(peer_->received(), "");
}

TEST_P(TCPConnectionContractTest, EveryObserverIsNotified) {
  const auto other = std::make_shared<StateObserver>();
  establish();
  connection_->addObserver(other, "state");
  connection_->cancel();
  EXPECT_TRUE(waitUntil([&] {
    return observer_->saw(TCPConnectionState::cancelled) &&
           other->saw(TCPConnectionState::cancelled);
  }));
}

TEST_P(TCPConnectionContractTest, ARemovedObserverIsNotNotified) {
  establish();
  const auto removed = std::make_shared<StateObserver>();
  connection_->addObserver(removed, "state");
  connection_->removeObserver(*removed, "state");
  connection_->cancel();
  ASSERT_TRUE(waitUntil([&] { return observer_->saw(TCPConnectionState::cancelled); }));
  environment_->settle();
  EXPECT_FALSE(removed->saw(TCPConnectionState::cancelled));
}

TEST_P(TCPConnectionContractTest, RemovingAnUnknownObserverHasNoEffect) {
  establish();
  const auto unknown = std::make_shared<StateObserver>();
  connection_->removeObserver(*unknown, "state");
  connection_->addObserver(unknown, "state");
  connection_->removeObserver(*unknown, "state");
  connection_->removeObserver(*unknown, "state");
  connection_->cancel();
  EXPECT_TRUE(waitUntil([&] { return observer_->saw(TCPConnectionState::cancelled); }));
}

TEST_P(TCPConnectionContractTest, ObservingAnythingElseIsAProgrammingError) {
  establish();
  expectProgrammingError([&] { connection_->addObserver(observer_, "error"); });
}

TEST_P(TCPConnectionContractTest, ASecondReadIsAProgrammingError) {
  establish();
  expectSecondReadToBeRefused();
}

TEST_P(TCPConnectionContractTest, ASecondWriteIsAProgrammingError) {
  establish();
  peer_->stopReceiving();
  expectSecondWriteToBeRefused();
}

TEST_P(TCPConnectionContractTest, AnObserverIsHeldWeakly) {
  establish();
  auto gone = std::make_shared<StateObserver>();
  const std::weak_ptr<StateObserver> weakGone = gone;
  connection_->addObserver(gone, "state");
  environment_->settle();
  gone.reset();
  EXPECT_TRUE(waitUntil([&] { return weakGone.expired(); }));
  connection_->cancel();
  EXPECT_TRUE(waitUntil([&] { return observer_->saw(TCPConnectionState::cancelled); }));
}

TEST_P(TCPConnectionContractTest, DestructionCompletesWhatIsOutstandingOnce) {
  establish();
  peer_->stopReceiving();
  Outcome reading;
  Outcome writing;
  startBoth(reading, writing);
  CallInProgress::run([&] { connection_.reset(); });
  peer_->resumeReceiving();
  ASSERT_TRUE(waitUntil([&] { return peerSawSomeEnd(); }));
  expectBothToHaveFailed(reading, writing);
}

TEST_P(TCPConnectionContractTest, DestructionWhileConnectingCompletesWithErrors) {
  connection_ = connect(environment_->silentEndpoint());
  Outcome reading;
  Outcome writing;
  startBoth(reading, writing);
  connection_.reset();
  expectBothToHaveFailed(reading, writing);
}

TEST_P(TCPConnectionContractTest, NoObserverIsNotifiedAfterItsDestruction) {
  connection_ = connect(environment_->silentEndpoint());
  connection_.reset();
  environment_->settle();
  EXPECT_TRUE(observer_->states().empty());
}

TEST_P(TCPConnectionContractTest, ACompletionReleasesWhatItHolds) {
  establish();
  auto held = std::make_shared<int>(0);
  const std::weak_ptr<int> weakHeld = held;
  connection_->read(1, 100, [held = std::move(held)](const auto&, const auto&) {});
  connection_->cancel();
  EXPECT_TRUE(waitUntil([&] { return weakHeld.expired(); }));
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Contract, TCPConnectionContractTest,
                         ::testing::ValuesIn(contractPlatforms()), platformName);

}  // namespace ostravel::contract
