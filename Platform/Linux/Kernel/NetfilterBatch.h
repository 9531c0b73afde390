#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Interface/Result.h"

struct mnl_socket;
struct nlmsghdr;

namespace ostravel::linuxplatform {

struct NetlinkSocketRelease {
  void operator()(mnl_socket* socket) const;
};
using NetlinkSocket = std::unique_ptr<mnl_socket, NetlinkSocketRelease>;

// Opens a netlink socket to netfilter. Fails with an error of kPOSIXErrorDomain if the kernel does
// not support netfilter. Receiving on it blocks for at most two seconds.
platform::Result<NetlinkSocket> openNetfilterSocket();
int descriptorOf(const mnl_socket& socket);

// Changes to nf_tables that the kernel applies atomically (nfnetlink batch).
class NetfilterBatch {
 public:
  // The failed change, under the name its caller gave it; empty for the batch as a whole. Not an
  // Error: the caller decides by the change and the errno whether to do without it, and what to
  // tell the administrator.
  struct Failure {
    std::string change;
    int error = 0;
  };

  NetfilterBatch();

  // fill writes the payload after the header. type is NFT_MSG_*, family is NFPROTO_*, flags are
  // NLM_F_* in addition to those of every request.
  void add(std::string change, std::uint16_t type, std::uint16_t family, std::uint16_t flags,
           const std::function<void(nlmsghdr*)>& fill);

  // Sends the batch and waits for the kernel's answer to every change. Called once per batch.
  std::optional<Failure> commit(mnl_socket* socket);

  // The number of successful commits of this process, modulo 2^32. From any thread.
  static std::uint32_t commitCount();

  // The same as commit, but the kernel only examines the changes and makes none. Called instead of
  // it.
  std::optional<Failure> examine(mnl_socket* socket);

 private:
  std::optional<Failure> send(mnl_socket* socket);
  char* end() { return buffer_.data() + used_; }

  std::vector<char> buffer_;
  std::size_t used_ = 0;
  std::uint32_t nextSequence_;
  std::map<std::uint32_t, std::string> pending_;
};

}  // namespace ostravel::linuxplatform
