#include "Platform/Linux/ConntrackEntries.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

namespace ostravel::linuxplatform {

namespace {

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

}  // namespace

int ConntrackEntries::remove(const FlowTuple& original) {
  if (!socket_) {
    return ENOTCONN;
  }
  alignas(nlmsghdr) std::array<char, 512> request{};
  nlmsghdr* const header = ::mnl_nlmsg_put_header(request.data());
  header->nlmsg_type = NFNL_SUBSYS_CTNETLINK << 8U | IPCTNL_MSG_CT_DELETE;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  auto& message = *static_cast<nfgenmsg*>(::mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
  message.nfgen_family = original.source.family == AddressFamily::ipv4 ? AF_INET : AF_INET6;
  message.version = NFNETLINK_V0;
  putTuple(header, original);
  if (::mnl_socket_sendto(socket_.get(), header, header->nlmsg_len) < 0) {
    return errno;
  }
  alignas(nlmsghdr) std::array<char, 1024> answer;
  const auto received = ::mnl_socket_recvfrom(socket_.get(), answer.data(), answer.size());
  if (received < 0) {
    return errno;
  }
  const auto* const reply = reinterpret_cast<const nlmsghdr*>(answer.data());
  if (!::mnl_nlmsg_ok(reply, static_cast<int>(received)) || reply->nlmsg_type != NLMSG_ERROR) {
    return EPROTO;
  }
  return -static_cast<const nlmsgerr*>(::mnl_nlmsg_get_payload(reply))->error;
}

}  // namespace ostravel::linuxplatform
