#include "Platform/Linux/Identity/ProxyProcess.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Platform/Linux/Kernel/CgroupRoot.h"
#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Platform/Linux/Tracing/ConnectPublisher.h"
#include "Platform/Linux/Tracing/ConnectTracer.h"
#include "Tests/Platform/Linux/Support/Helper.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"
#include "Tests/Support/InChildProcess.h"
#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;
using namespace std::chrono_literals;
using State = ProxyProcess::State;

constexpr std::uint16_t kPort = 8080;

class ProxyProcessTest : public ::testing::Test {
 protected:
  ProxyProcessTest() {
    auto opened = SocketDiagnostics::open();
    diagnostics_ = *std::move(opened);
    useSearchLimits({});
  }

  void useSearchLimits(const ProxyProcess::SearchLimits& limits) {
    proxy_.emplace(
        *diagnostics_, processes_, kPort,
        [this](const std::string& warning) { warnings_.push_back(warning); }, limits);
  }

  bool includes(pid_t pid) const {
    auto process = processes_.find(pid);
    // On a busy machine the file system may answer too late.
    while (process && !process->isExecutableSettled) {
      process = processes_.find(pid);
    }
    EXPECT_TRUE(process);
    return process && proxy_->includes(*process) == true;
  }

  // On a busy machine one step of the search may not be enough.
  State refresh() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    State state = State::unknown;
    while (state == State::unknown && std::chrono::steady_clock::now() < deadline) {
      state = proxy_->refresh(std::nullopt);
    }
    return state;
  }

  std::unique_ptr<SocketDiagnostics> diagnostics_;
  LocalProcessTable processes_;
  std::vector<std::string> warnings_;
  std::optional<ProxyProcess> proxy_;
  const TemporaryFolder folder_;
};

TEST_F(ProxyProcessTest, IsAbsentWithoutAListener) {
  EXPECT_EQ(proxy_->refresh(::getpid()), State::absent);
}

TEST_F(ProxyProcessTest, IsTheProcessThatListens) {
  Helper helper(copyHelper(folder_, "proxy"));
  helper.makeSocket("listen", kPort);
  Helper other;
  ASSERT_EQ(refresh(), State::known);
  EXPECT_TRUE(includes(helper.pid()));
  EXPECT_FALSE(includes(other.pid()));
  EXPECT_FALSE(includes(::getpid()));
  EXPECT_EQ(proxy_->uid(), ::getuid());
  EXPECT_TRUE(warnings_.empty());
}

TEST_F(ProxyProcessTest, IsFoundBeforeAllOthersIfItIsTheSender) {
  makeProcessNumbersRise();
  Helper helper;
  helper.makeSocket("listen", kPort);
  const auto crowd = makeCrowd();
  // Each step examines one descriptor. In as many steps, a search without a sender does not get
  // through those of the crowd.
  constexpr ProxyProcess::SearchLimits kOneDescriptor{.work = 0ms, .longest = 0ms};
  useSearchLimits(kOneDescriptor);
  // With a table of its own: a table carries out one search at a time.
  LocalProcessTable processes;
  ProxyProcess withoutSender(
      *diagnostics_, processes, kPort, [](const std::string& /*warning*/) {}, kOneDescriptor);
  const auto deadline = std::chrono::steady_clock::now() + 60s;
  State state = State::unknown;
  while (state == State::unknown && std::chrono::steady_clock::now() < deadline) {
    EXPECT_EQ(withoutSender.refresh(std::nullopt), State::unknown);
    state = proxy_->refresh(helper.pid());
  }
  ASSERT_EQ(state, State::known);
  EXPECT_TRUE(includes(helper.pid()));
}

TEST_F(ProxyProcessTest, IsUnknownUntilTheSearchHasFoundIt) {
  makeProcessNumbersRise();
  Helper helper;
  helper.makeSocket("listen", kPort);
  const auto crowd = makeCrowd();
  EXPECT_EQ(proxy_->refresh(::getpid()), State::unknown);
  EXPECT_EQ(refresh(), State::known);
  EXPECT_TRUE(includes(helper.pid()));
  EXPECT_TRUE(warnings_.empty());
}

