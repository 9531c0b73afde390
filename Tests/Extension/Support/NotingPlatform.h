#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Interface/Platform.h"

namespace ostravel::test {

// A platform that forwards everything to another one and records which queues and timers it made,
// and the calls to them:
//
//   queue LABEL serial | queue LABEL concurrent
//   LABEL async | LABEL asyncBarrier | LABEL sync | LABEL syncBarrier
//   timer N on LABEL | timer N schedule DELAY INTERVAL LEEWAY (ms, "never") | timer N handler
//   timer N resume | timer N cancel
//
// Destroying a timer is not noted.
class NotingPlatform final : public platform::Platform {
 public:
  explicit NotingPlatform(platform::Platform& other) : other_(other) {}

  const std::vector<std::string>& notes() const { return *notes_; }
  // The timers that are made later exist as long as this.
  void keepTimers() { keepsTimers_ = true; }
  // Runs the latest handler of any timer, as an expiration does that was due before a cancellation.
  void expire() const { (*latestHandler_)(); }
  // The lines that begin with this.
  std::vector<std::string> notesOf(std::string_view beginning) const;
  void clearNotes() { notes_->clear(); }
  // Instead of those of the other platform; outlives this.
  void useText(const platform::TextServices& text) { text_ = &text; }
  void useUUIDs(platform::UUIDSource& source) { uuidSource_ = &source; }

  std::shared_ptr<platform::DispatchQueue> makeQueue(std::string label,
                                                     platform::DispatchQueueKind kind) override;
  std::shared_ptr<platform::DispatchTimer> makeTimer(
      std::shared_ptr<platform::DispatchQueue> queue) override;
  std::shared_ptr<platform::Log> makeLog(std::string subsystem, std::string category) override;
  platform::Log& defaultLog() override { return other_.defaultLog(); }
  void systemLog(std::string_view line) override { other_.systemLog(line); }
  std::optional<std::string> mainBundleIdentifier() const override;
  const platform::Clock& clock() const override { return other_.clock(); }
  platform::UUIDSource& uuidSource() override {
    return uuidSource_ ? *uuidSource_ : other_.uuidSource();
  }
  const platform::TextServices& text() const override { return text_ ? *text_ : other_.text(); }
  platform::SocketCalls& sockets() override { return other_.sockets(); }

 private:
  platform::Platform& other_;
  const platform::TextServices* text_ = nullptr;
  platform::UUIDSource* uuidSource_ = nullptr;
  // Queues and timers write into it as well and may outlive this.
  const std::shared_ptr<std::vector<std::string>> notes_ =
      std::make_shared<std::vector<std::string>>();
  const std::shared_ptr<platform::DispatchTimer::Handler> latestHandler_ =
      std::make_shared<platform::DispatchTimer::Handler>();
  int timerCount_ = 0;
  bool keepsTimers_ = false;
  std::vector<std::shared_ptr<platform::DispatchTimer>> keptTimers_;
};

}  // namespace ostravel::test
