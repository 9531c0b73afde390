// Every known way to acquire another application's identifier, actually attempted.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sched.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/personality.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Identity/ApplicationIdentifierSource.h"
#include "Platform/Linux/Processes/LocalProcessTable.h"
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

constexpr const char* kRegistered = "com.example.registered";
constexpr uid_t kNobody = 65534;

bool becomeNobody() {
  return ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0;
}

// As any user may; the process has all capabilities inside.
bool enterUserNamespace() {
  return ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 &&
         ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

bool cover(const std::string& path, const std::string& with) {
  return ::mount(with.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

// One byte and a descriptor, as sockets of this machine carry it (unix(7)).
class DescriptorMessage {
 public:
  DescriptorMessage() {
    message_.msg_iov = &part_;
    message_.msg_iovlen = 1;
    message_.msg_control = control_.data();
    message_.msg_controllen = control_.size();
  }
  DescriptorMessage(const DescriptorMessage&) = delete;
  DescriptorMessage& operator=(const DescriptorMessage&) = delete;

  bool send(int channel, int descriptor) {
    cmsghdr* const header = CMSG_FIRSTHDR(&message_);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    return ::sendmsg(channel, &message_, 0) == 1;
  }
  // Not open if none came.
  FileDescriptor receive(int channel) {
    int descriptor = -1;
    if (::recvmsg(channel, &message_, MSG_CMSG_CLOEXEC) == 1) {
      std::memcpy(&descriptor, CMSG_DATA(CMSG_FIRSTHDR(&message_)), sizeof descriptor);
    }
    return FileDescriptor(descriptor);
  }

 private:
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control_{};
  char byte_ = 0;
  iovec part_{&byte_, 1};
  msghdr message_{};
};

class BorrowedIdentityTest : public SenderSourceTest {
 protected:
  BorrowedIdentityTest() {
    registrations_.write("a.json", "{\"" + registered_ + "\": \"" + kRegistered + "\"}");
  }

  void start(ConnectTracer::Detail detail = ConnectTracer::Detail::programs) {
    source_.emplace(
        kProxyPort, [](const std::string& warning) { ADD_FAILURE() << warning; },
        registrations_.path(), std::vector<uid_t>{}, detail);
  }

  FlowTuple connectFrom(Helper& helper) { return testing::connectFrom(helper, listener_); }

  std::string identifierOf(const FlowTuple& flow) {
    const auto identification = source_->identify(packetOf(flow), 0);
    EXPECT_FALSE(identification.leaveReason) << nameOf(*identification.leaveReason);
    return identification.identifier;
  }

  // For look-ups with a time limit, which may expire on a busy machine: then nothing is found, but
  // never another identifier.
  void expectOnlyAndEventually(const FlowTuple& flow, const std::string& identifier) {
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    std::string last;
    do {
      last = source_->identify(packetOf(flow), 0).identifier;
    } while (last.empty() && std::chrono::steady_clock::now() < deadline);
    EXPECT_EQ(last, identifier);
  }

  void expectRegisteredStillWorks() {
    Helper genuine(registered_);
    EXPECT_EQ(identifierOf(connectFrom(genuine)), kRegistered);
  }

  static constexpr std::uint16_t kProxyPort = 8080;

  const FileDescriptor listener_ = makeListener();
  const TemporaryFolder registrations_;
  const TemporaryFolder programs_;
  const std::string registered_ = copyHelper(programs_, "registered");
  const std::string fake_ = copyHelper(programs_, "fake");
  std::optional<ApplicationIdentifierSource> source_;
};

TEST_P(BorrowedIdentityTest, AFileMountedOverARegisteredPath) {
  start();
  Helper asRoot(registered_, [this] { return enterPrivateMounts() && cover(registered_, fake_); });
  EXPECT_EQ(identifierOf(connectFrom(asRoot)), "");
  Helper asUser(registered_, [this] {
    return becomeNobody() && enterUserNamespace() && cover(registered_, fake_);
  });
  EXPECT_EQ(identifierOf(connectFrom(asUser)), "");
  expectRegisteredStillWorks();
}

TEST_P(BorrowedIdentityTest, AFileMountedOverARegisteredPathAndExecutedByDescriptor) {
  start();
  // Opened under that path, and executed in our mount namespace.
  std::array<int, 2> channel{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel.data()), 0);
  const pid_t opener = ::fork();
  ASSERT_GE(opener, 0);
  if (opener == 0) {
    const bool isCovered = enterUserNamespace() && cover(registered_, fake_);
    const int file = ::open(registered_.c_str(), O_RDONLY | O_CLOEXEC);
    if (isCovered && DescriptorMessage().send(channel[0], file)) {
      // The mount disappears with this process.
      ::pause();
    }
    ::_exit(1);
  }
  ::close(channel[0]);
  const FileDescriptor file = DescriptorMessage().receive(channel[1]);
  ASSERT_TRUE(file.isOpen());
  Helper helper("/proc/self/fd/" + std::to_string(file.get()));
  ASSERT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(helper.pid()) + "/exe"),
            registered_);
  EXPECT_EQ(identifierOf(connectFrom(helper)), "");
  expectRegisteredStillWorks();
  ::close(channel[1]);
  ::kill(opener, SIGKILL);
  EXPECT_EQ(::waitpid(opener, nullptr, 0), opener);
}

