#include "Tests/Platform/Linux/Relay/Support/ApplicationSocket.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cerrno>
#include <thread>
#include <utility>

#include "Platform/Linux/Kernel/KernelAddress.h"

namespace ostravel::linuxplatform::test {

namespace {

constexpr int kLimitSeconds = 20;

SocketEndpoint endpointAt(const char* address, std::uint16_t port) {
  auto endpoint = SocketEndpoint::atAddress(address);
  EXPECT_TRUE(endpoint.has_value()) << address;
  endpoint->port = port;
  return *endpoint;
}

}  // namespace

ApplicationSocket::ApplicationSocket(const char* address, std::uint16_t port) {
  const KernelAddress kernel(endpointAt(address, port));
  descriptor_ = FileDescriptor(::socket(kernel.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  ::setsockopt(descriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  EXPECT_EQ(::bind(descriptor(), kernel.get(), kernel.size), 0) << errno;
  setTimeouts();
}

ApplicationSocket::ApplicationSocket(FileDescriptor descriptor)
    : descriptor_(std::move(descriptor)) {
  setTimeouts();
}

void ApplicationSocket::setTimeouts() {
  const timeval limit{.tv_sec = kLimitSeconds, .tv_usec = 0};
  ::setsockopt(descriptor(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setsockopt(descriptor(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

SocketEndpoint ApplicationSocket::local() const {
  KernelAddress address;
  EXPECT_EQ(::getsockname(descriptor(), address.get(), &address.size), 0);
  return address.endpoint().value_or(SocketEndpoint());
}

void ApplicationSocket::setReceiveBuffer(int size) {
  ::setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
}

void ApplicationSocket::setSendBuffer(int size) {
  ::setsockopt(descriptor(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

void ApplicationSocket::setMark(std::uint32_t mark) {
  EXPECT_EQ(::setsockopt(descriptor(), SOL_SOCKET, SO_MARK, &mark, sizeof mark), 0) << errno;
}

int ApplicationSocket::connectTo(const char* address, std::uint16_t port) {
  const KernelAddress kernel(endpointAt(address, port));
  return ::connect(descriptor(), kernel.get(), kernel.size) == 0 ? 0 : errno;
}

void ApplicationSocket::listen() {
  EXPECT_EQ(::listen(descriptor(), SOMAXCONN), 0);
}

ApplicationSocket ApplicationSocket::accept() {
  FileDescriptor accepted(::accept4(descriptor(), nullptr, nullptr, SOCK_CLOEXEC));
  EXPECT_TRUE(accepted.isOpen()) << errno;
  return ApplicationSocket(std::move(accepted));
}

void ApplicationSocket::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto sent = ::send(descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    ASSERT_GT(sent, 0) << errno;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

void ApplicationSocket::waitUntilAcknowledged() const {
  int waiting = 1;
  while (::ioctl(descriptor(), SIOCOUTQ, &waiting) == 0 && waiting > 0) {
    std::this_thread::yield();
  }
}

std::size_t ApplicationSocket::sendWithoutWaiting(std::size_t size) {
  const std::string bytes(size, 'x');
  const auto sent = ::send(descriptor(), bytes.data(), size, MSG_NOSIGNAL | MSG_DONTWAIT);
  return sent > 0 ? static_cast<std::size_t>(sent) : 0;
}

long ApplicationSocket::receiveSome(char* bytes, std::size_t size) {
  return ::recv(descriptor(), bytes, size, 0);
}

ApplicationSocket::Received ApplicationSocket::receive(std::size_t size) {
  Received received;
  std::array<char, 65536> buffer;
  while (received.bytes.size() < size) {
    const auto count =
        receiveSome(buffer.data(), std::min(buffer.size(), size - received.bytes.size()));
    if (count <= 0) {
      received.error = count < 0 ? errno : 0;
      break;
    }
    received.bytes.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return received;
}

ApplicationSocket::Received ApplicationSocket::receiveToEnd() {
  return receive(SIZE_MAX);
}

void ApplicationSocket::endSending() {
  EXPECT_EQ(::shutdown(descriptor(), SHUT_WR), 0);
}

void ApplicationSocket::interrupt() {
  ::shutdown(descriptor(), SHUT_RDWR);
}

void ApplicationSocket::reset() {
  const linger immediately{.l_onoff = 1, .l_linger = 0};
  ::setsockopt(descriptor(), SOL_SOCKET, SO_LINGER, &immediately, sizeof immediately);
  close();
}

}  // namespace ostravel::linuxplatform::test
