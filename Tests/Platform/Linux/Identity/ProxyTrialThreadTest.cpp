#include "Platform/Linux/Identity/ProxyTrialThread.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Tests/Platform/Linux/Support/Helper.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;
using Judgement = ProxyTrial::Judgement;

constexpr std::uint16_t kPort = 8080;

class ProxyTrialThreadTest : public ::testing::Test {
 protected:
  ProxyTrialThreadTest() {
    auto opened = SocketDiagnostics::open();
    diagnostics_ = *std::move(opened);
    trial_.emplace(kPort, &LocalProcessTable::make);
  }

  SocketInformation listener() {
    const auto answer = diagnostics_->findListener(loopbackIPv4(kPort));
    EXPECT_TRUE(answer && *answer);
    return answer ? answer->value_or(SocketInformation{}) : SocketInformation{};
  }

  std::optional<Judgement> judgementNow() {
    const auto result = trial_->resultOf(listener(), 0);
    return result ? std::optional(result->outcome.judgement) : std::nullopt;
  }

  // Polls, because the thread gives no signal: the first event loop asks flow by flow.
  bool isJudgedEventually(Judgement judgement) {
    return waitUntil([this, judgement] { return judgementNow() == judgement; });
  }

  std::unique_ptr<SocketDiagnostics> diagnostics_;
  std::optional<ProxyTrialThread> trial_;
};

TEST_F(ProxyTrialThreadTest, TestsTheListener) {
  Helper proxy;
  proxy.makeSocket("proxy", kPort);
  EXPECT_FALSE(judgementNow());
  ASSERT_TRUE(isJudgedEventually(Judgement::proxy));
  const auto result = trial_->resultOf(listener(), 0);
  ASSERT_TRUE(result && result->outcome.dialler);
  EXPECT_EQ(result->outcome.dialler->pid, proxy.pid());
}

TEST_F(ProxyTrialThreadTest, KeepsTheResultForAListener) {
  Helper server;
  server.makeSocket("proxy", kPort);
  ASSERT_EQ(server.ask("answer HTTP/1.1 404 Not Found"), "done");
  ASSERT_TRUE(isJudgedEventually(Judgement::notAProxy));
  ASSERT_EQ(server.ask("tunnel"), "done");
  EXPECT_EQ(judgementNow(), Judgement::notAProxy);
}

TEST_F(ProxyTrialThreadTest, TestsEveryNewListener) {
  for (int i = 0; i < 3; ++i) {
    Helper server;
    server.makeSocket("proxy", kPort);
    ASSERT_EQ(server.ask("answer HTTP/1.1 404 Not Found"), "done");
    EXPECT_FALSE(judgementNow());
    ASSERT_TRUE(isJudgedEventually(Judgement::notAProxy));
    server.kill();
    Helper proxy;
    proxy.makeSocket("proxy", kPort);
    EXPECT_FALSE(judgementNow());
    ASSERT_TRUE(isJudgedEventually(Judgement::proxy));
  }
}

TEST_F(ProxyTrialThreadTest, RetriesAListenerThatDoesNotAnswer) {
  Helper proxy;
  proxy.makeSocket("proxy", kPort);
  ASSERT_EQ(proxy.ask("hang-up"), "done");
  ASSERT_TRUE(isJudgedEventually(Judgement::unanswered));
  ASSERT_EQ(proxy.ask("tunnel"), "done");
  EXPECT_TRUE(isJudgedEventually(Judgement::proxy));
}

TEST_F(ProxyTrialThreadTest, ANewListenerInterruptsTheTrialOfASilentOne) {
  // A busy machine may take as long as the trial for all the rest.
  constexpr int kAttempts = 5;
  bool isInterrupted = false;
  for (int attempt = 0; attempt < kAttempts && !isInterrupted; ++attempt) {
    Helper silent;
    silent.makeSocket("proxy", kPort);
    ASSERT_EQ(silent.ask("answer"), "done");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(judgementNow());
    silent.kill();
    Helper proxy;
    proxy.makeSocket("proxy", kPort);
    ASSERT_TRUE(isJudgedEventually(Judgement::proxy));
    isInterrupted = std::chrono::steady_clock::now() - begin < ProxyTrial::kAnswerDeadline;
  }
  EXPECT_TRUE(isInterrupted);
}

TEST_F(ProxyTrialThreadTest, EndsDuringATrial) {
  Helper silent;
  silent.makeSocket("proxy", kPort);
  ASSERT_EQ(silent.ask("answer"), "done");
  EXPECT_FALSE(judgementNow());
  const auto begin = std::chrono::steady_clock::now();
  trial_.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, ProxyTrial::kAnswerDeadline);
}

TEST_F(ProxyTrialThreadTest, NamesTheUsersWhoControlTheListener) {
  Helper proxy;
  proxy.makeSocket("proxy", kPort);
  ASSERT_EQ(proxy.ask("user 54321"), "done");
  ASSERT_TRUE(isJudgedEventually(Judgement::proxy));
  const auto result = trial_->resultOf(listener(), 0);
  ASSERT_TRUE(result);
  const std::map<uid_t, std::string> expected{{0, "root"}, {54321, "54321"}};
  EXPECT_EQ(result->userNames, expected);
}

}  // namespace
}  // namespace ostravel::linuxplatform
