// Obeys the lines of its standard input and answers each with one line. Ends when its input ends.
//
//   listen PORT     listens on 127.0.0.1
//   connect PORT    connects to 127.0.0.1, and prints its own port
//   connect6 PORT   the same with ::1
//   send PORT       sends a datagram to 127.0.0.1 from an unconnected socket, and prints its port
//   proxy PORT      is a CONNECT proxy on 127.0.0.1
//   serve NUMBER    is one on the listening socket inherited with this number
//   via PORT        makes its tunnels through the proxy on that port
//   answer TEXT     answers every CONNECT with that line, or, without one, not at all
//   hang-up         closes every connection that makes a request
//   tunnel          makes tunnels, as initially
//   reconnect FD    connects this datagram socket to port 443 of 127.0.0.1
//   port FD         prints the port of this socket
//   mark            prints the mark of the last socket created
//   close           closes the last socket created
//   hold COUNT      opens that many descriptors
//   user NUMBER     becomes another user
//   run PATH        executes another program, which answers "ready"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include "Base/DescriptorLimit.h"
#include "Tests/Platform/Linux/Support/HelperProxy.h"

namespace {

sockaddr_storage loopback(int family, std::uint16_t port) {
  sockaddr_storage storage{};
  if (family == AF_INET) {
    auto& address = reinterpret_cast<sockaddr_in&>(storage);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
  } else {
    auto& address = reinterpret_cast<sockaddr_in6&>(storage);
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    address.sin6_port = htons(port);
  }
  return storage;
}

std::string ownPort(int descriptor) {
  sockaddr_storage storage{};
  socklen_t size = sizeof storage;
  if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&storage), &size) != 0) {
    return "failed";
  }
  // Both families have the port in the same place.
  return std::to_string(ntohs(reinterpret_cast<const sockaddr_in&>(storage).sin_port));
}

std::string makeSocket(const std::string& command, std::uint16_t port, int& last) {
  const int family = command == "connect6" ? AF_INET6 : AF_INET;
  const int type = command == "send" ? SOCK_DGRAM : SOCK_STREAM;
  const auto storage = loopback(family, port);
  const auto* const address = reinterpret_cast<const sockaddr*>(&storage);
  last = ::socket(family, type, 0);
  int result = -1;
  if (command == "listen" || command == "proxy") {
    const int on = 1;
    ::setsockopt(last, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    result = ::bind(last, address, sizeof(sockaddr_in));
    result = result == 0 ? ::listen(last, 16) : result;
  } else if (command == "send") {
    result = ::sendto(last, "x", 1, 0, address, sizeof(sockaddr_in)) == 1 ? 0 : -1;
  } else {
    result = ::connect(last, address, sizeof storage);
  }
  if (result == 0 && command == "proxy") {
    ostravel::testing::serveConnect(last);
  }
  return result == 0 ? ownPort(last) : "failed";
}

std::string obey(const std::string& line, int& last) {
  std::istringstream words(line);
  std::string command;
  std::string argument;
  words >> command >> argument;
  if (ostravel::testing::steerProxy(line)) {
    return "done";
  }
  if (command == "serve") {
    ostravel::testing::serveConnect(std::stoi(argument));
    return "done";
  }
  if (command == "close") {
    // Wakes the accepting thread.
    ::shutdown(last, SHUT_RDWR);
    return ::close(last) == 0 ? "done" : "failed";
  }
  if (command == "mark") {
    int mark = 0;
    socklen_t size = sizeof mark;
    return ::getsockopt(last, SOL_SOCKET, SO_MARK, &mark, &size) == 0 ? std::to_string(mark)
                                                                      : "failed";
  }
  if (command == "reconnect") {
    const auto storage = loopback(AF_INET, 443);
    return ::connect(std::stoi(argument), reinterpret_cast<const sockaddr*>(&storage),
                     sizeof(sockaddr_in)) == 0
               ? "done"
               : "failed";
  }
  if (command == "port") {
    return ownPort(std::stoi(argument));
  }
  if (command == "hold") {
    ostravel::raiseDescriptorLimit();
    for (int left = std::stoi(argument); left > 0; --left) {
      if (::dup(STDIN_FILENO) < 0) {
        return "failed";
      }
    }
    return "done";
  }
  if (command == "user") {
    const auto user = static_cast<uid_t>(std::stoul(argument));
    return ::setgid(user) == 0 && ::setuid(user) == 0 ? "done" : "failed";
  }
  if (command == "run") {
    ::execl(argument.c_str(), argument.c_str(), nullptr);
    return "failed";
  }
  return makeSocket(command, static_cast<std::uint16_t>(std::stoi(argument)), last);
}

}  // namespace

int main() {
  int last = -1;
  std::cout << "ready" << std::endl;
  // Unbuffered: the next program continues reading where this one stopped.
  std::string line;
  for (char byte = 0; ::read(STDIN_FILENO, &byte, 1) == 1;) {
    if (byte != '\n') {
      line += byte;
      continue;
    }
    std::cout << obey(line, last) << std::endl;
    line.clear();
  }
  return EXIT_SUCCESS;
}
