#include "Companion/Monitor/Web/WebServer.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "Tests/Companion/Events/EventMaker.h"
#include "Tests/Support/TestSocket.h"

namespace ostravel::companion::test {
namespace {

using ostravel::testing::TestListener;
using ostravel::testing::TestSocket;

const std::string kToken = "0123456789abcdef0123456789abcdef";

class WebServerTest : public ::testing::Test {
 protected:
  // The first request makes the HTTP library fill a static set of methods. ThreadSanitizer does not
  // see how the library protects it, so no other request may run at the same time.
  void SetUp() override { ASSERT_EQ(statusOf(get("/app.js")), "200"); }

  static WebServer::Options options(std::uint16_t port = 0) {
    return {.listen = {"127.0.0.1", port}, .token = kToken, .hasApplicationMetrics = false};
  }

  std::uint16_t port() const {
    const std::string url = server_.url();
    return static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1)));
  }

  TestSocket request(const std::string& target, const std::string& host = "localhost:1",
                     const std::string& method = "GET", const std::string& more = "") const {
    TestSocket socket = TestSocket::connectTcp(port());
    socket.send(method + " " + target + " HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n" +
                more + "\r\n");
    return socket;
  }

  std::string get(const std::string& target) const { return request(target).receiveToEnd(); }

  static std::string statusOf(const std::string& answer) { return answer.substr(9, 3); }

  LiveState state_;
  const WebServer server_{state_, options()};
  const std::string query_ = "?token=" + kToken;
};

TEST_F(WebServerTest, ServesThePageWithAStrictPolicy) {
  const std::string answer = get("/" + query_);
  EXPECT_EQ(statusOf(answer), "200");
  EXPECT_NE(answer.find("Content-Security-Policy: default-src 'none'; script-src 'self'; "),
            std::string::npos);
  EXPECT_NE(answer.find("X-Content-Type-Options: nosniff"), std::string::npos);
  EXPECT_NE(answer.find("Referrer-Policy: no-referrer"), std::string::npos);
  EXPECT_NE(answer.find("Cache-Control: no-store"), std::string::npos);
  EXPECT_NE(answer.find("<title>Ostravel</title>"), std::string::npos);
  for (const char* const file : {"/app.js", "/style.css", "/uPlot.js", "/uPlot.css"}) {
    EXPECT_EQ(statusOf(get(file)), "200") << file;
  }
}

TEST_F(WebServerTest, LoadsNothingFromElsewhere) {
  for (const char* const file : {"/app.js", "/style.css"}) {
    EXPECT_EQ(get(file).find("://"), std::string::npos) << file;
  }
  EXPECT_EQ(get("/" + query_).find("://"), std::string::npos);
}

TEST_F(WebServerTest, KeepsItsDataFromOthers) {
  for (const char* const path :
       {"/", "/metrics", "/api/state", "/api/flow", "/api/updates", "/api/none"}) {
    EXPECT_EQ(statusOf(get(path)), "401") << path;
    EXPECT_EQ(statusOf(request(path + query_, "rebound.example").receiveToEnd()), "403") << path;
    EXPECT_EQ(statusOf(request(path + query_, "localhost", "GET", "Origin: http://evil.example\r\n")
                           .receiveToEnd()),
              "403")
        << path;
    EXPECT_EQ(statusOf(request(path + query_, "localhost", "DELETE").receiveToEnd()), "405")
        << path;
  }
  EXPECT_EQ(statusOf(get("/none" + query_)), "404");
}

TEST_F(WebServerTest, ServesStateFlowsAndMetrics) {
  state_.receive(started("f1"));
  EXPECT_NE(get("/api/state" + query_).find("\"id\":\"f1\""), std::string::npos);
  EXPECT_NE(get("/api/flow" + query_ + "&id=f1").find("connect_handshake_started"),
            std::string::npos);
  EXPECT_EQ(statusOf(get("/api/flow" + query_ + "&id=f2")), "404");
  const std::string metrics = get("/metrics" + query_);
  EXPECT_NE(metrics.find("Content-Type: text/plain; version=0.0.4"), std::string::npos);
  EXPECT_NE(metrics.find("\nostravel_flows_total 1\n"), std::string::npos);
  EXPECT_EQ(
      statusOf(request("/metrics", "localhost", "GET", "Authorization: Bearer " + kToken + "\r\n")
                   .receiveToEnd()),
      "200");
}

