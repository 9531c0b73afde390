#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ostravel::companion {

// Extracts the one frame from a connection's bytes, which may arrive in pieces of any size.
//
//   | length: 4 bytes, big-endian | body: `length` bytes | end of the stream
//
// Owned by the connection. Not responsible for the content of the body: that is ReceivedEvent.
class EventFrameReader {
 public:
  // Far larger than any event; bounds the memory that one connection can claim.
  static constexpr std::uint32_t kLargestBody = 1024 * 1024;

  enum class State {
    incomplete,
    complete,   // only the end of the stream may follow
    malformed,  // `problem` says why; no more bytes are consumed
  };

  // Takes the next bytes of the stream.
  State consume(std::string_view bytes);

  // The stream has ended: an incomplete frame is now malformed.
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