TEST_P(BorrowedIdentityTest, AGenuineProgramExecutedByDescriptorIsThatProgram) {
  start();
  const FileDescriptor file(::open(registered_.c_str(), O_RDONLY | O_CLOEXEC));
  Helper helper("/proc/self/fd/" + std::to_string(file.get()));
  EXPECT_EQ(identifierOf(connectFrom(helper)), kRegistered);
}

TEST_P(BorrowedIdentityTest, AProcessInAnotherMountNamespace) {
  start();
  Helper service(registered_, &enterPrivateMounts);
  EXPECT_EQ(identifierOf(connectFrom(service)), kRegistered);
  // The same file, but at another program's path.
  Helper moved(fake_, [this] { return enterPrivateMounts() && cover(fake_, registered_); });
  EXPECT_EQ(identifierOf(connectFrom(moved)), "");
  // Joins a namespace instead of creating one.
  Helper joined(registered_, [pid = service.pid(), this] {
    const FileDescriptor view(
        ::open(("/proc/" + std::to_string(pid) + "/ns/mnt").c_str(), O_RDONLY | O_CLOEXEC));
    return ::setns(view.get(), CLONE_NEWNS) == 0 && cover(registered_, fake_);
  });
  EXPECT_EQ(identifierOf(connectFrom(joined)), "");
}

TEST_P(BorrowedIdentityTest, ARegisteredProgramRunByAnOrdinaryUser) {
  start();
  Helper helper(registered_, &becomeNobody);
  EXPECT_EQ(identifierOf(connectFrom(helper)), registered_);
  expectRegisteredStillWorks();
}

TEST_P(BorrowedIdentityTest, ALibraryPreloadedIntoARegisteredProgram) {
  start();
  Helper helper(registered_,
                [] { return ::setenv("LD_PRELOAD", OSTRAVEL_PRELOAD, 1) == 0 && becomeNobody(); });
  const auto port = helper.makeSocket("port", 77);
  EXPECT_EQ(identifierOf(flowOverIPv4(TransportProtocol::udp, port, 443)), registered_);
  registrations_.write("a.json", "{\"" + registered_ + "\": {\"identifier\": \"" + kRegistered +
                                     "\", \"users\": [\"nobody\"]}}");
  source_->replaceRegistrations({registrations_.path(), [](const std::string& /*warning*/) {}});
  EXPECT_EQ(identifierOf(flowOverIPv4(TransportProtocol::udp, port, 443)), kRegistered);
}

TEST_P(BorrowedIdentityTest, AProgramThatAnOrdinaryUserStartsAsRoot) {
  ASSERT_EQ(::chmod(registered_.c_str(), 04755), 0);
  start();
  Helper helper(registered_, &becomeNobody);
  const auto flow = connectFrom(helper);
  EXPECT_EQ(source_->identify(packetOf(flow), 0).user, 0U);
  EXPECT_EQ(identifierOf(flow), registered_);
}

