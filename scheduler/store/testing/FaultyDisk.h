// A disk for tests that fails at a step of one's choosing, or loses its power there and then forgets, of what was not
// synced, as much as a seed says.
//
// Steps are the writes, syncs, renames and removals of the files that go through it: the store's own (FaultyFiles) and
// SQLite's (FaultyVfs). The files are real ones.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace parallel::scheduler::store::testing {

// Threads: any.
class FaultyDisk {
 public:
  enum class Fault {
    once,       // the step fails, those after it do not
    full,       // the step and all that follow find no room
    powerLoss,  // the step and all that follow fail, and forget() is to be called
  };

  explicit FaultyDisk(std::uint64_t seed = 0) : random_(seed) {}
  FaultyDisk(const FaultyDisk&) = delete;
  FaultyDisk& operator=(const FaultyDisk&) = delete;

  // From now on; steps count from 1.
  void failAt(std::uint64_t step, Fault fault);
  void neverFail();
  std::uint64_t steps() const;
  // Whether the step of the last failAt() has come.
  bool hasFailed() const;

  // What the next step comes to: 0, or an error number.
  int step();
  // What happened to a file; before and after it.
  void willChange(const std::filesystem::path& path);
  void written(const std::filesystem::path& path, std::uint64_t offset, std::string_view bytes);
  void truncated(const std::filesystem::path& path, std::uint64_t nbytes);
  void synced(const std::filesystem::path& path);
  void renamed(const std::filesystem::path& from, const std::filesystem::path& to);
  void removed(const std::filesystem::path& path);
  void folderSynced(const std::filesystem::path& folder);

  // After a loss of power, when nothing is open any more: puts the files into a state that the disk may have.
  void forget();

 private:
  struct Change {
    std::uint64_t offset = 0;
    std::optional<std::string> bytes;  // none: the file ends at the offset
  };
  struct File {
    std::optional<std::string> durable;  // none: the file is not durably there
    std::vector<Change> changes;
  };
  struct Rename {
    std::filesystem::path from;
    std::filesystem::path to;
  };

  bool chance() { return (random_() & 1) != 0; }

  mutable std::mutex mutex_;
  std::mt19937_64 random_;
  std::uint64_t steps_ = 0;
  std::uint64_t failAt_ = 0;
  Fault fault_ = Fault::once;
  std::map<std::filesystem::path, File> files_;
  std::vector<Rename> renames_;
};

}  // namespace parallel::scheduler::store::testing
