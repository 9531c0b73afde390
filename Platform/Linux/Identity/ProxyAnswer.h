#pragma once

#include <string_view>

namespace ostravel::linuxplatform {

// The kind of program that sent a response to CONNECT (RFC 9110, section 9.3.6), judged by its
// first line.
enum class ProxyAnswer {
  // The tunnel is established.
  tunnel,
  // A proxy that rejects this tunnel or cannot reach its target.
  refusal,
  // A web server or another program that does not support CONNECT.
  notAProxy,
};

// line excludes the line terminator.
ProxyAnswer judgeProxyAnswer(std::string_view line);

}  // namespace ostravel::linuxplatform
