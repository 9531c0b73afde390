#include "Companion/Fleet/SpoolSegment.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "Companion/Fleet/LittleEndian.h"

namespace ostravel::companion {
namespace {

constexpr std::size_t kChecksumAt = 4;
constexpr std::size_t kSequenceAt = 8;

std::error_code lastError() {
  return {errno, std::generic_category()};
}

// Empty if there are fewer bytes.
std::string readBytes(int descriptor, std::size_t offset, std::size_t size) {
  std::string bytes(size, '\0');
  const ssize_t got = ::pread(descriptor, bytes.data(), size, static_cast<off_t>(offset));
  return got == static_cast<ssize_t>(size) ? bytes : std::string();
}

}  // namespace

SpoolSegment::SpoolSegment(std::string path, int flags)
    : path_(std::move(path)),
      descriptor_(::open(path_.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | flags, 0600)) {
  if (!descriptor_.isOpen()) {
    throw std::system_error(lastError(), path_);
  }
}

SpoolSegment SpoolSegment::create(std::string path) {
  return {std::move(path), O_CREAT | O_EXCL};
}

SpoolSegment SpoolSegment::open(std::string path) {
  SpoolSegment segment(std::move(path), 0);
  while (const std::optional<Record> record = segment.read(segment.size_)) {
    segment.end_ = record->sequence + 1;
    ++segment.records_;
  }
  if (::ftruncate(segment.descriptor_.get(), static_cast<off_t>(segment.size_)) != 0) {
    throw std::system_error(lastError(), segment.path_);
  }
  return segment;
}

std::error_code SpoolSegment::append(std::uint64_t sequence, std::string_view bytes) {
  if (bytes.empty() || bytes.size() > kLargestRecord) {
    return std::make_error_code(std::errc::message_size);
  }
  std::string tail;
  tail.reserve(bytes.size() + kSequenceAt);
  appendLittleEndian(tail, sequence);
  tail += bytes;
  std::string record;
  record.reserve(kRecordHeader + bytes.size());
  appendLittleEndian(record, static_cast<std::uint32_t>(bytes.size()));
  appendLittleEndian(record, checksum(tail));
  record += tail;
  const ssize_t written =
      ::pwrite(descriptor_.get(), record.data(), record.size(), static_cast<off_t>(size_));
  if (written != static_cast<ssize_t>(record.size())) {
    const std::error_code error =
        written < 0 ? lastError() : std::make_error_code(std::errc::no_space_on_device);
    // Only frees the space: an incomplete record is ignored, and the next one overwrites it.
    static_cast<void>(::ftruncate(descriptor_.get(), static_cast<off_t>(size_)));
    return error;
  }
  size_ += record.size();
  end_ = sequence + 1;
  ++records_;
  isSynced_ = false;
  return {};
}

std::optional<SpoolSegment::Record> SpoolSegment::read(std::size_t& offset) const {
  const std::string header = readBytes(descriptor_.get(), offset, kRecordHeader);
  if (header.empty()) {
    return std::nullopt;
  }
  const auto length = littleEndian<std::uint32_t>(header);
  if (length == 0 || length > kLargestRecord) {
    return std::nullopt;
  }
  const std::string_view sequence = std::string_view(header).substr(kSequenceAt);
  std::string bytes = readBytes(descriptor_.get(), offset + kRecordHeader, length);
  const auto sum = littleEndian<std::uint32_t>(std::string_view(header).substr(kChecksumAt));
  if (bytes.empty() || sum != checksum(sequence, bytes)) {
    return std::nullopt;
  }
  offset += kRecordHeader + length;
  return Record{.sequence = littleEndian<std::uint64_t>(sequence), .bytes = std::move(bytes)};
}

std::error_code SpoolSegment::sync() {
  if (!isSynced_ && ::fdatasync(descriptor_.get()) != 0) {
    return lastError();
  }
  isSynced_ = true;
  return {};
}

void SpoolSegment::remove() const {
  ::unlink(path_.c_str());
}

}  // namespace ostravel::companion
