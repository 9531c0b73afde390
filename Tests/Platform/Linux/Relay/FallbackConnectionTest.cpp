#include "Platform/Linux/Relay/FallbackConnection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Tests/Platform/Linux/Relay/Support/RelayTest.h"

namespace ostravel::linuxplatform::test {
namespace {

using platform::Data;
using platform::OptionalError;
using platform::TCPConnectionState;

constexpr std::string_view kHeaderEnd = "\r\n\r\n";
const std::string kEstablished = "HTTP/1.1 200 OK\r\n\r\n";
const std::string kBadGateway = "HTTP/1.1 502 Bad Gateway\r\n\r\n";

std::string request(const std::string& target) {
  return "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\nX: y\r\n\r\n";
}

class StateObserver : public platform::KeyValueObserver {
 public:
  void observeValue(std::optional<std::string_view> /*keyPath*/,
                    platform::Observable* object) override {
    states_.push_back(dynamic_cast<platform::TCPConnection&>(*object).state());
  }
  std::vector<TCPConnectionState> states_;
};

class FallbackConnectionTest : public RelayTest {
 protected:
  FallbackConnectionTest() : port_(std::to_string(proxy_.local().port)) { proxy_.listen(); }

  void connect() {
    connection_ = onLoop([this] {
      const ConnectByName byName{"www.example:443", "192.0.2.1:443",
                                 [this] { ++unresolvableCount_; }};
      return FallbackConnection::connect(loop(), byName, [port = port_] {
        return EventLoopGroup::connect({"127.0.0.1", port});
      });
    });
  }

  ReadOutcome read(std::size_t maximum = 1000) {
    auto [completion, future] = readCompletion();
    connection_->read(1, maximum, std::move(completion));
    return waitFor(std::move(future));
  }
  OptionalError write(const std::string& text) {
    auto [completion, future] = errorCompletion();
    connection_->write(Data::copyOf(text), std::move(completion));
    return waitFor(std::move(future));
  }
  // A read whose answer the test sends afterwards.
  std::future<ReadOutcome> beginRead() {
    auto [completion, future] = readCompletion();
    connection_->read(1, 1000, std::move(completion));
    return std::move(future);
  }

  // A request by name: where the proxy received it, and the read that waits for the answer.
  struct Asked {
    ApplicationSocket proxy;
    std::future<ReadOutcome> answer;
  };
  Asked ask() {
    connect();
    ApplicationSocket proxy = proxy_.accept();
    EXPECT_FALSE(write(request("www.example:443")));
    return {std::move(proxy), beginRead()};
  }

