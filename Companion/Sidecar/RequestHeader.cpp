#include "Companion/Sidecar/RequestHeader.h"

namespace ostravel::companion {

RequestHeader::RequestHeader()
    : bytes_(std::make_unique_for_overwrite<std::array<char, kCapacity>>()) {}

std::span<char> RequestHeader::space() {
  return std::span(*bytes_).subspan(used_);
}

RequestHeader::State RequestHeader::commit(std::size_t size) {
  const std::size_t unseen = used_;
  used_ += size;
  const std::string_view text(bytes_->data(), used_);
  for (std::size_t lineFeed = text.find('\n', unseen); lineFeed != std::string_view::npos;
       lineFeed = text.find('\n', lineFeed + 1)) {
    if (lineFeed == lineBegin_ || text[lineFeed - 1] != '\r') {
      return State::malformed;
    }
    const bool emptyLine = lineFeed - 1 == lineBegin_;
    const bool leading = lineBegin_ == headerBegin_;
    lineBegin_ = lineFeed + 1;
    if (emptyLine && !leading) {
      headerEnd_ = lineBegin_;
      return State::complete;
    }
    if (emptyLine) {
      // Some clients send an empty line after the previous request (RFC 9112, section 2.2).
      headerBegin_ = lineBegin_;
    }
  }
  return used_ == kCapacity ? State::tooLong : State::incomplete;
}

std::string_view RequestHeader::header() const {
  return std::string_view(bytes_->data(), headerEnd_).substr(headerBegin_);
}

std::string_view RequestHeader::remainder() const {
  return std::string_view(bytes_->data(), used_).substr(headerEnd_);
}

}  // namespace ostravel::companion
