#include "Companion/Sidecar/ConnectProxy.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <asio/post.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Companion/Sidecar/NameLookup.h"
#include "Tests/Support/TestSocket.h"

namespace ostravel::companion {
namespace {

using asio::ip::tcp;
using testing::TestListener;
using testing::TestSocket;
using namespace std::chrono_literals;

constexpr std::string_view kEstablished = "HTTP/1.1 200 Connection established\r\n\r\n";

std::string connectTo(const std::string& target) {
  return "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\n\r\n";
}

// Bytes in which a lost, duplicated or misplaced piece is noticed.
std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint32_t state = 1;
  for (char& byte : bytes) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<char>(state >> 24U);
  }
  return bytes;
}

// A proxy on its own thread.
// Its queue of connections is full, so that further ones are not answered.
class FullListener {
 public:
  FullListener() {
    for (int index = 0; index < 3; ++index) {
      queued_.push_back(TestSocket::beginConnectTcp(listener_.port(), "127.0.0.1"));
    }
  }
  std::string target() const { return listener_.target(); }

 private:
  const TestListener listener_{"127.0.0.1", 0, 0};
  std::vector<TestSocket> queued_;
};

class ConnectProxyTest : public ::testing::Test {
 protected:
  ~ConnectProxyTest() override {
    if (thread_.joinable()) {
      ioContext_.stop();
      thread_.join();
    }
  }

  // Only before start.
  SessionLimits limits_;
  ConnectProxy::Lookup lookUp_ = [this](const HostPort& target, LookupDone done) {
    return names_.lookUp(target, std::move(done));
  };

  void start(const std::string& address = "127.0.0.1") {
    proxy_ = std::make_unique<ConnectProxy>(
        ioContext_, tcp::endpoint(asio::ip::make_address(address), 0), lookUp_,
        TunnelLog(TunnelLog::Verbosity::beginningsAndEnds,
                  [this](std::string_view line) { addLine(line); }),
        limits_);
    address_ = address;
    port_ = proxy_->address().port();
    thread_ = std::thread([this] { ioContext_.run(); });
  }

  TestSocket connectClient() const { return TestSocket::connectTcp(port_, address_); }

  // An established tunnel: the client's and the origin's end.
  struct Ends {
    TestSocket client;
    TestSocket origin;
  };
  Ends openTunnel(const TestListener& listener) const {
    TestSocket client = connectClient();
    client.send(connectTo(listener.target()));
    TestSocket origin = listener.accept();
    EXPECT_EQ(client.receive(kEstablished.size()), kEstablished);
    return {std::move(client), std::move(origin)};
  }

  // How many of that client's bytes the proxy has not read yet; see /proc/net/tcp in proc(5).
  unsigned long unreadBytesFrom(std::uint16_t clientPort) const {
    std::ifstream table("/proc/thread-self/net/tcp");
    const auto loopback = [](std::uint16_t port) {
      std::array<char, 16> text{};
      std::snprintf(text.data(), text.size(), "0100007F:%04X", port);
      return std::string(text.data());
    };
    std::string line;
    while (std::getline(table, line)) {
      std::istringstream fields(line);
      std::string number, local, remote, state, queues;
      fields >> number >> local >> remote >> state >> queues;
      if (local == loopback(port_) && remote == loopback(clientPort)) {
        return std::stoul(queues.substr(queues.find(':') + 1), nullptr, 16);
      }
    }
    throw std::runtime_error("the proxy has no such client");
  }

  std::string answerTo(const std::string& request) const {
    const TestSocket client = connectClient();
    client.send(request);
    return client.receiveToEnd();
  }

  void addLine(std::string_view line) {
    const std::lock_guard lock(mutex_);
    lines_.emplace_back(line.substr(13));
    changed_.notify_all();
  }
  std::string waitForLine(std::size_t index) {
    std::unique_lock lock(mutex_);
    const bool came = changed_.wait_for(lock, 30s, [&] { return lines_.size() > index; });
    return came ? lines_[index] : "no line came";
  }

