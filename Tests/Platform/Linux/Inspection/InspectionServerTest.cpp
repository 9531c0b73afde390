#include "Platform/Linux/Inspection/InspectionServer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Linux/Inspection/InspectionMessage.h"
#include "Tests/Platform/Linux/Inspection/LocalSockets.h"
#include "Tests/Platform/Linux/Support/AlteredSockets.h"
#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

constexpr uid_t kClient = 65533;
constexpr uid_t kStranger = 65534;

class InspectionServerTest : public ::testing::Test {
 protected:
  InspectionServerTest() {
    // Its socket is for every user to find.
    thread_ = std::thread([this] { server_.run([] {}); });
  }

  ~InspectionServerTest() override {
    server_.stop();
    thread_.join();
  }

  FileDescriptor connect() const { return connectTo(path_); }

  // Empty if the connection has ended.
  static std::optional<InspectionAnswer> exchange(const FileDescriptor& connection,
                                                  const std::string& message) {
    static_cast<void>(::send(connection.get(), message.data(), message.size(), MSG_NOSIGNAL));
    std::vector<char> bytes(kMaximumInspectionMessage);
    const auto size = ::recv(connection.get(), bytes.data(), bytes.size(), 0);
    return size > 0 ? decodeInspectionAnswer({bytes.data(), static_cast<std::size_t>(size)})
                    : std::nullopt;
  }

  static bool isAnswered(const FileDescriptor& connection) {
    Process process;
    process.pid = ::getpid();
    const auto answer = exchange(
        connection, encode(InspectionQuestion{
                        .kind = InspectionQuestion::Kind::stamp, .number = 7, .process = process}));
    return answer && answer->number == 7 && answer->isPositive;
  }

  const TemporaryFolder folder_;
  const std::string path_ = folder_.path("socket");
  const FileDescriptor listener_ = listenOn(path_);
  InspectionServer server_{listener_.get(), kClient};
  std::thread thread_;
};

TEST_F(InspectionServerTest, AnswersItsUserAndItsClient) {
  EXPECT_TRUE(isAnswered(connect()));
  asUser(kClient, [this] { EXPECT_TRUE(isAnswered(connect())); });
}

TEST_F(InspectionServerTest, RefusesOtherUsers) {
  asUser(kStranger, [this] { EXPECT_FALSE(isAnswered(connect())); });
}

// User 0 would be root.
TEST_F(InspectionServerTest, RefusesUsersOfWhomTheKernelSaysTooLittle) {
  for (const SocketAlteration& alteration : incompleteAnswers(sizeof(ucred))) {
    const AlteredSockets altered([&](const SocketQuestion& question, const SocketAnswer& truth) {
      return question.option == SO_PEERCRED ? std::optional(alteration.alter(truth)) : std::nullopt;
    });
    asUser(kStranger, [&] { EXPECT_FALSE(isAnswered(connect())) << alteration.name; });
  }
  EXPECT_TRUE(isAnswered(connect()));
}

TEST_F(InspectionServerTest, AnythingButAQuestionEndsTheConnection) {
  for (const std::string& garbage :
       {std::string("x"), std::string(kMaximumInspectionMessage + 1, 'x')}) {
    const auto connection = connect();
    EXPECT_FALSE(exchange(connection, garbage));
    EXPECT_FALSE(isAnswered(connection));
  }
  EXPECT_TRUE(isAnswered(connect()));
}

TEST_F(InspectionServerTest, AConnectionThatIsIdleDelaysNoOther) {
  const auto idle = connect();
  EXPECT_TRUE(isAnswered(connect()));
  EXPECT_TRUE(isAnswered(idle));
}

TEST_F(InspectionServerTest, LimitsItsConnections) {
  std::vector<FileDescriptor> connections;
  for (std::size_t count = 0; count < InspectionServer::kMaximumConnections; ++count) {
    connections.push_back(connect());
    EXPECT_TRUE(isAnswered(connections.back()));
  }
  EXPECT_FALSE(isAnswered(connect()));
  connections.pop_back();
  EXPECT_TRUE(waitUntil([this] { return isAnswered(connect()); }));
}

}  // namespace
}  // namespace ostravel::linuxplatform
