#include "Companion/Shared/ControlClient.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstring>
#include <future>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Base/FileDescriptor.h"
#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/TestSocket.h"

namespace ostravel::companion {
namespace {

using namespace std::chrono_literals;

// A control socket that answers each request with the same text.
class Server {
 public:
  explicit Server(const std::string& path)
      : descriptor_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::bind(descriptor_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
            0 ||
        ::listen(descriptor_.get(), 8) != 0) {
      throw std::runtime_error("cannot listen");
    }
  }

  // The request, once it has arrived.
  std::future<std::string> answerOne(std::string answer) {
    return std::async(std::launch::async, [this, answer = std::move(answer)] {
      testing::TestSocket client(::accept(descriptor_.get(), nullptr, nullptr));
      std::string request = client.receiveThrough("\n");
      client.send(answer);
      return request;
    });
  }

 private:
  FileDescriptor descriptor_;
};

class ControlClientTest : public ::testing::Test {
 protected:
  static ControlClient::Deadline soon() { return std::chrono::steady_clock::now() + 20s; }

  std::string failureFor(const std::string& answer) {
    Server server(path_);
    auto request = server.answerOne(answer);
    const auto outcome = client_.ask("status", soon());
    request.get();
    const auto* const failure = std::get_if<ControlClient::Failure>(&outcome);
    return failure == nullptr ? "none" : failure->code;
  }

  testing::TemporaryFolder folder_;
  const std::string path_ = folder_.path("control.sock");
  ControlClient client_{path_};
};

TEST_F(ControlClientTest, SendsOneLineAndReturnsTheResult) {
  Server server(path_);
  auto request = server.answerOne(R"({"version":1,"ok":true,"result":{"count":3}})"
                                  "\n");
  const auto answer = client_.ask("tunnels", soon());
  EXPECT_EQ(request.get(), "{\"request\":\"tunnels\",\"version\":1}\n");
  ASSERT_TRUE(std::holds_alternative<JSONHandle>(answer));
  EXPECT_EQ(json_integer_value(json_object_get(std::get<JSONHandle>(answer).get(), "count")), 3);
}

TEST_F(ControlClientTest, ReturnsTheErrorOfTheAnswer) {
  EXPECT_EQ(failureFor(R"({"version":1,"ok":false,"error":{"code":"busy","message":"later"}})"
                       "\n"),
            "busy");
}

TEST_F(ControlClientTest, ReportsAMissingListener) {
  const auto answer = client_.ask("status", soon());
  EXPECT_EQ(std::get<ControlClient::Failure>(answer).code, "not_running");
}

TEST_F(ControlClientTest, ReportsATimeout) {
  const Server server(path_);
  const auto answer = client_.ask("status", std::chrono::steady_clock::now() + 20ms);
  EXPECT_EQ(std::get<ControlClient::Failure>(answer).code, "timeout");
}

TEST_F(ControlClientTest, ReportsAnEndWithoutAnAnswer) {
  EXPECT_EQ(failureFor(""), "no_answer");
}

TEST_F(ControlClientTest, RefusesAnIncompleteAnswer) {
  EXPECT_EQ(failureFor(R"({"version":1,"ok":true,"result":{)"), "no_answer");
}

TEST_F(ControlClientTest, RefusesAnythingButAnAnswer) {
  EXPECT_EQ(failureFor("HTTP/1.1 400 Bad Request\n"), "bad_answer");
}

TEST_F(ControlClientTest, RefusesAPathThatIsTooLong) {
  const auto answer = ControlClient(std::string(200, 'x')).ask("status", soon());
  EXPECT_EQ(std::get<ControlClient::Failure>(answer).code, "not_running");
}

}  // namespace
}  // namespace ostravel::companion
