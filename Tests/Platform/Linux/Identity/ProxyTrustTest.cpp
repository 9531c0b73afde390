#include "Platform/Linux/Identity/ProxyTrust.h"

#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Tests/Platform/Linux/Support/Helper.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"
#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

constexpr std::uint16_t kPort = 8080;
constexpr uid_t kRoot = 0;
constexpr uid_t kSystemUser = 13;
constexpr uid_t kPerson = 54321;
constexpr uid_t kOtherPerson = 54322;

class ProxyTrustTest : public ::testing::Test {
 protected:
  void start(const std::vector<uid_t>& named = {}) {
    auto opened = SocketDiagnostics::open();
    diagnostics_ = *std::move(opened);
    proxy_.emplace(*diagnostics_, processes_, kPort, [](const std::string& /*warning*/) {});
    trust_.emplace(*proxy_, kPort, named,
                   [this](const std::string& warning) { warnings_.push_back(warning); });
  }

  bool holdsNow(std::optional<uid_t> user) {
    return proxy_->refresh(std::nullopt) == ProxyProcess::State::known && trust_->holdsFor(user);
  }

  // Asks flow by flow of this user, as the first event loop does.
  bool holdsEventually(std::optional<uid_t> user) {
    return waitUntil([this, user] { return holdsNow(user); });
  }

  // Asks until a warning appears.
  bool isRefused(std::optional<uid_t> user) {
    return waitUntil([this, user] { return !holdsNow(user) && !warnings_.empty(); });
  }

  static std::unique_ptr<Helper> proxyOf(uid_t user, const std::string& program) {
    auto made = std::make_unique<Helper>(program);
    EXPECT_EQ(made->ask("user " + std::to_string(user)), "done");
    made->makeSocket("proxy", kPort);
    return made;
  }

  static FileDescriptor listenerOnProxyPort() {
    FileDescriptor listener = makeSocket(AF_INET, SOCK_STREAM);
    EXPECT_TRUE(bindTo(listener, AF_INET, loopbackIPv4(kPort)));
    EXPECT_EQ(::listen(listener.get(), 4), 0);
    return listener;
  }

  // On a busy machine an executable may be found late; from then on it is found at once.
  void waitUntilDescribed(pid_t pid) const {
    EXPECT_TRUE(waitUntil([this, pid] {
      const auto process = processes_.find(pid);
      return process && process->executableFile;
    }));
  }

  bool includes(pid_t pid) const {
    const auto process = processes_.find(pid);
    EXPECT_TRUE(process);
    return process && proxy_->includes(*process) == true;
  }

  std::unique_ptr<SocketDiagnostics> diagnostics_;
  LocalProcessTable processes_;
  std::vector<std::string> warnings_;
  std::optional<ProxyProcess> proxy_;
  std::optional<ProxyTrust> trust_;
  const TemporaryFolder folder_;
};

TEST_F(ProxyTrustTest, RootsProxyMayCarryEverybodysFlows) {
  const auto proxy = proxyOf(kRoot, OSTRAVEL_HELPER);
  start();
  EXPECT_FALSE(holdsNow(kRoot));
  EXPECT_TRUE(holdsEventually(kRoot));
  EXPECT_TRUE(holdsNow(kSystemUser));
  EXPECT_TRUE(holdsNow(kPerson));
  EXPECT_TRUE(holdsNow(std::nullopt));
  EXPECT_TRUE(warnings_.empty());
  EXPECT_EQ(trust_->reason(),
            "it belongs to root, and answered a CONNECT with \"HTTP/1.1 200 Connection "
            "established\" when tested");
}

TEST_F(ProxyTrustTest, EveryProxyIsAnnouncedOnce) {
  const std::string program = copyHelper(folder_, "proxy");
  start();
  for (int i = 0; i < 2; ++i) {
    const auto proxy = proxyOf(kRoot, program);
    EXPECT_FALSE(trust_->takeNews());
    EXPECT_TRUE(holdsEventually(kRoot));
    EXPECT_EQ(trust_->takeNews(), "the local proxy is " + program + " (process " +
                                      std::to_string(proxy->pid()) + ", user root)");
    EXPECT_TRUE(holdsNow(kRoot));
    EXPECT_FALSE(trust_->takeNews());
  }
}

TEST_F(ProxyTrustTest, ASystemUsersProxyMayCarryEverybodysFlows) {
  const auto proxy = proxyOf(kSystemUser, OSTRAVEL_HELPER);
  start();
  EXPECT_TRUE(holdsEventually(kRoot));
  EXPECT_TRUE(holdsNow(kPerson));
  EXPECT_TRUE(holdsNow(std::nullopt));
  EXPECT_TRUE(warnings_.empty());
  EXPECT_NE(trust_->reason().find("it belongs to the system user proxy"), std::string::npos)
      << trust_->reason();
}

