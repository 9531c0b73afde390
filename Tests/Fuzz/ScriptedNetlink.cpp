#include "Tests/Fuzz/ScriptedNetlink.h"

#include <linux/netlink.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Tests/Fuzz/FuzzInput.h"

namespace ostravel::fuzz {

namespace {

ScriptedNetlink* active = nullptr;

constexpr std::size_t kPadding = NLMSG_ALIGNTO - 1;

// Adds a number to the sequence number of every message.
void addToSequences(std::string& datagram, std::uint32_t number) {
  std::size_t at = 0;
  while (datagram.size() - at >= sizeof(nlmsghdr)) {
    nlmsghdr header;
    std::memcpy(&header, datagram.data() + at, sizeof header);
    header.nlmsg_seq += number;
    std::memcpy(datagram.data() + at, &header, sizeof header);
    const std::size_t size = NLMSG_ALIGN(std::size_t{header.nlmsg_len});
    if (size < sizeof header || size > datagram.size() - at) {
      return;
    }
    at += size;
  }
}

}  // namespace

std::vector<ScriptedNetlink::Answer> ScriptedNetlink::parse(std::string_view text) {
  FuzzInput input(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  std::vector<Answer> script;
  while (!input.rest().empty()) {
    const std::size_t low = input.number();
    const std::size_t size = low | std::size_t{input.number()} << 8U;
    if (size == kErrorFollows) {
      script.push_back({"", std::max<int>(1, input.number())});
    } else {
      script.push_back({std::string(input.text(size)), 0});
    }
  }
  return script;
}

ScriptedNetlink::ScriptedNetlink(std::span<const Answer> script, char fill)
    : left_(script), fill_(fill) {
  active = this;
}

ScriptedNetlink::~ScriptedNetlink() {
  active = nullptr;
}

ssize_t ScriptedNetlink::send(const void* bytes, std::size_t size) {
  nlmsghdr header;
  require(size >= sizeof header, "every request has a header");
  std::memcpy(&header, bytes, sizeof header);
  sequence_ = header.nlmsg_seq;
  return static_cast<ssize_t>(size);
}

ssize_t ScriptedNetlink::receive(void* buffer, std::size_t size) {
  if (left_.empty()) {
    errno = EAGAIN;
    return -1;
  }
  const Answer& answer = left_.front();
  left_ = left_.subspan(1);
  if (answer.error != 0) {
    errno = answer.error;
    return -1;
  }
  std::string datagram = answer.bytes;
  addToSequences(datagram, sequence_);
  const std::size_t length = std::min(size, datagram.size());
  datagram.resize(length);
  datagram.append(kPadding, '\0');
  std::memset(buffer, fill_, size);
  std::memcpy(buffer, datagram.data(), std::min(size, datagram.size()));
  return static_cast<ssize_t>(length);
}

}  // namespace ostravel::fuzz

using ostravel::fuzz::active;
using ostravel::fuzz::ScriptedNetlink;

namespace {

int outcome() {
  if (active == nullptr) {
    errno = ENOSYS;
    return -1;
  }
  return 0;
}

}  // namespace

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {

int socket(int /*domain*/, int /*type*/, int /*protocol*/) noexcept {
  return outcome() == 0 ? ::eventfd(0, EFD_CLOEXEC) : -1;
}

int bind(int /*descriptor*/, const sockaddr* /*address*/, socklen_t /*size*/) noexcept {
  return outcome();
}

int listen(int /*descriptor*/, int /*backlog*/) noexcept {
  return outcome();
}

int setsockopt(int /*descriptor*/, int /*level*/, int /*option*/, const void* /*value*/,
               socklen_t /*size*/) noexcept {
  return outcome();
}

int getsockname(int /*descriptor*/, sockaddr* address, socklen_t* size) noexcept {
  if (*size == sizeof(sockaddr_nl)) {
    sockaddr_nl own{};
    own.nl_family = AF_NETLINK;
    own.nl_pid = ScriptedNetlink::kPort;
    std::memcpy(address, &own, sizeof own);
  }
  return outcome();
}

ssize_t sendto(int /*descriptor*/, const void* bytes, std::size_t size, int /*flags*/,
               const sockaddr* /*address*/, socklen_t /*addressSize*/) {
  return outcome() == 0 ? active->send(bytes, size) : -1;
}

ssize_t recv(int /*descriptor*/, void* buffer, std::size_t size, int /*flags*/) {
  return outcome() == 0 ? active->receive(buffer, size) : -1;
}

ssize_t recvmsg(int /*descriptor*/, msghdr* message, int /*flags*/) {
  if (outcome() != 0) {
    return -1;
  }
  message->msg_flags = 0;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  message->msg_namelen = std::min<socklen_t>(message->msg_namelen, sizeof kernel);
  std::memcpy(message->msg_name, &kernel, message->msg_namelen);
  return active->receive(message->msg_iov->iov_base, message->msg_iov->iov_len);
}

int recvmmsg(int descriptor, mmsghdr* messages, unsigned count, int flags, timespec* /*timeout*/) {
  unsigned received = 0;
  while (received < count) {
    const iovec& part = *messages[received].msg_hdr.msg_iov;
    const auto length = ::recv(descriptor, part.iov_base, part.iov_len, flags);
    if (length < 0) {
      break;
    }
    messages[received++].msg_len = static_cast<unsigned>(length);
  }
  return received == 0 ? -1 : static_cast<int>(received);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
