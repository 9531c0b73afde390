#include "Platform/Linux/Interception/Interceptor.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/Interface/AppProxyTCPFlow.h"
#include "Platform/Interface/SystemLimits.h"
#include "Platform/Linux/Interception/FlowAdmission.h"
#include "Platform/Linux/Kernel/SocketOption.h"
#include "Platform/Linux/Statistics/FlowJournal.h"
#include "Platform/Shared/POSIXClock.h"
#include "Tests/Platform/Linux/Support/KeptLog.h"
#include "Tests/Platform/Linux/Support/NetworkFixture.h"
#include "Tests/Support/CommandOutput.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;
using namespace std::chrono_literals;

constexpr auto kGenerous = 20s;
// Shorter than any retransmission.
constexpr auto kSoon = 300ms;
constexpr std::uint16_t kPort = 8000;

class InterceptorTest : public ::testing::Test {
 protected:
  InterceptorTest() { heartbeat_.start(); }
  ~InterceptorTest() override {
    interceptor_.reset();
    heartbeat_.stop();
    loops_.stop();
  }

  // Flows are taken when doesTake; all of them are kept.
  void start(bool doesTake) {
    auto started = Interceptor::start(
        loopbackSettings(), log_,
        {.loops = loops_,
         .descriptors = descriptors_,
         .heartbeat = heartbeat_,
         .journal = journal_,
         .onAlive = [this] { ++beats_; },
         .proxyUsers = {}},
        [this, doesTake](std::shared_ptr<platform::AppProxyFlow> flow) {
          const std::lock_guard guard(lock_);
          offeredOn_ = EventLoop::current();
          identifiers_.push_back(flow->sourceAppSigningIdentifier());
          const auto* tcp = dynamic_cast<platform::AppProxyTCPFlow*>(flow.get());
          endpoints_.push_back(tcp != nullptr ? tcp->remoteEndpoint() : std::nullopt);
          if (doesTake) {
            flows_.push_back(std::move(flow));
          }
          return doesTake;
        });
    ASSERT_TRUE(started) << started.error().localizedDescription;
    interceptor_ = *std::move(started);
    ASSERT_TRUE(eventually([this] { return loops_.redirectPath().isUsable(AddressFamily::ipv4); }));
  }

  static bool eventually(const std::function<bool()>& condition) {
    const auto limit = std::chrono::steady_clock::now() + kGenerous;
    while (!condition() && std::chrono::steady_clock::now() < limit) {
      std::this_thread::yield();
    }
    return condition();
  }

  std::size_t offered() {
    const std::lock_guard guard(lock_);
    return identifiers_.size();
  }
  std::shared_ptr<platform::AppProxyTCPFlow> takenFlow() {
    EXPECT_TRUE(eventually([this] { return offered() > 0; }));
    const std::lock_guard guard(lock_);
    return flows_.empty() ? nullptr
                          : std::dynamic_pointer_cast<platform::AppProxyTCPFlow>(flows_.front());
  }

  // Takes a flow and does something with it, after which the system has to continue with the flow.
  void expectLeftToTheSystem(const std::function<void(platform::AppProxyTCPFlow&)>& proceed) {
    start(true);
    TestListener origin("127.0.0.1", kPort);
    const ConnectingApplication application("127.0.0.1", kPort);
    const auto flow = takenFlow();
    ASSERT_TRUE(flow);
    proceed(*flow);
    EXPECT_EQ(application.connectResult(kGenerous), 0);
    EXPECT_EQ(origin.acceptOne(kGenerous), application.localPort());
  }

