#include "Platform/Linux/Names/ConfiguredResolvers.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "Tests/Platform/Linux/Names/Support/MessageBuilder.h"
#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/TestSocket.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using testing::addressOf;

constexpr uid_t kSystemUser = 990;

class ConfiguredResolversTest : public ::testing::Test {
 protected:
  void configure(const std::string& text) { folder_.write("resolv.conf", text); }
  void refresh() {
    now_ += 1s;
    resolvers_.refresh(now_);
  }
  bool includes(const std::string& address) { return resolvers_.includes(addressOf(address, 53)); }

  const testing::TemporaryFolder folder_;
  BootClock::time_point now_{1h};
  ConfiguredResolvers resolvers_{folder_.path("resolv.conf")};
};

TEST_F(ConfiguredResolversTest, ReadsTheServersOfTheFile) {
  configure(
      "# a comment\nsearch example\nnameserver 192.0.2.1\nnameserver\t2001:db8::1%eth0 \n"
      "nameserver nonsense\n;nameserver 192.0.2.9\noptions edns0\nnameserver 127.0.0.53");
  refresh();
  EXPECT_TRUE(includes("192.0.2.1"));
  EXPECT_TRUE(includes("2001:db8::1"));
  EXPECT_TRUE(includes("127.0.0.53"));
  EXPECT_FALSE(includes("192.0.2.9"));
}

TEST_F(ConfiguredResolversTest, AMissingFileConfiguresNone) {
  refresh();
  EXPECT_FALSE(includes("127.0.0.1"));
}

TEST_F(ConfiguredResolversTest, NoticesChangesOnceASecond) {
  configure("nameserver 192.0.2.1\n");
  refresh();
  configure("nameserver 192.0.2.11\n");
  resolvers_.refresh(now_ + 1s - 1ns);
  EXPECT_TRUE(includes("192.0.2.1"));
  refresh();
  EXPECT_FALSE(includes("192.0.2.1"));
  EXPECT_TRUE(includes("192.0.2.11"));
  ASSERT_EQ(::unlink(folder_.path("resolv.conf").c_str()), 0);
  refresh();
  EXPECT_FALSE(includes("192.0.2.11"));
}

TEST_F(ConfiguredResolversTest, AFileThatOthersMayWriteConfiguresNone) {
  configure("nameserver 192.0.2.1\n");
  ASSERT_EQ(::chmod(folder_.path("resolv.conf").c_str(), 0666), 0);
  refresh();
  EXPECT_FALSE(includes("192.0.2.1"));
}

TEST_F(ConfiguredResolversTest, APersonsFileConfiguresNone) {
  configure("nameserver 192.0.2.1\n");
  ASSERT_EQ(::chown(folder_.path("resolv.conf").c_str(), 5000, 5000), 0);
  refresh();
  EXPECT_FALSE(includes("192.0.2.1"));
}

TEST_F(ConfiguredResolversTest, APipeIsNotWaitedFor) {
  ASSERT_EQ(::mkfifo(folder_.path("resolv.conf").c_str(), 0600), 0);
  refresh();
  EXPECT_FALSE(includes("192.0.2.1"));
}

TEST_F(ConfiguredResolversTest, KnowsResolvedEvenIfTheFileNamesItsServers) {
  configure("nameserver 192.0.2.1\n");
  auto listener = testing::TestSocket::makeTcp("127.0.0.53");
  ASSERT_EQ(::fchown(listener.descriptor(), kSystemUser, kSystemUser), 0);
  listener.bindTo("127.0.0.53", 53);
  ASSERT_EQ(::listen(listener.descriptor(), 1), 0);
  refresh();
  EXPECT_TRUE(resolvers_.isResolver(kSystemUser));
  EXPECT_FALSE(includes("127.0.0.53"));
}

TEST_F(ConfiguredResolversTest, KnowsTheSystemUserOfAResolverOnThisMachine) {
  configure("nameserver 127.0.0.1\n");
  refresh();
  EXPECT_FALSE(resolvers_.isResolver(kSystemUser));
  auto listener = testing::TestSocket::makeTcp("127.0.0.1");
  // The user of a socket is the owner of its inode.
  ASSERT_EQ(::fchown(listener.descriptor(), kSystemUser, kSystemUser), 0);
  listener.bindTo("127.0.0.1", 53);
  ASSERT_EQ(::listen(listener.descriptor(), 1), 0);
  refresh();
  EXPECT_TRUE(resolvers_.isResolver(kSystemUser));
  EXPECT_FALSE(resolvers_.isResolver(0));
  ASSERT_EQ(::fchown(listener.descriptor(), 5000, 5000), 0);
  refresh();
  EXPECT_FALSE(resolvers_.isResolver(5000));
  ASSERT_EQ(::fchown(listener.descriptor(), 0, 0), 0);
  refresh();
  EXPECT_FALSE(resolvers_.isResolver(0));
}

}  // namespace
}  // namespace ostravel::linuxplatform
