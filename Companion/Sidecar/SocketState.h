#pragma once

#include <asio/ip/tcp.hpp>

namespace ostravel::companion {

// What can be learnt about a socket without reading its bytes. No operation here blocks.

enum class ReadState {
  nothing,
  bytes,
  ended,   // in order, with no byte left to read
  failed,  // such as by a reset
};

// What the next read would meet.
ReadState stateOfReading(asio::ip::tcp::socket& socket);

enum class Disturbance {
  none,
  urgentByte,
  reset,  // or another error of the connection
};

// Why wait_error of the socket has fired. Clears the reason, so that the next wait does not fire
// for it again: the error, or the urgent byte, which is not part of the stream (tcp(7)).
Disturbance takeDisturbance(asio::ip::tcp::socket& socket);

}  // namespace ostravel::companion
