#include "Platform/Linux/Tracing/ConnectTracer.h"

#include <bpf/bpf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "Platform/Linux/Kernel/CgroupRoot.h"
#include "Platform/Linux/Processes/LocalProcessTable.h"
#include "Tests/Platform/Linux/Support/Helper.h"
#include "Tests/Platform/Linux/Support/PrivateProcesses.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"
#include "Tests/Support/TemporaryFolder.h"
#include "Tests/Support/WaitUntil.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

std::unique_ptr<ConnectTracer> startTracer() {
  auto started = ConnectTracer::start();
  if (!started) {
    ADD_FAILURE() << started.error().localizedDescription;
    return nullptr;
  }
  return *std::move(started);
}

std::optional<pid_t> processOf(const ConnectTracer& tracer, std::uint64_t cookie) {
  const auto record = tracer.recordOf(cookie);
  return record ? std::optional(record->process) : std::nullopt;
}

TEST(ConnectTracerTest, RecordsTheConnectingProcess) {
  const auto tracer = startTracer();
  ASSERT_TRUE(tracer);
  const auto listener = makeListener();
  for (const int family : {AF_INET, AF_INET6}) {
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
      const auto socket = makeSocket(family, type);
      EXPECT_FALSE(processOf(*tracer, cookieOf(socket)));
      ASSERT_TRUE(connectTo(socket, family, loopbackIPv4(portOf(listener))));
      EXPECT_EQ(processOf(*tracer, cookieOf(socket)), ::getpid());
    }
  }
  const auto socket = makeSocket(AF_INET6, SOCK_DGRAM);
  ASSERT_TRUE(connectTo(socket, AF_INET6, loopbackIPv6(443)));
  EXPECT_EQ(processOf(*tracer, cookieOf(socket)), ::getpid());
}

TEST(ConnectTracerTest, RecordsTheExecutable) {
  const auto tracer = startTracer();
  ASSERT_TRUE(tracer);
  ASSERT_EQ(tracer->detail(), ConnectTracer::Detail::programs);
  const auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  const TemporaryFolder folder;
  const std::string program = copyHelper(folder, "program");
  const LocalProcessTable processes;
  Helper helper(program, [&socket] { return ::dup2(socket.get(), 5) == 5; });
  ASSERT_EQ(helper.ask("user 65534"), "done");
  ASSERT_EQ(helper.ask("reconnect 5"), "done");
  const auto record = tracer->recordOf(cookieOf(socket));
  ASSERT_TRUE(record);
  // On a busy machine the file system may answer late.
  std::optional<Process> process;
  EXPECT_TRUE(waitUntil([&] {
    process = processes.find(helper.pid(), record->executable);
    return process && process->isExecutableSettled;
  }));
  ASSERT_TRUE(process);
  EXPECT_TRUE(process->isExecutableGenuine);
  EXPECT_EQ(record->process, helper.pid());
  EXPECT_EQ(record->realUser, 65534U);
  EXPECT_EQ(record->user, 65534U);
  EXPECT_EQ(record->startTime, process->stamp.startTime);
  EXPECT_EQ(record->stackStart, process->stamp.stackStart);
}

TEST(ConnectTracerTest, RecordsTheProcessWithoutTracingPrograms) {
  auto started = ConnectTracer::start(ConnectTracer::Detail::processes);
  ASSERT_TRUE(started);
  const auto& tracer = *started;
  EXPECT_EQ(tracer->detail(), ConnectTracer::Detail::processes);
  const auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(443)));
  const auto record = tracer->recordOf(cookieOf(socket));
  ASSERT_TRUE(record);
  EXPECT_EQ(record->process, ::getpid());
  EXPECT_EQ(record->executable, FileIdentity{});
}

TEST(ConnectTracerTest, RecordsASenderThatDoesNotConnect) {
  const auto tracer = startTracer();
  ASSERT_TRUE(tracer);
  const struct {
    int family;
    SocketEndpoint destination;
  } cases[] = {
      {AF_INET, loopbackIPv4(443)}, {AF_INET6, loopbackIPv6(443)}, {AF_INET6, loopbackIPv4(443)}};
  for (const auto& [family, destination] : cases) {
    const auto socket = makeSocket(family, SOCK_DGRAM);
    EXPECT_FALSE(processOf(*tracer, cookieOf(socket)));
    const auto address = kernelAddress(family, destination);
    for (int i = 0; i < 2; ++i) {
      ASSERT_EQ(::sendto(socket.get(), "x", 1, 0, address.get(), address.size), 1);
      EXPECT_EQ(processOf(*tracer, cookieOf(socket)), ::getpid());
    }
  }
}

TEST(ConnectTracerTest, DistinguishesProcessesButNotThreads) {
  const auto tracer = startTracer();
  ASSERT_TRUE(tracer);
  const auto listener = makeListener();
  // Inherited as a descriptor, so that its cookie can be read here.
  const auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  Helper helper(OSTRAVEL_HELPER,
                [&] { return connectTo(socket, AF_INET, loopbackIPv4(portOf(listener))); });
  EXPECT_EQ(processOf(*tracer, cookieOf(socket)), helper.pid());
  std::thread([&] { connectTo(socket, AF_INET, loopbackIPv4(portOf(listener))); }).join();
  EXPECT_EQ(processOf(*tracer, cookieOf(socket)), ::getpid());
}

TEST(ConnectTracerTest, DoesNotKnowEarlierConnects) {
  const auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(443)));
  const auto tracer = startTracer();
  ASSERT_TRUE(tracer);
  EXPECT_FALSE(processOf(*tracer, cookieOf(socket)));
}

