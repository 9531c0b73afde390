#include "Platform/Linux/Tracing/SocketMarker.h"

#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "Platform/Linux/Tracing/ConnectPublisher.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

constexpr std::uint16_t kProxyPort = 8080;

int optionOf(const FileDescriptor& socket, int level, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  EXPECT_EQ(::getsockopt(socket.get(), level, option, &value, &size), 0);
  return value;
}

std::uint32_t markOf(const FileDescriptor& socket) {
  return static_cast<std::uint32_t>(optionOf(socket, SOL_SOCKET, SO_MARK));
}

class SocketMarkerTest : public ::testing::Test {
 protected:
  void start(std::optional<PacketMarks> marks = PacketMarks()) {
    tracer_ = *ConnectTracer::start();
    auto publisher = ConnectPublisher::start(*tracer_, kProxyPort, marks);
    ASSERT_TRUE(publisher) << publisher.error().localizedDescription;
    publisher_ = *std::move(publisher);
  }

  // Runs body in another process, whose sockets are marked if it succeeds in marking itself.
  void inProxy(const std::function<void()>& body) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      EXPECT_TRUE(markOwnProcess());
      body();
      ::_exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }

  bool markOwnProcess() const {
    const auto socket = connect(AF_INET);
    const auto record = tracer_->recordOf(cookieOf(socket));
    return record &&
           publisher_->marker().mark(cookieOf(socket), *record, publisher_->listener().changes());
  }

  FileDescriptor connect(int family, int type = SOCK_STREAM, std::uint32_t mark = 0) const {
    FileDescriptor socket = makeSocket(family, type);
    EXPECT_EQ(::setsockopt(socket.get(), SOL_SOCKET, SO_MARK, &mark, sizeof mark), 0);
    EXPECT_TRUE(connectTo(socket, family, loopbackIPv4(portOf(listener_))));
    return socket;
  }

  const PacketMarks marks_{};
  const FileDescriptor listener_ = makeListener();
  std::unique_ptr<ConnectTracer> tracer_;
  std::unique_ptr<ConnectPublisher> publisher_;
};

TEST_F(SocketMarkerTest, MarksTheSocketsOfAProcess) {
  start();
  inProxy([this] {
    EXPECT_EQ(markOf(connect(AF_INET)), marks_.own());
    EXPECT_EQ(markOf(connect(AF_INET6)), marks_.own());
    EXPECT_EQ(markOf(connect(AF_INET, SOCK_DGRAM)), marks_.own());
    // Other options are changed only on our own sockets.
    EXPECT_EQ(optionOf(connect(AF_INET), IPPROTO_TCP, TCP_NODELAY), 0);
  });
}

TEST_F(SocketMarkerTest, KeepsMarksThatTheProgramHasChosen) {
  start();
  inProxy([this] {
    EXPECT_EQ(markOf(connect(AF_INET, SOCK_STREAM, 0x5)), marks_.own() | 0x5);
    EXPECT_EQ(markOf(connect(AF_INET, SOCK_STREAM, marks_.refuse())), marks_.refuse());
  });
}

TEST_F(SocketMarkerTest, DoesNotMarkChildren) {
  start();
  inProxy([this] {
    const pid_t child = ::fork();
    if (child == 0) {
      ::_exit(markOf(connect(AF_INET)) == 0 ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(markOf(connect(AF_INET)), marks_.own());
  });
}

TEST_F(SocketMarkerTest, DoesNotMarkAfterAUserChange) {
  start();
  inProxy([this] {
    EXPECT_EQ(::seteuid(65534), 0);
    const auto socket = makeSocket(AF_INET, SOCK_STREAM);
    EXPECT_TRUE(connectTo(socket, AF_INET, loopbackIPv4(portOf(listener_))));
    EXPECT_EQ(markOf(socket), 0U);
  });
}

TEST_F(SocketMarkerTest, DoesNotMarkOnceTheListenerMayHaveChanged) {
  start();
  inProxy([this] {
    const auto listener = makeSocket(AF_INET, SOCK_STREAM);
    EXPECT_TRUE(bindTo(listener, AF_INET, loopbackIPv4(kProxyPort)));
    EXPECT_EQ(::listen(listener.get(), 1), 0);
    EXPECT_EQ(markOf(connect(AF_INET)), 0U);
    EXPECT_TRUE(markOwnProcess());
    EXPECT_EQ(markOf(connect(AF_INET)), marks_.own());
    publisher_->listener().noteChange();
    EXPECT_EQ(markOf(connect(AF_INET)), 0U);
  });
}

TEST_F(SocketMarkerTest, DoesNotMarkInOtherNetworks) {
  start();
  inProxy([] {
    EXPECT_EQ(::unshare(CLONE_NEWNET), 0);
    const auto socket = makeSocket(AF_INET, SOCK_STREAM);
    // There is no interface that is up.
    connectTo(socket, AF_INET, loopbackIPv4(80));
    EXPECT_EQ(markOf(socket), 0U);
  });
}

TEST_F(SocketMarkerTest, RefusesAProcessThatIsNotTheSocketsSender) {
  start();
  const auto socket = connect(AF_INET);
  auto record = tracer_->recordOf(cookieOf(socket));
  ASSERT_TRUE(record);
  const auto changes = publisher_->listener().changes();
  EXPECT_TRUE(publisher_->marker().mark(cookieOf(socket), *record, changes));
  ++record->startTime;
  EXPECT_FALSE(publisher_->marker().mark(cookieOf(socket), *record, changes));
  EXPECT_FALSE(publisher_->marker().mark(cookieOf(listener_), *record, changes));
}

TEST_F(SocketMarkerTest, ForgetsAProcessThatHasEnded) {
  start();
  inProxy([] {});
  std::uint32_t process = 0;
  bool isFound = false;
  for (int descriptor = 0; descriptor < 256; ++descriptor) {
    bpf_map_info information{};
    std::uint32_t size = sizeof information;
    if (::bpf_obj_get_info_by_fd(descriptor, &information, &size) == 0 &&
        std::string_view(information.name) == "marked") {
      isFound = true;
      EXPECT_NE(::bpf_map_get_next_key(descriptor, nullptr, &process), 0);
    }
  }
  EXPECT_TRUE(isFound);
}

TEST_F(SocketMarkerTest, PresetsTheSocketsOfThisProcess) {
  start();
  EXPECT_TRUE(publisher_->presetsOwnSockets());
  const auto socket = connect(AF_INET);
  EXPECT_EQ(markOf(socket), marks_.own());
  EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_NODELAY), 1);
  EXPECT_EQ(markOf(connect(AF_INET, SOCK_STREAM, marks_.redirect(0))), marks_.redirect(0));
  EXPECT_EQ(markOf(connect(AF_INET6, SOCK_DGRAM)), marks_.own());
}

TEST_F(SocketMarkerTest, ChangesNothingUnlessAsked) {
  start(std::nullopt);
  EXPECT_FALSE(publisher_->presetsOwnSockets());
  const auto socket = connect(AF_INET);
  EXPECT_EQ(markOf(socket), 0U);
  EXPECT_EQ(optionOf(socket, IPPROTO_TCP, TCP_NODELAY), 0);
  inProxy([this] { EXPECT_EQ(markOf(connect(AF_INET)), 0U); });
}

}  // namespace
}  // namespace ostravel::linuxplatform
