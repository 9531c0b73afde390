#include "Platform/Linux/Kernel/TableChanges.h"

#include <libmnl/libmnl.h>
#include <libnftnl/chain.h>
#include <libnftnl/rule.h>
#include <libnftnl/set.h>
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <memory>
#include <utility>

#include "Platform/Linux/Kernel/Allocated.h"

namespace ostravel::linuxplatform {

namespace {

constexpr std::uint32_t kTableOwnerFlag = 0x2;  // NFT_TABLE_F_OWNER, newer than some headers

using TableHandle = std::unique_ptr<nftnl_table, decltype(&::nftnl_table_free)>;
using ChainHandle = std::unique_ptr<nftnl_chain, decltype(&::nftnl_chain_free)>;
using RuleHandle = std::unique_ptr<nftnl_rule, decltype(&::nftnl_rule_free)>;
using SetHandle = std::unique_ptr<nftnl_set, decltype(&::nftnl_set_free)>;

struct KernelHook {
  std::uint32_t number;
  const char* name;
};

KernelHook kernelHook(TableChanges::Hook hook) {
  switch (hook) {
    case TableChanges::Hook::prerouting:
      return {NF_INET_PRE_ROUTING, "prerouting"};
    case TableChanges::Hook::input:
      return {NF_INET_LOCAL_IN, "input"};
    case TableChanges::Hook::output:
      break;
  }
  return {NF_INET_LOCAL_OUT, "output"};
}

}  // namespace

TableChanges::TableChanges(const char* name) : table_(name) {
  const TableHandle table(allocated(::nftnl_table_alloc()), &::nftnl_table_free);
  requireCopied(::nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, table_));
  ::nftnl_table_set_u32(table.get(), NFTNL_TABLE_FAMILY, NFPROTO_INET);
  ::nftnl_table_set_u32(table.get(), NFTNL_TABLE_FLAGS, kTableOwnerFlag);
  script_ = std::string("add table inet ") + table_ + " { flags owner; }\n";
  batch_.add(
      "table", NFT_MSG_NEWTABLE, NFPROTO_INET, NLM_F_CREATE | NLM_F_EXCL,
      [&table](nlmsghdr* header) { ::nftnl_table_nlmsg_build_payload(header, table.get()); });
}

TableChanges TableChanges::ofExisting(const char* name) {
  return {name, Existing()};
}

void TableChanges::removeChain(const char* name) {
  const RuleHandle rules(allocated(::nftnl_rule_alloc()), &::nftnl_rule_free);
  requireCopied(::nftnl_rule_set_str(rules.get(), NFTNL_RULE_TABLE, table_));
  requireCopied(::nftnl_rule_set_str(rules.get(), NFTNL_RULE_CHAIN, name));
  batch_.add(std::string("rules of chain ") + name, NFT_MSG_DELRULE, NFPROTO_INET, 0,
             [&rules](nlmsghdr* header) { ::nftnl_rule_nlmsg_build_payload(header, rules.get()); });
  const ChainHandle chain(allocated(::nftnl_chain_alloc()), &::nftnl_chain_free);
  requireCopied(::nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, table_));
  requireCopied(::nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name));
  batch_.add(
      std::string("chain ") + name, NFT_MSG_DELCHAIN, NFPROTO_INET, 0,
      [&chain](nlmsghdr* header) { ::nftnl_chain_nlmsg_build_payload(header, chain.get()); });
}

void TableChanges::addChain(const char* name, const Base* base) {
  const ChainHandle chain(allocated(::nftnl_chain_alloc()), &::nftnl_chain_free);
  requireCopied(::nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, table_));
  requireCopied(::nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name));
  std::string definition;
  if (base != nullptr) {
    const KernelHook hook = kernelHook(base->hook);
    requireCopied(::nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, base->type));
    ::nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, hook.number);
    ::nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, base->priority);
    ::nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
    definition = std::string("{ type ") + base->type + " hook " + hook.name + " priority " +
                 std::to_string(base->priority) + "; policy accept; }";
  }
  say(std::string("chain ") + name, definition);
  batch_.add(
      std::string("chain ") + name, NFT_MSG_NEWCHAIN, NFPROTO_INET, NLM_F_CREATE,
      [&chain](nlmsghdr* header) { ::nftnl_chain_nlmsg_build_payload(header, chain.get()); });
}

void TableChanges::add(std::string change, const ExpiringSet& set) {
  const bool isDynamic = set.maximumCount != 0;
  say(std::string("set ") + set.name,
      std::string("{ type ") + set.typeName + "; flags timeout" +
          (isDynamic ? ", dynamic; size " + std::to_string(set.maximumCount) : "") + "; timeout " +
          std::to_string(set.timeoutMilliseconds) + "ms; }");
  const SetHandle handle(allocated(::nftnl_set_alloc()), &::nftnl_set_free);
  requireCopied(::nftnl_set_set_str(handle.get(), NFTNL_SET_TABLE, table_));
  requireCopied(::nftnl_set_set_str(handle.get(), NFTNL_SET_NAME, set.name));
  ::nftnl_set_set_u32(handle.get(), NFTNL_SET_FAMILY, NFPROTO_INET);
  ::nftnl_set_set_u32(handle.get(), NFTNL_SET_ID, set.id);
  ::nftnl_set_set_u32(handle.get(), NFTNL_SET_KEY_TYPE, set.type);
  ::nftnl_set_set_u32(handle.get(), NFTNL_SET_KEY_LEN, set.elementSize);
  ::nftnl_set_set_u32(handle.get(), NFTNL_SET_FLAGS,
                      isDynamic ? NFT_SET_TIMEOUT | NFT_SET_EVAL : NFT_SET_TIMEOUT);
  if (isDynamic) {
    ::nftnl_set_set_u32(handle.get(), NFTNL_SET_DESC_SIZE, set.maximumCount);
  }
  ::nftnl_set_set_u64(handle.get(), NFTNL_SET_TIMEOUT, set.timeoutMilliseconds);
  batch_.add(
      std::move(change), NFT_MSG_NEWSET, NFPROTO_INET, NLM_F_CREATE,
      [&handle](nlmsghdr* header) { ::nftnl_set_nlmsg_build_payload(header, handle.get()); });
}

void TableChanges::add(std::string change, const NetfilterRule& rule) {
  say(std::string("rule ") + ::nftnl_rule_get_str(rule.get(), NFTNL_RULE_CHAIN), rule.text());
  batch_.add(std::move(change), NFT_MSG_NEWRULE, NFPROTO_INET, NLM_F_CREATE | NLM_F_APPEND,
             [&rule](nlmsghdr* header) { ::nftnl_rule_nlmsg_build_payload(header, rule.get()); });
}

void TableChanges::say(const std::string& what, const std::string& definition) {
  const auto space = what.find(' ');
  script_ += "add " + what.substr(0, space) + " inet " + table_ + what.substr(space) +
             (definition.empty() ? "" : " " + definition) + "\n";
}

}  // namespace ostravel::linuxplatform
