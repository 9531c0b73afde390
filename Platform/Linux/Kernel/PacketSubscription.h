#pragma once

#include <cstdint>
#include <functional>

#include "Platform/Interface/Result.h"

struct mnl_socket;
struct nlmsghdr;

namespace ostravel::linuxplatform {

// Delivery of packets from netfilter to a netlink socket, for queues (nfnetlink_queue) and logs
// (nfnetlink_log).

// Takes the first number that is free from a fixed range. take: binds the socket to a number.
platform::Result<std::uint16_t> takeFreeNumber(
    const std::function<platform::OptionalError(std::uint16_t)>& take);

// Sends one configuration request and waits for its acknowledgement. Ignores packets that arrive
// before it.
platform::OptionalError configure(mnl_socket* socket, nlmsghdr* request);

// Enlarges the receive buffer for a burst. Packets that still do not fit are lost without a receive
// error.
void makeRoomForPackets(mnl_socket* socket);

}  // namespace ostravel::linuxplatform
