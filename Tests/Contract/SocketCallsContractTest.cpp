#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Interface/SocketCalls.h"
#include "Tests/Contract/ContractTest.h"

namespace ostravel::contract {
namespace {

using namespace std::chrono_literals;

class SocketCallsContractTest : public ContractTest {
 protected:
  void TearDown() override {
    for (const int descriptor : open_) {
      sockets_.close(descriptor);
    }
  }

  int open(int family) {
    const auto opened = sockets_.socket(family, SOCK_STREAM, 0);
    EXPECT_GE(opened.value, 0);
    open_.push_back(static_cast<int>(opened.value));
    return open_.back();
  }
  int openNonBlocking() {
    const int descriptor = open(AF_INET);
    const auto flags = sockets_.statusFlags(descriptor);
    EXPECT_GE(flags.value, 0);
    EXPECT_GE(sockets_.setStatusFlags(descriptor, static_cast<int>(flags.value) | O_NONBLOCK).value,
              0);
    return descriptor;
  }
  void close(int descriptor) {
    std::erase(open_, descriptor);
    sockets_.close(descriptor);
  }

  platform::SocketCalls& sockets_ = platform().sockets();
  std::vector<int> open_;
};

std::span<const std::byte> bytesOf(std::string_view text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

TEST_P(SocketCallsContractTest, StatusFlagsAreKept) {
  const int descriptor = open(AF_INET);
  EXPECT_EQ(sockets_.statusFlags(descriptor).value & O_NONBLOCK, 0);
  EXPECT_EQ(sockets_.statusFlags(openNonBlocking()).value & O_NONBLOCK, O_NONBLOCK);
}

TEST_P(SocketCallsContractTest, AConnectionIsAcceptedWhileTheCallerWaits) {
  const auto address = environment_->listeningAddress();
  const auto connected = sockets_.connect(open(AF_INET), address);
  EXPECT_EQ(connected.value, 0);
}

TEST_P(SocketCallsContractTest, AConnectionIsRefusedWhileTheCallerWaits) {
  const auto address = environment_->refusingAddress();
  const auto connected = sockets_.connect(open(AF_INET), address);
  EXPECT_EQ(connected.value, -1);
  EXPECT_EQ(connected.error, ECONNREFUSED);
}

TEST_P(SocketCallsContractTest, ANonBlockingConnectionIsAccepted) {
  const auto address = environment_->listeningAddress();
  const int descriptor = openNonBlocking();
  const auto connected = sockets_.connect(descriptor, address);
  if (connected.value != 0) {
    EXPECT_EQ(connected.error, EINPROGRESS);
    EXPECT_EQ(sockets_.pollWritable(descriptor, 5s).value, 1);
  }
  EXPECT_EQ(sockets_.pendingError(descriptor).value, 0);
}

TEST_P(SocketCallsContractTest, ANonBlockingConnectionIsRefused) {
  const auto address = environment_->refusingAddress();
  const int descriptor = openNonBlocking();
  const auto connected = sockets_.connect(descriptor, address);
  ASSERT_EQ(connected.value, -1);
  if (connected.error == EINPROGRESS) {
    EXPECT_EQ(sockets_.pollWritable(descriptor, 5s).value, 1);
    EXPECT_EQ(sockets_.pendingError(descriptor).value, ECONNREFUSED);
    // Reading the error clears it.
    EXPECT_EQ(sockets_.pendingError(descriptor).value, 0);
  } else {
    EXPECT_EQ(connected.error, ECONNREFUSED);
  }
}

TEST_P(SocketCallsContractTest, WaitingForAnAnswerTimesOut) {
  const auto address = environment_->silentAddress();
  const int descriptor = openNonBlocking();
  EXPECT_EQ(sockets_.connect(descriptor, address).error, EINPROGRESS);
  const auto ready = sockets_.pollWritable(descriptor, 20ms);
  EXPECT_EQ(ready.value, 0);
}

TEST_P(SocketCallsContractTest, LocalDeliveriesArriveWholeAndApart) {
  const auto address = environment_->listeningLocalAddress();
  const std::vector<std::string> frames = {"first frame", patternBytes(50000), "third"};
  for (const auto& frame : frames) {
    const int descriptor = open(AF_UNIX);
    ASSERT_EQ(sockets_.connect(descriptor, address).value, 0);
    std::string_view rest = frame;
    while (!rest.empty()) {
      const auto written = sockets_.write(descriptor, bytesOf(rest));
      ASSERT_GT(written.value, 0);
      rest.remove_prefix(static_cast<std::size_t>(written.value));
    }
    close(descriptor);
    ASSERT_TRUE(waitUntil([&] {
      const auto deliveries = environment_->localDeliveries();
      return !deliveries.empty() && deliveries.back() == frame;
    }));
  }
  EXPECT_EQ(environment_->localDeliveries(), frames);
}

TEST_P(SocketCallsContractTest, ALocalPeerThatIsNotThereRefuses) {
  const auto address = environment_->refusingLocalAddress();
  const auto connected = sockets_.connect(open(AF_UNIX), address);
  EXPECT_EQ(connected.value, -1);
  EXPECT_TRUE(connected.error == ECONNREFUSED || connected.error == ENOENT) << connected.error;
}

TEST_P(SocketCallsContractTest, EveryCallFailsOnAClosedDescriptor) {
  const int descriptor = open(AF_INET);
  close(descriptor);
  const auto address = environment_->listeningAddress();
  EXPECT_EQ(sockets_.statusFlags(descriptor).error, EBADF);
  EXPECT_EQ(sockets_.setStatusFlags(descriptor, 0).error, EBADF);
  EXPECT_EQ(sockets_.connect(descriptor, address).error, EBADF);
  EXPECT_EQ(sockets_.pendingError(descriptor).error, EBADF);
  EXPECT_EQ(sockets_.write(descriptor, bytesOf("x")).error, EBADF);
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Contract, SocketCallsContractTest,
                         ::testing::ValuesIn(contractPlatforms()), platformName);

}  // namespace ostravel::contract
