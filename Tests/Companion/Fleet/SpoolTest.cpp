#include "Companion/Fleet/Spool.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <vector>

#include "Tests/Companion/Fleet/FleetSamples.h"
#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::companion::test {
namespace {

// Of a record whose number has one digit.
const std::size_t kRecordSize = SpoolSegment::kRecordHeader + encodeRecord(messageNumber(1)).size();
const Spool::Limits kNoMemory{.folder = 10 * kRecordSize, .segment = 3 * kRecordSize, .memory = 0};

class SpoolTest : public ::testing::Test {
 protected:
  void open(Spool::Limits limits = {}) {
    spool_.reset();
    spool_ = std::make_unique<Spool>(path_, limits);
  }

  // Appends the messages with these numbers; returns how many were dropped.
  int append(int first, int last) {
    int dropped = 0;
    for (int number = first; number <= last; ++number) {
      dropped += spool_->append(messageNumber(number)) ? 0 : 1;
    }
    return dropped;
  }

  void expectNext(int first, int last) {
    for (int number = first; number <= last; ++number) {
      last_ = spool_->next();
      ASSERT_TRUE(last_) << number;
      EXPECT_EQ(last_->message, messageNumber(number));
    }
  }

  void expectEnd() { EXPECT_FALSE(spool_->next()); }

  void acknowledgeAll() {
    for (std::uint64_t sequence = 1; sequence <= last_->sequence; ++sequence) {
      spool_->acknowledge(sequence);
    }
  }

  std::vector<std::string> segments() const {
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) {
      if (entry.path().extension() == ".spool") {
        paths.push_back(entry.path());
      }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
  }

  const testing::TemporaryFolder folder_;
  const std::string path_ = folder_.path("spool");
  std::unique_ptr<Spool> spool_;
  std::optional<NumberedMessage> last_;
};

TEST_F(SpoolTest, ReturnsMessagesInOrder) {
  open();
  EXPECT_EQ(append(1, 100), 0);
  EXPECT_EQ(spool_->waiting(), 100U);
  expectNext(1, 100);
  expectEnd();
  EXPECT_EQ(last_->sequence, 100U);
  append(101, 101);
  expectNext(101, 101);
  EXPECT_EQ(spool_->waiting(), 101U);
}

TEST_F(SpoolTest, KeepsUnacknowledgedMessagesForTheNextStart) {
  open();
  append(1, 10);
  expectNext(1, 7);
  for (const std::uint64_t sequence : {1U, 2U, 3U, 5U}) {
    spool_->acknowledge(sequence);
  }
  spool_->saveState();
  open();
  EXPECT_EQ(spool_->waiting(), 7U);
  // The fifth is sent again: the state only says up to where everything is acknowledged.
  expectNext(4, 10);
  expectEnd();
  EXPECT_EQ(spool_->dropped(), 0U);
}

TEST_F(SpoolTest, ContinuesItsNumbers) {
  open();
  append(1, 3);
  expectNext(1, 3);
  acknowledgeAll();
  spool_->saveState();
  open();
  expectEnd();
  append(4, 4);
  expectNext(4, 4);
  EXPECT_EQ(last_->sequence, 4U);
  EXPECT_EQ(last_->droppedBefore, 0U);
}

TEST_F(SpoolTest, DeletesSegmentsThatAreAcknowledged) {
  open({.segment = 3 * kRecordSize});
  append(1, 9);
  EXPECT_EQ(segments().size(), 3U);
  expectNext(1, 9);
  spool_->acknowledge(1);
  spool_->acknowledge(3);
  EXPECT_EQ(segments().size(), 3U);
  spool_->acknowledge(2);
  EXPECT_EQ(segments().size(), 2U);
  acknowledgeAll();
  EXPECT_EQ(segments().size(), 0U);
  append(1, 2);
  expectNext(1, 2);
  expectEnd();
}

TEST_F(SpoolTest, CountsExactlyWhatItHasNoRoomFor) {
  open(kNoMemory);
  const int dropped = append(1, 50);
  EXPECT_GT(dropped, 30);
  EXPECT_EQ(spool_->dropped(), static_cast<std::uint64_t>(dropped));
  expectNext(1, 50 - dropped);
  expectEnd();
  acknowledgeAll();
  EXPECT_EQ(append(51, 51), 0);
  expectNext(51, 51);
  EXPECT_EQ(last_->droppedBefore, static_cast<std::uint64_t>(dropped));
  EXPECT_EQ(spool_->dropped(), static_cast<std::uint64_t>(dropped));
}

TEST_F(SpoolTest, RemembersDroppedMessagesAcrossAStart) {
  open(kNoMemory);
  const int dropped = append(1, 20);
  spool_->saveState();
  open(kNoMemory);
  EXPECT_EQ(spool_->dropped(), static_cast<std::uint64_t>(dropped));
  expectNext(1, 20 - dropped);
  acknowledgeAll();
  spool_->saveState();
  open(kNoMemory);
  append(21, 21);
  expectNext(21, 21);
  EXPECT_EQ(last_->droppedBefore, static_cast<std::uint64_t>(dropped));
}

TEST_F(SpoolTest, CountsMessagesDroppedBeforeTheyReachIt) {
  open();
  append(1, 1);
  spool_->countDropped(5);
  append(2, 2);
  EXPECT_EQ(spool_->dropped(), 5U);
  expectNext(1, 1);
  EXPECT_EQ(last_->droppedBefore, 0U);
  expectNext(2, 2);
  EXPECT_EQ(last_->droppedBefore, 5U);
}

TEST_F(SpoolTest, CountsWhatTheServerNeverAccepts) {
  open();
  append(1, 3);
  expectNext(1, 3);
  spool_->discard(2);
  EXPECT_EQ(spool_->dropped(), 1U);
  EXPECT_EQ(spool_->waiting(), 2U);
  append(4, 4);
  expectNext(4, 4);
  EXPECT_EQ(last_->droppedBefore, 1U);
}

// A write beyond the limit fails as one on a full disk does, and can be partial.
class FullDisk {
 public:
  explicit FullDisk(rlim_t size) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit{.rlim_cur = size, .rlim_max = before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FullDisk() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handler_);
  }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

