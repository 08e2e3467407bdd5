// Room on the disk that is kept for when there is no other: a file that is given up so that a cancel or a delete can still
// be committed.
//
// Threads: any.
#pragma once

#include <cstdint>
#include <filesystem>

#include "platform/threads/Mutex.h"
#include "scheduler/store/Files.h"

namespace parallel::scheduler::store {

class Reserve {
 public:
  Reserve(Files& files, std::filesystem::path path, std::uint64_t nbytes);

  // Takes the room, unless it has it. False when there is none.
  bool take() noexcept;
  // Gives it up. False when there was none to give.
  bool give() noexcept;
  bool isTaken() const;

 private:
  Files& files_;
  const std::filesystem::path path_;
  const std::uint64_t nbytes_;
  mutable threads::Mutex mutex_;
  bool isTaken_ ZKS_GUARDED_BY(mutex_) = false;
};

}  // namespace parallel::scheduler::store
