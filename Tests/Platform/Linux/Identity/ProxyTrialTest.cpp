#include "Platform/Linux/Identity/ProxyTrial.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <variant>
#include <vector>

#include "Platform/Linux/Kernel/EventDescriptor.h"
#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Tests/Platform/Linux/Support/AlteredSockets.h"
#include "Tests/Platform/Linux/Support/Helper.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;
using Judgement = ProxyTrial::Judgement;

constexpr std::uint16_t kPort = 8080;
constexpr std::uint16_t kParentPort = 3128;

class ProxyTrialTest : public ::testing::Test {
 protected:
  ProxyTrialTest() {
    auto opened = SocketDiagnostics::open();
    diagnostics_ = *std::move(opened);
  }

  std::uint64_t listener() {
    const auto answer = diagnostics_->findListener(loopbackIPv4(kPort));
    EXPECT_TRUE(answer && *answer);
    return answer && *answer ? (*answer)->cookie : 0;
  }

  std::optional<ProxyTrial::Outcome> tryOnce(std::uint64_t listener) {
    return ProxyTrial(*diagnostics_, &LocalProcessTable::make, kPort, listener,
                      interrupt_.descriptor())
        .run();
  }

  ProxyTrial::Outcome outcome() {
    const auto found = tryOnce(listener());
    EXPECT_TRUE(found);
    return found.value_or(ProxyTrial::Outcome{});
  }

  // Of a listener that obeys the command; see HelperProgram.cpp.
  ProxyTrial::Outcome outcomeOf(const std::string& command) {
    helper_.makeSocket("proxy", kPort);
    EXPECT_EQ(helper_.ask(command), "done");
    return outcome();
  }

  static pid_t pidOf(const std::optional<Process>& process) { return process ? process->pid : 0; }

  std::unique_ptr<SocketDiagnostics> diagnostics_;
  EventDescriptor interrupt_;
  Helper helper_;
};

std::string receiveRequest(const FileDescriptor& connection) {
  std::string request;
  for (char byte = 0;
       !request.ends_with("\r\n\r\n") && ::recv(connection.get(), &byte, 1, 0) == 1;) {
    request += byte;
  }
  return request;
}

void sendText(const FileDescriptor& connection, std::string_view text) {
  EXPECT_EQ(::send(connection.get(), text.data(), text.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(text.size()));
}

FileDescriptor connected(std::uint16_t port) {
  FileDescriptor socket = makeSocket(AF_INET, SOCK_STREAM);
  EXPECT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(port)));
  return socket;
}

// The test itself as a proxy for one tunnel, which it makes through the proxy on kParentPort. Runs
// an action as soon as it knows the target's port.
class Forwarder {
 public:
  explicit Forwarder(std::function<void(std::uint16_t target)> act)
      : listener_(makeSocket(AF_INET, SOCK_STREAM)) {
    EXPECT_TRUE(bindTo(listener_, AF_INET, loopbackIPv4(kPort)));
    EXPECT_EQ(::listen(listener_.get(), 4), 0);
    thread_ = std::thread([this, act = std::move(act)] { forward(act); });
  }
  Forwarder(const Forwarder&) = delete;
  Forwarder& operator=(const Forwarder&) = delete;
  ~Forwarder() { thread_.join(); }

 private:
  void forward(const std::function<void(std::uint16_t)>& act) const {
    const FileDescriptor client(::accept(listener_.get(), nullptr, nullptr));
    const std::string request = receiveRequest(client);
    act(static_cast<std::uint16_t>(std::stoi(request.substr(request.find(':') + 1))));
    const FileDescriptor parent = connected(kParentPort);
    sendText(parent, request);
    sendText(client, receiveRequest(parent));
    std::array<char, 256> bytes;
    for (ssize_t size = 0; (size = ::recv(client.get(), bytes.data(), bytes.size(), 0)) > 0;) {
      sendText(parent, std::string_view(bytes.data(), static_cast<std::size_t>(size)));
    }
  }

  const FileDescriptor listener_;
  std::thread thread_;
};

