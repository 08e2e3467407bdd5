// Runs one attempt: fetches its inputs, runs its command in a directory of its own, and keeps what it left.
//
// What fails before the command runs (an input that is not to be had, a name that leads out of the directory) is a result
// too: not started, and why.
// Threads: any number of runs at once, each blocks its thread.
// Errors:  none but memory: what the system refuses is a result.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <vector>

#include "execution/ScratchArea.h"
#include "execution/TaskScratch.h"
#include "platform/zksmessages/jobs.pb.h"
#include "worker/InputCache.h"
#include "worker/expandCommand.h"

namespace parallel::worker {

// What a grant says, with its array.
struct Assignment {
  zksmessages::AttemptKey attempt;
  std::shared_ptr<const zksmessages::TaskArray> array;
  TaskValues values;

  std::uint32_t cores() const;
  zksmessages::Resources needs() const;
};

// A file that waits to be put as a blob; it goes with the last share of this.
class SpooledFile {
 public:
  explicit SpooledFile(std::string path) : path_(std::move(path)) {}
  ~SpooledFile();
  SpooledFile(const SpooledFile&) = delete;
  SpooledFile& operator=(const SpooledFile&) = delete;
  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
};

struct AttemptOutcome {
  zksmessages::AttemptResult result;
  std::vector<std::shared_ptr<const SpooledFile>> files;  // contents that are not in the result
  bool isStopped = false;
};

class AttemptRunner {
 public:
  // Writes the whole blob, checked, to the path; throws when it is not to be had, or when stop is requested.
  using Fetch =
      std::function<void(const zksmessages::Blob& blob, const std::string& path, const std::stop_token& stop)>;

  // The area and the cache must outlive it. `spool` is a folder on the area's file system, for large files.
  AttemptRunner(execution::ScratchArea& area, InputCache& cache, std::filesystem::path spool, Fetch fetch,
                std::chrono::nanoseconds killGrace);

  // `onStart` is called with the directory before the command runs.
  using OnStart = std::function<void(const execution::TaskScratch& scratch)>;
  AttemptOutcome run(const Assignment& assignment, const std::stop_token& stop, const OnStart& onStart);

 private:
  class Run;

  execution::ScratchArea& area_;
  InputCache& cache_;
  const std::filesystem::path spool_;
  const Fetch fetch_;
  const std::chrono::nanoseconds killGrace_;
};

}  // namespace parallel::worker
