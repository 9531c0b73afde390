#include "Platform/Linux/Kernel/PacketQueue.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_queue.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "Platform/Interface/SystemLimits.h"
#include "Platform/Linux/Kernel/NetlinkMessage.h"
#include "Platform/Linux/Kernel/PacketSubscription.h"

namespace ostravel::linuxplatform {

using platform::Error;
using platform::OptionalError;

namespace {

// The longest headers that the parser reads: IPv6, its extension headers, the ports.
constexpr std::uint32_t kCopiedBytes = 256;

// The flows with a pending handshake, and a burst of connections as from a few pages opened at
// once. Further packets pass without being offered.
constexpr std::uint32_t kMaximumHeldPackets = 256;
static_assert(kMaximumHeldPackets >= 4 * platform::limits::kMaxPendingHandshakes);

// How often a verdict is tried while the kernel is out of memory, before it is deferred.
constexpr int kAttemptsAtOnce = 4;

using MessageBuffer = std::array<char, 512>;

OptionalError bindQueue(mnl_socket* socket, std::uint16_t number) {
  alignas(nlmsghdr) MessageBuffer buffer{};
  nlmsghdr* const header = ::nfq_nlmsg_put(buffer.data(), NFQNL_MSG_CONFIG, number);
  ::nfq_nlmsg_cfg_put_cmd(header, AF_UNSPEC, NFQNL_CFG_CMD_BIND);
  return configure(socket, header);
}

OptionalError setLimits(mnl_socket* socket, std::uint16_t number) {
  alignas(nlmsghdr) MessageBuffer buffer{};
  nlmsghdr* const header = ::nfq_nlmsg_put(buffer.data(), NFQNL_MSG_CONFIG, number);
  ::nfq_nlmsg_cfg_put_params(header, NFQNL_COPY_PACKET, kCopiedBytes);
  ::nfq_nlmsg_cfg_put_qmaxlen(header, kMaximumHeldPackets);
  constexpr std::uint32_t kFlags = NFQA_CFG_F_FAIL_OPEN | NFQA_CFG_F_UID_GID;
  ::mnl_attr_put_u32(header, NFQA_CFG_FLAGS, htonl(kFlags));
  ::mnl_attr_put_u32(header, NFQA_CFG_MASK, htonl(kFlags));
  return configure(socket, header);
}

Error explain(const Error& reason) {
  const int error = static_cast<int>(reason.code);
  const auto make = [error](std::string description) {
    return Error{std::string(platform::kPOSIXErrorDomain), error, std::move(description)};
  };
  if (error == EPERM) {
    return make("the permission to administer the network (CAP_NET_ADMIN) is missing: run as root");
  }
  return make(std::string("the kernel gives no netfilter queue (") + std::strerror(error) +
              "): load the module nfnetlink_queue or use a kernel with "
              "CONFIG_NETFILTER_NETLINK_QUEUE");
}

}  // namespace

platform::Result<std::unique_ptr<PacketQueue>> PacketQueue::open(Send send) {
  auto opened = openNetfilterSocket();
  if (!opened) {
    return explain(opened.error());
  }
  NetlinkSocket socket = *std::move(opened);
  const auto number =
      takeFreeNumber([&](std::uint16_t candidate) { return bindQueue(socket.get(), candidate); });
  if (!number) {
    return explain(number.error());
  }
  if (const OptionalError error = setLimits(socket.get(), *number)) {
    return explain(*error);
  }
  makeRoomForPackets(socket.get());
  return std::unique_ptr<PacketQueue>(new PacketQueue(std::move(socket), *number, std::move(send)));
}

// Where messages are received, one for each packet.
struct PacketQueue::Inbox {
  Inbox() {
    for (std::size_t index = 0; index < kPacketsPerReceive; ++index) {
      vectors[index] = {.iov_base = buffers[index].data(), .iov_len = buffers[index].size()};
      messages[index].msg_hdr.msg_iov = &vectors[index];
      messages[index].msg_hdr.msg_iovlen = 1;
    }
  }