TEST_F(ProxyTrialTest, ASingleProgramIsAcceptorAndDialler) {
  helper_.makeSocket("proxy", kPort);
  const auto found = outcome();
  EXPECT_EQ(found.judgement, Judgement::proxy);
  EXPECT_EQ(found.answer, "HTTP/1.1 200 Connection established");
  EXPECT_EQ(pidOf(found.acceptor), helper_.pid());
  EXPECT_EQ(pidOf(found.dialler), helper_.pid());
}

TEST_F(ProxyTrialTest, TheLastProgramOfAChainIsTheDialler) {
  Helper front;
  Helper middle;
  Helper last;
  last.makeSocket("proxy", kParentPort);
  middle.makeSocket("proxy", kParentPort + 1);
  front.makeSocket("proxy", kPort);
  ASSERT_EQ(middle.ask("via 3128"), "done");
  ASSERT_EQ(front.ask("via 3129"), "done");
  const auto found = outcome();
  EXPECT_EQ(found.judgement, Judgement::proxy);
  EXPECT_EQ(pidOf(found.acceptor), front.pid());
  EXPECT_EQ(pidOf(found.dialler), last.pid());
}

TEST_F(ProxyTrialTest, AStrangerThatConnectsToTheTargetIsNotTheDialler) {
  Helper proxy;
  proxy.makeSocket("proxy", kParentPort);
  std::vector<FileDescriptor> strangers;
  const Forwarder forwarder([&strangers](std::uint16_t target) {
    // Strangers that send nothing, the wrong text or too much, or have already disconnected.
    for (const char* const text : {"", "x", "0123456789abcdef0123456789abcdef and more"}) {
      strangers.push_back(connected(target));
      sendText(strangers.back(), text);
    }
    connected(target);
  });
  const auto found = outcome();
  EXPECT_EQ(found.judgement, Judgement::proxy);
  EXPECT_EQ(pidOf(found.acceptor), ::getpid());
  EXPECT_EQ(pidOf(found.dialler), proxy.pid());
}

TEST_F(ProxyTrialTest, ACrowdOfStrangersLeavesTheDiallerUnknown) {
  Helper proxy;
  proxy.makeSocket("proxy", kParentPort);
  std::vector<FileDescriptor> strangers;
  const Forwarder forwarder([&strangers](std::uint16_t target) {
    for (std::size_t count = 0; count < ProxyTrial::kMaximumCallers; ++count) {
      strangers.push_back(connected(target));
    }
  });
  const auto found = outcome();
  EXPECT_EQ(found.judgement, Judgement::proxy);
  EXPECT_FALSE(found.dialler);
}

TEST_F(ProxyTrialTest, ATunnelThatLeadsNowhereLeavesTheDiallerUnknown) {
  const auto found = outcomeOf("answer HTTP/1.1 200 OK");
  EXPECT_EQ(found.judgement, Judgement::proxy);
  EXPECT_EQ(pidOf(found.acceptor), helper_.pid());
  EXPECT_FALSE(found.dialler);
}

TEST_F(ProxyTrialTest, ARefusalIsAProxysAnswer) {
  const auto found = outcomeOf("answer HTTP/1.1 407 Proxy Authentication Required");
  EXPECT_EQ(found.judgement, Judgement::proxy);
  EXPECT_EQ(pidOf(found.acceptor), helper_.pid());
  EXPECT_FALSE(found.dialler);
}

TEST_F(ProxyTrialTest, AWebServersAnswerIsNotAProxys) {
  const auto found = outcomeOf("answer HTTP/1.1 405 Not Allowed");
  EXPECT_EQ(found.judgement, Judgement::notAProxy);
  EXPECT_EQ(found.answer, "HTTP/1.1 405 Not Allowed");
}

TEST_F(ProxyTrialTest, AnotherProtocolIsNotAProxysAnswer) {
  const auto found = outcomeOf("answer SSH-2.0-Something");
  EXPECT_EQ(found.judgement, Judgement::notAProxy);
  EXPECT_EQ(found.answer, "SSH-2.0-Something");
}

