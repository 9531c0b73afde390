#include "Platform/Linux/Inspection/InspectorConnection.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Linux/Inspection/InspectorHealth.h"
#include "Tests/Platform/Linux/Inspection/LocalSockets.h"
#include "Tests/Platform/Linux/Support/AlteredSockets.h"
#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;
using namespace std::chrono_literals;

// Longer than any test takes: nothing waits for it.
constexpr auto kGenerous = 60s;

// With an inspector that each test plays.
class InspectorConnectionTest : public ::testing::Test {
 protected:
  std::optional<InspectorConnection::Reply> ask(std::chrono::milliseconds patience) {
    return connection_.ask({.kind = InspectionQuestion::Kind::stamp}, patience);
  }

  // Which file this process runs; its late answer may be used.
  std::optional<InspectorConnection::Reply> askForProgram(std::chrono::milliseconds patience) {
    InspectionQuestion question{.kind = InspectionQuestion::Kind::find};
    question.process.pid = ::getpid();
    question.file = FileIdentity{1, 2};
    return connection_.ask(question, patience);
  }

  static FileDescriptor accept(const FileDescriptor& listener) {
    return FileDescriptor(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }

  static std::uint64_t receiveNumber(const FileDescriptor& connection) {
    std::vector<char> bytes(kMaximumInspectionMessage);
    const auto size = ::recv(connection.get(), bytes.data(), bytes.size(), 0);
    const auto question =
        decodeInspectionQuestion({bytes.data(), static_cast<std::size_t>(std::max(size, 0L))});
    EXPECT_TRUE(question);
    return question ? question->number : 0;
  }

  static void send(const FileDescriptor& connection, const std::string& message) {
    EXPECT_EQ(::send(connection.get(), message.data(), message.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(message.size()));
  }

  static void answer(const FileDescriptor& connection, std::uint64_t number,
                     const std::string& executable = {}) {
    InspectionAnswer answer{.number = number, .isPositive = true};
    answer.process.executable = executable;
    send(connection, encode(answer));
  }

  static bool isSilent(const FileDescriptor& connection) {
    char byte = 0;
    return ::recv(connection.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && errno == EAGAIN;
  }

  // Asks while the inspector does this.
  std::optional<InspectorConnection::Reply> askWhile(const std::function<void()>& inspector) {
    std::thread thread(inspector);
    auto reply = ask(kGenerous);
    thread.join();
    return reply;
  }

  std::string warnings() const {
    std::string all;
    for (const std::string& warning : warnings_) {
      all += warning + "\n";
    }
    return all;
  }

  static constexpr const char* kConsequence =
      "; until they can, those that are not known yet have no identifier, and no new local proxy "
      "is "
      "recognised\n";

  const TemporaryFolder folder_;
  const std::string path_ = folder_.path("socket");
  std::vector<std::string> warnings_;
  InspectorConnection connection_{
      path_, std::make_shared<InspectorHealth>(
                 [this](const std::string& warning) { warnings_.push_back(warning); })};
};

TEST_F(InspectorConnectionTest, ReceivesAnAnswer) {
  const auto listener = listenOn(path_);
  const auto reply = askWhile([&listener] {
    const auto connection = accept(listener);
    answer(connection, receiveNumber(connection));
  });
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->answer.isPositive);
  EXPECT_FALSE(reply->descriptor.isOpen());
  EXPECT_EQ(warnings(), "");
}

TEST_F(InspectorConnectionTest, AnAbsentInspectorCostsNoWait) {
  EXPECT_FALSE(ask(kGenerous));
  EXPECT_FALSE(ask(kGenerous));
  EXPECT_EQ(warnings(), "processes cannot be inspected (" + path_ + ": No such file or directory)" +
                            kConsequence);
}

TEST_F(InspectorConnectionTest, ASilentInspectorDelaysOneQuestion) {
  const auto listener = listenOn(path_);
  EXPECT_FALSE(ask(1ms));
  EXPECT_EQ(warnings(), "");
  // These do not wait.
  EXPECT_TRUE(waitUntil([this] {
    EXPECT_FALSE(ask(kGenerous));
    return !warnings_.empty();
  }));
  EXPECT_EQ(
      warnings(),
      std::string("processes cannot be inspected (the inspector does not answer)") + kConsequence);
}

TEST_F(InspectorConnectionTest, AsksAgainOnceTheLateAnswerHasArrived) {
  const auto listener = listenOn(path_);
  EXPECT_FALSE(ask(1ms));
  const auto connection = accept(listener);
  answer(connection, receiveNumber(connection));
  const auto reply = askWhile([&connection] { answer(connection, receiveNumber(connection)); });
  EXPECT_TRUE(reply);
  EXPECT_EQ(warnings(), "");
}

TEST_F(InspectorConnectionTest, ALateAnswerIsForTheSameQuestion) {
  const auto listener = listenOn(path_);
  EXPECT_FALSE(askForProgram(1ms));
  const auto connection = accept(listener);
  answer(connection, receiveNumber(connection), "/program");
  // Another question comes first, and is late as well.
  EXPECT_FALSE(ask(1ms));
  const auto number = receiveNumber(connection);
  const auto reply = askForProgram(0ms);
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->isLate);
  EXPECT_EQ(reply->answer.process.executable, "/program");
  // It was not asked again, and is the next time.
  EXPECT_TRUE(isSilent(connection));
  answer(connection, number);
  EXPECT_FALSE(askForProgram(1ms));
  EXPECT_FALSE(isSilent(connection));
}

TEST_F(InspectorConnectionTest, ARepeatedLateAnswerCountsOnce) {
  const auto listener = listenOn(path_);
  EXPECT_FALSE(askForProgram(1ms));
  const auto connection = accept(listener);
  const auto number = receiveNumber(connection);
  answer(connection, number, "/program");
  answer(connection, number, "/other");
  const auto late = askForProgram(0ms);
  ASSERT_TRUE(late);
  EXPECT_EQ(late->answer.process.executable, "/program");
  std::thread inspector(
      [&connection] { answer(connection, receiveNumber(connection), "/program"); });
  const auto reply = askForProgram(kGenerous);
  inspector.join();
  ASSERT_TRUE(reply);
  EXPECT_FALSE(reply->isLate);
  EXPECT_EQ(reply->answer.process.executable, "/program");
}

TEST_F(InspectorConnectionTest, LateGarbageEndsTheConnection) {
  const auto listener = listenOn(path_);
  EXPECT_FALSE(askForProgram(1ms));
  const auto first = accept(listener);
  const auto number = receiveNumber(first);
  send(first, "nonsense");
  answer(first, number, "/program");
  std::thread inspector([&listener] {
    const auto connection = accept(listener);
    answer(connection, receiveNumber(connection), "/other");
  });
  const auto reply = askForProgram(kGenerous);
  inspector.join();
  ASSERT_TRUE(reply);
  EXPECT_FALSE(reply->isLate);
  EXPECT_EQ(reply->answer.process.executable, "/other");
}

TEST_F(InspectorConnectionTest, ALateAnswerOutlivesItsInspector) {
  const auto listener = listenOn(path_);
  EXPECT_FALSE(askForProgram(1ms));
  auto connection = accept(listener);
  answer(connection, receiveNumber(connection), "/program");
  connection = FileDescriptor();
  const auto reply = askForProgram(0ms);
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->isLate);
  EXPECT_EQ(reply->answer.process.executable, "/program");
}

