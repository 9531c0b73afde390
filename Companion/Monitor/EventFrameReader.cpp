#include "Companion/Monitor/EventFrameReader.h"

#include <algorithm>
#include <utility>

namespace ostravel::companion {

EventFrameReader::State EventFrameReader::consume(std::string_view bytes) {
  if (state_ == State::malformed || bytes.empty()) {
    return state_;
  }
  if (lengthBytes_ < kLengthSize) {
    bytes = consumeLength(bytes);
    if (lengthBytes_ < kLengthSize) {
      return state_;
    }
    if (length_ == 0) {
      return fail("the length is 0");
    }
    if (length_ > kLargestBody) {
      return fail("the length " + std::to_string(length_) + " is more than " +
                  std::to_string(kLargestBody));
    }
  }
  // The body grows with the received bytes: memory for the announced length would cost the sender
  // nothing.
  const std::size_t taken = std::min(bytes.size(), length_ - body_.size());
  body_ += bytes.substr(0, taken);
  if (taken < bytes.size()) {
    return fail("bytes follow the frame of " + std::to_string(length_) + " bytes");
  }
  if (body_.size() == length_) {
    state_ = State::complete;
  }
  return state_;
}

EventFrameReader::State EventFrameReader::finish() {
  if (state_ != State::incomplete) {
    return state_;
  }
  if (lengthBytes_ < kLengthSize) {
    return fail("the connection ended after " + std::to_string(lengthBytes_) +
                " of 4 bytes of the length");
  }
  return fail("the connection ended after " + std::to_string(body_.size()) + " of " +
              std::to_string(length_) + " bytes of the body");
}

EventFrameReader::State EventFrameReader::fail(std::string problem) {
  problem_ = std::move(problem);
  state_ = State::malformed;
  return state_;
}

std::string_view EventFrameReader::consumeLength(std::string_view bytes) {
  while (lengthBytes_ < kLengthSize && !bytes.empty()) {
    length_ = (length_ << 8U) | static_cast<std::uint8_t>(bytes.front());
    ++lengthBytes_;
    bytes.remove_prefix(1);
  }
  return bytes;
}

}  // namespace ostravel::companion
