#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Platform/Interface/TextServices.h"

namespace ostravel {

// The outcome of adding a chunk of the proxy's answer.
namespace connect_response {

// The tunnel is open. leftover: the bytes after the header, which belong to the application.
struct Established {
  std::vector<std::byte> leftover;
};
// A complete header whose status line is not a success.
struct Rejected {
  std::optional<std::string> statusLine;
};
// The answer can never become acceptable. reason is one of "connect_header_too_large",
// "connect_header_not_utf8" and "connect_status_line_missing".
struct Invalid {
  std::string reason;
};
struct NeedMoreData {};

}  // namespace connect_response

using ProxyConnectResponseOutcome =
    std::variant<connect_response::Established, connect_response::Rejected,
                 connect_response::Invalid, connect_response::NeedMoreData>;

// Accumulates the proxy's answer to CONNECT and decides as soon as possible whether the tunnel is
// open. Examines only the status line. Owned by one tunnel and used by one thread at a time. Keeps
// every byte that it receives, which the limit bounds to maxHeaderBytes and one read.
class ProxyConnectResponseParser {
 public:
  // maxHeaderBytes: how many bytes are tolerated without the end of the header.
  ProxyConnectResponseParser(std::int64_t maxHeaderBytes, const platform::TextServices& text);

  // Adds a chunk and judges everything received so far.
  ProxyConnectResponseOutcome append(std::span<const std::byte> data);

 private:
  ProxyConnectResponseOutcome judgeHeader(std::string_view header, std::string_view leftover) const;

  const std::int64_t maxHeaderBytes_;
  const platform::TextServices& text_;
  std::string buffer_;
  // A member, so that a debugger shows it beside the buffer in which it is searched for.
  const std::string headerTerminator_ = "\r\n\r\n";
};

}  // namespace ostravel
