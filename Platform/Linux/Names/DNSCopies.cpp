#include "Platform/Linux/Names/DNSCopies.h"

#include <arpa/inet.h>  // must precede <linux/in.h> (linux/libc-compat.h)
#include <linux/netfilter.h>
#include <linux/netfilter_ipv4.h>

#include <cerrno>
#include <string>

#include "Platform/Linux/Kernel/NetfilterRule.h"
#include "Platform/Linux/Kernel/TableChanges.h"

namespace ostravel::linuxplatform {

namespace {

constexpr const char* kTable = DNSCopies::kTableName;
constexpr const char* kQueries = "queries";
constexpr const char* kAnswers = "answers";
constexpr std::uint16_t kPort = 53;

// Queries: before address translation. Answers: after translation has been undone, and after every
// filter that might drop the answer.
constexpr std::int32_t kQueriesPriority = NF_IP_PRI_MANGLE;
constexpr std::int32_t kAnswersPriority = NF_IP_PRI_SECURITY + 150;

constexpr const char* kAsking = "asking";
// nft(8) calls this type inet_service.
constexpr std::uint32_t kTypePort = 13;
constexpr std::uint32_t kAllPorts = 65'536;
// How long an answer is awaited.
constexpr std::uint64_t kTimeoutMilliseconds = 10'000;

void addAskingSet(TableChanges& changes) {
  changes.add("set of ports", {.name = kAsking,
                               .id = 1,
                               .type = kTypePort,
                               .typeName = "inet_service",
                               .elementSize = sizeof(std::uint16_t),
                               .timeoutMilliseconds = kTimeoutMilliseconds,
                               .maximumCount = kAllPorts});
}

TableChanges makeChanges(std::uint16_t group) {
  constexpr std::uint32_t kRate = DNSCopies::kPacketsPerSecond;
  TableChanges changes(kTable);
  addAskingSet(changes);
  changes.addChain(kQueries, {"filter", TableChanges::Hook::output, kQueriesPriority});
  changes.addChain(kAnswers, {"filter", TableChanges::Hook::input, kAnswersPriority});
  for (const auto protocol : {TransportProtocol::udp, TransportProtocol::tcp}) {
    NetfilterRule query(kTable, kQueries);
    query.protocol(protocol).destinationPort(kPort).addSourcePort(kAsking);
    changes.add("rule", query.withinRate(kRate, kRate).log(group));
    NetfilterRule answer(kTable, kAnswers);
    answer.protocol(protocol).sourcePort(kPort).destinationPortIn(kAsking);
    changes.add("rule", answer.withinRate(kRate, kRate).log(group));
  }
  return changes;
}

platform::Error explain(const NetfilterBatch::Failure& failure) {
  const std::string table = "nftables table inet " + std::string(kTable);
  if (failure.change == "table" && failure.error == EEXIST) {
    return platform::posixError(EEXIST, "there is already an " + table +
                                            ", which another program has made: if it is not "
                                            "needed, delete it with: nft delete table inet " +
                                            kTable);
  }
  return platform::systemCallError(
      failure.error, "the " + table + " cannot be installed (" + failure.change + ")");
}

}  // namespace

platform::Result<std::unique_ptr<DNSCopies>> DNSCopies::install(std::uint16_t group) {
  auto socket = openNetfilterSocket();
  if (!socket) {
    return std::move(socket).error();
  }
  if (const auto failure = makeChanges(group).batch().commit(socket->get())) {
    return explain(*failure);
  }
  return std::unique_ptr<DNSCopies>(new DNSCopies(*std::move(socket)));
}

platform::OptionalError DNSCopies::examine(std::uint16_t group) {
  const auto socket = openNetfilterSocket();
  if (!socket) {
    return socket.error();
  }
  const auto failure = makeChanges(group).batch().examine(socket->get());
  return failure ? platform::OptionalError(explain(*failure)) : std::nullopt;
}

std::string DNSCopies::script(std::uint16_t group) {
  return makeChanges(group).script();
}

}  // namespace ostravel::linuxplatform
