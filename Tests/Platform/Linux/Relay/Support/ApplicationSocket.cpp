#include "Tests/Platform/Linux/Relay/Support/ApplicationSocket.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <thread>

#include "Platform/Linux/Kernel/KernelAddress.h"

namespace ostravel::linuxplatform::test {

ApplicationSocket::ApplicationSocket(const char* address, std::uint16_t port)
    : TestSocket(makeTcp(address)) {
  bindTo(address, port);
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

void ApplicationSocket::listen() {
  EXPECT_EQ(::listen(descriptor(), SOMAXCONN), 0);
}

ApplicationSocket ApplicationSocket::accept() {
  const int accepted = ::accept4(descriptor(), nullptr, nullptr, SOCK_CLOEXEC);
  EXPECT_GE(accepted, 0) << errno;
  return ApplicationSocket(TestSocket(accepted));
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

}  // namespace ostravel::linuxplatform::test
