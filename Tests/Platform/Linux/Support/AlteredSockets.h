#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ostravel::testing {

// What the kernel says of a socket: the bytes of an option or of an address, or an error of the
// call.
struct SocketAnswer {
  std::string bytes = {};
  int error = 0;
};

// What a program asks.
struct SocketQuestion {
  enum class Call : std::uint8_t { option, ownAddress, peerAddress };

  Call call;
  // Of an option.
  int level = 0;
  int option = 0;
};

// As long as it exists, this process receives what the function makes of the kernel's answers to
// getsockopt(2), getsockname(2) and getpeername(2). An answer that is longer than the program's
// room is truncated, but its whole size is reported, as for addresses. The function may be called
// by any thread; without a result the answer stays as it is.
//
// Programs that link this file call its functions of these names instead of the C library's. There
// is at most one object.
class AlteredSockets {
 public:
  using Alter = std::function<std::optional<SocketAnswer>(const SocketQuestion& question,
                                                          const SocketAnswer& truth)>;

  explicit AlteredSockets(Alter alter);
  AlteredSockets(const AlteredSockets&) = delete;
  AlteredSockets& operator=(const AlteredSockets&) = delete;
  ~AlteredSockets();
};

// What becomes of an answer, for a loop over all of them.
struct SocketAlteration {
  std::string name;
  std::function<SocketAnswer(const SocketAnswer& truth)> alter;
};

// Answers that say too little: errors, and every size below that of the whole answer.
std::vector<SocketAlteration> incompleteAnswers(std::size_t whole);
// Complete answers that are wrong: zeros, ones, and more bytes than there are.
std::vector<SocketAlteration> wrongAnswers();

}  // namespace ostravel::testing
