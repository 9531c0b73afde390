#include "Platform/Linux/Identity/ProxyInstance.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <memory>

#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

class ProxyInstanceTest : public ::testing::Test {
 protected:
  ProxyInstance instance() const {
    return {ProcessLife(::getpid(), LocalProcessTable().stampOf(::getpid())->startTime),
            cookieOf(listener_), port_};
  }

  static std::unique_ptr<SocketDiagnostics> openDiagnostics() {
    auto opened = SocketDiagnostics::open();
    return *std::move(opened);
  }

  FileDescriptor listener_ = makeListener();
  const std::uint16_t number_ = portOf(listener_);
  const std::shared_ptr<ProxyInstance::Port> port_ =
      std::make_shared<ProxyInstance::Port>(openDiagnostics(), loopbackIPv4(number_));
};

TEST_F(ProxyInstanceTest, IsListeningWhileItsSocketIsOpen) {
  EXPECT_TRUE(instance().isListening());
  EXPECT_FALSE(instance().hasEnded());
}

TEST_F(ProxyInstanceTest, HasEndedWithItsSocketAlthoughItsProcessRuns) {
  const ProxyInstance proxy = instance();
  listener_ = FileDescriptor();
  EXPECT_FALSE(proxy.isListening());
  EXPECT_TRUE(proxy.hasEnded());
}

TEST_F(ProxyInstanceTest, AnotherSocketOnThePortIsAnotherProxy) {
  const ProxyInstance proxy = instance();
  listener_ = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(bindTo(listener_, AF_INET, loopbackIPv4(number_)));
  ASSERT_EQ(::listen(listener_.get(), 1), 0);
  EXPECT_FALSE(proxy.isListening());
  EXPECT_TRUE(instance().isListening());
}

TEST_F(ProxyInstanceTest, WhatListensLaterIsNotTheProxy) {
  const ProxyInstance nobody(port_);
  EXPECT_FALSE(nobody.isListening());
  EXPECT_TRUE(nobody.hasEnded());
}

TEST_F(ProxyInstanceTest, HasEndedWithItsProcess) {
  // No process has this start time.
  const ProxyInstance proxy(ProcessLife(::getpid(), 0), cookieOf(listener_), port_);
  EXPECT_TRUE(proxy.isListening());
  EXPECT_TRUE(proxy.hasEnded());
}

}  // namespace
}  // namespace ostravel::linuxplatform
