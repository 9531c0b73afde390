#import "Platform/macOS/Flow/SystemTCPConnection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#import "Tests/StandInMac/ErrorWithoutText.h"
#import "Tests/StandInMac/StandInNetworkExtension.h"
#include "Tests/StandInMac/SystemBehaviour.h"
#include "Tests/StandInMac/WorkerPool.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::macos::test {
namespace {

using testing::waitUntil;

using platform::TCPConnectionState;

class CountingObserver final : public platform::KeyValueObserver {
 public:
  void observeValue(std::optional<std::string_view> keyPath,
                    platform::Observable* /*object*/) override {
    EXPECT_EQ(keyPath, "state");
    ++count_;
    if (onValue) {
      onValue();
    }
  }

  int count() const { return count_; }

  std::function<void()> onValue;

 private:
  std::atomic<int> count_ = 0;
};

class SystemTCPConnectionTest : public ::testing::Test {
 protected:
  SystemTCPConnectionTest() {
    @autoreleasepool {
      object_ = Reference<NWTCPConnection*>::retaining(standin::makeScriptedConnection());
      connection_ = SystemTCPConnection::make(object_.get());
    }
  }

  void change(NWTCPConnectionState state, NSError* error = nil) {
    @autoreleasepool {
      standin::setState(object_.get(), state, error);
    }
  }

  Reference<NWTCPConnection*> object_;
  std::shared_ptr<SystemTCPConnection> connection_;
  const std::shared_ptr<CountingObserver> observer_ = std::make_shared<CountingObserver>();
};

TEST_F(SystemTCPConnectionTest, EveryStateHasItsCounterpart) {
  const std::vector<std::pair<NWTCPConnectionState, TCPConnectionState>> states{
      {NWTCPConnectionStateInvalid, TCPConnectionState::invalid},
      {NWTCPConnectionStateConnecting, TCPConnectionState::connecting},
      {NWTCPConnectionStateWaiting, TCPConnectionState::waiting},
      {NWTCPConnectionStateConnected, TCPConnectionState::connected},
      {NWTCPConnectionStateDisconnected, TCPConnectionState::disconnected},
      {NWTCPConnectionStateCancelled, TCPConnectionState::cancelled},
  };
  for (const auto& [system, seam] : states) {
    change(system);
    EXPECT_EQ(connection_->state(), seam);
  }
}

TEST_F(SystemTCPConnectionTest, AnUnknownStateIsNoneOfThoseKnown) {
  change(static_cast<NWTCPConnectionState>(6));
  EXPECT_EQ(connection_->state(), TCPConnectionState::invalid);
}

TEST_F(SystemTCPConnectionTest, AnObserverIsNotifiedOfEveryChangeOnce) {
  connection_->addObserver(observer_, "state");
  change(NWTCPConnectionStateConnecting);
  change(NWTCPConnectionStateConnected);
  standin::settleWorkers();
  EXPECT_EQ(observer_->count(), 2);
}

TEST_F(SystemTCPConnectionTest, AChangeBeforeTheFirstObserverIsReportedLater) {
  change(NWTCPConnectionStateDisconnected);
  connection_->addObserver(observer_, "state");
  EXPECT_TRUE(waitUntil([this] { return observer_->count() == 1; }));
  const auto other = std::make_shared<CountingObserver>();
  connection_->addObserver(other, "state");
  standin::settleWorkers();
  EXPECT_EQ(observer_->count(), 1);
  EXPECT_EQ(other->count(), 0);
}

TEST_F(SystemTCPConnectionTest, AConnectionThatStartsConnectedIsReportedLater) {
  @autoreleasepool {
    object_ = Reference<NWTCPConnection*>::retaining(standin::makeScriptedConnection());
  }
  change(NWTCPConnectionStateConnected);
  connection_ = SystemTCPConnection::make(object_.get());
  connection_->addObserver(observer_, "state");
  EXPECT_TRUE(waitUntil([this] { return observer_->count() == 1; }));
}

TEST_F(SystemTCPConnectionTest, AnObserverMayRemoveItselfWhenNotified) {
  observer_->onValue = [this] { connection_->removeObserver(*observer_, "state"); };
  connection_->addObserver(observer_, "state");
  change(NWTCPConnectionStateConnecting);
  change(NWTCPConnectionStateConnected);
  EXPECT_EQ(observer_->count(), 1);
}

TEST_F(SystemTCPConnectionTest, MayEndWhileItsStateChangesOnAnotherThread) {
  for (int i = 0; i < 50; ++i) {
    @autoreleasepool {
      object_ = Reference<NWTCPConnection*>::retaining(standin::makeScriptedConnection());
      connection_ = SystemTCPConnection::make(object_.get());
    }
    connection_->addObserver(observer_, "state");
    std::thread changer([this] {
      change(NWTCPConnectionStateConnecting);
      change(NWTCPConnectionStateConnected);
    });
    connection_->removeObserver(*observer_, "state");
    connection_.reset();
    changer.join();
  }
  SUCCEED();
}

// The stand-in ends the process when the connection is destroyed before its notification ends.
TEST_F(SystemTCPConnectionTest, MayEndInsideItsNotification) {
  observer_->onValue = [this] {
    connection_.reset();
    object_ = {};
  };
  connection_->addObserver(observer_, "state");
  change(NWTCPConnectionStateConnected);
  EXPECT_EQ(observer_->count(), 1);
}

TEST_F(SystemTCPConnectionTest, MayBeCancelledInsideItsNotification) {
  for (const bool notifiesInside : {false, true}) {
    const standin::BehaviourScope behaviour({.notifiesInsideCancel = notifiesInside});
    @autoreleasepool {
      object_ = Reference<NWTCPConnection*>::retaining(standin::makeScriptedConnection());
      connection_ = SystemTCPConnection::make(object_.get());
    }
    observer_->onValue = [this] {
      connection_->removeObserver(*observer_, "state");
      connection_->cancel();
    };
    connection_->addObserver(observer_, "state");
    change(NWTCPConnectionStateConnected);
    EXPECT_TRUE(
        waitUntil([this] { return connection_->state() == TCPConnectionState::cancelled; }));
  }
  EXPECT_EQ(observer_->count(), 2);
}

// Releasing the system's object may not end it.
TEST_F(SystemTCPConnectionTest, DestructionCancelsTheConnection) {
  connection_.reset();
  EXPECT_TRUE(waitUntil([this] { return [object_.get() state] == NWTCPConnectionStateCancelled; }));
}

TEST_F(SystemTCPConnectionTest, ItReportsTheConnectionsError) {
  EXPECT_FALSE(connection_->error());
  @autoreleasepool {
    change(NWTCPConnectionStateDisconnected, [ErrorWithoutText errorWithDomain:NSPOSIXErrorDomain
                                                                          code:61
                                                                      userInfo:nil]);
  }
  EXPECT_EQ(connection_->error(), (platform::Error{"NSPOSIXErrorDomain", 61, ""}));
}

struct ReadResult {
  std::atomic<bool> isDone = false;
  std::optional<std::size_t> size;
  platform::OptionalError error;
};

class SystemTCPConnectionReadTest : public SystemTCPConnectionTest {
 protected:
  const ReadResult& readOf(NSData* data, NSError* error) {
    standin::setNextRead(object_.get(), data, error);
    connection_->read(1, 10,
                      [this](std::optional<platform::Data> read, platform::OptionalError failure) {
                        result_.size = read ? std::optional(read->size()) : std::nullopt;
                        result_.error = std::move(failure);
                        result_.isDone = true;
                      });
    EXPECT_TRUE(waitUntil([this] { return result_.isDone.load(); }));
    return result_;
  }

