#include "Platform/Linux/Kernel/NetfilterRule.h"

#include <arpa/inet.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_nat.h>
#include <linux/netfilter/nf_tables.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <new>

#include "Platform/Linux/Kernel/Allocated.h"

namespace ostravel::linuxplatform {

namespace {

constexpr std::uint32_t kRegister = NFT_REG_1;

// Offsets in the fixed headers (RFC 791, RFC 8200, RFC 9293, RFC 768).
constexpr std::uint32_t kIPv4DestinationOffset = 16;
constexpr std::uint32_t kIPv6DestinationOffset = 24;
constexpr std::uint32_t kSourcePortOffset = 0;
constexpr std::uint32_t kDestinationPortOffset = 2;
constexpr std::uint32_t kTCPFlagsOffset = 13;

constexpr std::uint8_t kFin = 0x01;
constexpr std::uint8_t kSyn = 0x02;
constexpr std::uint8_t kRst = 0x04;
constexpr std::uint8_t kAck = 0x10;

constexpr std::size_t addressSize(AddressFamily family) {
  return family == AddressFamily::ipv4 ? 4 : 16;
}

constexpr std::uint32_t destinationOffset(AddressFamily family) {
  return family == AddressFamily::ipv4 ? kIPv4DestinationOffset : kIPv6DestinationOffset;
}

std::string hexadecimal(std::uint32_t value) {
  std::array<char, 8> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, 16).ptr;
  return "0x" + std::string(digits.data(), end);
}

template <typename Value>
std::span<const std::byte> bytesOf(const Value& value) {
  return std::as_bytes(std::span(&value, 1));
}

nftnl_expr* makeExpression(const char* name) {
  return allocated(::nftnl_expr_alloc(name));
}

void setText(nftnl_expr* expression, std::uint16_t attribute, const char* text) {
  if (::nftnl_expr_set_str(expression, attribute, text) < 0) {
    ::nftnl_expr_free(expression);
    throw std::bad_alloc();
  }
}

nftnl_expr* makeLimit(std::uint32_t perSecond, std::uint32_t burst, std::uint32_t flags) {
  constexpr std::uint64_t kSecond = 1;
  nftnl_expr* const limit = makeExpression("limit");
  ::nftnl_expr_set_u64(limit, NFTNL_EXPR_LIMIT_RATE, perSecond);
  ::nftnl_expr_set_u64(limit, NFTNL_EXPR_LIMIT_UNIT, kSecond);
  ::nftnl_expr_set_u32(limit, NFTNL_EXPR_LIMIT_BURST, burst);
  ::nftnl_expr_set_u32(limit, NFTNL_EXPR_LIMIT_TYPE, NFT_LIMIT_PKTS);
  ::nftnl_expr_set_u32(limit, NFTNL_EXPR_LIMIT_FLAGS, flags);
  return limit;
}

// The register contains the element.
nftnl_expr* makeUpdate(const char* set) {
  nftnl_expr* const expression = makeExpression("dynset");
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_DYNSET_SREG_KEY, kRegister);
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_DYNSET_OP, NFT_DYNSET_OP_UPDATE);
  setText(expression, NFTNL_EXPR_DYNSET_SET_NAME, set);
  return expression;
}

}  // namespace

void NetfilterRuleRelease::operator()(nftnl_rule* rule) const {
  ::nftnl_rule_free(rule);
}

NetfilterRule::NetfilterRule(const char* table, const char* chain)
    : rule_(allocated(::nftnl_rule_alloc())) {
  requireCopied(::nftnl_rule_set_str(get(), NFTNL_RULE_TABLE, table));
  requireCopied(::nftnl_rule_set_str(get(), NFTNL_RULE_CHAIN, chain));
  ::nftnl_rule_set_u32(get(), NFTNL_RULE_FAMILY, NFPROTO_INET);
}

NetfilterRule& NetfilterRule::say(const std::string& statement) {
  text_ += text_.empty() ? statement : " " + statement;
  return *this;
}

void NetfilterRule::loadMeta(std::uint32_t key) {
  nftnl_expr* const expression = makeExpression("meta");
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_META_KEY, key);
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_META_DREG, kRegister);
  ::nftnl_rule_add_expr(get(), expression);
}

