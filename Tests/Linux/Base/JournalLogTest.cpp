#include "Platform/Linux/JournalLog.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <thread>

namespace ostravel::linuxplatform {
namespace {

constexpr const char* kJournalSocket = "/run/systemd/journal/socket";

// Runs the test on a thread that sees a file system of its own, in which /run is empty.
void withPrivateRun(const std::function<void()>& test) {
  std::thread([&test] {
    ASSERT_EQ(::unshare(CLONE_NEWNS), 0) << "run as root";
    ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(::mount("tmpfs", "/run", "tmpfs", 0, nullptr), 0);
    test();
  }).join();
}

// Takes the place of the journal.
class ReceivingJournal {
 public:
  ReceivingJournal()
      : descriptor_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    ::mkdir("/run/systemd", 0755);
    ::mkdir("/run/systemd/journal", 0755);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(kJournalSocket).copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  ~ReceivingJournal() { ::close(descriptor_); }

  // The lines of the next datagram; fields without line breaks have the form NAME=value.
  std::set<std::string> nextEntry() const {
    std::array<char, 4096> bytes{};
    const auto count = ::recv(descriptor_, bytes.data(), bytes.size(), 0);
    std::set<std::string> fields;
    std::istringstream text(
        std::string(bytes.data(), static_cast<std::size_t>(count < 0 ? 0 : count)));
    for (std::string field; std::getline(text, field);) {
      fields.insert(field);
    }
    return fields;
  }

 private:
  int descriptor_;
};

TEST(JournalLogTest, SendsEveryLevelWithItsFields) {
  withPrivateRun([] {
    const ReceivingJournal journal;
    JournalLog log("OstravelNetworkExtension", "OstravelProxy");
    const auto expected = [](const std::string& message, const std::string& priority) {
      return std::set<std::string>{
          "MESSAGE=" + message, "PRIORITY=" + priority, "SYSLOG_IDENTIFIER=ostravel",
          "OSTRAVEL_SUBSYSTEM=OstravelNetworkExtension", "OSTRAVEL_CATEGORY=OstravelProxy"};
    };
    log.debug("OstravelProxy: a %{public}s", {"b"});
    EXPECT_EQ(journal.nextEntry(), expected("OstravelProxy: a b", "7"));
    log.info("c");
    EXPECT_EQ(journal.nextEntry(), expected("c", "6"));
    log.standard("d");
    EXPECT_EQ(journal.nextEntry(), expected("d", "5"));
    log.error("e %{public}d", {std::int64_t{1}});
    EXPECT_EQ(journal.nextEntry(), expected("e 1", "3"));
  });
}

TEST(JournalLogTest, ALineBreakMakesNoFieldAndNoLine) {
  withPrivateRun([] {
    const ReceivingJournal journal;
    JournalLog log("sub\nPRIORITY=0", "cat\nPRIORITY=0");
    log.info("OstravelProxy: %{public}s", {"one\nPRIORITY=0"});
    const auto fields = journal.nextEntry();
    EXPECT_EQ(fields.size(), 5U);
    EXPECT_TRUE(fields.contains("MESSAGE=OstravelProxy: one\\x0aPRIORITY=0"));
    EXPECT_TRUE(fields.contains("OSTRAVEL_SUBSYSTEM=sub\\x0aPRIORITY=0"));
    EXPECT_TRUE(fields.contains("OSTRAVEL_CATEGORY=cat\\x0aPRIORITY=0"));
    EXPECT_TRUE(fields.contains("PRIORITY=6"));
  });
}

TEST(JournalLogTest, WithoutAJournalALineIsLostWithoutATrace) {
  withPrivateRun([] {
    JournalLog log("sub", "cat");
    errno = EDOM;
    log.error("lost");
    EXPECT_EQ(errno, EDOM);
  });
}

}  // namespace
}  // namespace ostravel::linuxplatform
