// What becomes of connections when the kernel gives wrong answers about their sockets: each ends or
// is carried, none is taken for another, and the next one is carried.

#include <gtest/gtest.h>

// Before the kernel's own headers, which then leave these definitions out.
#include <netinet/in.h>

#include <linux/netfilter_ipv4.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/Kernel/KernelAddress.h"
#include "Platform/Linux/Relay/RedirectPath.h"
#include "Tests/Platform/Linux/Relay/Support/RelayTest.h"
#include "Tests/Platform/Linux/Support/AlteredSockets.h"

namespace ostravel::linuxplatform::test {
namespace {

using platform::TCPConnectionState;
using testing::AlteredSockets;
using testing::SocketAlteration;
using testing::SocketAnswer;
using testing::SocketQuestion;
using Call = SocketQuestion::Call;

const SocketAlteration kNone{"no alteration", [](const SocketAnswer& truth) { return truth; }};

SocketAnswer answerWith(const char* address, const char* port) {
  const KernelAddress kernel(*parseAddressLiteral({address, port}));
  return {std::string(reinterpret_cast<const char*>(kernel.get()), kernel.size)};
}

// Where the kernel might say that a connection was going.
std::vector<SocketAlteration> otherDestinations() {
  std::vector<SocketAlteration> alterations;
  for (const char* const address : {"127.0.0.1", "192.0.2.1", "255.255.255.255", "::1",
                                    "::", "::ffff:127.0.2.1", "2001:db8::1"}) {
    alterations.push_back(
        {address, [address](const SocketAnswer& /*truth*/) { return answerWith(address, "443"); }});
  }
  alterations.push_back({"port 0", [](SocketAnswer answer) {
                           std::memset(answer.bytes.data() + sizeof(sa_family_t), 0,
                                       sizeof(in_port_t));
                           return answer;
                         }});
  alterations.push_back({"a local socket", [](SocketAnswer answer) {
                           const sa_family_t family = AF_UNIX;
                           std::memcpy(answer.bytes.data(), &family, sizeof family);
                           return answer;
                         }});
  return alterations;
}

// Notes whether its connection has arrived.
class NotingWaiter final : public FlowListener::Waiter {
 public:
  explicit NotingWaiter(const FlowTuple& tuple) : tuple_(tuple) {}

  FlowTuple tuple() const override { return tuple_; }
  const std::string& application() const override { return application_; }
  void accepted(LoopSocket socket) override {
    hasArrived_ = true;
    socket.reset();
  }
  void timedOut() override {}

  bool hasArrived_ = false;

 private:
  const FlowTuple tuple_;
  const std::string application_;
};

// Without a watcher a path stays usable, because nothing would test it again.
class IdleWatcher final : public RedirectPath::Watcher {
 public:
  void connectionIsMissing(unsigned /*loopIndex*/, const FlowTuple& /*tuple*/) override {}
  void connectionWillBeReset(const FlowTuple& /*tuple*/) override {}
  void connectionsCannotBeAccepted(unsigned /*loopIndex*/, AddressFamily /*family*/,
                                   int /*error*/) override {}
};

class WrongSocketAnswersTest : public RelayTest {
 protected:
  WrongSocketAnswersTest() { loops_.redirectPath().setWatcher(watcher_); }

  bool isPathUsable() { return loops_.redirectPath().isUsable(AddressFamily::ipv4); }

  // Makes one connection and waits for its end. True if it was handed over to its flow.
  bool arrives() {
    ApplicationSocket application(kApplicationIPv4);
    const auto waiter = std::make_shared<NotingWaiter>(tupleOf(application.local()));
    onLoop([&] { loop().listener().expect(waiter); });
    if (arrive(application) == 0) {
      application.receiveToEnd();
    }
    return onLoop([&waiter] { return waiter->hasArrived_; });
  }

