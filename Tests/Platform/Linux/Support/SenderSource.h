#pragma once

#include <gtest/gtest.h>
#include <sched.h>

#include <string>

#include "Platform/Linux/Kernel/PacketParser.h"
#include "Tests/Platform/Linux/Support/SYNCapture.h"

namespace ostravel::testing {

// Where the sender of a TCP flow is found: in the table that the kernel has published, or with
// system calls, as for a flow that is not in the table.
enum class SenderSource { table, systemCalls };

// The base of tests that have the same result either way.
class SenderSourceTest : public ::testing::TestWithParam<SenderSource> {
 protected:
  // The tests may run in a service or a container, which is not what is tested.
  SenderSourceTest() { EXPECT_EQ(::unshare(CLONE_NEWCGROUP), 0) << "run as root"; }

  // The first packet of a flow that has been sent since the test began.
  linuxplatform::FirstPacket packetOf(const linuxplatform::FlowTuple& flow) {
    const bool isInTable =
        flow.protocol == linuxplatform::TransportProtocol::tcp && GetParam() == SenderSource::table;
    return {flow, isInTable ? capture_.sequenceOf(flow) : 0};
  }

 private:
  SYNCapture capture_;
};

inline std::string nameOf(const ::testing::TestParamInfo<SenderSource>& source) {
  return source.param == SenderSource::table ? "ByTable" : "BySystemCalls";
}

}  // namespace ostravel::testing
