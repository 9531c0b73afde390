#include "Companion/Fleet/SpoolSegment.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "Tests/Support/TemporaryFolder.h"

namespace ostravel::companion::test {
namespace {

class SpoolSegmentTest : public ::testing::Test {
 protected:
  void writeThreeRecords() const {
    SpoolSegment segment = SpoolSegment::create(path_);
    for (const std::uint64_t sequence : {5U, 6U, 9U}) {
      ASSERT_FALSE(segment.append(sequence, "record " + std::to_string(sequence)));
    }
    ASSERT_FALSE(segment.sync());
  }

  const testing::TemporaryFolder folder_;
  const std::string path_ = folder_.path("segment");
};

TEST_F(SpoolSegmentTest, ReturnsItsRecords) {
  writeThreeRecords();
  const SpoolSegment segment = SpoolSegment::open(path_);
  EXPECT_EQ(segment.records(), 3U);
  EXPECT_EQ(segment.end(), 10U);
  std::size_t offset = 0;
  for (const std::uint64_t sequence : {5U, 6U, 9U}) {
    const std::optional<SpoolSegment::Record> record = segment.read(offset);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->sequence, sequence);
    EXPECT_EQ(record->bytes, "record " + std::to_string(sequence));
  }
  EXPECT_EQ(offset, segment.size());
  EXPECT_FALSE(segment.read(offset));
}

TEST_F(SpoolSegmentTest, CutsOffARecordTornAtAnyByte) {
  writeThreeRecords();
  const std::size_t whole = std::filesystem::file_size(path_);
  const std::size_t lastRecord = SpoolSegment::kRecordHeader + std::string("record 9").size();
  for (std::size_t size = whole - 1; size > whole - lastRecord; --size) {
    std::filesystem::resize_file(path_, size);
    const SpoolSegment segment = SpoolSegment::open(path_);
    EXPECT_EQ(segment.records(), 2U);
    EXPECT_EQ(segment.end(), 7U);
    EXPECT_EQ(std::filesystem::file_size(path_), whole - lastRecord);
    // As a file system may leave it after a power failure.
    std::filesystem::resize_file(path_, whole);
    EXPECT_EQ(SpoolSegment::open(path_).records(), 2U);
    std::filesystem::remove(path_);
    writeThreeRecords();
  }
}

TEST_F(SpoolSegmentTest, NoticesEveryChangedByte) {
  writeThreeRecords();
  const std::size_t whole = std::filesystem::file_size(path_);
  const std::size_t lastRecord = SpoolSegment::kRecordHeader + std::string("record 9").size();
  for (std::size_t at = whole - lastRecord; at < whole; ++at) {
    {
      std::fstream file(path_, std::ios::in | std::ios::out | std::ios::binary);
      file.seekg(static_cast<std::streamoff>(at));
      const char changed = static_cast<char>(file.get() ^ 0x10);
      file.seekp(static_cast<std::streamoff>(at));
      file.put(changed);
    }
    EXPECT_EQ(SpoolSegment::open(path_).records(), 2U) << at;
    std::filesystem::remove(path_);
    writeThreeRecords();
  }
}

TEST_F(SpoolSegmentTest, ContinuesAfterATornRecord) {
  writeThreeRecords();
  std::filesystem::resize_file(path_, std::filesystem::file_size(path_) - 1);
  SpoolSegment segment = SpoolSegment::open(path_);
  ASSERT_FALSE(segment.append(10, "another"));
  EXPECT_EQ(SpoolSegment::open(path_).end(), 11U);
}

TEST_F(SpoolSegmentTest, RefusesRecordsOfImpossibleSize) {
  SpoolSegment segment = SpoolSegment::create(path_);
  EXPECT_TRUE(segment.append(1, ""));
  EXPECT_TRUE(segment.append(1, std::string(SpoolSegment::kLargestRecord + 1, 'x')));
  EXPECT_FALSE(segment.append(1, std::string(SpoolSegment::kLargestRecord, 'x')));
  EXPECT_EQ(segment.records(), 1U);
}

TEST_F(SpoolSegmentTest, IsNotCreatedOverAnotherFile) {
  writeThreeRecords();
  EXPECT_THROW(SpoolSegment::create(path_), std::system_error);
  std::filesystem::create_symlink(path_, folder_.path("link"));
  EXPECT_THROW(SpoolSegment::open(folder_.path("link")), std::system_error);
}

}  // namespace
}  // namespace ostravel::companion::test