TEST_F(InspectorConnectionTest, AnotherInspectorDoesNotAnswerAnEarlierQuestion) {
  const auto listener = listenOn(path_);
  EXPECT_FALSE(askForProgram(1ms));
  auto first = accept(listener);
  const auto number = receiveNumber(first);
  first = FileDescriptor();
  std::thread inspector([&listener, number] {
    const auto connection = accept(listener);
    const auto repeated = receiveNumber(connection);
    answer(connection, number, "/wrong");
    answer(connection, repeated, "/program");
  });
  const auto reply = askForProgram(kGenerous);
  inspector.join();
  ASSERT_TRUE(reply);
  EXPECT_FALSE(reply->isLate);
  EXPECT_EQ(reply->answer.process.executable, "/program");
}

TEST_F(InspectorConnectionTest, ReconnectsWithinAQuestionAfterARestart) {
  const auto listener = listenOn(path_);
  ASSERT_TRUE(askWhile([&listener] {
    const auto connection = accept(listener);
    answer(connection, receiveNumber(connection));
  }));
  EXPECT_TRUE(askWhile([&listener] {
    const auto connection = accept(listener);
    answer(connection, receiveNumber(connection));
  }));
  EXPECT_EQ(warnings(), "");
}

TEST_F(InspectorConnectionTest, FindsAnInspectorThatComesLater) {
  EXPECT_FALSE(ask(kGenerous));
  const auto listener = listenOn(path_);
  std::thread inspector([&listener] {
    const auto connection = accept(listener);
    answer(connection, receiveNumber(connection));
  });
  EXPECT_TRUE(waitUntil([this] { return ask(kGenerous).has_value(); }));
  inspector.join();
  EXPECT_NE(warnings().find("\nprocesses can be inspected again\n"), std::string::npos);
}