TEST_F(ProxyProcessTest, ARestartIsNoticedAtOnce) {
  const std::string program = copyHelper(folder_, "proxy");
  const std::string otherProgram = copyHelper(folder_, "other-proxy");
  std::uint64_t lastCookie = 0;
  for (int i = 0; i < 5; ++i) {
    Helper helper(i % 2 == 0 ? program : otherProgram);
    helper.makeSocket("listen", kPort);
    ASSERT_EQ(refresh(), State::known);
    EXPECT_TRUE(includes(helper.pid()));
    EXPECT_NE(proxy_->listenerCookie(), lastCookie);
    lastCookie = proxy_->listenerCookie();
    // The previous proxy no longer is one.
    Helper former(i % 2 == 0 ? otherProgram : program);
    EXPECT_FALSE(includes(former.pid()));
    helper.kill();
    EXPECT_EQ(proxy_->refresh(::getpid()), State::absent);
  }
}

TEST_F(ProxyProcessTest, ANewSocketOfTheSameProcessIsNoticedAtOnce) {
  Helper helper;
  helper.makeSocket("listen", kPort);
  ASSERT_EQ(refresh(), State::known);
  ASSERT_EQ(helper.ask("close"), "done");
  EXPECT_EQ(proxy_->refresh(std::nullopt), State::absent);
  helper.makeSocket("listen", kPort);
  EXPECT_EQ(refresh(), State::known);
  EXPECT_TRUE(includes(helper.pid()));
}

TEST_F(ProxyProcessTest, KeepsIncludingTheOwnerAfterExec) {
  Helper helper(copyHelper(folder_, "proxy"));
  // The socket is not where an inherited one would be.
  ASSERT_EQ(helper.ask("hold 50"), "done");
  helper.makeSocket("listen", kPort);
  ASSERT_EQ(refresh(), State::known);
  ASSERT_EQ(helper.ask("user 65534"), "done");
  ASSERT_EQ(helper.ask("run " + copyHelper(folder_, "other")), "ready");
  ASSERT_EQ(refresh(), State::known);
  EXPECT_TRUE(includes(helper.pid()));
}

TEST_F(ProxyProcessTest, IncludesProcessesOfItsExecutableAndUser) {
  const std::string program = copyHelper(folder_, "proxy");
  Helper helper(program);
  ASSERT_EQ(helper.ask("user 65534"), "done");
  helper.makeSocket("listen", kPort);
  Helper same(program);
  ASSERT_EQ(same.ask("user 65534"), "done");
  Helper otherUser(program);
  Helper otherProgram(copyHelper(folder_, "other"));
  ASSERT_EQ(otherProgram.ask("user 65534"), "done");
  ASSERT_EQ(refresh(), State::known);
  EXPECT_EQ(proxy_->uid(), 65534U);
  EXPECT_TRUE(includes(same.pid()));
  EXPECT_FALSE(includes(otherUser.pid()));
  EXPECT_FALSE(includes(otherProgram.pid()));
}

TEST_F(ProxyProcessTest, AnUpdatedExecutableIsStillItsExecutable) {
  const std::string program = copyHelper(folder_, "proxy");
  Helper helper(program);
  helper.makeSocket("listen", kPort);
  std::filesystem::remove(program);
  copyHelper(folder_, "proxy");
  Helper updated(program);
  ASSERT_EQ(refresh(), State::known);
  EXPECT_TRUE(includes(updated.pid()));
}

TEST_F(ProxyProcessTest, IncludesProcessesOfItsService) {
  const auto root = findCgroupRoot("/proc/self/mounts");
  ASSERT_TRUE(root);
  const std::string group = *root + "/ostravel-proxy-" + std::to_string(::getpid()) + ".service";
  ASSERT_TRUE(std::filesystem::create_directory(group));
  {
    Helper helper(copyHelper(folder_, "proxy"));
    helper.makeSocket("listen", kPort);
    Helper worker(copyHelper(folder_, "worker"));
    Helper other(copyHelper(folder_, "other"));
    for (const pid_t pid : {helper.pid(), worker.pid()}) {
      std::ofstream(group + "/cgroup.procs") << pid;
    }
    ASSERT_EQ(refresh(), State::known);
    EXPECT_TRUE(includes(worker.pid()));
    EXPECT_FALSE(includes(other.pid()));
  }
  EXPECT_EQ(::rmdir(group.c_str()), 0);
}

TEST_F(ProxyProcessTest, IncludesProcessesThatInheritedTheSocket) {
  // As a service manager does: this process listens, and starts the proxy on the first connection.
  const auto listener = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(bindTo(listener, AF_INET, loopbackIPv4(kPort)));
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  ASSERT_EQ(refresh(), State::known);
  EXPECT_TRUE(includes(::getpid()));
  Helper activated(OSTRAVEL_HELPER, [&listener] { return ::dup2(listener.get(), 3) == 3; });
  Helper other;
  ASSERT_EQ(proxy_->refresh(activated.pid()), State::known);
  EXPECT_TRUE(includes(activated.pid()));
  EXPECT_FALSE(includes(other.pid()));
}

