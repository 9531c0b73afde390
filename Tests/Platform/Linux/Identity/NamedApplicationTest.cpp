// Processes in control groups like those that systemd, Flatpak, Snap and container engines make.
// The groups are real, and so is how the kernel reports them.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Identity/ApplicationIdentifierSource.h"
#include "Tests/Platform/Linux/Support/ControlGroups.h"
#include "Tests/Platform/Linux/Support/HangingFileSystem.h"
#include "Tests/Platform/Linux/Support/Helper.h"
#include "Tests/Platform/Linux/Support/PrivateMounts.h"
#include "Tests/Platform/Linux/Support/SenderSource.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"
#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;
using namespace std::chrono_literals;

constexpr uid_t kAlice = 4001;
const std::string kAlices = "/user.slice/user-4001.slice/user@4001.service/app.slice/";
const std::string kContainer = "0123456789ab" + std::string(52, 'c');
constexpr const char* kExempt = "com.Example.VPN";

bool becomeAlice() {
  return ::setgid(kAlice) == 0 && ::setuid(kAlice) == 0;
}

class NamedApplicationTest : public SenderSourceTest {
 protected:
  void start(ConnectTracer::Detail detail = ConnectTracer::Detail::programs) {
    source_.emplace(
        kProxyPort, [](const std::string& warning) { ADD_FAILURE() << warning; },
        registrations_.path(), std::vector<uid_t>{}, detail, std::nullopt,
        std::vector<std::string>{kExempt});
  }

  FlowTuple connectFrom(Helper& helper) { return testing::connectFrom(helper, listener_); }

  std::string identifierOf(Helper& helper) {
    const auto flow = connectFrom(helper);
    const auto identification = source_->identify(packetOf(flow), 0);
    EXPECT_FALSE(identification.leaveReason) << nameOf(*identification.leaveReason);
    return identification.identifier;
  }

  std::string identifierIn(const std::string& group, const std::function<bool()>& inChild) {
    Helper helper(program_, [&] {
      groups_.move(::getpid(), group);
      return inChild();
    });
    return identifierOf(helper);
  }
  std::string alicesIdentifierIn(const std::string& group) {
    return identifierIn(group, &becomeAlice);
  }
  std::string rootsIdentifierIn(const std::string& group) {
    return identifierIn(group, [] { return true; });
  }

  static constexpr std::uint16_t kProxyPort = 8080;

  const ControlGroups groups_;
  const FileDescriptor listener_ = makeListener();
  const TemporaryFolder registrations_;
  const TemporaryFolder programs_;
  const std::string program_ = copyHelper(programs_, "program");
  std::optional<ApplicationIdentifierSource> source_;
};

