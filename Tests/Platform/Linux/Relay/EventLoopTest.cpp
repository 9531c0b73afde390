#include "Platform/Linux/Relay/EventLoop.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/Linux/Kernel/PacketMarks.h"
#include "Platform/Linux/Relay/EventLoopGroup.h"
#include "Platform/Linux/Services/LinuxDispatchQueue.h"
#include "Platform/Linux/Services/WorkerPool.h"
#include "Tests/Platform/Linux/Relay/Support/ConnectedSockets.h"
#include "Tests/Platform/Linux/Relay/Support/EventLoopTestPeer.h"
#include "Tests/Platform/Linux/Relay/Support/RelayTest.h"
#include "Tests/Platform/Linux/Relay/Support/RelayTunnel.h"
#include "Tests/Platform/Linux/Support/FailingCalls.h"

namespace ostravel::linuxplatform::test {
namespace {

using EventLoopTest = RelayTest;

TEST_F(EventLoopTest, KnowsTheLoopOfTheThread) {
  EXPECT_EQ(EventLoop::current(), nullptr);
  EXPECT_FALSE(loop().isCurrent());
  EXPECT_EQ(onLoop([] { return EventLoop::current(); }), &loop());
}

TEST_F(EventLoopTest, RunsWorkInOrderAndNeverInsideTheCall) {
  std::vector<int> order;
  onLoop([&] {
    loop().post([&order] { order.push_back(2); });
    loop().post([&order] { order.push_back(3); });
    order.push_back(1);
  });
  drain();
  EXPECT_EQ(onLoop([&order] { return order; }), (std::vector{1, 2, 3}));
}

// A new flow's proxy is dialled before other connections are closed.
TEST_F(EventLoopTest, FinishesWhatANewFlowPostsBeforeItHandlesOtherSockets) {
  const ConnectedSockets flows;
  const ConnectedSockets other;
  std::string order;
  Poller::Watch* preferred = nullptr;
  Poller::Watch* usual = nullptr;
  onLoop([&] {
    preferred = loop().poller().add(flows.near.get());
    usual = loop().poller().add(other.near.get());
    loop().poller().prefer(*preferred);
    loop().poller().waitUntilReadable(*usual, [&order] { order += "other "; });
    loop().poller().waitUntilReadable(*preferred, [this, &order] {
      order += "flow ";
      loop().post([this, &order] {
        order += "posted ";
        loop().post([&order] { order += "posted by that "; });
      });
    });
    // Both before the loop looks at its sockets again, the other one first.
    other.send("x");
    flows.send("x");
  });
  drain();
  EXPECT_EQ(onLoop([&order] { return order; }), "flow posted posted by that other ");
  onLoop([&] {
    loop().poller().remove(*preferred);
    loop().poller().remove(*usual);
  });
}

TEST(EventLoopsTest, AreThereOrThrow) {
  testing::withEachCallFailing(EMFILE, [] {
    try {
      DescriptorBudget budget(1000);
      EventLoopGroup loops(budget, 1);
      EXPECT_NE(loops.loop(0).listener().ipv4Port(), 0);
      return loops.loop(0).listener().ipv6Port() != 0;
    } catch (const std::system_error& failure) {
      EXPECT_EQ(failure.code().value(), EMFILE);
      return false;
    }
  });
}

// Queues whose items never block.
class LocalQueueTest : public EventLoopTest {
 protected:
  LocalQueueTest() { queue_.itemsNeverBlock(); }