  asio::io_context ioContext_;
  NameLookup names_{ioContext_.get_executor()};
  std::unique_ptr<ConnectProxy> proxy_;
  std::string address_;
  std::uint16_t port_ = 0;

 private:
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
};

TEST_F(ConnectProxyTest, AnswersOnceTheOriginIsConnected) {
  start();
  const TestListener listener;
  const Ends tunnel = openTunnel(listener);
  EXPECT_EQ(waitForLine(0),
            listener.target() + " app=- flow=- established to " + listener.target());
}

TEST_F(ConnectProxyTest, DoesNotAnswerWhileTheOriginIsBeingConnected) {
  const FullListener full;
  start();
  const TestSocket client = connectClient();
  client.send(connectTo(full.target()));
  EXPECT_FALSE(client.hasBytesWithin(200ms));
}

TEST_F(ConnectProxyTest, CarriesBytesBothWays) {
  start();
  const TestListener listener;
  const Ends tunnel = openTunnel(listener);
  tunnel.client.send("question");
  EXPECT_EQ(tunnel.origin.receive(8), "question");
  tunnel.origin.send("answer");
  EXPECT_EQ(tunnel.client.receive(6), "answer");
}

TEST_F(ConnectProxyTest, ShowsTheOriginOnlyTheTunnelsBytes) {
  start();
  const TestListener listener;
  const TestSocket client = connectClient();
  client.send("CONNECT " + listener.target() +
              " HTTP/1.1\r\nX-Ostravel-App-Id: secret.app\r\nX-Ostravel-Flow-Id: F1\r\n\r\n");
  const TestSocket origin = listener.accept();
  client.receive(kEstablished.size());
  client.send("only this");
  client.endSending();
  EXPECT_EQ(origin.receiveToEnd(), "only this");
  EXPECT_EQ(waitForLine(0),
            listener.target() + " app=secret.app flow=F1 established to " + listener.target());
}

TEST_F(ConnectProxyTest, ForwardsBytesThatFollowTheHeader) {
  start();
  const TestListener listener;
  const TestSocket client = connectClient();
  const std::string early = pattern(8000);
  client.send(connectTo(listener.target()) + early);
  const TestSocket origin = listener.accept();
  EXPECT_EQ(origin.receive(early.size()), early);
  client.send("later");
  EXPECT_EQ(origin.receive(5), "later");
}

TEST_F(ConnectProxyTest, KeepsTheOrderOfEarlyAndLaterBytes) {
  start();
  const TestListener listener;
  const TestSocket client = connectClient();
  const std::string bytes = pattern(300'000);
  client.send(connectTo(listener.target()) + bytes);
  client.endSending();
  EXPECT_EQ(listener.accept().receiveToEnd(), bytes);
}

TEST_F(ConnectProxyTest, ANewTunnelDoesNotWaitForManyBusyOnes) {
  constexpr int kBusyTunnels = 60;
  const std::string piece = pattern(256 * 1024);
  std::vector<Ends> busy;
  std::promise<std::size_t> movedBeforeLookup;
  lookUp_ = [&](const HostPort& target, LookupDone done) {
    if (busy.size() == kBusyTunnels) {
      std::size_t moved = 0;
      for (const Ends& tunnel : busy) {
        int unread = 0;
        ::ioctl(tunnel.client.descriptor(), FIONREAD, &unread);
        moved += static_cast<std::size_t>(unread);
      }
      movedBeforeLookup.set_value(moved);
    }
    return names_.lookUp(target, std::move(done));
  };
  start();
  const TestListener listener;
  for (int tunnel = 0; tunnel < kBusyTunnels; ++tunnel) {
    busy.push_back(openTunnel(listener));
  }
  // Everything has arrived before the proxy sees any of it, the new client last.
  std::promise<void> everythingArrived;
  asio::post(ioContext_, [&everythingArrived] { everythingArrived.get_future().wait(); });
  for (const Ends& tunnel : busy) {
    tunnel.origin.sendUntilStalled(piece, 0ms);
  }
  const TestSocket client = connectClient();
  client.send(connectTo(listener.target()));
  for (int unacknowledged = 1; unacknowledged != 0; std::this_thread::yield()) {
    ASSERT_EQ(::ioctl(client.descriptor(), SIOCOUTQ, &unacknowledged), 0);
  }
  everythingArrived.set_value();
  // Two turns: one to accept it, one to read its request. Without turns it would be several times
  // as much.
  EXPECT_LE(movedBeforeLookup.get_future().get(), 2'000'000U);
  EXPECT_EQ(client.receive(kEstablished.size()), kEstablished);
}

TEST_F(ConnectProxyTest, TakesAHeaderByteByByte) {
  start();
  const TestListener listener;
  const TestSocket client = connectClient();
  const int noDelay = 1;
  ::setsockopt(client.descriptor(), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));
  for (const char& byte : connectTo(listener.target())) {
    client.send({&byte, 1});
  }
  EXPECT_EQ(client.receive(kEstablished.size()), kEstablished);
}