TEST_F(ProxyTrialTest, ShowsOnlyTheBeginningOfALongLine) {
  const auto found = outcomeOf("answer " + std::string(20'000, 'x'));
  EXPECT_EQ(found.judgement, Judgement::notAProxy);
  EXPECT_EQ(found.answer, std::string(100, 'x'));
}

TEST_F(ProxyTrialTest, AClosedConnectionIsNoAnswer) {
  const auto found = outcomeOf("hang-up");
  EXPECT_EQ(found.judgement, Judgement::unanswered);
  EXPECT_EQ(found.answer, "it ends the connection");
}

TEST_F(ProxyTrialTest, SilenceIsNoAnswer) {
  const auto begin = std::chrono::steady_clock::now();
  const auto found = outcomeOf("answer");
  EXPECT_GE(std::chrono::steady_clock::now() - begin, ProxyTrial::kAnswerDeadline);
  EXPECT_EQ(found.judgement, Judgement::unanswered);
  EXPECT_EQ(found.answer, "no answer in 2 s");
}

TEST_F(ProxyTrialTest, DoesNotTestAnotherListener) {
  Helper first;
  first.makeSocket("proxy", kPort);
  const auto former = listener();
  first.kill();
  EXPECT_FALSE(tryOnce(former));
  Helper second;
  second.makeSocket("proxy", kPort);
  EXPECT_FALSE(tryOnce(former));
  EXPECT_TRUE(tryOnce(listener()));
}

// Of a proxy that is acceptor and dialler, while the kernel answers one kind of question wrongly.
class WrongAnswersToAProxyTrial : public ProxyTrialTest,
                                  public ::testing::WithParamInterface<SocketQuestion::Call> {
 protected:
  WrongAnswersToAProxyTrial() {
    helper_.makeSocket("proxy", kPort);
    listening_ = listener();
  }

  ProxyTrial::Outcome outcomeWith(const SocketAlteration& alteration) {
    const AlteredSockets altered([&](const SocketQuestion& question, const SocketAnswer& truth) {
      return question.call == GetParam() ? std::optional(alteration.alter(truth)) : std::nullopt;
    });
    const auto found = tryOnce(listening_);
    EXPECT_TRUE(found);
    return found.value_or(ProxyTrial::Outcome{});
  }

  // Knows the proxy's process or none.
  void expectNoOtherProcess(const ProxyTrial::Outcome& outcome) const {
    for (const auto& process : {outcome.acceptor, outcome.dialler}) {
      EXPECT_EQ(process ? process->pid : helper_.pid(), helper_.pid());
    }
  }

  std::uint64_t listening_ = 0;
};

TEST_P(WrongAnswersToAProxyTrial, AnAnswerThatSaysTooLittleLeavesAProcessUnknown) {
  const bool isOption = GetParam() == SocketQuestion::Call::option;
  for (const auto& alteration : incompleteAnswers(isOption ? sizeof(int) : sizeof(sockaddr_in))) {
    SCOPED_TRACE(alteration.name);
    const auto found = outcomeWith(alteration);
    // Without its own address it cannot ask; without the result, a connection is not established.
    EXPECT_EQ(found.judgement, GetParam() == SocketQuestion::Call::peerAddress
                                   ? Judgement::proxy
                                   : Judgement::unanswered);
    EXPECT_FALSE(found.acceptor);
    EXPECT_FALSE(found.dialler);
  }
}

TEST_P(WrongAnswersToAProxyTrial, AWrongAnswerNamesNoOtherProcess) {
  for (const auto& alteration : wrongAnswers()) {
    SCOPED_TRACE(alteration.name);
    const auto found = outcomeWith(alteration);
    EXPECT_NE(found.judgement, Judgement::notAProxy);
    expectNoOtherProcess(found);
  }
}

std::string nameOf(SocketQuestion::Call call) {
  constexpr std::array kNames{"Option", "OwnAddress", "PeerAddress"};
  return kNames.at(static_cast<std::size_t>(call));
}

INSTANTIATE_TEST_SUITE_P(Questions, WrongAnswersToAProxyTrial,
                         ::testing::Values(SocketQuestion::Call::option,
                                           SocketQuestion::Call::ownAddress,
                                           SocketQuestion::Call::peerAddress),
                         [](const auto& question) { return nameOf(question.param); });

TEST_F(ProxyTrialTest, AnInterruptionEndsTheTrialAtOnce) {
  helper_.makeSocket("proxy", kPort);
  ASSERT_EQ(helper_.ask("answer"), "done");
  const auto listening = listener();
  interrupt_.signal();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(tryOnce(listening));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, ProxyTrial::kAnswerDeadline);
}

}  // namespace
}  // namespace ostravel::linuxplatform