TEST_P(NamedApplicationTest, AFlatpakApplication) {
  start();
  // Its files are only in its own mount namespace.
  const auto cover = [this] {
    return enterPrivateMounts() &&
           ::mount(OSTRAVEL_HELPER, program_.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
           becomeAlice();
  };
  EXPECT_EQ(identifierIn(kAlices + "app-flatpak-org.example.Editor-4711.scope", cover),
            "org.example.Editor");
  // Without the group, nothing is known about such a program.
  EXPECT_EQ(identifierIn(kAlices + "x.scope", cover), "");
}

TEST_P(NamedApplicationTest, ApplicationsOfADesktop) {
  start();
  for (const char* const unit :
       {"app-gnome-org.example.Editor-4711.scope", "app-org.example.Editor@4f0c.service"}) {
    EXPECT_EQ(alicesIdentifierIn(kAlices + unit), "org.example.Editor") << unit;
  }
  EXPECT_EQ(alicesIdentifierIn(kAlices + "vte-spawn-4711.scope"), program_);
}

TEST_P(NamedApplicationTest, SnapPackages) {
  start();
  EXPECT_EQ(alicesIdentifierIn(kAlices + "snap.chat.chat-0d7e6c1a.scope"), "snap.chat");
  EXPECT_EQ(rootsIdentifierIn("/system.slice/snap.chat.daemon.service"), "snap.chat");
}

TEST_P(NamedApplicationTest, SystemServices) {
  start();
  EXPECT_EQ(rootsIdentifierIn("/system.slice/cups.service"), "cups.service");
  EXPECT_EQ(alicesIdentifierIn("/system.slice/cups.service"), program_);
}

TEST_P(NamedApplicationTest, ContainersInOurNetwork) {
  start();
  const std::string suffix = "//container/0123456789ab";
  for (const std::string& group :
       {"/system.slice/docker-" + kContainer + ".scope", "/docker/" + kContainer,
        "/machine.slice/libpod-" + kContainer + ".scope/container",
        "/kubepods.slice/crio-" + kContainer + ".scope",
        "/kubepods/burstable/pod1/" + kContainer}) {
    EXPECT_EQ(rootsIdentifierIn(group), program_ + suffix) << group;
  }
  EXPECT_EQ(alicesIdentifierIn(kAlices + "libpod-" + kContainer + ".scope"),
            program_ + "//container/4001/0123456789ab");
}

TEST_P(NamedApplicationTest, AContainersFilesNeedNotBeOurs) {
  start();
  const std::string root = programs_.path("root");
  std::filesystem::create_directories(root + programs_.path());
  std::filesystem::copy_file(OSTRAVEL_HELPER, root + program_);
  const auto cover = [this, &root] {
    return enterPrivateMounts() &&
           ::mount((root + program_).c_str(), program_.c_str(), nullptr, MS_BIND, nullptr) == 0;
  };
  EXPECT_EQ(identifierIn("/docker/" + kContainer, cover), program_ + "//container/0123456789ab");
}

TEST_P(NamedApplicationTest, ARegistrationComesFirst) {
  registrations_.write("a.json", "{\"" + program_ + "\": \"com.example.registered\"}");
  start();
  EXPECT_EQ(rootsIdentifierIn("/system.slice/cups.service"), "com.example.registered");
  EXPECT_EQ(alicesIdentifierIn(kAlices + "app-org.example.Editor-1.scope"), "org.example.Editor");
}

TEST_P(NamedApplicationTest, NobodyClaimsAnExemptOrARegisteredName) {
  registrations_.write("a.json", R"({")" OSTRAVEL_HELPER R"(": "com.example.registered"})");
  start();
  for (const char* const name : {"com.example.vpn", "com.example.registered",
                                 "COM.Example.Registered", "com.ostravel.proxy\\x2dsidecar"}) {
    EXPECT_EQ(alicesIdentifierIn(kAlices + "app-" + name + "-1.scope"), program_) << name;
  }
}

TEST_P(NamedApplicationTest, ANewRegistrationReservesItsName) {
  start();
  const std::string group = kAlices + "app-org.example.Editor-1.scope";
  Helper helper(program_, [&] {
    groups_.move(::getpid(), group);
    return becomeAlice();
  });
  EXPECT_EQ(identifierOf(helper), "org.example.Editor");
  registrations_.write("a.json", R"({")" OSTRAVEL_HELPER R"(": "org.example.editor"})");
  source_->replaceRegistrations({registrations_.path(), [](const std::string& /*warning*/) {}});
  EXPECT_EQ(identifierOf(helper), program_);
}

TEST_P(NamedApplicationTest, AProgramRunAsAnotherUserIsNotTheApplication) {
  start();
  EXPECT_EQ(rootsIdentifierIn(kAlices + "app-org.example.Editor-1.scope"), program_);
}

TEST_P(NamedApplicationTest, AForkedProcessIsTheSameApplication) {
  start();
  groups_.move(::getpid(), kAlices + "app-org.example.Editor-1.scope");
  Helper child(program_, &becomeAlice);
  EXPECT_EQ(identifierOf(child), "org.example.Editor");
}

TEST_P(NamedApplicationTest, AnAppImage) {
  inPrivateMounts([this] {
    const std::string folder = programs_.path(".mount_Editorabcdef");
    std::filesystem::create_directory(folder);
    const HangingFileSystem image(folder, OSTRAVEL_HELPER,
                                  {.source = "Editor-2.1.AppImage", .onlyFor = kAlice});
    start();
    Helper helper(image.program(), &becomeAlice);
    EXPECT_EQ(identifierOf(helper), "Editor-2.1.AppImage");
  });
}

// Desktops start an application first and move it to its own group then.
TEST_P(NamedApplicationTest, AProcessThatIsMovedAfterItsStart) {
  start();
  Helper helper(program_, &becomeAlice);
  EXPECT_EQ(identifierOf(helper), program_);
  groups_.move(helper.pid(), kAlices + "app-org.example.Editor-1.scope");
  EXPECT_EQ(identifierOf(helper), "org.example.Editor");
  EXPECT_EQ(identifierOf(helper), "org.example.Editor");
}

TEST_P(NamedApplicationTest, WithoutTracedProgramsTheNameIsTheSame) {
  start(ConnectTracer::Detail::processes);
  Helper helper(program_, [this] {
    groups_.move(::getpid(), kAlices + "app-org.example.Editor-1.scope");
    return becomeAlice();
  });
  const auto flow = connectFrom(helper);
  // The search for the holder has a time limit, which may expire on a busy machine.
  const auto deadline = std::chrono::steady_clock::now() + 60s;
  std::string last;
  while (last.empty() && std::chrono::steady_clock::now() < deadline) {
    last = source_->identify(packetOf(flow), 0).identifier;
  }
  EXPECT_EQ(last, "org.example.Editor");
}

INSTANTIATE_TEST_SUITE_P(Senders, NamedApplicationTest,
                         ::testing::Values(SenderSource::table, SenderSource::systemCalls),
                         [](const auto& source) { return ostravel::testing::nameOf(source); });

}  // namespace
}  // namespace ostravel::linuxplatform