TEST(ConnectTracerTest, ForgetsTheOldestFirst) {
  const auto tracer = startTracer();
  ASSERT_TRUE(tracer);
  constexpr int kMoreThanItHolds = 40000;
  const auto first = makeSocket(AF_INET, SOCK_DGRAM);
  ASSERT_TRUE(connectTo(first, AF_INET, loopbackIPv4(443)));
  for (int i = 0; i < kMoreThanItHolds; ++i) {
    const auto socket = makeSocket(AF_INET, SOCK_DGRAM);
    ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(443)));
    ASSERT_EQ(processOf(*tracer, cookieOf(socket)), ::getpid()) << i;
  }
  EXPECT_FALSE(processOf(*tracer, cookieOf(first)));
}

TEST(ConnectTracerTest, SeveralTracersAreIndependent) {
  const auto one = startTracer();
  auto other = startTracer();
  ASSERT_TRUE(one && other);
  const auto socket = makeSocket(AF_INET, SOCK_DGRAM);
  ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(443)));
  EXPECT_EQ(processOf(*one, cookieOf(socket)), ::getpid());
  EXPECT_EQ(processOf(*other, cookieOf(socket)), ::getpid());
  other.reset();
  const auto later = makeSocket(AF_INET, SOCK_DGRAM);
  ASSERT_TRUE(connectTo(later, AF_INET, loopbackIPv4(443)));
  EXPECT_EQ(processOf(*one, cookieOf(later)), ::getpid());
}

// The IDs of the programs in the links that a process holds.
std::set<std::uint32_t> programsOf(pid_t pid) {
  std::set<std::uint32_t> programs;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fdinfo")) {
    std::ifstream text(entry.path());
    bool isLink = false;
    std::string name;
    while (text >> name) {
      isLink = isLink || name == "link_id:";
      std::uint32_t number = 0;
      if (name == "prog_id:" && text >> number && isLink) {
        programs.insert(number);
      }
    }
  }
  return programs;
}

// The IDs of all programs attached to the root control group used by the tracer.
std::set<std::uint32_t> attachedPrograms() {
  const auto root = findCgroupRoot("/proc/self/mounts");
  EXPECT_TRUE(root);
  const FileDescriptor descriptor(::open(root->c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  std::set<std::uint32_t> programs;
  for (const auto type : {BPF_CGROUP_INET4_CONNECT, BPF_CGROUP_INET6_CONNECT,
                          BPF_CGROUP_UDP4_SENDMSG, BPF_CGROUP_UDP6_SENDMSG}) {
    std::array<std::uint32_t, 64> numbers{};
    std::uint32_t count = numbers.size();
    EXPECT_EQ(::bpf_prog_query(descriptor.get(), type, 0, nullptr, numbers.data(), &count), 0);
    programs.insert(numbers.begin(), numbers.begin() + count);
  }
  return programs;
}

bool includesAll(const std::set<std::uint32_t>& all, const std::set<std::uint32_t>& some) {
  return std::includes(all.begin(), all.end(), some.begin(), some.end());
}

// The kernel detaches when it releases the last descriptor, shortly after it was closed.
void expectDetached(const std::set<std::uint32_t>& programs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (true) {
    const auto attached = attachedPrograms();
    const bool isAnyLeft = std::any_of(programs.begin(), programs.end(),
                                       [&](auto program) { return attached.contains(program); });
    if (!isAnyLeft) {
      return;
    }
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    std::this_thread::yield();
  }
}

TEST(ConnectTracerTest, DetachesWhenTheObjectIsDestroyed) {
  auto tracer = startTracer();
  const auto programs = programsOf(::getpid());
  EXPECT_EQ(programs.size(), 4U);
  EXPECT_TRUE(includesAll(attachedPrograms(), programs));
  tracer.reset();
  EXPECT_TRUE(programsOf(::getpid()).empty());
  expectDetached(programs);
}

TEST(ConnectTracerTest, DetachesWhenTheProcessIsKilled) {
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe2(pipe.data(), O_CLOEXEC), 0);
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const auto tracer = ConnectTracer::start();
    const char isStarted = tracer ? 1 : 0;
    if (::write(pipe[1], &isStarted, 1) == 1) {
      ::pause();
    }
    ::_exit(1);
  }
  char isStarted = 0;
  EXPECT_EQ(::read(pipe[0], &isStarted, 1), 1);
  EXPECT_EQ(isStarted, 1);
  const auto programs = programsOf(child);
  EXPECT_EQ(programs.size(), 4U);
  EXPECT_TRUE(includesAll(attachedPrograms(), programs));
  ::kill(child, SIGKILL);
  EXPECT_EQ(::waitpid(child, nullptr, 0), child);
  expectDetached(programs);
  ::close(pipe[0]);
  ::close(pipe[1]);
}

TEST(ConnectTracerTest, SaysWhyTracingIsNotPossible) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
    const bool dropped = ::syscall(SYS_capset, &header, none.data()) == 0;
    const auto started = ConnectTracer::start();
    const std::string reason = started ? "" : started.error().localizedDescription;
    const bool isRight =
        reason.find("not permitted") != std::string::npos && reason.find('\n') == std::string::npos;
    ::_exit(dropped && isRight ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST(ConnectTracerTest, IsNotPossibleInAProcessNamespace) {
  inPrivateProcesses([] {
    const auto started = ConnectTracer::start();
    ASSERT_FALSE(started);
    EXPECT_EQ(started.error().localizedDescription,
              "processes are not seen under the numbers that /proc shows");
  });
}

}  // namespace
}  // namespace ostravel::linuxplatform
