#include "Platform/Linux/Kernel/NetfilterBatch.h"

#include <libmnl/libmnl.h>
#include <libnftnl/common.h>
#include <linux/netfilter/nfnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <utility>

#include "Platform/Interface/Error.h"
#include "Platform/Linux/Kernel/NetlinkMessage.h"

namespace ostravel::linuxplatform {

namespace {

// Ample room for the largest batch: the whole table takes about 20 KB.
constexpr std::size_t kBufferSize = 256 * 1024;
constexpr timeval kAnswerTimeout{2, 0};

// Sequence numbers match answers to requests, and reveal late answers to an earlier batch.
std::uint32_t nextSequenceBlock() {
  constexpr std::uint32_t kBlock = 1024;
  static std::atomic<std::uint32_t> next{kBlock};
  return next.fetch_add(kBlock);
}

std::atomic<std::uint32_t> commits{0};

}  // namespace

void NetlinkSocketRelease::operator()(mnl_socket* socket) const {
  ::mnl_socket_close(socket);
}

platform::Result<NetlinkSocket> openNetfilterSocket() {
  NetlinkSocket socket(::mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC));
  if (!socket || ::mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
    return platform::systemCallError(errno, "netfilter cannot be reached");
  }
  ::setsockopt(::mnl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVTIMEO, &kAnswerTimeout,
               sizeof kAnswerTimeout);
  return socket;
}

int descriptorOf(const mnl_socket& socket) {
  return ::mnl_socket_get_fd(&socket);
}

NetfilterBatch::NetfilterBatch() : buffer_(kBufferSize), nextSequence_(nextSequenceBlock()) {
  pending_[nextSequence_] = "";
  used_ += ::nftnl_batch_begin(end(), nextSequence_++)->nlmsg_len;
}

void NetfilterBatch::add(std::string change, std::uint16_t type, std::uint16_t family,
                         std::uint16_t flags, const std::function<void(nlmsghdr*)>& fill) {
  constexpr std::uint16_t kEveryRequest = NLM_F_REQUEST | NLM_F_ACK;
  nlmsghdr* const header = ::nftnl_nlmsg_build_hdr(
      end(), type, family, static_cast<std::uint16_t>(flags | kEveryRequest), nextSequence_);
  fill(header);
  pending_[nextSequence_++] = std::move(change);
  used_ += header->nlmsg_len;
}

std::optional<NetfilterBatch::Failure> NetfilterBatch::commit(mnl_socket* socket) {
  used_ += ::nftnl_batch_end(end(), nextSequence_)->nlmsg_len;
  auto failure = send(socket);
  if (!failure) {
    ++commits;
  }
  return failure;
}

std::uint32_t NetfilterBatch::commitCount() {
  return commits;
}

// The kernel examines a batch without an end message, and then rolls it back.
std::optional<NetfilterBatch::Failure> NetfilterBatch::examine(mnl_socket* socket) {
  return send(socket);
}

std::optional<NetfilterBatch::Failure> NetfilterBatch::send(mnl_socket* socket) {
  const std::uint32_t first = pending_.begin()->first;
  if (::mnl_socket_sendto(socket, buffer_.data(), used_) < 0) {
    return Failure{"", errno};
  }
  // The begin message is answered only if the whole batch is rejected.
  std::optional<Failure> failure;
  while (pending_.size() > 1) {
    alignas(nlmsghdr) std::array<char, 16384> answer;
    const auto received = ::mnl_socket_recvfrom(socket, answer.data(), answer.size());
    if (received < 0) {
      return Failure{"", errno};
    }
    int left = static_cast<int>(completeSize(answer.data(), received));
    for (const auto* header = reinterpret_cast<const nlmsghdr*>(answer.data());
         ::mnl_nlmsg_ok(header, left); header = ::mnl_nlmsg_next(header, &left)) {
      const auto change = pending_.find(header->nlmsg_seq);
      if (header->nlmsg_type != NLMSG_ERROR || change == pending_.end()) {
        continue;
      }
      const int error = resultOf(*header);
      if (error != 0 && !failure) {
        failure = Failure{change->second, error};
      }
      if (change->first == first) {
        return failure;
      }
      pending_.erase(change);
    }
  }
  return failure;
}

}  // namespace ostravel::linuxplatform
