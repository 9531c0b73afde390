#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "Base/FileDescriptor.h"

namespace ostravel::companion {

// One file of a spool: records with ascending sequences, only ever appended. Owned by the spool;
// used by one thread.
//
//   | length: 4 bytes | checksum: 4 bytes | sequence: 8 bytes | `length` bytes | next record …
//
// Numbers are little-endian; the checksum is the CRC-32 of the rest of the record. Bytes after the
// last complete record were being written when the program or the machine stopped.
class SpoolSegment {
 public:
  // An event has at most 1 MiB, and can grow when it is made safe to print.
  static constexpr std::size_t kLargestRecord = std::size_t{8} * 1024 * 1024;
  static constexpr std::size_t kRecordHeader = 16;

  struct Record {
    std::uint64_t sequence = 0;
    std::string bytes;
  };

  // Creates the file, which must not exist. Throws std::system_error.
  static SpoolSegment create(std::string path);
  // Counts the complete records and truncates the file after them. Throws std::system_error.
  static SpoolSegment open(std::string path);

  // One more than the sequence of the last record; 0 if there is none.
  std::uint64_t end() const { return end_; }
  std::size_t records() const { return records_; }
  // The size of the file, in bytes.
  std::size_t size() const { return size_; }

  // Writes the complete record, or nothing.
  std::error_code append(std::uint64_t sequence, std::string_view bytes);

  // The record at an offset, which is advanced to the next one; none at the end or if the record is
  // damaged.
  std::optional<Record> read(std::size_t& offset) const;

  // Waits until everything is on the disk (fdatasync(2)).
  std::error_code sync();

  // Deletes the file; its space is freed when this object is destroyed.
  void remove() const;

 private:
  SpoolSegment(std::string path, int flags);

  std::string path_;
  FileDescriptor descriptor_;
  std::uint64_t end_ = 0;
  std::size_t records_ = 0;
  std::size_t size_ = 0;
  bool isSynced_ = true;
};

}  // namespace ostravel::companion