void NetfilterRule::loadPayload(std::uint32_t base, std::uint32_t offset, std::uint32_t length) {
  nftnl_expr* const expression = makeExpression("payload");
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_BASE, base);
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_LEN, length);
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_DREG, kRegister);
  ::nftnl_rule_add_expr(get(), expression);
}

void NetfilterRule::loadConntrack(std::uint32_t key) {
  nftnl_expr* const expression = makeExpression("ct");
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_CT_KEY, key);
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_CT_DREG, kRegister);
  ::nftnl_rule_add_expr(get(), expression);
}

void NetfilterRule::mask(std::span<const std::byte> mask) {
  constexpr std::array<std::byte, 16> kZero{};
  combine(mask, std::span(kZero).first(mask.size()));
}

void NetfilterRule::combine(std::span<const std::byte> mask,
                            std::span<const std::byte> exclusiveOr) {
  const auto length = static_cast<std::uint32_t>(mask.size());
  nftnl_expr* const expression = makeExpression("bitwise");
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_BITWISE_SREG, kRegister);
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_BITWISE_DREG, kRegister);
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_BITWISE_LEN, length);
  ::nftnl_expr_set(expression, NFTNL_EXPR_BITWISE_MASK, mask.data(), length);
  ::nftnl_expr_set(expression, NFTNL_EXPR_BITWISE_XOR, exclusiveOr.data(), length);
  ::nftnl_rule_add_expr(get(), expression);
}

void NetfilterRule::compare(std::uint32_t operation, std::span<const std::byte> value) {
  nftnl_expr* const expression = makeExpression("cmp");
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_CMP_SREG, kRegister);
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_CMP_OP, operation);
  ::nftnl_expr_set(expression, NFTNL_EXPR_CMP_DATA, value.data(),
                   static_cast<std::uint32_t>(value.size()));
  ::nftnl_rule_add_expr(get(), expression);
}

void NetfilterRule::immediate(std::span<const std::byte> value) {
  nftnl_expr* const expression = makeExpression("immediate");
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_IMM_DREG, kRegister);
  ::nftnl_expr_set(expression, NFTNL_EXPR_IMM_DATA, value.data(),
                   static_cast<std::uint32_t>(value.size()));
  ::nftnl_rule_add_expr(get(), expression);
}

void NetfilterRule::loadMaskedMark(std::uint32_t mask) {
  loadMeta(NFT_META_MARK);
  this->mask(bytesOf(mask));
}

NetfilterRule& NetfilterRule::throughLoopback() {
  // The same in every network namespace (LOOPBACK_IFINDEX of net/flow.h).
  constexpr std::uint32_t kLoopback = 1;
  loadMeta(NFT_META_IIF);
  compare(NFT_CMP_EQ, bytesOf(kLoopback));
  return say("iif lo");
}

NetfilterRule& NetfilterRule::mark(std::uint32_t mask, std::uint32_t value) {
  loadMaskedMark(mask);
  compare(NFT_CMP_EQ, bytesOf(value));
  return say("meta mark & " + hexadecimal(mask) + " == " + hexadecimal(value));
}

NetfilterRule& NetfilterRule::markOtherThan(std::uint32_t mask, std::uint32_t value) {
  loadMaskedMark(mask);
  compare(NFT_CMP_NEQ, bytesOf(value));
  return say("meta mark & " + hexadecimal(mask) + " != " + hexadecimal(value));
}

void NetfilterRule::testProtocol(TransportProtocol protocol) {
  const std::uint8_t number = protocol == TransportProtocol::tcp ? IPPROTO_TCP : IPPROTO_UDP;
  loadMeta(NFT_META_L4PROTO);
  compare(NFT_CMP_EQ, bytesOf(number));
}

NetfilterRule& NetfilterRule::protocol(TransportProtocol protocol) {
  testProtocol(protocol);
  return say(protocol == TransportProtocol::tcp ? "meta l4proto tcp" : "meta l4proto udp");
}

void NetfilterRule::testFamily(AddressFamily family) {
  const std::uint8_t number = family == AddressFamily::ipv4 ? NFPROTO_IPV4 : NFPROTO_IPV6;
  loadMeta(NFT_META_NFPROTO);
  compare(NFT_CMP_EQ, bytesOf(number));
}

NetfilterRule& NetfilterRule::family(AddressFamily family) {
  testFamily(family);
  return say(family == AddressFamily::ipv4 ? "meta nfproto ipv4" : "meta nfproto ipv6");
}

