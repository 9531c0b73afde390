#include "Platform/Simulation/SimulatedSockets.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Simulation/Simulation.h"

namespace ostravel::simulation {
namespace {

using namespace std::chrono_literals;
using Deliveries = std::vector<std::string>;

class SimulatedSocketsTest : public testing::Test {
 protected:
  int open(int family) { return static_cast<int>(sockets_.socket(family, SOCK_STREAM, 0).value); }
  int openNonBlocking() {
    const int descriptor = open(AF_INET);
    sockets_.setStatusFlags(descriptor, O_NONBLOCK);
    return descriptor;
  }
  long write(int descriptor, std::string_view text) {
    return sockets_.write(descriptor, std::as_bytes(std::span(text.data(), text.size()))).value;
  }

  Simulation simulation_;
  SimulatedSockets& sockets_ = simulation_.sockets();
  const std::vector<std::byte> address_{std::byte{2}, std::byte{0}, std::byte{31}, std::byte{144}};
};

TEST_F(SimulatedSocketsTest, RefuseAtFirst) {
  const auto tcp = sockets_.connect(open(AF_INET), address_);
  EXPECT_EQ(tcp.value, -1);
  EXPECT_EQ(tcp.error, ECONNREFUSED);
  EXPECT_EQ(sockets_.connect(open(AF_UNIX), address_).error, ECONNREFUSED);
}

TEST_F(SimulatedSocketsTest, NonBlockingRefusalComesInTwoSteps) {
  const int descriptor = openNonBlocking();
  EXPECT_EQ(sockets_.connect(descriptor, address_).error, EINPROGRESS);
  EXPECT_EQ(sockets_.pollWritable(descriptor, 350ms).value, 1);
  EXPECT_EQ(sockets_.pendingError(descriptor).value, ECONNREFUSED);
  EXPECT_EQ(sockets_.pendingError(descriptor).value, 0);
}

TEST_F(SimulatedSocketsTest, NonBlockingAcceptanceComesInTwoSteps) {
  sockets_.proxyListening(true);
  const int descriptor = openNonBlocking();
  EXPECT_EQ(sockets_.connect(descriptor, address_).error, EINPROGRESS);
  EXPECT_EQ(sockets_.pollWritable(descriptor, 350ms).value, 1);
  EXPECT_EQ(sockets_.pendingError(descriptor).value, 0);
}

TEST_F(SimulatedSocketsTest, BlockingAcceptanceIsImmediate) {
  sockets_.proxyListening(true);
  EXPECT_EQ(sockets_.connect(open(AF_INET), address_).value, 0);
}

TEST_F(SimulatedSocketsTest, AListeningProxyMayStop) {
  sockets_.proxyListening(true);
  sockets_.proxyListening(false);
  EXPECT_EQ(sockets_.connect(open(AF_INET), address_).error, ECONNREFUSED);
}

TEST_F(SimulatedSocketsTest, ASilentProxyTimesOutWithoutTimePassing) {
  sockets_.proxySilent();
  const int descriptor = openNonBlocking();
  EXPECT_EQ(sockets_.connect(descriptor, address_).error, EINPROGRESS);
  EXPECT_EQ(sockets_.pollWritable(descriptor, 350ms).value, 0);
  EXPECT_EQ(sockets_.connect(open(AF_INET), address_).error, ETIMEDOUT);
  EXPECT_EQ(simulation_.now(), 0ns);
}

TEST_F(SimulatedSocketsTest, TheLocalPeerKeepsWhatEachConnectionDelivers) {
  sockets_.localListening(true);
  for (const std::string text : {"first", "second"}) {
    const int descriptor = open(AF_UNIX);
    EXPECT_EQ(sockets_.connect(descriptor, address_).value, 0);
    EXPECT_EQ(write(descriptor, text), static_cast<long>(text.size()));
    EXPECT_EQ(write(descriptor, "!"), 1);
    sockets_.close(descriptor);
  }
  EXPECT_EQ(sockets_.localDeliveries(), (Deliveries{"first!", "second!"}));
}

TEST_F(SimulatedSocketsTest, AScriptedShortWriteDeliversOnlyItsPart) {
  sockets_.localListening(true);
  sockets_.answerNext(SocketCallKind::write, {3, 0});
  const int descriptor = open(AF_UNIX);
  sockets_.connect(descriptor, address_);
  EXPECT_EQ(write(descriptor, "abcdef"), 3);
  EXPECT_EQ(write(descriptor, "def"), 3);
  EXPECT_EQ(sockets_.localDeliveries(), (Deliveries{"abcdef"}));
}

TEST_F(SimulatedSocketsTest, WritingUnconnectedFails) {
  EXPECT_EQ(sockets_.write(open(AF_UNIX), address_).error, ENOTCONN);
}

TEST_F(SimulatedSocketsTest, NextAnswersComeOnceAndInOrder) {
  sockets_.answerNext(SocketCallKind::socket, {-1, EMFILE});
  sockets_.answerNext(SocketCallKind::socket, {-1, ENFILE});
  EXPECT_EQ(sockets_.socket(AF_INET, SOCK_STREAM, 0).error, EMFILE);
  EXPECT_EQ(sockets_.socket(AF_INET, SOCK_STREAM, 0).error, ENFILE);
  EXPECT_GE(sockets_.socket(AF_INET, SOCK_STREAM, 0).value, 0);
}

TEST_F(SimulatedSocketsTest, LastingAnswersStayUntilTheyAreRemoved) {
  sockets_.answerAlways(SocketCallKind::statusFlags, platform::SocketCallResult{-1, EPERM});
  const int descriptor = open(AF_INET);
  EXPECT_EQ(sockets_.statusFlags(descriptor).error, EPERM);
  EXPECT_EQ(sockets_.statusFlags(descriptor).error, EPERM);
  sockets_.answerAlways(SocketCallKind::statusFlags, std::nullopt);
  EXPECT_EQ(sockets_.statusFlags(descriptor).value, O_RDWR);
}

TEST_F(SimulatedSocketsTest, EveryKindOfCallCanBeScripted) {
  const int descriptor = open(AF_INET);
  for (const auto kind :
       {SocketCallKind::setStatusFlags, SocketCallKind::connect, SocketCallKind::pollWritable,
        SocketCallKind::pendingError, SocketCallKind::write}) {
    sockets_.answerAlways(kind, platform::SocketCallResult{-1, EIO});
  }
  EXPECT_EQ(sockets_.setStatusFlags(descriptor, O_NONBLOCK).error, EIO);
  EXPECT_EQ(sockets_.connect(descriptor, address_).error, EIO);
  EXPECT_EQ(sockets_.pollWritable(descriptor, 1ms).error, EIO);
  EXPECT_EQ(sockets_.pendingError(descriptor).error, EIO);
  EXPECT_EQ(sockets_.write(descriptor, address_).error, EIO);
  EXPECT_EQ(sockets_.statusFlags(descriptor).value, O_RDWR);
}

TEST_F(SimulatedSocketsTest, CallsAreRecordedWithTheirArgumentsAndAnswers) {
  const int descriptor = open(AF_INET);
  {
    auto address = address_;
    sockets_.connect(descriptor, address);
    address.assign(address.size(), std::byte{0});
  }
  sockets_.setStatusFlags(descriptor, O_NONBLOCK);
  sockets_.pollWritable(descriptor, 350ms);
  sockets_.close(descriptor);
  const auto& calls = sockets_.calls();
  ASSERT_EQ(calls.size(), 5U);
  EXPECT_EQ(calls[0].kind, SocketCallKind::socket);
  EXPECT_EQ(calls[0].family, AF_INET);
  EXPECT_EQ(calls[0].type, SOCK_STREAM);
  EXPECT_EQ(calls[0].protocol, 0);
  EXPECT_EQ(calls[0].descriptor, descriptor);
  EXPECT_EQ(calls[1].kind, SocketCallKind::connect);
  EXPECT_EQ(calls[1].bytes, address_);
  EXPECT_EQ(calls[1].result.error, ECONNREFUSED);
  EXPECT_EQ(calls[2].flags, O_NONBLOCK);
  EXPECT_EQ(calls[3].timeout, 350ms);
  EXPECT_EQ(calls[4].kind, SocketCallKind::close);
  EXPECT_EQ(sockets_.calls(SocketCallKind::connect).size(), 1U);
}

TEST_F(SimulatedSocketsTest, OpenDescriptorsAreCounted) {
  const int descriptor = open(AF_INET);
  open(AF_UNIX);
  EXPECT_EQ(sockets_.openDescriptors(), 2U);
  sockets_.close(descriptor);
  EXPECT_EQ(sockets_.openDescriptors(), 1U);
}

TEST_F(SimulatedSocketsTest, ClosingTwiceIsAnError) {
  const int descriptor = open(AF_INET);
  sockets_.close(descriptor);
  EXPECT_THROW(sockets_.close(descriptor), std::logic_error);
}

TEST_F(SimulatedSocketsTest, AClosedDescriptorAnswersEBADF) {
  const int descriptor = open(AF_INET);
  sockets_.close(descriptor);
  EXPECT_EQ(sockets_.statusFlags(descriptor).error, EBADF);
  EXPECT_EQ(sockets_.setStatusFlags(descriptor, 0).error, EBADF);
  EXPECT_EQ(sockets_.connect(descriptor, address_).error, EBADF);
  EXPECT_EQ(sockets_.pendingError(descriptor).error, EBADF);
  EXPECT_EQ(sockets_.write(descriptor, address_).error, EBADF);
}

TEST_F(SimulatedSocketsTest, TheLayoutIsSettable) {
  EXPECT_EQ(sockets_.addressLayout(), platform::SocketAddressLayout::linuxABI);
  sockets_.setAddressLayout(platform::SocketAddressLayout::darwinABI);
  EXPECT_EQ(sockets_.addressLayout(), platform::SocketAddressLayout::darwinABI);
}

}  // namespace
}  // namespace ostravel::simulation