 private:
  void (*handler_)(int);
  rlimit before_{};
};

TEST_F(SpoolTest, ContinuesInMemoryWhileTheDiskIsFull) {
  open();
  append(1, 3);
  {
    const FullDisk fullDisk(4 * kRecordSize - 7);
    EXPECT_EQ(append(4, 9), 0);
    EXPECT_TRUE(spool_->problem());
    expectNext(1, 9);
    expectEnd();
    acknowledgeAll();
    append(10, 10);
    expectNext(10, 10);
  }
  append(11, 12);
  EXPECT_FALSE(spool_->problem());
  expectNext(11, 12);
  expectEnd();
  EXPECT_EQ(spool_->dropped(), 0U);
  // Those on the disk are whole.
  spool_->saveState();
  open();
  expectNext(11, 12);
  expectEnd();
}

TEST_F(SpoolTest, KeepsTheOrderWhenTheDiskHasRoomAgain) {
  open();
  append(1, 2);
  {
    const FullDisk fullDisk(3 * kRecordSize - 7);
    append(3, 9);
  }
  append(10, 12);
  expectNext(1, 12);
  expectEnd();
}

TEST_F(SpoolTest, CountsWhatIsLostFromMemory) {
  open();
  append(1, 2);
  {
    const FullDisk fullDisk(2 * kRecordSize);
    append(3, 6);
    spool_->saveState();
  }
  open();
  EXPECT_EQ(spool_->dropped(), 4U);
  append(7, 7);
  expectNext(1, 2);
  expectNext(7, 7);
  EXPECT_EQ(last_->sequence, 7U);
  EXPECT_EQ(last_->droppedBefore, 4U);
}

TEST_F(SpoolTest, LosesOnlyTheTornRecord) {
  open();
  append(1, 5);
  const std::string last = segments().back();
  spool_.reset();
  std::filesystem::resize_file(last, std::filesystem::file_size(last) - 3);
  open();
  append(6, 6);
  expectNext(1, 4);
  expectNext(6, 6);
  expectEnd();
}

TEST_F(SpoolTest, CountsWhatADamagedRecordCosts) {
  open({.segment = 4 * kRecordSize});
  append(1, 9);
  const std::string first = segments().front();
  spool_.reset();
  {
    std::fstream file(first, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(2 * kRecordSize));
    file << "damage";
  }
  open({.segment = 4 * kRecordSize});
  std::vector<std::string> ids;
  while ((last_ = spool_->next())) {
    ids.push_back(last_->message.id);
    EXPECT_EQ(last_->sequence, last_->droppedBefore + ids.size());
  }
  EXPECT_EQ(ids.front(), messageNumber(1).id);
  EXPECT_EQ(ids.back(), messageNumber(9).id);
  EXPECT_EQ(ids.size() + spool_->dropped(), 9U);
}

TEST_F(SpoolTest, ResendsEverythingWhenItsStateIsDamaged) {
  open();
  append(1, 5);
  expectNext(1, 2);
  acknowledgeAll();
  spool_->saveState();
  spool_.reset();
  std::ofstream(path_ + "/state") << std::string(28, 'x');
  open();
  EXPECT_EQ(spool_->dropped(), 0U);
  expectNext(1, 5);
  EXPECT_EQ(spool_->dropped(), 0U);
}

TEST_F(SpoolTest, IsUsedByOneProgramAtATime) {
  open();
  EXPECT_THROW(Spool(path_, {}), std::runtime_error);
  open();
}

TEST_F(SpoolTest, RefusesAFolderThatIsNotSafe) {
  EXPECT_THROW(Spool(folder_.path("missing/folder"), {}), std::runtime_error);
  EXPECT_THROW(Spool(folder_.write("file", ""), {}), std::runtime_error);
  std::filesystem::create_directory(path_);
  std::filesystem::permissions(path_, std::filesystem::perms::all);
  EXPECT_THROW(open(), std::runtime_error);
}

TEST_F(SpoolTest, KeepsItsMessagesOnceSynced) {
  open();
  append(1, 3);
  spool_->sync();
  EXPECT_FALSE(spool_->problem());
  open();
  expectNext(1, 3);
}

}  // namespace
}  // namespace ostravel::companion::test
