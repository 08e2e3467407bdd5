// Files that are read or written a piece at a time, at a peer's pace, with few descriptors for all of them.
//
// A file is open while a piece of it moves, and stays open until another file needs its descriptor. So any number of
// calls that wait for their peers have no more than `capacity` files open.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <list>
#include <string>

#include "platform/files/UniqueFd.h"
#include "platform/threads/Mutex.h"

namespace parallel::execution {

// Threads: any.
class FilePool {
 public:
  // `capacity` is at least 1.
  explicit FilePool(std::size_t capacity) noexcept : free_(capacity) {}
  FilePool(const FilePool&) = delete;
  FilePool& operator=(const FilePool&) = delete;

  // Threads: one at a time for each file.
  class File {
   public:
    // Ownership: borrows the pool. `flags` are open()'s, each time anew; `what` names the file in errors: "the input file
    // \"x\"". Opens nothing yet.
    File(FilePool& pool, std::filesystem::path path, int flags, std::string what);
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    const std::string& what() const noexcept { return what_; }
    // Calls the action with the open file. Waits while all descriptors are in use, so the action waits for no peer.
    // std::system_error when the file cannot be opened; what the action throws passes through.
    void use(const std::function<void(int fd)>& action);

   private:
    friend class FilePool;
    FilePool& pool_;
    std::filesystem::path path_;
    int flags_;
    std::string what_;
    files::UniqueFd fd_;     // while it is among the idle ones, guarded by the pool's mutex
    std::list<File*> self_;  // itself, unless it is among the idle ones
    std::list<File*>::iterator place_;
  };

 private:
  void borrow(File& file);
  void giveBack(File& file) noexcept;

  threads::Mutex mutex_;
  threads::ConditionVariable changed_;
  std::size_t free_ ZKS_GUARDED_BY(mutex_);       // how many more files may be open
  std::list<File*> idle_ ZKS_GUARDED_BY(mutex_);  // open and not in use, the one that waits longest in front
};

}  // namespace parallel::execution
