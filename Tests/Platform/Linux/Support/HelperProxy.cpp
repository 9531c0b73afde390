#include "Tests/Platform/Linux/Support/HelperProxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>

namespace ostravel::testing {

namespace {

struct Behaviour {
  // 0: tunnels are made directly.
  std::uint16_t parent = 0;
  // Empty: a tunnel.
  std::optional<std::string> answer;
  bool hangsUp = false;
};

std::mutex behaviourLock;
Behaviour behaviour;

bool sendAll(int connection, std::string_view bytes) {
  return ::send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(bytes.size());
}

// False once either has ended.
bool copySome(int one, int other) {
  std::array<char, 4096> part;
  const auto received = ::recv(one, part.data(), part.size(), 0);
  return received > 0 &&
         sendAll(other, std::string_view(part.data(), static_cast<std::size_t>(received)));
}

void relay(int one, int other) {
  while (true) {
    std::array<pollfd, 2> waited{{{one, POLLIN, 0}, {other, POLLIN, 0}}};
    ::poll(waited.data(), waited.size(), -1);
    if ((waited[0].revents != 0 && !copySome(one, other)) ||
        (waited[1].revents != 0 && !copySome(other, one))) {
      return;
    }
  }
}

std::string receiveRequest(int connection) {
  std::string request;
  for (char byte = 0; !request.ends_with("\r\n\r\n") && ::recv(connection, &byte, 1, 0) == 1;) {
    request += byte;
  }
  return request;
}

void makeTunnel(int connection, const std::string& request, std::uint16_t parent) {
  const auto portBegin = request.find(':') + 1;
  sockaddr_in target{};
  target.sin_family = AF_INET;
  target.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  target.sin_port = htons(
      parent != 0 ? parent : static_cast<std::uint16_t>(std::stoi(request.substr(portBegin))));
  const int dialled = ::socket(AF_INET, SOCK_STREAM, 0);
  if (::connect(dialled, reinterpret_cast<const sockaddr*>(&target), sizeof target) == 0) {
    if (parent != 0 ? sendAll(dialled, request)
                    : sendAll(connection, "HTTP/1.1 200 Connection established\r\n\r\n")) {
      relay(connection, dialled);
    }
  } else {
    sendAll(connection, "HTTP/1.1 502 Bad Gateway\r\n\r\n");
  }
  ::close(dialled);
}

void serve(int connection) {
  const std::string request = receiveRequest(connection);
  Behaviour current;
  {
    const std::lock_guard guard(behaviourLock);
    current = behaviour;
  }
  // Some connections end without a request.
  const bool isAnswered = !current.hangsUp && request.ends_with("\r\n\r\n");
  if (isAnswered && !current.answer) {
    makeTunnel(connection, request, current.parent);
  } else if (isAnswered) {
    if (!current.answer->empty()) {
      sendAll(connection, *current.answer + "\r\n\r\n");
    }
    // Until the other side closes.
    receiveRequest(connection);
  }
  ::close(connection);
}

}  // namespace

void serveConnect(int listener) {
  std::thread([listener] {
    for (int connection = 0; (connection = ::accept(listener, nullptr, nullptr)) >= 0;) {
      std::thread([connection] { serve(connection); }).detach();
    }
  }).detach();
}

bool steerProxy(const std::string& line) {
  const auto blank = line.find(' ');
  const std::string command = line.substr(0, blank);
  const std::string argument = blank == std::string::npos ? "" : line.substr(blank + 1);
  Behaviour wanted;
  if (command == "via") {
    wanted.parent = static_cast<std::uint16_t>(std::stoi(argument));
  } else if (command == "answer") {
    wanted.answer = argument;
  } else if (command == "hang-up") {
    wanted.hangsUp = true;
  } else if (command != "tunnel") {
    return false;
  }
  const std::lock_guard guard(behaviourLock);
  behaviour = wanted;
  return true;
}

}  // namespace ostravel::testing
