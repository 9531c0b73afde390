#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <thread>

namespace ostravel::testing {

// Runs the test on a thread with its own mount namespace, in which /run is empty.
inline void withPrivateRun(const std::function<void()>& test) {
  std::thread([&test] {
    ASSERT_EQ(::unshare(CLONE_NEWNS), 0) << "run as root";
    ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(::mount("tmpfs", "/run", "tmpfs", 0, nullptr), 0);
    test();
  }).join();
}

// Takes the place of the journal in a private /run.
class ReceivingJournal {
 public:
  ReceivingJournal()
      : descriptor_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    ::mkdir("/run/systemd", 0755);
    ::mkdir("/run/systemd/journal", 0755);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string("/run/systemd/journal/socket").copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  ReceivingJournal(const ReceivingJournal&) = delete;
  ReceivingJournal& operator=(const ReceivingJournal&) = delete;
  ~ReceivingJournal() { ::close(descriptor_); }

  // The lines of the next datagram, empty if there is none; fields without line breaks have the
  // form NAME=value.
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

}  // namespace ostravel::testing
