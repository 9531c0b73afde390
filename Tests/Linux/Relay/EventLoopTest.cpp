#include "Platform/Linux/EventLoop.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "Platform/Linux/EventLoopGroup.h"
#include "Platform/Linux/PacketMarks.h"
#include "Tests/Linux/Relay/Support/RelayTest.h"

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

TEST_F(EventLoopTest, StopsAndDestroysTheWorkThatDidNotRun) {
  const auto held = std::make_shared<int>(0);
  {
    DescriptorBudget budget(1000);
    EventLoop stopped(0, budget);
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
  const auto connection = loops.connect({"127.0.0.1", std::to_string(listener.local().port)});
  ApplicationSocket server = listener.accept();
  connection->read(1, 10, readCompletion().first);
  loops.stop();
}

// Everything that is left is destroyed with the loop: a closed flow that only its unfinished close
// keeps alive, and a socket that lingers.
TEST_F(EventLoopTest, TakesWhatIsLeftWithIt) {
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

TEST_F(EventLoopTest, AGroupHasALoopPerCoreWithListenersOfItsOwn) {
  DescriptorBudget budget(100'000);
  EventLoopGroup perCore(budget);
  EXPECT_GE(perCore.size(), 1U);
  EXPECT_LE(perCore.size(), kMaximumEventLoops);

  EventLoopGroup bounded(budget, 1000);
  ASSERT_EQ(bounded.size(), kMaximumEventLoops);
  EXPECT_EQ(bounded.loop(5).index(), 5U);
  EXPECT_NE(bounded.loop(0).listener().ipv4Port(), bounded.loop(1).listener().ipv4Port());
  EXPECT_NE(bounded.loop(0).listener().ipv6Port(), 0);
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