  bool arrivesWith(const SocketAlteration& alteration) {
    const AlteredSockets altered([&](const SocketQuestion& question, const SocketAnswer& truth) {
      const bool isOriginalDestination = question.call == Call::option &&
                                         question.level == SOL_IP &&
                                         question.option == SO_ORIGINAL_DST;
      return isOriginalDestination ? std::optional(alteration.alter(truth)) : std::nullopt;
    });
    return arrives();
  }

  // Connects to a listener. The kernel does not say at once that it is connected, so that this
  // connection asks again.
  TCPConnectionState connectWith(const SocketQuestion& wrong, const SocketAlteration& alteration) {
    ApplicationSocket listener("127.0.0.1");
    listener.listen();
    std::atomic<int> peerQuestions = 0;
    const AlteredSockets altered([&](const SocketQuestion& question, const SocketAnswer& truth) {
      if (question.call == Call::peerAddress && ++peerQuestions == 1) {
        return std::optional(SocketAnswer{.error = ENOTCONN});
      }
      return question.call == wrong.call && question.option == wrong.option
                 ? std::optional(alteration.alter(truth))
                 : std::nullopt;
    });
    const auto connection = connectTo({"127.0.0.1", std::to_string(listener.local().port)});
    EXPECT_TRUE(eventually([&connection] {
      return connection->state() != TCPConnectionState::connecting;
    })) << alteration.name;
    EXPECT_GE(peerQuestions, 1);
    return connection->state();
  }

 private:
  const std::shared_ptr<IdleWatcher> watcher_ = std::make_shared<IdleWatcher>();
};

TEST_F(WrongSocketAnswersTest, AnUnknownDestinationIsNobodysAndLeavesFlowsAlone) {
  for (const SocketAlteration& alteration : testing::incompleteAnswers(sizeof(sockaddr_in))) {
    EXPECT_FALSE(arrivesWith(alteration)) << alteration.name;
    // An untracked connection is one of many, not a fault of the path.
    EXPECT_EQ(isPathUsable(), alteration.name == "error " + std::to_string(ENOENT))
        << alteration.name;
    loops_.redirectPath().setUsable(AddressFamily::ipv4, true);
    EXPECT_TRUE(arrives()) << "after " << alteration.name;
  }
}

TEST_F(WrongSocketAnswersTest, AnotherDestinationIsNobodys) {
  auto alterations = otherDestinations();
  for (SocketAlteration& wrong : testing::wrongAnswers()) {
    if (wrong.name != "longer") {
      alterations.push_back(std::move(wrong));
    }
  }
  for (const SocketAlteration& alteration : alterations) {
    EXPECT_FALSE(arrivesWith(alteration)) << alteration.name;
    EXPECT_TRUE(arrives()) << "after " << alteration.name;
  }
}

TEST_F(WrongSocketAnswersTest, AConnectionOfWhichTooLittleIsKnownFails) {
  const SocketQuestion pendingError{Call::option, SOL_SOCKET, SO_ERROR};
  for (const SocketAlteration& alteration : testing::incompleteAnswers(sizeof(int))) {
    EXPECT_EQ(connectWith(pendingError, alteration), TCPConnectionState::disconnected)
        << alteration.name;
    EXPECT_EQ(connectWith(pendingError, kNone), TCPConnectionState::connected);
  }
}

TEST_F(WrongSocketAnswersTest, AConnectionWithAnUnknownPeerFails) {
  const SocketQuestion peer{Call::peerAddress};
  for (const int error : {ENOBUFS, EPERM, EINVAL}) {
    const SocketAlteration alteration{
        "error", [error](const SocketAnswer& /*truth*/) { return SocketAnswer{.error = error}; }};
    EXPECT_EQ(connectWith(peer, alteration), TCPConnectionState::disconnected) << error;
    EXPECT_EQ(connectWith(peer, kNone), TCPConnectionState::connected);
  }
}

}  // namespace
}  // namespace ostravel::linuxplatform::test
