#include "Companion/Monitor/Web/WebView.h"

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "Companion/Monitor/Web/RequestGuard.h"
#include "Companion/Shared/HostPort.h"

namespace ostravel::companion {
namespace {

using namespace std::chrono_literals;

HostPort listenAddress(const std::string& text) {
  const std::optional<HostPort> hostPort = parseHostPort(text);
  if (!hostPort || !literalEndpoint(*hostPort)) {
    throw std::runtime_error("not of the form 127.0.0.1:8090 or [::1]:8090: " + text);
  }
  return *hostPort;
}

std::string tokenOf(const std::string& file) {
  if (file.empty()) {
    return randomToken();
  }
  // Shorter tokens can be guessed.
  constexpr std::size_t kShortest = 16;
  std::ifstream stream(file);
  std::string token;
  std::getline(stream, token);
  const bool isUsable = token.size() >= kShortest &&
                        token.find_first_not_of(
                            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._~") ==
                            std::string::npos;
  if (!isUsable) {
    throw std::runtime_error("the first line of " + file +
                             " is no token of at least 16 letters, digits and the characters -._~");
  }
  return token;
}

}  // namespace

WebView::WebView(const Options& options)
    : server_(state_, {.listen = listenAddress(options.listen),
                       .token = tokenOf(options.tokenFile),
                       .hasApplicationMetrics = options.hasApplicationMetrics}) {
  if (!options.controlPath.empty()) {
    poller_.emplace(state_, [client = ControlClient(options.controlPath)](JSONHandle request) {
      return client.ask(std::move(request), std::chrono::steady_clock::now() + 2s);
    });
  }
}

}  // namespace ostravel::companion
