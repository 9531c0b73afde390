#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ostravel::fuzz {

// Takes the kernel's place: while it exists, this process makes its sockets without the kernel,
// every message can be sent, and what is received comes from a script. After the end of the script
// there is EAGAIN, as after a timeout.
//
// The rest of a reader's buffer is filled with a byte, so that reading beyond the end of a datagram
// shows if the byte is another one the next time. Three bytes are zero: libmnl takes the padding of
// the last message for a part of it.
//
// Programs that link this file call its functions instead of the C library's, which fail if there
// is no object. There is at most one, used by one thread.
class ScriptedNetlink {
 public:
  // A datagram, or an error of recv(2). Sequence numbers are relative to that of the first message
  // in the last datagram that was sent; the receiver's port is kPort.
  struct Answer {
    std::string bytes;
    int error = 0;
  };
  static constexpr std::uint32_t kPort = 1;

  // Reads answers from a text: for each its size in two bytes (little-endian) and its bytes. The
  // size kErrorFollows announces an error, whose number is one byte.
  static std::vector<Answer> parse(std::string_view text);
  static constexpr std::size_t kErrorFollows = 0xFFFF;

  ScriptedNetlink(std::span<const Answer> script, char fill);
  ScriptedNetlink(const ScriptedNetlink&) = delete;
  ScriptedNetlink& operator=(const ScriptedNetlink&) = delete;
  ~ScriptedNetlink();

  // As sendto(2) and recv(2).
  ssize_t send(const void* bytes, std::size_t size);
  ssize_t receive(void* buffer, std::size_t size);

 private:
  std::span<const Answer> left_;
  const char fill_;
  std::uint32_t sequence_ = 0;
};

}  // namespace ostravel::fuzz