TEST_F(ConnectProxyTest, CarriesLargeTransfersBothWaysAtOnce) {
  start();
  const TestListener listener;
  const Ends tunnel = openTunnel(listener);
  const std::string up = pattern(20'000'000);
  const std::string down = pattern(15'000'000);
  const auto sendAll = [](const TestSocket& socket, const std::string& bytes) {
    socket.send(bytes);
    socket.endSending();
  };
  std::thread clientSends([&] { sendAll(tunnel.client, up); });
  std::thread originSends([&] { sendAll(tunnel.origin, down); });
  std::string received;
  std::thread clientReceives([&] { received = tunnel.client.receiveToEnd(); });
  EXPECT_TRUE(tunnel.origin.receiveToEnd() == up);
  clientReceives.join();
  EXPECT_TRUE(received == down);
  clientSends.join();
  originSends.join();
  EXPECT_EQ(waitForLine(1),
            listener.target() + " app=- flow=- ended orderly sent=20000000 received=15000000");
}

// One side ends its stream; the other one is still heard, and ends later.
void expectTwoEnds(const TestSocket& first, const TestSocket& second) {
  first.send("last");
  first.endSending();
  EXPECT_EQ(second.receiveToEnd(), "last");
  second.send("still here");
  EXPECT_EQ(first.receive(10), "still here");
  second.endSending();
  EXPECT_EQ(first.waitForEnd(), TestSocket::End::orderly);
}

TEST_F(ConnectProxyTest, PassesOnTheClientsEndAndKeepsTheOtherDirection) {
  start();
  const TestListener listener;
  const Ends tunnel = openTunnel(listener);
  expectTwoEnds(tunnel.client, tunnel.origin);
}

TEST_F(ConnectProxyTest, PassesOnTheOriginsEndAndKeepsTheOtherDirection) {
  start();
  const TestListener listener;
  const Ends tunnel = openTunnel(listener);
  expectTwoEnds(tunnel.origin, tunnel.client);
}

TEST_F(ConnectProxyTest, LosesNothingWhenTheOriginSendsMuchAndCloses) {
  start();
  const TestListener listener;
  Ends tunnel = openTunnel(listener);
  const std::string bytes = pattern(5'000'000);
  std::thread originSends([&] {
    tunnel.origin.send(bytes);
    tunnel.origin.close();
  });
  EXPECT_TRUE(tunnel.client.receiveToEnd() == bytes);
  originSends.join();
}

TEST_F(ConnectProxyTest, PassesOnTheClientsReset) {
  start();
  const TestListener listener;
  Ends tunnel = openTunnel(listener);
  tunnel.client.reset();
  EXPECT_EQ(tunnel.origin.waitForEnd(), TestSocket::End::reset);
  EXPECT_EQ(waitForLine(1), listener.target() + " app=- flow=- ended by reset sent=0 received=0");
}

