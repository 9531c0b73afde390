#include "Companion/Fleet/Spool.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Base/ParseNumber.h"
#include "Companion/Fleet/LittleEndian.h"

namespace ostravel::companion {
namespace {

constexpr std::string_view kSuffix = ".spool";

// | acknowledged: 8 bytes | next: 8 bytes | dropped: 8 bytes | checksum: 4 bytes |
constexpr std::size_t kStateNumbers = 24;
constexpr std::size_t kStateSize = 28;

[[noreturn]] void fail(const std::string& folder, const std::string& reason) {
  throw std::runtime_error("cannot keep events in " + folder + ": " + reason);
}

std::string errorText(int error) {
  return std::generic_category().message(error);
}

std::string segmentName(std::uint64_t first) {
  std::array<char, 32> name{};
  // Padded to the width of the largest number, so that the names sort numerically.
  std::snprintf(name.data(), name.size(), "%020llu", static_cast<unsigned long long>(first));
  return std::string(name.data()) + std::string(kSuffix);
}

std::size_t sizeOf(const FleetMessage& message) {
  return sizeof(message) + message.host.size() + message.bootId.size() + message.id.size() +
         message.json.size();
}

}  // namespace

Spool::Spool(std::string folder, Limits limits) : folder_(std::move(folder)), limits_(limits) {
  try {
    openFolder();
    openState();
    openSegments();
  } catch (const std::system_error& error) {
    fail(folder_, error.what());
  }
}

void Spool::openFolder() {
  constexpr mode_t kOwnerOnly = 0700;
  if (::mkdir(folder_.c_str(), kOwnerOnly) != 0 && errno != EEXIST) {
    fail(folder_, errorText(errno));
  }
  folderDescriptor_ = FileDescriptor(::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat status {};
  if (!folderDescriptor_.isOpen() || ::fstat(folderDescriptor_.get(), &status) != 0) {
    fail(folder_, errorText(errno));
  }
  // Events reveal where applications connect, so no other user may read or replace them.
  if (status.st_uid != ::geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    fail(folder_, "the folder must belong to this user, and nobody else may write to it");
  }
}

void Spool::openState() {
  const std::string path = folder_ + "/state";
  state_ = FileDescriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!state_.isOpen()) {
    fail(folder_, errorText(errno));
  }
  if (::flock(state_.get(), LOCK_EX | LOCK_NB) != 0) {
    fail(folder_, "another monitor uses the folder");
  }
  std::string bytes(kStateSize, '\0');
  // A damaged state is ignored: everything in the folder is then sent again, and the server detects
  // the duplicates.
  if (::pread(state_.get(), bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(kStateSize) ||
      littleEndian<std::uint32_t>(std::string_view(bytes).substr(kStateNumbers)) !=
          checksum(std::string_view(bytes).substr(0, kStateNumbers))) {
    return;
  }
  nextReturned_ = littleEndian<std::uint64_t>(bytes);
  nextAppended_ = littleEndian<std::uint64_t>(std::string_view(bytes).substr(8));
  droppedBefore_ = littleEndian<std::uint64_t>(std::string_view(bytes).substr(16));
  nextAppended_ = std::max(nextAppended_, nextReturned_);
  isStateKnown_ = true;
}

void Spool::openSegments() {
  std::vector<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
    if (entry.path().extension() == kSuffix) {
      paths.push_back(entry.path());
    }
  }
  std::sort(paths.begin(), paths.end());
  for (const std::string& path : paths) {
    SpoolSegment segment = SpoolSegment::open(path);
    if (segment.records() == 0 || segment.end() <= nextReturned_) {
      segment.remove();
      continue;
    }
    nextAppended_ = std::max(nextAppended_, segment.end());
    segments_.push_back(std::move(segment));
  }
  // Delete the segments that have been acknowledged completely.
  while (!segments_.empty()) {
    std::size_t offset = readOffset_;
    const std::optional<SpoolSegment::Record> record = segments_.front().read(offset);
    if (!record || !isStateKnown_ || record->sequence >= nextReturned_) {
      nextReturned_ = record && !isStateKnown_ ? record->sequence : nextReturned_;
      break;
    }
    readOffset_ = offset;
    ++readRecords_;
  }
}

bool Spool::append(FleetMessage message) {
  isStateSaved_ = false;
  if (memory_.empty()) {
    problem_ = appendToDisk(message);
    if (!problem_) {
      ++nextAppended_;
      return true;
    }
  }
  const std::uint64_t sequence = nextAppended_++;
  const std::size_t size = sizeOf(message);
  if (memorySize_ + size > limits_.memory) {
    return false;
  }
  memorySize_ += size;
  memory_.emplace_back(sequence, std::move(message));
  return true;
}

void Spool::countDropped(std::uint64_t count) {
  nextAppended_ += count;
  isStateSaved_ = isStateSaved_ && count == 0;
}

std::error_code Spool::appendToDisk(const FleetMessage& message) {
  const std::string record = encodeRecord(message);
  const std::error_code error = prepareSegment(SpoolSegment::kRecordHeader + record.size());
  return error ? error : segments_.back().append(nextAppended_, record);
}

std::error_code Spool::prepareSegment(std::size_t recordSize) {
  if (size() + recordSize > limits_.folder) {
    removeAcknowledgedSegments();
    if (size() + recordSize > limits_.folder) {
      return std::make_error_code(std::errc::no_space_on_device);
    }
  }
  const bool isFull = !segments_.empty() && segments_.back().size() > 0 &&
                      segments_.back().size() + recordSize > limits_.segment;
  // A segment that has turned out to be damaged is not read any more.
  const bool isLeft = readSegment_ == segments_.size();
  if (!isFull && !isLeft) {
    return {};
  }
  try {
    segments_.push_back(SpoolSegment::create(folder_ + "/" + segmentName(nextAppended_)));
    isFolderSynced_ = false;
  } catch (const std::system_error& error) {
    return error.code();
  }
  return {};
}

std::optional<NumberedMessage> Spool::next() {
  if (std::optional<NumberedMessage> message = nextOnDisk()) {
    return message;
  }
  if (memory_.empty()) {
    return std::nullopt;
  }
  auto [sequence, message] = std::move(memory_.front());
  memory_.pop_front();
  memorySize_ -= sizeOf(message);
  return numbered(sequence, std::move(message));
}

std::optional<NumberedMessage> Spool::nextOnDisk() {
  while (readSegment_ < segments_.size()) {
    std::optional<SpoolSegment::Record> record = segments_[readSegment_].read(readOffset_);
    if (record) {
      ++readRecords_;
      // The checksum is correct, and sequences ascend.
      if (std::optional<FleetMessage> message = decodeRecord(record->bytes)) {
        return numbered(record->sequence, std::move(*message));
      }
      continue;
    }
    if (readSegment_ + 1 == segments_.size() && readRecords_ == segments_[readSegment_].records()) {
      return std::nullopt;
    }
    // The end of the segment, or a record that the disk has damaged.
    ++readSegment_;
    readOffset_ = 0;
    readRecords_ = 0;
  }
  return std::nullopt;
}

NumberedMessage Spool::numbered(std::uint64_t sequence, FleetMessage message) {
  isStateSaved_ = false;
  droppedBefore_ += sequence - nextReturned_;
  nextReturned_ = sequence + 1;
  returned_.emplace(sequence, droppedBefore_);
  return {.sequence = sequence, .droppedBefore = droppedBefore_, .message = std::move(message)};
}

void Spool::acknowledge(std::uint64_t sequence) {
  if (returned_.erase(sequence) > 0) {
    isStateSaved_ = false;
    removeAcknowledgedSegments();
  }
}

void Spool::discard(std::uint64_t sequence) {
  if (returned_.erase(sequence) == 0) {
    return;
  }
  ++droppedBefore_;
  for (auto later = returned_.upper_bound(sequence); later != returned_.end(); ++later) {
    ++later->second;
  }
  isStateSaved_ = false;
  removeAcknowledgedSegments();
}

void Spool::saveState() {
  if (isStateSaved_) {
    return;
  }
  std::string bytes;
  appendLittleEndian(bytes, acknowledged());
  appendLittleEndian(bytes, nextAppended_);
  appendLittleEndian(bytes, returned_.empty() ? droppedBefore_ : returned_.begin()->second);
  appendLittleEndian(bytes, checksum(bytes));
  // If it fails, more messages are sent again after a restart.
  isStateSaved_ =
      ::pwrite(state_.get(), bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
  isStateSynced_ = false;
}

void Spool::sync() {
  saveState();
  for (SpoolSegment& segment : segments_) {
    if (const std::error_code error = segment.sync()) {
      problem_ = error;
    }
  }
  if (!isFolderSynced_) {
    isFolderSynced_ = ::fsync(folderDescriptor_.get()) == 0;
  }
  isStateSynced_ = isStateSynced_ || ::fdatasync(state_.get()) == 0;
}

std::uint64_t Spool::dropped() const {
  return droppedBefore_ + (nextAppended_ - nextReturned_ - unread());
}

// Messages that next() has still to return.
std::uint64_t Spool::unread() const {
  std::uint64_t count = memory_.size();
  for (std::size_t index = readSegment_; index < segments_.size(); ++index) {
    count += segments_[index].records();
  }
  return count - (readSegment_ < segments_.size() ? readRecords_ : 0);
}

// Every sequence before this one is acknowledged or dropped.
std::uint64_t Spool::acknowledged() const {
  return returned_.empty() ? nextReturned_ : returned_.begin()->first;
}

void Spool::removeAcknowledgedSegments() {
  while (!segments_.empty() && segments_.front().end() <= acknowledged()) {
    const bool isBeingRead = readSegment_ == 0;
    // It is cheaper to continue a segment that has room.
    if (segments_.size() == 1 && segments_.front().size() < limits_.segment / 2) {
      return;
    }
    segments_.front().remove();
    segments_.pop_front();
    if (isBeingRead) {
      readOffset_ = 0;
      readRecords_ = 0;
    } else {
      --readSegment_;
    }
  }
}

std::size_t Spool::size() const {
  std::size_t sum = 0;
  for (const SpoolSegment& segment : segments_) {
    sum += segment.size();
  }
  return sum;
}

}  // namespace ostravel::companion
