#include "Platform/Linux/Inspection/InspectionServer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <system_error>
#include <utility>

#include "Platform/Linux/Inspection/InspectionSession.h"
#include "Platform/Linux/Kernel/SocketOption.h"

namespace ostravel::linuxplatform {

InspectionServer::InspectionServer(int listener, std::optional<uid_t> client)
    : listener_(listener), client_(client) {
  // A client may be gone before it is accepted.
  ::fcntl(listener_, F_SETFL, ::fcntl(listener_, F_GETFL) | O_NONBLOCK);
}

InspectionServer::~InspectionServer() {
  for (Connection& connection : connections_) {
    ::shutdown(connection.socket.get(), SHUT_RDWR);
  }
  for (Connection& connection : connections_) {
    connection.thread.join();
  }
}

void InspectionServer::run(const std::function<void()>& onTick) {
  std::array<pollfd, 2> waited{{{stopped_.descriptor(), POLLIN, 0}, {listener_, POLLIN, 0}}};
  const int tick = static_cast<int>(std::chrono::milliseconds(kTick).count());
  while (waited[0].revents == 0) {
    if (waited[1].revents != 0) {
      accept();
    }
    onTick();
    removeEnded();
    waited[0].revents = 0;
    waited[1].revents = 0;
    ::poll(waited.data(), waited.size(), tick);
  }
}

void InspectionServer::accept() {
  FileDescriptor socket(::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC));
  if (!socket.isOpen() || !isPermitted(socket) || connections_.size() >= kMaximumConnections) {
    return;
  }
  // A client that reads nothing is abandoned.
  const timeval patience{1, 0};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  Connection& connection = connections_.emplace_back(std::move(socket));
  try {
    connection.thread = std::thread([&connection] {
      InspectionSession::serve(connection.socket.get());
      // The client notices at once, not when the thread is joined.
      ::shutdown(connection.socket.get(), SHUT_RDWR);
      connection.hasEnded = true;
    });
  } catch (const std::system_error&) {
    connections_.pop_back();
  }
}

bool InspectionServer::isPermitted(const FileDescriptor& connection) const {
  const auto peer = socketOption<ucred>(connection.get(), SOL_SOCKET, SO_PEERCRED);
  return peer && (peer->uid == 0 || peer->uid == ::geteuid() || peer->uid == client_);
}

void InspectionServer::removeEnded() {
  connections_.remove_if([](Connection& connection) {
    if (!connection.hasEnded) {
      return false;
    }
    connection.thread.join();
    return true;
  });
}

}  // namespace ostravel::linuxplatform
