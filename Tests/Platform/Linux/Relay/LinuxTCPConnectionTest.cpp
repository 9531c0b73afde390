#include "Platform/Linux/Relay/LinuxTCPConnection.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Tests/Platform/Linux/Relay/Support/RelayTest.h"
#include "Tests/Platform/Linux/Support/FailingCalls.h"
#include "Tests/Support/CommandOutput.h"

namespace ostravel::linuxplatform::test {
namespace {

using platform::Data;
using platform::HostEndpoint;
using platform::OptionalError;
using platform::TCPConnectionState;

// Records the states that it was notified of. For the loop's thread.
class StateObserver : public platform::KeyValueObserver {
 public:
  void observeValue(std::optional<std::string_view> keyPath,
                    platform::Observable* object) override {
    EXPECT_EQ(keyPath, "state");
    EXPECT_NE(EventLoop::current(), nullptr);
    states_.push_back(dynamic_cast<platform::TCPConnection&>(*object).state());
    if (onChange) {
      onChange();
    }
  }

  std::vector<TCPConnectionState> states_;
  std::function<void()> onChange;
};

class LinuxTCPConnectionTest : public RelayTest {
 protected:
  std::vector<TCPConnectionState> statesSeenBy(const StateObserver& observer) {
    return onLoop([&observer] { return observer.states_; });
  }
  bool becomes(const platform::TCPConnection& connection, TCPConnectionState state) {
    return eventually([&connection, state] { return connection.state() == state; });
  }
  static HostEndpoint endpointOf(const ApplicationSocket& listener) {
    const auto local = listener.local();
    return {local.addressText(), std::to_string(local.port)};
  }
};

TEST_F(LinuxTCPConnectionTest, ConnectsAndNotifiesItsObserverOnTheLoop) {
  for (const char* const address : {"127.0.0.1", "::1"}) {
    ApplicationSocket listener(address);
    listener.listen();
    const auto observer = std::make_shared<StateObserver>();
    const auto connection = onLoop([&] {
      auto made = loops_.connect(endpointOf(listener));
      EXPECT_EQ(made->state(), TCPConnectionState::connecting);
      made->addObserver(observer, "state");
      EXPECT_TRUE(observer->states_.empty());
      return made;
    });
    ApplicationSocket server = listener.accept();
    ASSERT_TRUE(becomes(*connection, TCPConnectionState::connected));
    drain();
    EXPECT_EQ(statesSeenBy(*observer), std::vector{TCPConnectionState::connected});
    EXPECT_FALSE(connection->error());
    server.send("hello");
    EXPECT_EQ(read(*connection, 5, 100).bytes, "hello");
  }
}

TEST_F(LinuxTCPConnectionTest, IsEstablishedWithoutWaitingForALocalListener) {
  ApplicationSocket listener("127.0.0.1");
  listener.listen();
  const auto isEstablishedAtOnce = [&] {
    const auto observer = std::make_shared<StateObserver>();
    const auto before = onLoop([this] { return loop().counters().wakeups; });
    const auto connection = onLoop([&] {
      auto made = EventLoopGroup::connect(endpointOf(listener));
      made->addObserver(observer, "state");
      return made;
    });
    drain();
    return statesSeenBy(*observer) == std::vector{TCPConnectionState::connected} &&
           onLoop([this] { return loop().counters().wakeups; }) == before;
  };
  // A busy kernel may deliver the handshake's packets later.
  constexpr int kAttempts = 100;
  bool isAtOnce = false;
  for (int attempt = 0; attempt < kAttempts && !isAtOnce; ++attempt) {
    isAtOnce = isEstablishedAtOnce();
  }
  EXPECT_TRUE(isAtOnce);
}

TEST_F(LinuxTCPConnectionTest, UsesTheCallersLoop) {
  DescriptorBudget budget(100'000);
  EventLoopGroup loops(budget, 3);
  ApplicationSocket listener("127.0.0.1");
  listener.listen();
  for (unsigned index = 0; index < loops.size(); ++index) {
    std::promise<EventLoop*> completedOn;
    std::shared_ptr<LinuxTCPConnection> connection;
    loops.loop(index).post([&] {
      connection = loops.connect(endpointOf(listener));
      connection->write(Data::copyOf("x"), [&completedOn](const OptionalError&) {
        completedOn.set_value(EventLoop::current());
      });
    });
    EXPECT_EQ(waitFor(completedOn.get_future()), &loops.loop(index));
  }
}

TEST_F(LinuxTCPConnectionTest, CreatingItOffItsLoopIsAProgrammingError) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(EventLoopGroup::connect({"127.0.0.1", "80"}), "programming error");
  EXPECT_DEATH(LinuxTCPConnection::connect(loop(), {"127.0.0.1", "80"}), "programming error");
}

TEST_F(LinuxTCPConnectionTest, OperationsWaitUntilItIsConnected) {
  ApplicationSocket listener("127.0.0.1");
  listener.listen();
  auto [onWritten, written] = errorCompletion();
  auto [onRead, readOutcome] = readCompletion();
  const auto connection = onLoop([&, onDone = std::move(onWritten), onData = std::move(onRead)] {
    auto made = loops_.connect(endpointOf(listener));
    made->write(Data::copyOf("early"), onDone);
    made->read(1, 100, onData);
    return made;
  });
  ApplicationSocket server = listener.accept();
  EXPECT_EQ(server.receive(5).bytes, "early");
  EXPECT_FALSE(waitFor(std::move(written)));
  server.send("answer");
  EXPECT_EQ(waitFor(std::move(readOutcome)).bytes, "answer");
}

TEST_F(LinuxTCPConnectionTest, ARefusalDisconnectsWithTheError) {
  ApplicationSocket unheard("127.0.0.1");
  const auto observer = std::make_shared<StateObserver>();
  auto [onWritten, written] = errorCompletion();
  const auto connection = onLoop([&, onDone = std::move(onWritten)] {
    auto made = loops_.connect(endpointOf(unheard));
    made->addObserver(observer, "state");
    made->write(Data::copyOf("early"), onDone);
    return made;
  });
  const auto error = waitFor(std::move(written));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, ECONNREFUSED);
  EXPECT_EQ(error->domain, "NSPOSIXErrorDomain");
  EXPECT_EQ(error->localizedDescription, std::strerror(ECONNREFUSED));
  drain();
  EXPECT_EQ(connection->state(), TCPConnectionState::disconnected);
  EXPECT_EQ(connection->error(), error);
  EXPECT_EQ(statesSeenBy(*observer), std::vector{TCPConnectionState::disconnected});
  EXPECT_EQ(read(*connection, 1, 100).error, error);
}

TEST_F(LinuxTCPConnectionTest, OnlyAddressLiteralsAndDecimalPortsAreEndpoints) {
  const std::vector<HostEndpoint> wrong{{"localhost", "80"}, {"[::1]", "80"},      {"", "80"},
                                        {"127.0.0.1", "0"},  {"127.0.0.1", ""},    {"127.1", "80"},
                                        {"127.0.0.1", "-1"}, {"127.0.0.1", "80 "}, {"::1", "65536"},
                                        {"::1%lo", "80"},    {"::1", "http"}};
  for (const auto& endpoint : wrong) {
    const auto observer = std::make_shared<StateObserver>();
    const auto connection = onLoop([&] {
      auto made = loops_.connect(endpoint);
      EXPECT_EQ(made->state(), TCPConnectionState::connecting);
      made->addObserver(observer, "state");
      return made;
    });
    ASSERT_TRUE(becomes(*connection, TCPConnectionState::disconnected)) << endpoint.hostname;
    drain();
    EXPECT_EQ(statesSeenBy(*observer), std::vector{TCPConnectionState::disconnected});
    ASSERT_TRUE(connection->error());
    EXPECT_EQ(connection->error()->code, EINVAL);
  }
}

TEST_F(LinuxTCPConnectionTest, AnUnreachableAddressDisconnects) {
  const auto connection = connectTo({"203.0.113.1", "80"});
  ASSERT_TRUE(becomes(*connection, TCPConnectionState::disconnected));
  EXPECT_EQ(connection->error()->code, ENETUNREACH);
}

TEST_F(LinuxTCPConnectionTest, LackOfDescriptorsDisconnects) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{.rlim_cur = 0, .rlim_max = before.rlim_max};
  // A sanitizer needs a descriptor when it first sees an object of a class.
  EXPECT_TRUE(becomes(*connectTo({"127.0.0.1", "80"}), TCPConnectionState::disconnected));
  const auto connection = onLoop([&] {
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    auto made = loops_.connect({"127.0.0.1", "80"});
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    return made;
  });
  ASSERT_TRUE(becomes(*connection, TCPConnectionState::disconnected));
  EXPECT_EQ(connection->error()->code, EMFILE);
}

