// What the kernel sends to each of our netlink sockets, with any content: nothing outside of a
// datagram is read, and one that is truncated teaches nothing new.
//
// The first byte of an input selects a reader, the others are a script (ScriptedNetlink).

#include <linux/netfilter_ipv4.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Linux/Kernel/ConntrackEntries.h"
#include "Platform/Linux/Kernel/OtherRules.h"
#include "Platform/Linux/Kernel/PacketLog.h"
#include "Platform/Linux/Kernel/PacketParser.h"
#include "Platform/Linux/Kernel/PacketQueue.h"
#include "Platform/Linux/Kernel/RoutingRules.h"
#include "Platform/Linux/Kernel/SocketDiagnostics.h"
#include "Platform/Linux/Kernel/TableChanges.h"
#include "Tests/Fuzz/FuzzInput.h"
#include "Tests/Fuzz/ScriptedNetlink.h"

namespace {

using namespace ostravel::linuxplatform;
using ostravel::fuzz::require;
using ostravel::fuzz::ScriptedNetlink;

// What a reader reports for certain. That something failed or is unknown is no fact.
using Facts = std::multiset<std::string>;

const SocketEndpoint kLocal{AddressFamily::ipv4, {127, 0, 0, 1}, 40000};
const SocketEndpoint kRemote{AddressFamily::ipv4, {127, 0, 0, 1}, 8000};
const FlowTuple kFlow{TransportProtocol::tcp, kLocal, kRemote};

std::string textOf(const SocketEndpoint& endpoint) {
  return endpoint.addressText() + " " + std::to_string(endpoint.port);
}

Facts lookUpSockets() {
  Facts facts;
  const auto diagnostics = SocketDiagnostics::open();
  if (!diagnostics) {
    return facts;
  }
  const auto note = [&facts](const std::string& what, const SocketDiagnostics::Answer& answer) {
    if (!answer) {
      return;
    }
    const auto& socket = *answer;
    facts.insert(socket ? what + " " + std::to_string(socket->inode) + " " +
                              std::to_string(socket->cookie) + " " + std::to_string(socket->uid) +
                              " " + std::to_string(socket->cgroup) + " " +
                              std::to_string(socket->boundInterface) + " " +
                              std::to_string(socket->state)
                        : "no " + what);
  };
  note("socket", (*diagnostics)->find(kFlow, 0));
  note("datagram socket", (*diagnostics)->find({TransportProtocol::udp, kLocal, kRemote}, 2));
  note("listener", (*diagnostics)->findListener(kRemote));
  return facts;
}

Facts changeConntrack() {
  Facts facts;
  ConntrackEntries entries;
  for (const auto& error : {entries.remove(kFlow), entries.allowReopening(kFlow)}) {
    if (!error) {
      facts.insert("changed");
    } else if (error->code == ENOENT) {
      facts.insert("there is no entry");
    }
  }
  if (const auto usage = entries.usage()) {
    facts.insert(std::to_string(usage->count) + " of " + std::to_string(usage->limit));
  }
  return facts;
}

Facts listRedirections() {
  Facts facts;
  ConntrackEntries().removeDeadRedirections([&facts](const SocketEndpoint& endpoint) {
    require(endpoint.family == AddressFamily::ipv6 || endpoint.address[0] == 127,
            "a redirection is to a loopback address");
    facts.insert(textOf(endpoint));
    return true;
  });
  return facts;
}

Facts changeTable() {
  const auto socket = openNetfilterSocket();
  if (!socket) {
    return {};
  }
  TableChanges changes("fuzzed");
  changes.addChain("out", {"filter", TableChanges::Hook::output, NF_IP_PRI_FILTER});
  changes.add("rule", NetfilterRule("fuzzed", "out").protocol(TransportProtocol::udp).accept());
  const auto failure = changes.batch().commit(socket->get());
  require(!failure || failure->error > 0, "a failure has a reason");
  return failure ? Facts() : Facts{"changed"};
}

Facts findOtherRules() {
  Facts facts;
  OtherRules rules;
  require(rules.mayHaveChanged(), "what has never been read may have changed");
  if (!rules.mayHaveChanged()) {
    facts.insert("unchanged");
  }
  const auto found = rules.find();
  if (!found.onOutput) {
    facts.insert("no rule for outgoing packets");
  }
  if (!found.atRaw) {
    facts.insert("no rule at raw");
  }
  return facts;
}

Facts readRoutingRules() {
  Facts facts;
  for (const std::string& clash : RoutingRules::read().clashesWith(PacketMarks())) {
    // Which bits are free depends on all rules.
    facts.insert(clash.substr(0, clash.find(": ")));
  }
  return facts;
}

template <typename Packet>
std::string describe(const Packet& packet) {
  const auto first = parseFirstPacket(packet.bytes);
  return (packet.uid ? std::to_string(*packet.uid) : "nobody") + " " +
         std::to_string(packet.outputInterface) + " " +
         std::string(reinterpret_cast<const char*>(packet.bytes.data()), packet.bytes.size()) +
         (first ? " to " + textOf(first->tuple.destination) : "");
}

Facts receiveQueued() {
  Facts facts;
  const auto queue = PacketQueue::open();
  if (!queue) {
    return facts;
  }
  std::set<std::uint32_t> delivered;
  auto received = PacketQueue::Received::some;
  while (received == PacketQueue::Received::some) {
    received = (*queue)->receive([&](const PacketQueue::Packet& packet) {
      require(delivered.insert(packet.id).second, "a packet that is held is delivered once");
      facts.insert(std::to_string(packet.id) + " " + std::to_string(packet.mark) + " " +
                   describe(packet));
    });
  }
  require((*queue)->heldCount() == delivered.size(), "every packet waits for its verdict");
  (*queue)->acceptAll();
  require((*queue)->heldCount() == 0, "every packet gets its verdict");
  return facts;
}

Facts receiveCopies() {
  Facts facts;
  const auto log = PacketLog::open();
  if (!log) {
    return facts;
  }
  while ((*log)->receive([&facts](const PacketLog::Packet& packet) {
    require(packet.isOutgoing || !packet.uid, "only outgoing packets have a user");
    facts.insert((packet.isOutgoing ? "out " : "in ") + describe(packet));
  })) {
  }
  return facts;
}

constexpr std::array kReaders = {&lookUpSockets, &changeConntrack, &listRedirections,
                                 &changeTable,   &findOtherRules,  &readRoutingRules,
                                 &receiveQueued, &receiveCopies};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const auto reader = kReaders[data[0] % kReaders.size()];
  const auto readWith = [reader](const std::vector<ScriptedNetlink::Answer>& script, char fill) {
    const ScriptedNetlink kernel(script, fill);
    return reader();
  };
  auto script = ScriptedNetlink::parse({reinterpret_cast<const char*>(data) + 1, size - 1});
  const Facts facts = readWith(script, '\0');
  require(readWith(script, '\x5A') == facts, "nothing outside of a datagram is read");
  if (script.empty() || script.back().bytes.empty()) {
    return 0;
  }
  // At a different place for each input, and never so that a message loses only its padding.
  std::string& last = script.back().bytes;
  last.resize(size * 2654435761U % last.size() / 4 * 4);
  const Facts fewer = readWith(script, '\x5A');
  require(std::includes(facts.begin(), facts.end(), fewer.begin(), fewer.end()),
          "a truncated datagram teaches nothing new");
  return 0;
}
