// What the store may take of its disk, and what it has taken.
//
// Bytes are counted for blobs and uploads. The disk's own room and inodes bound both, whatever the limits.
// Threads: any.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/threads/Mutex.h"

namespace parallel::scheduler::store {

enum class Room {
  plenty,
  noSubmissions,  // from 90 % on
  noGrants,       // from 95 % on
  none,
};

class Quota {
 public:
  struct Limits {
    std::optional<std::uint64_t> bytes;  // none: as the disk has
    std::optional<std::uint64_t> files;
  };
  struct Use {
    std::uint64_t bytes = 0;
    std::uint64_t files = 0;
  };

  Quota(std::filesystem::path folder, const Limits& limits);

  Use used() const;
  Room room() const;
  // "99 of 100 GB are used": for those who are refused.
  std::string text() const;

  // parallel::store::QuotaExceeded when the store would have more than it may.
  void take(const Use& more);
  // What is there already, or is there whatever the limits say.
  void note(const Use& more);
  void give(const Use& back);

 private:
  // The most that the store can have, by its limits and by what the disk has left.
  Use capacity(const Use& used) const;

  const std::filesystem::path folder_;
  const Limits limits_;
  mutable threads::Mutex mutex_;
  Use used_ ZKS_GUARDED_BY(mutex_);
};

}  // namespace parallel::scheduler::store
