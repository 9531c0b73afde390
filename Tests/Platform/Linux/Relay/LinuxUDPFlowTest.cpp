#include "Platform/Linux/Relay/LinuxUDPFlow.h"

#include <gtest/gtest.h>

#include <memory>
#include <utility>

#include "Tests/Platform/Linux/Relay/Support/RecordedPacket.h"

namespace ostravel::linuxplatform::test {
namespace {

class LinuxUDPFlowTest : public ::testing::Test {
 protected:
  LinuxUDPFlowTest() {
    FlowTuple tuple;
    tuple.protocol = TransportProtocol::udp;
    tuple.source = {AddressFamily::ipv4, {10, 0, 0, 2}, 40000};
    tuple.destination = {AddressFamily::ipv4, {192, 0, 2, 1}, 443};
    flow_ = std::make_unique<LinuxUDPFlow>(tuple, "org.example.browser",
                                           std::make_unique<RecordedPacket>(verdict_));
  }

  std::shared_ptr<Verdict> verdict_ = std::make_shared<Verdict>();
  std::unique_ptr<LinuxUDPFlow> flow_;
};

TEST_F(LinuxUDPFlowTest, NamesItsApplicationAndItsOwnSide) {
  EXPECT_EQ(flow_->sourceAppSigningIdentifier(), "org.example.browser");
  EXPECT_EQ(flow_->localEndpoint(), (platform::HostEndpoint{"10.0.0.2", "40000"}));
}

TEST_F(LinuxUDPFlowTest, IsRefusedOnceBothDirectionsAreClosed) {
  flow_->closeRead(std::nullopt);
  flow_->closeRead(std::nullopt);
  EXPECT_EQ(verdict_->current(), "");
  flow_->closeWrite(std::nullopt);
  EXPECT_EQ(verdict_->current(), "refuse");
}

TEST_F(LinuxUDPFlowTest, IsLeftToTheSystemUnlessClosed) {
  flow_.reset();
  EXPECT_EQ(verdict_->current(), "accept");
}

TEST_F(LinuxUDPFlowTest, IsLeftToTheSystemWhileOneDirectionIsOpen) {
  flow_->closeWrite(platform::Error{"test", 1, "failed"});
  flow_.reset();
  EXPECT_EQ(verdict_->current(), "accept");
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
