#include "Companion/Monitor/Web/WebView.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "Base/FileDescriptor.h"
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

std::string readToken(const std::string& file) {
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

// For those who see the page or collect the metrics of a service, so that its address stays.
std::string keptToken(const std::string& file) {
  if (std::filesystem::exists(file)) {
    return readToken(file);
  }
  std::string token = randomToken();
  const FileDescriptor made(::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  const std::string line = token + "\n";
  if (!made.isOpen() || ::write(made.get(), line.data(), line.size()) != std::ssize(line)) {
    throw std::runtime_error("cannot write " + file + ": " +
                             std::generic_category().message(errno));
  }
  return token;
}

std::string tokenOf(const std::string& file) {
  if (!file.empty()) {
    return readToken(file);
  }
  const char* const state = std::getenv("STATE_DIRECTORY");
  return state == nullptr ? randomToken() : keptToken(std::string(state) + "/web-token");
}

}  // namespace

WebView::WebView(const Options& options)
    : server_(state_, {.listen = options.listener ? options.listener->address
                                                  : listenAddress(options.listen),
                       .listener = options.listener ? std::optional(options.listener->descriptor)
                                                    : std::nullopt,
                       .token = tokenOf(options.tokenFile),
                       .hasApplicationMetrics = options.hasApplicationMetrics}) {
  if (!options.controlPath.empty()) {
    poller_.emplace(state_, [client = ControlClient(options.controlPath)](JSONHandle request) {
      return client.ask(std::move(request), std::chrono::steady_clock::now() + 2s);
    });
  }
}

}  // namespace ostravel::companion
