#include "Platform/Linux/Interception/InterceptionTable.h"

#include <arpa/inet.h>  // must precede <linux/in.h> (linux/libc-compat.h)
#include <libmnl/libmnl.h>
#include <libnftnl/set.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter_ipv4.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "Platform/Interface/ProviderError.h"
#include "Platform/Linux/Kernel/Allocated.h"
#include "Platform/Linux/Kernel/KernelAddress.h"
#include "Platform/Linux/Kernel/NetfilterRule.h"
#include "Platform/Linux/Kernel/TableChanges.h"

namespace ostravel::linuxplatform {

using platform::Error;
using platform::NetworkRule;
using platform::NetworkRuleProtocol;
using platform::OptionalError;
using platform::Result;
using platform::TransparentProxyNetworkSettings;

namespace {

constexpr const char* kTable = InterceptionTable::kName;
constexpr const char* kAliveSet = "alive";
constexpr const char* kRatesSet = "rates";
constexpr const char* kOfferChain = "offer";
constexpr const char* kQueueChain = "hold";
constexpr const char* kRefuseChain = "refuse";
constexpr const char* kDivertChain = "divert";
constexpr const char* kRedirectChain = "deliver";

// A mark set before the nat hook is visible there.
constexpr std::int32_t kOfferPriority = NF_IP_PRI_MANGLE;
// firewalld(1) filters at 10, iptables at 0 and, in its table "security", at 50.
constexpr std::int32_t kLateOfferPriority = NF_IP_PRI_SECURITY + 10;
constexpr std::int32_t kDivertPriority = NF_IP_PRI_NAT_DST;

// nft(8) calls these types inet_proto and uid.
constexpr std::uint32_t kTypeInetProtocol = 12;
constexpr std::uint32_t kTypeUser = 24;

// The kernel may reject this change; the table is then installed without it.
constexpr const char* kRateSetChange = "set of rates";
constexpr const char* kRateRuleChange = "rate rule";
constexpr const char* kQueueRuleChange = "queue rule";

using SetHandle = std::unique_ptr<nftnl_set, decltype(&::nftnl_set_free)>;

void addAliveSet(TableChanges& changes) {
  changes.add("set with time-outs", {.name = kAliveSet,
                                     .id = 1,
                                     .type = kTypeInetProtocol,
                                     .typeName = "inet_proto",
                                     .elementSize = 1,
                                     .timeoutMilliseconds = static_cast<std::uint64_t>(
                                         InterceptionTable::kAliveTimeout.count())});
}

// A user's element expires a few seconds after the user's last packet.
void addRatesSet(TableChanges& changes) {
  changes.add(kRateSetChange, {.name = kRatesSet,
                               .id = 2,
                               .type = kTypeUser,
                               .typeName = "uid",
                               .elementSize = sizeof(uid_t),
                               .timeoutMilliseconds = 5000,
                               .maximumCount = 65'535});
}

// A set object with the name of the alive set is enough to delete from and add to that set.
SetHandle makeAliveReference() {
  SetHandle set(allocated(::nftnl_set_alloc()), &::nftnl_set_free);
  requireCopied(::nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, kTable));
  requireCopied(::nftnl_set_set_str(set.get(), NFTNL_SET_NAME, kAliveSet));
  return set;
}

void addAliveElements(NetfilterBatch& batch) {
  const SetHandle set = makeAliveReference();
  for (const auto protocol : std::array<std::uint8_t, 2>{IPPROTO_TCP, IPPROTO_UDP}) {
    nftnl_set_elem* const element = allocated(::nftnl_set_elem_alloc());
    ::nftnl_set_elem_set(element, NFTNL_SET_ELEM_KEY, &protocol, sizeof protocol);
    ::nftnl_set_elem_add(set.get(), element);
  }
  batch.add("set element", NFT_MSG_NEWSETELEM, NFPROTO_INET, NLM_F_CREATE,
            [&set](nlmsghdr* header) { ::nftnl_set_elems_nlmsg_build_payload(header, set.get()); });
}

void removeAliveElements(NetfilterBatch& batch) {
  const SetHandle set = makeAliveReference();
  batch.add("set flush", NFT_MSG_DELSETELEM, NFPROTO_INET, 0,
            [&set](nlmsghdr* header) { ::nftnl_set_elems_nlmsg_build_payload(header, set.get()); });
}

struct TranslatedRule {
  SocketEndpoint network;
  unsigned prefix;
  TransportProtocol protocol;
};

Result<TranslatedRule> translate(const NetworkRule& rule) {
  const auto fail = [&rule](const std::string& reason) {
    return platform::providerError(platform::kInvalidNetworkRuleCode,
                                   "network rule for \"" + rule.destinationNetwork.hostname +
                                       "\" port \"" + rule.destinationNetwork.port +
                                       "\": " + reason);
  };
  if (!SocketEndpoint::atAddress(rule.destinationNetwork.hostname)) {
    return fail("the network is not an address literal");
  }
  const auto network = parseAddressLiteral(rule.destinationNetwork);
  if (!network) {
    return fail("the port is not a number from 1 to 65535");
  }
  if (rule.destinationPrefix > (network->family == AddressFamily::ipv4 ? 32 : 128)) {
    return fail("the prefix is longer than the address");
  }
  return TranslatedRule{
      *network, rule.destinationPrefix,
      rule.protocol == NetworkRuleProtocol::tcp ? TransportProtocol::tcp : TransportProtocol::udp};
}

// Starts a rule of this chain with the tests for the translated destination.
NetfilterRule matchingRule(const char* chain, const TranslatedRule& translated) {
  NetfilterRule rule(kTable, chain);
  rule.protocol(translated.protocol);
  if (translated.prefix == 0) {
    rule.destinationNotLoopback(translated.network.family);
  } else {
    rule.destination(translated.network, translated.prefix);
  }
  rule.destinationPort(translated.network.port);
  return rule;
}

// The settings, translated to the terms of the packet filter.
struct Selection {
  std::vector<TranslatedRule> included;
  std::vector<TranslatedRule> excluded;
};

Result<Selection> translate(const TransparentProxyNetworkSettings& settings) {
  Selection selection;
  const auto translateAll = [](const std::vector<NetworkRule>& rules,
                               std::vector<TranslatedRule>& into) -> OptionalError {
    for (const NetworkRule& rule : rules) {
      auto translated = translate(rule);
      if (!translated) {
        return std::move(translated).error();
      }
      into.push_back(*translated);
    }
    return std::nullopt;
  };
  auto error = translateAll(settings.excludedNetworkRules, selection.excluded);
  if (!error) {
    error = translateAll(settings.includedNetworkRules, selection.included);
  }
  if (error) {
    return *std::move(error);
  }
  return selection;
}

// Most packets do not start a flow; test for those first.
void addRulesForLaterPackets(TableChanges& changes, const char* chain) {
  changes.add("tcp rule", NetfilterRule(kTable, chain).notFirstOfTCP().accept());
  changes.add(
      "conntrack rule",
      NetfilterRule(kTable, chain).protocol(TransportProtocol::udp).notNewConnection().accept());
}

// A relay is not bound to an interface, so it cannot reach link-local destinations. TCP cannot
// connect to a multicast group.
void addRulesForDestinationsWithoutRoute(TableChanges& changes, const char* chain) {
  struct Network {
    SocketEndpoint address;
    unsigned prefix;
  };
  constexpr std::array<Network, 5> kNetworks{{
      {{AddressFamily::ipv4, {169, 254}, 0}, 16},            // link-local (RFC 3927)
      {{AddressFamily::ipv4, {224}, 0}, 4},                  // multicast (RFC 5771)
      {{AddressFamily::ipv4, {255, 255, 255, 255}, 0}, 32},  // broadcast (RFC 919)
      {{AddressFamily::ipv6, {0xfe, 0x80}, 0}, 10},          // link-local (RFC 4291)
      {{AddressFamily::ipv6, {0xff}, 0}, 8},                 // multicast (RFC 4291)
  }};
  for (const Network& network : kNetworks) {
    changes.add("rule",
                NetfilterRule(kTable, chain).destination(network.address, network.prefix).accept());
  }
}

// Matches first packets of the flows that the settings select; all others leave the chain.
// finish(NetfilterRule, protocol) completes the rule for the packets that match.
template <typename Finish>
void addSelection(TableChanges& changes, const char* chain, const std::string& change,
                  const Selection& selection, Finish finish) {
  addRulesForDestinationsWithoutRoute(changes, chain);
  for (const TranslatedRule& excluded : selection.excluded) {
    changes.add("rule", matchingRule(chain, excluded).accept());
  }
  for (const TranslatedRule& included : selection.included) {
    NetfilterRule rule = matchingRule(chain, included);
    finish(rule, included.protocol);
    changes.add(change, rule);
  }
}

// Everything that the table depends on. Used only during the call that received it.
struct Plan {
  const TransparentProxyNetworkSettings& settings;
  const PacketMarks& marks;
  std::uint16_t queueNumber;
  const std::vector<InterceptionTable::ListenerPorts>& listeners;
  InterceptionTable::OfferPoint offerPoint = InterceptionTable::OfferPoint::afterFilters;
  std::uint32_t packetsPerSecond = InterceptionTable::kPacketsPerSecond;

  bool isOfferLate() const { return offerPoint == InterceptionTable::OfferPoint::afterFilters; }
};

void addOfferRules(TableChanges& changes, const Selection& selection, const PacketMarks& marks,
                   bool isLate) {
  addRulesForLaterPackets(changes, kOfferChain);
  // A packet that is refused passes this chain again (PacketQueue::repeatMarked). A base chain of
  // its own would cost every packet of the machine another hook.
  changes.add(
      "jump rule",
      NetfilterRule(kTable, kOfferChain).mark(marks.mask(), marks.refuse()).jump(kRefuseChain));
  // Our own packets, and those of programs that use our mark bits for other purposes.
  changes.add("mark rule",
              NetfilterRule(kTable, kOfferChain).markOtherThan(marks.mask(), 0).accept());
  changes.add("set rule", NetfilterRule(kTable, kOfferChain).protocolNotIn(kAliveSet).accept());
  // A retransmitted SYN, which has had its verdict. If its entry has seen a reply, that belongs to
  // an earlier connection with the same addresses and ports, and the SYN starts a new one.
  changes.add("conntrack rule", NetfilterRule(kTable, kOfferChain)
                                    .protocol(TransportProtocol::tcp)
                                    .trackedWithoutReply()
                                    .accept());
  if (isLate) {
    // The translation belongs to the conntrack entry of this packet; a copy would get a new entry
    // without it.
    changes.add("conntrack rule",
                NetfilterRule(kTable, kOfferChain).destinationTranslated().accept());
  }
  addSelection(changes, kOfferChain, "jump rule", selection,
               [](NetfilterRule& rule, TransportProtocol /*protocol*/) { rule.jump(kQueueChain); });
}

void addRateRule(TableChanges& changes, std::uint32_t perSecond) {
  changes.add(
      kRateRuleChange,
      NetfilterRule(kTable, kQueueChain).userExceedsRate(kRatesSet, perSecond, perSecond).accept());
}

void addRefuseRules(TableChanges& changes, const Selection& selection) {
  addSelection(changes, kRefuseChain, "reject rule", selection,
               [](NetfilterRule& rule, TransportProtocol protocol) {
                 if (protocol == TransportProtocol::tcp) {
                   rule.rejectWithReset();
                 } else {
                   rule.rejectWithPortUnreachable();
                 }
               });
}

// The chains by which packets leave the path of outgoing packets.
void addOfferChains(TableChanges& changes, const Selection& selection, const PacketMarks& marks,
                    bool isLate) {
  const std::int32_t priority = isLate ? kLateOfferPriority : kOfferPriority;
  changes.addChain(kOfferChain, {"filter", TableChanges::Hook::output, priority});
  changes.addChain(kRefuseChain);
  addOfferRules(changes, selection, marks, isLate);
  addRefuseRules(changes, selection);
}

void addDivertRules(TableChanges& changes, const Selection& selection, const PacketMarks& marks,
                    const std::vector<InterceptionTable::ListenerPorts>& listeners) {
  changes.add("mark rule", NetfilterRule(kTable, kDivertChain).mark(marks.mask(), 0).accept());
  addRulesForLaterPackets(changes, kDivertChain);
  addSelection(
      changes, kDivertChain, "jump rule", selection,
      [](NetfilterRule& rule, TransportProtocol /*protocol*/) { rule.jump(kRedirectChain); });
  const auto addRedirect = [&changes, &marks](unsigned loop, AddressFamily family,
                                              std::uint16_t port) {
    if (port != 0) {
      changes.add("redirect rule", NetfilterRule(kTable, kRedirectChain)
                                       .mark(marks.mask(), marks.redirect(loop))
                                       .family(family)
                                       .protocol(TransportProtocol::tcp)
                                       .redirect(port));
    }
  };
  for (unsigned loop = 0; loop < listeners.size(); ++loop) {
    addRedirect(loop, AddressFamily::ipv4, listeners[loop].ipv4);
    addRedirect(loop, AddressFamily::ipv6, listeners[loop].ipv6);
  }
}

// Says what is missing and what to do.
Error explain(const NetfilterBatch::Failure& failure) {
  const auto error = [&failure](std::string description) {
    return platform::posixError(failure.error, std::move(description));
  };
  const std::string reason = std::strerror(failure.error);
  if (failure.change.empty() && failure.error == EPERM) {
    return error(
        "the permission to administer the network (CAP_NET_ADMIN) is missing: run as root");
  }
  if (failure.change == "table" && failure.error == EEXIST) {
    return error(
        "there is already an nftables table inet ostravel, which another program has made: if it "
        "is not needed, delete it with: nft delete table inet ostravel");
  }
  // The kernel lets no other process touch a table that has an owner.
  if (failure.change == "table" && (failure.error == EPERM || failure.error == EBUSY)) {
    return error(
        "another instance is running in this network namespace (it owns the nftables table inet "
        "ostravel): stop it first");
  }
  if (failure.change == "table") {
    return error("the kernel does not take an owned nftables table (" + reason +
                 "): Linux 5.12 or later with nf_tables is needed");
  }
  if (failure.change.empty()) {
    return error("the kernel has no nf_tables (" + reason +
                 "): load the module nf_tables or use a kernel with CONFIG_NF_TABLES_INET");
  }
  return error("the kernel lacks what the nftables " + failure.change + " needs (" + reason +
               "): load the modules nft_queue or xt_NFQUEUE with nft_compat, nft_ct, nft_redir and "
               "nft_reject_inet, or use a kernel that has them");
}

// Netfilter could not be reached at all.
Error explain(const Error& unreachable) {
  return explain(NetfilterBatch::Failure{"", static_cast<int>(unreachable.code)});
}

// Features that some kernels lack.
struct KernelFeatures {
  bool hasQueueExpression = true;
  bool canLimitRates = true;
};

TableChanges makeChanges(const Plan& plan, const Selection& selection,
                         const KernelFeatures& features) {
  TableChanges changes(kTable);
  addAliveSet(changes);
  changes.addChain(kQueueChain);
  if (features.canLimitRates) {
    addRatesSet(changes);
    addRateRule(changes, plan.packetsPerSecond);
  }
  changes.add(
      kQueueRuleChange,
      NetfilterRule(kTable, kQueueChain)
          .queue(plan.queueNumber, features.hasQueueExpression
                                       ? NetfilterRule::QueueStatement::native
                                       : NetfilterRule::QueueStatement::compatibilityTarget));
  addOfferChains(changes, selection, plan.marks, plan.isOfferLate());
  changes.addChain(kDivertChain, {"nat", TableChanges::Hook::output, kDivertPriority});
  changes.addChain(kRedirectChain);
  addDivertRules(changes, selection, plan.marks, plan.listeners);
  addAliveElements(changes.batch());
  return changes;
}

// Finds the features of the kernel with which apply(batch) succeeds.
template <typename Apply>
OptionalError applyToKernel(const Plan& plan, Apply apply) {
  const auto selection = translate(plan.settings);
  if (!selection) {
    return selection.error();
  }
  KernelFeatures features;
  while (true) {
    TableChanges changes = makeChanges(plan, *selection, features);
    const std::optional<NetfilterBatch::Failure> failure = apply(changes.batch());
    if (!failure) {
      return std::nullopt;
    }
    if (failure->change == kQueueRuleChange && features.hasQueueExpression) {
      features.hasQueueExpression = false;
    } else if ((failure->change == kRateSetChange || failure->change == kRateRuleChange) &&
               features.canLimitRates) {
      features.canLimitRates = false;
    } else {
      return explain(*failure);
    }
  }
}

}  // namespace

Result<std::unique_ptr<InterceptionTable>> InterceptionTable::install(
    const TransparentProxyNetworkSettings& settings, const PacketMarks& marks,
    std::uint16_t queueNumber, const std::vector<ListenerPorts>& listeners, OfferPoint offerPoint,
    std::uint32_t packetsPerSecond) {
  auto opened = openNetfilterSocket();
  if (!opened) {
    return explain(opened.error());
  }
  NetlinkSocket socket = *std::move(opened);
  auto error =
      applyToKernel({settings, marks, queueNumber, listeners, offerPoint, packetsPerSecond},
                    [&socket](NetfilterBatch& batch) { return batch.commit(socket.get()); });
  if (error) {
    return *std::move(error);
  }
  return std::unique_ptr<InterceptionTable>(
      new InterceptionTable(std::move(socket), settings, marks));
}

OptionalError InterceptionTable::examine(const TransparentProxyNetworkSettings& settings,
                                         const PacketMarks& marks, std::uint16_t queueNumber,
                                         const std::vector<ListenerPorts>& listeners) {
  const auto socket = openNetfilterSocket();
  if (!socket) {
    return explain(socket.error());
  }
  return applyToKernel({settings, marks, queueNumber, listeners},
                       [&socket](NetfilterBatch& batch) { return batch.examine(socket->get()); });
}

Result<std::string> InterceptionTable::script(const TransparentProxyNetworkSettings& settings,
                                              const PacketMarks& marks, std::uint16_t queueNumber,
                                              const std::vector<ListenerPorts>& listeners) {
  const auto selection = translate(settings);
  if (!selection) {
    return selection.error();
  }
  return makeChanges({settings, marks, queueNumber, listeners}, *selection, {}).script();
}

OptionalError InterceptionTable::offerAfterFilters() {
  const auto selection = translate(settings_);
  if (!selection) {
    return selection.error();
  }
  TableChanges changes = TableChanges::ofExisting(kTable);
  changes.removeChain(kOfferChain);
  changes.removeChain(kRefuseChain);
  addOfferChains(changes, *selection, marks_, true);
  if (const auto failure = changes.batch().commit(socket_.get())) {
    return platform::systemCallError(failure->error,
                                     "the rules could not be moved: " + failure->change);
  }
  return std::nullopt;
}

OptionalError InterceptionTable::refreshAlive() {
  // On most kernels, adding an existing element does not restart its time-out, so it is deleted and
  // added in one batch.
  NetfilterBatch batch;
  removeAliveElements(batch);
  addAliveElements(batch);
  if (const auto failure = batch.commit(socket_.get())) {
    return platform::systemCallError(
        failure->error, "the interception could not be kept alive: " + failure->change);
  }
  return std::nullopt;
}

}  // namespace ostravel::linuxplatform