NetfilterRule& NetfilterRule::notFirstOfTCP() {
  constexpr std::uint8_t kFlagsOfInterest = kFin | kSyn | kRst | kAck;
  testProtocol(TransportProtocol::tcp);
  loadPayload(NFT_PAYLOAD_TRANSPORT_HEADER, kTCPFlagsOffset, 1);
  mask(bytesOf(kFlagsOfInterest));
  compare(NFT_CMP_NEQ, bytesOf(kSyn));
  return say("tcp flags & (fin | syn | rst | ack) != syn");
}

NetfilterRule& NetfilterRule::resetOfTCP() {
  testProtocol(TransportProtocol::tcp);
  loadPayload(NFT_PAYLOAD_TRANSPORT_HEADER, kTCPFlagsOffset, 1);
  mask(bytesOf(kRst));
  compare(NFT_CMP_EQ, bytesOf(kRst));
  return say("tcp flags & rst == rst");
}

NetfilterRule& NetfilterRule::notNewConnection() {
  constexpr std::uint32_t kNew = NF_CT_STATE_BIT(IP_CT_NEW);
  constexpr std::uint32_t kNone = 0;
  loadConntrack(NFT_CT_STATE);
  mask(bytesOf(kNew));
  compare(NFT_CMP_EQ, bytesOf(kNone));
  return say("ct state ! new");
}

NetfilterRule& NetfilterRule::trackedWithoutReply() {
  constexpr std::uint32_t kConfirmed = IPS_CONFIRMED;
  constexpr std::uint32_t kOfInterest = IPS_CONFIRMED | IPS_SEEN_REPLY;
  loadConntrack(NFT_CT_STATUS);
  mask(bytesOf(kOfInterest));
  compare(NFT_CMP_EQ, bytesOf(kConfirmed));
  return say("ct status & (confirmed | seen-reply) == confirmed");
}

NetfilterRule& NetfilterRule::destinationTranslated() {
  constexpr std::uint32_t kTranslated = IPS_DST_NAT;
  constexpr std::uint32_t kNone = 0;
  loadConntrack(NFT_CT_STATUS);
  mask(bytesOf(kTranslated));
  compare(NFT_CMP_NEQ, bytesOf(kNone));
  return say("ct status dnat");
}

void NetfilterRule::lookUp(const char* set, std::uint32_t flags) {
  nftnl_expr* const expression = makeExpression("lookup");
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_LOOKUP_SREG, kRegister);
  setText(expression, NFTNL_EXPR_LOOKUP_SET, set);
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_LOOKUP_FLAGS, flags);
  ::nftnl_rule_add_expr(get(), expression);
}

NetfilterRule& NetfilterRule::protocolNotIn(const char* set) {
  loadMeta(NFT_META_L4PROTO);
  lookUp(set, NFT_LOOKUP_F_INV);
  return say("meta l4proto != @" + std::string(set));
}

NetfilterRule& NetfilterRule::destination(const SocketEndpoint& network, unsigned prefix) {
  const std::size_t size = addressSize(network.family);
  std::array<std::byte, 16> prefixMask{};
  for (unsigned bit = 0; bit < std::min<std::size_t>(prefix, size * 8); ++bit) {
    prefixMask[bit / 8] |= static_cast<std::byte>(0x80U >> (bit % 8));
  }
  std::array<std::byte, 16> masked{};
  for (std::size_t index = 0; index < size; ++index) {
    masked[index] = static_cast<std::byte>(network.address[index]) & prefixMask[index];
  }
  testFamily(network.family);
  loadPayload(NFT_PAYLOAD_NETWORK_HEADER, destinationOffset(network.family),
              static_cast<std::uint32_t>(size));
  mask(std::span(prefixMask).first(size));
  compare(NFT_CMP_EQ, std::span(masked).first(size));
  return say((network.family == AddressFamily::ipv4 ? "ip daddr " : "ip6 daddr ") +
             network.addressText() + "/" + std::to_string(prefix));
}

