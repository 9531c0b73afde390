#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "Base/DescriptorLimit.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TestSocket.h"

namespace ostravel::companion::test {

using testing::ChildProcess;
using testing::closedPort;
using testing::hasIPv6Loopback;
using testing::TestListener;
using testing::TestSocket;

namespace {

using namespace std::chrono_literals;

constexpr std::string_view kReady = "ostravel-sidecar listening on ";
constexpr std::string_view kEstablished = "HTTP/1.1 200 Connection established\r\n\r\n";

class Sidecar : public ChildProcess {
 public:
  explicit Sidecar(const std::vector<std::string>& arguments = {}, const Options& options = {})
      : ChildProcess(commandWith(arguments), options) {
    readyLine_ = readOutputLine();
    port_ = static_cast<std::uint16_t>(
        std::strtoul(readyLine_.substr(readyLine_.rfind(':') + 1).c_str(), nullptr, 10));
  }

  const std::string& readyLine() const { return readyLine_; }
  std::uint16_t port() const { return port_; }

 private:
  static std::vector<std::string> commandWith(const std::vector<std::string>& arguments) {
    std::vector<std::string> command{OSTRAVEL_SIDECAR_PROGRAM, "--listen", "127.0.0.1:0"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
  }

  std::string readyLine_;
  std::uint16_t port_ = 0;
};

std::string connectTo(const TestListener& listener, const std::string& fields = "") {
  return "CONNECT " + listener.target() + " HTTP/1.1\r\n" + fields + "\r\n";
}

TEST(SidecarProgramTest, SaysWhereItListens) {
  const Sidecar sidecar;
  EXPECT_EQ(sidecar.readyLine(),
            std::string(kReady) + "127.0.0.1:" + std::to_string(sidecar.port()));
  EXPECT_NE(sidecar.port(), 0);
}

TEST(SidecarProgramTest, ListensOnIPv6) {
  if (!hasIPv6Loopback()) {
    FAIL() << "this machine has no IPv6";
  }
  ChildProcess sidecar({OSTRAVEL_SIDECAR_PROGRAM, "--listen", "[::1]:0"});
  EXPECT_TRUE(sidecar.readOutputLine().starts_with(std::string(kReady) + "[::1]:"));
}

TEST(SidecarProgramTest, LogsEachTunnelAsItIsEstablished) {
  Sidecar sidecar;
  const TestListener listener;
  const TestSocket client = TestSocket::connectTcp(sidecar.port());
  client.send(connectTo(listener, "X-Ostravel-App-Id: a\x1b[2Jb\r\nX-Ostravel-Flow-Id: F\r\n"));
  EXPECT_EQ(client.receive(kEstablished.size()), kEstablished);
  EXPECT_EQ(sidecar.readOutputLine().substr(13),
            listener.target() + " app=a\\x1b[2Jb flow=F established to " + listener.target());
}

TEST(SidecarProgramTest, LogsEachTunnelAsItIsRefused) {
  Sidecar sidecar;
  const TestSocket client = TestSocket::connectTcp(sidecar.port());
  client.send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(sidecar.readOutputLine().substr(13), "- app=- flow=- refused 405 Method Not Allowed");
}

TEST(SidecarProgramTest, LogsTheEndOfATunnelWhenVerbose) {
  Sidecar sidecar({"--verbose"});
  const TestListener listener;
  TestSocket client = TestSocket::connectTcp(sidecar.port());
  client.send(connectTo(listener) + "four");
  const TestSocket origin = listener.accept();
  EXPECT_EQ(origin.receive(4), "four");
  origin.send("seven..");
  origin.endSending();
  client.receiveToEnd();
  client.close();
  sidecar.readOutputLine();
  EXPECT_EQ(sidecar.readOutputLine().substr(13),
            listener.target() + " app=- flow=- ended orderly sent=4 received=7");
}

TEST(SidecarProgramTest, DoesNotLogTheEndUnlessVerbose) {
  Sidecar sidecar;
  const TestListener listener;
  for (int index = 0; index < 2; ++index) {
    TestSocket client = TestSocket::connectTcp(sidecar.port());
    client.send(connectTo(listener));
    TestSocket origin = listener.accept();
    EXPECT_EQ(client.receive(kEstablished.size()), kEstablished);
    client.endSending();
    origin.receiveToEnd();
    origin.close();
    client.receiveToEnd();
    EXPECT_NE(sidecar.readOutputLine().find(" established to "), std::string::npos);
  }
}

TEST(SidecarProgramTest, EndsAtOnceWhenSignalledToEnd) {
  for (const int number : {SIGINT, SIGTERM}) {
    Sidecar sidecar;
    const TestListener listener;
    const TestSocket client = TestSocket::connectTcp(sidecar.port());
    client.send(connectTo(listener));
    client.receive(kEstablished.size());
    sidecar.sendSignal(number);
    EXPECT_EQ(sidecar.waitForExit(), 0);
  }
}

TEST(SidecarProgramTest, ContinuesWithoutAReaderOfItsLog) {
  Sidecar sidecar;
  sidecar.closeOutput();
  const TestListener listener;
  for (int index = 0; index < 3; ++index) {
    const TestSocket client = TestSocket::connectTcp(sidecar.port());
    client.send(connectTo(listener));
    EXPECT_EQ(client.receive(kEstablished.size()), kEstablished);
  }
}

// Each is logged in a line of more than 8 KB: far more than the pipe and the sidecar hold together.
constexpr int kUnreadTunnels = 400;

void makeUnreadTunnels(const Sidecar& sidecar) {
  const TestListener listener;
  const std::string field = "X-Ostravel-App-Id: " + std::string(8000, 'a') + "\r\n";
  for (int index = 0; index < kUnreadTunnels; ++index) {
    const TestSocket client = TestSocket::connectTcp(sidecar.port());
    client.send(connectTo(listener, field));
    ASSERT_EQ(client.receive(kEstablished.size()), kEstablished) << index;
  }
}

TEST(SidecarProgramTest, CarriesTunnelsWhileTheReaderOfItsLogHasStalled) {
  Sidecar sidecar;
  ASSERT_NO_FATAL_FAILURE(makeUnreadTunnels(sidecar));

  // Dropped lines are counted where they are missing.
  int accounted = 0;
  constexpr std::string_view kDropped = "log lines dropped: ";
  while (accounted < kUnreadTunnels) {
    const std::string line = sidecar.readOutputLine();
    const std::size_t count = line.find(kDropped);
    if (count == std::string::npos) {
      ASSERT_NE(line.find(" established to "), std::string::npos) << line;
      ++accounted;
    } else {
      accounted += std::stoi(line.substr(count + kDropped.size()));
    }
  }
  EXPECT_EQ(accounted, kUnreadTunnels);
}

TEST(SidecarProgramTest, EndsWhileTheReaderOfItsLogHasStalled) {
  Sidecar sidecar;
  ASSERT_NO_FATAL_FAILURE(makeUnreadTunnels(sidecar));
  sidecar.sendSignal(SIGTERM);
  EXPECT_EQ(sidecar.waitForExit(), 0);
}

TEST(SidecarProgramTest, WritesItsLastLinesBeforeItEnds) {
  Sidecar sidecar;
  const TestListener listener;
  constexpr int kTunnels = 50;
  for (int index = 0; index < kTunnels; ++index) {
    const TestSocket client = TestSocket::connectTcp(sidecar.port());
    client.send(connectTo(listener));
    client.receive(kEstablished.size());
  }
  sidecar.sendSignal(SIGTERM);
  EXPECT_EQ(sidecar.waitForExit(), 0);
  const std::string log = sidecar.readOutput();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), kTunnels);
}

TEST(SidecarProgramTest, NamesAnAddressThatIsTaken) {
  const TestListener listener;
  ChildProcess sidecar({OSTRAVEL_SIDECAR_PROGRAM, "--listen", listener.target()});
  EXPECT_EQ(sidecar.waitForExit(), 2);
  EXPECT_EQ(sidecar.readError(), "ostravel-sidecar: cannot listen on " + listener.target() +
                                     ": Address already in use\n");
  EXPECT_EQ(sidecar.readOutput(), "");
}

TEST(SidecarProgramTest, NamesAnAddressThatIsNotItsOwn) {
  ChildProcess sidecar({OSTRAVEL_SIDECAR_PROGRAM, "--listen", "203.0.113.1:8080"});
  EXPECT_EQ(sidecar.waitForExit(), 2);
  EXPECT_TRUE(
      sidecar.readError().starts_with("ostravel-sidecar: cannot listen on 203.0.113.1:8080: "));
}

TEST(SidecarProgramTest, CanBeRestartedOnTheSameAddress) {
  std::string address;
  {
    Sidecar sidecar;
    address = "127.0.0.1:" + std::to_string(sidecar.port());
    const TestListener listener;
    const TestSocket client = TestSocket::connectTcp(sidecar.port());
    client.send(connectTo(listener));
    client.receive(kEstablished.size());
    sidecar.sendSignal(SIGTERM);
    sidecar.waitForExit();
  }
  ChildProcess again({OSTRAVEL_SIDECAR_PROGRAM, "--listen", address});
  EXPECT_EQ(again.readOutputLine(), std::string(kReady) + address);
}

TEST(SidecarProgramTest, PrintsItsVersionAndHelp) {
  ChildProcess version({OSTRAVEL_SIDECAR_PROGRAM, "--version"});
  EXPECT_EQ(version.waitForExit(), 0);
  EXPECT_EQ(version.readOutput(), "ostravel-sidecar 0.1.0\n");
  ChildProcess help({OSTRAVEL_SIDECAR_PROGRAM, "--help"});
  EXPECT_EQ(help.waitForExit(), 0);
  EXPECT_NE(help.readOutput().find("--listen ADDRESS:PORT [127.0.0.1:8080]"), std::string::npos);
}

TEST(SidecarProgramTest, RefusesUnknownArguments) {
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"--unknown"},
                                                    {"extra"},
                                                    {"--listen"},
                                                    {"--listen", "nonsense"},
                                                    {"--listen", "localhost:80"},
                                                    {"--listen", "127.0.0.1:65536"},
                                                    {"--listen", ""}}) {
    std::vector<std::string> command{OSTRAVEL_SIDECAR_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    ChildProcess sidecar(command);
    EXPECT_EQ(sidecar.waitForExit(), 2) << arguments.back();
    const std::string error = sidecar.readError();
    EXPECT_TRUE(error.starts_with("ostravel-sidecar: ")) << error;
    EXPECT_EQ(error.find('\n'), error.size() - 1) << error;
  }
}

