#include "Companion/Sidecar/TunnelLog.h"

#include <chrono>
#include <utility>

#include "Base/PrintableText.h"

namespace ostravel::companion {
namespace {

std::string identifier(std::string_view value) {
  return value.empty() ? "-" : printableValue(value);
}

}  // namespace

TunnelLog::TunnelLog(Verbosity verbosity, Sink sink, TimeStyle time)
    : verbosity_(verbosity), sink_(std::move(sink)), time_(time) {}

void TunnelLog::established(const ConnectRequest& request,
                            const asio::ip::tcp::endpoint& origin) const {
  write(request, "established to " + toString(origin));
}

void TunnelLog::refused(const ConnectRequest& request, HTTPStatus status,
                        std::string_view reason) const {
  std::string result = "refused " + std::to_string(static_cast<int>(status)) + " ";
  result += reasonPhrase(status);
  if (!reason.empty()) {
    result += ": " + printableText(reason);
  }
  write(request, result);
}

void TunnelLog::abandoned(const ConnectRequest& request) const {
  write(request, "abandoned by the client");
}

void TunnelLog::ended(const ConnectRequest& request, const TunnelRelay::Summary& summary) const {
  if (verbosity_ == Verbosity::beginnings) {
    return;
  }
  const bool orderly = summary.outcome == TunnelRelay::Outcome::orderly;
  write(request, std::string("ended ") + (orderly ? "orderly" : "by reset") +
                     " sent=" + std::to_string(summary.bytesToOrigin) +
                     " received=" + std::to_string(summary.bytesToClient));
}

void TunnelLog::write(const ConnectRequest& request, std::string_view result) const {
  std::string line = timeText(std::chrono::system_clock::now(), time_);
  line += " " + (request.target.host.empty() ? "-" : printableValue(toString(request.target)));
  line += " app=" + identifier(request.appId);
  line += " flow=" + identifier(request.flowId);
  line += " ";
  line += result;
  sink_(line);
}

}  // namespace ostravel::companion
