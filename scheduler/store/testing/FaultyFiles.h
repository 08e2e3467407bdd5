// The store's own files on a FaultyDisk.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/errors/systemError.h"
#include "scheduler/store/Files.h"
#include "scheduler/store/testing/FaultyDisk.h"

namespace parallel::scheduler::store::testing {

class FaultyFiles : public Files {
 public:
  // Ownership: borrows the disk.
  explicit FaultyFiles(FaultyDisk& disk) : disk_(disk) {}

  files::UniqueFd openToAppend(const std::filesystem::path& path) override {
    disk_.willChange(path);
    return Files::openToAppend(path);
  }
  void write(const files::UniqueFd& file, std::string_view bytes, const std::filesystem::path& path) override {
    step("Writing", path);
    const std::uint64_t offset = std::filesystem::file_size(path);
    Files::write(file, bytes, path);
    disk_.written(path, offset, bytes);
  }
  void sync(const files::UniqueFd& file, const std::filesystem::path& path) override {
    step("Syncing", path);
    static_cast<void>(file);  // the disk that forgets is this one
    disk_.synced(path);
  }
  void allocate(const files::UniqueFd& file, std::uint64_t nbytes, const std::filesystem::path& path) override {
    step("Taking room for", path);
    Files::allocate(file, nbytes, path);
  }
  void rename(const std::filesystem::path& from, const std::filesystem::path& to) override {
    step("Renaming", from);
    Files::rename(from, to);
    disk_.renamed(from, to);
  }
  void remove(const std::filesystem::path& path) override {
    step("Removing", path);
    Files::remove(path);
    disk_.removed(path);
  }
  void syncFolder(const std::filesystem::path& path) override {
    step("Syncing the folder", path);
    disk_.folderSynced(path);
  }

 private:
  void step(const char* doing, const std::filesystem::path& path) {
    if (const int error = disk_.step(); error != 0)
      errors::throwSystemError(doing + (" " + path.string()), error);
  }

  FaultyDisk& disk_;
};

}  // namespace parallel::scheduler::store::testing
