// Results that wait to be handed in, in their order. Those that do not fit the memory set aside for them wait on disk.
//
// Threads: one at a time.
// Errors:  std::system_error when the disk takes no more; the result is then kept in memory.
// Units:   bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "worker/AttemptRunner.h"

namespace parallel::worker {

class ResultQueue {
 public:
  // The folder is there.
  ResultQueue(std::filesystem::path folder, std::uint64_t memoryBytes)
      : folder_(std::move(folder)), memoryBytes_(memoryBytes) {}

  void push(AttemptOutcome outcome);
  // Back to the front, in their order.
  void putBack(std::vector<AttemptOutcome> outcomes);
  // At least one, unless it is empty; no more than so many, and so many bytes, together.
  std::vector<AttemptOutcome> pop(std::size_t most, std::uint64_t nbytes);

  bool empty() const noexcept { return waiting_.empty(); }
  std::size_t size() const noexcept { return waiting_.size(); }
  std::size_t onDisk() const noexcept { return onDisk_; }

 private:
  struct Waiting {
    AttemptOutcome outcome;
    std::uint64_t nbytes = 0;
    std::shared_ptr<const SpooledFile> file;  // holds the result, unless that is in memory
  };
  Waiting keep(AttemptOutcome outcome);
  AttemptOutcome take(Waiting waiting);

  const std::filesystem::path folder_;
  const std::uint64_t memoryBytes_;
  std::deque<Waiting> waiting_;
  std::uint64_t inMemory_ = 0;
  std::size_t onDisk_ = 0;
  std::uint64_t number_ = 0;
};

}  // namespace parallel::worker
