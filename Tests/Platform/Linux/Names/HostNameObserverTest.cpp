#include "Platform/Linux/Names/HostNameObserver.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Linux/Kernel/KernelAddress.h"
#include "Platform/Linux/Names/DNSCopies.h"
#include "Tests/Platform/Linux/Names/Support/MessageBuilder.h"
#include "Tests/Platform/Linux/Support/FailingCalls.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"
#include "Tests/Support/CommandOutput.h"
#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::linuxplatform {
namespace {

using namespace std::chrono_literals;
using namespace ostravel::testing;

using Bytes = std::vector<std::byte>;

constexpr auto kPatience = 20s;

// Of this process, which plays the application.
const std::string kProgram = std::filesystem::read_symlink("/proc/self/exe");

class HostNameObserverTest : public ::testing::Test {
 protected:
  HostNameObserverTest() { EXPECT_TRUE(bindTo(server_, AF_INET, loopbackIPv4(53))); }

  void start() {
    ApplicationIdentifierSource applications(
        8080, [](const std::string& /*warning*/) {}, folder_.path());
    auto started = HostNameObserver::start(applications.forAnotherThread(),
                                           {folder_.path("resolv.conf"), folder_.path("monitor")});
    ASSERT_TRUE(started) << started.error().localizedDescription;
    observer_ = *std::move(started);
  }

  FileDescriptor makeApplication() const {
    FileDescriptor application = makeSocket(AF_INET, SOCK_DGRAM);
    EXPECT_TRUE(connectTo(application, AF_INET, loopbackIPv4(53)));
    return application;
  }
  static void send(const FileDescriptor& socket, const Bytes& message) {
    EXPECT_EQ(::send(socket.get(), message.data(), message.size(), 0),
              static_cast<ssize_t>(message.size()));
  }
  static void receive(const FileDescriptor& socket) {
    std::array<char, 4096> buffer{};
    EXPECT_GT(::recv(socket.get(), buffer.data(), buffer.size(), 0), 0);
  }
  // From the server's port.
  void answer(const FileDescriptor& application, const Bytes& message) const {
    const KernelAddress address(loopbackIPv4(portOf(application)));
    EXPECT_EQ(
        ::sendto(server_.get(), message.data(), message.size(), 0, address.get(), address.size),
        static_cast<ssize_t>(message.size()));
    receive(application);
  }
  void ask(const FileDescriptor& application, std::uint16_t id, const std::string& name) const {
    send(application, query(id, name));
    receive(server_);
  }

  std::string find(const std::string& address, const std::string& program = kProgram,
                   std::optional<uid_t> user = 0) const {
    observer_->catchUp();
    const auto found = observer_->find(user, program, addressOf(address, 443));
    return found ? found->name : "";
  }
  bool eventually(const std::function<bool()>& condition) const {
    const auto limit = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > limit) {
        return false;
      }
      std::this_thread::yield();
    }
    return true;
  }

  const TemporaryFolder folder_;
  const FileDescriptor server_ = makeSocket(AF_INET, SOCK_DGRAM);
  std::unique_ptr<HostNameObserver> observer_;
};

TEST_F(HostNameObserverTest, KnowsANameAsSoonAsTheApplicationHasTheAnswer) {
  start();
  const FileDescriptor application = makeApplication();
  for (std::uint16_t id = 1; id < 200; ++id) {
    const std::string name = "host" + std::to_string(id) + ".example";
    const std::string address = "192.0.2." + std::to_string(id);
    ask(application, id, name);
    answer(application, answerTo(id, name).address(name, address, 60).bytes());
    ASSERT_EQ(find(address), name);
  }
}

TEST_F(HostNameObserverTest, FindsTheApplicationThatHasAsked) {
  start();
  const FileDescriptor application = makeApplication();
  ask(application, 1, "www.example");
  answer(application, answerTo(1, "www.example").address("www.example", "192.0.2.1", 60).bytes());
  // The user's until then.
  EXPECT_TRUE(eventually([this] { return find("192.0.2.1", "/usr/bin/other").empty(); }));
  EXPECT_EQ(find("192.0.2.1"), "www.example");
  EXPECT_EQ(find("192.0.2.1", kProgram, 1000), "");
}

