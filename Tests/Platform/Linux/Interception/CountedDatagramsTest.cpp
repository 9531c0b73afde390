#include "Platform/Linux/Interception/CountedDatagrams.h"

#include <gtest/gtest.h>

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;

const CountedDatagrams::TimePoint kNow{1000s};

FlowTuple flowFrom(std::uint16_t port) {
  FlowTuple flow;
  flow.protocol = TransportProtocol::udp;
  flow.source.port = port;
  return flow;
}

TEST(CountedDatagrams, CountsAFlowOnce) {
  CountedDatagrams counted(10);
  EXPECT_TRUE(counted.isNew(flowFrom(1), "refused", kNow));
  EXPECT_FALSE(counted.isNew(flowFrom(1), "refused", kNow));
  EXPECT_TRUE(counted.isNew(flowFrom(2), "refused", kNow));
}

TEST(CountedDatagrams, CountsAnotherResult) {
  CountedDatagrams counted(10);
  EXPECT_TRUE(counted.isNew(flowFrom(1), "refused", kNow));
  EXPECT_TRUE(counted.isNew(flowFrom(1), "gate_closed", kNow));
  EXPECT_FALSE(counted.isNew(flowFrom(1), "gate_closed", kNow));
  EXPECT_TRUE(counted.isNew(flowFrom(1), "refused", kNow));
}

TEST(CountedDatagrams, AFlowLastsHalfAMinuteAfterItsLastDatagram) {
  CountedDatagrams counted(10);
  EXPECT_TRUE(counted.isNew(flowFrom(1), "refused", kNow));
  EXPECT_FALSE(counted.isNew(flowFrom(1), "refused", kNow + 29s));
  EXPECT_FALSE(counted.isNew(flowFrom(1), "refused", kNow + 58s));
  EXPECT_TRUE(counted.isNew(flowFrom(1), "refused", kNow + 88s));
}

TEST(CountedDatagrams, ForgetsTheFlowThatIsSilentForLongest) {
  CountedDatagrams counted(2);
  EXPECT_TRUE(counted.isNew(flowFrom(1), "refused", kNow));
  EXPECT_TRUE(counted.isNew(flowFrom(2), "refused", kNow));
  EXPECT_FALSE(counted.isNew(flowFrom(1), "refused", kNow));
  EXPECT_TRUE(counted.isNew(flowFrom(3), "refused", kNow));
  EXPECT_FALSE(counted.isNew(flowFrom(1), "refused", kNow));
  EXPECT_TRUE(counted.isNew(flowFrom(2), "refused", kNow));
}

}  // namespace
}  // namespace ostravel::linuxplatform
