#include "Extension/ProxyTunnelCore/ProxyConnectResponseParser.h"

#include "Base/UTF8.h"

namespace ostravel {

namespace {

using connect_response::Established;
using connect_response::Invalid;
using connect_response::NeedMoreData;
using connect_response::Rejected;

constexpr std::string_view kLineEnd = "\r\n";

// Compares only a prefix: the proxy is free to choose the rest of the line.
bool reportsSuccess(std::string_view statusLine) {
  return statusLine.starts_with("HTTP/1.1 200") || statusLine.starts_with("HTTP/1.0 200");
}

}  // namespace

ProxyConnectResponseParser::ProxyConnectResponseParser(std::int64_t maxHeaderBytes,
                                                       const platform::TextServices& text)
    : maxHeaderBytes_(maxHeaderBytes), text_(text) {}

ProxyConnectResponseOutcome ProxyConnectResponseParser::append(std::span<const std::byte> data) {
  buffer_.append(reinterpret_cast<const char*>(data.data()), data.size());
  const std::string_view received = buffer_;
  const auto headerSize = received.find(headerTerminator_);
  if (headerSize != std::string_view::npos) {
    return judgeHeader(received.substr(0, headerSize),
                       received.substr(headerSize + headerTerminator_.size()));
  }
  if (static_cast<std::int64_t>(received.size()) > maxHeaderBytes_) {
    return Invalid{"connect_header_too_large"};
  }
  return NeedMoreData{};
}

ProxyConnectResponseOutcome ProxyConnectResponseParser::judgeHeader(
    std::string_view header, std::string_view leftover) const {
  if (!isWellFormedUTF8(header)) {
    return Invalid{"connect_header_not_utf8"};
  }
  const std::string_view statusLine = text_.trimmed(header.substr(0, header.find(kLineEnd)));
  if (statusLine.empty()) {
    return Invalid{"connect_status_line_missing"};
  }
  if (!reportsSuccess(statusLine)) {
    return Rejected{std::string(statusLine)};
  }
  const auto bytes = std::as_bytes(std::span(leftover.data(), leftover.size()));
  return Established{{bytes.begin(), bytes.end()}};
}

}  // namespace ostravel
