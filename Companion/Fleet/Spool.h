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

// A message and its position among those of its machine.
struct NumberedMessage {
  // Every message that is appended to a spool gets the next number, even if there is no room for
  // it.
  std::uint64_t sequence = 0;
  // How many of the sequences before it are missing.
  std::uint64_t droppedBefore = 0;
  FleetMessage message;
};

// The messages of this machine that the server has not acknowledged, in a folder:
//
//   00000000000000000001.spool   segments, named after the sequence of their first record
//   00000000000000002048.spool
//   state                        what is acknowledged, the next sequence, how many were dropped
//
// Owned by the publisher and used by its thread. A segment is deleted when all of it is
// acknowledged. If the folder's limit is reached or the disk is full, further messages are kept in
// memory, so that a full disk costs nothing while the server answers; when that is full as well,
// messages are dropped and counted.
//
// A message that append() has written survives the end of the program, and after sync() a power
// failure. An incomplete record at the end of a segment is lost. After a damaged record the rest of
// its segment is lost; these records count as dropped, and so do messages in memory when the
// program is killed.
class Spool {
 public:
  struct Limits {
    std::size_t folder = std::size_t{64} * 1024 * 1024;
    // The largest loss by a damaged record, and the unit in which space is freed.
    std::size_t segment = std::size_t{1024} * 1024;
    std::size_t memory = std::size_t{4} * 1024 * 1024;
  };

  // Creates the folder, accessible to this user only. Throws std::runtime_error with a readable
  // reason, also if another program uses the folder.
  Spool(std::string folder, Limits limits);

  // False if the message had to be dropped.
  bool append(FleetMessage message);

  // Counts messages that were dropped before they reached the spool.
  void countDropped(std::uint64_t count);

  // The next message; starts with the oldest one when the spool is opened.
  std::optional<NumberedMessage> next();

  // The server has stored the message, which next() has returned. In any order.
  void acknowledge(std::uint64_t sequence);
  // Drops a message that the server will never accept.
  void discard(std::uint64_t sequence);

  // Writes the state without waiting for the disk.
  void saveState();
  // Writes everything to the disk.
  void sync();

  // Messages that are neither acknowledged nor dropped.
  std::uint64_t waiting() const { return unread() + returned_.size(); }
  // Since the spool was created.
  std::uint64_t dropped() const;
  // Why the last message could not be written to the disk; empty if it was.
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
  // The position of next(), and the number of records before it.
  std::size_t readSegment_ = 0;
  std::size_t readOffset_ = 0;
  std::size_t readRecords_ = 0;

  // Messages that are not on the disk and have not been returned; newer than those on the disk.
  std::deque<std::pair<std::uint64_t, FleetMessage>> memory_;
  std::size_t memorySize_ = 0;

  std::uint64_t nextAppended_ = 1;
  std::uint64_t nextReturned_ = 1;
  // Dropped ones among the sequences before nextReturned_.
  std::uint64_t droppedBefore_ = 0;
  // Returned but unacknowledged sequences, with their droppedBefore.
  std::map<std::uint64_t, std::uint64_t> returned_;
  std::error_code problem_;
};

}  // namespace ostravel::companion
