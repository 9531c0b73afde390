#include "Tests/Support/TestSocket.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace ostravel::testing {
namespace {

// Longer than anything takes on a busy machine.
constexpr int kPatienceSeconds = 30;

[[noreturn]] void fail(const char* what) {
  throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

struct Address {
  sockaddr_storage storage{};
  socklen_t size = 0;

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
  sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
  int family() const { return storage.ss_family; }
};

// An IPv6 address may have a zone.
Address tcpAddress(const std::string& text, std::uint16_t port) {
  Address address;
  sockaddr_in v4{};
  sockaddr_in6 v6{};
  const std::size_t zone = text.find('%');
  if (::inet_pton(AF_INET, text.c_str(), &v4.sin_addr) == 1) {
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    std::memcpy(&address.storage, &v4, sizeof(v4));
    address.size = sizeof(v4);
  } else {
    ::inet_pton(AF_INET6, text.substr(0, zone).c_str(), &v6.sin6_addr);
    v6.sin6_family = AF_INET6;
    if (zone != std::string::npos) {
      v6.sin6_scope_id = ::if_nametoindex(text.c_str() + zone + 1);
    }
    v6.sin6_port = htons(port);
    std::memcpy(&address.storage, &v6, sizeof(v6));
    address.size = sizeof(v6);
  }
  return address;
}

int openSocket(int family, int flags = 0) {
  const int descriptor = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
  if (descriptor < 0) {
    fail("socket");
  }
  return descriptor;
}

// The port has the same place in the address of either family.
std::uint16_t portIn(const Address& address) {
  sockaddr_in internet{};
  std::memcpy(&internet, &address.storage, sizeof(internet));
  return ntohs(internet.sin_port);
}

std::uint16_t localPortOf(int descriptor) {
  Address address;
  address.size = sizeof(address.storage);
  if (::getsockname(descriptor, address.get(), &address.size) != 0) {
    fail("address of a socket");
  }
  return portIn(address);
}

void bindSocket(int descriptor, const Address& address) {
  const int on = 1;
  ::setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (::bind(descriptor, address.get(), address.size) != 0) {
    fail("bind");
  }
}

bool waitFor(int descriptor, short events, std::chrono::milliseconds time) {
  pollfd wait{.fd = descriptor, .events = events, .revents = 0};
  return ::poll(&wait, 1, static_cast<int>(time.count())) == 1;
}

}  // namespace

TestSocket TestSocket::connectTcp(std::uint16_t port, const std::string& address) {
  TestSocket socket = makeTcp(address);
  if (socket.connectTo(address, port) != 0) {
    fail("connect");
  }
  return socket;
}

TestSocket TestSocket::connectUnix(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  TestSocket socket(openSocket(AF_UNIX));
  if (::connect(socket.descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    fail("connect");
  }
  return socket;
}

TestSocket TestSocket::beginConnectTcp(std::uint16_t port, const std::string& address) {
  TestSocket socket = makeTcp(address, SOCK_NONBLOCK);
  const int error = socket.connectTo(address, port);
  if (error != 0 && error != EINPROGRESS) {
    fail("connect");
  }
  return socket;
}

TestSocket TestSocket::makeTcp(const std::string& address, int flags) {
  return TestSocket(openSocket(tcpAddress(address, 0).family(), flags));
}

TestSocket::TestSocket(int descriptor) : descriptor_(descriptor) {
  const timeval patience{.tv_sec = kPatienceSeconds, .tv_usec = 0};
  ::setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  ::setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
}

TestSocket::TestSocket(TestSocket&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)) {}

TestSocket& TestSocket::operator=(TestSocket&& other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  return *this;
}

TestSocket::~TestSocket() {
  close();
}

void TestSocket::send(std::string_view bytes) const {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0) {
      fail("send");
    }
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

std::size_t TestSocket::sendUntilStalled(std::string_view bytes,
                                         std::chrono::milliseconds patience) const {
  std::size_t total = 0;
  while (!bytes.empty() && waitFor(descriptor_, POLLOUT, patience)) {
    const ssize_t sent =
        ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
      fail("send");
    }
    total += static_cast<std::size_t>(sent);
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return total;
}

void TestSocket::sendUrgent(char byte) const {
  if (::send(descriptor_, &byte, 1, MSG_OOB | MSG_NOSIGNAL) != 1) {
    fail("send");
  }
}

std::string TestSocket::receive(std::size_t size) const {
  std::string result(size, '\0');
  std::size_t have = 0;
  while (have < size) {
    const ssize_t received = ::recv(descriptor_, result.data() + have, size - have, 0);
    if (received < 0) {
      fail("recv");
    }
    if (received == 0) {
      break;
    }
    have += static_cast<std::size_t>(received);
  }
  result.resize(have);
  return result;
}

std::string TestSocket::receiveThrough(std::string_view end) const {
  std::string result;
  while (!result.ends_with(end)) {
    const std::string next = receive(1);
    if (next.empty()) {
      break;
    }
    result += next;
  }
  return result;
}

std::string TestSocket::receiveToEnd() const {
  std::string result;
  std::array<char, 65536> bytes{};
  while (true) {
    const ssize_t received = ::recv(descriptor_, bytes.data(), bytes.size(), 0);
    if (received < 0) {
      fail("recv");
    }
    if (received == 0) {
      return result;
    }
    result.append(bytes.data(), static_cast<std::size_t>(received));
  }
}

TestSocket::End TestSocket::waitForEnd() const {
  std::array<char, 65536> bytes{};
  while (true) {
    const ssize_t received = ::recv(descriptor_, bytes.data(), bytes.size(), 0);
    if (received == 0) {
      return End::orderly;
    }
    if (received < 0 && errno == ECONNRESET) {
      return End::reset;
    }
    if (received < 0) {
      fail("recv");
    }
  }
}

bool TestSocket::waitForReset() const {
  pollfd wait{.fd = descriptor_, .events = 0, .revents = 0};
  return ::poll(&wait, 1, kPatienceSeconds * 1000) == 1 && (wait.revents & POLLERR) != 0;
}

bool TestSocket::hasBytesWithin(std::chrono::milliseconds time) const {
  return waitFor(descriptor_, POLLIN, time);
}

void TestSocket::endSending() const {
  ::shutdown(descriptor_, SHUT_WR);
}

void TestSocket::interrupt() const {
  ::shutdown(descriptor_, SHUT_RDWR);
}

std::uint16_t TestSocket::localPort() const {
  return localPortOf(descriptor_);
}

void TestSocket::setMark(std::uint32_t mark) const {
  if (::setsockopt(descriptor_, SOL_SOCKET, SO_MARK, &mark, sizeof(mark)) != 0) {
    fail("SO_MARK");
  }
}

void TestSocket::bindTo(const std::string& address, std::uint16_t port) const {
  bindSocket(descriptor_, tcpAddress(address, port));
}

int TestSocket::connectTo(const std::string& address, std::uint16_t port) const {
  const Address to = tcpAddress(address, port);
  return ::connect(descriptor_, to.get(), to.size) == 0 ? 0 : errno;
}

int TestSocket::connectResult(std::chrono::milliseconds time) const {
  if (!waitFor(descriptor_, POLLOUT, time)) {
    return EINPROGRESS;
  }
  int error = 0;
  socklen_t size = sizeof(error);
  ::getsockopt(descriptor_, SOL_SOCKET, SO_ERROR, &error, &size);
  return error;
}

void TestSocket::close() {
  if (descriptor_ >= 0) {
    ::close(std::exchange(descriptor_, -1));
  }
}

void TestSocket::reset() {
  const linger now{.l_onoff = 1, .l_linger = 0};
  ::setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
  close();
}

TestListener::TestListener(const std::string& address, std::uint16_t port, int backlog)
    : address_(address) {
  const Address here = tcpAddress(address, port);
  descriptor_ = openSocket(here.family());
  bindSocket(descriptor_, here);
  if (::listen(descriptor_, backlog) != 0) {
    fail("listen");
  }
  port_ = localPortOf(descriptor_);
}

TestListener::~TestListener() {
  ::close(descriptor_);
}

std::string TestListener::target() const {
  const bool bracketed = address_.find(':') != std::string::npos;
  return (bracketed ? "[" + address_ + "]" : address_) + ":" + std::to_string(port_);
}

TestSocket TestListener::accept() const {
  auto accepted = acceptWithin(std::chrono::seconds(kPatienceSeconds));
  if (!accepted) {
    fail("nobody connected");
  }
  return std::move(accepted->socket);
}

std::uint16_t TestListener::acceptOne(std::chrono::milliseconds time) const {
  const auto accepted = acceptWithin(time);
  return accepted ? accepted->sourcePort : 0;
}

std::uint16_t TestListener::acceptAndResetOne(std::chrono::milliseconds time) const {
  auto accepted = acceptWithin(time);
  if (!accepted) {
    return 0;
  }
  accepted->socket.reset();
  return accepted->sourcePort;
}

std::optional<TestListener::Accepted> TestListener::acceptWithin(
    std::chrono::milliseconds time) const {
  if (!waitFor(descriptor_, POLLIN, time)) {
    return std::nullopt;
  }
  // A connection that has been reset meanwhile has no peer to ask for any more.
  Address peer;
  peer.size = sizeof(peer.storage);
  const int descriptor = ::accept4(descriptor_, peer.get(), &peer.size, SOCK_CLOEXEC);
  if (descriptor < 0) {
    fail("accept");
  }
  return Accepted{TestSocket(descriptor), portIn(peer)};
}

std::uint16_t closedPort() {
  return TestListener().port();
}

bool hasIPv6Loopback() {
  try {
    TestListener listener("::1");
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

}  // namespace ostravel::testing
