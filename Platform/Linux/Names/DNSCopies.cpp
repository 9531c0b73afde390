#include "Platform/Linux/Names/DNSCopies.h"

#include <arpa/inet.h>  // must precede <linux/in.h> (linux/libc-compat.h)
#include <linux/netfilter_ipv4.h>

#include <optional>

#include "Platform/Linux/Kernel/NetfilterRule.h"
#include "Platform/Linux/Kernel/TableChanges.h"

namespace ostravel::linuxplatform {

namespace {

constexpr const char* kTable = DNSCopies::kTableName;
constexpr const char* kQueries = "queries";
constexpr const char* kAnswers = "answers";
constexpr std::uint16_t kPort = 53;

// Before addresses are translated for the query, after they have been translated back for the
// answer, and after every filter that might keep the answer from the application.
constexpr std::int32_t kQueriesPriority = NF_IP_PRI_MANGLE;
constexpr std::int32_t kAnswersPriority = NF_IP_PRI_SECURITY + 150;

// Some kernels cannot limit rates; the table is then installed without limits.
constexpr const char* kLimitedChange = "rule with a limit";

void addCopyRule(TableChanges& changes, NetfilterRule& rule, std::uint16_t group, bool isLimited) {
  if (isLimited) {
    rule.withinRate(DNSCopies::kPacketsPerSecond, DNSCopies::kPacketsPerSecond);
  }
  rule.log(group);
  changes.add(isLimited ? kLimitedChange : "rule", rule);
}

TableChanges makeChanges(std::uint16_t group, bool isLimited) {
  TableChanges changes(kTable);
  changes.addChain(kQueries, {"filter", TableChanges::Hook::output, kQueriesPriority});
  changes.addChain(kAnswers, {"filter", TableChanges::Hook::input, kAnswersPriority});
  for (const auto protocol : {TransportProtocol::udp, TransportProtocol::tcp}) {
    addCopyRule(changes, NetfilterRule(kTable, kQueries).protocol(protocol).destinationPort(kPort),
                group, isLimited);
    // What nobody here has asked for starts a connection.
    addCopyRule(
        changes,
        NetfilterRule(kTable, kAnswers).protocol(protocol).sourcePort(kPort).notNewConnection(),
        group, isLimited);
  }
  return changes;
}

}  // namespace

platform::Result<std::unique_ptr<DNSCopies>> DNSCopies::install(std::uint16_t group) {
  auto socket = openNetfilterSocket();
  if (!socket) {
    return std::move(socket).error();
  }
  auto failure = makeChanges(group, true).batch().commit(socket->get());
  if (failure && failure->change == kLimitedChange) {
    failure = makeChanges(group, false).batch().commit(socket->get());
  }
  if (failure) {
    return platform::systemCallError(failure->error,
                                     "the nftables table inet " + std::string(kTable) +
                                         " cannot be installed (" + failure->change + ")");
  }
  return std::unique_ptr<DNSCopies>(new DNSCopies(*std::move(socket)));
}

std::string DNSCopies::script(std::uint16_t group) {
  return makeChanges(group, true).script();
}

}  // namespace ostravel::linuxplatform
