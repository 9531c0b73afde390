#include "Platform/Linux/Tracing/ConnectPublisher.h"

#include <bpf/bpf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "Platform/Linux/Kernel/SocketDiagnostics.h"
#include "Tests/Platform/Linux/Support/AlteredSockets.h"
#include "Tests/Platform/Linux/Support/Helper.h"
#include "Tests/Platform/Linux/Support/PrivateMounts.h"
#include "Tests/Platform/Linux/Support/SYNCapture.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"
#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

constexpr std::uint16_t kProxyPort = 8080;
constexpr int kNetworkCookieOption = 71;  // SO_NETNS_COOKIE, newer than some headers

// Runs body in another process; the test fails unless it returns true there.
void inChild(const std::function<bool()>& body) {
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::_exit(body() && !::testing::Test::HasFailure() ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

bool dropCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
  return ::syscall(SYS_capset, &header, none.data()) == 0;
}

// The descriptor among ours of the map with this name.
int mapNamed(const char* name) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int descriptor = std::stoi(entry.path().filename());
    bpf_map_info information{};
    std::uint32_t size = sizeof information;
    if (::bpf_obj_get_info_by_fd(descriptor, &information, &size) == 0 &&
        std::filesystem::read_symlink(entry.path()) == "anon_inode:bpf-map" &&
        std::strcmp(information.name, name) == 0) {
      return descriptor;
    }
  }
  return -1;
}

class ConnectPublisherTest : public ::testing::Test {
 protected:
  void start(std::optional<PacketMarks> marks = std::nullopt) {
    auto tracer = ConnectTracer::start();
    ASSERT_TRUE(tracer) << tracer.error().localizedDescription;
    tracer_ = *std::move(tracer);
    auto publisher = ConnectPublisher::start(*tracer_, kProxyPort, marks);
    ASSERT_TRUE(publisher) << publisher.error().localizedDescription;
    publisher_ = *std::move(publisher);
  }

  std::optional<PublishedConnect> find(const FlowTuple& flow) {
    return publisher_->table().find(flow, capture_.sequenceOf(flow));
  }

  FlowTuple connectFrom(Helper& helper) { return testing::connectFrom(helper, listener_); }

  FlowTuple flowOf(const FileDescriptor& socket) const {
    return flowOverIPv4(TransportProtocol::tcp, portOf(socket), portOf(listener_));
  }

  FileDescriptor connect() const {
    FileDescriptor socket = makeSocket(AF_INET, SOCK_STREAM);
    EXPECT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(portOf(listener_))));
    return socket;
  }

  // Connections in the same set of the table.
  std::vector<FlowTuple> connectInOneSet(std::size_t count) {
    std::vector<FlowTuple> flows;
    std::optional<std::size_t> set;
    constexpr std::uint16_t kFirstPort = 10000;
    for (std::uint16_t port = kFirstPort; flows.size() < count; ++port) {
      const FlowTuple flow = flowOverIPv4(TransportProtocol::tcp, port, portOf(listener_));
      const auto its = publisher_->table().setOf(flow);
      if (!set.has_value() || *set == its) {
        connectFromPort(port);
        flows.push_back(flow);
        set = its;
      }
    }
    return flows;
  }

  void connectFromPort(std::uint16_t port) {
    FileDescriptor& socket = sockets_.emplace_back(makeSocket(AF_INET, SOCK_STREAM));
    ASSERT_TRUE(bindTo(socket, AF_INET, loopbackIPv4(port)));
    ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(portOf(listener_))));
  }

  // The table, writable.
  ConnectTable::Set* mapSets() {
    void* const sets = ::mmap(nullptr, ConnectTable::kSets * sizeof(ConnectTable::Set),
                              PROT_READ | PROT_WRITE, MAP_SHARED, mapNamed("connects"), 0);
    EXPECT_NE(sets, MAP_FAILED);
    return static_cast<ConnectTable::Set*>(sets);
  }

  SYNCapture capture_;
  const FileDescriptor listener_ = makeListener();
  std::vector<FileDescriptor> sockets_;
  std::unique_ptr<ConnectTracer> tracer_;
  std::unique_ptr<ConnectPublisher> publisher_;
};