  const std::shared_ptr<KeptLog> log_ = std::make_shared<KeptLog>();
  DescriptorBudget descriptors_{10'000};
  platform::POSIXClock clock_;
  FlowJournal journal_{clock_, 1};
  EventLoopGroup loops_{descriptors_, 1};
  HeartbeatRecord record_;
  Heartbeat heartbeat_{record_};
  std::atomic<int> beats_ = 0;
  std::mutex lock_;
  // Guarded by lock_, in the order of the offers.
  std::vector<std::string> identifiers_;
  std::vector<std::optional<platform::HostEndpoint>> endpoints_;
  std::vector<std::shared_ptr<platform::AppProxyFlow>> flows_;
  EventLoop* offeredOn_ = nullptr;
  std::unique_ptr<Interceptor> interceptor_;
};

TEST_F(InterceptorTest, OffersAFlowWithApplicationAndDestination) {
  start(false);
  TestListener origin("127.0.0.1", kPort);
  const ConnectingApplication application("127.0.0.1", kPort);
  EXPECT_EQ(application.connectResult(kGenerous), 0);
  const std::lock_guard guard(lock_);
  ASSERT_EQ(identifiers_.size(), 1U);
  EXPECT_EQ(identifiers_[0], std::filesystem::read_symlink("/proc/self/exe").string());
  EXPECT_EQ(endpoints_[0], (platform::HostEndpoint{"127.0.0.1", "8000"}));
}

TEST_F(InterceptorTest, OffersFlowsOnTheFirstLoop) {
  start(true);
  const ConnectingApplication application("127.0.0.1", kPort);
  ASSERT_TRUE(takenFlow());
  const std::lock_guard guard(lock_);
  EXPECT_EQ(offeredOn_, &loops_.loop(0));
}

TEST_F(InterceptorTest, FiltersWhatArrivesAtEachListener) {
  const auto filteredListeners = [] {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      const int descriptor = std::stoi(entry.path().filename());
      const auto listens = socketOption<int>(descriptor, SOL_SOCKET, SO_ACCEPTCONN);
      // A filter that is a BPF program exists, but cannot be read.
      socklen_t size = 0;
      const bool isFiltered =
          ::getsockopt(descriptor, SOL_SOCKET, SO_GET_FILTER, nullptr, &size) != 0 &&
          errno == EACCES;
      count += listens == 1 && isFiltered ? 1 : 0;
    }
    return count;
  };
  EXPECT_EQ(filteredListeners(), 0);
  start(false);
  EXPECT_EQ(filteredListeners(), 2 * static_cast<int>(loops_.size()));
}

TEST_F(InterceptorTest, DecidesMorePacketsThanOneBurst) {
  constexpr int kConnections = 200;
  start(false);
  TestListener origin("127.0.0.1", kPort);
  std::vector<std::unique_ptr<ConnectingApplication>> applications;
  for (int count = 0; count < kConnections; ++count) {
    applications.push_back(std::make_unique<ConnectingApplication>("127.0.0.1", kPort));
  }
  for (const auto& application : applications) {
    EXPECT_EQ(application->connectResult(kGenerous), 0);
  }
}

TEST_F(InterceptorTest, CanBeStartedAgain) {
  for (int round = 0; round < 2; ++round) {
    start(true);
    const ConnectingApplication application("127.0.0.1", kPort);
    EXPECT_TRUE(takenFlow());
    interceptor_.reset();
    flows_.clear();
    identifiers_.clear();
  }
}

TEST_F(InterceptorTest, ADeclinedFlowReachesItsDestinationUnchanged) {
  start(false);
  TestListener origin("127.0.0.1", kPort);
  const ConnectingApplication application("127.0.0.1", kPort);
  EXPECT_EQ(application.connectResult(kGenerous), 0);
  EXPECT_EQ(origin.acceptOne(kGenerous), application.localPort());
}

TEST_F(InterceptorTest, RecordsWhatItOffersAndWhatItLeaves) {
  start(false);
  TestListener origin("127.0.0.1", kPort);
  const ConnectingApplication application("127.0.0.1", kPort);
  EXPECT_EQ(application.connectResult(kGenerous), 0);
  ASSERT_TRUE(eventually([this] { return journal_.totals().examined > 0; }));
  const auto flow = journal_.decisions(std::nullopt, std::nullopt, 1).flows.at(0);
  EXPECT_EQ(flow.destination, "127.0.0.1:" + std::to_string(kPort));
  EXPECT_EQ(flow.application, std::filesystem::read_symlink("/proc/self/exe").string());
  EXPECT_TRUE(flow.process);
  EXPECT_EQ(flow.user, ::getuid());
  EXPECT_EQ(journal_.totals().verdicts.count(), 1U);

  loops_.redirectPath().setUsable(AddressFamily::ipv4, false);
  const ConnectingApplication second("127.0.0.1", kPort);
  EXPECT_EQ(second.connectResult(kGenerous), 0);
  // Recorded after the connection, which does not wait for that.
  EXPECT_TRUE(eventually([this] {
    return journal_.decisions(std::nullopt, std::nullopt, 1).flows.at(0).reason == "redirect_path";
  }));
  EXPECT_GT(journal_.totals().examined, 1U);
}

