#pragma once

#include <cstdint>
#include <functional>

#include "Platform/Interface/Result.h"

struct mnl_socket;
struct nlmsghdr;

namespace ostravel::linuxplatform {

// How packets come from netfilter to a netlink socket. Common to queues (nfnetlink_queue) and logs
// (nfnetlink_log).

// Takes the first number that is free from a fixed range. take: binds the socket to a number.
platform::Result<std::uint16_t> takeFreeNumber(
    const std::function<platform::OptionalError(std::uint16_t)>& take);

// Sends one configuration request and waits for its acknowledgement. Ignores packets that come
// before it.
platform::OptionalError configure(mnl_socket* socket, nlmsghdr* request);

// Prepares for a burst. What does not fit is lost without a receive error.
void makeRoomForPackets(mnl_socket* socket);

}  // namespace ostravel::linuxplatform
