#include "Platform/Linux/Interception/TranslationTable.h"

#include <libmnl/libmnl.h>
#include <libnftnl/table.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter_ipv4.h>

#include <cstdint>
#include <new>
#include <string>
#include <utility>

#include "Platform/Linux/Kernel/Allocated.h"
#include "Platform/Linux/Kernel/NetfilterRule.h"
#include "Platform/Linux/Kernel/OtherRules.h"
#include "Platform/Linux/Kernel/TableChanges.h"

namespace ostravel::linuxplatform {

using platform::OptionalError;

namespace {

constexpr const char* kTable = TranslationTable::kName;
constexpr const char* kIdleChain = "idle";
constexpr const char* kHideChain = "hide";
constexpr const char* kShowChain = "show";

// Fragments have been put together, and connections are not tracked yet.
constexpr std::int32_t kHidePriority = NF_IP_PRI_RAW - OtherRules::kRawMargin;
constexpr std::int32_t kShowPriority = NF_IP_PRI_RAW + OtherRules::kRawMargin;

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

void addHiding(TableChanges& changes, const PacketMarks& marks) {
  changes.addChain(kHideChain, {"filter", TableChanges::Hook::prerouting, kHidePriority});
  changes.addChain(kShowChain, {"filter", TableChanges::Hook::prerouting, kShowPriority});
  addHidingRules(changes, kHideChain, marks);
  addHidingRules(changes, kShowChain, marks);
}

TableChanges makeChanges(const PacketMarks& marks, bool hidesAnswers) {
  TableChanges changes(kTable);
  // The chain makes the kernel translate; the rule makes it track.
  changes.addChain(kIdleChain, {"nat", TableChanges::Hook::output, NF_IP_PRI_NAT_DST});
  changes.add("conntrack rule", NetfilterRule(kTable, kIdleChain).notNewConnection().accept());
  if (hidesAnswers) {
    addHiding(changes, marks);
  }
  return changes;
}

OptionalError commit(TableChanges changes, mnl_socket* socket) {
  if (const auto failure = changes.batch().commit(socket)) {
    return platform::systemCallError(failure->error, std::string("nftables table inet ") + kTable);
  }
  return std::nullopt;
}

}  // namespace

platform::Result<std::unique_ptr<TranslationTable>> TranslationTable::install(
    std::shared_ptr<mnl_socket> socket, const PacketMarks& marks, bool hidesAnswers) {
  if (!socket) {
    auto opened = openNetfilterSocket();
    if (!opened) {
      return std::move(opened).error();
    }
    socket = *std::move(opened);
  }
  if (auto error = commit(makeChanges(marks, hidesAnswers), socket.get())) {
    return *std::move(error);
  }
  return std::unique_ptr<TranslationTable>(
      new TranslationTable(std::move(socket), marks, hidesAnswers));
}

OptionalError TranslationTable::hideAnswers() {
  TableChanges changes = TableChanges::ofExisting(kTable);
  addHiding(changes, marks_);
  auto error = commit(std::move(changes), socket_.get());
  hidesAnswers_ = !error;
  return error;
}

std::string TranslationTable::script(const PacketMarks& marks) {
  return makeChanges(marks, true).script();
}

TranslationTable::TranslationTable(std::shared_ptr<mnl_socket> socket, const PacketMarks& marks,
                                   bool hidesAnswers)
    : socket_(std::move(socket)), marks_(marks), hidesAnswers_(hidesAnswers) {}

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