  // Room for the copied bytes of a packet and all attributes.
  struct alignas(nlmsghdr) Buffer : std::array<char, 2048> {};
  std::array<Buffer, kPacketsPerReceive> buffers;
  std::array<iovec, kPacketsPerReceive> vectors{};
  std::array<mmsghdr, kPacketsPerReceive> messages{};
};

PacketQueue::PacketQueue(NetlinkSocket socket, std::uint16_t number, Send send)
    : socket_(std::move(socket)),
      number_(number),
      send_(std::move(send)),
      inbox_(std::make_unique<Inbox>()) {}

PacketQueue::~PacketQueue() = default;

int PacketQueue::descriptor() const {
  return ::mnl_socket_get_fd(socket_.get());
}

PacketQueue::Received PacketQueue::receive(const std::function<void(const Packet&)>& handler) {
  const int count =
      ::recvmmsg(descriptor(), inbox_->messages.data(), kPacketsPerReceive, MSG_DONTWAIT, nullptr);
  receiveError_ = count < 0 && errno != EAGAIN ? errno : 0;
  if (receiveError_ != 0) {
    return Received::failed;
  }
  for (int index = 0; index < count; ++index) {
    const auto position = static_cast<std::size_t>(index);
    const char* const bytes = inbox_->buffers[position].data();
    int left = static_cast<int>(completeSize(bytes, inbox_->messages[position].msg_len));
    for (const auto* header = reinterpret_cast<const nlmsghdr*>(bytes);
         ::mnl_nlmsg_ok(header, left); header = ::mnl_nlmsg_next(header, &left)) {
      deliver(header, handler);
    }
  }
  return count == static_cast<int>(kPacketsPerReceive) ? Received::some : Received::all;
}

void PacketQueue::deliver(const nlmsghdr* message,
                          const std::function<void(const Packet&)>& handler) {
  if (message->nlmsg_type != (NFNL_SUBSYS_QUEUE << 8U | NFQNL_MSG_PACKET)) {
    return;
  }
  // Every packet needs a verdict, so one with unusable attributes is delivered without them.
  std::array<nlattr*, NFQA_MAX + 1> attributes{};
  static_cast<void>(::nfq_nlmsg_parse(message, attributes.data()));
  const auto packetHeader = valueOf<nfqnl_msg_packet_hdr>(attributes[NFQA_PACKET_HDR]);
  if (!packetHeader) {
    return;
  }
  Packet packet;
  packet.id = ntohl(packetHeader->packet_id);
  packet.mark = ntohl(valueOf<std::uint32_t>(attributes[NFQA_MARK]).value_or(0));
  if (const auto uid = valueOf<std::uint32_t>(attributes[NFQA_UID])) {
    packet.uid = ntohl(*uid);
  }
  packet.outputInterface =
      ntohl(valueOf<std::uint32_t>(attributes[NFQA_IFINDEX_OUTDEV]).value_or(0));
  if (attributes[NFQA_PAYLOAD] != nullptr) {
    packet.bytes = {static_cast<const std::byte*>(::mnl_attr_get_payload(attributes[NFQA_PAYLOAD])),
                    ::mnl_attr_get_payload_len(attributes[NFQA_PAYLOAD])};
  }
  {
    const std::lock_guard guard(lock_);
    if (!held_.insert(packet.id).second) {
      return;
    }
  }
  handler(packet);
}

// As in linux/netfilter.h.
int PacketQueue::codeOf(Fate fate) {
  switch (fate) {
    case Fate::accepted:
      return NF_ACCEPT;
    case Fate::repeated:
      return NF_REPEAT;
    case Fate::dropped:
      break;
  }
  return NF_DROP;
}

int PacketQueue::sendNow(mnl_socket* socket, const nlmsghdr* message) {
  return ::mnl_socket_sendto(socket, message, message->nlmsg_len) < 0 ? errno : 0;
}

bool PacketQueue::isHeld(std::uint32_t id) const {
  const std::lock_guard guard(lock_);
  return held_.contains(id);
}

bool PacketQueue::claim(std::uint32_t id) {
  const std::lock_guard guard(lock_);
  return held_.erase(id) != 0;
}

std::size_t PacketQueue::heldCount() const {
  const std::lock_guard guard(lock_);
  return held_.size();
}

bool PacketQueue::give(const Verdict& verdict) {
  if (!claim(verdict.id)) {
    return false;
  }
  send(verdict);
  return true;
}

bool PacketQueue::replace(std::uint32_t id, const std::function<bool()>& resend) {
  if (!claim(id)) {
    return false;
  }
  send({.id = id, .mark = std::nullopt, .fate = resend() ? Fate::dropped : Fate::accepted});
  return true;
}

void PacketQueue::acceptAll() {
  std::unordered_set<std::uint32_t> held;
  {
    const std::lock_guard guard(lock_);
    held.swap(held_);
  }
  for (const std::uint32_t id : held) {
    send({.id = id, .mark = std::nullopt});
  }
}

void PacketQueue::send(const Verdict& verdict) {
  for (int attempt = 0; attempt < kAttemptsAtOnce; ++attempt) {
    if (trySend(verdict)) {
      return;
    }
  }
  const std::lock_guard guard(lock_);
  unsent_.push_back(verdict);
  hasUnsent_ = true;
}

bool PacketQueue::trySend(const Verdict& verdict) {
  alignas(nlmsghdr) MessageBuffer buffer{};
  nlmsghdr* const header = ::nfq_nlmsg_put(buffer.data(), NFQNL_MSG_VERDICT, number_);
  ::nfq_nlmsg_verdict_put(header, static_cast<int>(verdict.id), codeOf(verdict.fate));
  if (verdict.mark) {
    ::nfq_nlmsg_verdict_put_mark(header, *verdict.mark);
  }
  const int error = send_(socket_.get(), header);
  // Any other error means that the kernel no longer holds the packet, which then needs no verdict.
  const bool isKept =
      error == ENOBUFS || error == ENOMEM || error == EAGAIN || error == EINTR || error == EPERM;
  if (isKept) {
    sendError_ = error;
  }
  return !isKept;
}

OptionalError PacketQueue::failure() const {
  if (receiveError_ != 0) {
    return platform::systemCallError(receiveError_, "receiving packets");
  }
  if (hasUnsent_) {
    return platform::systemCallError(sendError_, "giving verdicts");
  }
  return std::nullopt;
}

void PacketQueue::retryUnsent() {
  if (!hasUnsent_) {
    return;
  }
  const std::lock_guard guard(lock_);
  std::erase_if(unsent_, [this](const Verdict& verdict) { return trySend(verdict); });
  hasUnsent_ = !unsent_.empty();
}

}  // namespace ostravel::linuxplatform