TEST_F(ProxyTrustTest, APersonsProxyMayCarryOnlyThatPersonsFlows) {
  const std::string program = copyHelper(folder_, "proxy");
  const auto proxy = proxyOf(kPerson, program);
  start();
  EXPECT_TRUE(holdsEventually(kPerson));
  EXPECT_TRUE(warnings_.empty());
  for (const auto user : {std::optional(kRoot), std::optional(kOtherPerson), std::optional<uid_t>(),
                          std::optional(kRoot)}) {
    EXPECT_FALSE(holdsNow(user));
  }
  EXPECT_TRUE(holdsNow(kPerson));
  ASSERT_EQ(warnings_.size(), 1U);
  EXPECT_EQ(warnings_[0],
            program + " (process " + std::to_string(proxy->pid()) +
                ", user 54321) listens on port 8080 for an ordinary user, and is not used for the "
                "flows of others: run the proxy as root or a system user, or name its user with "
                "--proxy-user 54321");
  EXPECT_EQ(trust_->reason(),
            program + " (process " + std::to_string(proxy->pid()) +
                ", user 54321) listens on port 8080 for an ordinary user, so only connections of "
                "user 54321 are proxied");
}

TEST_F(ProxyTrustTest, ANamedUsersProxyMayCarryEverybodysFlows) {
  const auto proxy = proxyOf(kPerson, OSTRAVEL_HELPER);
  start({kOtherPerson, kPerson});
  EXPECT_TRUE(holdsEventually(kRoot));
  EXPECT_TRUE(holdsNow(std::nullopt));
  EXPECT_TRUE(warnings_.empty());
  EXPECT_NE(trust_->reason().find("it belongs to user 54321, named with --proxy-user"),
            std::string::npos)
      << trust_->reason();
}

TEST_F(ProxyTrustTest, ASocketCreatedByRootBelongsToItsServer) {
  Helper proxy;
  proxy.makeSocket("proxy", kPort);
  ASSERT_EQ(proxy.ask("user 54321"), "done");
  start();
  EXPECT_TRUE(isRefused(kRoot));
  EXPECT_TRUE(isRefused(kOtherPerson));
  // Root's process that serves it does not change that.
  EXPECT_TRUE(holdsNow(kPerson));
}

TEST_F(ProxyTrustTest, ASocketKeptByAServiceManagerBelongsToItsServer) {
  const FileDescriptor listener = listenerOnProxyPort();
  const auto inherit = [&listener] { return ::dup2(listener.get(), 3) == 3; };
  Helper service(OSTRAVEL_HELPER, inherit);
  ASSERT_EQ(service.ask("user 54321"), "done");
  ASSERT_EQ(service.ask("serve 3"), "done");
  // The newest process, so that it is found first.
  Helper manager(OSTRAVEL_HELPER, inherit);
  start();
  EXPECT_TRUE(isRefused(kRoot));
  EXPECT_EQ(proxy_->owner().pid, manager.pid());
  EXPECT_TRUE(holdsNow(kPerson));
  EXPECT_NE(warnings_.at(0).find("--proxy-user 54321"), std::string::npos) << warnings_[0];
}

TEST_F(ProxyTrustTest, ASocketCreatedByAPersonRemainsThatPersons) {
  // A new socket gets the file system user ID.
  ::setfsuid(kPerson);
  auto listener = listenerOnProxyPort();
  ::setfsuid(kRoot);
  Helper service(OSTRAVEL_HELPER, [&listener] { return ::dup2(listener.get(), 3) == 3; });
  listener = FileDescriptor();
  ASSERT_EQ(service.ask("serve 3"), "done");
  start();
  EXPECT_TRUE(isRefused(kRoot));
  EXPECT_EQ(proxy_->owner().pid, service.pid());
  EXPECT_TRUE(holdsNow(kPerson));
}

TEST_F(ProxyTrustTest, AWebServerMayCarryNoFlows) {
  const std::string program = copyHelper(folder_, "server");
  const auto server = proxyOf(kRoot, program);
  ASSERT_EQ(server->ask("answer HTTP/1.1 405 Not Allowed"), "done");
  start();
  EXPECT_TRUE(isRefused(kRoot));
  EXPECT_FALSE(holdsNow(kPerson));
  ASSERT_EQ(warnings_.size(), 1U);
  EXPECT_EQ(warnings_[0],
            program + " (process " + std::to_string(server->pid()) +
                ", user root) listens on port 8080 and does not answer CONNECT as a proxy does: "
                "HTTP/1.1 405 Not Allowed; every flow is left to the system until a proxy listens "
                "there");
  EXPECT_EQ(trust_->reason(),
            program + " (process " + std::to_string(server->pid()) +
                ", user root) listens on port 8080 and does not answer CONNECT as a proxy does: "
                "HTTP/1.1 405 Not Allowed");
}

TEST_F(ProxyTrustTest, ALateAnswerMakesItAProxyFromThenOn) {
  const auto proxy = proxyOf(kRoot, OSTRAVEL_HELPER);
  ASSERT_EQ(proxy->ask("hang-up"), "done");
  start();
  EXPECT_TRUE(isRefused(kRoot));
  ASSERT_EQ(proxy->ask("tunnel"), "done");
  EXPECT_TRUE(holdsEventually(kRoot));
  EXPECT_EQ(warnings_.size(), 1U);
}