TEST_P(BorrowedIdentityTest, ASocketThatAnOrdinaryUserHandsToARegisteredProgram) {
  start();
  const auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  ASSERT_EQ(::fchown(socket.get(), kNobody, kNobody), 0);
  Helper helper(registered_, [&socket] { return ::dup2(socket.get(), 5) == 5; });
  ASSERT_EQ(helper.ask("reconnect 5"), "done");
  EXPECT_EQ(identifierOf(flowOverIPv4(TransportProtocol::udp, portOf(socket), 443)), registered_);
}

TEST_P(BorrowedIdentityTest, AConnectFollowedByExec) {
  start();
  Helper helper(fake_);
  const auto flow = connectFrom(helper);
  ASSERT_EQ(helper.ask("run " + registered_), "ready");
  EXPECT_EQ(identifierOf(flow), "");
  EXPECT_EQ(identifierOf(connectFrom(helper)), kRegistered);
  EXPECT_EQ(identifierOf(flow), "");
}

TEST_P(BorrowedIdentityTest, AConnectFollowedByExecOfAKnownProcess) {
  start();
  Helper helper(fake_);
  EXPECT_EQ(identifierOf(connectFrom(helper)), fake_);
  const auto flow = connectFrom(helper);
  ASSERT_EQ(helper.ask("run " + registered_), "ready");
  EXPECT_EQ(identifierOf(flow), "");
}

TEST_P(BorrowedIdentityTest, AConnectFollowedByExecWithAnIdenticalStack) {
  // The same length, so that the data above the stack takes the same space.
  const std::string sameLength = copyHelper(programs_, "fakedOne00");
  start();
  Helper helper(sameLength, [] { return ::personality(ADDR_NO_RANDOMIZE) >= 0; });
  const LocalProcessTable processes;
  const auto before = processes.stampOf(helper.pid());
  const auto flow = connectFrom(helper);
  ASSERT_EQ(helper.ask("run " + registered_), "ready");
  // Otherwise this test would prove nothing.
  ASSERT_EQ(processes.stampOf(helper.pid()), before);
  EXPECT_EQ(identifierOf(flow), "");
  EXPECT_EQ(identifierOf(connectFrom(helper)), kRegistered);
}

TEST_P(BorrowedIdentityTest, AConnectFollowedByExecInAChild) {
  start();
  const auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  // Connected by a child of this process, which then becomes the registered program.
  Helper helper(registered_, [&socket] {
    return connectTo(socket, AF_INET, loopbackIPv4(443)) && ::dup(socket.get()) >= 0;
  });
  EXPECT_EQ(identifierOf(flowOverIPv4(TransportProtocol::udp, portOf(socket), 443)), "");
  expectRegisteredStillWorks();
}

