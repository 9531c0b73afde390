// What becomes of every interface to the kernel that uses netlink when the kernel's answers are
// truncated, too short, altered, repeated, late, lost, unexpected, or replaced by errors: it ends,
// reports nothing that is not true, and works again afterwards.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netfilter_ipv4.h>
#include <linux/netlink.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/Interception/TranslationTable.h"
#include "Platform/Linux/Kernel/ConntrackEntries.h"
#include "Platform/Linux/Kernel/OtherRules.h"
#include "Platform/Linux/Kernel/PacketLog.h"
#include "Platform/Linux/Kernel/PacketParser.h"
#include "Platform/Linux/Kernel/PacketQueue.h"
#include "Platform/Linux/Kernel/RoutingRules.h"
#include "Platform/Linux/Kernel/SocketDiagnostics.h"
#include "Platform/Linux/Kernel/TableChanges.h"
#include "Tests/Platform/Linux/Support/AlteredAnswers.h"
#include "Tests/Platform/Linux/Support/NetworkFixture.h"
#include "Tests/Platform/Linux/Support/SocketTools.h"
#include "Tests/Support/CommandOutput.h"

namespace ostravel::linuxplatform {
namespace {

using testing::AlteredAnswers;
using testing::NetlinkAnswer;
using testing::outputOf;

// What an interface reports, fact by fact; empty if it fails or finds nothing.
using Facts = std::set<std::string>;
using Sent = std::vector<char>;
using Answers = std::vector<NetlinkAnswer>;

constexpr const char* kTable = "offers";

// One interface to the kernel.
class Interface {
 public:
  virtual ~Interface() = default;
  // With the kernel's own answers.
  virtual void prepare() {}
  virtual Facts use() = 0;
  // Alterations are tried at every n-th byte: some interfaces are slow.
  virtual std::size_t stride() const { return 1; }
};

std::string textOf(const SocketEndpoint& endpoint) {
  return endpoint.addressText() + " " + std::to_string(endpoint.port);
}

class Sockets final : public Interface {
 public:
  Sockets() { EXPECT_TRUE(testing::connectTo(socket_, AF_INET, remote_)); }

  Facts use() override {
    Facts facts;
    const auto flow = testing::flowOverIPv4(TransportProtocol::tcp, testing::portOf(socket_),
                                            testing::portOf(listener_));
    note("socket", diagnostics_->find(flow, 0), facts);
    note("listener", diagnostics_->findListener(remote_), facts);
    return facts;
  }

 private:
  static void note(const std::string& what, const SocketDiagnostics::Answer& answer, Facts& facts) {
    if (answer && *answer) {
      facts.insert(what + " " + std::to_string((*answer)->inode) + " " +
                   std::to_string((*answer)->cookie) + " " + std::to_string((*answer)->uid) + " " +
                   std::to_string((*answer)->boundInterface));
    }
  }

  const FileDescriptor listener_ = testing::makeListener();
  const SocketEndpoint remote_ = testing::loopbackIPv4(testing::portOf(listener_));
  const FileDescriptor socket_ = testing::makeSocket(AF_INET, SOCK_STREAM);
  const std::unique_ptr<SocketDiagnostics> diagnostics_ = *SocketDiagnostics::open();
};

class MissingEntry final : public Interface {
 public:
  MissingEntry() {
    outputOf(
        "nft 'add table inet foreign; add chain inet foreign out "
        "{ type filter hook output priority filter; }; add rule inet foreign out ct state new "
        "counter'");
  }

  Facts use() override {
    Facts facts;
    const auto flow = testing::flowOverIPv4(TransportProtocol::tcp, 1, 2);
    for (const auto& error : {entries_.remove(flow), entries_.allowReopening(flow)}) {
      if (!error) {
        facts.insert("an entry that does not exist is changed");
      } else if (error->code == ENOENT) {
        facts.insert("there is no entry");
      }
    }
    return facts;
  }

 private:
  ConntrackEntries entries_;
};

class ConntrackUsage final : public Interface {
 public:
  Facts use() override {
    const auto usage = entries_.usage();
    return usage ? Facts{"limit " + std::to_string(usage->limit)} : Facts();
  }