TEST(SidecarProgramTest, CarriesAThousandTunnelsBeyondItsSoftDescriptorLimit) {
  raiseDescriptorLimit();
  Sidecar sidecar({}, {.softDescriptorLimit = 256});
  const TestListener listener;
  std::vector<TestSocket> clients;
  std::vector<TestSocket> origins;
  // Some at once, so that the two processes do not wait for one another a thousand times.
  constexpr std::size_t kAtOnce = 50;
  while (clients.size() < 1000) {
    for (std::size_t count = 0; count < kAtOnce; ++count) {
      clients.push_back(TestSocket::connectTcp(sidecar.port()));
      clients.back().send(connectTo(listener));
    }
    for (std::size_t index = clients.size() - kAtOnce; index < clients.size(); ++index) {
      origins.push_back(listener.accept());
      ASSERT_EQ(clients[index].receive(kEstablished.size()), kEstablished);
      ASSERT_NE(sidecar.readOutputLine(), "");
    }
  }
  // The origins may have been reached in another order.
  for (std::size_t index = 0; index < clients.size(); ++index) {
    clients[index].send(std::to_string(index) + "\n");
  }
  for (const TestSocket& origin : origins) {
    origin.send(origin.receiveThrough("\n"));
  }
  for (std::size_t index = 0; index < clients.size(); ++index) {
    ASSERT_EQ(clients[index].receiveThrough("\n"), std::to_string(index) + "\n");
  }
}