TEST_F(HostNameObserverTest, OnlyAnswersToQueriesTeachAnything) {
  start();
  const FileDescriptor application = makeApplication();
  ask(application, 1, "www.example");
  const auto answerWith = [&](std::uint16_t id, const std::string& name) {
    answer(application, answerTo(id, name).address(name, "192.0.2.1", 60).bytes());
    return find("192.0.2.1");
  };
  EXPECT_EQ(answerWith(2, "www.example"), "");
  EXPECT_EQ(answerWith(1, "ww.example"), "");
  answer(application, Bytes(100, std::byte{0xC0}));
  // Another socket that has not asked this, though the server knows it.
  const FileDescriptor other = makeApplication();
  ask(other, 9, "other.example");
  answer(other, answerTo(1, "www.example").address("www.example", "192.0.2.1", 60).bytes());
  EXPECT_EQ(find("192.0.2.1"), "");
  EXPECT_EQ(answerWith(1, "www.example"), "www.example");
}

TEST_F(HostNameObserverTest, AnAnswerIsBelievedOnce) {
  start();
  const FileDescriptor application = makeApplication();
  ask(application, 1, "www.example");
  answer(application, answerTo(1, "www.example").address("www.example", "192.0.2.1", 60).bytes());
  answer(application, answerTo(1, "www.example").address("www.example", "192.0.2.2", 60).bytes());
  EXPECT_EQ(find("192.0.2.1"), "www.example");
  EXPECT_EQ(find("192.0.2.2"), "");
}

TEST_F(HostNameObserverTest, UnsolicitedAnswersAreNotCopied) {
  start();
  const FileDescriptor victim = makeSocket(AF_INET, SOCK_DGRAM);
  ASSERT_TRUE(bindTo(victim, AF_INET, loopbackIPv4(0)));
  const Bytes message = answerTo(1, "www.example").address("www.example", "192.0.2.1", 60).bytes();
  for (int count = 0; count < 10'000; ++count) {
    answer(victim, message);
  }
  EXPECT_EQ(find("192.0.2.1"), "");
}

TEST_F(HostNameObserverTest, TheTablesEndWithTheObserver) {
  start();
  EXPECT_NE(outputOf("nft list tables").find("ostravel-names"), std::string::npos);
  observer_.reset();
  EXPECT_EQ(outputOf("nft list tables").find("ostravel-names"), std::string::npos);
}

TEST_F(HostNameObserverTest, ALookUpReadsABoundedNumberOfCopies) {
  start();
  const FileDescriptor application = makeApplication();
  for (std::uint16_t id = 0; id < 1000; ++id) {
    send(application, query(id, "flood" + std::to_string(id) + ".example"));
  }
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(find("192.0.2.1"), "");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
}

TEST_F(HostNameObserverTest, UnreadCopiesDelayNothing) {
  const auto log = *PacketLog::open();
  const auto copies = *DNSCopies::install(log->group());
  const FileDescriptor application = makeApplication();
  // More than are copied or fit into the log.
  for (unsigned count = 0; count < 10'000; ++count) {
    const auto id = static_cast<std::uint16_t>(count);
    ask(application, id, "www.example");
    answer(application, answerTo(id, "www.example").bytes());
  }
}

TEST(DNSCopiesTest, TheScriptIsWhatNftAccepts) {
  const TemporaryFolder folder;
  const std::string path = folder.write("script", DNSCopies::script(43'100));
  EXPECT_EQ(outputOf("nft --check --file " + path + " 2>&1"), "");
}

TEST_F(HostNameObserverTest, NewRegistrationsHoldForLaterQuestions) {
  start();
  const TemporaryFolder registrations;
  registrations.write("a.json", "{\"" + kProgram + "\": \"com.example.asker\"}");
  observer_->replaceRegistrations({registrations.path(), [](const std::string& /*warning*/) {}});
  const auto application = makeApplication();
  const auto isKnownByNewName = [&, id = std::uint16_t{0}]() mutable {
    ask(application, ++id, "www.example");
    answer(application,
           answerTo(id, "www.example").address("www.example", "192.0.2.1", 60).bytes());
    return find("192.0.2.1", "com.example.asker") == "www.example" &&
           find("192.0.2.1", "/usr/bin/other").empty();
  };
  EXPECT_TRUE(eventually(isKnownByNewName));
}

TEST(DNSCopiesTest, AreMadeOrTheReasonIsKnown) {
  withEachCallFailing(ENOMEM, [] {
    const auto examined = DNSCopies::examine(1);
    const auto copies = DNSCopies::install(1);
    if (!copies) {
      EXPECT_NE(copies.error().localizedDescription, "");
    }
    return !examined && copies;
  });
  EXPECT_EQ(outputOf("nft list tables"), "");
}

}  // namespace
}  // namespace ostravel::linuxplatform
