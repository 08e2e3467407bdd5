// The files of one task: a directory of its own to work in, and beside it, out of its sight, its captured output.
//
// Names given here are single names, checked before (checkTaskDescription.h).
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "scheduler/ScratchArea.h"
#include "scheduler/UniqueFd.h"

namespace parallel::scheduler {

// Errors:  std::system_error names the file.
// Threads: one at a time.
class TaskScratch {
 public:
  // The area must outlive it.
  explicit TaskScratch(ScratchArea& area);
  // Removes everything; logs when that fails.
  ~TaskScratch();
  TaskScratch(const TaskScratch&) = delete;
  TaskScratch& operator=(const TaskScratch&) = delete;

  const std::filesystem::path& path() const noexcept { return path_; }
  // The task's working directory.
  int workDirectory() const noexcept { return work_.get(); }
  // Open for writing and reading, and empty at first.
  int standardOutput() const noexcept { return output_.get(); }
  int standardError() const noexcept { return error_.get(); }

  // A new file in the working directory. Its mode lets the task run it as a program.
  UniqueFd createInput(const std::string& name);
  // The size of a file that the task made, without opening it: the number of outputs is not bounded by descriptors.
  // `exists` is false when there is none. `OutputNotAFile` when it is something else than a regular file.
  struct OutputStatus {
    bool exists = false;
    std::uint64_t nbytes = 0;
  };
  OutputStatus outputStatus(const std::string& name) const;
  UniqueFd openOutput(const std::string& name) const;

 private:
  ScratchArea& area_;
  std::filesystem::path path_;
  UniqueFd work_;
  UniqueFd output_;
  UniqueFd error_;
};

// Bytes of an open file.
std::uint64_t fileBytes(int fd, const std::string& what);

}  // namespace parallel::scheduler