TEST(SidecarProgramTest, WaitsWithoutSpinningWhileItHasNoDescriptors) {
  Sidecar sidecar({}, {.hardDescriptorLimit = 24});
  const TestListener listener;
  // A sanitizer needs a descriptor when it first sees an object of a class, and reports an error if
  // there is none: it sees those of a refusal and of a tunnel now, while there are some.
  const TestSocket refused = TestSocket::connectTcp(sidecar.port());
  refused.send("CONNECT 127.0.0.1:" + std::to_string(closedPort()) + " HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(refused.receiveToEnd().starts_with("HTTP/1.1 502 "));
  const TestSocket carried = TestSocket::connectTcp(sidecar.port());
  carried.send(connectTo(listener));
  EXPECT_EQ(carried.receive(kEstablished.size()), kEstablished);
  carried.endSending();
  listener.accept().endSending();
  EXPECT_EQ(carried.receiveToEnd(), "");

  std::vector<TestSocket> idle;
  for (int index = 0; index < 40; ++index) {
    idle.push_back(TestSocket::connectTcp(sidecar.port()));
  }
  const TestSocket waiting = TestSocket::connectTcp(sidecar.port());
  waiting.send(connectTo(listener));

  const long before = sidecar.processorTicks();
  EXPECT_FALSE(waiting.hasBytesWithin(1000ms));
  EXPECT_LT(sidecar.processorTicks() - before, ::sysconf(_SC_CLK_TCK) / 4);

  idle.clear();
  // It is served now, perhaps with a refusal because no descriptor is left for its origin.
  EXPECT_TRUE(waiting.receiveThrough("\r\n\r\n").starts_with("HTTP/1.1 "));
  bool established = false;
  for (int attempt = 0; attempt < 100 && !established; ++attempt) {
    const TestSocket client = TestSocket::connectTcp(sidecar.port());
    client.send(connectTo(listener));
    established = client.receiveThrough("\r\n\r\n") == kEstablished;
  }
  EXPECT_TRUE(established);
}

}  // namespace
}  // namespace ostravel::companion::test