TEST_F(ConnectProxyTest, PassesOnTheOriginsReset) {
  start();
  const TestListener listener;
  Ends tunnel = openTunnel(listener);
  tunnel.origin.reset();
  EXPECT_EQ(tunnel.client.waitForEnd(), TestSocket::End::reset);
}

TEST_F(ConnectProxyTest, PassesOnAResetAfterAnEndWhileTheOriginIsSilent) {
  start();
  const TestListener listener;
  Ends tunnel = openTunnel(listener);
  tunnel.client.endSending();
  ASSERT_EQ(tunnel.origin.receiveToEnd(), "");
  tunnel.client.reset();
  EXPECT_TRUE(tunnel.origin.waitForReset());
}

TEST_F(ConnectProxyTest, PassesOnAResetWhileTheOriginDoesNotRead) {
  start();
  const TestListener listener;
  Ends tunnel = openTunnel(listener);
  tunnel.client.sendUntilStalled(pattern(64'000'000), 500ms);
  tunnel.client.reset();
  EXPECT_TRUE(tunnel.origin.waitForReset());
}

TEST_F(ConnectProxyTest, PassesOnAResetAfterAnUrgentByteOnAStalledSide) {
  start();
  const TestListener listener;
  Ends tunnel = openTunnel(listener);
  // Bytes that stay unread while the proxy serves others: it waits for the origin to take more.
  const std::string piece = pattern(64 * 1024);
  while (unreadBytesFrom(tunnel.client.localPort()) == 0) {
    tunnel.client.send(piece);
    openTunnel(listener);
  }
  tunnel.client.sendUrgent('!');
  // One thread does it all: once this is done, it has also seen the urgent byte.
  openTunnel(listener);
  tunnel.client.reset();
  EXPECT_TRUE(tunnel.origin.waitForReset());
}

TEST_F(ConnectProxyTest, HoldsTheSenderBackWhileTheReceiverDoesNotRead) {
  start();
  const TestListener listener;
  const Ends tunnel = openTunnel(listener);
  const std::string bytes = pattern(128'000'000);
  const std::size_t sent = tunnel.client.sendUntilStalled(bytes, 500ms);
  // The kernel's own buffers take some megabytes on each of the four sides.
  EXPECT_LT(sent, bytes.size());
  tunnel.client.endSending();
  EXPECT_TRUE(tunnel.origin.receiveToEnd() == bytes.substr(0, sent));
}

TEST_F(ConnectProxyTest, KeepsOtherTunnelsGoingBesideAStalledOne) {
  start();
  const TestListener listener;
  const Ends stalled = openTunnel(listener);
  stalled.client.sendUntilStalled(pattern(64'000'000), 200ms);
  const Ends other = openTunnel(listener);
  other.client.send("ping");
  EXPECT_EQ(other.origin.receive(4), "ping");
}

TEST_F(ConnectProxyTest, ConnectsToNames) {
  start();
  const TestListener listener;
  const TestSocket client = connectClient();
  client.send(connectTo("localhost:" + std::to_string(listener.port())));
  EXPECT_EQ(client.receive(kEstablished.size()), kEstablished);
}

TEST_F(ConnectProxyTest, CarriesIPv6OnBothSides) {
  if (!testing::hasIPv6Loopback()) {
    FAIL() << "this machine has no IPv6";
  }
  start("::1");
  const TestListener listener("::1");
  const Ends tunnel = openTunnel(listener);
  tunnel.client.send("six");
  EXPECT_EQ(tunnel.origin.receive(3), "six");
}

TEST_F(ConnectProxyTest, TriesTheNextAddressWhenOneRefuses) {
  lookUp_ = [](const HostPort& target, const LookupDone& done) {
    done({}, {{asio::ip::make_address("127.0.0.2"), target.port},
              {asio::ip::make_address("127.0.0.1"), target.port}});
    return nullptr;
  };
  start();
  const TestListener listener;
  const TestSocket client = connectClient();
  client.send(connectTo("two.example:" + std::to_string(listener.port())));
  EXPECT_EQ(client.receive(kEstablished.size()), kEstablished);
}

