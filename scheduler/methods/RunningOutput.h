// What attempts that still run have written, as far as somebody reads it: a window of each stream, in memory.
//
// A reader says where it is; workers are told what is wanted and bring it with their next renewals. What nobody reads for
// a minute is forgotten.
// Threads: any.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/threads/Mutex.h"
#include "scheduler/ledger/names.h"

namespace parallel::scheduler::methods {

class RunningOutput {
 public:
  using Clock = std::chrono::steady_clock;
  // An attempt, and the number of its stream.
  using Key = std::pair<ledger::AttemptKey, int>;
  struct Wanted {
    Key stream;
    std::uint64_t offset = 0;
  };

  static constexpr std::size_t kMostOfStream = std::size_t{2} << 20;
  static constexpr std::size_t kMostStreams = 64;
  static constexpr std::chrono::minutes kKeptUnread{1};

  // What is there from the offset on; empty: nothing yet. From now on what follows is wanted.
  std::string read(const Key& stream, std::uint64_t offset, std::size_t most);
  // What a worker brings. False when nobody wants it, or not from there on.
  bool add(const Key& stream, std::uint64_t offset, std::string_view content);
  // Of those attempts.
  std::vector<Wanted> wanted(const std::vector<ledger::AttemptKey>& attempts);
  // The attempt has ended.
  void drop(const ledger::AttemptKey& attempt);

 private:
  struct Window {
    std::uint64_t begin = 0;
    std::string bytes;
    Clock::time_point lastRead;

    std::uint64_t end() const { return begin + bytes.size(); }
  };

  void forgetUnread() ZKS_REQUIRES(mutex_);

  threads::Mutex mutex_;
  std::map<Key, Window> windows_ ZKS_GUARDED_BY(mutex_);
};

}  // namespace parallel::scheduler::methods
