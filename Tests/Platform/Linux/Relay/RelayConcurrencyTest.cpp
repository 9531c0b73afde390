#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>

#include "Tests/Platform/Linux/Relay/Support/EventLoopTestPeer.h"
#include "Tests/Platform/Linux/Relay/Support/RelayTest.h"
#include "Tests/Platform/Linux/Relay/Support/RelayTunnel.h"

namespace ostravel::linuxplatform::test {
namespace {

// Closing and destroying on other threads while bytes move. The tests pass if the sanitizers report
// nothing and everything ends.
class RelayConcurrencyTest : public RelayTunnelTest {
 protected:
  const std::size_t idle_ = budget_.inUse();
};

constexpr int kTunnels = 60;

TEST_F(RelayConcurrencyTest, TunnelsAreClosedByOtherThreadsWhileBytesMove) {
  std::mt19937 random(1);
  for (int index = 0; index < kTunnels; ++index) {
    Tunnel tunnel = makeTunnel();
    const std::string bytes(1 << 16, 'c');
    std::thread sending([&] {
      while (::send(tunnel.server.descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0) {
      }
    });
    tunnel.application.receive(random() % 2'000'000);
    std::thread closing([&] {
      tunnel.tunnel->close(index % 2 == 0 ? platform::OptionalError(someError()) : std::nullopt);
    });
    auto closed = tunnel.tunnel->closed();
    closing.join();
    waitFor(std::move(closed));
    tunnel.tunnel.reset();
    tunnel.application.reset();
    tunnel.server.interrupt();
    sending.join();
  }
  EXPECT_TRUE(eventually([this] {
    const std::size_t pipes = 2 * EventLoopTestPeer::keptPipes(loop());
    return budget_.inUse() == idle_ + pipes;
  }));
}

TEST_F(RelayConcurrencyTest, StreamsAreDestroyedOnOtherThreadsWhileBytesArrive) {
  for (int index = 0; index < kTunnels; ++index) {
    CarriedFlow carried = carryFlow();
    Connected connected = connect();
    carried.flow->read([](const std::optional<platform::Data>&, const platform::OptionalError&) {});
    connected.connection->read(
        1, 1000, [](const std::optional<platform::Data>&, const platform::OptionalError&) {});
    std::thread destroying([&] {
      carried.flow.reset();
      connected.connection.reset();
    });
    carried.application.sendWithoutWaiting(1000);
    connected.server.sendWithoutWaiting(1000);
    destroying.join();
  }
  EXPECT_TRUE(eventually([this] { return budget_.inUse() == idle_; }));
}

TEST_F(RelayConcurrencyTest, FlowsAreClosedAtEveryStageByOtherThreads) {
  for (int index = 0; index < kTunnels; ++index) {
    ApplicationSocket application(kApplicationIPv4);
    Flow made = makeFlow(application.local());
    std::thread arriving([&, verdict = made.verdict] {
      if (verdict->wait() == "redirect 0") {
        arrive(application);
      }
    });
    auto [completion, outcome] = readCompletion();
    made.flow->read(std::move(completion));
    std::thread closing([&] {
      made.flow->closeRead(std::nullopt);
      made.flow->closeWrite(index % 2 == 0 ? platform::OptionalError(someError()) : std::nullopt);
    });
    EXPECT_TRUE(waitFor(std::move(outcome)).error);
    closing.join();
    std::thread destroying([&] { made.flow.reset(); });
    destroying.join();
    arriving.join();
    application.receiveToEnd();
  }
  EXPECT_TRUE(eventually([this] { return budget_.inUse() == idle_; }));
}

TEST_F(RelayConcurrencyTest, ObserversComeAndGoOnOtherThreads) {
  class Observer : public platform::KeyValueObserver {
   public:
    void observeValue(std::optional<std::string_view> /*keyPath*/,
                      platform::Observable* /*object*/) override {
      ++notifications;
    }
    std::atomic<int> notifications = 0;
  };
  for (int index = 0; index < kTunnels; ++index) {
    Connected connected = connect();
    const auto observer = std::make_shared<Observer>();
    connected.connection->addObserver(observer, "state");
    std::thread cancelling([&] { connected.connection->cancel(); });
    std::thread looking([&] {
      while (connected.connection->state() != platform::TCPConnectionState::cancelled) {
        EXPECT_FALSE(connected.connection->error());
      }
    });
    connected.connection->removeObserver(*observer, "state");
    cancelling.join();
    looking.join();
    drain();
    // Connected, then cancelled.
    EXPECT_LE(observer->notifications, 2);
  }
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
