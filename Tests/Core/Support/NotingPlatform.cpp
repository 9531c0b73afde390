#include "Tests/Core/Support/NotingPlatform.h"

#include <chrono>
#include <utility>

namespace ostravel::test {

namespace {

using Notes = std::shared_ptr<std::vector<std::string>>;

std::string inMilliseconds(std::chrono::nanoseconds time) {
  return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
}

class NotingTimer final : public platform::DispatchTimer {
 public:
  NotingTimer(std::shared_ptr<platform::DispatchTimer> other, Notes notes, std::string name)
      : other_(std::move(other)), notes_(std::move(notes)), name_(std::move(name)) {}

  void setEventHandler(Handler handler) override {
    note("handler");
    other_->setEventHandler(std::move(handler));
  }
  void schedule(std::chrono::nanoseconds delay, std::optional<std::chrono::nanoseconds> interval,
                std::chrono::nanoseconds leeway) override {
    note("schedule " + inMilliseconds(delay) + " " +
         (interval ? inMilliseconds(*interval) : "never") + " " + inMilliseconds(leeway));
    other_->schedule(delay, interval, leeway);
  }
  void resume() override {
    note("resume");
    other_->resume();
  }
  void cancel() override {
    note("cancel");
    other_->cancel();
  }

 private:
  void note(const std::string& what) { notes_->push_back(name_ + " " + what); }

  const std::shared_ptr<platform::DispatchTimer> other_;
  const Notes notes_;
  const std::string name_;
};

}  // namespace

std::shared_ptr<platform::DispatchQueue> NotingPlatform::makeQueue(
    std::string label, platform::DispatchQueueKind kind) {
  notes_->push_back("queue " + label +
                    (kind == platform::DispatchQueueKind::serial ? " serial" : " concurrent"));
  return other_.makeQueue(std::move(label), kind);
}

std::shared_ptr<platform::DispatchTimer> NotingPlatform::makeTimer(
    std::shared_ptr<platform::DispatchQueue> queue) {
  const std::string name = "timer " + std::to_string(++timerCount_);
  notes_->push_back(name + " on " + queue->label());
  return std::make_shared<NotingTimer>(other_.makeTimer(std::move(queue)), notes_, name);
}

std::shared_ptr<platform::Log> NotingPlatform::makeLog(std::string subsystem,
                                                       std::string category) {
  return other_.makeLog(std::move(subsystem), std::move(category));
}

std::optional<std::string> NotingPlatform::mainBundleIdentifier() const {
  return other_.mainBundleIdentifier();
}

}  // namespace ostravel::test
