#include "Platform/Linux/Kernel/PacketLog.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <string>

#include "Platform/Linux/Kernel/NetlinkMessage.h"
#include "Platform/Linux/Kernel/PacketSubscription.h"

namespace ostravel::linuxplatform {

using platform::OptionalError;

namespace {

// A copy with its attributes, and the kernel's padding to a page.
constexpr std::size_t kMessageSize = PacketLog::kCopiedBytes + 4096;

struct alignas(nlmsghdr) Request : std::array<char, 256> {};

nlmsghdr* putHeader(Request& request, std::uint16_t group) {
  nlmsghdr* const header = ::mnl_nlmsg_put_header(request.data());
  header->nlmsg_type = NFNL_SUBSYS_ULOG << 8U | NFULNL_MSG_CONFIG;
  header->nlmsg_flags = NLM_F_REQUEST;
  auto* const extra =
      static_cast<nfgenmsg*>(::mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
  extra->nfgen_family = AF_UNSPEC;
  extra->version = NFNETLINK_V0;
  extra->res_id = htons(group);
  return header;
}

OptionalError bindGroup(mnl_socket* socket, std::uint16_t group) {
  Request request{};
  nlmsghdr* const header = putHeader(request, group);
  const nfulnl_msg_config_cmd command{.command = NFULNL_CFG_CMD_BIND};
  ::mnl_attr_put(header, NFULA_CFG_CMD, sizeof command, &command);
  return configure(socket, header);
}

OptionalError setMode(mnl_socket* socket, std::uint16_t group) {
  Request request{};
  nlmsghdr* const header = putHeader(request, group);
  nfulnl_msg_config_mode mode{};
  mode.copy_range = htonl(PacketLog::kCopiedBytes);
  mode.copy_mode = NFULNL_COPY_PACKET;
  ::mnl_attr_put(header, NFULA_CFG_MODE, sizeof mode, &mode);
  // Each packet is sent at once, before the application receives it.
  ::mnl_attr_put_u32(header, NFULA_CFG_QTHRESH, htonl(1));
  return configure(socket, header);
}

int readAttribute(const nlattr* attribute, void* into) {
  auto& attributes = *static_cast<std::array<const nlattr*, NFULA_MAX + 1>*>(into);
  if (::mnl_attr_type_valid(attribute, NFULA_MAX) >= 0) {
    attributes[::mnl_attr_get_type(attribute)] = attribute;
  }
  return MNL_CB_OK;
}

platform::Error explain(const platform::Error& error) {
  return platform::systemCallError(static_cast<int>(error.code),
                                   "the kernel gives no copies of packets (module nfnetlink_log)");
}

}  // namespace

platform::Result<std::unique_ptr<PacketLog>> PacketLog::open() {
  auto opened = openNetfilterSocket();
  if (!opened) {
    return std::move(opened).error();
  }
  NetlinkSocket socket = *std::move(opened);
  const auto group =
      takeFreeNumber([&](std::uint16_t number) { return bindGroup(socket.get(), number); });
  if (!group) {
    return explain(group.error());
  }
  if (const OptionalError error = setMode(socket.get(), *group)) {
    return explain(*error);
  }
  makeRoomForPackets(socket.get());
  return std::unique_ptr<PacketLog>(new PacketLog(std::move(socket), *group));
}

PacketLog::PacketLog(NetlinkSocket socket, std::uint16_t group)
    : socket_(std::move(socket)), group_(group), buffer_(kMessageSize) {}

PacketLog::~PacketLog() = default;

int PacketLog::descriptor() const {
  return ::mnl_socket_get_fd(socket_.get());
}

bool PacketLog::receive(const std::function<void(const Packet&)>& handler) {
  const auto received = ::recv(descriptor(), buffer_.data(), buffer_.size(), MSG_DONTWAIT);
  if (received <= 0) {
    return false;
  }
  int left = static_cast<int>(completeSize(buffer_.data(), received));
  for (const auto* header = reinterpret_cast<const nlmsghdr*>(buffer_.data());
       ::mnl_nlmsg_ok(header, left); header = ::mnl_nlmsg_next(header, &left)) {
    deliver(header, handler);
  }
  return true;
}

void PacketLog::deliver(const nlmsghdr* message,
                        const std::function<void(const Packet&)>& handler) {
  if (message->nlmsg_type != (NFNL_SUBSYS_ULOG << 8U | NFULNL_MSG_PACKET)) {
    return;
  }
  std::array<const nlattr*, NFULA_MAX + 1> attributes{};
  ::mnl_attr_parse(message, sizeof(nfgenmsg), &readAttribute, &attributes);
  const auto packetHeader = valueOf<nfulnl_msg_packet_hdr>(attributes[NFULA_PACKET_HDR]);
  if (!packetHeader || attributes[NFULA_PAYLOAD] == nullptr) {
    return;
  }
  Packet packet;
  packet.isOutgoing = packetHeader->hook == NF_INET_LOCAL_OUT;
  const auto uid = valueOf<std::uint32_t>(attributes[NFULA_UID]);
  if (packet.isOutgoing && uid) {
    packet.uid = ntohl(*uid);
  }
  packet.outputInterface =
      ntohl(valueOf<std::uint32_t>(attributes[NFULA_IFINDEX_OUTDEV]).value_or(0));
  packet.bytes = {static_cast<const std::byte*>(::mnl_attr_get_payload(attributes[NFULA_PAYLOAD])),
                  ::mnl_attr_get_payload_len(attributes[NFULA_PAYLOAD])};
  handler(packet);
}

}  // namespace ostravel::linuxplatform
