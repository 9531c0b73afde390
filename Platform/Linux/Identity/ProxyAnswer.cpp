#include "Platform/Linux/Identity/ProxyAnswer.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "Base/ParseNumber.h"

namespace ostravel::linuxplatform {

namespace {

// Forbidden, authentication required, too many requests, and the errors that a proxy returns when
// it cannot reach the target. Web servers answer CONNECT with 400, 404, 405, 501 or a redirect.
constexpr std::array kRefusals{403, 407, 429, 500, 502, 503, 504};

// 0 if the line is not a status line (RFC 9112, section 4).
int statusIn(std::string_view line) {
  constexpr std::string_view kBlanks = " \t";
  constexpr std::string_view kProtocol = "HTTP/1.";
  constexpr std::size_t kCodeLength = 3;
  line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
  if (!line.starts_with(kProtocol)) {
    return 0;
  }
  line.remove_prefix(kProtocol.size());
  const auto blank = line.find_first_of(kBlanks);
  const auto code = line.find_first_not_of(kBlanks, blank);
  if (blank != 1 || line[0] < '0' || line[0] > '9' || code == std::string_view::npos) {
    return 0;
  }
  line.remove_prefix(code);
  const std::string_view digits = line.substr(0, line.find_first_of(kBlanks));
  return digits.size() == kCodeLength ? parseNumber<int>(digits).value_or(0) : 0;
}

}  // namespace

ProxyAnswer judgeProxyAnswer(std::string_view line) {
  const int status = statusIn(line);
  if (status >= 200 && status < 300) {
    return ProxyAnswer::tunnel;
  }
  return std::ranges::find(kRefusals, status) != kRefusals.end() ? ProxyAnswer::refusal
                                                                 : ProxyAnswer::notAProxy;
}

}  // namespace ostravel::linuxplatform
