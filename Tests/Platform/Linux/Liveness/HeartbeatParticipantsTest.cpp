#include "Platform/Linux/Liveness/HeartbeatParticipants.h"

#include <gtest/gtest.h>

namespace ostravel::linuxplatform {
namespace {

TEST(HeartbeatParticipantsTest, AreNamedInOneOrder) {
  EXPECT_EQ(participantNames(kWorkThreadsParticipant | eventLoopParticipant(12) |
                             eventLoopParticipant(0)),
            "event loop 0, event loop 12, the work threads");
  EXPECT_EQ(participantNames(eventLoopParticipant(1)), "event loop 1");
  EXPECT_EQ(participantNames(0), "");
}

TEST(HeartbeatParticipantsTest, AreDistinct) {
  const HeartbeatParticipants lastLoop = eventLoopParticipant(kMaximumEventLoops - 1);
  EXPECT_NE(lastLoop, kWorkThreadsParticipant);
}

}  // namespace
}  // namespace ostravel::linuxplatform
