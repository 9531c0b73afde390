#include "Platform/Linux/Kernel/PacketSubscription.h"

#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstddef>

#include "Platform/Linux/Kernel/NetlinkMessage.h"

namespace ostravel::linuxplatform {

using platform::OptionalError;

namespace {

// Any free number will do; logging daemons use small ones. The range only has to exceed the number
// of programs that use it.
constexpr std::uint16_t kFirstNumber = 43100;
constexpr std::uint16_t kLastNumber = 43131;

// Ample room for an acknowledgement, and for any packet that arrives before it.
constexpr std::size_t kMessageSize = std::size_t{16} * 1024;
// Room for every packet that a queue may hold, including the kernel's overhead, or for the copies
// of a few hundred typical packets.
constexpr int kReceiveBuffer = 1024 * 1024;

OptionalError failure(int error) {
  return error == 0 ? std::nullopt
                    : OptionalError(platform::systemCallError(error, "configuring netfilter"));
}

}  // namespace

platform::Result<std::uint16_t> takeFreeNumber(
    const std::function<OptionalError(std::uint16_t)>& take) {
  std::uint16_t number = kFirstNumber;
  while (true) {
    const OptionalError error = take(number);
    if (!error) {
      return number;
    }
    // Another process uses the number, and the kernel denies changing its subscription.
    const bool isTaken = error->code == EBUSY || error->code == EPERM;
    if (!isTaken || number == kLastNumber) {
      return *error;
    }
    ++number;
  }
}

OptionalError configure(mnl_socket* socket, nlmsghdr* request) {
  request->nlmsg_flags |= NLM_F_ACK;
  request->nlmsg_seq = 1;
  if (::mnl_socket_sendto(socket, request, request->nlmsg_len) < 0) {
    return failure(errno);
  }
  alignas(nlmsghdr) std::array<char, kMessageSize> answer;
  while (true) {
    const auto received = ::mnl_socket_recvfrom(socket, answer.data(), answer.size());
    if (received < 0) {
      return failure(errno);
    }
    const auto* const reply = reinterpret_cast<const nlmsghdr*>(answer.data());
    if (completeSize(answer.data(), received) == 0) {
      return failure(EPROTO);
    }
    if (reply->nlmsg_type == NLMSG_ERROR) {
      return failure(resultOf(*reply));
    }
  }
}

void makeRoomForPackets(mnl_socket* socket) {
  const int descriptor = ::mnl_socket_get_fd(socket);
  const int on = 1;
  ::setsockopt(descriptor, SOL_NETLINK, NETLINK_NO_ENOBUFS, &on, sizeof on);
  ::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof kReceiveBuffer);
}

}  // namespace ostravel::linuxplatform