NetfilterRule& NetfilterRule::destinationNotLoopback(AddressFamily destinationFamily) {
  testFamily(destinationFamily);
  if (destinationFamily == AddressFamily::ipv4) {
    // 127.0.0.0/8 (RFC 1122, section 3.2.1.3)
    constexpr std::uint8_t kLoopbackNetwork = 127;
    loadPayload(NFT_PAYLOAD_NETWORK_HEADER, kIPv4DestinationOffset, 1);
    compare(NFT_CMP_NEQ, bytesOf(kLoopbackNetwork));
    say("ip daddr != 127.0.0.0/8");
  } else {
    loadPayload(NFT_PAYLOAD_NETWORK_HEADER, kIPv6DestinationOffset, sizeof in6addr_loopback);
    compare(NFT_CMP_NEQ, bytesOf(in6addr_loopback));
    say("ip6 daddr != ::1");
  }
  return *this;
}

void NetfilterRule::comparePort(std::uint32_t offset, std::uint16_t port) {
  const std::uint16_t inNetworkOrder = htons(port);
  loadPayload(NFT_PAYLOAD_TRANSPORT_HEADER, offset, sizeof inNetworkOrder);
  compare(NFT_CMP_EQ, bytesOf(inNetworkOrder));
}

NetfilterRule& NetfilterRule::destinationPort(std::uint16_t port) {
  comparePort(kDestinationPortOffset, port);
  return say("th dport " + std::to_string(port));
}

NetfilterRule& NetfilterRule::sourcePort(std::uint16_t port) {
  comparePort(kSourcePortOffset, port);
  return say("th sport " + std::to_string(port));
}

NetfilterRule& NetfilterRule::destinationPortIn(const char* set) {
  loadPayload(NFT_PAYLOAD_TRANSPORT_HEADER, kDestinationPortOffset, sizeof(std::uint16_t));
  lookUp(set, 0);
  return say("th dport @" + std::string(set));
}

NetfilterRule& NetfilterRule::addSourcePort(const char* set) {
  loadPayload(NFT_PAYLOAD_TRANSPORT_HEADER, kSourcePortOffset, sizeof(std::uint16_t));
  ::nftnl_rule_add_expr(get(), makeUpdate(set));
  return say("update @" + std::string(set) + " { th sport }");
}

NetfilterRule& NetfilterRule::withinRate(std::uint32_t perSecond, std::uint32_t burst) {
  ::nftnl_rule_add_expr(get(), makeLimit(perSecond, burst, 0));
  return say("limit rate " + std::to_string(perSecond) + "/second burst " + std::to_string(burst) +
             " packets");
}

NetfilterRule& NetfilterRule::userExceedsRate(const char* set, std::uint32_t perSecond,
                                              std::uint32_t burst) {
  loadMeta(NFT_META_SKUID);
  nftnl_expr* const expression = makeUpdate(set);
  ::nftnl_expr_add_expr(expression, NFTNL_EXPR_DYNSET_EXPRESSIONS,
                        makeLimit(perSecond, burst, NFT_LIMIT_F_INV));
  ::nftnl_rule_add_expr(get(), expression);
  return say("update @" + std::string(set) + " { meta skuid limit rate over " +
             std::to_string(perSecond) + "/second burst " + std::to_string(burst) + " packets }");
}

NetfilterRule& NetfilterRule::flipDestination(AddressFamily family) {
  constexpr std::uint32_t kIPv4ChecksumOffset = 10;
  constexpr std::array<std::byte, 16> kUppermostBit{std::byte{0x80}};
  std::array<std::byte, 16> all{};
  all.fill(std::byte{0xFF});
  const std::size_t size = addressSize(family);
  const auto length = static_cast<std::uint32_t>(size);
  loadPayload(NFT_PAYLOAD_NETWORK_HEADER, destinationOffset(family), length);
  combine(std::span(all).first(size), std::span(kUppermostBit).first(size));
  nftnl_expr* const expression = makeExpression("payload");
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_BASE, NFT_PAYLOAD_NETWORK_HEADER);
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_OFFSET, destinationOffset(family));
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_LEN, length);
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_SREG, kRegister);
  if (family == AddressFamily::ipv4) {
    ::nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_CSUM_TYPE, NFT_PAYLOAD_CSUM_INET);
    ::nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_CSUM_OFFSET, kIPv4ChecksumOffset);
  }
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_PAYLOAD_FLAGS, NFT_PAYLOAD_L4CSUM_PSEUDOHDR);
  ::nftnl_rule_add_expr(get(), expression);
  return say(family == AddressFamily::ipv4 ? "ip daddr set ip daddr ^ 128.0.0.0"
                                           : "ip6 daddr set ip6 daddr ^ 8000::");
}

