#include "Companion/Sidecar/NameLookup.h"

#include <gtest/gtest.h>

#include <array>
#include <asio/io_context.hpp>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Tests/Companion/Sidecar/TestNameServer.h"
#include "Tests/Support/TestSocket.h"

namespace ostravel::companion {
namespace {

using asio::ip::tcp;
using test::TestNameServer;
using namespace std::chrono_literals;

// Nothing waits for it: a port without a server refuses at once.
constexpr auto kGenerous = 20s;

tcp::endpoint endpoint(const std::string& address, std::uint16_t port) {
  return {asio::ip::make_address(address), port};
}

std::ptrdiff_t openDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class NameLookupTest : public ::testing::Test {
 protected:
  struct Outcome {
    asio::error_code error;
    LookupResult endpoints;
  };

  Outcome lookUp(NameLookup& names, const std::string& name) {
    ioContext_.restart();
    std::optional<Outcome> outcome;
    const auto pending =
        names.lookUp({name, 80}, [&](asio::error_code error, const LookupResult& endpoints) {
          outcome = {error, endpoints};
        });
    while (!outcome) {
      ioContext_.run_one();
    }
    return *outcome;
  }
  Outcome lookUp(const std::string& name) { return lookUp(names_, name); }

  asio::io_context ioContext_;
  const TestNameServer server_;
  NameLookup names_{ioContext_.get_executor(), {.nameServers = server_.address()}};
};

TEST_F(NameLookupTest, FindsTheAddressesOfBothFamilies) {
  EXPECT_EQ(lookUp("four.example").endpoints, LookupResult{endpoint("127.0.0.7", 80)});
  EXPECT_EQ(lookUp("six.example").endpoints, LookupResult{endpoint("::7", 80)});
  EXPECT_EQ(lookUp("both.example").endpoints.size(), 2U);
}

TEST_F(NameLookupTest, AsksAgainOverTCPForALargeAnswer) {
  EXPECT_EQ(lookUp("large.example").endpoints, LookupResult{endpoint("127.0.0.7", 80)});
}

TEST_F(NameLookupTest, ReportsANameThatDoesNotExist) {
  EXPECT_EQ(lookUp("missing.example").error, asio::error::host_not_found);
  EXPECT_EQ(lookUp(std::string(64, 'a') + ".example").error, asio::error::host_not_found);
}

TEST_F(NameLookupTest, ReadsTheHostsFile) {
  const Outcome outcome = lookUp("localhost");
  ASSERT_FALSE(outcome.endpoints.empty());
  for (const tcp::endpoint& found : outcome.endpoints) {
    EXPECT_TRUE(found.address().is_loopback());
    EXPECT_EQ(found.port(), 80);
  }
}

TEST_F(NameLookupTest, NeedsNoNameServerForAnAddress) {
  EXPECT_EQ(lookUp("192.0.2.7").endpoints, LookupResult{endpoint("192.0.2.7", 80)});
  EXPECT_EQ(lookUp("2001:db8::7").endpoints, LookupResult{endpoint("2001:db8::7", 80)});
}

TEST_F(NameLookupTest, TriesTheNextServerWhenOneIsMissing) {
  const std::string nobody = "127.0.0.1:" + std::to_string(testing::closedPort());
  const TestNameServer good;
  NameLookup names(ioContext_.get_executor(),
                   {.nameServers = nobody + "," + good.address(), .timeout = kGenerous});
  EXPECT_EQ(lookUp(names, "four.example").endpoints, LookupResult{endpoint("127.0.0.7", 80)});
}

TEST_F(NameLookupTest, ReportsThatNoServerAnswers) {
  NameLookup names(ioContext_.get_executor(), {.nameServers = server_.address(), .timeout = 10ms});
  EXPECT_EQ(lookUp(names, "silent.example").error, asio::error::timed_out);
}

TEST_F(NameLookupTest, ReportsThatThereIsNoServer) {
  const std::string nobody = "127.0.0.1:" + std::to_string(testing::closedPort());
  NameLookup names(ioContext_.get_executor(), {.nameServers = nobody, .timeout = kGenerous});
  EXPECT_EQ(lookUp(names, "four.example").error, asio::error::host_not_found_try_again);
}

TEST_F(NameLookupTest, ANameThatNoneOfFourServersAnswersDelaysNoOther) {
  const std::array<TestNameServer, 4> servers;
  std::string addresses;
  for (const TestNameServer& server : servers) {
    addresses += (addresses.empty() ? "" : ",") + server.address();
  }
  // No server is given up while the test runs.
  NameLookup names(ioContext_.get_executor(), {.nameServers = addresses, .timeout = 1h});
  std::vector<std::shared_ptr<PendingLookup>> pending;
  for (int index = 0; index < 100; ++index) {
    pending.push_back(names.lookUp(
        {"silent.example", 80},
        [](asio::error_code, const LookupResult&) { ADD_FAILURE() << "no server answers this"; }));
  }
  servers[0].waitForQuestions(100);
  EXPECT_EQ(lookUp(names, "four.example").endpoints, LookupResult{endpoint("127.0.0.7", 80)});
}

TEST_F(NameLookupTest, CancellingClosesTheSocketsAndNeverCompletes) {
  lookUp("four.example");
  const std::ptrdiff_t before = openDescriptors();
  std::shared_ptr<PendingLookup> pending = names_.lookUp(
      {"silent.example", 80},
      [](asio::error_code, const LookupResult&) { ADD_FAILURE() << "it was cancelled"; });
  EXPECT_GT(openDescriptors(), before);
  pending = nullptr;
  EXPECT_EQ(openDescriptors(), before);
  // Returns only because nothing is outstanding.
  ioContext_.restart();
  ioContext_.run();
}

TEST_F(NameLookupTest, ACompletedLookupCanBeCancelledBeforeItIsDelivered) {
  std::shared_ptr<PendingLookup> pending = names_.lookUp(
      {"192.0.2.7", 80},
      [](asio::error_code, const LookupResult&) { ADD_FAILURE() << "it was cancelled"; });
  pending = nullptr;
  ioContext_.run();
}

TEST_F(NameLookupTest, TheCompletionMayReleaseTheLookup) {
  std::shared_ptr<PendingLookup> pending;
  bool isDone = false;
  pending = names_.lookUp({"four.example", 80}, [&](asio::error_code, const LookupResult&) {
    pending = nullptr;
    isDone = true;
  });
  ioContext_.run();
  EXPECT_TRUE(isDone);
}

}  // namespace
}  // namespace ostravel::companion