TEST_F(WebServerTest, DoesNotCompressTheState) {
  state_.receive(started("f1"));
  const std::string answer =
      request("/api/state" + query_, "localhost", "GET", "Accept-Encoding: gzip, deflate, br\r\n")
          .receiveToEnd();
  EXPECT_EQ(answer.find("Content-Encoding"), std::string::npos);
  EXPECT_NE(answer.find("\"id\":\"f1\""), std::string::npos);
}

TEST_F(WebServerTest, SendsUpdatesAsTheyCome) {
  const TestSocket page = request("/api/updates" + query_ + "&after=0,0,0");
  state_.receive(started("f1"));
  state_.tick(kNoon);
  EXPECT_NE(page.receiveThrough("\r\n\r\n").find("text/event-stream"), std::string::npos);
  std::string update;
  while (update.find("\"f1\"") == std::string::npos) {
    update = page.receiveThrough("\n\n");
  }
  EXPECT_NE(update.find("id: 1,1,0\ndata: {"), std::string::npos) << update;
  state_.receive(started("f2"));
  state_.tick(kNoon + 1.0);
  while (update.find("\"f2\"") == std::string::npos) {
    update = page.receiveThrough("\n\n");
  }
  EXPECT_EQ(update.find("\"f1\""), std::string::npos);
}

TEST_F(WebServerTest, RefusesAnInvalidCursor) {
  for (const char* const cursor : {"", "1", "1,2", "1,2,x", "-1,0,0"}) {
    EXPECT_EQ(statusOf(get("/api/updates" + query_ + "&after=" + cursor)), "400") << cursor;
  }
}

TEST_F(WebServerTest, LimitsTheNumberOfOpenPages) {
  std::vector<TestSocket> pages;
  for (std::size_t count = 0; count < WebServer::kMostPages; ++count) {
    pages.push_back(request("/api/updates" + query_ + "&after=0,0,0"));
    pages.back().receiveThrough("\r\n\r\n");
  }
  EXPECT_EQ(statusOf(get("/api/updates" + query_ + "&after=0,0,0")), "503");
  EXPECT_EQ(statusOf(get("/metrics" + query_)), "200");
}

TEST_F(WebServerTest, GivesUpClientsThatSendNothing) {
  std::vector<TestSocket> silent;
  for (std::size_t count = 0; count < WebServer::kMostConnections; ++count) {
    silent.push_back(TestSocket::connectTcp(port()));
  }
  // After a few seconds.
  EXPECT_EQ(statusOf(get("/metrics" + query_)), "200");
}

TEST_F(WebServerTest, APageThatReadsNothingDelaysNoOther) {
  const TestSocket stalled = request("/api/updates" + query_ + "&after=0,0,0");
  const TestSocket page = request("/api/updates" + query_ + "&after=0,0,0");
  // More than the kernel keeps for a reader.
  for (int round = 0; round < 6; ++round) {
    for (std::size_t flow = 0; flow < LiveState::kMostChanges; ++flow) {
      state_.receive(started(std::to_string(round) + "-" + std::to_string(flow), 0.0,
                             std::string(500, 'h') + ":443"));
    }
    state_.tick(kNoon + round);
    const std::string last =
        "\"" + std::to_string(round) + "-" + std::to_string(LiveState::kMostChanges - 1) + "\"";
    while (page.receiveThrough("\n\n").find(last) == std::string::npos) {
    }
  }
  EXPECT_EQ(statusOf(get("/metrics" + query_)), "200");
}

TEST_F(WebServerTest, DoesNotShareItsPort) {
  LiveState other;
  EXPECT_THROW(WebServer(other, options(port())), std::runtime_error);
  const TestListener taken;
  EXPECT_THROW(WebServer(other, options(taken.port())), std::runtime_error);
}

TEST_F(WebServerTest, SurvivesNonsense) {
  for (const std::string& bytes :
       {std::string("\r\n\r\n"), std::string("GET\r\n\r\n"), std::string(100'000, 'x'),
        "GET / HTTP/1.1\r\n" + std::string(100'000, 'a') + ": b\r\n\r\n",
        std::string("GET /?token=%zz%00 HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"),
        std::string("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 99999999999\r\n\r\n")}) {
    const TestSocket socket = TestSocket::connectTcp(port());
    try {
      socket.send(bytes);
    } catch (const std::runtime_error&) {
      // It need not have read all of them before it ended the connection.
    }
    socket.endSending();
    static_cast<void>(socket.waitForEnd());
  }
  EXPECT_EQ(statusOf(get("/metrics" + query_)), "200");
}

}  // namespace
}  // namespace ostravel::companion::test