TEST_F(InspectorConnectionTest, GarbageEndsTheConnection) {
  const auto listener = listenOn(path_);
  for (const std::string& garbage :
       {std::string("nonsense"), std::string(kMaximumInspectionMessage + 1, '\0'),
        // An answer to a question that was not asked.
        encode(InspectionAnswer{.number = 1'000'000, .isPositive = true})}) {
    std::thread inspector([&listener, &garbage] {
      for (int i = 0; i < 2; ++i) {
        const auto connection = accept(listener);
        static_cast<void>(receiveNumber(connection));
        send(connection, garbage);
        // Until the connection has ended.
        char byte = 0;
        static_cast<void>(::recv(connection.get(), &byte, 1, 0));
      }
    });
    InspectorConnection connection(
        path_, std::make_shared<InspectorHealth>(
                   [this](const std::string& warning) { warnings_.push_back(warning); }));
    EXPECT_FALSE(connection.ask({.kind = InspectionQuestion::Kind::commonView}, kGenerous));
    inspector.join();
    EXPECT_EQ(warnings(),
              std::string("processes cannot be inspected (the inspector ends the connection)") +
                  kConsequence);
    warnings_.clear();
  }
}

TEST_F(InspectorConnectionTest, AStrangersSocketIsNotAsked) {
  FileDescriptor listener;
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0777), 0);
  asUser(65534, [this, &listener] { listener = listenOn(path_); });
  EXPECT_FALSE(ask(kGenerous));
  EXPECT_EQ(warnings(), "processes cannot be inspected (" + path_ +
                            " belongs neither to root nor to this user)" + kConsequence);
}

TEST_F(InspectorConnectionTest, ASocketOfWhichTheKernelSaysTooLittleIsNotAsked) {
  FileDescriptor listener;
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0777), 0);
  asUser(65534, [this, &listener] { listener = listenOn(path_); });
  for (const SocketAlteration& alteration : incompleteAnswers(sizeof(ucred))) {
    const AlteredSockets altered([&](const SocketQuestion& question, const SocketAnswer& truth) {
      return question.option == SO_PEERCRED ? std::optional(alteration.alter(truth)) : std::nullopt;
    });
    InspectorConnection connection(
        path_, std::make_shared<InspectorHealth>([](const std::string& /*warning*/) {}));
    EXPECT_FALSE(connection.ask({.kind = InspectionQuestion::Kind::stamp}, 0ms)) << alteration.name;
    const auto accepted = accept(listener);
    char byte = 0;
    EXPECT_EQ(::recv(accepted.get(), &byte, 1, MSG_DONTWAIT), 0) << alteration.name;
  }
}

TEST_F(InspectorConnectionTest, APathThatIsTooLongIsNamed) {
  std::vector<std::string> said;
  InspectorConnection connection("/" + std::string(200, 'x'),
                                 std::make_shared<InspectorHealth>(
                                     [&said](const std::string& text) { said.push_back(text); }));
  EXPECT_FALSE(connection.ask({.kind = InspectionQuestion::Kind::commonView}, kGenerous));
  ASSERT_EQ(said.size(), 1U);
  EXPECT_NE(said[0].find("too long"), std::string::npos);
}

TEST_F(InspectorConnectionTest, UnwantedDescriptorsAreClosed) {
  const auto listener = listenOn(path_);
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  FileDescriptor connection;
  ASSERT_TRUE(askWhile([&listener, &connection] {
    connection = accept(listener);
    answer(connection, receiveNumber(connection));
  }));
  const auto before = descriptors();
  const auto reply = askWhile([&connection] {
    std::string message =
        encode(InspectionAnswer{.number = receiveNumber(connection), .isPositive = true});
    iovec part{message.data(), message.size()};
    const int sent[] = {0, 0, 0};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof sent)]{};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    cmsghdr* const first = CMSG_FIRSTHDR(&header);
    first->cmsg_level = SOL_SOCKET;
    first->cmsg_type = SCM_RIGHTS;
    first->cmsg_len = CMSG_LEN(sizeof sent);
    std::copy_n(reinterpret_cast<const char*>(sent), sizeof sent,
                reinterpret_cast<char*>(CMSG_DATA(first)));
    EXPECT_GT(::sendmsg(connection.get(), &header, MSG_NOSIGNAL), 0);
  });
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->descriptor.isOpen());
  EXPECT_EQ(descriptors(), before + 1);
}

}  // namespace
}  // namespace ostravel::linuxplatform
