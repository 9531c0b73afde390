#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <unordered_map>
#include <utility>

namespace ostravel {

// Divides the time of an event loop between parties that move bytes, and leaves time for other
// work: between two turns the loop handles everything that has become ready in the meantime.
// Without it, a thousand streams of one user that become ready together are served before a new
// connection of another user.
//
// In each turn a party may spend a share, and all parties together a total. Work beyond that waits
// in one line per party. Used by one thread.
class FairTurns {
 public:
  // Identifies a party; never dereferenced. Null is a party as well.
  using Party = const void*;
  using Work = std::function<void()>;

  // The cost of an operation in addition to its bytes, so that a party cannot fill the loop with
  // small ones: about the time for moving this many bytes.
  static constexpr std::size_t kCostOfOperation = 16 * 1024;

  struct Limits {
    // Per turn, in bytes: of each party, and of all together.
    std::size_t share;
    std::size_t total;
  };

  // later(work): must run the work on the loop, after everything that is ready by then.
  FairTurns(Limits limits, std::function<void(Work)> later)
      : limits_(limits), later_(std::move(later)) {}
  FairTurns(const FairTurns&) = delete;
  FairTurns& operator=(const FairTurns&) = delete;

  // Runs the work now, or in a later turn if the party has spent its share or is already waiting.
  // Work that is destroyed with this object never runs.
  template <typename Callable>
  void run(Party party, Callable&& work) {
    run(party, work, [&work]() -> Callable&& { return std::forward<Callable>(work); });
  }
  // The same for work that must be prepared for waiting, which makeLater() does. Nearly all runs at
  // once.
  template <typename Now, typename MakeLater>
  void run(Party party, Now&& now, MakeLater&& makeLater) {
    if (mayRunNow(party)) {
      spend(party, kCostOfOperation);
      now();
    } else {
      enqueue(party, Work(makeLater()));
    }
  }

  // Charges the party for bytes, whether or not run() was used.
  void spend(Party party, std::size_t bytes);

  // True if work waits for a later turn. Otherwise the next turn only resets the accounts.
  bool isAnyoneWaiting() const { return !order_.empty(); }

  // Destroys the waiting work without running it. Called once the loop has stopped.
  void clear();

 private:
  struct Line {
    std::size_t spent = 0;
    // Unlike a deque, it allocates nothing while it is empty, which it usually is.
    std::list<Work> waiting;
  };

  // Idle lines that are kept for the next turns, which are likely to be of the same parties.
  static constexpr std::size_t kKeptLines = 16;

  // Keeps its address until the next turn begins.
  Line& lineOf(Party party);
  bool mayRunNow(Party party);
  void enqueue(Party party, Work work);
  void requestTurn();
  void takeTurn();
  void beginTurn();
  void serve(Party party);

  const Limits limits_;
  const std::function<void(Work)> later_;
  // Parties that have spent something in this turn or are waiting, and some others.
  std::unordered_map<Party, Line> lines_;
  // The line that was used last; null if it may have been removed.
  Line* latest_ = nullptr;
  Party latestParty_ = nullptr;
  // Each waiting party once, the next one first; excludes the one that is being served.
  std::deque<Party> order_;
  const Line* served_ = nullptr;
  std::size_t spent_ = 0;
  bool isTurnRequested_ = false;
};

}  // namespace ostravel