TEST_F(LinuxTCPConnectionTest, ASocketThatCannotBeWatchedDisconnects) {
  ApplicationSocket listener("127.0.0.1");
  listener.listen();
  onLoop([] { testing::failCalls({SYS_epoll_ctl, {{1, EPOLL_CTL_ADD}}}, ENOSPC); });
  const auto connection = connectTo(endpointOf(listener));
  ASSERT_TRUE(becomes(*connection, TCPConnectionState::disconnected));
  EXPECT_EQ(connection->error()->code, ENOMEM);
}

TEST_F(LinuxTCPConnectionTest, ConnectsAsSoonAsTheServerAnswers) {
  ApplicationSocket listener("127.0.0.1");
  listener.listen();
  const auto endpoint = endpointOf(listener);
  testing::outputOf(
      "nft 'add table inet slow; add chain inet slow out { type filter hook output priority 0; }; "
      "add rule inet slow out tcp dport " +
      endpoint.port + " drop'");
  const auto connection = connectTo(endpoint);
  drain();
  EXPECT_EQ(connection->state(), TCPConnectionState::connecting);
  testing::outputOf("nft delete table inet slow");
  EXPECT_TRUE(becomes(*connection, TCPConnectionState::connected));
  EXPECT_FALSE(connection->error());
}