TEST_F(ProxyTrustTest, WarnsOnceAboutEveryListener) {
  start();
  for (std::size_t count = 1; count <= 3; ++count) {
    const auto proxy = proxyOf(kPerson, OSTRAVEL_HELPER);
    EXPECT_TRUE(waitUntil([&] { return !holdsNow(kRoot) && warnings_.size() == count; }));
    for (int i = 0; i < 3; ++i) {
      EXPECT_FALSE(holdsNow(kRoot));
    }
    EXPECT_EQ(warnings_.size(), count);
  }
}

TEST_F(ProxyTrustTest, ANewListenerIsTestedBeforeItIsTrusted) {
  start();
  for (int i = 0; i < 3; ++i) {
    const auto proxy = proxyOf(kRoot, OSTRAVEL_HELPER);
    EXPECT_TRUE(
        waitUntil([this] { return proxy_->refresh(std::nullopt) == ProxyProcess::State::known; }));
    EXPECT_FALSE(trust_->holdsFor(kRoot));
    EXPECT_TRUE(holdsEventually(kRoot));
  }
}

TEST_F(ProxyTrustTest, NothingIsLeftOfTheListenerBefore) {
  start();
  {
    const auto proxy = proxyOf(kRoot, OSTRAVEL_HELPER);
    EXPECT_TRUE(holdsEventually(kRoot));
  }
  {
    const auto server = proxyOf(kRoot, OSTRAVEL_HELPER);
    ASSERT_EQ(server->ask("answer HTTP/1.1 405 Not Allowed"), "done");
    EXPECT_TRUE(isRefused(kRoot));
    EXPECT_FALSE(trust_->takeNews());
  }
  {
    const std::string program = copyHelper(folder_, "server");
    const auto server = proxyOf(kPerson, program);
    ASSERT_EQ(server->ask("answer HTTP/1.1 404 Not Found"), "done");
    waitUntilDescribed(server->pid());
    EXPECT_TRUE(
        waitUntil([this] { return proxy_->refresh(std::nullopt) == ProxyProcess::State::known; }));
    EXPECT_FALSE(trust_->holdsFor(kRoot));
    EXPECT_EQ(trust_->reason(), program + " (process " + std::to_string(server->pid()) +
                                    ", user 54321) listens on port 8080 and is being tested");
    EXPECT_TRUE(waitUntil([this] { return !holdsNow(kRoot) && warnings_.size() == 2; }));
  }
  const auto proxy = proxyOf(kRoot, OSTRAVEL_HELPER);
  EXPECT_TRUE(holdsEventually(kRoot));
}

TEST_F(ProxyTrustTest, TheDiallerOfAChainIsPartOfTheProxy) {
  const std::string frontProgram = copyHelper(folder_, "front");
  const std::string lastProgram = copyHelper(folder_, "last");
  Helper last(lastProgram);
  ASSERT_EQ(last.ask("user 54322"), "done");
  last.makeSocket("proxy", 3128);
  const auto front = proxyOf(kSystemUser, frontProgram);
  ASSERT_EQ(front->ask("via 3128"), "done");
  Helper worker(lastProgram);
  ASSERT_EQ(worker.ask("user 54322"), "done");
  Helper other(lastProgram);
  for (const pid_t pid : {front->pid(), last.pid(), worker.pid(), other.pid()}) {
    waitUntilDescribed(pid);
  }
  start();
  EXPECT_TRUE(holdsEventually(kRoot));
  EXPECT_TRUE(trust_->knowsDialler());
  EXPECT_TRUE(includes(front->pid()));
  EXPECT_TRUE(includes(last.pid()));
  EXPECT_TRUE(includes(worker.pid()));
  EXPECT_FALSE(includes(other.pid()));
  EXPECT_TRUE(proxy_->mayRunAs(kSystemUser));
  EXPECT_TRUE(proxy_->mayRunAs(kOtherPerson));
  EXPECT_FALSE(proxy_->mayRunAs(kRoot));
}

TEST_F(ProxyTrustTest, WithoutATunnelAnyTrustedUserMayRunTheDialler) {
  const auto proxy = proxyOf(kPerson, OSTRAVEL_HELPER);
  ASSERT_EQ(proxy->ask("answer HTTP/1.1 403 Forbidden"), "done");
  start();
  EXPECT_TRUE(holdsEventually(kPerson));
  EXPECT_FALSE(trust_->knowsDialler());
  EXPECT_TRUE(trust_->mayDial(kPerson));
  EXPECT_TRUE(trust_->mayDial(kRoot));
  EXPECT_TRUE(trust_->mayDial(kSystemUser));
  EXPECT_FALSE(trust_->mayDial(kOtherPerson));
}

}  // namespace
}  // namespace ostravel::linuxplatform
