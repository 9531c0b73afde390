#pragma once

#include <jansson.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "Base/JSONHandle.h"

namespace ostravel::companion {

// The data of the live screen, collected from successive answers: the history of a few numbers, and
// a table of applications. Does no input or output.
class TopHistory {
 public:
  // Exceeds the width of any screen.
  static constexpr std::size_t kKeptSamples = 400;

  struct Sample {
    // 1 while the gate is open.
    double gate = 0;
    double pending = 0;
    double tunnels = 0;
    // In both directions.
    double bytesPerSecond = 0;
    // Mean of the handshakes since the previous sample; 0 if there were none.
    double handshakeMicroseconds = 0;
  };

  struct Application {
    std::string name;
    std::size_t tunnels = 0;
    std::size_t pending = 0;
    double sent = 0;
    double received = 0;
    // Among the kept decisions: mean handshake, flows, and failed flows.
    double handshakeMilliseconds = 0;
    std::size_t flows = 0;
    std::size_t failures = 0;
  };

  // Answers to status, tunnels and decisions.
  void add(const json_t* status, const json_t* tunnels, const json_t* decisions);

  const std::deque<Sample>& samples() const { return samples_; }
  // Ordered by the number of tunnels, then of flows, largest first.
  const std::vector<Application>& applications() const { return applications_; }
  const std::string& message() const { return message_; }
  bool isProxying() const { return isProxying_; }
  // The last sample and the applications, for programs.
  JSONHandle latest() const;

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