TEST_F(ConnectPublisherTest, PublishesTheSender) {
  start();
  const auto listener6 = makeSocket(AF_INET6, SOCK_STREAM);
  ASSERT_EQ(::listen(listener6.get(), 16), 0);
  const auto diagnostics = SocketDiagnostics::open();
  ASSERT_TRUE(diagnostics);
  const struct {
    int family;
    SocketEndpoint destination;
  } cases[] = {{AF_INET, loopbackIPv4(portOf(listener_))},
               {AF_INET6, loopbackIPv6(portOf(listener6))},
               {AF_INET6, loopbackIPv4(portOf(listener_))}};
  for (const auto& [family, destination] : cases) {
    const auto socket = makeSocket(family, SOCK_STREAM);
    ASSERT_TRUE(connectTo(socket, family, destination));
    FlowTuple flow{TransportProtocol::tcp, destination, destination};
    flow.source.port = portOf(socket);
    const auto found = find(flow);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->record, tracer_->recordOf(cookieOf(socket)));
    EXPECT_EQ(found->record.process, ::getpid());
    EXPECT_EQ(found->cookie, cookieOf(socket));
    EXPECT_NE(found->place, 0U);
    const auto known = *(*diagnostics)->find(flow, 0);
    ASSERT_TRUE(known);
    EXPECT_EQ(found->socketUser, known->uid);
    EXPECT_EQ(found->boundInterface, known->boundInterface);
    EXPECT_EQ(found->cgroup, known->cgroup);
  }
}

TEST_F(ConnectPublisherTest, PublishesTheUserOfTheSocketAndItsInterface) {
  start();
  const auto socket = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_EQ(::fchown(socket.get(), 65534, 65534), 0);
  constexpr char kInterface[] = "lo";
  ASSERT_EQ(::setsockopt(socket.get(), SOL_SOCKET, SO_BINDTODEVICE, kInterface, sizeof kInterface),
            0);
  ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(portOf(listener_))));
  const auto found = find(flowOf(socket));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->socketUser, 65534U);
  EXPECT_EQ(found->boundInterface, 1U);
  EXPECT_EQ(found->record.user, 0U);
}

TEST_F(ConnectPublisherTest, AnotherConnectionWithTheSameAddressesIsNotFound) {
  start();
  const auto socket = connect();
  const auto flow = flowOf(socket);
  const auto sequence = capture_.sequenceOf(flow);
  EXPECT_TRUE(publisher_->table().find(flow, sequence));
  EXPECT_FALSE(publisher_->table().find(flow, sequence + 1));
}

TEST_F(ConnectPublisherTest, DoesNotKnowEarlierConnects) {
  const auto socket = connect();
  start();
  EXPECT_FALSE(find(flowOf(socket)));
}

TEST_F(ConnectPublisherTest, DoesNotKnowASocketThatAnotherProcessConnected) {
  start();
  // With this setting the first data sends the SYN (tcp(7), TCP_FASTOPEN_CONNECT).
  std::ofstream("/proc/sys/net/ipv4/tcp_fastopen") << 0x5;
  const auto makeDeferred = [] {
    constexpr int kOn = 1;
    auto socket = makeSocket(AF_INET, SOCK_STREAM);
    EXPECT_EQ(::setsockopt(socket.get(), IPPROTO_TCP, TCP_FASTOPEN_CONNECT, &kOn, sizeof kOn), 0);
    return socket;
  };
  const auto own = makeDeferred();
  ASSERT_TRUE(connectTo(own, AF_INET, loopbackIPv4(portOf(listener_))));
  EXPECT_FALSE(publisher_->table().findSocket(cookieOf(own)));
  ASSERT_EQ(::send(own.get(), "x", 1, 0), 1);
  EXPECT_TRUE(find(flowOf(own)));

  const auto handedOver = makeDeferred();
  inChild([&] { return connectTo(handedOver, AF_INET, loopbackIPv4(portOf(listener_))); });
  ASSERT_EQ(::send(handedOver.get(), "x", 1, 0), 1);
  EXPECT_FALSE(find(flowOf(handedOver)));
}

