#include "Companion/Sidecar/SocketState.h"

#include <sys/socket.h>

#include <cerrno>

namespace ostravel::companion {

ReadState stateOfReading(asio::ip::tcp::socket& socket) {
  char byte = 0;
  const ssize_t size = ::recv(socket.native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  if (size > 0) {
    return ReadState::bytes;
  }
  if (size == 0) {
    return ReadState::ended;
  }
  const bool isEmpty = errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
  return isEmpty ? ReadState::nothing : ReadState::failed;
}

Disturbance takeDisturbance(asio::ip::tcp::socket& socket) {
  int error = 0;
  socklen_t size = sizeof(error);
  if (::getsockopt(socket.native_handle(), SOL_SOCKET, SO_ERROR, &error, &size) != 0 ||
      error != 0) {
    return Disturbance::reset;
  }
  char byte = 0;
  const bool isUrgent = ::recv(socket.native_handle(), &byte, 1, MSG_OOB | MSG_DONTWAIT) > 0;
  return isUrgent ? Disturbance::urgentByte : Disturbance::none;
}

}  // namespace ostravel::companion
