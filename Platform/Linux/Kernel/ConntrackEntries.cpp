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

constexpr std::uint16_t typeOf(std::uint16_t message) {
  return static_cast<std::uint16_t>(NFNL_SUBSYS_CTNETLINK << 8U | message);
}

// flags: in addition to those of every request.
nlmsghdr* putRequest(char* buffer, std::uint16_t message, std::uint16_t flags,
                     std::uint8_t family) {
  nlmsghdr* const header = ::mnl_nlmsg_put_header(buffer);
  header->nlmsg_type = typeOf(message);
  header->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
  auto& extra = *static_cast<nfgenmsg*>(::mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
  extra.nfgen_family = family;
  extra.version = NFNETLINK_V0;
  return header;
}

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

// The attribute at a path of nested ones; null if there is none.
const nlattr* nested(const nlattr* attribute, std::initializer_list<std::uint16_t> path) {
  for (const std::uint16_t type : path) {
    attribute = attributeIn(attribute, type);
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
  const auto attribute = [header](std::uint16_t type) {
    return attributeOf(*header, sizeof(nfgenmsg), type);
  };
  const nlattr* const original = attribute(CTA_TUPLE_ORIG);
  const nlattr* const reply = attribute(CTA_TUPLE_REPLY);
  const auto state = valueOf<std::uint8_t>(
      nested(attribute(CTA_PROTOINFO), {CTA_PROTOINFO_TCP, CTA_PROTOINFO_TCP_STATE}));
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

struct alignas(nlmsghdr) ConntrackEntries::Answer : std::array<char, 1024> {};

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
  const bool isIPv4 = original.source.family == AddressFamily::ipv4;
  nlmsghdr* const header = putRequest(request.data(), type, NLM_F_ACK, isIPv4 ? AF_INET : AF_INET6);
  header->nlmsg_seq = ++sequence_;
  putTuple(header, original);
  complete(header);
  if (::mnl_socket_sendto(socket_->get(), header, header->nlmsg_len) < 0) {
    return requestFailed(errno);
  }
  const int error = receiveResult();
  return error == 0 ? std::nullopt : OptionalError(requestFailed(error));
}

const nlmsghdr* ConntrackEntries::receive(Answer& answer) {
  for (int count = 0; count < kMaximumStaleAnswers; ++count) {
    const auto received = ::mnl_socket_recvfrom(socket_->get(), answer.data(), answer.size());
    if (received < 0) {
      return nullptr;
    }
    if (completeSize(answer.data(), received) == 0) {
      errno = EPROTO;
      return nullptr;
    }
    const auto* const reply = reinterpret_cast<const nlmsghdr*>(answer.data());
    if (reply->nlmsg_seq == sequence_) {
      return reply;
    }
  }
  errno = ETIMEDOUT;
  return nullptr;
}

int ConntrackEntries::receiveResult() {
  Answer answer;
  const nlmsghdr* const reply = receive(answer);
  return reply == nullptr ? errno : resultOf(*reply);
}

std::optional<ConntrackEntries::Usage> ConntrackEntries::usage() {
  if (!socket_) {
    return std::nullopt;
  }
  alignas(nlmsghdr) std::array<char, 64> request{};
  nlmsghdr* const header = putRequest(request.data(), IPCTNL_MSG_CT_GET_STATS, 0, AF_UNSPEC);
  header->nlmsg_seq = ++sequence_;
  if (::mnl_socket_sendto(socket_->get(), header, header->nlmsg_len) < 0) {
    return std::nullopt;
  }
  Answer answer;
  const nlmsghdr* const reply = receive(answer);
  if (reply == nullptr || reply->nlmsg_type != typeOf(IPCTNL_MSG_CT_GET_STATS)) {
    return std::nullopt;
  }
  const auto numberOf = [reply](std::uint16_t type) {
    return networkNumberOf(attributeOf(*reply, sizeof(nfgenmsg), type));
  };
  const auto count = numberOf(CTA_STATS_GLOBAL_ENTRIES);
  const auto limit = numberOf(CTA_STATS_GLOBAL_MAX_ENTRIES);
  return count && limit ? std::optional(Usage{*count, *limit}) : std::nullopt;
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
  const nlmsghdr* const header =
      putRequest(request.data(), IPCTNL_MSG_CT_GET, NLM_F_DUMP, AF_UNSPEC);
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
