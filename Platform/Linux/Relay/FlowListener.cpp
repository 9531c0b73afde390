#include "Platform/Linux/Relay/FlowListener.h"

// Before the kernel's own headers, which then leave these definitions out.
#include <netinet/in.h>

#include <linux/netfilter_ipv4.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

#include "Platform/Linux/Kernel/KernelAddress.h"
#include "Platform/Linux/Relay/RedirectPath.h"
#include "Platform/Linux/Services/RelayLimits.h"

namespace ostravel::linuxplatform {

namespace {

// The loopback addresses, with a port chosen by the kernel.
constexpr SocketEndpoint kIPv4Loopback{AddressFamily::ipv4, {127, 0, 0, 1}, 0};
constexpr SocketEndpoint kIPv6Loopback{
    AddressFamily::ipv6, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 0};

// The original destination of a redirected connection; empty with errno if the kernel does not say.
// With ENOENT it does not track the connection, which then cannot have been redirected; a direct
// connection returns our own listener.
std::optional<SocketEndpoint> originalDestination(int descriptor, AddressFamily family) {
  KernelAddress address;
  // The IPv6 option has the same number (linux/netfilter_ipv6/ip6_tables.h).
  const int level = family == AddressFamily::ipv4 ? SOL_IP : SOL_IPV6;
  if (::getsockopt(descriptor, level, SO_ORIGINAL_DST, &address.storage, &address.size) != 0) {
    return std::nullopt;
  }
  const auto destination = address.endpoint();
  if (!destination || destination->family != family) {
    errno = EPROTO;
    return std::nullopt;
  }
  return destination;
}

// True for the errors of a connection that has already failed (accept(2)); the next call returns
// another connection.
bool concernsOneConnection(int error) {
  switch (error) {
    case ECONNABORTED:
    case EINTR:
    case ENETDOWN:
    case EPROTO:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case EOPNOTSUPP:
    case ENETUNREACH:
    case ETIMEDOUT:
      return true;
    default:
      return false;
  }
}

// Accepted sockets inherit these options.
void keepAlive(int listener) {
  const auto set = [listener](int level, int option, int value) {
    ::setsockopt(listener, level, option, &value, sizeof value);
  };
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
  set(IPPROTO_TCP, TCP_KEEPIDLE, static_cast<int>(limits::kKeepAliveIdle.count()));
  set(IPPROTO_TCP, TCP_KEEPINTVL, static_cast<int>(limits::kKeepAliveInterval.count()));
  set(IPPROTO_TCP, TCP_KEEPCNT, limits::kKeepAliveProbes);
}

}  // namespace

FlowListener::FlowListener(EventLoop& loop)
    : loop_(loop), ipv4_(loop), ipv6_(loop), deadlineTimer_(loop.timers()) {
  open(ipv4_, kIPv4Loopback);
  if (!ipv4_.socket.isOpen()) {
    throw std::system_error(errno, std::generic_category(), "a listener on 127.0.0.1");
  }
  open(ipv6_, kIPv6Loopback);
}

FlowListener::~FlowListener() = default;

void FlowListener::open(Socket& listener, const SocketEndpoint& address) {
  KernelAddress wanted(address);
  FileDescriptor descriptor(
      ::socket(wanted.storage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!descriptor.isOpen()) {
    return;
  }
  // Accepted sockets inherit the mark. Without the permission to set it nothing is intercepted.
  const std::uint32_t mark = loop_.marks().own();
  ::setsockopt(descriptor.get(), SOL_SOCKET, SO_MARK, &mark, sizeof mark);
  keepAlive(descriptor.get());
  LoopSocket::resetAfterKill(descriptor.get());
  LoopSocket::sendWithoutDelay(descriptor.get());
  if (::bind(descriptor.get(), wanted.get(), wanted.size) != 0 ||
      ::listen(descriptor.get(), limits::kListenBacklog) != 0) {
    return;
  }
  const auto bound = ownAddressOf(descriptor.get());
  if (!bound) {
    return;
  }
  listener.socket = LoopSocket(loop_, descriptor.release());
  if (listener.socket.isOpen()) {
    listener.port = bound->port;
    waitForConnections(listener);
  }
}

void FlowListener::setFilter(int program) {
  for (const Socket* listener : {&ipv4_, &ipv6_}) {
    ::setsockopt(listener->socket.descriptor(), SOL_SOCKET, SO_ATTACH_BPF, &program,
                 sizeof program);
  }
}

// Accepting

void FlowListener::waitForConnections(Socket& listener) {
  listener.socket.waitUntilReadable([this, &listener] {
    ++loop_.counters().wakeups;
    acceptSome(listener);
  });
}

void FlowListener::pauseAccepting(Socket& listener) {
  listener.pause.start(limits::kAcceptPause, [this, &listener] {
    ++loop_.counters().wakeups;
    acceptSome(listener);
  });
}

void FlowListener::acceptSome(Socket& listener) {
  if (acceptArrived(listener) == Accepted::stuck) {
    // Waiting for another connection would return at once.
    pauseAccepting(listener);
  } else {
    waitForConnections(listener);
  }
}

void FlowListener::acceptReleased(AddressFamily family) {
  Socket& listener = family == AddressFamily::ipv4 ? ipv4_ : ipv6_;
  if (listener.socket.isOpen()) {
    // The result does not matter: the pending wait reports what is left in the backlog.
    acceptOne(listener);
  }
}

FlowListener::Accepted FlowListener::acceptArrived(Socket& listener) {
  auto last = Accepted::one;
  for (int count = 0; last == Accepted::one && count < limits::kAcceptsPerEvent; ++count) {
    last = acceptOne(listener);
  }
  return last;
}

FlowListener::Accepted FlowListener::acceptOne(Socket& listener) {
  KernelAddress peer;
  const int descriptor =
      ::accept4(listener.socket.descriptor(), peer.get(), &peer.size, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (descriptor >= 0) {
    handOver(FileDescriptor(descriptor), peer.endpoint());
    return Accepted::one;
  }
  const int error = errno;
  if (error == EAGAIN) {
    listener.socket.nothingToRead();
    return Accepted::none;
  }
  if (concernsOneConnection(error)) {
    return Accepted::one;
  }
  reportStuck(&listener == &ipv4_ ? AddressFamily::ipv4 : AddressFamily::ipv6, error);
  return Accepted::stuck;
}

// Flows offered from now on could not be carried, and their connections would be reset.
void FlowListener::reportStuck(AddressFamily family, int error) {
  if (RedirectPath* const path = loop_.redirectPath()) {
    path->reportStuck(loop_.index(), family, error);
  }
}

void FlowListener::handOver(FileDescriptor connection, const std::optional<SocketEndpoint>& peer) {
  const auto waiter = peer ? take(connection.get(), *peer) : nullptr;
  if (!waiter) {
    // Closing it resets it, as with every socket of this listener.
    return;
  }
  LoopSocket socket(loop_, connection.release());
  if (socket.isOpen()) {
    waiter->accepted(std::move(socket));
  } else {
    reportStuck(peer->family, errno);
    waiter->timedOut();
  }
}

// Expecting

void FlowListener::expect(const std::shared_ptr<Waiter>& waiter) {
  const SocketEndpoint source = waiter->tuple().source;
  expected_.emplace(source, Expectation{++lastNumber_, waiter, nullptr});
  deadlines_.push_back(
      {std::chrono::steady_clock::now() + limits::kAcceptTimeout, source, lastNumber_});
  if (!isWaitingForDeadline_) {
    waitForDeadline();
  }
}

void FlowListener::keep(const std::shared_ptr<Waiter>& waiter) {
  const auto [begin, end] = expected_.equal_range(waiter->tuple().source);
  const auto found = std::find_if(
      begin, end, [&waiter](const auto& entry) { return entry.second.waiter.lock() == waiter; });
  if (found != end) {
    found->second.kept = waiter;
  }
}

std::shared_ptr<FlowListener::Waiter> FlowListener::take(int descriptor,
                                                         const SocketEndpoint& peer) {
  const auto destination = originalDestination(descriptor, peer.family);
  if (!destination) {
    if (errno != ENOENT) {
      reportStuck(peer.family, errno);
    }
    return nullptr;
  }
  auto found = find(peer, *destination);
  if (found == expected_.end()) {
    found = findRenumbered(peer, *destination);
  }
  if (found == expected_.end()) {
    return nullptr;
  }
  auto waiter = found->second.waiter.lock();
  expected_.erase(found);
  forgetDeadlines();
  return waiter;
}

// Nearly all connections arrive, one after the other.
void FlowListener::forgetDeadlines() {
  while (!deadlines_.empty() && find(deadlines_.front()) == expected_.end()) {
    deadlines_.pop_front();
  }
}

FlowListener::Expected::iterator FlowListener::find(const SocketEndpoint& peer,
                                                    const SocketEndpoint& destination) {
  const auto [begin, end] = expected_.equal_range(peer);
  const auto found = std::find_if(begin, end, [&destination](const auto& entry) {
    const auto waiter = entry.second.waiter.lock();
    return waiter && waiter->tuple().destination == destination;
  });
  return found == end ? expected_.end() : found;
}

// Connections may share a source port and differ only by destination. Redirected to one listener
// they would be identical, so the kernel assigns a new port to the later one. It is then matched by
// its original destination, which several flows may have in common.
FlowListener::Expected::iterator FlowListener::findRenumbered(const SocketEndpoint& peer,
                                                              const SocketEndpoint& destination) {
  auto oldest = expected_.end();
  for (auto entry = expected_.begin(); entry != expected_.end(); ++entry) {
    const auto waiter = entry->second.waiter.lock();
    if (!waiter || entry->first.family != peer.family || entry->first.address != peer.address ||
        waiter->tuple().destination != destination) {
      continue;
    }
    if (oldest == expected_.end()) {
      oldest = entry;
      continue;
    }
    if (oldest->second.waiter.lock()->application() != waiter->application()) {
      // Bytes of one application must not be carried as another's.
      return expected_.end();
    }
    if (entry->second.number < oldest->second.number) {
      oldest = entry;
    }
  }
  return oldest;
}

FlowListener::Expected::iterator FlowListener::find(const Deadline& deadline) {
  const auto [begin, end] = expected_.equal_range(deadline.source);
  const auto found = std::find_if(begin, end, [&deadline](const auto& entry) {
    return entry.second.number == deadline.number;
  });
  return found == end ? expected_.end() : found;
}

void FlowListener::waitForDeadline() {
  forgetDeadlines();
  isWaitingForDeadline_ = !deadlines_.empty();
  if (!isWaitingForDeadline_) {
    return;
  }
  deadlineTimer_.start(deadlines_.front().time, [this] {
    ++loop_.counters().wakeups;
    expire();
  });
}

void FlowListener::expire() {
  // If this loop was busy for a long time, the expected connections may already be in the backlog.
  for (Socket* const listener : {&ipv4_, &ipv6_}) {
    if (listener->socket.isOpen()) {
      acceptArrived(*listener);
    }
  }
  const auto now = std::chrono::steady_clock::now();
  // A waiter may release another flow when notified, which adds a deadline at the end.
  while (!deadlines_.empty() && deadlines_.front().time <= now) {
    const auto found = find(deadlines_.front());
    std::shared_ptr<Waiter> waiter;
    if (found != expected_.end()) {
      waiter = found->second.waiter.lock();
      expected_.erase(found);
    }
    deadlines_.pop_front();
    if (waiter) {
      waiter->timedOut();
    }
  }
  waitForDeadline();
}

}  // namespace ostravel::linuxplatform
