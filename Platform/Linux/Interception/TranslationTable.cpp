#include "Platform/Linux/Interception/TranslationTable.h"

#include <libmnl/libmnl.h>
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter_ipv4.h>

#include <new>
#include <utility>

#include "Platform/Linux/Kernel/Allocated.h"
#include "Platform/Linux/Kernel/NetfilterRule.h"
#include "Platform/Linux/Kernel/TableChanges.h"

namespace ostravel::linuxplatform {

namespace {

constexpr const char* kIdleChain = "idle";

}  // namespace

platform::Result<std::unique_ptr<TranslationTable>> TranslationTable::install(
    std::shared_ptr<mnl_socket> socket) {
  TableChanges changes(kName);
  // The chain makes the kernel translate; the rule makes it track.
  changes.addChain(kIdleChain, {"nat", TableChanges::Hook::output, NF_IP_PRI_NAT_DST});
  changes.add("conntrack rule", NetfilterRule(kName, kIdleChain).notNewConnection().accept());
  if (const auto failure = changes.batch().commit(socket.get())) {
    return platform::systemCallError(failure->error, std::string("nftables table inet ") + kName);
  }
  return std::unique_ptr<TranslationTable>(new TranslationTable(std::move(socket)));
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