// Nothing remembers for the core that it has declined this application and destination before.
TEST_F(InterceptorTest, EveryDeclinedFlowIsOfferedAndThenRecorded) {
  start(false);
  TestListener origin("127.0.0.1", kPort);
  for (std::size_t count = 1; count <= 20; ++count) {
    const ConnectingApplication application("127.0.0.1", kPort);
    ASSERT_EQ(application.connectResult(kGenerous), 0);
    EXPECT_EQ(offered(), count);
    EXPECT_EQ(journal_.totals().examined, count);
    EXPECT_EQ(journal_.decisions(std::nullopt, std::nullopt, 1).flows.at(0).sequence, count);
  }
}

TEST_F(InterceptorTest, ATakenFlowIsHeldUntilItIsDecided) {
  start(true);
  TestListener origin("127.0.0.1", kPort);
  const ConnectingApplication application("127.0.0.1", kPort);
  ASSERT_TRUE(takenFlow());
  EXPECT_EQ(application.connectResult(kSoon), EINPROGRESS);
}

TEST_F(InterceptorTest, AFlowClosedWithAnErrorGoesDirect) {
  expectLeftToTheSystem([](platform::AppProxyTCPFlow& flow) {
    const platform::Error error{"test", 1, "the proxy is gone"};
    flow.closeRead(error);
    flow.closeWrite(error);
  });
  EXPECT_EQ(offered(), 1U);
}

// No local proxy listens here, so what seemed to be its answer came from elsewhere.
TEST_F(InterceptorTest, ARefusalThatIsNotTheProxysLeavesTheFlowToTheSystem) {
  expectLeftToTheSystem([](platform::AppProxyTCPFlow& flow) {
    flow.closeRead(std::nullopt);
    flow.closeWrite(std::nullopt);
  });
}

TEST_F(InterceptorTest, ATunnelThatIsNotTheProxysLeavesTheFlowToTheSystem) {
  expectLeftToTheSystem([](platform::AppProxyTCPFlow& flow) {
    flow.read([](std::optional<platform::Data> /*data*/, platform::OptionalError /*error*/) {});
  });
}

TEST_F(InterceptorTest, ItsEndLetsHeldFlowsGoAndRemovesTheRules) {
  start(true);
  TestListener origin("127.0.0.1", kPort);
  const ConnectingApplication application("127.0.0.1", kPort);
  ASSERT_TRUE(takenFlow());
  interceptor_.reset();
  EXPECT_EQ(application.connectResult(kGenerous), 0);
  EXPECT_EQ(outputOf("nft list tables"), "");
}

TEST_F(InterceptorTest, AUsersExcessGoesDirectAndIsLogged) {
  constexpr std::size_t kExcess = 6;
  start(true);
  TestListener origin("127.0.0.1", kPort);
  std::vector<std::unique_ptr<ConnectingApplication>> applications;
  for (std::size_t count = 0; count < FlowAdmission::kHeldFlowsPerUser + kExcess; ++count) {
    applications.push_back(std::make_unique<ConnectingApplication>("127.0.0.1", kPort));
  }
  for (std::size_t count = 0; count < kExcess; ++count) {
    EXPECT_EQ(applications[applications.size() - 1 - count]->connectResult(kGenerous), 0);
  }
  EXPECT_EQ(offered(), FlowAdmission::kHeldFlowsPerUser);
  EXPECT_NE(log_->wait("reason=handshake_share"), "");
}

TEST_F(InterceptorTest, KeepsItsRulesAliveWithTheHeartbeat) {
  start(false);
  EXPECT_TRUE(eventually([this] { return beats_ > 2; }));
}

}  // namespace
}  // namespace ostravel::linuxplatform
