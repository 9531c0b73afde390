#import "Platform/macOS/Provider/StartCoalescer.h"

#include <utility>
#include <vector>

namespace ostravel::macos {

class StartCoalescer::Run {
 public:
  void add(platform::ErrorCompletion completion) {
    {
      const std::lock_guard guard(lock_);
      if (!result_) {
        waiting_.push_back(std::move(completion));
        return;
      }
    }
    // Set once and never changed.
    completion(*result_);
  }

  void finish(const platform::OptionalError& result) {
    std::vector<platform::ErrorCompletion> waiting;
    {
      const std::lock_guard guard(lock_);
      result_ = result;
      waiting.swap(waiting_);
    }
    for (const auto& completion : waiting) {
      completion(result);
    }
  }

 private:
  std::mutex lock_;
  std::optional<platform::OptionalError> result_;
  std::vector<platform::ErrorCompletion> waiting_;
};

std::optional<platform::ErrorCompletion> StartCoalescer::admit(
    platform::ErrorCompletion completion) {
  std::shared_ptr<Run> run;
  bool isFirst = false;
  {
    const std::lock_guard guard(lock_);
    isFirst = run_ == nullptr;
    if (isFirst) {
      run_ = std::make_shared<Run>();
    }
    run = run_;
  }
  run->add(std::move(completion));
  if (!isFirst) {
    return std::nullopt;
  }
  return [run](const platform::OptionalError& result) { run->finish(result); };
}

void StartCoalescer::noteStop() {
  const std::lock_guard guard(lock_);
  run_.reset();
}

}  // namespace ostravel::macos
