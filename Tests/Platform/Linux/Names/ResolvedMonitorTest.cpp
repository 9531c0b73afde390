#include "Platform/Linux/Names/ResolvedMonitor.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Base/FileDescriptor.h"
#include "Tests/Platform/Linux/Names/Support/MessageBuilder.h"
#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/TestSocket.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using testing::addressOf;

// www.example, 192.0.2.1 for 300 seconds, as a record of resource in base64.
constexpr const char* kRecord = "A3d3dwdleGFtcGxlAAABAAEAAAEsAATAAAIB";

std::string message(const std::string& more = "") {
  return R"({"parameters":{"state":"success","question":[{"class":1,"type":1,"name":"WWW.example"}],)" +
         more + R"("answer":[{"rr":{},"raw":")" + kRecord + R"(","ifindex":2}]},"continues":true})";
}

TEST(ResolvedMonitorTest, ReadsAnAnswer) {
  const auto answer = ResolvedMonitor::parse(message());
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->name, "www.example");
  EXPECT_EQ(answer->addresses,
            (std::vector<ResolvedAddress>{{addressOf("192.0.2.1"), std::chrono::seconds(300)}}));
}

// As systemd-resolved 252 has reported the look-up of an alias of www.example.
TEST(ResolvedMonitorTest, ReadsWhatResolvedReports) {
  const auto answer = ResolvedMonitor::parse(
      R"({"parameters":{"state":"success","question":[{"class":1,"type":1,"name":"al.example"},)"
      R"({"class":1,"type":28,"name":"al.example"}],"answer":[{"rr":{"key":{"class":1,"type":5,)"
      R"("name":"al.example"},"name":"www.example"},"raw":)"
      R"("AmFsB2V4YW1wbGUAAAUAAQAAASwADQN3d3cHZXhhbXBsZQA=","ifindex":2},{"rr":{"key":{"class":1,)"
      R"("type":28,"name":"www.example"},"address":[32,1,13,184,0,0,0,0,0,0,0,0,0,0,0,32]},"raw":)"
      R"("A3d3dwdleGFtcGxlAAAcAAEAAAEsABAgAQ24AAAAAAAAAAAAAAAg","ifindex":2},{"rr":{"key":)"
      R"({"class":1,"type":1,"name":"www.example"},"address":[198,51,100,20]},"raw":)"
      R"("A3d3dwdleGFtcGxlAAABAAEAAAEsAATGM2QU","ifindex":2}]},"continues":true})");
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->name, "al.example");
  EXPECT_EQ(answer->addresses, (std::vector<ResolvedAddress>{
                                   {addressOf("2001:db8::20"), std::chrono::seconds(300)},
                                   {addressOf("198.51.100.20"), std::chrono::seconds(300)}}));
}

TEST(ResolvedMonitorTest, TheNameIsTheOneBeforeAllAliases) {
  const auto answer = ResolvedMonitor::parse(
      message(R"("collectedQuestions":[{"class":1,"type":1,"name":"first.example"}],)"));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->name, "first.example");
}

TEST(ResolvedMonitorTest, IgnoresWhatContainsNoAddressOfAHost) {
  for (const std::string text :
       {"", "{", "[]", "1", R"({"parameters":{"ready":true},"continues":true})",
        R"({"error":"io.systemd.Something"})",
        R"({"parameters":{"state":"not-found","question":[{"name":"a.example"}]}})",
        R"({"parameters":{"question":[{"name":"a.example"}],"answer":[{"raw":"AAAA"}]}})",
        R"({"parameters":{"question":[{"name":"a.example"}],"answer":[{"raw":"!"},1]}})",
        R"({"parameters":{"question":[{"name":7}],"answer":[]}})"}) {
    EXPECT_FALSE(ResolvedMonitor::parse(text)) << text;
  }
  std::string local = message();
  local.replace(local.find("WWW.example"), 11, "localhost");
  EXPECT_FALSE(ResolvedMonitor::parse(local));
}

TEST(ResolvedMonitorTest, ATruncatedMessageIsNoAnswer) {
  const std::string whole = message();
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(ResolvedMonitor::parse(whole.substr(0, size))) << size;
  }
}

TEST(ResolvedMonitorTest, AnAlteredMessageIsAnAnswerAboutAHostOrNone) {
  const std::string whole = message();
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (const char value : {'\0', '"', '{', ']', '\\', '=', '9', '\xFF'}) {
      std::string altered = whole;
      altered[at] = value;
      if (const auto answer = ResolvedMonitor::parse(altered)) {
        EXPECT_TRUE(isUsableHostName(answer->name)) << altered;
        EXPECT_EQ(answer->addresses.size(), 1U) << altered;
      }
    }
  }
}

TEST(ResolvedMonitorTest, TakesALimitedNumberOfRecords) {
  std::string records;
  for (int count = 0; count < 1000; ++count) {
    records += std::string(R"({"raw":")") + kRecord + R"("},)";
  }
  std::string many = message();
  many.insert(many.find(R"({"rr")"), records);
  const auto answer = ResolvedMonitor::parse(many);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->addresses.size(), 64U);
}

