#include "Companion/Shared/QueuedOutput.h"

#include <atomic>
#include <utility>

#include "Base/LineOutput.h"

namespace ostravel::companion {

using namespace std::chrono_literals;

namespace {

// How long the writing thread waits for room at a time.
constexpr auto kTurn = 100ms;

}  // namespace

// Also used by a stuck writing thread that has been detached.
struct QueuedOutput::Status {
  std::atomic<int> error = 0;
  // How often in a row there was no room. Time alone does not show that the reader has stalled:
  // this program may not have run.
  std::atomic<int> turnsWithoutRoom = 0;
};

class QueuedOutput::Output final : public BackgroundWriter::Output {
 public:
  Output(int descriptor, Options options, std::shared_ptr<Status> status)
      : lines_(descriptor), options_(std::move(options)), status_(std::move(status)) {}

  std::size_t write(std::string_view lines) override {
    if (status_->error != 0) {
      return lines.size();
    }
    const LineOutput::Piece piece = lines_.writePiece(lines, kTurn);
    status_->turnsWithoutRoom = piece.size == 0 ? status_->turnsWithoutRoom + 1 : 0;
    if (piece.error != 0) {
      status_->error = piece.error;
      options_.failed();
    }
    return piece.size;
  }

  std::string dropped(std::size_t count) override {
    const std::string line = options_.droppedLine(count);
    return line.empty() ? line : line + '\n';
  }

  std::size_t writeInCrash(std::string_view lines) noexcept override {
    return lines_.writePiece(lines, 0ms).size;
  }

 private:
  const LineOutput lines_;
  const Options options_;
  const std::shared_ptr<Status> status_;
};

QueuedOutput::QueuedOutput(int descriptor, Options options)
    : status_(std::make_shared<Status>()),
      writer_(std::make_unique<Output>(descriptor, options, status_), options.capacity, "output") {}

void QueuedOutput::writeLine(std::string_view line) {
  std::string record(line);
  record += '\n';
  writer_.push(record);
}

void QueuedOutput::flush() {
  constexpr int kMostTurns = 5;
  constexpr auto kLongest = 5s;
  using Clock = std::chrono::steady_clock;
  const Clock::time_point end = Clock::now() + kLongest;
  status_->turnsWithoutRoom = 0;
  while (!writer_.flush(Clock::now() + kTurn) && status_->turnsWithoutRoom < kMostTurns &&
         Clock::now() < end) {
  }
}

std::error_code QueuedOutput::error() const {
  return {status_->error, std::generic_category()};
}

}  // namespace ostravel::companion
