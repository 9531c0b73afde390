// What any permitted client can send to the control socket: it is a request within its limits, or
// refused with a reason.

#include <string>
#include <string_view>
#include <variant>

#include "Platform/Linux/Control/ControlAnswer.h"
#include "Platform/Linux/Control/ControlRequest.h"
#include "Tests/Fuzz/FuzzInput.h"

using ostravel::fuzz::require;
using namespace ostravel::linuxplatform;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view line(reinterpret_cast<const char*>(data), size);
  const auto parsed = ControlRequest::parse(line);
  if (const auto* const error = std::get_if<ControlError>(&parsed)) {
    const std::string answer = errorLine(*error, std::nullopt);
    require(answer.find('\n') == answer.size() - 1, "an answer is one line");
    require(!error->code.empty() && !error->message.empty(), "what is wrong has a name");
    return 0;
  }
  const auto& request = std::get<ControlRequest>(parsed);
  require(request.limit <= ControlRequest::kMostTunnels, "the limit is bounded");
  require(!request.pid || *request.pid > 0, "a process has a number");
  require(request.port > 0, "a port is not 0");
  if (request.kind == ControlRequest::Kind::explain) {
    require(request.pid || request.path || request.host, "something is asked about");
  }
  return 0;
}
