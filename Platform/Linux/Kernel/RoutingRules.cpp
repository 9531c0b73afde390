#include "Platform/Linux/Kernel/RoutingRules.h"

#include <libmnl/libmnl.h>
#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>

#include "Platform/Linux/Kernel/NetlinkMessage.h"

namespace ostravel::linuxplatform {

namespace {

// Reached only if the kernel does not answer at all.
constexpr timeval kAnswerTimeout{1, 0};
constexpr std::size_t kAnswerSize = 65536;

std::string hexadecimal(std::uint32_t value) {
  std::array<char, 8> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, 16).ptr;
  return "0x" + std::string(digits.data(), end);
}

struct SocketRelease {
  void operator()(mnl_socket* socket) const { ::mnl_socket_close(socket); }
};

int readAttribute(const nlattr* attribute, void* data) {
  auto& rule = *static_cast<RoutingRules::Rule*>(data);
  const std::uint32_t value = valueOf<std::uint32_t>(attribute).value_or(0);
  switch (::mnl_attr_get_type(attribute)) {
    case FRA_PRIORITY:
      rule.priority = value;
      break;
    case FRA_FWMARK:
      rule.value = value;
      break;
    case FRA_FWMASK:
      rule.mask = value;
      break;
    default:
      break;
  }
  return MNL_CB_OK;
}

int readRule(const nlmsghdr* header, void* data) {
  auto& rules = *static_cast<std::vector<RoutingRules::Rule>*>(data);
  const auto* const message = fixedPart<fib_rule_hdr>(*header);
  if (message == nullptr) {
    return MNL_CB_OK;
  }
  RoutingRules::Rule rule;
  rule.family = message->family == AF_INET ? AddressFamily::ipv4 : AddressFamily::ipv6;
  ::mnl_attr_parse(header, sizeof *message, &readAttribute, &rule);
  // Without a mask the rule ignores marks.
  if (header->nlmsg_type == RTM_NEWRULE && rule.mask != 0) {
    rules.push_back(rule);
  }
  return MNL_CB_OK;
}

void readFamily(mnl_socket* socket, std::uint8_t family, std::vector<RoutingRules::Rule>& rules) {
  alignas(nlmsghdr) std::array<char, kAnswerSize> buffer;
  nlmsghdr* const request = ::mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = RTM_GETRULE;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request->nlmsg_seq = family;
  auto& message =
      *static_cast<fib_rule_hdr*>(::mnl_nlmsg_put_extra_header(request, sizeof(fib_rule_hdr)));
  message.family = family;
  if (::mnl_socket_sendto(socket, request, request->nlmsg_len) < 0) {
    return;
  }
  while (true) {
    const auto received = ::mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
    if (received <= 0 ||
        ::mnl_cb_run(buffer.data(), completeSize(buffer.data(), received), family,
                     ::mnl_socket_get_portid(socket), &readRule, &rules) <= MNL_CB_STOP) {
      return;
    }
  }
}

}  // namespace

RoutingRules RoutingRules::read() {
  std::vector<Rule> rules;
  const std::unique_ptr<mnl_socket, SocketRelease> socket(
      ::mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
  if (socket && ::mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) == 0) {
    ::setsockopt(::mnl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVTIMEO, &kAnswerTimeout,
                 sizeof kAnswerTimeout);
    readFamily(socket.get(), AF_INET, rules);
    readFamily(socket.get(), AF_INET6, rules);
  }
  return RoutingRules(std::move(rules));
}

// A rule that compares all bits with a value outside our mask does not clash: our marks alone never
// equal that value. A rule that requires our bits to be absent clashes.
bool RoutingRules::clashesWith(std::uint32_t mask) const {
  return std::any_of(rules_.begin(), rules_.end(), [mask](const Rule& rule) {
    const bool testsOurs = (rule.mask & mask) != 0;
    return testsOurs && (rule.value == 0 || (rule.value & mask) != 0);
  });
}

std::vector<std::string> RoutingRules::clashesWith(const PacketMarks& marks) const {
  std::vector<std::string> sentences;
  for (const Rule& rule : rules_) {
    if (!RoutingRules({rule}).clashesWith(marks.mask())) {
      continue;
    }
    const auto free = freeMask();
    const std::string command = rule.family == AddressFamily::ipv4 ? "ip rule" : "ip -6 rule";
    sentences.push_back(
        "the routing rule of priority " + std::to_string(rule.priority) + " (" + command +
        ") for the mark " + hexadecimal(rule.value) + "/" + hexadecimal(rule.mask) +
        " uses bits of our mask " + hexadecimal(marks.mask()) + ": " +
        (free ? "choose others with --mark-mask " + hexadecimal(*free)
              : std::string("change the rule, no other bits are free for --mark-mask")));
  }
  return sentences;
}

// High bits first, which fewer programs use.
std::optional<std::uint32_t> RoutingRules::freeMask() const {
  constexpr unsigned kMarkBits = 32;
  constexpr unsigned kPreferredBits = 5;
  constexpr std::uint32_t kEveryBit = ~0U;
  for (unsigned bits = kPreferredBits; bits >= PacketMarks::kFewestBits; --bits) {
    for (unsigned shift = kMarkBits - bits + 1; shift-- > 0;) {
      const std::uint32_t mask = ((1U << bits) - 1) << shift;
      // A rule that compares some bits may stop matching when one of them is set, so its bits are
      // not free, whatever their value.
      const bool isTested = std::any_of(rules_.begin(), rules_.end(), [mask](const Rule& rule) {
        return rule.mask != kEveryBit && (rule.mask & mask) != 0;
      });
      if (!isTested && !clashesWith(mask)) {
        return mask;
      }
    }
  }
  return std::nullopt;
}

}  // namespace ostravel::linuxplatform
