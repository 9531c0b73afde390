#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <system_error>

#include "Base/FileDescriptor.h"
#include "Companion/Fleet/FleetMessage.h"
#include "Companion/Fleet/SpoolSegment.h"

namespace ostravel::companion {

// A message and its place among those of its machine.
struct NumberedMessage {
  // Every message that is appended to a spool has the next one, whether or not there is room for
  // it.
  std::uint64_t sequence = 0;
  // How many of the sequences before it are missing.
  std::uint64_t droppedBefore = 0;
  FleetMessage message;
};

// The messages of this machine that the server has not acknowledged yet, in a folder:
//
//   00000000000000000001.spool   segments, named after the sequence of their first record
//   00000000000000002048.spool
//   state                        what is acknowledged, the next sequence, how many were dropped
//
// Owned by the publisher and used by its thread. A segment is deleted when all of it is
// acknowledged. When there is no room, by the folder's limit or on the disk, what comes next is
// kept in memory, so that a full disk costs nothing while the server answers; when that is full
// too, messages are dropped and counted.
//
// What is on the disk when append() returns survives the end of the program, and after sync() a
// power failure. A segment that ends in half a record loses that one. A damaged record loses those
// after it in its segment, which count as dropped, and so do messages in memory when the program is
// killed.
class Spool {
 public:
  struct Limits {
    std::size_t folder = std::size_t{64} * 1024 * 1024;
    // What a damaged record can cost, and what is freed at once.
    std::size_t segment = std::size_t{1024} * 1024;
    std::size_t memory = std::size_t{4} * 1024 * 1024;
  };

  // Makes the folder, for this user alone. Throws std::runtime_error with a readable reason, also
  // when another program uses the folder.
  Spool(std::string folder, Limits limits);

  // False when the message had to be dropped.
  bool append(FleetMessage message);

  // Messages that had to be dropped before they came here.
  void countDropped(std::uint64_t count);

  // The first message that has not been returned since the spool was opened.
  std::optional<NumberedMessage> next();

  // The server has the message, which next() has returned. In any order.
  void acknowledge(std::uint64_t sequence);
  // The server will never take it: it is dropped.
  void discard(std::uint64_t sequence);

  // Hands the state to the kernel.
  void saveState();
  // Writes everything to the disk.
  void sync();

  // Neither acknowledged nor dropped.
  std::uint64_t waiting() const { return unread() + returned_.size(); }
  // In the life of the spool.
  std::uint64_t dropped() const;
  // Why the last message could not be written to the disk; none if it could.
  std::error_code problem() const { return problem_; }

 private:
  void openFolder();
  void openState();
  void openSegments();
  std::error_code appendToDisk(const FleetMessage& message);
  std::error_code prepareSegment(std::size_t recordSize);
  std::optional<NumberedMessage> nextOnDisk();
  NumberedMessage numbered(std::uint64_t sequence, FleetMessage message);
  std::uint64_t unread() const;
  std::uint64_t acknowledged() const;
  void removeAcknowledgedSegments();
  std::size_t size() const;

  const std::string folder_;
  const Limits limits_;
  FileDescriptor folderDescriptor_;
  FileDescriptor state_;
  bool isStateKnown_ = false;
  bool isStateSaved_ = true;
  bool isStateSynced_ = true;
  bool isFolderSynced_ = true;

  std::deque<SpoolSegment> segments_;
  // Where next() reads, and how many records there were before.
  std::size_t readSegment_ = 0;
  std::size_t readOffset_ = 0;
  std::size_t readRecords_ = 0;

  // Not on the disk and not returned yet, all of them newer than what is on the disk.
  std::deque<std::pair<std::uint64_t, FleetMessage>> memory_;
  std::size_t memorySize_ = 0;

  std::uint64_t nextAppended_ = 1;
  std::uint64_t nextReturned_ = 1;
  // Of the sequences before nextReturned_.
  std::uint64_t droppedBefore_ = 0;
  // Returned and not acknowledged, with their droppedBefore.
  std::map<std::uint64_t, std::uint64_t> returned_;
  std::error_code problem_;
};

}  // namespace ostravel::companion
