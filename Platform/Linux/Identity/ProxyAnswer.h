#pragma once

#include <string_view>

namespace ostravel::linuxplatform {

// What the first line of an answer to CONNECT (RFC 9110, section 9.3.6) says about the program that
// sent it.
enum class ProxyAnswer {
  // The tunnel exists.
  tunnel,
  // A proxy that does not want this tunnel, or cannot reach its target.
  refusal,
  // A web server or something else that takes no CONNECT.
  notAProxys,
};

// The line comes without its end.
ProxyAnswer judgeProxyAnswer(std::string_view line);

}  // namespace ostravel::linuxplatform