  ApplicationSocket proxy_{"127.0.0.1"};
  const std::string port_;
  std::atomic<int> unresolvableCount_ = 0;
  std::shared_ptr<FallbackConnection> connection_;
};

TEST_F(FallbackConnectionTest, PassesOnWhatTheProxyAnswers) {
  for (const std::string& answer : {kEstablished, std::string("HTTP/1.1 403 Forbidden\r\n\r\n"),
                                    std::string("HTTP/1.1 500 No\r\n\r\n"),
                                    std::string("nonsense 502 nonsense"), std::string("x")}) {
    connect();
    const ApplicationSocket server = proxy_.accept();
    EXPECT_FALSE(write(request("www.example:443")));
    EXPECT_EQ(server.receiveThrough(kHeaderEnd), request("www.example:443"));
    server.send(answer);
    EXPECT_EQ(read().bytes, answer);
    server.send("later");
    EXPECT_EQ(read().bytes, "later");
    EXPECT_FALSE(write("more"));
    EXPECT_EQ(server.receiveThrough("more"), "more");
  }
  EXPECT_EQ(unresolvableCount_, 0);
}

TEST_F(FallbackConnectionTest, AsksForTheAddressWhenTheNameCannotBeResolved) {
  for (const std::string status : {"502", "503", "504"}) {
    unresolvableCount_ = 0;
    auto [first, answer] = ask();
    first.receiveThrough(kHeaderEnd);
    first.send("HTTP/1.0 " + status + " Sorry\r\n\r\n");
    const ApplicationSocket second = proxy_.accept();
    EXPECT_EQ(second.receiveThrough(kHeaderEnd), request("192.0.2.1:443"));
    EXPECT_EQ(first.receiveToEnd().error, 0);
    second.send(kEstablished);
    EXPECT_EQ(waitFor(std::move(answer)).bytes, kEstablished);
    EXPECT_EQ(unresolvableCount_, 1);
    EXPECT_EQ(connection_->state(), TCPConnectionState::connected);
    EXPECT_FALSE(write("data"));
    EXPECT_EQ(second.receiveThrough("data"), "data");
  }
}

TEST_F(FallbackConnectionTest, TheSecondAnswerIsFinal) {
  auto [first, answer] = ask();
  first.send(kBadGateway);
  const ApplicationSocket second = proxy_.accept();
  second.send(kBadGateway);
  EXPECT_EQ(waitFor(std::move(answer)).bytes, kBadGateway);
  EXPECT_EQ(unresolvableCount_, 1);
}

TEST_F(FallbackConnectionTest, ReadsAStatusLineThatComesInPieces) {
  auto [first, answer] = ask();
  for (const char character : kBadGateway.substr(0, 12)) {
    first.send(std::string(1, character));
    first.waitUntilAcknowledged();
    drain();
  }
  const ApplicationSocket second = proxy_.accept();
  second.send(kEstablished);
  EXPECT_EQ(waitFor(std::move(answer)).bytes, kEstablished);
}

TEST_F(FallbackConnectionTest, PassesOnAnAnswerThatEndsEarly) {
  connect();
  ApplicationSocket server = proxy_.accept();
  EXPECT_FALSE(write(request("www.example:443")));
  server.receiveThrough(kHeaderEnd);
  server.send("HTTP/1.1");
  server.close();
  EXPECT_EQ(read().bytes, "HTTP/1.1");
  EXPECT_TRUE(read().isEnd());
}

TEST_F(FallbackConnectionTest, AnEndInsteadOfAnAnswerIsAnEnd) {
  connect();
  ApplicationSocket server = proxy_.accept();
  EXPECT_FALSE(write(request("www.example:443")));
  server.receiveThrough(kHeaderEnd);
  server.close();
  EXPECT_TRUE(read().isEnd());
}

TEST_F(FallbackConnectionTest, AnotherRequestIsNeverRepeated) {
  connect();
  const ApplicationSocket server = proxy_.accept();
  EXPECT_FALSE(write(request("www.example:80")));
  server.send(kBadGateway);
  EXPECT_EQ(read().bytes, kBadGateway);
  EXPECT_EQ(unresolvableCount_, 0);
}

TEST_F(FallbackConnectionTest, AProxyThatIsGoneFailsTheRead) {
  auto [first, answer] = ask();
  proxy_.close();
  first.send(kBadGateway);
  const auto outcome = waitFor(std::move(answer));
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, ECONNREFUSED);
  EXPECT_EQ(connection_->state(), TCPConnectionState::disconnected);
}

TEST_F(FallbackConnectionTest, CancellingEndsTheSecondConnection) {
  auto [first, answer] = ask();
  first.send(kBadGateway);
  ApplicationSocket second = proxy_.accept();
  second.receiveThrough(kHeaderEnd);
  connection_->cancel();
  const auto outcome = waitFor(std::move(answer));
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->code, ECANCELED);
  EXPECT_EQ(second.receiveToEnd().bytes, "");
  EXPECT_EQ(connection_->state(), TCPConnectionState::cancelled);
}

TEST_F(FallbackConnectionTest, DestroyedWhileItRetriesItCompletesTheRead) {
  auto [first, answer] = ask();
  first.send(kBadGateway);
  const ApplicationSocket second = proxy_.accept();
  second.receiveThrough(kHeaderEnd);
  onLoop([this] { connection_.reset(); });
  EXPECT_TRUE(waitFor(std::move(answer)).error);
}

TEST_F(FallbackConnectionTest, ItsObserverSeesOneConnection) {
  const auto observer = std::make_shared<StateObserver>();
  connect();
  connection_->addObserver(observer, "state");
  const ApplicationSocket first = proxy_.accept();
  EXPECT_FALSE(write(request("www.example:443")));
  auto answer = beginRead();
  first.send(kBadGateway);
  ApplicationSocket second = proxy_.accept();
  second.receiveThrough(kHeaderEnd);
  second.send(kEstablished);
  EXPECT_EQ(waitFor(std::move(answer)).bytes, kEstablished);
  second.close();
  EXPECT_TRUE(read().isEnd());
  EXPECT_TRUE(
      eventually([this] { return connection_->state() == TCPConnectionState::disconnected; }));
  drain();
  EXPECT_EQ(onLoop([&observer] { return observer->states_; }),
            (std::vector{TCPConnectionState::connected, TCPConnectionState::disconnected}));
}

TEST_F(FallbackConnectionTest, AConnectionThatFailsIsDisconnected) {
  proxy_.close();
  connect();
  EXPECT_TRUE(
      eventually([this] { return connection_->state() == TCPConnectionState::disconnected; }));
  EXPECT_EQ(connection_->error()->code, ECONNREFUSED);
  const auto observer = std::make_shared<StateObserver>();
  connection_->addObserver(observer, "state");
  drain();
  EXPECT_EQ(onLoop([&observer] { return observer->states_; }),
            std::vector{TCPConnectionState::disconnected});
  EXPECT_TRUE(read().error);
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
