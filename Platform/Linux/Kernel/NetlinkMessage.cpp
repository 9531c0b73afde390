#include "Platform/Linux/Kernel/NetlinkMessage.h"

#include <algorithm>
#include <cerrno>

namespace ostravel::linuxplatform {

std::size_t completeSize(const char* bytes, ssize_t received) {
  const std::size_t size = received < 0 ? 0 : static_cast<std::size_t>(received);
  std::size_t complete = 0;
  while (size - complete >= sizeof(nlmsghdr)) {
    nlmsghdr header;
    std::memcpy(&header, bytes + complete, sizeof header);
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > size - complete) {
      break;
    }
    // The last message need not be padded.
    complete = std::min(size, complete + NLMSG_ALIGN(std::size_t{header.nlmsg_len}));
  }
  return complete;
}

int resultOf(const nlmsghdr& message) {
  const auto* const result =
      message.nlmsg_type == NLMSG_ERROR ? fixedPart<nlmsgerr>(message) : nullptr;
  return result == nullptr || result->error > 0 ? EPROTO : -result->error;
}

}  // namespace ostravel::linuxplatform