TEST_F(ConnectPublisherTest, LeavesOutSocketsWithOurMarks) {
  const PacketMarks marks;
  start(marks);
  // This process plays the extension, whose sockets are marked when they connect.
  EXPECT_FALSE(find(flowOf(connect())));
  const TemporaryFolder folder;
  Helper helper(copyHelper(folder, "program"));
  EXPECT_TRUE(find(connectFrom(helper)));

  const auto foreign = makeSocket(AF_INET, SOCK_STREAM);
  const std::uint32_t mark = ~marks.mask();
  ASSERT_EQ(::setsockopt(foreign.get(), SOL_SOCKET, SO_MARK, &mark, sizeof mark), 0);
  inChild([&] { return connectTo(foreign, AF_INET, loopbackIPv4(portOf(listener_))); });
  EXPECT_TRUE(find(flowOf(foreign)));
}

TEST_F(ConnectPublisherTest, DoesNotKnowThePathsThatTheKernelAddsToAConnection) {
  start();
  ASSERT_EQ(std::system("ip mptcp limits set subflow 1 && "
                        "ip mptcp endpoint add 127.0.0.2 dev lo subflow"),
            0);
  const auto makeMPTCPSocket = [] {
    return FileDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_MPTCP));
  };
  const auto listener = makeMPTCPSocket();
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  const auto socket = makeMPTCPSocket();
  ASSERT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(portOf(listener))));
  const FileDescriptor accepted(::accept(listener.get(), nullptr, nullptr));
  ASSERT_EQ(::send(accepted.get(), "x", 1, 0), 1);

  const auto first = find(flowOverIPv4(TransportProtocol::tcp, portOf(socket), portOf(listener)));
  ASSERT_TRUE(first);
  EXPECT_EQ(first->record.process, ::getpid());
  const auto added = capture_.waitForFlowFrom({AddressFamily::ipv4, {127, 0, 0, 2}, 0});
  ASSERT_TRUE(added);
  EXPECT_FALSE(find(*added));
}

TEST_F(ConnectPublisherTest, DoesNotKnowAProcessThatHasExecutedAnotherProgram) {
  start();
  const TemporaryFolder folder;
  Helper helper(copyHelper(folder, "first"));
  const auto flow = connectFrom(helper);
  EXPECT_TRUE(find(flow));
  ASSERT_EQ(helper.ask("run " + copyHelper(folder, "second")), "ready");
  EXPECT_FALSE(find(flow));
  EXPECT_TRUE(find(connectFrom(helper)));
}

TEST_F(ConnectPublisherTest, IgnoresOtherNetworks) {
  start();
  inChild([this] {
    if (::unshare(CLONE_NEWNET) != 0) {
      return false;
    }
    const auto socket = makeSocket(AF_INET, SOCK_STREAM);
    // There is no interface that is up.
    connectTo(socket, AF_INET, loopbackIPv4(80));
    return !publisher_->table().findSocket(cookieOf(socket));
  });
}

// The programs of all publishers see the connects of all networks.
TEST_F(ConnectPublisherTest, ThoseOfTwoNetworksKnowOnlyTheirOwnConnects) {
  start();
  inChild([this] {
    if (::unshare(CLONE_NEWNET) != 0 || std::system("ip link set lo up") != 0) {
      return false;
    }
    auto tracer = ConnectTracer::start();
    auto other = tracer ? ConnectPublisher::start(**tracer, kProxyPort)
                        : platform::Result<std::unique_ptr<ConnectPublisher>>(tracer.error());
    if (!other) {
      return false;
    }
    const auto listener = makeListener();
    const auto socket = makeSocket(AF_INET, SOCK_STREAM);
    EXPECT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(portOf(listener))));
    EXPECT_TRUE((*other)->table().findSocket(cookieOf(socket)));
    EXPECT_FALSE(publisher_->table().findSocket(cookieOf(socket)));
    // The listener of this network's proxy is not the other's.
    const auto before = publisher_->listener().changes();
    auto proxy = makeSocket(AF_INET, SOCK_STREAM);
    EXPECT_TRUE(bindTo(proxy, AF_INET, loopbackIPv4(kProxyPort)));
    EXPECT_EQ(::listen(proxy.get(), 1), 0);
    const auto ownBefore = (*other)->listener().changes();
    proxy = FileDescriptor();
    EXPECT_NE((*other)->listener().changes(), ownBefore);
    EXPECT_EQ(publisher_->listener().changes(), before);
    return true;
  });
  EXPECT_TRUE(find(flowOf(connect())));
}

