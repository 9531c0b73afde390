#include "Platform/Linux/Interception/TranslationTable.h"

#include <libmnl/libmnl.h>
#include <libnftnl/chain.h>
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter_ipv4.h>

#include <cstdint>
#include <fstream>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/Kernel/Allocated.h"
#include "Platform/Linux/Kernel/NetfilterRule.h"
#include "Platform/Linux/Kernel/TableChanges.h"

namespace ostravel::linuxplatform {

namespace {

constexpr const char* kTable = TranslationTable::kName;
constexpr const char* kIdleChain = "idle";
constexpr const char* kHideChain = "hide";
constexpr const char* kShowChain = "show";

// Fragments have been put together, and connections are not tracked yet.
constexpr std::int32_t kHidePriority = NF_IP_PRI_RAW - 10;
constexpr std::int32_t kShowPriority = NF_IP_PRI_RAW + 10;

// Undoes itself when it is applied again.
void addHidingRules(TableChanges& changes, const char* chain, const PacketMarks& marks) {
  for (const auto family : {AddressFamily::ipv4, AddressFamily::ipv6}) {
    // What the listeners' sockets send, and resets, which the kernel may send without a socket.
    changes.add("hiding rule", NetfilterRule(kTable, chain)
                                   .throughLoopback()
                                   .markOtherThan(marks.mask(), 0)
                                   .protocol(TransportProtocol::tcp)
                                   .destinationNotLoopback(family)
                                   .flipDestination(family)
                                   .accept());
    changes.add("hiding rule", NetfilterRule(kTable, chain)
                                   .throughLoopback()
                                   .resetOfTCP()
                                   .destinationNotLoopback(family)
                                   .flipDestination(family)
                                   .accept());
  }
}

int noteFilter(const nlmsghdr* header, void* isThere) {
  const std::unique_ptr<nftnl_chain, decltype(&::nftnl_chain_free)> chain(
      allocated(::nftnl_chain_alloc()), &::nftnl_chain_free);
  if (::nftnl_chain_nlmsg_parse(header, chain.get()) == 0 &&
      ::nftnl_chain_is_set(chain.get(), NFTNL_CHAIN_PRIO) &&
      ::nftnl_chain_get_u32(chain.get(), NFTNL_CHAIN_HOOKNUM) == NF_INET_PRE_ROUTING) {
    const std::int32_t priority = ::nftnl_chain_get_s32(chain.get(), NFTNL_CHAIN_PRIO);
    *static_cast<bool*>(isThere) |= kHidePriority < priority && priority < kShowPriority;
  }
  return MNL_CB_OK;
}

// True if another program has rules at the priority raw, and in doubt.
bool areThereFilters() {
  std::ifstream legacyTables("/proc/net/ip_tables_names");
  for (std::string name; std::getline(legacyTables, name);) {
    if (name == "raw") {
      return true;
    }
  }
  const auto socket = openNetfilterSocket();
  if (!socket) {
    return true;
  }
  std::vector<char> buffer(std::size_t{32} * 1024);
  const nlmsghdr* const request =
      ::nftnl_chain_nlmsg_build_hdr(buffer.data(), NFT_MSG_GETCHAIN, NFPROTO_UNSPEC, NLM_F_DUMP, 1);
  if (::mnl_socket_sendto(socket->get(), request, request->nlmsg_len) < 0) {
    return true;
  }
  bool isThere = false;
  while (true) {
    const auto size = ::mnl_socket_recvfrom(socket->get(), buffer.data(), buffer.size());
    const int result =
        size <= 0 ? MNL_CB_ERROR
                  : ::mnl_cb_run(buffer.data(), static_cast<std::size_t>(size), 1,
                                 ::mnl_socket_get_portid(socket->get()), noteFilter, &isThere);
    if (result <= MNL_CB_STOP) {
      return isThere || result == MNL_CB_ERROR;
    }
  }
}

TableChanges makeChanges(const PacketMarks& marks, bool doesHide) {
  TableChanges changes(kTable);
  // The chain makes the kernel translate; the rule makes it track.
  changes.addChain(kIdleChain, {"nat", TableChanges::Hook::output, NF_IP_PRI_NAT_DST});
  changes.add("conntrack rule", NetfilterRule(kTable, kIdleChain).notNewConnection().accept());
  if (!doesHide) {
    return changes;
  }
  changes.addChain(kHideChain, {"filter", TableChanges::Hook::prerouting, kHidePriority});
  changes.addChain(kShowChain, {"filter", TableChanges::Hook::prerouting, kShowPriority});
  addHidingRules(changes, kHideChain, marks);
  addHidingRules(changes, kShowChain, marks);
  return changes;
}

}  // namespace

platform::Result<std::unique_ptr<TranslationTable>> TranslationTable::install(
    std::shared_ptr<mnl_socket> socket, const PacketMarks& marks) {
  if (!socket) {
    auto opened = openNetfilterSocket();
    if (!opened) {
      return std::move(opened).error();
    }
    socket = *std::move(opened);
  }
  if (const auto failure = makeChanges(marks, areThereFilters()).batch().commit(socket.get())) {
    return platform::systemCallError(failure->error, std::string("nftables table inet ") + kName);
  }
  return std::unique_ptr<TranslationTable>(new TranslationTable(std::move(socket)));
}

std::string TranslationTable::script(const PacketMarks& marks) {
  return makeChanges(marks, true).script();
}

TranslationTable::TranslationTable(std::shared_ptr<mnl_socket> socket)
    : socket_(std::move(socket)) {}

TranslationTable::~TranslationTable() {
  // If memory runs out, the kernel removes the table when the socket is closed.
  try {
    remove();
  } catch (const std::bad_alloc&) {
  }
}

void TranslationTable::remove() {
  const std::unique_ptr<nftnl_table, decltype(&::nftnl_table_free)> table(
      allocated(::nftnl_table_alloc()), &::nftnl_table_free);
  requireCopied(::nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, kName));
  NetfilterBatch batch;
  batch.add("table", NFT_MSG_DELTABLE, NFPROTO_INET, 0,
            [&table](nlmsghdr* header) { ::nftnl_table_nlmsg_build_payload(header, table.get()); });
  [[maybe_unused]] const auto failure = batch.commit(socket_.get());
}

}  // namespace ostravel::linuxplatform
