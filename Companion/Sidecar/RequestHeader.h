#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

namespace ostravel::companion {

// Collects the bytes of one HTTP request header, which arrive in pieces of any size, and finds its
// end. Owned by the session that reads it.
//
//   [ empty lines ][ request line CRLF  field lines CRLF ... CRLF ][ bytes for the origin ]
//                  ^ header()                                      ^ remainder()
//
// Not responsible for the content of the lines: that is parseConnectRequest().
class RequestHeader {
 public:
  // Room for the header and the bytes read together with it. Real requests need far less; this
  // bounds the memory for a client that never ends its header.
  static constexpr std::size_t kCapacity = 16 * 1024;

  enum class State {
    incomplete,
    complete,
    malformed,  // a line that does not end in CRLF
    tooLong,    // no end within kCapacity
  };

  RequestHeader();

  // Room for the next bytes; not empty while the state is incomplete.
  std::span<char> space();

  // Adds the first `size` bytes of `space()`. Examines each byte once.
  State commit(std::size_t size);

  // True until a byte other than those of empty lines has been added.
  bool empty() const { return used_ == headerBegin_; }

  // Both require the state complete; valid as long as this object.
  std::string_view header() const;
  std::string_view remainder() const;

 private:
  std::unique_ptr<std::array<char, kCapacity>> bytes_;
  std::size_t used_ = 0;
  std::size_t headerBegin_ = 0;
  std::size_t lineBegin_ = 0;
  std::size_t headerEnd_ = 0;
};

}  // namespace ostravel::companion
