#include "Platform/Linux/Identity/ProxyInstance.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <memory>

#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Platform/Linux/Tracing/ConnectTracer.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

// With a watch on the port (true), or a look-up each time.
class ProxyInstanceTest : public ::testing::TestWithParam<bool> {
 protected:
  ProxyInstance instance() const {
    return {ProcessLife(::getpid(), LocalProcessTable().stampOf(::getpid())->startTime),
            cookieOf(listener_), port_};
  }

  static std::unique_ptr<SocketDiagnostics> openDiagnostics() {
    auto opened = SocketDiagnostics::open();
    return *std::move(opened);
  }

  std::shared_ptr<const ConnectPublisher> publish() const {
    return GetParam() ? *ConnectPublisher::start(*tracer_, number_) : nullptr;
  }

  FileDescriptor listener_ = makeListener();
  const std::uint16_t number_ = portOf(listener_);
  const std::unique_ptr<ConnectTracer> tracer_ = *ConnectTracer::start();
  const std::shared_ptr<ProxyInstance::Port> port_ =
      std::make_shared<ProxyInstance::Port>(openDiagnostics(), loopbackIPv4(number_), publish());
};

INSTANTIATE_TEST_SUITE_P(With, ProxyInstanceTest, ::testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Watch" : "LookUps"; });

TEST_P(ProxyInstanceTest, IsListeningWhileItsSocketIsOpen) {
  EXPECT_TRUE(instance().isListening());
  EXPECT_FALSE(instance().hasEnded());
}

TEST_P(ProxyInstanceTest, HasEndedWithItsSocketAlthoughItsProcessRuns) {
  const ProxyInstance proxy = instance();
  EXPECT_TRUE(proxy.isListening());
  listener_ = FileDescriptor();
  EXPECT_FALSE(proxy.isListening());
  EXPECT_TRUE(proxy.hasEnded());
}

TEST_P(ProxyInstanceTest, AnotherSocketOnThePortIsAnotherProxy) {
  const ProxyInstance proxy = instance();
  EXPECT_TRUE(proxy.isListening());
  listener_ = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(bindTo(listener_, AF_INET, loopbackIPv4(number_)));
  ASSERT_EQ(::listen(listener_.get(), 1), 0);
  EXPECT_FALSE(proxy.isListening());
  EXPECT_TRUE(instance().isListening());
}

TEST_P(ProxyInstanceTest, IsListeningThroughoutChangesElsewhere) {
  const ProxyInstance proxy = instance();
  EXPECT_TRUE(proxy.isListening());
  { const FileDescriptor other = makeListener(); }
  EXPECT_TRUE(proxy.isListening());
}

TEST_P(ProxyInstanceTest, AListenerThatPausesIsListeningAgain) {
  listener_ = FileDescriptor();
  listener_ = makeSocket(AF_INET, SOCK_STREAM);
  // A port that was bound explicitly stays the socket's.
  ASSERT_TRUE(bindTo(listener_, AF_INET, loopbackIPv4(number_)));
  ASSERT_EQ(::listen(listener_.get(), 1), 0);
  const ProxyInstance proxy = instance();
  EXPECT_TRUE(proxy.isListening());
  ASSERT_EQ(::shutdown(listener_.get(), SHUT_RD), 0);
  EXPECT_FALSE(proxy.isListening());
  ASSERT_EQ(::listen(listener_.get(), 1), 0);
  EXPECT_TRUE(proxy.isListening());
}

TEST_P(ProxyInstanceTest, WhatListensLaterIsNotTheProxy) {
  const ProxyInstance nobody(port_);
  EXPECT_FALSE(nobody.isListening());
  EXPECT_TRUE(nobody.hasEnded());
}

TEST_P(ProxyInstanceTest, HasEndedWithItsProcess) {
  // No process has this start time.
  const ProxyInstance proxy(ProcessLife(::getpid(), 0), cookieOf(listener_), port_);
  EXPECT_TRUE(proxy.isListening());
  EXPECT_TRUE(proxy.hasEnded());
}

}  // namespace
}  // namespace ostravel::linuxplatform
