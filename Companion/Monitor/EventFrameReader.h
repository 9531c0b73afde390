#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ostravel::companion {

// Takes the one frame out of a connection's bytes, which may arrive in pieces of any size.
//
//   | length: 4 bytes, big-endian | body: `length` bytes | end of the stream
//
// Owned by the connection. Not responsible for what the body says: that is ReceivedEvent.
class EventFrameReader {
 public:
  // Far more than any event has; bounds the memory that one connection can claim.
  static constexpr std::uint32_t kLargestBody = 1024 * 1024;

  enum class State {
    incomplete,
    complete,   // the body is there; only the end of the stream may follow
    malformed,  // `problem` says why; nothing more is taken
  };

  // Takes the next bytes of the stream.
  State consume(std::string_view bytes);

  // The stream has ended: what is not complete is malformed now.
  State finish();

  State state() const { return state_; }
  const std::string& body() const { return body_; }        // once complete
  const std::string& problem() const { return problem_; }  // once malformed

 private:
  static constexpr std::size_t kLengthSize = 4;

  State fail(std::string problem);
  std::string_view consumeLength(std::string_view bytes);

  State state_ = State::incomplete;
  std::size_t lengthBytes_ = 0;
  std::uint32_t length_ = 0;
  std::string body_;
  std::string problem_;
};

}  // namespace ostravel::companion