TEST_F(LinuxTCPConnectionTest, CarriesOurMark) {
  ApplicationSocket listener("127.0.0.1");
  listener.listen();
  const std::string rule =
      "nft add table inet marks && "
      "nft add chain inet marks out '{ type filter hook output priority 0; }' && "
      "nft add rule inet marks out tcp dport " +
      std::to_string(listener.local().port) +
      " meta mark and 0x3e000000 != 0x02000000 reject with tcp reset";
  testing::outputOf(rule);
  ApplicationSocket unmarked("127.0.0.1");
  EXPECT_EQ(unmarked.connectTo("127.0.0.1", listener.local().port), ECONNREFUSED);
  const auto connection = connectTo(endpointOf(listener));
  ApplicationSocket server = listener.accept();
  EXPECT_TRUE(becomes(*connection, TCPConnectionState::connected));
  testing::outputOf("nft delete table inet marks");
}

TEST_F(LinuxTCPConnectionTest, ReadsNoMoreThanTheMaximum) {
  Connected connected = connect();
  connected.server.send("0123456789");
  std::string all;
  while (all.size() < 10) {
    const auto outcome = read(*connected.connection, 1, 4);
    ASSERT_TRUE(outcome.bytes);
    EXPECT_LE(outcome.bytes->size(), 4U);
    all += *outcome.bytes;
  }
  EXPECT_EQ(all, "0123456789");
}

