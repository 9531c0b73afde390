#include "Platform/Linux/Kernel/PacketResender.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace ostravel::linuxplatform {

namespace {

constexpr std::size_t kWord = 4;

// RFC 791.
constexpr std::size_t kIPv4HeaderSize = 20;
constexpr std::size_t kIPv4Length = 2;
constexpr std::size_t kIPv4Protocol = 9;
constexpr std::size_t kIPv4Source = 12;
constexpr std::size_t kIPv4Destination = 16;
// RFC 8200.
constexpr std::size_t kIPv6HeaderSize = 40;
constexpr std::size_t kIPv6Length = 4;
constexpr std::size_t kIPv6NextHeader = 6;
constexpr std::size_t kIPv6Source = 8;
constexpr std::size_t kIPv6Destination = 24;
// RFC 9293.
constexpr std::size_t kTCPHeaderSize = 20;
constexpr std::size_t kTCPDataOffset = 12;
constexpr std::size_t kTCPChecksum = 16;

using Bytes = std::span<const std::byte>;

unsigned byteAt(Bytes bytes, std::size_t offset) {
  return std::to_integer<unsigned>(bytes[offset]);
}

std::size_t numberAt(Bytes bytes, std::size_t offset) {
  return byteAt(bytes, offset) << 8U | byteAt(bytes, offset + 1);
}

void setNumber(std::span<std::byte> bytes, std::size_t offset, std::size_t number) {
  bytes[offset] = static_cast<std::byte>(number >> 8U);
  bytes[offset + 1] = static_cast<std::byte>(number);
}

bool isIPv4(Bytes packet) {
  return byteAt(packet, 0) >> 4U == 4;
}

// Where the headers end, and where the packet ends.
struct Layout {
  std::size_t tcp = 0;
  std::size_t total = 0;
  std::size_t addresses = 0;
  std::size_t addressesSize = 0;
};

std::optional<Layout> layoutOf(Bytes packet) {
  if (packet.empty()) {
    return std::nullopt;
  }
  if (isIPv4(packet) && packet.size() >= kIPv4HeaderSize) {
    return Layout{.tcp = (byteAt(packet, 0) & 0xFU) * kWord,
                  .total = numberAt(packet, kIPv4Length),
                  .addresses = kIPv4Source,
                  .addressesSize = 2 * sizeof(in_addr)};
  }
  if (byteAt(packet, 0) >> 4U == 6 && packet.size() >= kIPv6HeaderSize) {
    return Layout{.tcp = kIPv6HeaderSize,
                  .total = kIPv6HeaderSize + numberAt(packet, kIPv6Length),
                  .addresses = kIPv6Source,
                  .addressesSize = 2 * sizeof(in6_addr)};
  }
  return std::nullopt;
}

// The sum of the bytes as 16-bit numbers (RFC 1071). Their number is even, as in every header.
std::uint64_t sumOf(Bytes bytes) {
  std::uint64_t sum = 0;
  for (std::size_t offset = 0; offset + 1 < bytes.size(); offset += 2) {
    sum += numberAt(bytes, offset);
  }
  return sum;
}

std::size_t foldedComplement(std::uint64_t sum) {
  while (sum > 0xFFFF) {
    sum = (sum & 0xFFFF) + (sum >> 16U);
  }
  return ~sum & 0xFFFF;
}

// The protocol of the header that follows the first one.
unsigned protocolOf(Bytes packet) {
  return byteAt(packet, isIPv4(packet) ? kIPv4Protocol : kIPv6NextHeader);
}

// A control message with one value (cmsg(3)).
template <typename Value>
cmsghdr* put(cmsghdr* header, int level, int type, const Value& value) {
  header->cmsg_level = level;
  header->cmsg_type = type;
  header->cmsg_len = CMSG_LEN(sizeof value);
  std::memcpy(CMSG_DATA(header), &value, sizeof value);
  return header;
}

}  // namespace

