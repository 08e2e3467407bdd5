// Lets go of blobs that are kept for somebody who will not come back: a key under which nothing was submitted within a day,
// a key whose job is there, an attempt that has ended.
#pragma once

#include <map>
#include <string>

#include "scheduler/methods/BookKeeper.h"

namespace parallel::scheduler::methods {

// Ownership: borrows the keeper.
// Threads:   one at a time. Waits for the store.
class StalePins {
 public:
  static constexpr std::chrono::hours kKeyKept{24};

  explicit StalePins(BookKeeper& keeper) : keeper_(keeper) {}

  // Regular work. After a restart the day of a key begins anew.
  void sweep();

 private:
  void sweepKeys();
  void sweepAttempts();
  bool isKnown(const std::string& key);

  BookKeeper& keeper_;
  std::map<std::string, store::WallTime> firstSeen_;  // keys under which nothing was submitted
};

}  // namespace parallel::scheduler::methods
