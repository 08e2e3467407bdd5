// The files of one task: a directory of its own to work in, and beside it, out of its sight, its standard streams.
//
// Holds no descriptor: a task that waits for its turn costs none. Names given here lead out of no directory; the caller
// has checked them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "execution/ScratchArea.h"
#include "platform/files/UniqueFd.h"

namespace parallel::execution {

// What a task runs with, opened when its turn has come.
struct TaskDescriptors {
  files::UniqueFd directory;
  files::UniqueFd input;  // none when it is to be empty
  files::UniqueFd output;
  files::UniqueFd error;
};

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

  // Make an empty file for what the task is to read, once, and return its path. An input's name may be a path; the
  // folders on its way are made. Before the task runs, so that there are no links.
  std::filesystem::path createStandardInput() const;
  std::filesystem::path createInput(const std::string& name, mode_t permissions) const;
  // Makes a folder, unless it is there.
  void createFolder(const std::string& name) const;

  // Makes the files that capture the output, once, and opens what the task runs with.
  TaskDescriptors open(bool hasInput) const;

  std::filesystem::path standardOutput() const { return path_ / "stdout"; }
  std::filesystem::path standardError() const { return path_ / "stderr"; }
  std::filesystem::path output(const std::string& name) const { return workDirectory() / name; }
  std::filesystem::path workDirectory() const { return path_ / "work"; }

 private:
  std::filesystem::path standardInput() const { return path_ / "stdin"; }

  ScratchArea& area_;
  std::filesystem::path path_;
};

// A file that a task was to leave. Without a problem and not there, it has not been made.
struct OutputStatus {
  bool isThere = false;
  mode_t mode = 0;  // as of stat(), of whatever is there
  std::uint64_t nbytes = 0;
  std::string problem;  // why it cannot be returned: "it is a symbolic link, ..."
};

// Follows no link, and opens nothing: the number of outputs is not bounded by descriptors.
OutputStatus fileStatus(const std::filesystem::path& path);

// 0, or the error with which the file system of an open file takes no more bytes. The file stays as it is.
int spaceError(int fd) noexcept;

}  // namespace parallel::execution
