#import "Tests/StandInMac/MainThread.h"

#import <Foundation/Foundation.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

namespace ostravel::standin {

namespace {

struct MainThreadWork {
  std::mutex lock;
  std::condition_variable changed;
  std::deque<std::function<void()>> waiting;
};

// Never destroyed: work that runs here may end the process while other threads add more.
MainThreadWork& mainThreadWork() {
  static auto* const work = new MainThreadWork;
  return *work;
}

}  // namespace

void runOnMainThread(std::function<void()> work) {
  MainThreadWork& queue = mainThreadWork();
  {
    const std::lock_guard guard(queue.lock);
    queue.waiting.push_back(std::move(work));
  }
  queue.changed.notify_all();
}

void handOverMainThread() {
  MainThreadWork& queue = mainThreadWork();
  while (true) {
    std::unique_lock guard(queue.lock);
    queue.changed.wait(guard, [&queue] { return !queue.waiting.empty(); });
    auto work = std::move(queue.waiting.front());
    queue.waiting.pop_front();
    guard.unlock();
    @autoreleasepool {
      work();
      work = nullptr;
    }
  }
}

}  // namespace ostravel::standin