platform::Result<std::shared_ptr<const PacketResender>> PacketResender::open() {
  constexpr int kType = SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK;
  // With this protocol the sender provides the header, and the socket receives nothing.
  FileDescriptor ipv4(::socket(AF_INET, kType, IPPROTO_RAW));
  if (!ipv4.isOpen()) {
    return platform::systemCallError(errno, "packets cannot be sent");
  }
  FileDescriptor ipv6(::socket(AF_INET6, kType, IPPROTO_RAW));
  return std::shared_ptr<const PacketResender>(
      new PacketResender(std::move(ipv4), std::move(ipv6)));
}

std::optional<std::vector<std::byte>> PacketResender::withoutData(Bytes packet) {
  const auto layout = layoutOf(packet);
  if (!layout) {
    return std::nullopt;
  }
  if (protocolOf(packet) != IPPROTO_TCP) {
    const bool isComplete = !isIPv4(packet) && layout->total == packet.size();
    return isComplete ? std::optional(std::vector(packet.begin(), packet.end())) : std::nullopt;
  }
  if (packet.size() < layout->tcp + kTCPHeaderSize) {
    return std::nullopt;
  }
  const std::size_t size = (byteAt(packet, layout->tcp + kTCPDataOffset) >> 4U) * kWord;
  const std::size_t end = layout->tcp + size;
  if (size < kTCPHeaderSize || end > packet.size() || end > layout->total) {
    return std::nullopt;
  }
  std::vector<std::byte> result(packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(end));
  if (end == layout->total) {
    return result;
  }
  // The kernel computes the checksum of the IPv4 header itself.
  if (isIPv4(packet)) {
    setNumber(result, kIPv4Length, end);
  } else {
    setNumber(result, kIPv6Length, end - kIPv6HeaderSize);
  }
  const std::span<std::byte> header = std::span(result).subspan(layout->tcp);
  setNumber(header, kTCPChecksum, 0);
  const std::uint64_t pseudoHeader =
      sumOf(packet.subspan(layout->addresses, layout->addressesSize)) + IPPROTO_TCP + size;
  setNumber(header, kTCPChecksum, foldedComplement(pseudoHeader + sumOf(header)));
  return result;
}

bool PacketResender::resend(Bytes packet, std::uint32_t mark) const {
  auto bytes = withoutData(packet);
  if (!bytes) {
    return false;
  }
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof mark) + CMSG_SPACE(sizeof(in6_pktinfo))>
      control{};
  iovec part{bytes->data(), bytes->size()};
  sockaddr_storage to{};
  msghdr message{};
  message.msg_name = &to;
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* const first = put(CMSG_FIRSTHDR(&message), SOL_SOCKET, SO_MARK, mark);
  // Routing rules may test the source address. The two families below do the same with types that
  // have no member in common.
  cmsghdr* const second = CMSG_NXTHDR(&message, first);
  if (isIPv4(*bytes)) {
    auto& address = reinterpret_cast<sockaddr_in&>(to);
    address.sin_family = AF_INET;
    std::memcpy(&address.sin_addr, &(*bytes)[kIPv4Destination], sizeof address.sin_addr);
    in_pktinfo source{};
    std::memcpy(&source.ipi_spec_dst, &(*bytes)[kIPv4Source], sizeof source.ipi_spec_dst);
    put(second, IPPROTO_IP, IP_PKTINFO, source);
    message.msg_namelen = sizeof address;
    message.msg_controllen = CMSG_SPACE(sizeof mark) + CMSG_SPACE(sizeof source);
    return ::sendmsg(ipv4_.get(), &message, MSG_NOSIGNAL) >= 0;
  }
  auto& address = reinterpret_cast<sockaddr_in6&>(to);
  address.sin6_family = AF_INET6;
  std::memcpy(&address.sin6_addr, &(*bytes)[kIPv6Destination], sizeof address.sin6_addr);
  in6_pktinfo source{};
  std::memcpy(&source.ipi6_addr, &(*bytes)[kIPv6Source], sizeof source.ipi6_addr);
  put(second, IPPROTO_IPV6, IPV6_PKTINFO, source);
  message.msg_namelen = sizeof address;
  return ipv6_.isOpen() && ::sendmsg(ipv6_.get(), &message, MSG_NOSIGNAL) >= 0;
}

}  // namespace ostravel::linuxplatform