 private:
  ReadResult result_;
};

TEST_F(SystemTCPConnectionReadTest, AReadWithoutDataOrErrorIsPassedOnAsSuch) {
  const auto& result = readOf(nil, nil);
  EXPECT_EQ(result.size, std::nullopt);
  EXPECT_FALSE(result.error);
}

TEST_F(SystemTCPConnectionReadTest, EmptyDataIsPassedOnAsSuch) {
  @autoreleasepool {
    EXPECT_EQ(readOf([NSData data], nil).size, 0U);
  }
}

TEST_F(SystemTCPConnectionReadTest, AnErrorExcludesData) {
  @autoreleasepool {
    const auto& result = readOf([NSData dataWithBytes:"x" length:1],
                                [NSError errorWithDomain:@"Domain" code:5 userInfo:nil]);
    EXPECT_EQ(result.size, std::nullopt);
    ASSERT_TRUE(result.error);
    EXPECT_EQ(result.error->code, 5);
  }
}

TEST(SystemTCPConnectionNilTest, AMissingConnectionFailsItsTransfersOnce) {
  auto connection = SystemTCPConnection::make(nil);
  std::atomic<int> failures = 0;
  std::atomic<bool> isInsideCall = true;
  const auto noteFailure = [&](const platform::OptionalError& error) {
    EXPECT_FALSE(isInsideCall);
    failures += error && error->code == ENOTCONN ? 1 : 0;
  };
  // The queue waits for the calls to return.
  std::promise<void> returned;
  connection->write(platform::Data::copyOf("x"), [&](const auto& error) {
    returned.get_future().wait();
    noteFailure(error);
  });
  connection->read(1, 1, [&](const auto& data, const auto& error) {
    EXPECT_FALSE(data);
    noteFailure(error);
  });
  connection.reset();
  isInsideCall = false;
  returned.set_value();
  EXPECT_TRUE(waitUntil([&] { return failures == 2; }));
  standin::settleWorkers();
  EXPECT_EQ(failures, 2);
}

TEST(SystemTCPConnectionNilTest, AMissingConnectionStaysInvalid) {
  const auto connection = SystemTCPConnection::make(nil);
  connection->addObserver(std::make_shared<CountingObserver>(), "state");
  connection->cancel();
  standin::settleWorkers();
  EXPECT_EQ(connection->state(), TCPConnectionState::invalid);
  EXPECT_FALSE(connection->error());
}

}  // namespace
}  // namespace ostravel::macos::test
