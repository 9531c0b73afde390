#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "Base/JSONHandle.h"
#include "Companion/Monitor/Web/LiveState.h"
#include "Companion/Shared/ControlClient.h"

namespace ostravel::companion {

// Queries the extension once a second for its status and its new decisions, and passes the answers
// to the live state. Has its own thread, because a stalled extension makes it wait. Owned by main.
class ControlPoller {
 public:
  using Ask = std::function<ControlClient::Answer(JSONHandle request)>;

  // Throws std::system_error if the thread cannot be created. `state` outlives this object.
  ControlPoller(LiveState& state, Ask ask,
                std::chrono::milliseconds pause = std::chrono::seconds(1));
  ~ControlPoller();
  ControlPoller(const ControlPoller&) = delete;
  ControlPoller& operator=(const ControlPoller&) = delete;

 private:
  void run();
  void askStatus();
  void askDecisions();

  LiveState& state_;
  const Ask ask_;
  const std::chrono::milliseconds pause_;
  // From the last answer about decisions; for the thread only.
  json_int_t after_ = 0;
  double updatedAfter_ = 0;
  double startedAt_ = 0;

  std::mutex mutex_;
  std::condition_variable wakeUp_;
  bool isEnding_ = false;
  std::thread thread_;
};

}  // namespace ostravel::companion