TEST_P(BorrowedIdentityTest, ASocketHandedOverByAProcessThatEnds) {
  start();
  auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  Helper heir(registered_, [&socket] { return ::dup(socket.get()) >= 0; });
  const pid_t connector = ::fork();
  ASSERT_GE(connector, 0);
  if (connector == 0) {
    ::_exit(connectTo(socket, AF_INET, loopbackIPv4(443)) ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(connector, &status, 0), connector);
  ASSERT_EQ(status, 0);
  const auto flow = flowOverIPv4(TransportProtocol::udp, portOf(socket), 443);
  socket = FileDescriptor();
  EXPECT_EQ(identifierOf(flow), "");
}

TEST_P(BorrowedIdentityTest, ADeletedProgram) {
  start();
  Helper helper(registered_);
  EXPECT_EQ(identifierOf(connectFrom(helper)), kRegistered);
  std::filesystem::remove(registered_);
  EXPECT_EQ(identifierOf(connectFrom(helper)), "");
}

TEST_P(BorrowedIdentityTest, AReplacedProgram) {
  start();
  Helper old(registered_);
  Helper unknown(registered_);
  EXPECT_EQ(identifierOf(connectFrom(old)), kRegistered);
  std::filesystem::rename(fake_, registered_);
  EXPECT_EQ(identifierOf(connectFrom(old)), "");
  EXPECT_EQ(identifierOf(connectFrom(unknown)), "");
  expectRegisteredStillWorks();
}

TEST_P(BorrowedIdentityTest, ARunningProgramCoveredByAMount) {
  inPrivateMounts([this] {
    start();
    Helper helper(registered_);
    EXPECT_EQ(identifierOf(connectFrom(helper)), kRegistered);
    ASSERT_TRUE(cover(registered_, fake_));
    EXPECT_EQ(identifierOf(connectFrom(helper)), "");
    ASSERT_EQ(::umount(registered_.c_str()), 0);
    EXPECT_EQ(identifierOf(connectFrom(helper)), kRegistered);
  });
}

TEST_P(BorrowedIdentityTest, AScriptIsItsInterpreter) {
  const std::string script = programs_.write("script", "#!" + fake_ + "\n");
  ASSERT_EQ(::chmod(script.c_str(), 0755), 0);
  registrations_.write("a.json", "{\"" + script + "\": \"" + kRegistered + "\"}");
  start();
  Helper helper(script);
  EXPECT_EQ(identifierOf(connectFrom(helper)), fake_);
}

TEST_P(BorrowedIdentityTest, AMemoryFile) {
  start();
  for (const char* const name : {"registered", "../registered", "x"}) {
    const FileDescriptor memory(::memfd_create(name, MFD_CLOEXEC));
    std::ofstream("/proc/self/fd/" + std::to_string(memory.get()), std::ios::binary)
        << std::ifstream(fake_, std::ios::binary).rdbuf();
    Helper helper("/proc/self/fd/" + std::to_string(memory.get()));
    EXPECT_EQ(identifierOf(connectFrom(helper)), "") << name;
  }
}

// fork(2) with the given process number; fails if it is taken.
pid_t forkAs(pid_t number) {
  clone_args arguments{};
  arguments.exit_signal = SIGCHLD;
  arguments.set_tid = reinterpret_cast<std::uintptr_t>(&number);
  arguments.set_tid_size = 1;
  return static_cast<pid_t>(::syscall(SYS_clone3, &arguments, sizeof arguments));
}

TEST_P(BorrowedIdentityTest, AReusedProcessNumber) {
  start();
  const auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  std::optional<Helper> first;
  first.emplace(fake_, [&socket] { return ::dup2(socket.get(), 5) == 5; });
  ASSERT_EQ(first->ask("reconnect 5"), "done");
  const auto flow = flowOverIPv4(TransportProtocol::udp, portOf(socket), 443);
  EXPECT_EQ(identifierOf(flow), fake_);
  const pid_t number = first->pid();
  first->kill();
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
  const pid_t second = forkAs(number);
  ASSERT_GE(second, 0) << std::strerror(errno);
  if (second == 0) {
    ::dup2(pipe[0], STDIN_FILENO);
    ::dup2(::open("/dev/null", O_WRONLY), STDOUT_FILENO);
    ::execl(registered_.c_str(), registered_.c_str(), nullptr);
    ::_exit(1);
  }
  const std::string link = "/proc/" + std::to_string(second) + "/exe";
  while (std::filesystem::read_symlink(link) != registered_) {
  }
  EXPECT_EQ(second, number);
  EXPECT_EQ(identifierOf(flow), "");
  ::close(pipe[0]);
  ::close(pipe[1]);
  EXPECT_EQ(::waitpid(second, nullptr, 0), second);
}

TEST_P(BorrowedIdentityTest, BytesThatCouldEndAHeaderLine) {
  const std::string odd = copyHelper(programs_, "a\r\nX-Ostravel-App-Id: b\xff ");
  start();
  Helper helper(odd);
  EXPECT_EQ(identifierOf(connectFrom(helper)), programs_.path("a%0D%0AX-Ostravel-App-Id: b%FF%20"));
}

TEST_P(BorrowedIdentityTest, WithoutTracedProgramsTheSocketsHolderIsTheSender) {
  start(ConnectTracer::Detail::processes);
  Helper helper(registered_);
  expectOnlyAndEventually(connectFrom(helper), kRegistered);
  Helper ofUser(registered_, &becomeNobody);
  expectOnlyAndEventually(connectFrom(ofUser), registered_);
  Helper covered(registered_, [this] { return enterPrivateMounts() && cover(registered_, fake_); });
  EXPECT_EQ(source_->identify(packetOf(connectFrom(covered)), 0).identifier, "");
}

TEST_P(BorrowedIdentityTest, WithoutTracedProgramsAHandedOverSocketHasNoSender) {
  start(ConnectTracer::Detail::processes);
  const auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  Helper connector(fake_, [&socket] { return ::dup2(socket.get(), 5) == 5; });
  ASSERT_EQ(connector.ask("reconnect 5"), "done");
  const auto flow = flowOverIPv4(TransportProtocol::udp, portOf(socket), 443);
  expectOnlyAndEventually(flow, fake_);
  connector.kill();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(source_->identify(packetOf(flow), 0).identifier, "");
  }
}

