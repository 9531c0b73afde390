#include "Platform/Linux/Tracing/ArrivalFilter.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <utility>

#include "Platform/Linux/Kernel/SocketOption.h"
#include "Tests/Support/CommandOutput.h"
#include "Tests/Support/TestSocket.h"

namespace ostravel::linuxplatform {
namespace {

using namespace ostravel::testing;

class ArrivalFilterTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    // Makes conntrack track connections.
    outputOf(
        "nft add table inet tracked && "
        "nft add chain inet tracked out '{ type filter hook output priority 0; }' && "
        "nft add rule inet tracked out ct state invalid accept");
    listener_.bindTo(GetParam(), 0);
    ASSERT_EQ(::listen(listener_.descriptor(), 1), 0);
  }

  void filter() {
    const auto filter = ArrivalFilter::load();
    ASSERT_TRUE(filter) << filter.error().localizedDescription;
    const int program = filter->descriptor();
    ASSERT_EQ(
        ::setsockopt(listener_.descriptor(), SOL_SOCKET, SO_ATTACH_BPF, &program, sizeof program),
        0);
  }

  // From this source port, if it is not 0.
  TestSocket connect(std::uint16_t sourcePort = 0) const {
    TestSocket client = TestSocket::makeTcp(GetParam());
    client.bindTo(GetParam(), sourcePort);
    EXPECT_EQ(client.connectTo(GetParam(), listener_.localPort()), 0);
    return client;
  }

  TestSocket accept() const {
    return TestSocket(::accept4(listener_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC));
  }

  // Sends nothing to the peer, whose next packet then finds only the listener, just as it can while
  // the kernel is replacing a connection's socket.
  static void remove(TestSocket accepted) {
    const int on = 1;
    ASSERT_EQ(::setsockopt(accepted.descriptor(), IPPROTO_TCP, TCP_REPAIR, &on, sizeof on), 0);
    accepted.close();
  }

  // How often the socket has sent something again.
  static std::uint32_t repetitions(const TestSocket& socket) {
    const auto info = socketOption<tcp_info>(socket.descriptor(), IPPROTO_TCP, TCP_INFO);
    EXPECT_TRUE(info);
    return info ? info->tcpi_total_retrans : 0;
  }

  const TestSocket listener_ = TestSocket::makeTcp(GetParam());
};

TEST_P(ArrivalFilterTest, WithoutItTheFirstDataIsAnsweredWithAReset) {
  const TestSocket client = connect();
  remove(accept());
  client.send("first");
  EXPECT_TRUE(client.waitForReset());
  EXPECT_EQ(repetitions(client), 0U);
}

TEST_P(ArrivalFilterTest, TheFirstDataIsSentAgain) {
  filter();
  const TestSocket client = connect();
  remove(accept());
  client.send("first");
  // There is no connection the second time either.
  EXPECT_TRUE(client.waitForReset());
  EXPECT_EQ(repetitions(client), 1U);
}

TEST_P(ArrivalFilterTest, AnEndIsSentAgain) {
  filter();
  const TestSocket client = connect();
  remove(accept());
  client.endSending();
  EXPECT_TRUE(client.waitForReset());
  EXPECT_EQ(repetitions(client), 1U);
}

TEST_P(ArrivalFilterTest, LaterDataOfAConnectionThatIsGoneIsAnsweredAtOnce) {
  filter();
  const TestSocket client = connect();
  TestSocket accepted = accept();
  client.send("first");
  EXPECT_EQ(accepted.receive(5), "first");
  remove(std::move(accepted));
  client.send("second");
  EXPECT_TRUE(client.waitForReset());
  EXPECT_EQ(repetitions(client), 0U);
}

TEST_P(ArrivalFilterTest, ConnectionsAreMadeAndUsed) {
  filter();
  std::uint16_t sourcePort = 0;
  for (int count = 0; count < 100; ++count) {
    // Mostly from the port of the last one, whose numbers are remembered.
    TestSocket client = connect(sourcePort);
    sourcePort = client.localPort();
    const TestSocket accepted = accept();
    client.send("question");
    EXPECT_EQ(accepted.receive(8), "question");
    accepted.send("answer");
    EXPECT_EQ(client.receive(6), "answer");
    EXPECT_EQ(repetitions(client) + repetitions(accepted), 0U);
    client.reset();
  }
}

TEST_P(ArrivalFilterTest, DataThatCompletesTheHandshakeArrives) {
  filter();
  const TestSocket client = TestSocket::makeTcp(GetParam());
  // The first send connects; as there is no cookie, its data follows with the acknowledgement.
  const int on = 1;
  ASSERT_EQ(::setsockopt(client.descriptor(), IPPROTO_TCP, TCP_FASTOPEN_CONNECT, &on, sizeof on),
            0);
  ASSERT_EQ(client.connectTo(GetParam(), listener_.localPort()), 0);
  client.send("first");
  const TestSocket accepted = accept();
  EXPECT_EQ(accepted.receive(5), "first");
  EXPECT_EQ(repetitions(client), 0U);
}

INSTANTIATE_TEST_SUITE_P(Families, ArrivalFilterTest, ::testing::Values("127.0.0.1", "::1"),
                         [](const auto& family) {
                           return std::string(family.param) == "::1" ? "IPv6" : "IPv4";
                         });

}  // namespace
}  // namespace ostravel::linuxplatform