TEST_F(ConnectProxyTest, TriesTheNextAddressWhenOneDoesNotAnswer) {
  const TestListener listener;
  const TestListener full("127.0.0.2", listener.port(), 0);
  std::vector<TestSocket> queued;
  for (int index = 0; index < 3; ++index) {
    queued.push_back(TestSocket::beginConnectTcp(full.port(), "127.0.0.2"));
  }
  lookUp_ = [](const HostPort& target, const LookupDone& done) {
    done({}, {{asio::ip::make_address("127.0.0.2"), target.port},
              {asio::ip::make_address("127.0.0.1"), target.port}});
    return nullptr;
  };
  // Far longer than a connection takes that is answered.
  limits_.connect = 1s;
  start();
  const TestSocket client = connectClient();
  client.send(connectTo("two.example:" + std::to_string(listener.port())));
  EXPECT_EQ(client.receive(kEstablished.size()), kEstablished);
}

TEST_F(ConnectProxyTest, AnswersGatewayTimeoutWhenTheOriginDoesNotAnswer) {
  const FullListener full;
  limits_.connect = 100ms;
  start();
  EXPECT_TRUE(answerTo(connectTo(full.target())).starts_with("HTTP/1.1 504 Gateway Timeout\r\n"));
}

TEST_F(ConnectProxyTest, AnswersBadGatewayWhenTheOriginRefuses) {
  start();
  const std::string target = "127.0.0.1:" + std::to_string(testing::closedPort());
  EXPECT_TRUE(answerTo(connectTo(target)).starts_with("HTTP/1.1 502 Bad Gateway\r\n"));
  EXPECT_EQ(waitForLine(0), target + " app=- flow=- refused 502 Bad Gateway: Connection refused");
}

TEST_F(ConnectProxyTest, AnswersBadGatewayForAnUnknownName) {
  lookUp_ = [](const HostPort&, const LookupDone& done) {
    done(asio::error::host_not_found, {});
    return nullptr;
  };
  start();
  EXPECT_TRUE(answerTo(connectTo("gone.example:1")).starts_with("HTTP/1.1 502 Bad Gateway\r\n"));
}

TEST_F(ConnectProxyTest, AnswersGatewayTimeoutWhenALookupTakesTooLong) {
  LookupDone late;
  lookUp_ = [&late](const HostPort&, LookupDone done) {
    late = std::move(done);
    return nullptr;
  };
  limits_.lookup = 50ms;
  start();
  EXPECT_TRUE(answerTo(connectTo("slow.example:1")).starts_with("HTTP/1.1 504 "));
  // A result that arrives nevertheless changes nothing.
  std::promise<void> called;
  asio::post(ioContext_, [&] {
    late({}, {{asio::ip::make_address("127.0.0.1"), 1}});
    late = nullptr;
    called.set_value();
  });
  called.get_future().wait();
}

TEST_F(ConnectProxyTest, ServesOthersWhileALookupIsUnderWay) {
  lookUp_ = [this](const HostPort& target, LookupDone done) {
    return target.host == "slow.example" ? nullptr : names_.lookUp(target, std::move(done));
  };
  start();
  const TestSocket waiting = connectClient();
  waiting.send(connectTo("slow.example:1"));
  const TestListener listener;
  const Ends tunnel = openTunnel(listener);
}

// A lookup that the test completes.
class HeldLookup : public PendingLookup {
 public:
  struct Control {
    std::promise<LookupDone> started;
    std::promise<void> cancelled;
  };

  explicit HeldLookup(std::shared_ptr<Control> control) : control_(std::move(control)) {}
  ~HeldLookup() override { control_->cancelled.set_value(); }

 private:
  const std::shared_ptr<Control> control_;
};