TEST_F(ConnectPublisherTest, NewEntriesReplaceTheOldestOfTheirSet) {
  start();
  const auto flows = connectInOneSet(2 * ConnectTable::kWays + 1);
  const auto firstKnown = flows.size() - ConnectTable::kWays;
  for (std::size_t i = 0; i < flows.size(); ++i) {
    EXPECT_EQ(find(flows[i]).has_value(), i >= firstKnown) << i;
  }
}

TEST_F(ConnectPublisherTest, ASetThatIsBeingWrittenTakesNoEntry) {
  start();
  ConnectTable::Set* const sets = mapSets();
  constexpr std::uint16_t kPort = 10000;
  const auto flow = flowOverIPv4(TransportProtocol::tcp, kPort, portOf(listener_));
  for (auto& slot : sets[publisher_->table().setOf(flow)]) {
    slot.sequence += 1;
  }
  connectFromPort(kPort);
  EXPECT_FALSE(find(flow));
  for (auto& slot : sets[publisher_->table().setOf(flow)]) {
    EXPECT_EQ(slot.sequence % 2, 1U);
  }
}

TEST_F(ConnectPublisherTest, SequenceNumbersMayWrap) {
  start();
  ConnectTable::Set* const sets = mapSets();
  const auto first = connectInOneSet(1).at(0);
  for (auto& slot : sets[publisher_->table().setOf(first)]) {
    slot.sequence = std::numeric_limits<std::uint64_t>::max() - 1;
  }
  sockets_.clear();
  std::uint16_t port = first.source.port;
  for (int i = 0; i < 20;) {
    ++port;
    const auto flow = flowOverIPv4(TransportProtocol::tcp, port, portOf(listener_));
    if (publisher_->table().setOf(flow) == publisher_->table().setOf(first)) {
      connectFromPort(port);
      EXPECT_TRUE(find(flow)) << i;
      ++i;
    }
  }
}

// While the place is the same, nothing about the file has to be looked up again.
TEST_F(ConnectPublisherTest, ThePlaceChangesWithTheFile) {
  start();
  const TemporaryFolder folder;
  const std::string program = copyHelper(folder, "program");
  const auto placeOf = [this](Helper& helper) {
    const auto found = find(connectFrom(helper));
    EXPECT_TRUE(found);
    return found ? found->place : 0;
  };
  std::filesystem::create_directories(folder.path("a/b"));
  std::filesystem::rename(program, folder.path("a/b/program"));
  Helper helper(folder.path("a/b/program"));
  const auto place = placeOf(helper);
  EXPECT_NE(place, 0U);
  EXPECT_EQ(placeOf(helper), place);
  std::set<std::uint64_t> places{place};

  std::filesystem::rename(folder.path("a/b/program"), folder.path("a/b/other"));
  EXPECT_TRUE(places.insert(placeOf(helper)).second);
  std::filesystem::rename(folder.path("a/b/other"), folder.path("a/b/program"));
  EXPECT_EQ(placeOf(helper), place);

  std::filesystem::rename(folder.path("a"), folder.path("c"));
  EXPECT_TRUE(places.insert(placeOf(helper)).second);
  std::filesystem::rename(folder.path("c"), folder.path("a"));
  EXPECT_EQ(placeOf(helper), place);

  std::filesystem::remove(folder.path("a/b/program"));
  EXPECT_TRUE(places.insert(placeOf(helper)).second);
}

