#include "Tests/Extension/Support/NotingPlatform.h"

#include <chrono>
#include <utility>

namespace ostravel::test {

namespace {

using Notes = std::shared_ptr<std::vector<std::string>>;

std::string inMilliseconds(std::chrono::nanoseconds time) {
  return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
}

class NotingQueue final : public platform::DispatchQueue {
 public:
  NotingQueue(std::shared_ptr<platform::DispatchQueue> other, Notes notes)
      : other_(std::move(other)), notes_(std::move(notes)) {}

  const std::string& label() const override { return other_->label(); }
  void async(Work work) override {
    note("async");
    other_->async(std::move(work));
  }
  void asyncBarrier(Work work) override {
    note("asyncBarrier");
    other_->asyncBarrier(std::move(work));
  }

 protected:
  void runSync(const Work& work) override {
    note("sync");
    other_->sync(work);
  }
  void runSyncBarrier(const Work& work) override {
    note("syncBarrier");
    other_->syncBarrier(work);
  }

 private:
  void note(const std::string& what) { notes_->push_back(label() + " " + what); }

  const std::shared_ptr<platform::DispatchQueue> other_;
  const Notes notes_;
};

class NotingTimer final : public platform::DispatchTimer {
 public:
  NotingTimer(std::shared_ptr<platform::DispatchTimer> other, Notes notes, std::string name,
              std::shared_ptr<Handler> latestHandler)
      : other_(std::move(other)),
        notes_(std::move(notes)),
        name_(std::move(name)),
        latestHandler_(std::move(latestHandler)) {}

  void setEventHandler(Handler handler) override {
    note("handler");
    *latestHandler_ = handler;
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
  const std::shared_ptr<Handler> latestHandler_;
};

}  // namespace

std::vector<std::string> NotingPlatform::notesOf(std::string_view beginning) const {
  std::vector<std::string> found = *notes_;
  std::erase_if(found,
                [beginning](const std::string& note) { return !note.starts_with(beginning); });
  return found;
}

std::shared_ptr<platform::DispatchQueue> NotingPlatform::makeQueue(
    std::string label, platform::DispatchQueueKind kind) {
  notes_->push_back("queue " + label +
                    (kind == platform::DispatchQueueKind::serial ? " serial" : " concurrent"));
  return std::make_shared<NotingQueue>(other_.makeQueue(std::move(label), kind), notes_);
}

std::shared_ptr<platform::DispatchTimer> NotingPlatform::makeTimer(
    std::shared_ptr<platform::DispatchQueue> queue) {
  const std::string name = "timer " + std::to_string(++timerCount_);
  notes_->push_back(name + " on " + queue->label());
  auto timer = std::make_shared<NotingTimer>(other_.makeTimer(std::move(queue)), notes_, name,
                                             latestHandler_);
  if (keepsTimers_) {
    keptTimers_.push_back(timer);
  }
  return timer;
}

std::shared_ptr<platform::Log> NotingPlatform::makeLog(std::string subsystem,
                                                       std::string category) {
  return other_.makeLog(std::move(subsystem), std::move(category));
}

std::optional<std::string> NotingPlatform::mainBundleIdentifier() const {
  return other_.mainBundleIdentifier();
}

}  // namespace ostravel::test