TEST_F(ProxyProcessTest, FindsTheNewOwnerOfASocketThatOutlivesItsOwner) {
  const std::string program = copyHelper(folder_, "proxy");
  auto listener = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(bindTo(listener, AF_INET, loopbackIPv4(kPort)));
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  Helper heir(program, [&listener] { return ::dup2(listener.get(), 3) == 3; });
  listener = FileDescriptor();
  ASSERT_EQ(refresh(), State::known);
  EXPECT_TRUE(includes(heir.pid()));
}

TEST_F(ProxyProcessTest, IsUnknownAndWarnsOnceWithoutPermission) {
  Helper helper;
  helper.makeSocket("listen", kPort);
  // Without capabilities a process cannot inspect others of the same user that have them.
  withoutCapabilities([&] {
    // The allowance for searches may be used up before all processes have been scanned.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (int i = 0; i < 1000 || (warnings_.empty() && std::chrono::steady_clock::now() < deadline);
         ++i) {
      ASSERT_EQ(proxy_->refresh(::getpid()), State::unknown);
    }
    ASSERT_EQ(warnings_.size(), 1U);
    EXPECT_NE(warnings_[0].find("8080"), std::string::npos);
  });
}

class WatchedProxyProcessTest : public ProxyProcessTest {
 protected:
  WatchedProxyProcessTest() {
    tracer_ = *ConnectTracer::start();
    publisher_ = *ConnectPublisher::start(*tracer_, kPort);
    proxy_.emplace(
        *diagnostics_, processes_, kPort,
        [this](const std::string& warning) { warnings_.push_back(warning); },
        publisher_->listener());
  }

  // Afterwards nothing is looked up until something changes.
  State settle() {
    refresh();
    return refresh();
  }

  std::unique_ptr<ConnectTracer> tracer_;
  std::unique_ptr<ConnectPublisher> publisher_;
};

TEST_F(WatchedProxyProcessTest, ARestartIsNoticedAtOnce) {
  EXPECT_EQ(settle(), State::absent);
  for (int i = 0; i < 5; ++i) {
    Helper helper;
    helper.makeSocket("listen", kPort);
    ASSERT_EQ(settle(), State::known);
    EXPECT_TRUE(includes(helper.pid()));
    helper.kill();
    EXPECT_EQ(proxy_->refresh(std::nullopt), State::absent);
  }
}

TEST_F(WatchedProxyProcessTest, ANewListenerIsNoticedAtOnceEvenIfTheOldOneLives) {
  Helper first(copyHelper(folder_, "first"));
  Helper second(copyHelper(folder_, "second"));
  for (Helper* const next : {&first, &second, &first, &second}) {
    next->makeSocket("listen", kPort);
    ASSERT_EQ(settle(), State::known);
    EXPECT_EQ(proxy_->owner().pid, next->pid());
    ASSERT_EQ(next->ask("close"), "done");
  }
}

TEST_F(WatchedProxyProcessTest, AListenerThatWasClosedIsNoticedAtOnce) {
  Helper helper;
  helper.makeSocket("listen", kPort);
  ASSERT_EQ(settle(), State::known);
  ASSERT_EQ(helper.ask("close"), "done");
  EXPECT_EQ(proxy_->refresh(std::nullopt), State::absent);
  EXPECT_EQ(proxy_->recheck(), State::absent);
}

TEST_F(WatchedProxyProcessTest, ASocketThatOutlivesItsOwnerIsStillTheProxys) {
  auto listener = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(bindTo(listener, AF_INET, loopbackIPv4(kPort)));
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  std::optional<Helper> owner;
  owner.emplace(copyHelper(folder_, "owner"),
                [&listener] { return ::dup2(listener.get(), 3) == 3; });
  Helper heir(copyHelper(folder_, "heir"), [&listener] { return ::dup2(listener.get(), 3) == 3; });
  listener = FileDescriptor();
  ASSERT_EQ(settle(), State::known);
  owner.reset();
  ASSERT_EQ(settle(), State::known);
  EXPECT_TRUE(includes(heir.pid()));
}

}  // namespace
}  // namespace ostravel::linuxplatform
