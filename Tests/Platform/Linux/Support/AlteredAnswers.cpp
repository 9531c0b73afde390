#include "Tests/Platform/Linux/Support/AlteredAnswers.h"

#include <dlfcn.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace ostravel::testing {

namespace {

AlteredAnswers* active = nullptr;

// The C library's function of this name.
template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

bool isNetlink(int descriptor) {
  int domain = 0;
  socklen_t size = sizeof domain;
  return ::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 &&
         domain == AF_NETLINK;
}

bool isAltered(int descriptor) {
  return active != nullptr && isNetlink(descriptor);
}

}  // namespace

ssize_t receiveAltered(int descriptor, char* buffer, std::size_t size) {
  return active->receive(descriptor, buffer, size);
}

AlteredAnswers::AlteredAnswers(Alter alter) : alter_(std::move(alter)) {
  active = this;
}

AlteredAnswers::~AlteredAnswers() {
  active = nullptr;
}

ssize_t AlteredAnswers::receive(int descriptor, char* buffer, std::size_t size) {
  constexpr int kGarbage = 0xA5;
  const auto next = [this, descriptor] {
    return std::find_if(waiting_.begin(), waiting_.end(), [descriptor](const Waiting& waiting) {
      return waiting.descriptor == descriptor;
    });
  };
  auto found = next();
  while (found == waiting_.end()) {
    std::vector<char> sent(std::size_t{64} * 1024);
    // libmnl calls recvmsg, nothing calls recvfrom.
    const auto length =
        ::recvfrom(descriptor, sent.data(), sent.size(), MSG_DONTWAIT, nullptr, nullptr);
    if (length < 0) {
      return -1;
    }
    sent.resize(static_cast<std::size_t>(length));
    for (NetlinkAnswer& answer : alter_(sent)) {
      waiting_.push_back({descriptor, std::move(answer)});
    }
    found = next();
  }
  const NetlinkAnswer answer = std::move(found->answer);
  waiting_.erase(found);
  std::memset(buffer, kGarbage, size);
  if (answer.error != 0) {
    errno = answer.error;
    return -1;
  }
  const std::size_t length = std::min(size, answer.bytes.size());
  std::copy_n(answer.bytes.begin(), length, buffer);
  return static_cast<ssize_t>(length);
}

}  // namespace ostravel::testing

using ostravel::testing::isAltered;
using ostravel::testing::next;
using ostravel::testing::receiveAltered;

extern "C" {

ssize_t recv(int descriptor, void* buffer, std::size_t size, int flags) {
  static auto* const original = next<decltype(recv)>("recv");
  return isAltered(descriptor) ? receiveAltered(descriptor, static_cast<char*>(buffer), size)
                               : original(descriptor, buffer, size, flags);
}

ssize_t recvmsg(int descriptor, msghdr* message, int flags) {
  static auto* const original = next<decltype(recvmsg)>("recvmsg");
  if (!isAltered(descriptor)) {
    return original(descriptor, message, flags);
  }
  const auto length = receiveAltered(descriptor, static_cast<char*>(message->msg_iov->iov_base),
                                     message->msg_iov->iov_len);
  if (length >= 0) {
    message->msg_flags = 0;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    std::memcpy(message->msg_name, &kernel,
                std::min<std::size_t>(message->msg_namelen, sizeof kernel));
    message->msg_namelen = sizeof kernel;
  }
  return length;
}

int recvmmsg(int descriptor, mmsghdr* messages, unsigned count, int flags, timespec* timeout) {
  static auto* const original = next<decltype(recvmmsg)>("recvmmsg");
  if (!isAltered(descriptor)) {
    return original(descriptor, messages, count, flags, timeout);
  }
  unsigned received = 0;
  while (received < count) {
    const iovec& part = *messages[received].msg_hdr.msg_iov;
    const auto length = receiveAltered(descriptor, static_cast<char*>(part.iov_base), part.iov_len);
    if (length < 0) {
      break;
    }
    messages[received++].msg_len = static_cast<unsigned>(length);
  }
  return received == 0 ? -1 : static_cast<int>(received);
}
}