class ConnectProxyLookupTest : public ConnectProxyTest {
 protected:
  ConnectProxyLookupTest() {
    // A lookup that takes too long is cancelled as well, and must not be mistaken for one of these.
    limits_.lookup = 1h;
    lookUp_ = [control = control_](const HostPort&, LookupDone done) {
      control->started.set_value(std::move(done));
      return std::make_shared<HeldLookup>(control);
    };
    start();
  }

  // Until its lookup is under way.
  TestSocket waitingClient(const std::string& early = {}) {
    TestSocket client = connectClient();
    client.send(connectTo(kTarget) + early);
    done_ = control_->started.get_future().get();
    return client;
  }
  bool isCancelled() { return control_->cancelled.get_future().wait_for(30s) == kReady; }

  // As all of its work runs on one thread, it has also dealt with what came before.
  void letTheProxyCatchUp() const {
    EXPECT_TRUE(answerTo("GET / HTTP/1.1\r\n\r\n").starts_with("HTTP/1.1 405 "));
  }

  static constexpr auto kReady = std::future_status::ready;
  static constexpr const char* kTarget = "slow.example:1";

  const std::shared_ptr<HeldLookup::Control> control_ = std::make_shared<HeldLookup::Control>();
  LookupDone done_;
};

TEST_F(ConnectProxyLookupTest, IsCancelledWhenTheClientEnds) {
  TestSocket client = waitingClient();
  client.close();
  EXPECT_TRUE(isCancelled());
  EXPECT_EQ(waitForLine(0), "slow.example:1 app=- flow=- abandoned by the client");
}

TEST_F(ConnectProxyLookupTest, IsCancelledWhenTheClientResets) {
  TestSocket client = waitingClient();
  client.reset();
  EXPECT_TRUE(isCancelled());
}

TEST_F(ConnectProxyLookupTest, IsCancelledByAResetAfterEarlyBytes) {
  TestSocket client = waitingClient();
  client.send("early");
  letTheProxyCatchUp();
  client.reset();
  EXPECT_TRUE(isCancelled());
}

TEST_F(ConnectProxyLookupTest, IsCancelledByAResetAfterAnUrgentByte) {
  TestSocket client = waitingClient();
  client.send("early");
  letTheProxyCatchUp();
  client.sendUrgent('!');
  letTheProxyCatchUp();
  client.reset();
  EXPECT_TRUE(isCancelled());
}

TEST_F(ConnectProxyLookupTest, ContinuesWhenAClientWithEarlyBytesEndsSending) {
  const TestListener listener;
  const TestSocket client = waitingClient("early");
  client.endSending();
  letTheProxyCatchUp();
  asio::post(ioContext_, [&] {
    done_({}, {{asio::ip::make_address("127.0.0.1"), listener.port()}});
  });
  const TestSocket origin = listener.accept();
  EXPECT_EQ(origin.receiveToEnd(), "early");
  origin.send("answer");
  EXPECT_EQ(client.receive(kEstablished.size() + 6), std::string(kEstablished) + "answer");
}

TEST_F(ConnectProxyTest, GivesUpConnectingWhenTheClientLeaves) {
  const FullListener full;
  start();
  TestSocket client = connectClient();
  client.send(connectTo(full.target()));
  client.close();
  EXPECT_EQ(waitForLine(0), full.target() + " app=- flow=- abandoned by the client");
}

TEST_F(ConnectProxyTest, AnswersMethodNotAllowedToEveryOtherMethod) {
  start();
  const std::string answer = answerTo("GET http://example.org/ HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 405 Method Not Allowed\r\n"));
  EXPECT_NE(answer.find("\r\nAllow: CONNECT\r\n"), std::string::npos);
}

TEST_F(ConnectProxyTest, AnswersBadRequestToAMalformedRequest) {
  start();
  for (const char* request : {"nonsense\r\n\r\n", "CONNECT nowhere HTTP/1.1\r\n\r\n",
                              "CONNECT a:1 HTTP/1.1\n\n", "\x16\x03\x01\n"}) {
    EXPECT_TRUE(answerTo(request).starts_with("HTTP/1.1 400 Bad Request\r\n")) << request;
  }
}

