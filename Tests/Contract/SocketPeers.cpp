#include "Tests/Contract/SocketPeers.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace ostravel::contract {

namespace {

int checked(int result, const char* what) {
  if (result < 0) {
    throw std::system_error(errno, std::generic_category(), what);
  }
  return result;
}

int boundSocket(int family, int extraType) {
  const int descriptor =
      checked(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | extraType, 0), "socket");
  sockaddr_in loopback{};
  loopback.sin_family = AF_INET;
  loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  // A local address of nothing but the family asks for a name.
  const sa_family_t local = AF_UNIX;
  const auto* const address = family == AF_UNIX ? reinterpret_cast<const sockaddr*>(&local)
                                                : reinterpret_cast<const sockaddr*>(&loopback);
  const auto size = static_cast<socklen_t>(family == AF_UNIX ? sizeof local : sizeof loopback);
  checked(::bind(descriptor, address, size), "bind");
  return descriptor;
}

int listeningSocket(int family, int backlog) {
  const int descriptor = boundSocket(family, SOCK_NONBLOCK);
  checked(::listen(descriptor, backlog), "listen");
  return descriptor;
}

}  // namespace

SocketPeers::SocketPeers()
    : listener_(listeningSocket(AF_INET, SOMAXCONN)),
      refusing_(boundSocket(AF_INET, 0)),
      silent_(listeningSocket(AF_INET, 0)),
      localListener_(listeningSocket(AF_UNIX, SOMAXCONN)),
      localRefusing_(boundSocket(AF_UNIX, 0)),
      wakeUp_(checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")) {
  fillSilentListener();
  thread_ = std::thread([this] { run(); });
}

SocketPeers::~SocketPeers() {
  {
    const std::lock_guard guard(lock_);
    isEnding_ = true;
  }
  wakeUp();
  thread_.join();
  for (const int descriptor :
       {listener_, refusing_, silent_, silentFiller_, localListener_, localRefusing_, wakeUp_}) {
    ::close(descriptor);
  }
  for (const auto& [descriptor, text] : localConnections_) {
    ::close(descriptor);
  }
}

std::uint16_t SocketPeers::portOf(const Address& address) {
  sockaddr_in parsed{};
  std::memcpy(&parsed, address.data(), std::min(sizeof parsed, address.size()));
  return ntohs(parsed.sin_port);
}

std::shared_ptr<SocketPeer> SocketPeers::takeAccepted() {
  const std::lock_guard guard(lock_);
  if (accepted_.empty()) {
    return nullptr;
  }
  auto peer = std::move(accepted_.front());
  accepted_.pop_front();
  return peer;
}

std::pair<std::shared_ptr<SocketPeer>, std::uint16_t> SocketPeers::makeUnconnected() {
  const int descriptor = boundSocket(AF_INET, SOCK_NONBLOCK);
  const auto port = portOf(addressOf(descriptor));
  auto peer = makePeer(descriptor, SocketPeer::Stage::idle);
  const std::lock_guard guard(lock_);
  peers_.push_back(peer);
  return {std::move(peer), port};
}

std::vector<std::string> SocketPeers::localDeliveries() const {
  const std::lock_guard guard(lock_);
  return localDeliveries_;
}

std::shared_ptr<SocketPeer> SocketPeers::makePeer(int descriptor, SocketPeer::Stage stage) {
  return std::make_shared<SocketPeer>(descriptor, stage, [this] { wakeUp(); });
}

void SocketPeers::wakeUp() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(wakeUp_, &one, sizeof one);
}

SocketPeers::Address SocketPeers::addressOf(int descriptor) {
  sockaddr_storage storage{};
  socklen_t size = sizeof storage;
  checked(::getsockname(descriptor, reinterpret_cast<sockaddr*>(&storage), &size), "getsockname");
  Address address(size);
  std::memcpy(address.data(), &storage, size);
  return address;
}

void SocketPeers::fillSilentListener() {
  // A backlog of zero has room for one connection that is never accepted.
  const auto address = addressOf(silent_);
  sockaddr_in parsed{};
  std::memcpy(&parsed, address.data(), sizeof parsed);
  silentFiller_ = checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  checked(::connect(silentFiller_, reinterpret_cast<const sockaddr*>(&parsed), sizeof parsed),
          "connect");
}

void SocketPeers::run() {
  while (true) {
    std::vector<std::shared_ptr<SocketPeer>> peers;
    {
      const std::lock_guard guard(lock_);
      if (isEnding_) {
        return;
      }
      peers = peers_;
    }
    std::vector<pollfd> entries{
        {wakeUp_, POLLIN, 0}, {listener_, POLLIN, 0}, {localListener_, POLLIN, 0}};
    const auto firstLocal = entries.size();
    for (const auto& [descriptor, text] : localConnections_) {
      entries.push_back({descriptor, POLLIN, 0});
    }
    const auto firstPeer = entries.size();
    for (const auto& peer : peers) {
      const auto events = peer->awaitedEvents();
      // An entry without a descriptor is not even notified of a reset.
      entries.push_back({events == 0 ? -1 : peer->descriptor(), events, 0});
    }
    if (::poll(entries.data(), entries.size(), -1) < 0) {
      continue;
    }
    if (entries[0].revents != 0) {
      std::uint64_t count = 0;
      [[maybe_unused]] const auto got = ::read(wakeUp_, &count, sizeof count);
    }
    for (std::size_t i = firstPeer; i < entries.size(); ++i) {
      if (entries[i].revents != 0) {
        peers[i - firstPeer]->proceed();
      }
    }
    // Backwards, because those that have ended are removed.
    for (std::size_t i = firstPeer; i-- > firstLocal;) {
      if (entries[i].revents != 0) {
        receiveLocal(i - firstLocal);
      }
    }
    if (entries[1].revents != 0) {
      accept();
    }
    if (entries[2].revents != 0) {
      acceptLocal();
    }
  }
}

void SocketPeers::accept() {
  while (true) {
    const int descriptor = ::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (descriptor < 0) {
      return;
    }
    auto peer = makePeer(descriptor, SocketPeer::Stage::connected);
    const std::lock_guard guard(lock_);
    peers_.push_back(peer);
    accepted_.push_back(std::move(peer));
  }
}

void SocketPeers::acceptLocal() {
  while (true) {
    const int descriptor =
        ::accept4(localListener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (descriptor < 0) {
      return;
    }
    localConnections_.emplace_back(descriptor, "");
  }
}

void SocketPeers::receiveLocal(std::size_t index) {
  auto& [descriptor, text] = localConnections_[index];
  std::array<char, 65536> chunk{};
  const auto count = ::recv(descriptor, chunk.data(), chunk.size(), MSG_DONTWAIT);
  if (count > 0) {
    text.append(chunk.data(), static_cast<std::size_t>(count));
    return;
  }
  ::close(descriptor);
  {
    const std::lock_guard guard(lock_);
    localDeliveries_.push_back(std::move(text));
  }
  localConnections_.erase(localConnections_.begin() + static_cast<std::ptrdiff_t>(index));
}

}  // namespace ostravel::contract