 private:
  ConntrackEntries entries_;
};

class Redirections final : public Interface {
 public:
  Redirections() {
    outputOf(
        "nft 'add table inet foreign; add chain inet foreign out "
        "{ type nat hook output priority -100; }; add rule inet foreign out "
        "tcp dport 8001 redirect to :8000'");
    const testing::Connecting application("127.0.0.1", 8001);
    EXPECT_EQ(application.connectResult(std::chrono::seconds(20)), 0);
  }

  Facts use() override {
    Facts facts;
    entries_.removeDeadRedirections([&facts](const SocketEndpoint& endpoint) {
      facts.insert("redirected to " + textOf(endpoint));
      return true;
    });
    return facts;
  }
  std::size_t stride() const override { return 13; }

 private:
  const testing::TestListener listener_{"127.0.0.1", 8000};
  ConntrackEntries entries_;
};

class Tables final : public Interface {
 public:
  Facts use() override {
    TableChanges changes(kTable);
    changes.addChain("out", {"filter", TableChanges::Hook::output, NF_IP_PRI_FILTER});
    changes.add("rule", NetfilterRule(kTable, "out").protocol(TransportProtocol::udp).accept());
    return changes.batch().examine(socket_.get()) ? Facts() : Facts{"the table is possible"};
  }
  std::size_t stride() const override { return 3; }

 private:
  const NetlinkSocket socket_ = *openNetfilterSocket();
};

class Translation final : public Interface {
 public:
  Facts use() override {
    return TranslationTable::install(nullptr, PacketMarks(), true) ? Facts{"installed"} : Facts();
  }
  std::size_t stride() const override { return 13; }
};

class Others final : public Interface {
 public:
  Others() {
    outputOf(
        "nft 'add table inet foreign; add chain inet foreign out "
        "{ type filter hook output priority filter; }; add rule inet foreign out counter'");
  }

  Facts use() override {
    rules_.mayHaveChanged();
    return rules_.find().onOutput ? Facts{"there are rules for outgoing packets"} : Facts();
  }
  // Where attributes have their sizes.
  std::size_t stride() const override { return 4; }

 private:
  OtherRules rules_;
};

class Routing final : public Interface {
 public:
  Routing() {
    outputOf(
        "ip -4 rule add priority 100 fwmark 0x2000000/0xff000000 table main && "
        "ip -6 rule add priority 101 fwmark 0x4000000/0xff000000 table main");
  }

  Facts use() override {
    Facts facts;
    for (const std::string& clash : RoutingRules::read().clashesWith(PacketMarks())) {
      // Which bits are free depends on all rules.
      facts.insert(clash.substr(0, clash.find(": ")));
    }
    return facts;
  }
};

template <typename Packet>
void note(const Packet& packet, Facts& facts) {
  // A fact about an attribute that was lost is not one.
  if (packet.uid) {
    facts.insert("user " + std::to_string(*packet.uid));
  }
  if (packet.outputInterface != 0) {
    facts.insert("interface " + std::to_string(packet.outputInterface));
  }
  if (const auto first = parseFirstPacket(packet.bytes)) {
    facts.insert("to " + textOf(first->tuple.destination));
  }
}

// Datagrams that are received, so that none of them causes an error.
class Datagrams {
 public:
  Datagrams() {
    constexpr std::uint16_t kPort = 4000;
    EXPECT_TRUE(testing::bindTo(receiver_, AF_INET, testing::loopbackIPv4(kPort)));
    EXPECT_TRUE(testing::connectTo(sender_, AF_INET, testing::loopbackIPv4(kPort)));
  }

  void send() const { EXPECT_EQ(::send(sender_.get(), "hello", 5, 0), 5); }