TEST_F(ConnectProxyTest, AnswersBadRequestToAHeaderCutShort) {
  start();
  const TestSocket client = connectClient();
  client.send("CONNECT a:1 HTTP/1.1\r\n");
  client.endSending();
  EXPECT_TRUE(client.receiveToEnd().starts_with("HTTP/1.1 400 "));
}

TEST_F(ConnectProxyTest, ClosesSilentlyOnAClientThatSaysNothing) {
  start();
  const TestSocket client = connectClient();
  client.endSending();
  EXPECT_EQ(client.receiveToEnd(), "");
}

TEST_F(ConnectProxyTest, AnswersHeaderTooLargeBeyondSixteenKibibytes) {
  start();
  const TestListener listener;
  const std::string line = "CONNECT " + listener.target() + " HTTP/1.1\r\nX: ";
  const std::size_t room = 16 * 1024 - line.size() - 4;
  EXPECT_TRUE(
      answerTo(line + std::string(room + 1, 'x') + "\r\n\r\n").starts_with("HTTP/1.1 431 "));
  const TestSocket client = connectClient();
  client.send(line + std::string(room, 'x') + "\r\n\r\n");
  EXPECT_EQ(client.receive(kEstablished.size()), kEstablished);
}

TEST_F(ConnectProxyTest, AnswersRequestTimeoutWhenTheHeaderDoesNotEnd) {
  limits_.header = 50ms;
  start();
  EXPECT_TRUE(answerTo("CONNECT a:1 HT").starts_with("HTTP/1.1 408 Request Timeout\r\n"));
  EXPECT_TRUE(answerTo("").starts_with("HTTP/1.1 408 Request Timeout\r\n"));
}

TEST_F(ConnectProxyTest, LetsAClientThatStillSendsReadItsRefusal) {
  start();
  const TestSocket client = connectClient();
  // Far more than all buffers hold: the client can only send it if the proxy still reads.
  const std::string body = pattern(32'000'000);
  client.send("POST /upload HTTP/1.1\r\nHost: x\r\n\r\n");
  client.send(body);
  EXPECT_TRUE(client.receiveToEnd().starts_with("HTTP/1.1 405 "));
}

TEST_F(ConnectProxyTest, StopsWaitingForARefusedClientThatDoesNotEnd) {
  limits_.linger = 50ms;
  start();
  const TestSocket client = connectClient();
  client.send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(client.receiveToEnd().starts_with("HTTP/1.1 405 "));
  // After a real close, the next bytes would be answered with a reset.
  try {
    while (true) {
      client.send("more");
    }
  } catch (const std::runtime_error&) {
    SUCCEED();
  }
}

TEST_F(ConnectProxyTest, ThrowsWhenTheAddressIsTaken) {
  const TestListener listener;
  EXPECT_THROW(
      ConnectProxy(ioContext_, tcp::endpoint(asio::ip::make_address("127.0.0.1"), listener.port()),
                   lookUp_, TunnelLog(TunnelLog::Verbosity::beginnings, {})),
      std::system_error);
}

TEST_F(ConnectProxyTest, CanBeDestroyedInTheMiddleOfEverything) {
  lookUp_ = [this](const HostPort& target, LookupDone done) {
    return target.host == "slow.example" ? nullptr : names_.lookUp(target, std::move(done));
  };
  start();
  const TestListener listener;
  const Ends tunnel = openTunnel(listener);
  tunnel.client.sendUntilStalled(pattern(64'000'000), 100ms);
  const TestSocket silent = connectClient();
  const TestSocket refused = connectClient();
  refused.send("GET / HTTP/1.1\r\n\r\n");
  refused.receive(1);
}

}  // namespace
}  // namespace ostravel::companion
