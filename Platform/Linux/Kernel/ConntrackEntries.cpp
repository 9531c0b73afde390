#include "Platform/Linux/Kernel/ConntrackEntries.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_conntrack_tcp.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <unordered_map>

#include "Platform/Linux/Kernel/NetlinkMessage.h"

namespace ostravel::linuxplatform {

using platform::OptionalError;

namespace {

// The size of the kernel's dump messages.
constexpr std::size_t kDumpSize = 32768;
// Limit on the late answers to earlier requests that are skipped; there is hardly ever one.
constexpr int kMaximumStaleAnswers = 8;

void putTuple(nlmsghdr* header, const FlowTuple& flow) {
  nlattr* const tuple = ::mnl_attr_nest_start(header, CTA_TUPLE_ORIG);
  nlattr* const addresses = ::mnl_attr_nest_start(header, CTA_TUPLE_IP);
  const bool isIPv4 = flow.source.family == AddressFamily::ipv4;
  const std::size_t size = isIPv4 ? sizeof(in_addr) : sizeof(in6_addr);
  ::mnl_attr_put(header, isIPv4 ? CTA_IP_V4_SRC : CTA_IP_V6_SRC, size, flow.source.address.data());
  ::mnl_attr_put(header, isIPv4 ? CTA_IP_V4_DST : CTA_IP_V6_DST, size,
                 flow.destination.address.data());
  ::mnl_attr_nest_end(header, addresses);
  nlattr* const ports = ::mnl_attr_nest_start(header, CTA_TUPLE_PROTO);
  const bool isTCP = flow.protocol == TransportProtocol::tcp;
  ::mnl_attr_put_u8(header, CTA_PROTO_NUM, isTCP ? IPPROTO_TCP : IPPROTO_UDP);
  ::mnl_attr_put_u16(header, CTA_PROTO_SRC_PORT, htons(flow.source.port));
  ::mnl_attr_put_u16(header, CTA_PROTO_DST_PORT, htons(flow.destination.port));
  ::mnl_attr_nest_end(header, ports);
  ::mnl_attr_nest_end(header, tuple);
}

// The attributes of interest in one level, by type.
using Attributes = std::array<const nlattr*, CTA_PROTOINFO + 1>;

int noteAttribute(const nlattr* attribute, void* data) {
  auto& attributes = *static_cast<Attributes*>(data);
  const std::uint16_t type = ::mnl_attr_get_type(attribute);
  if (type < attributes.size()) {
    attributes[type] = attribute;
  }
  return MNL_CB_OK;
}

// The attribute at a path of nested ones; null if there is none.
const nlattr* nested(const nlattr* attribute, std::initializer_list<std::uint16_t> path) {
  for (const std::uint16_t type : path) {
    Attributes inner{};
    if (attribute != nullptr) {
      ::mnl_attr_parse_nested(attribute, &noteAttribute, &inner);
    }
    attribute = inner.at(type);
  }
  return attribute;
}

// One end of a tuple; empty if it is incomplete.
std::optional<SocketEndpoint> endpointOf(const nlattr* tuple, AddressFamily family,
                                         std::uint16_t addressType, std::uint16_t portType) {
  const nlattr* const address = nested(tuple, {CTA_TUPLE_IP, addressType});
  const auto port = valueOf<std::uint16_t>(nested(tuple, {CTA_TUPLE_PROTO, portType}));
  const std::size_t size = family == AddressFamily::ipv4 ? sizeof(in_addr) : sizeof(in6_addr);
  if (address == nullptr || !port || ::mnl_attr_get_payload_len(address) != size) {
    return std::nullopt;
  }
  SocketEndpoint endpoint;
  endpoint.family = family;
  std::memcpy(endpoint.address.data(), ::mnl_attr_get_payload(address), size);
  endpoint.port = ntohs(*port);
  return endpoint;
}

platform::Error requestFailed(int code) {
  return platform::systemCallError(code, "the kernel does not change a tracked connection");
}

bool isLoopback(const SocketEndpoint& endpoint) {
  if (endpoint.family == AddressFamily::ipv4) {
    constexpr std::uint8_t kLoopbackNetwork = 127;
    return endpoint.address[0] == kLoopbackNetwork;
  }
  return std::memcmp(endpoint.address.data(), &in6addr_loopback, sizeof in6addr_loopback) == 0;
}

}  // namespace

// The connection of an entry, if it was redirected to a loopback address. Connections that have
// ended in order are skipped: the kernel treats the next one with the same ports as new.
std::optional<ConntrackEntries::Redirection> ConntrackEntries::redirectionOf(
    const nlmsghdr* header) {
  const auto* const message = fixedPart<nfgenmsg>(*header);
  if (message == nullptr) {
    return std::nullopt;
  }
  const bool isIPv4 = message->nfgen_family == AF_INET;
  const AddressFamily family = isIPv4 ? AddressFamily::ipv4 : AddressFamily::ipv6;
  const std::uint16_t source = isIPv4 ? CTA_IP_V4_SRC : CTA_IP_V6_SRC;
  const std::uint16_t destination = isIPv4 ? CTA_IP_V4_DST : CTA_IP_V6_DST;
  Attributes attributes{};
  ::mnl_attr_parse(header, sizeof(nfgenmsg), &noteAttribute, &attributes);
  const nlattr* const original = attributes[CTA_TUPLE_ORIG];
  const nlattr* const reply = attributes[CTA_TUPLE_REPLY];
  const auto state = valueOf<std::uint8_t>(
      nested(attributes[CTA_PROTOINFO], {CTA_PROTOINFO_TCP, CTA_PROTOINFO_TCP_STATE}));
  if (!state || state == TCP_CONNTRACK_TIME_WAIT) {
    return std::nullopt;
  }
  const auto from = endpointOf(original, family, source, CTA_PROTO_SRC_PORT);
  const auto to = endpointOf(original, family, destination, CTA_PROTO_DST_PORT);
  const auto arrived = endpointOf(reply, family, source, CTA_PROTO_SRC_PORT);
  if (!from || !to || !arrived || *arrived == *to || !isLoopback(*arrived)) {
    return std::nullopt;
  }
  return Redirection{{TransportProtocol::tcp, *from, *to}, *arrived};
}

OptionalError ConntrackEntries::remove(const FlowTuple& original) {
  return request(IPCTNL_MSG_CT_DELETE, original, [](nlmsghdr* /*request*/) {});
}

// The kernel allows a connection that has ended in order to be reopened. This flag means that its
// end has begun.
OptionalError ConntrackEntries::allowReopening(const FlowTuple& original) {
  return request(IPCTNL_MSG_CT_NEW, original, [](nlmsghdr* request) {
    constexpr nf_ct_tcp_flags kEnding{IP_CT_TCP_FLAG_CLOSE_INIT, IP_CT_TCP_FLAG_CLOSE_INIT};
    nlattr* const protocol = ::mnl_attr_nest_start(request, CTA_PROTOINFO);
    nlattr* const tcp = ::mnl_attr_nest_start(request, CTA_PROTOINFO_TCP);
    ::mnl_attr_put(request, CTA_PROTOINFO_TCP_FLAGS_REPLY, sizeof kEnding, &kEnding);
    ::mnl_attr_nest_end(request, tcp);
    ::mnl_attr_nest_end(request, protocol);
  });
}

OptionalError ConntrackEntries::request(std::uint16_t type, const FlowTuple& original,
                                        Complete complete) {
  if (!socket_) {
    return socket_.error();
  }
  alignas(nlmsghdr) std::array<char, 512> request{};
  nlmsghdr* const header = ::mnl_nlmsg_put_header(request.data());
  header->nlmsg_type = static_cast<std::uint16_t>(NFNL_SUBSYS_CTNETLINK << 8U | type);
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  header->nlmsg_seq = ++sequence_;
  auto& message = *static_cast<nfgenmsg*>(::mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
  message.nfgen_family = original.source.family == AddressFamily::ipv4 ? AF_INET : AF_INET6;
  message.version = NFNETLINK_V0;
  putTuple(header, original);
  complete(header);
  if (::mnl_socket_sendto(socket_->get(), header, header->nlmsg_len) < 0) {
    return requestFailed(errno);
  }
  const int error = receiveResult();
  return error == 0 ? std::nullopt : OptionalError(requestFailed(error));
}

int ConntrackEntries::receiveResult() {
  for (int count = 0; count < kMaximumStaleAnswers; ++count) {
    alignas(nlmsghdr) std::array<char, 1024> answer;
    const auto received = ::mnl_socket_recvfrom(socket_->get(), answer.data(), answer.size());
    if (received < 0) {
      return errno;
    }
    const auto* const reply = reinterpret_cast<const nlmsghdr*>(answer.data());
    if (completeSize(answer.data(), received) == 0) {
      return EPROTO;
    }
    if (reply->nlmsg_seq == sequence_) {
      return resultOf(*reply);
    }
  }
  return ETIMEDOUT;
}

std::size_t ConntrackEntries::removeDeadRedirections(const IsListened& isListened) {
  // Caches the answers: many connections share few listeners.
  std::unordered_map<SocketEndpoint, bool, SocketEndpointHash> known;
  std::size_t count = 0;
  for (const auto& [original, arrived] : redirections()) {
    auto found = known.find(arrived);
    if (found == known.end()) {
      found = known.emplace(arrived, isListened(arrived)).first;
    }
    if (!found->second && !remove(original)) {
      ++count;
    }
  }
  return count;
}

// On a socket of its own: what is left of a table that cannot be read to its end would be taken for
// the answer to a later request.
std::vector<ConntrackEntries::Redirection> ConntrackEntries::redirections() {
  std::vector<Redirection> found;
  const auto socket = openNetfilterSocket();
  if (!socket) {
    return found;
  }
  alignas(nlmsghdr) std::array<char, 64> request{};
  nlmsghdr* const header = ::mnl_nlmsg_put_header(request.data());
  header->nlmsg_type = NFNL_SUBSYS_CTNETLINK << 8U | IPCTNL_MSG_CT_GET;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  auto& message = *static_cast<nfgenmsg*>(::mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
  message.nfgen_family = AF_UNSPEC;
  message.version = NFNETLINK_V0;
  if (::mnl_socket_sendto(socket->get(), header, header->nlmsg_len) < 0) {
    return found;
  }
  const auto note = [](const nlmsghdr* entry, void* data) {
    if (const auto redirection = redirectionOf(entry)) {
      static_cast<std::vector<Redirection>*>(data)->push_back(*redirection);
    }
    return MNL_CB_OK;
  };
  alignas(nlmsghdr) std::array<char, kDumpSize> answer;
  int result = MNL_CB_OK;
  while (result == MNL_CB_OK) {
    const auto received = ::mnl_socket_recvfrom(socket->get(), answer.data(), answer.size());
    if (received < 0) {
      return found;
    }
    result = ::mnl_cb_run(answer.data(), completeSize(answer.data(), received), 0, 0, note, &found);
  }
  return found;
}

}  // namespace ostravel::linuxplatform
