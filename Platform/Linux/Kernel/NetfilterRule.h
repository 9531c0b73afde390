#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "Platform/Interface/NetworkSettings.h"
#include "Platform/Linux/Kernel/FlowTuple.h"

struct nftnl_rule;

namespace ostravel::linuxplatform {

struct NetfilterRuleRelease {
  void operator()(nftnl_rule* rule) const;
};

// One rule of a chain, built expression by expression: tests in the given order, then the action
// for packets that match them all. Each member is annotated with the equivalent nft(8) statement.
class NetfilterRule {
 public:
  // How packets are queued: with the native expression, or with the iptables target, which some
  // kernels have instead.
  enum class QueueStatement { native, compatibilityTarget };

  NetfilterRule(const char* table, const char* chain);

  // iif lo
  NetfilterRule& throughLoopback();
  // meta mark & mask == value
  NetfilterRule& mark(std::uint32_t mask, std::uint32_t value);
  // meta mark & mask != value
  NetfilterRule& markOtherThan(std::uint32_t mask, std::uint32_t value);
  // meta l4proto tcp|udp
  NetfilterRule& protocol(TransportProtocol protocol);
  // meta nfproto ipv4|ipv6
  NetfilterRule& family(AddressFamily family);
  // tcp flags & (fin|syn|rst|ack) != syn
  NetfilterRule& notFirstOfTCP();
  // tcp flags & rst == rst
  NetfilterRule& resetOfTCP();
  // ct state ! new
  NetfilterRule& notNewConnection();
  // ct status & (confirmed|seen-reply) == confirmed
  NetfilterRule& trackedWithoutReply();
  // ct status dnat
  NetfilterRule& destinationTranslated();
  // meta l4proto != @set
  NetfilterRule& protocolNotIn(const char* set);
  // ip|ip6 daddr in network/prefix; family is tested too
  NetfilterRule& destination(const SocketEndpoint& network, unsigned prefix);
  // ip|ip6 daddr other than loopback; family is tested too
  NetfilterRule& destinationNotLoopback(AddressFamily family);
  // th dport port
  NetfilterRule& destinationPort(std::uint16_t port);
  // th sport port
  NetfilterRule& sourcePort(std::uint16_t port);
  // th dport @set
  NetfilterRule& destinationPortIn(const char* set);
  // update @set { th sport }: matches unless the set is full
  NetfilterRule& addSourcePort(const char* set);
  // limit rate perSecond/second burst burst packets: matches no packet above the rate
  NetfilterRule& withinRate(std::uint32_t perSecond, std::uint32_t burst);

  // update @set { meta skuid limit rate over perSecond/second burst burst packets }: matches the
  // packets that exceed the user's rate; the set must support expressions.
  NetfilterRule& userExceedsRate(const char* set, std::uint32_t perSecond, std::uint32_t burst);

  // ip|ip6 daddr set ip|ip6 daddr ^ 128.0.0.0|8000::; the family must have been tested
  NetfilterRule& flipDestination(AddressFamily family);
  // log group number: copies the packet and continues with the next rule
  NetfilterRule& log(std::uint16_t group);
  NetfilterRule& accept();
  // jump chain
  NetfilterRule& jump(const char* chain);
  // queue num number bypass
  NetfilterRule& queue(std::uint16_t number, QueueStatement statement);
  // reject with tcp reset
  NetfilterRule& rejectWithReset();
  // reject with icmpx port-unreachable
  NetfilterRule& rejectWithPortUnreachable();
  // redirect to :port
  NetfilterRule& redirect(std::uint16_t port);

  nftnl_rule* get() const { return rule_.get(); }
  // The tests and the action in the syntax of nft(8).
  const std::string& text() const { return text_; }

 private:
  // Appends a statement to the text.
  NetfilterRule& say(const std::string& statement);
  void loadMeta(std::uint32_t key);
  void loadPayload(std::uint32_t base, std::uint32_t offset, std::uint32_t length);
  void mask(std::span<const std::byte> mask);
  void combine(std::span<const std::byte> mask, std::span<const std::byte> exclusiveOr);
  void loadConntrack(std::uint32_t key);
  void loadMaskedMark(std::uint32_t mask);
  void testProtocol(TransportProtocol protocol);
  void testFamily(AddressFamily family);
  void compare(std::uint32_t operation, std::span<const std::byte> value);
  void lookUp(const char* set, std::uint32_t flags);
  void comparePort(std::uint32_t offset, std::uint16_t port);
  void immediate(std::span<const std::byte> value);

  std::unique_ptr<nftnl_rule, NetfilterRuleRelease> rule_;
  std::string text_;
};

}  // namespace ostravel::linuxplatform