 private:
  const FileDescriptor receiver_ = testing::makeSocket(AF_INET, SOCK_DGRAM);
  const FileDescriptor sender_ = testing::makeSocket(AF_INET, SOCK_DGRAM);
};

// Makes a table with one rule for datagrams, which exists as long as the socket; null if the kernel
// does not know the rule.
NetlinkSocket install(const std::function<void(NetfilterRule&)>& complete) {
  TableChanges changes(kTable);
  changes.addChain("out", {"filter", TableChanges::Hook::output, NF_IP_PRI_FILTER});
  NetfilterRule rule(kTable, "out");
  complete(rule.protocol(TransportProtocol::udp));
  changes.add("rule", rule);
  NetlinkSocket socket = *openNetfilterSocket();
  return changes.batch().commit(socket.get()) ? nullptr : std::move(socket);
}

class Queue final : public Interface {
 public:
  void prepare() override {
    const auto number = queue_->number();
    // The kernel drops what it still holds.
    queue_.reset();
    queue_ = *PacketQueue::open();
    if (queue_->number() != number) {
      table_.reset();
      table_ = queueDatagrams();
    }
    datagrams_.send();
  }

  Facts use() override {
    Facts facts;
    std::multiset<std::uint32_t> delivered;
    auto received = PacketQueue::Received::some;
    for (int count = 0; count < 100 && received != PacketQueue::Received::all; ++count) {
      received = queue_->receive([&](const PacketQueue::Packet& packet) {
        EXPECT_EQ(delivered.count(packet.id), 0U) << "a packet is delivered twice";
        delivered.insert(packet.id);
        note(packet, facts);
      });
    }
    EXPECT_EQ(queue_->heldCount(), delivered.size());
    queue_->acceptAll();
    return facts;
  }

 private:
  NetlinkSocket queueDatagrams() const {
    using Statement = NetfilterRule::QueueStatement;
    const auto with = [this](Statement statement) {
      return install(
          [this, statement](NetfilterRule& rule) { rule.queue(queue_->number(), statement); });
    };
    auto native = with(Statement::native);
    return native ? std::move(native) : with(Statement::compatibilityTarget);
  }

  std::unique_ptr<PacketQueue> queue_ = *PacketQueue::open();
  NetlinkSocket table_ = queueDatagrams();
  const Datagrams datagrams_;
};

class Log final : public Interface {
 public:
  void prepare() override { datagrams_.send(); }

  Facts use() override {
    Facts facts;
    while (log_->receive([&facts](const PacketLog::Packet& packet) { note(packet, facts); })) {
    }
    return facts;
  }

 private:
  const std::unique_ptr<PacketLog> log_ = *PacketLog::open();
  const NetlinkSocket table_ = install([this](NetfilterRule& rule) { rule.log(log_->group()); });
  const Datagrams datagrams_;
};

// Opening them needs several answers.
class Subscriptions final : public Interface {
 public:
  Facts use() override {
    Facts facts;
    if (PacketQueue::open()) {
      facts.insert("a queue");
    }
    if (PacketLog::open()) {
      facts.insert("a log");
    }
    return facts;
  }
  std::size_t stride() const override { return 3; }
};

std::unique_ptr<Interface> make(const std::string& name) {
  if (name == "Sockets") {
    return std::make_unique<Sockets>();
  }
  if (name == "MissingEntry") {
    return std::make_unique<MissingEntry>();
  }
  if (name == "ConntrackUsage") {
    return std::make_unique<ConntrackUsage>();
  }
  if (name == "Redirections") {
    return std::make_unique<Redirections>();
  }
  if (name == "Tables") {
    return std::make_unique<Tables>();
  }
  if (name == "Translation") {
    return std::make_unique<Translation>();
  }
  if (name == "Others") {
    return std::make_unique<Others>();
  }
  if (name == "Routing") {
    return std::make_unique<Routing>();
  }
  if (name == "Queue") {
    return std::make_unique<Queue>();
  }
  if (name == "Log") {
    return std::make_unique<Log>();
  }
  return std::make_unique<Subscriptions>();
}

nlmsghdr headerOf(const Sent& sent) {
  nlmsghdr header{};
  std::memcpy(&header, sent.data(), std::min(sizeof header, sent.size()));
  return header;
}

Sent withHeader(Sent sent, const nlmsghdr& header) {
  std::memcpy(sent.data(), &header, std::min(sizeof header, sent.size()));
  return sent;
}

// A message with the sequence number of another one.
Sent messageLike(const Sent& sent, std::uint16_t type, std::size_t payload, int first = 0) {
  nlmsghdr header = headerOf(sent);
  header.nlmsg_type = type;
  header.nlmsg_flags = 0;
  header.nlmsg_len = static_cast<std::uint32_t>(sizeof header + payload);
  Sent message(header.nlmsg_len);
  if (payload >= sizeof first) {
    std::memcpy(message.data() + sizeof header, &first, sizeof first);
  }
  return withHeader(std::move(message), header);
}

class WrongAnswersTest : public ::testing::TestWithParam<const char*> {
 protected:
  WrongAnswersTest() {
    interface_->prepare();
    {
      const AlteredAnswers measured([this](const Sent& sent) {
        longest_ = std::max(longest_, sent.size());
        return Answers{{sent, 0}};
      });
      truth_ = interface_->use();
    }
    EXPECT_FALSE(truth_.empty());
  }

