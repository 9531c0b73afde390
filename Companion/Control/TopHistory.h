#pragma once

#include <jansson.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace ostravel::companion {

// What the live screen shows, gathered from one answer after the other: the recent past of a few
// numbers, and a table of applications. Pure; knows no screen.
class TopHistory {
 public:
  // More than a screen is wide.
  static constexpr std::size_t kKeptSamples = 400;

  struct Sample {
    // Gate: 1 when it is open.
    double gate = 0;
    double pending = 0;
    double tunnels = 0;
    // Per second, both directions.
    double bytesPerSecond = 0;
    // Mean of the handshakes since the sample before; 0 without any.
    double handshakeMicroseconds = 0;
  };

  struct Application {
    std::string name;
    std::size_t tunnels = 0;
    std::size_t pending = 0;
    double sent = 0;
    double received = 0;
    // Among the decisions that are kept: mean handshake, flows, and those that failed.
    double handshakeMilliseconds = 0;
    std::size_t flows = 0;
    std::size_t failures = 0;
  };

  // Answers to status, tunnels and decisions.
  void add(const json_t* status, const json_t* tunnels, const json_t* decisions);

  const std::deque<Sample>& samples() const { return samples_; }
  // Those with most tunnels first, then those with most flows.
  const std::vector<Application>& applications() const { return applications_; }
  const std::string& message() const { return message_; }
  bool isProxying() const { return isProxying_; }

 private:
  void addSample(const json_t* status);

  std::deque<Sample> samples_;
  std::vector<Application> applications_;
  std::string message_;
  bool isProxying_ = false;
  double lastTime_ = 0;
  double lastBytes_ = 0;
  double lastHandshakes_ = 0;
  double lastHandshakeTime_ = 0;
};

}  // namespace ostravel::companion
