#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Companion/Fleet/FleetSubscriber.h"

namespace ostravel::companion::test {

// Lines that were reported on another thread.
class ReportList {
 public:
  void add(const std::string& text) {
    const std::lock_guard lock(mutex_);
    texts_.push_back(text);
    changed_.notify_all();
  }

  // Waits for a line that begins with the text, up to the test's time limit.
  void waitFor(const std::string& text) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this, &text] {
      for (const std::string& reported : texts_) {
        if (reported.starts_with(text)) {
          return true;
        }
      }
      return false;
    });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> texts_;
};

// A subscriber with its io_context on a thread, and what it has received.
class FleetReceiver {
 public:
  explicit FleetReceiver(const std::string& url, bool fromBeginning = true)
      : work_(asio::make_work_guard(ioContext_)),
        thread_([this] { ioContext_.run(); }),
        subscriber_(std::make_unique<FleetSubscriber>(
            ioContext_, FleetSubscriber::Options{
                            .server = {.url = url},
                            .fromBeginning = fromBeginning,
                            .event =
                                [this](const FleetMessage& message) {
                                  const std::lock_guard lock(mutex_);
                                  messages_.push_back(message);
                                  changed_.notify_all();
                                },
                            .report = [this](const std::string& text) { reports.add(text); }})) {}

  ~FleetReceiver() {
    work_.reset();
    ioContext_.stop();
    thread_.join();
    subscriber_.reset();
  }
  FleetReceiver(const FleetReceiver&) = delete;
  FleetReceiver& operator=(const FleetReceiver&) = delete;

  void waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this, count] { return messages_.size() >= count; });
  }

  std::vector<FleetMessage> messages() {
    const std::lock_guard lock(mutex_);
    return messages_;
  }

  ReportList reports;

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<FleetMessage> messages_;
  asio::io_context ioContext_;
  asio::executor_work_guard<asio::io_context::executor_type> work_;
  std::thread thread_;
  std::unique_ptr<FleetSubscriber> subscriber_;
};

}  // namespace ostravel::companion::test
