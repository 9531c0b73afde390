#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Interface/DispatchQueue.h"

namespace ostravel::simulation {

// Items of a run are named by the order in which they were submitted.
using ItemNumber = std::uint64_t;

enum class ItemKind { normal, barrier };

// Which items of one queue may start: serial, or concurrent with barriers. Knows only the items'
// numbers; the run queue has the work. Held by its queue and by every item of it, so that items
// outlive their queue.
class WorkLane {
 public:
  WorkLane(std::string label, platform::DispatchQueueKind kind);

  const std::string& label() const { return label_; }

  void submit(ItemNumber item, ItemKind kind);

  // The items that may start now, each reported once.
  std::vector<ItemNumber> takeStartable();

  // The next item that has to run before an item of this kind can that would be submitted after
  // item number end; absent when there is none.
  std::optional<ItemNumber> nextBefore(ItemNumber end, ItemKind kind) const;

  // Whether an item of this kind would have to wait for one that is running.
  bool runningItemBlocks(ItemKind kind) const;

  // A reported item starts.
  void start(ItemNumber item);
  // An item that was never submitted starts: the caller waits for it.
  void startUnsubmitted(ItemKind kind);
  void finish();

 private:
  struct Waiting {
    ItemNumber item;
    ItemKind kind;
  };

  bool runsAlone(ItemKind kind) const;

  const std::string label_;
  const platform::DispatchQueueKind kind_;
  std::deque<Waiting> waiting_;
  // The first ones of waiting_ that were reported.
  std::size_t reported_ = 0;
  // Innermost last: items run nested only inside one another's sync calls.
  std::vector<ItemKind> running_;
};

}  // namespace ostravel::simulation
