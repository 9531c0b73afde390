#pragma once

#include <atomic>

namespace ostravel::contract {

// Notices when two of its scopes are open at the same moment. Usable from any thread.
class OverlapCheck {
 public:
  class Scope {
   public:
    explicit Scope(OverlapCheck& check) : check_(check) {
      if (check_.open_.fetch_add(1) != 0) {
        check_.overlapped_ = true;
      }
    }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope() { check_.open_.fetch_sub(1); }

   private:
    OverlapCheck& check_;
  };

  bool overlapped() const { return overlapped_; }

 private:
  std::atomic<int> open_ = 0;
  std::atomic<bool> overlapped_ = false;
};

}  // namespace ostravel::contract
