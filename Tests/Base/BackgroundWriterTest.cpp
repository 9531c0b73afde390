#include "Base/BackgroundWriter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace ostravel {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

// The lines that an output has taken, and whether its reader reads. Shared by a test and its
// output.
struct Reader {
  void stall() {
    const std::lock_guard lock(mutex);
    isStalled = true;
  }
  void go() {
    {
      const std::lock_guard lock(mutex);
      isStalled = false;
    }
    changed.notify_all();
  }
  void waitUntilStuck() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return isStuck; });
  }
  std::string text() {
    const std::lock_guard lock(mutex);
    return taken;
  }
  void waitUntilTaken(const std::string& line) {
    std::unique_lock lock(mutex);
    changed.wait(lock, [this, &line] { return taken.ends_with(line); });
  }

  std::mutex mutex;
  std::condition_variable changed;
  bool isStalled = false;
  bool isStuck = false;
  std::string taken;
  std::string takenInCrash;
};

// Takes one line at a time, and is stuck while its reader has stalled, as in a system call.
class LineOutputDouble final : public BackgroundWriter::Output {
 public:
  explicit LineOutputDouble(std::shared_ptr<Reader> reader) : reader_(std::move(reader)) {}

  std::size_t write(std::string_view records) override {
    std::unique_lock lock(reader_->mutex);
    reader_->isStuck = reader_->isStalled;
    reader_->changed.notify_all();
    reader_->changed.wait(lock, [this] { return !reader_->isStalled; });
    reader_->isStuck = false;
    const std::string_view line = firstLine(records);
    reader_->taken += line;
    reader_->changed.notify_all();
    return line.size();
  }
  std::string dropped(std::size_t count) override {
    return "dropped " + std::to_string(count) + "\n";
  }
  std::size_t writeInCrash(std::string_view records) noexcept override {
    const std::string_view line = firstLine(records);
    reader_->takenInCrash += line;
    return line.size();
  }

 private:
  static std::string_view firstLine(std::string_view records) {
    return records.substr(0, records.find('\n') + 1);
  }

  const std::shared_ptr<Reader> reader_;
};

class BackgroundWriterTest : public testing::Test {
 protected:
  static constexpr std::size_t kCapacity = 100;

  bool flush() { return writer_->flush(steady_clock::now() + 60s); }

  // The reader has stalled, and one line is on its way to it. The other buffer is empty.
  void stall() {
    reader_->stall();
    writer_->push("stuck\n");
    reader_->waitUntilStuck();
  }

  // How long it takes at least until what is pushed right after another line is written. push: ends
  // with the line "last".
  template <typename Push>
  steady_clock::duration shortestDelay(Push push) {
    // Any single attempt may be delayed by a busy machine.
    constexpr int kAttempts = 50;
    auto shortest = steady_clock::duration::max();
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      writer_->push("first\n");
      reader_->waitUntilTaken("first\n");
      const auto begin = steady_clock::now();
      push();
      reader_->waitUntilTaken("last\n");
      shortest = std::min(shortest, steady_clock::now() - begin);
    }
    return shortest;
  }

  static std::string lineOf(int number) { return "line " + std::to_string(100 + number) + "\n"; }

  const std::shared_ptr<Reader> reader_ = std::make_shared<Reader>();
  std::optional<BackgroundWriter> writer_{
      std::in_place, std::make_unique<LineOutputDouble>(reader_), kCapacity, "writer"};
};

TEST_F(BackgroundWriterTest, WritesWhatIsPushed) {
  writer_->push("one\n");
  writer_->push("two\n");
  EXPECT_TRUE(flush());
  EXPECT_EQ(reader_->text(), "one\ntwo\n");
}

TEST_F(BackgroundWriterTest, WritesWithoutBeingAsked) {
  // The second one comes during the pause after the first.
  for (const char* const line : {"one\n", "two\n"}) {
    writer_->push(line);
    reader_->waitUntilTaken(line);
  }
  EXPECT_EQ(reader_->text(), "one\ntwo\n");
}

TEST_F(BackgroundWriterTest, AnUrgentRecordEndsThePause) {
  EXPECT_LT(shortestDelay([this] { writer_->push("last\n", BackgroundWriter::Urgency::urgent); }),
            BackgroundWriter::kGathering / 2);
}