TEST(ResolvedMonitorTest, DeepNestingIsNoAnswer) {
  EXPECT_FALSE(ResolvedMonitor::parse(std::string(60'000, '[')));
}

// A socket that plays the monitor.
class Listener {
 public:
  explicit Listener(const std::string& path)
      : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    EXPECT_EQ(::listen(socket_.get(), 1), 0);
  }
  testing::TestSocket accept() const {
    return testing::TestSocket(::accept(socket_.get(), nullptr, nullptr));
  }

 private:
  const FileDescriptor socket_;
};

class ResolvedMonitorConnectionTest : public ::testing::Test {
 protected:
  std::vector<std::string> receive() {
    pollfd waited{monitor_.descriptor(), POLLIN, 0};
    ::poll(&waited, 1, 20'000);
    std::vector<std::string> names;
    monitor_.receive(
        [&names](const ResolvedMonitor::Answer& answer) { names.push_back(answer.name); });
    return names;
  }

  const testing::TemporaryFolder folder_;
  ResolvedMonitor monitor_{folder_.path("monitor")};
  BootClock::time_point now_{1h};
};

TEST_F(ResolvedMonitorConnectionTest, SubscribesAndReceivesAnswersInPieces) {
  const Listener listener(folder_.path("monitor"));
  monitor_.refresh(now_);
  ASSERT_GE(monitor_.descriptor(), 0);
  const auto resolved = listener.accept();
  const std::string request = resolved.receiveThrough(std::string_view("\0", 1));
  EXPECT_NE(request.find("io.systemd.Resolve.Monitor.SubscribeQueryResults"), std::string::npos);
  const std::string text = message() + '\0';
  resolved.send(std::string("{}") + '\0' + text.substr(0, 10));
  EXPECT_TRUE(receive().empty());
  resolved.send(text.substr(10) + text);
  EXPECT_EQ(receive(), (std::vector<std::string>{"www.example", "www.example"}));
}

TEST_F(ResolvedMonitorConnectionTest, ConnectsAgainAfterAWhile) {
  monitor_.refresh(now_);
  EXPECT_EQ(monitor_.descriptor(), -1);
  const Listener listener(folder_.path("monitor"));
  monitor_.refresh(now_ + 5s - 1ns);
  EXPECT_EQ(monitor_.descriptor(), -1);
  monitor_.refresh(now_ + 5s);
  EXPECT_GE(monitor_.descriptor(), 0);
  listener.accept().close();
  EXPECT_TRUE(receive().empty());
  EXPECT_EQ(monitor_.descriptor(), -1);
  monitor_.refresh(now_ + 10s);
  EXPECT_GE(monitor_.descriptor(), 0);
}

// Each is followed by the truth.
TEST_F(ResolvedMonitorConnectionTest, WrongMessagesHaveNoLastingEffect) {
  const Listener listener(folder_.path("monitor"));
  monitor_.refresh(now_);
  const auto resolved = listener.accept();
  const std::string whole = message();
  std::vector<std::string> wrongs{"",
                                  "{}",
                                  "null",
                                  "[",
                                  std::string(60'000, '{'),
                                  "\xFF\xFE",
                                  R"({"error":"org.varlink.service.MethodNotFound"})",
                                  R"({"parameters":{"question":{},"answer":7}})",
                                  R"({"parameters":null})"};
  constexpr std::size_t kStride = 5;
  for (std::size_t size = 0; size < whole.size(); size += kStride) {
    wrongs.push_back(whole.substr(0, size));
  }
  const std::string end(1, '\0');
  for (const std::string& wrong : wrongs) {
    std::thread sending([&] { resolved.send(wrong + end + whole + end); });
    std::vector<std::string> names;
    while (names.empty() && monitor_.descriptor() >= 0) {
      names = receive();
    }
    sending.join();
    ASSERT_EQ(names, std::vector<std::string>{"www.example"}) << wrong;
  }
}

TEST_F(ResolvedMonitorConnectionTest, ARepeatedAnswerIsTheSame) {
  const Listener listener(folder_.path("monitor"));
  monitor_.refresh(now_);
  const auto resolved = listener.accept();
  const std::string text = message() + '\0';
  resolved.send(text + text + text);
  EXPECT_EQ(receive(), std::vector<std::string>(3, "www.example"));
}

TEST_F(ResolvedMonitorConnectionTest, AnEndWithinAMessageIsNoAnswer) {
  const Listener listener(folder_.path("monitor"));
  monitor_.refresh(now_);
  listener.accept().send(message());
  EXPECT_TRUE(receive().empty());
  EXPECT_TRUE(receive().empty());
  EXPECT_EQ(monitor_.descriptor(), -1);
  monitor_.refresh(now_ + 5s);
  listener.accept().send(message() + '\0');
  // Nothing of the first connection is left.
  EXPECT_EQ(receive(), std::vector<std::string>{"www.example"});
}

TEST_F(ResolvedMonitorConnectionTest, AMessageWithoutEndEndsTheConnection) {
  const Listener listener(folder_.path("monitor"));
  monitor_.refresh(now_);
  const auto resolved = listener.accept();
  for (int count = 0; count < 100 && monitor_.descriptor() >= 0; ++count) {
    resolved.send(std::string(4096, 'x'));
    receive();
  }
  EXPECT_EQ(monitor_.descriptor(), -1);
}

}  // namespace
}  // namespace ostravel::linuxplatform