  WorkerPool pool_;
  LinuxDispatchQueue queue_{pool_, "local", platform::DispatchQueueKind::concurrent};
};

TEST_F(LocalQueueTest, RunsItsItemsOnTheLoopThatSubmitsThem) {
  std::vector<EventLoop*> ranOn;
  onLoop([&] {
    queue_.async([&ranOn] { ranOn.push_back(EventLoop::current()); });
    queue_.asyncBarrier([&ranOn] { ranOn.push_back(EventLoop::current()); });
    EXPECT_TRUE(ranOn.empty()) << "not inside the call";
  });
  drain();
  EXPECT_EQ(onLoop([&ranOn] { return ranOn; }), (std::vector{&loop(), &loop()}));
}

TEST_F(LocalQueueTest, KeepsTheOrderOfItems) {
  std::string order;
  onLoop([&] {
    queue_.asyncBarrier([&order] { order += "1"; });
    loop().post([this, &order] { queue_.asyncBarrier([&order] { order += "3"; }); });
    queue_.asyncBarrier([&order] { order += "2"; });
  });
  drain();
  // Waits for all of them.
  queue_.syncBarrier([&order] { order += "4"; });
  EXPECT_EQ(order, "1234");
}

// The loop is busy, and another thread needs what its items do.
TEST_F(LocalQueueTest, AWaitingThreadRunsTheItemsItself) {
  std::promise<void> isSubmitted;
  std::promise<void> isDone;
  std::vector<int> order;
  loop().post([&] {
    queue_.asyncBarrier([&order] { order.push_back(1); });
    isSubmitted.set_value();
    isDone.get_future().wait();
  });
  isSubmitted.get_future().wait();
  queue_.sync([&order] { order.push_back(2); });
  isDone.set_value();
  EXPECT_EQ(order, (std::vector{1, 2}));
  drain();
}

TEST_F(LocalQueueTest, ASyncItemOnTheLoopRunsTheOnesAheadOfIt) {
  std::vector<int> order;
  onLoop([&] {
    queue_.asyncBarrier([&order] { order.push_back(1); });
    queue_.sync([&order] { order.push_back(2); });
    order.push_back(3);
  });
  EXPECT_EQ(order, (std::vector{1, 2, 3}));
}

TEST_F(LocalQueueTest, RunsOnThePoolWhatAStoppedLoopHasNot) {
  std::promise<EventLoop*> ranOn;
  std::promise<void> isSubmitted;
  loop().post([&] {
    queue_.async([&ranOn] { ranOn.set_value(EventLoop::current()); });
    isSubmitted.set_value();
    while (!EventLoopTestPeer::isStopping(loop())) {
      std::this_thread::yield();
    }
  });
  isSubmitted.get_future().wait();
  loop().stop();
  EXPECT_EQ(ranOn.get_future().get(), nullptr);
  EXPECT_TRUE(pool_.drain(std::chrono::steady_clock::now() + kPatience));
}

TEST_F(LocalQueueTest, ItemsOfSeveralThreadsExcludeEachOther) {
  constexpr int kItems = 2000;
  int count = 0;
  std::vector<std::thread> threads;
  for (int number = 0; number < 2; ++number) {
    threads.emplace_back([this, &count] {
      for (int item = 0; item < kItems; ++item) {
        queue_.asyncBarrier([&count] { ++count; });
      }
    });
  }
  for (int item = 0; item < kItems; ++item) {
    loop().post([this, &count] { queue_.asyncBarrier([&count] { ++count; }); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  drain();
  EXPECT_TRUE(pool_.drain(std::chrono::steady_clock::now() + kPatience));
  EXPECT_EQ(count, 3 * kItems);
}

TEST_F(EventLoopTest, StopsAndDestroysPendingWork) {
  const auto held = std::make_shared<int>(0);
  {
    DescriptorBudget budget(1000);
    MemoryBudget memory;
    EventLoop stopped(0, budget, memory);
    stopped.stop();
    stopped.stop();
    stopped.post([held] { FAIL() << "the loop has stopped"; });
    EXPECT_EQ(held.use_count(), 2);
  }
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(EventLoopTest, StopsWithStreamsAlive) {
  DescriptorBudget budget(1000);
  EventLoopGroup loops(budget, 2);
  ApplicationSocket listener("127.0.0.1");
  listener.listen();
  std::promise<std::shared_ptr<LinuxTCPConnection>> made;
  loops.loop(1).post([&] {
    made.set_value(loops.connect({"127.0.0.1", std::to_string(listener.local().port)}));
  });
  const auto connection = made.get_future().get();
  ApplicationSocket server = listener.accept();
  connection->read(1, 10, readCompletion().first);
  loops.stop();
}

// Destroying the loop destroys what is left on it: a closed flow that only its unfinished close
// keeps alive, and a lingering socket.
TEST_F(EventLoopTest, DestroysTheRemainingStreams) {
  CarriedFlow waiting = carryFlow();
  CarriedFlow lingering = carryFlow();
  onLoop([&] {
    lingering.flow->closeRead(std::nullopt);
    lingering.flow->closeWrite(std::nullopt);
  });
  lingering.flow.reset();
  loop().stop();
  waiting.flow->closeRead(std::nullopt);
  waiting.flow->closeWrite(std::nullopt);
  const std::weak_ptr<LinuxTCPFlow> weakFlow = waiting.flow;
  waiting.flow.reset();
  EXPECT_FALSE(weakFlow.expired());
}

// Completions that keep alive the flow or connection in whose stream they are pending, as a
// tunnel's do by holding the tunnel.
class StoppedLoopTest : public RelayTest {
 protected:
  static platform::ErrorCompletion written(std::shared_ptr<void> holder) {
    return [holder = std::move(holder)](const platform::OptionalError& /*error*/) {
      FAIL() << "the loop has stopped";
    };
  }
  static platform::ReadCompletion received(std::shared_ptr<void> holder) {
    return [holder = std::move(holder)](const std::optional<platform::Data>& /*data*/,
                                        const platform::OptionalError& /*error*/) {
      FAIL() << "the loop has stopped";
    };
  }
  // More than the kernel buffers for a reader that does not read.
  static platform::Data muchData() {
    return platform::Data(std::vector<std::byte>(std::size_t{64} << 20U));
  }

  // Stops the loop with work as the last item that it runs.
  template <typename Work>
  void stopAfter(Work work) {
    std::promise<void> hasRun;
    loop().post([this, &hasRun, &work] {
      work();
      hasRun.set_value();
      while (!EventLoopTestPeer::isStopping(loop())) {
        std::this_thread::yield();
      }
    });
    hasRun.get_future().wait();
    loop().stop();
  }

  // Drops the test's own reference and returns true if it was the last one.
  template <typename Object>
  static bool isGone(std::shared_ptr<Object>& object) {
    const std::weak_ptr<Object> remaining = object;
    object.reset();
    return remaining.expired();
  }
};

TEST_F(StoppedLoopTest, DropsAWriteThatIsBlockedByItsPeer) {
  Connected connected = connect();
  auto& connection = connected.connection;
  connection->write(muchData(), written(connection));
  drain();
  loop().stop();
  EXPECT_TRUE(isGone(connection));
}

TEST_F(StoppedLoopTest, DropsAReadThatWaitsForItsPeer) {
  CarriedFlow carried = carryFlow();
  carried.flow->read(received(carried.flow));
  drain();
  loop().stop();
  EXPECT_TRUE(isGone(carried.flow));
}

TEST_F(StoppedLoopTest, DropsOperationsThatWaitForASocket) {
  Flow released = makeFlow(ApplicationSocket(kApplicationIPv4).local());
  released.flow->read(received(released.flow));
  released.flow->write(platform::Data::copyOf("x"), written(released.flow));
  drain();
  loop().stop();
  EXPECT_TRUE(isGone(released.flow));
}

TEST_F(StoppedLoopTest, DropsTheCompletionOfAFinishedWrite) {
  Connected connected = connect();
  auto& connection = connected.connection;
  stopAfter([&] { connection->write(platform::Data::copyOf("x"), written(connection)); });
  EXPECT_EQ(connected.server.receive(1).bytes, "x");
  EXPECT_TRUE(isGone(connection));
}

TEST_F(StoppedLoopTest, DropsPendingCompletionsOfAHeldFlow) {
  Flow refused = makeFlow(ApplicationSocket(kApplicationIPv4).local());
  stopAfter([&] {
    refused.flow->closeRead(someError());
    refused.flow->read(received(refused.flow));
    refused.flow->write(platform::Data::copyOf("x"), written(refused.flow));
  });
  EXPECT_TRUE(isGone(refused.flow));
}

TEST_F(StoppedLoopTest, DestroysATunnelWithAStalledReader) {
  CarriedFlow carried = carryFlow();
  Connected connected = connect();
  auto tunnel = std::make_shared<RelayTunnel>(carried.flow, connected.connection);
  onLoop([&tunnel] { tunnel->start(); });
  for (int quiet = 0; quiet < 50;) {
    quiet = carried.application.sendWithoutWaiting(1 << 20) == 0 ? quiet + 1 : 0;
    drain();
  }
  loop().stop();
  EXPECT_TRUE(isGone(tunnel));
  EXPECT_TRUE(isGone(carried.flow));
  EXPECT_TRUE(isGone(connected.connection));
}

// A stream removes itself from the loop's registry while the loop iterates over it.
TEST_F(StoppedLoopTest, StreamsMayBeDestroyedOnAnotherThreadMeanwhile) {
  constexpr int kRounds = 50;
  for (int round = 0; round < kRounds; ++round) {
    DescriptorBudget budget(1000);
    MemoryBudget memory;
    EventLoop stopped(0, budget, memory);
    std::vector<std::shared_ptr<LinuxTCPConnection>> connections;
    std::promise<void> areReading;
    stopped.post([&] {
      for (int i = 0; i < 8; ++i) {
        connections.push_back(LinuxTCPConnection::connect(
            stopped, {"127.0.0.1", std::to_string(stopped.listener().ipv4Port())}));
        connections.back()->read(1, 10, [](const auto& /*data*/, const auto& /*error*/) {});
      }
      areReading.set_value();
    });
    areReading.get_future().wait();
    std::thread releasing([&connections] { connections.clear(); });
    stopped.stop();
    releasing.join();
  }
}

TEST_F(EventLoopTest, AGroupHasLoopsWithListeners) {
  DescriptorBudget budget(100'000);
  const EventLoopGroup usual(budget);
  EXPECT_GE(usual.size(), 1U);
  EXPECT_LE(usual.size(), PacketMarks().maximumEventLoops());

  EventLoopGroup bounded(budget, 1000);
  ASSERT_EQ(bounded.size(), PacketMarks().maximumEventLoops());
  EXPECT_EQ(bounded.loop(5).index(), 5U);
  EXPECT_NE(bounded.loop(0).listener().ipv4Port(), bounded.loop(1).listener().ipv4Port());
  EXPECT_NE(bounded.loop(0).listener().ipv6Port(), 0);
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