TEST_F(LinuxTCPConnectionTest, GathersTheMinimum) {
  Connected connected = connect();
  auto [completion, outcome] = readCompletion();
  connected.connection->read(6, 8, std::move(completion));
  std::uint64_t sent = 0;
  for (const char* const part : {"ab", "cd", "e"}) {
    connected.server.send(part);
    sent += std::strlen(part);
    EXPECT_TRUE(eventually([&] { return loop().counters().copiedBytes == sent; }));
    drain();
    EXPECT_EQ(outcome.wait_for(0s), std::future_status::timeout);
  }
  connected.server.send("fghij");
  const auto gathered = waitFor(std::move(outcome)).bytes;
  ASSERT_TRUE(gathered);
  EXPECT_EQ(*gathered, std::string("abcdefghij").substr(0, gathered->size()));
  EXPECT_GE(gathered->size(), 6U);
  EXPECT_LE(gathered->size(), 8U);
}

TEST_F(LinuxTCPConnectionTest, GathersMoreThanOneBuffer) {
  Connected connected = connect();
  auto [completion, future] = readCompletion();
  connected.connection->read(300'000, 400'000, std::move(completion));
  connected.server.send(std::string(300'000, 'm'));
  EXPECT_EQ(waitFor(std::move(future)).bytes, std::string(300'000, 'm'));
}

TEST_F(LinuxTCPConnectionTest, DeliversLessThanTheMinimumOnlyAtTheEnd) {
  Connected connected = connect();
  auto [completion, future] = readCompletion();
  connected.connection->read(100, 200, std::move(completion));
  connected.server.send("all there is");
  connected.server.endSending();
  EXPECT_EQ(waitFor(std::move(future)).bytes, "all there is");
  EXPECT_TRUE(read(*connected.connection, 100, 200).isEnd());
}

TEST_F(LinuxTCPConnectionTest, ThePeersEndDisconnectsWithoutAnError) {
  Connected connected = connect();
  const auto observer = std::make_shared<StateObserver>();
  connected.connection->addObserver(observer, "state");
  connected.server.endSending();
  EXPECT_TRUE(read(*connected.connection, 1, 10).isEnd());
  drain();
  EXPECT_EQ(statesSeenBy(*observer),
            (std::vector{TCPConnectionState::connected, TCPConnectionState::disconnected}));
  EXPECT_FALSE(connected.connection->error());
}

TEST_F(LinuxTCPConnectionTest, ThePeersResetDisconnectsWithTheError) {
  Connected connected = connect();
  auto [completion, future] = readCompletion();
  connected.connection->read(1, 10, std::move(completion));
  connected.server.reset();
  EXPECT_EQ(waitFor(std::move(future)).error->code, ECONNRESET);
  EXPECT_EQ(connected.connection->state(), TCPConnectionState::disconnected);
  EXPECT_EQ(connected.connection->error()->code, ECONNRESET);
}

TEST_F(LinuxTCPConnectionTest, CancelEndsInOrderAndCompletesOutstandingOperations) {
  Connected connected = connect();
  const auto observer = std::make_shared<StateObserver>();
  connected.connection->addObserver(observer, "state");
  EXPECT_FALSE(write(*connected.connection, "acknowledged"));
  auto [completion, future] = readCompletion();
  connected.connection->read(1, 10, std::move(completion));
  connected.connection->cancel();
  connected.connection->cancel();

  EXPECT_EQ(waitFor(std::move(future)).error->code, ECANCELED);
  const auto received = connected.server.receiveToEnd();
  EXPECT_EQ(received.bytes, "acknowledged");
  EXPECT_EQ(received.error, 0);
  drain();
  EXPECT_EQ(statesSeenBy(*observer),
            (std::vector{TCPConnectionState::connected, TCPConnectionState::cancelled}));
  EXPECT_FALSE(connected.connection->error());
  EXPECT_EQ(write(*connected.connection, "late")->code, ECANCELED);
}

TEST_F(LinuxTCPConnectionTest, CancelCompletesAPendingWrite) {
  Connected connected = connect();
  std::size_t acknowledged = 0;
  auto stalled = writeUntilStalled(*connected.connection, acknowledged);
  connected.connection->cancel();
  EXPECT_EQ(waitFor(std::move(stalled))->code, ECANCELED);
  const auto received = connected.server.receiveToEnd();
  EXPECT_GE(received.bytes.size(), acknowledged);
  EXPECT_EQ(received.error, 0);
}

TEST_F(LinuxTCPConnectionTest, CancelWhileConnecting) {
  ApplicationSocket listener("127.0.0.1");
  listener.listen();
  const auto observer = std::make_shared<StateObserver>();
  auto [onRead, outcome] = readCompletion();
  const auto connection = onLoop([&, onData = std::move(onRead)] {
    auto made = loops_.connect(endpointOf(listener));
    made->addObserver(observer, "state");
    made->read(1, 10, onData);
    made->cancel();
    return made;
  });
  EXPECT_EQ(waitFor(std::move(outcome)).error->code, ECANCELED);
  drain();
  drain();
  EXPECT_EQ(statesSeenBy(*observer), std::vector{TCPConnectionState::cancelled});
}

TEST_F(LinuxTCPConnectionTest, ARemovedObserverIsNotNotified) {
  Connected connected = connect();
  const auto removed = std::make_shared<StateObserver>();
  const auto staying = std::make_shared<StateObserver>();
  // Receives the notification that the connection is established.
  connected.connection->addObserver(staying, "state");
  drain();
  staying->states_.clear();
  connected.connection->addObserver(removed, "state");
  connected.connection->removeObserver(*removed, "state");
  connected.connection->cancel();
  EXPECT_TRUE(eventually([&] { return staying->states_.size() == 1; }));
  EXPECT_TRUE(removed->states_.empty());
}

TEST_F(LinuxTCPConnectionTest, AnObserverMayRemoveTheNextOne) {
  Connected connected = connect();
  const auto first = std::make_shared<StateObserver>();
  const auto second = std::make_shared<StateObserver>();
  // Receives the notification that the connection is established.
  const auto early = std::make_shared<StateObserver>();
  connected.connection->addObserver(early, "state");
  drain();
  connected.connection->removeObserver(*early, "state");
  connected.connection->addObserver(first, "state");
  connected.connection->addObserver(second, "state");
  first->onChange = [&] {
    connected.connection->removeObserver(*first, "state");
    connected.connection->removeObserver(*second, "state");
  };
  connected.connection->cancel();
  EXPECT_TRUE(eventually([&] { return first->states_.size() == 1; }));
  drain();
  EXPECT_TRUE(second->states_.empty());
}

TEST_F(LinuxTCPConnectionTest, ObserversAreHeldWeakly) {
  Connected connected = connect();
  auto observer = std::make_shared<StateObserver>();
  connected.connection->addObserver(observer, "state");
  const std::weak_ptr<StateObserver> weakObserver = observer;
  observer.reset();
  // The loop may just be telling it of the connection, and holds it for as long as that takes.
  EXPECT_TRUE(eventually([&] { return weakObserver.expired(); }));
  connected.connection->cancel();
  EXPECT_TRUE(becomes(*connected.connection, TCPConnectionState::cancelled));
}

TEST_F(LinuxTCPConnectionTest, DestructionWithoutCancelResets) {
  Connected connected = connect();
  EXPECT_FALSE(write(*connected.connection, "half of it"));
  EXPECT_EQ(connected.server.receive(10).bytes, "half of it");
  connected.connection.reset();
  EXPECT_EQ(connected.server.receiveToEnd().error, ECONNRESET);
}

TEST_F(LinuxTCPConnectionTest, DestructionWhileConnectingCancelsOperations) {
  ApplicationSocket listener("127.0.0.1");
  listener.listen();
  auto cancelled = std::make_shared<std::atomic<int>>(0);
  onLoop([&] {
    const auto connection = loops_.connect(endpointOf(listener));
    connection->read(1, 10, [cancelled](const std::optional<Data>&, const OptionalError& error) {
      *cancelled += error && error->code == ECANCELED ? 1 : 0;
    });
  });
  EXPECT_TRUE(eventually([&] { return cancelled.use_count() == 1; }));
  EXPECT_EQ(*cancelled, 1);
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