TEST_F(BackgroundWriterTest, ManyRecordsEndThePause) {
  writer_.emplace(std::make_unique<LineOutputDouble>(reader_), 10'000, "writer");
  EXPECT_LT(shortestDelay([this] {
              for (std::size_t count = 1; count < BackgroundWriter::kManyRecords; ++count) {
                writer_->push("one of many\n");
              }
              writer_->push("last\n");
            }),
            BackgroundWriter::kGathering / 2);
}

TEST_F(BackgroundWriterTest, KeepsTheOrderOfEachThread) {
  constexpr int kThreads = 4;
  constexpr int kLines = 5000;
  BackgroundWriter writer(std::make_unique<LineOutputDouble>(reader_), 10'000'000, "writer");
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&writer, thread] {
      for (int line = 0; line < kLines; ++line) {
        writer.push(std::to_string(thread) + " " + std::to_string(line) + "\n");
      }
    });
  }
  threads.clear();
  ASSERT_TRUE(writer.flush(steady_clock::now() + 60s));
  std::vector<int> next(kThreads, 0);
  std::istringstream text(reader_->text());
  std::size_t thread = 0;
  for (int line = 0; text >> thread >> line;) {
    ASSERT_EQ(line, next.at(thread)++);
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
}

TEST_F(BackgroundWriterTest, DoesNotWaitForAReaderThatHasStalled) {
  stall();
  // None of these would ever return.
  for (int line = 0; line < 1000; ++line) {
    writer_->push(lineOf(line));
  }
  reader_->go();
  EXPECT_TRUE(flush());
}

TEST_F(BackgroundWriterTest, PutsTheNumberOfDroppedRecordsInTheirPlace) {
  stall();
  for (int line = 0; line < 15; ++line) {
    writer_->push(lineOf(line));
  }
  // Still missing, although it would fit.
  writer_->push("x\n");
  reader_->go();
  ASSERT_TRUE(flush());
  writer_->push("after\n");
  ASSERT_TRUE(flush());
  std::string expected = "stuck\n";
  for (int line = 0; line < 11; ++line) {
    expected += lineOf(line);
  }
  EXPECT_EQ(reader_->text(), expected + "dropped 5\nafter\n");
}

TEST_F(BackgroundWriterTest, CountsDroppedRecordsAfreshEachTime) {
  for (const std::string expected : {"dropped 9\n", "dropped 19\n"}) {
    stall();
    for (int line = 0; line < (expected == "dropped 9\n" ? 20 : 30); ++line) {
      writer_->push(lineOf(line));
    }
    reader_->go();
    ASSERT_TRUE(flush());
    EXPECT_TRUE(reader_->text().ends_with(expected)) << reader_->text();
  }
}

TEST_F(BackgroundWriterTest, TakesARecordThatFillsABufferAndDropsALargerOne) {
  const std::string largest = std::string(kCapacity - 1, 'x') + "\n";
  writer_->push(largest);
  ASSERT_TRUE(flush());
  writer_->push("x" + largest);
  ASSERT_TRUE(flush());
  EXPECT_EQ(reader_->text(), largest + "dropped 1\n");
}

TEST_F(BackgroundWriterTest, FlushingEndsAtItsDeadline) {
  stall();
  EXPECT_FALSE(writer_->flush(steady_clock::now() + 1ms));
  reader_->go();
  EXPECT_TRUE(flush());
}

TEST_F(BackgroundWriterTest, FlushingWithoutAnythingToWriteReturnsAtOnce) {
  EXPECT_TRUE(writer_->flush(steady_clock::now()));
}

TEST_F(BackgroundWriterTest, DestructionWritesWhatIsLeft) {
  for (int line = 0; line < 5; ++line) {
    writer_->push(lineOf(line));
  }
  writer_.reset();
  EXPECT_TRUE(reader_->text().ends_with(lineOf(4)));
}

TEST_F(BackgroundWriterTest, DestructionDoesNotWaitForAStalledReader) {
  stall();
  writer_->push("never\n");
  writer_.reset();
  EXPECT_EQ(reader_->text(), "");
  // It returns and writes nothing more.
  const std::weak_ptr<Reader> reader = reader_;
  reader_->go();
  while (reader.use_count() > 1) {
    std::this_thread::yield();
  }
  EXPECT_EQ(reader_->text(), "stuck\n");
}

TEST_F(BackgroundWriterTest, InACrashItsThreadWritesWhatIsLeft) {
  writer_->push("last\n");
  writer_->writeInCrash();
  EXPECT_EQ(reader_->text(), "last\n");
  EXPECT_EQ(reader_->takenInCrash, "");
}

TEST_F(BackgroundWriterTest, InACrashWhatItsThreadCannotWriteIsWrittenAtOnce) {
  stall();
  writer_->push("last\n");
  writer_->writeInCrash();
  EXPECT_EQ(reader_->takenInCrash, "stuck\nlast\n");
  reader_->go();
}

}  // namespace
}  // namespace ostravel
