#pragma once

#include <asio/ip/tcp.hpp>

namespace ostravel::companion {

// The state of a socket, queried without reading its bytes. No operation blocks.

enum class ReadState {
  nothing,
  bytes,
  ended,   // in order, with no byte left to read
  failed,  // such as by a reset
};

// The result that the next read would have.
ReadState stateOfReading(asio::ip::tcp::socket& socket);

enum class Disturbance {
  none,
  urgentByte,
  reset,  // or another error of the connection
};

// The reason for which wait_error of the socket has fired. Clears it, so that the next wait does
// not fire for it again: the error, or the urgent byte, which is not part of the stream (tcp(7)).
Disturbance takeDisturbance(asio::ip::tcp::socket& socket);

}  // namespace ostravel::companion
