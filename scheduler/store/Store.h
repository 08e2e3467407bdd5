// All that a service keeps, in one folder: the books of its ledger and its blobs. Files, tables, guarantees: docs/store.md.
//
// Threads: any.
// Errors:  parallel::store::StoreInUse, StoreTooNew, StoreUnusable or DatabaseDamaged at the start; later those of its
//          parts. When `failed` has been called nothing is kept any more: end the process.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "scheduler/store/BlobStore.h"
#include "scheduler/store/Files.h"
#include "scheduler/store/GroupCommit.h"
#include "scheduler/store/LedgerStore.h"
#include "scheduler/store/Quota.h"
#include "scheduler/store/Reserve.h"
#include "scheduler/store/StoreLock.h"
#include "scheduler/store/sqlite/Database.h"

namespace parallel::scheduler::store {

struct StoreOptions {
  Quota::Limits quota{};
  bool isDurable = true;  // false: nothing is synced, for a store that goes with its session
  std::uint64_t reserveBytes = std::uint64_t{4} << 20;
  GroupCommit::Failed failed{};  // on a thread of the store; empty: nobody is told
  Files* files = nullptr;        // for tests; null: this machine's
  const char* vfs = nullptr;     // for tests: SQLite's file system
};

class Store {
 public:
  // Made, with mode 0700, if it is not there.
  explicit Store(const std::filesystem::path& folder, const StoreOptions& options = {});
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  LedgerStore& ledger() noexcept { return *ledger_; }
  BlobStore& blobs() noexcept { return *blobs_; }

  Room room() const { return quota_.room(); }
  std::string roomText() const { return quota_.text(); }

  // Regular work, every minute or so: collects blobs, gives freed room back to the disk, takes the reserve again.
  void tidy(WallTime now);
  // What is wrong with it; nothing if all is well. Reads everything.
  std::vector<std::string> check();
  // Writes a copy of the database that can be opened, as of one commit. The blobs are to be copied after it.
  void backUp(const std::filesystem::path& file);

 private:
  const std::filesystem::path folder_;
  Files& files_;
  std::unique_ptr<StoreLock> lock_;
  std::unique_ptr<Database> database_;
  Reserve reserve_;
  Quota quota_;
  std::unique_ptr<GroupCommit> commits_;
  std::unique_ptr<LedgerStore> ledger_;
  std::unique_ptr<BlobStore> blobs_;
};

}  // namespace parallel::scheduler::store
