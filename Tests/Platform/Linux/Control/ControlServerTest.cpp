#include "Platform/Linux/Control/ControlServer.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "Base/LocalListener.h"
#include "Platform/Linux/Control/ControlAnswer.h"
#include "Tests/Support/InChildProcess.h"
#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/TestSocket.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::linuxplatform {
namespace {

using testing::TestSocket;
using namespace std::chrono_literals;

const std::string kStatus = "{\"version\":1,\"request\":\"status\"}\n";
const std::string kReload = "{\"version\":1,\"request\":\"reload\"}\n";

// An ID that no user or group of this machine has.
constexpr gid_t kGroup = 424242;
constexpr uid_t kUser = 434343;

class ControlServerTest : public ::testing::Test {
 protected:
  void serve(const ControlServer::Limits& limits = {}) {
    server_ = std::make_unique<ControlServer>(
        listener_.descriptor(), kGroup,
        [this](const ControlRequest& request, const PeerAccess& /*peer*/) {
          if (request.kind == ControlRequest::Kind::tunnels) {
            throw std::runtime_error("out of order");
          }
          JSONHandle result(json_object());
          // Only one request has a long answer.
          const bool isStatus = request.kind == ControlRequest::Kind::status;
          json_object_set_new(result.get(), "text",
                              json_string(isStatus ? text_.c_str() : "short"));
          return answerLine(request.kind, std::move(result));
        },
        limits);
  }
  TestSocket connect() const { return TestSocket::connectUnix(path_); }
  std::string answerTo(const std::string& request) const {
    const TestSocket client = connect();
    client.send(request);
    return client.receiveToEnd();
  }
  bool isAnswered(const std::string& request) const {
    return answerTo(request).find("\"ok\":true") != std::string::npos;
  }

  testing::TemporaryFolder folder_;
  const std::string path_ = folder_.path("s");
  // From here on the peer's credentials decide, not the mode.
  LocalListener listener_{path_, {.group = std::nullopt, .mode = 0666}};
  std::string text_ = "fine";
  std::unique_ptr<ControlServer> server_;
};

TEST_F(ControlServerTest, AnswersOneRequestAndCloses) {
  serve();
  EXPECT_EQ(answerTo(kStatus),
            "{\"version\":1,\"ok\":true,\"request\":\"status\",\"result\":{\"text\":\"fine\"}}\n");
}

TEST_F(ControlServerTest, AnswersARequestThatComesInPieces) {
  serve();
  const TestSocket client = connect();
  for (const char byte : kStatus) {
    client.send(std::string(1, byte));
  }
  EXPECT_NE(client.receiveToEnd().find("\"ok\":true"), std::string::npos);
}

TEST_F(ControlServerTest, SaysWhatIsWrongWithARequest) {
  serve();
  EXPECT_NE(answerTo("hello\n").find("bad_request"), std::string::npos);
}

TEST_F(ControlServerTest, RefusesARequestThatIsTooLong) {
  serve();
  EXPECT_NE(answerTo(std::string(ControlRequest::kLongestLine + 1, ' ')).find("too long"),
            std::string::npos);
}

TEST_F(ControlServerTest, SaysThatItCouldNotAnswer) {
  serve();
  EXPECT_NE(answerTo("{\"version\":1,\"request\":\"tunnels\"}\n").find("out of order"),
            std::string::npos);
}

TEST_F(ControlServerTest, AnswersWhileAnotherClientReadsNothing) {
  text_ = std::string(4'000'000, 'x');
  serve();
  const TestSocket slow = connect();
  slow.send(kStatus);
  EXPECT_GT(answerTo(kStatus).size(), text_.size());
  EXPECT_GT(slow.receiveToEnd().size(), text_.size());
}

TEST_F(ControlServerTest, GivesUpAClientThatSendsNothing) {
  serve({.requestTime = 50ms});
  EXPECT_EQ(connect().receiveToEnd(), "");
}

TEST_F(ControlServerTest, GivesUpAClientThatReadsNothing) {
  text_ = std::string(4'000'000, 'x');
  serve({.connections = 1, .answerTime = 50ms});
  const TestSocket slow = connect();
  slow.send(kStatus);
  // There is room for another one as soon as this one is given up.
  bool isServed = false;
  while (!isServed) {
    try {
      const TestSocket other = connect();
      other.send(kReload);
      isServed = other.receiveThrough("\n").find("short") != std::string::npos;
    } catch (const std::runtime_error&) {
      // Turned away before the request was sent.
    }
  }
  EXPECT_LT(slow.receiveToEnd().size(), text_.size());
}

TEST_F(ControlServerTest, TurnsAwayTooManyClients) {
  serve({.connections = 2});
  const TestSocket first = connect();
  const TestSocket second = connect();
  EXPECT_NE(connect().receiveToEnd().find("\"busy\""), std::string::npos);
}

TEST_F(ControlServerTest, EndsWhileClientsAreConnected) {
  serve({.connections = 1});
  const TestSocket client = connect();
  // The first one has been accepted if the second one is turned away.
  EXPECT_NE(connect().receiveToEnd().find("\"busy\""), std::string::npos);
  server_.reset();
  EXPECT_EQ(client.receiveToEnd(), "");
}

TEST_F(ControlServerTest, LetsAMemberOfTheGroupAskButNotReload) {
  serve();
  testing::inChildProcess([this] {
    ASSERT_EQ(::setgroups(1, &kGroup), 0);
    ASSERT_EQ(::setresgid(kUser, kUser, kUser), 0);
    ASSERT_EQ(::setresuid(kUser, kUser, kUser), 0);
    EXPECT_TRUE(isAnswered(kStatus));
    EXPECT_NE(answerTo(kReload).find("not_permitted"), std::string::npos);
  });
  EXPECT_TRUE(isAnswered(kReload));
}

TEST_F(ControlServerTest, RefusesEveryoneElse) {
  serve();
  testing::asOrdinaryUser(
      [this] { EXPECT_NE(connect().receiveToEnd().find("not_permitted"), std::string::npos); });
}

TEST_F(ControlServerTest, LimitsTheConnectionsOfOneUser) {
  serve({.connectionsPerUser = 1});
  testing::inChildProcess([this] {
    ASSERT_EQ(::setresgid(kGroup, kGroup, kGroup), 0);
    ASSERT_EQ(::setresuid(kUser, kUser, kUser), 0);
    const TestSocket first = connect();
    EXPECT_NE(connect().receiveToEnd().find("\"busy\""), std::string::npos);
  });
  EXPECT_TRUE(isAnswered(kStatus));
}

TEST_F(ControlServerTest, AnswersAsSoonAsThereAreDescriptorsAgain) {
  const auto nextDescriptor = [] {
    const int next = ::dup(STDIN_FILENO);
    ::close(next);
    return next;
  };
  serve();
  const int next = nextDescriptor();
  // UndefinedBehaviorSanitizer needs descriptors when it first meets a class.
  EXPECT_TRUE(isAnswered(kStatus));
  EXPECT_TRUE(testing::waitUntil([&] { return nextDescriptor() == next; }));
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  // The client has the last one.
  const rlimit few{.rlim_cur = static_cast<rlim_t>(next) + 1, .rlim_max = before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
  const TestSocket client = connect();
  client.send(kStatus);
  EXPECT_FALSE(client.hasBytesWithin(50ms));
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_NE(client.receiveToEnd().find("\"ok\":true"), std::string::npos);
}

}  // namespace
}  // namespace ostravel::linuxplatform
