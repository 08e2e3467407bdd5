// SQLite's files on a FaultyDisk: a file system for SQLite around its usual one.
#pragma once

#include "scheduler/store/testing/FaultyDisk.h"

namespace parallel::scheduler::store::testing {

// Registered while it lives, under `name()`; one at a time.
class FaultyVfs {
 public:
  // Ownership: borrows the disk.
  explicit FaultyVfs(FaultyDisk& disk);
  ~FaultyVfs();
  FaultyVfs(const FaultyVfs&) = delete;
  FaultyVfs& operator=(const FaultyVfs&) = delete;

  static const char* name() { return "faulty"; }
};

}  // namespace parallel::scheduler::store::testing
