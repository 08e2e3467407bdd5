// What the store asks of the file system, beside what SQLite does by itself. A face, so that tests can let each step fail,
// or forget what was not synced.
//
// Threads: any. Errors: std::system_error names the file.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string_view>

#include "platform/files/UniqueFd.h"

namespace parallel::scheduler::store {

class Files {
 public:
  Files() = default;
  Files(const Files&) = delete;
  Files& operator=(const Files&) = delete;
  virtual ~Files() = default;

  // Opened for appending, and made if it is not there.
  virtual files::UniqueFd openToAppend(const std::filesystem::path& path);
  virtual void write(const files::UniqueFd& file, std::string_view bytes, const std::filesystem::path& path);
  virtual void sync(const files::UniqueFd& file, const std::filesystem::path& path);
  // Gives the file a length, and takes the room for it.
  virtual void allocate(const files::UniqueFd& file, std::uint64_t nbytes, const std::filesystem::path& path);
  virtual void rename(const std::filesystem::path& from, const std::filesystem::path& to);
  // One that is not there is no error.
  virtual void remove(const std::filesystem::path& path);
  // Made with mode 0700 unless it is there.
  virtual void makeFolder(const std::filesystem::path& path);
  virtual void syncFolder(const std::filesystem::path& path);
};

// The file system of this machine.
Files& systemFiles();
// The same, where nothing is worth waiting for a disk: nothing is synced.
Files& unsyncedFiles();

}  // namespace parallel::scheduler::store
