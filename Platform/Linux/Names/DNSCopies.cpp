#include "Platform/Linux/Names/DNSCopies.h"

#include <arpa/inet.h>  // must precede <linux/in.h> (linux/libc-compat.h)
#include <libmnl/libmnl.h>
#include <libnftnl/set.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter_ipv4.h>

#include <memory>

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

constexpr const char* kAsking = "asking";
// What nft(8) calls inet_service.
constexpr std::uint32_t kTypePort = 13;
constexpr std::uint32_t kAllPorts = 65'536;
// As long as an answer is waited for.
constexpr std::uint64_t kTimeoutMilliseconds = 10'000;

void addAskingSet(TableChanges& changes) {
  constexpr std::uint32_t kSetId = 1;
  using SetHandle = std::unique_ptr<nftnl_set, decltype(&::nftnl_set_free)>;
  changes.say(std::string("set ") + kAsking, "{ type inet_service; flags timeout, dynamic; size " +
                                                 std::to_string(kAllPorts) + "; timeout " +
                                                 std::to_string(kTimeoutMilliseconds) + "ms; }");
  const SetHandle set(::nftnl_set_alloc(), &::nftnl_set_free);
  ::nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, kTable);
  ::nftnl_set_set_str(set.get(), NFTNL_SET_NAME, kAsking);
  ::nftnl_set_set_u32(set.get(), NFTNL_SET_FAMILY, NFPROTO_INET);
  ::nftnl_set_set_u32(set.get(), NFTNL_SET_ID, kSetId);
  ::nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, kTypePort);
  ::nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, sizeof(std::uint16_t));
  ::nftnl_set_set_u32(set.get(), NFTNL_SET_FLAGS, NFT_SET_TIMEOUT | NFT_SET_EVAL);
  ::nftnl_set_set_u32(set.get(), NFTNL_SET_DESC_SIZE, kAllPorts);
  ::nftnl_set_set_u64(set.get(), NFTNL_SET_TIMEOUT, kTimeoutMilliseconds);
  changes.batch().add(
      "set of ports", NFT_MSG_NEWSET, NFPROTO_INET, NLM_F_CREATE,
      [&set](nlmsghdr* header) { ::nftnl_set_nlmsg_build_payload(header, set.get()); });
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

}  // namespace

platform::Result<std::unique_ptr<DNSCopies>> DNSCopies::install(std::uint16_t group) {
  auto socket = openNetfilterSocket();
  if (!socket) {
    return std::move(socket).error();
  }
  if (const auto failure = makeChanges(group).batch().commit(socket->get())) {
    return platform::systemCallError(failure->error,
                                     "the nftables table inet " + std::string(kTable) +
                                         " cannot be installed (" + failure->change + ")");
  }
  return std::unique_ptr<DNSCopies>(new DNSCopies(*std::move(socket)));
}

std::string DNSCopies::script(std::uint16_t group) {
  return makeChanges(group).script();
}

}  // namespace ostravel::linuxplatform