TEST_P(BorrowedIdentityTest, AHungFileSystemDelaysNobody) {
  inPrivateMounts([this] {
    const TemporaryFolder folder;
    HangingFileSystem system(folder.path(), OSTRAVEL_HELPER);
    start();
    Helper known(system.program(), &becomeNobody);
    Helper unknown(system.program(), &becomeNobody);
    Helper neighbour(fake_, &becomeNobody);
    Helper genuine(registered_);
    expectOnlyAndEventually(connectFrom(known), system.program());
    system.hang();
    const auto start = std::chrono::steady_clock::now();
    constexpr int kFlows = 200;
    for (int i = 0; i < kFlows; ++i) {
      EXPECT_EQ(identifierOf(connectFrom(unknown)), "");
      EXPECT_EQ(identifierOf(connectFrom(known)), system.program());
      EXPECT_EQ(identifierOf(connectFrom(neighbour)), fake_);
      EXPECT_EQ(identifierOf(connectFrom(genuine)), kRegistered);
    }
    // Includes one FileLookup::kPatience; the rest is for a busy machine.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  });
}

// A socket in SYN-SENT that no process holds, so that every search scans all processes.
class UnfindableSocket {
 public:
  explicit UnfindableSocket(uid_t user) : socket_(makeSocket(AF_INET, SOCK_DGRAM)) {
    EXPECT_EQ(::fchown(socket_.get(), user, user), 0);
    EXPECT_TRUE(connectTo(socket_, AF_INET, loopbackIPv4(443)));
    flow_ = flowOverIPv4(TransportProtocol::udp, portOf(socket_), 443);
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, channel_.data()), 0);
    EXPECT_TRUE(DescriptorMessage().send(channel_[0], socket_.get()));
    socket_ = FileDescriptor();
  }
  UnfindableSocket(const UnfindableSocket&) = delete;
  UnfindableSocket& operator=(const UnfindableSocket&) = delete;
  ~UnfindableSocket() {
    ::close(channel_[0]);
    ::close(channel_[1]);
  }

  const FlowTuple& flow() const { return flow_; }

 private:
  FileDescriptor socket_;
  FlowTuple flow_;
  std::array<int, 2> channel_{};
};

TEST_P(BorrowedIdentityTest, AFloodOfUnfindableSocketsIsLeftToTheSystem) {
  const UnfindableSocket hidden(kNobody);
  Helper early(fake_);
  const auto earlyFlow = connectFrom(early);
  start();
  int refused = 0;
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 20000; ++i) {
    const auto identification = source_->identify(packetOf(hidden.flow()), 0);
    EXPECT_EQ(identification.identifier, "");
    if (identification.leaveReason) {
      EXPECT_EQ(identification.leaveReason, LeaveReason::searchBudget);
      ++refused;
    }
  }
  const auto elapsed = std::chrono::steady_clock::now() - begin;
  EXPECT_GT(refused, 15000);
  // Far less than that many complete searches take.
  EXPECT_LT(elapsed, 10s);
  expectOnlyAndEventually(earlyFlow, fake_);
}

INSTANTIATE_TEST_SUITE_P(Senders, BorrowedIdentityTest,
                         ::testing::Values(SenderSource::table, SenderSource::systemCalls),
                         [](const auto& source) { return ostravel::testing::nameOf(source); });

}  // namespace
}  // namespace ostravel::linuxplatform
