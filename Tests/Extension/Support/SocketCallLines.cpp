#include "Tests/Extension/Support/SocketCallLines.h"

namespace ostravel::test {

using simulation::SocketCall;
using simulation::SocketCallKind;

namespace {

std::string lineOf(const SocketCall& call) {
  switch (call.kind) {
    case SocketCallKind::socket:
      return "socket " + std::to_string(call.family) + " " + std::to_string(call.type) + " " +
             std::to_string(call.protocol);
    case SocketCallKind::statusFlags:
      return "statusFlags";
    case SocketCallKind::setStatusFlags:
      return "setStatusFlags " + std::to_string(call.flags);
    case SocketCallKind::connect:
      return "connect " + std::to_string(call.bytes.size()) + " bytes";
    case SocketCallKind::pollWritable:
      return "poll " + std::to_string(call.timeout.count()) + " ms";
    case SocketCallKind::pendingError:
      return "pendingError";
    case SocketCallKind::write:
      return "write " + std::to_string(call.bytes.size()) + " bytes";
    case SocketCallKind::close:
      return "close";
  }
  return "unknown";
}

}  // namespace

std::vector<std::string> linesOf(const std::vector<SocketCall>& calls) {
  std::vector<std::string> lines;
  for (const auto& call : calls) {
    lines.push_back(lineOf(call));
  }
  return lines;
}

}  // namespace ostravel::test