TEST_F(ConnectPublisherTest, ThePlaceChangesWhenAnotherFileReplacesIt) {
  start();
  const TemporaryFolder folder;
  const std::string program = copyHelper(folder, "program");
  Helper helper(program);
  const auto before = find(connectFrom(helper));
  std::filesystem::rename(copyHelper(folder, "new"), program);
  const auto after = find(connectFrom(helper));
  ASSERT_TRUE(before && after);
  EXPECT_NE(before->place, after->place);
}

TEST_F(ConnectPublisherTest, ThePlaceChangesWithEveryMount) {
  inPrivateMounts([this] {
    start();
    const TemporaryFolder folder;
    Helper helper(copyHelper(folder, "program"));
    const auto before = find(connectFrom(helper));
    ASSERT_EQ(::mount("tmpfs", folder.path().c_str(), "tmpfs", 0, nullptr), 0);
    const auto covered = find(connectFrom(helper));
    ASSERT_EQ(::umount(folder.path().c_str()), 0);
    const auto after = find(connectFrom(helper));
    ASSERT_TRUE(before && covered && after);
    EXPECT_NE(before->place, covered->place);
    EXPECT_NE(covered->place, after->place);
  });
}

TEST_F(ConnectPublisherTest, ThePlaceIncludesTheFoldersAboveAMount) {
  inPrivateMounts([this] {
    start();
    const TemporaryFolder folder;
    std::filesystem::create_directories(folder.path("a/mount"));
    ASSERT_EQ(::mount("tmpfs", folder.path("a/mount").c_str(), "tmpfs", 0, nullptr), 0);
    std::filesystem::copy_file(OSTRAVEL_HELPER, folder.path("a/mount/program"));
    Helper helper(folder.path("a/mount/program"));
    const auto before = find(connectFrom(helper));
    std::filesystem::rename(folder.path("a"), folder.path("b"));
    const auto after = find(connectFrom(helper));
    ASSERT_TRUE(before && after);
    EXPECT_NE(before->place, after->place);
    ASSERT_EQ(::umount2(folder.path("b/mount").c_str(), MNT_DETACH), 0);
  });
}

TEST_F(ConnectPublisherTest, AFileInMemoryHasNoPlace) {
  start();
  const FileDescriptor memory(::memfd_create("program", MFD_CLOEXEC));
  std::ofstream("/proc/self/fd/" + std::to_string(memory.get()), std::ios::binary)
      << std::ifstream(OSTRAVEL_HELPER, std::ios::binary).rdbuf();
  Helper helper("/proc/self/fd/" + std::to_string(memory.get()));
  const auto found = find(connectFrom(helper));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->place, 0U);
}

TEST_F(ConnectPublisherTest, NoticesANewListenerOnTheProxysPort) {
  start();
  const auto watch = publisher_->listener();
  const auto before = watch.changes();
  const auto other = makeListener();
  const auto socket = makeSocket(AF_INET6, SOCK_STREAM);
  ASSERT_TRUE(bindTo(socket, AF_INET6, loopbackIPv6(kProxyPort)));
  EXPECT_EQ(watch.changes(), before);
  ASSERT_EQ(::listen(socket.get(), 1), 0);
  EXPECT_NE(watch.changes(), before);
}

TEST_F(ConnectPublisherTest, NoticesTheEndOfAListenerOnTheProxysPort) {
  start();
  const auto watch = publisher_->listener();
  auto other = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(bindTo(other, AF_INET, loopbackIPv4(kProxyPort + 1)));
  ASSERT_EQ(::listen(other.get(), 1), 0);
  auto proxy = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(bindTo(proxy, AF_INET, loopbackIPv4(kProxyPort)));
  ASSERT_EQ(::listen(proxy.get(), 1), 0);
  const auto before = watch.changes();
  const auto client = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(connectTo(client, AF_INET, loopbackIPv4(kProxyPort)));
  FileDescriptor accepted(::accept(proxy.get(), nullptr, nullptr));
  ASSERT_TRUE(accepted.isOpen());
  accepted = FileDescriptor();
  other = FileDescriptor();
  EXPECT_EQ(watch.changes(), before);
  proxy = FileDescriptor();
  EXPECT_NE(watch.changes(), before);
}