  Facts useWith(const AlteredAnswers::Alter& alter) {
    interface_->prepare();
    const AlteredAnswers altered(alter);
    return interface_->use();
  }

  void expectRecovery(const std::string& alteration) {
    interface_->prepare();
    ASSERT_EQ(interface_->use(), truth_) << "after " << alteration;
  }

  // Only facts that are true, perhaps not all.
  void expectNothingUntrue(const std::string& alteration, const AlteredAnswers::Alter& alter) {
    const Facts facts = useWith(alter);
    ASSERT_TRUE(std::includes(truth_.begin(), truth_.end(), facts.begin(), facts.end()))
        << alteration << ": " << ::testing::PrintToString(facts);
    expectRecovery(alteration);
  }

  std::unique_ptr<Interface> interface_ = make(GetParam());
  std::size_t longest_ = 0;
  Facts truth_;
};

TEST_P(WrongAnswersTest, TruncatedAnswersAreNotBelieved) {
  for (std::size_t size = 0; size < longest_; size += interface_->stride()) {
    expectNothingUntrue("an answer of " + std::to_string(size) + " bytes", [size](Sent sent) {
      sent.resize(std::min(sent.size(), size));
      return Answers{{std::move(sent), 0}};
    });
  }
}

// Complete messages, which are too short for their type. Their sizes are multiples of four, because
// libmnl takes the padding at the end of a message for a part of it.
TEST_P(WrongAnswersTest, ShortMessagesAreNotBelieved) {
  const std::size_t step = NLMSG_ALIGN(interface_->stride());
  for (std::size_t size = sizeof(nlmsghdr); size < longest_; size += step) {
    expectNothingUntrue("a message of " + std::to_string(size) + " bytes", [size](Sent sent) {
      nlmsghdr header = headerOf(sent);
      header.nlmsg_len = std::min(header.nlmsg_len, static_cast<std::uint32_t>(size));
      sent.resize(header.nlmsg_len);
      return Answers{{withHeader(std::move(sent), header), 0}};
    });
  }
}

// What an altered byte says cannot be judged, except that nothing worse may follow from it.
TEST_P(WrongAnswersTest, AlteredBytesHaveNoLastingEffect) {
  for (std::size_t at = 0; at < longest_; at += interface_->stride()) {
    for (const int value : {0, 1, 4, 0x7F, 0xFF}) {
      useWith([at, value](Sent sent) {
        if (at < sent.size()) {
          sent[at] = static_cast<char>(value);
        }
        return Answers{{std::move(sent), 0}};
      });
    }
    expectRecovery("an altered byte " + std::to_string(at));
  }
}

TEST_P(WrongAnswersTest, UnknownAttributesAreSkipped) {
  const auto facts = useWith([](Sent sent) {
    nlmsghdr header = headerOf(sent);
    const bool isOneMessage = NLMSG_ALIGN(header.nlmsg_len) == NLMSG_ALIGN(sent.size());
    if (!isOneMessage || header.nlmsg_type < NLMSG_MIN_TYPE) {
      return Answers{{std::move(sent), 0}};
    }
    sent.resize(NLMSG_ALIGN(header.nlmsg_len));
    for (const std::uint16_t type : std::initializer_list<std::uint16_t>{0x3FFF, 0x3F00, 200}) {
      const nlattr attribute{8, type};
      sent.resize(sent.size() + attribute.nla_len);
      std::memcpy(&sent[sent.size() - attribute.nla_len], &attribute, sizeof attribute);
    }
    header.nlmsg_len = static_cast<std::uint32_t>(sent.size());
    return Answers{{withHeader(std::move(sent), header), 0}};
  });
  EXPECT_EQ(facts, truth_);
}

TEST_P(WrongAnswersTest, RepeatedAnswersAreTheSame) {
  expectNothingUntrue("repeated answers", [](const Sent& sent) {
    return Answers{{sent, 0}, {sent, 0}};
  });
}

TEST_P(WrongAnswersTest, LateAnswersToEarlierRequestsAreNotBelieved) {
  expectNothingUntrue("a late answer", [](const Sent& sent) {
    nlmsghdr header = headerOf(sent);
    header.nlmsg_seq -= header.nlmsg_seq == 0 ? 0 : 1;
    return Answers{{withHeader(sent, header), 0}, {sent, 0}};
  });
}

TEST_P(WrongAnswersTest, MessagesWithoutAnAnswerAreNotBelieved) {
  for (const std::uint16_t type :
       std::initializer_list<std::uint16_t>{NLMSG_NOOP, NLMSG_DONE, NLMSG_OVERRUN, 9, 0xFFFF}) {
    for (const std::size_t payload : {0U, 2U, 4U, 100U}) {
      const auto alteration = "type " + std::to_string(type) + ", " + std::to_string(payload);
      expectNothingUntrue(alteration, [type, payload](const Sent& sent) {
        return Answers{{messageLike(sent, type, payload), 0}, {sent, 0}};
      });
      expectNothingUntrue(alteration + " alone", [type, payload](const Sent& sent) {
        return Answers{{messageLike(sent, type, payload), 0}};
      });
    }
  }
}

TEST_P(WrongAnswersTest, ErrorsOfTheKernelEndARequest) {
  for (const int error : {EPERM, EBUSY, EINVAL, ENOMEM, ENOBUFS, EOPNOTSUPP, -1, 100'000}) {
    expectNothingUntrue("error " + std::to_string(error), [error](const Sent& sent) {
      return Answers{{messageLike(sent, NLMSG_ERROR, sizeof(nlmsgerr), -error), 0}};
    });
  }
  for (const std::size_t payload : {0U, 2U, 4U, 19U}) {
    expectNothingUntrue("a short error", [payload](const Sent& sent) {
      return Answers{{messageLike(sent, NLMSG_ERROR, payload, -EINVAL), 0}};
    });
  }
}

TEST_P(WrongAnswersTest, ErrorsOfReceivingEndARequest) {
  for (const int error : {ENOBUFS, ENOMEM, EINTR, ECONNREFUSED, EAGAIN}) {
    expectNothingUntrue("error " + std::to_string(error), [error](const Sent& /*sent*/) {
      return Answers{{{}, error}};
    });
    expectNothingUntrue("first error " + std::to_string(error), [error](const Sent& sent) {
      return Answers{{{}, error}, {sent, 0}};
    });
  }
}

TEST_P(WrongAnswersTest, AStormOfLostAnswersPasses) {
  expectNothingUntrue("a storm", [](const Sent& sent) {
    Answers answers(20, NetlinkAnswer{{}, ENOBUFS});
    answers.push_back({sent, 0});
    return answers;
  });
  expectNothingUntrue("lost answers", [](const Sent& /*sent*/) { return Answers(); });
  expectNothingUntrue("empty answers", [](const Sent& /*sent*/) { return Answers(3); });
}

INSTANTIATE_TEST_SUITE_P(Interfaces, WrongAnswersTest,
                         ::testing::Values("Sockets", "MissingEntry", "ConntrackUsage",
                                           "Redirections", "Tables", "Translation", "Others",
                                           "Routing", "Queue", "Log", "Subscriptions"),
                         [](const auto& instance) { return std::string(instance.param); });

}  // namespace
}  // namespace ostravel::linuxplatform