NetfilterRule& NetfilterRule::log(std::uint16_t group) {
  nftnl_expr* const expression = makeExpression("log");
  ::nftnl_expr_set_u16(expression, NFTNL_EXPR_LOG_GROUP, group);
  ::nftnl_rule_add_expr(get(), expression);
  return say("log group " + std::to_string(group));
}

NetfilterRule& NetfilterRule::accept() {
  nftnl_expr* const expression = makeExpression("immediate");
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_IMM_VERDICT, NF_ACCEPT);
  ::nftnl_rule_add_expr(get(), expression);
  return say("accept");
}

NetfilterRule& NetfilterRule::jump(const char* chain) {
  nftnl_expr* const expression = makeExpression("immediate");
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_IMM_VERDICT, static_cast<std::uint32_t>(NFT_JUMP));
  setText(expression, NFTNL_EXPR_IMM_CHAIN, chain);
  ::nftnl_rule_add_expr(get(), expression);
  return say("jump " + std::string(chain));
}

NetfilterRule& NetfilterRule::queue(std::uint16_t number, QueueStatement statement) {
  say("queue flags bypass to " + std::to_string(number));
  if (statement == QueueStatement::native) {
    nftnl_expr* const expression = makeExpression("queue");
    ::nftnl_expr_set_u16(expression, NFTNL_EXPR_QUEUE_NUM, number);
    ::nftnl_expr_set_u16(expression, NFTNL_EXPR_QUEUE_TOTAL, 1);
    ::nftnl_expr_set_u16(expression, NFTNL_EXPR_QUEUE_FLAGS, NFT_QUEUE_FLAG_BYPASS);
    ::nftnl_rule_add_expr(get(), expression);
    return *this;
  }
  // struct xt_NFQ_info_v3 of linux/netfilter/xt_NFQUEUE.h, padded to the alignment of targets.
  struct alignas(8) TargetInfo {
    std::uint16_t queueNumber;
    std::uint16_t queuesTotal;
    std::uint16_t flags;
  };
  constexpr std::uint32_t kRevision = 3;
  constexpr std::uint16_t kBypass = 1;
  // The expression takes ownership of the memory and frees it.
  void* const memory = allocated(std::calloc(1, sizeof(TargetInfo)));
  new (memory) TargetInfo{number, 1, kBypass};
  nftnl_expr* const expression = makeExpression("target");
  setText(expression, NFTNL_EXPR_TG_NAME, "NFQUEUE");
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_TG_REV, kRevision);
  ::nftnl_expr_set(expression, NFTNL_EXPR_TG_INFO, memory, sizeof(TargetInfo));
  ::nftnl_rule_add_expr(get(), expression);
  return *this;
}

NetfilterRule& NetfilterRule::rejectWithReset() {
  nftnl_expr* const expression = makeExpression("reject");
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_REJECT_TYPE, NFT_REJECT_TCP_RST);
  ::nftnl_rule_add_expr(get(), expression);
  return say("reject with tcp reset");
}

NetfilterRule& NetfilterRule::rejectWithPortUnreachable() {
  nftnl_expr* const expression = makeExpression("reject");
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_REJECT_TYPE, NFT_REJECT_ICMPX_UNREACH);
  ::nftnl_expr_set_u8(expression, NFTNL_EXPR_REJECT_CODE, NFT_REJECT_ICMPX_PORT_UNREACH);
  ::nftnl_rule_add_expr(get(), expression);
  return say("reject with icmpx port-unreachable");
}

NetfilterRule& NetfilterRule::redirect(std::uint16_t port) {
  const std::uint16_t inNetworkOrder = htons(port);
  immediate(bytesOf(inNetworkOrder));
  nftnl_expr* const expression = makeExpression("redir");
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_REDIR_REG_PROTO_MIN, kRegister);
  ::nftnl_expr_set_u32(expression, NFTNL_EXPR_REDIR_FLAGS, NF_NAT_RANGE_PROTO_SPECIFIED);
  ::nftnl_rule_add_expr(get(), expression);
  return say("redirect to :" + std::to_string(port));
}

}  // namespace ostravel::linuxplatform