TEST_F(ConnectPublisherTest, NoticesThatAListenerOnTheProxysPortIsShutDown) {
  start();
  const auto watch = publisher_->listener();
  const auto proxy = makeSocket(AF_INET, SOCK_STREAM);
  ASSERT_TRUE(bindTo(proxy, AF_INET, loopbackIPv4(kProxyPort)));
  ASSERT_EQ(::listen(proxy.get(), 1), 0);
  const auto before = watch.changes();
  ASSERT_EQ(::shutdown(proxy.get(), SHUT_RD), 0);
  EXPECT_NE(watch.changes(), before);
}

TEST_F(ConnectPublisherTest, NoticesTheEndOfTheWatchedProcess) {
  start();
  Helper watched;
  Helper other;
  const auto watch = publisher_->listener();
  watch.watch(watched.pid());
  const auto before = watch.changes();
  other.kill();
  EXPECT_EQ(watch.changes(), before);
  watched.kill();
  EXPECT_NE(watch.changes(), before);
}

TEST_F(ConnectPublisherTest, SaysWhyItIsNotPossible) {
  auto tracer = ConnectTracer::start();
  ASSERT_TRUE(tracer);
  inChild([&tracer] {
    if (!dropCapabilities()) {
      return false;
    }
    const auto started = ConnectPublisher::start(**tracer, kProxyPort);
    const std::string reason = started ? "" : started.error().localizedDescription;
    return reason.find("not permitted") != std::string::npos &&
           reason.find('\n') == std::string::npos;
  });
}

// Neither may start and be silent, or mark sockets that it has not seen marked.
TEST_F(ConnectPublisherTest, DoesNotStartIfTheKernelSaysTooLittle) {
  const PacketMarks marks;
  for (const int option : {SO_COOKIE, kNetworkCookieOption}) {
    for (const SocketAlteration& alteration : incompleteAnswers(sizeof(std::uint64_t))) {
      const AlteredSockets altered([&](const SocketQuestion& question, const SocketAnswer& truth) {
        const bool isIt = question.call == SocketQuestion::Call::option &&
                          question.level == SOL_SOCKET && question.option == option;
        return isIt ? std::optional(alteration.alter(truth)) : std::nullopt;
      });
      auto tracer = ConnectTracer::start();
      EXPECT_EQ(static_cast<bool>(tracer), option == kNetworkCookieOption) << alteration.name;
      EXPECT_FALSE(tracer && ConnectPublisher::start(**tracer, kProxyPort, marks))
          << alteration.name;
    }
  }
  start(marks);
}

TEST_F(ConnectPublisherTest, NeedsATracerOfPrograms) {
  auto tracer = ConnectTracer::start(ConnectTracer::Detail::processes);
  ASSERT_TRUE(tracer);
  EXPECT_FALSE(ConnectPublisher::start(**tracer, kProxyPort));
}

TEST_F(ConnectPublisherTest, NeedsALoopbackInterface) {
  auto tracer = ConnectTracer::start();
  ASSERT_TRUE(tracer);
  inChild([&tracer] {
    return ::unshare(CLONE_NEWNET) == 0 && !ConnectPublisher::start(**tracer, kProxyPort);
  });
}

TEST_F(ConnectPublisherTest, SeveralAreIndependent) {
  start();
  auto other = ConnectPublisher::start(*tracer_, kProxyPort);
  ASSERT_TRUE(other);
  const auto socket = connect();
  const auto flow = flowOf(socket);
  EXPECT_TRUE(find(flow));
  EXPECT_TRUE((*other)->table().find(flow, capture_.sequenceOf(flow)));
}

}  // namespace
}  // namespace ostravel::linuxplatform
