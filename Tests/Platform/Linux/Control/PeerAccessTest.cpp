#include "Platform/Linux/Control/PeerAccess.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <string>
#include <thread>

#include "Base/FileDescriptor.h"
#include "Tests/Platform/Linux/Support/AlteredSockets.h"

namespace ostravel::linuxplatform {
namespace {

using Level = PeerAccess::Level;
using testing::AlteredSockets;
using testing::SocketAlteration;
using testing::SocketAnswer;
using testing::SocketQuestion;

constexpr uid_t kNobody = 65534;
constexpr gid_t kGroup = 65533;

// A socket whose peer was made by a user other than root.
class PeerAccessTest : public ::testing::Test {
 protected:
  // isMember: of kGroup.
  void connect(bool isMember) {
    // Raw calls concern their thread only.
    std::thread([this, isMember] {
      const gid_t group = isMember ? kGroup : kNobody;
      EXPECT_EQ(::syscall(SYS_setgroups, 0, nullptr), 0);
      EXPECT_EQ(::syscall(SYS_setresgid, group, group, group), 0);
      EXPECT_EQ(::syscall(SYS_setresuid, kNobody, kNobody, kNobody), 0);
      std::array<int, 2> pair{};
      EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
      own_ = FileDescriptor(pair[0]);
      peer_ = FileDescriptor(pair[1]);
    }).join();
  }

  PeerAccess access() const { return PeerAccess::of(own_.get(), kGroup); }

  PeerAccess accessWith(const SocketAlteration& alteration, int option) const {
    const AlteredSockets altered([&](const SocketQuestion& question, const SocketAnswer& truth) {
      return question.option == option ? std::optional(alteration.alter(truth)) : std::nullopt;
    });
    return access();
  }

 private:
  FileDescriptor own_;
  FileDescriptor peer_;
};

TEST_F(PeerAccessTest, MembersOfTheGroupMayRead) {
  connect(true);
  EXPECT_EQ(access().level, Level::read);
  EXPECT_EQ(access().user, kNobody);
}

TEST_F(PeerAccessTest, OthersMayDoNothing) {
  connect(false);
  EXPECT_EQ(access().level, Level::none);
  EXPECT_EQ(access().user, kNobody);
}

TEST_F(PeerAccessTest, APeerThatIsNotKnownMayDoNothing) {
  EXPECT_EQ(PeerAccess::of(-1, kGroup).level, Level::none);
}

// User 0 would be root, who may do everything.
TEST_F(PeerAccessTest, IncompleteAnswersOfTheKernelPermitNothing) {
  for (const bool isMember : {false, true}) {
    connect(isMember);
    for (const SocketAlteration& alteration : testing::incompleteAnswers(sizeof(ucred))) {
      const PeerAccess altered = accessWith(alteration, SO_PEERCRED);
      EXPECT_EQ(altered.level, Level::none) << alteration.name;
      EXPECT_NE(altered.user, 0U) << alteration.name;
      EXPECT_EQ(access().level, isMember ? Level::read : Level::none);
    }
  }
}

TEST_F(PeerAccessTest, WrongAnswersAboutGroupsMakeNoMember) {
  connect(false);
  auto alterations = testing::incompleteAnswers(sizeof(gid_t));
  for (SocketAlteration& wrong : testing::wrongAnswers()) {
    alterations.push_back(std::move(wrong));
  }
  for (const SocketAlteration& alteration : alterations) {
    EXPECT_EQ(accessWith(alteration, SO_PEERGROUPS).level, Level::none) << alteration.name;
  }
  // More groups than there is room for.
  const SocketAlteration huge{"a megabyte", [](const SocketAnswer& /*truth*/) {
                                return SocketAnswer{std::string(1U << 20U, '\0')};
                              }};
  EXPECT_EQ(accessWith(huge, SO_PEERGROUPS).level, Level::none);
}

}  // namespace
}  // namespace ostravel::linuxplatform
