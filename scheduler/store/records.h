// Each record of a ledger as the columns of its table: bound and read in the order of schema.cpp.
#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "scheduler/ledger/records.h"
#include "scheduler/store/sqlite/Statement.h"

namespace parallel::scheduler::store {

// A row with the texts that are bound: they must stay until the statement has run.
class BoundRow {
 public:
  explicit BoundRow(Statement& statement) : statement_(statement) {}
  BoundRow(const BoundRow&) = delete;
  BoundRow& operator=(const BoundRow&) = delete;

  void add(const ledger::Counters& counters);
  void add(const ledger::KeyRecord& key);
  void add(const ledger::JobRecord& job);
  void add(const ledger::JobProgress& progress);
  void add(const ledger::RoundRecord& round);
  void add(const ledger::ArrayRecord& array);
  void add(const ledger::RangeRecord& range);
  void add(const ledger::TaskRecord& task);
  void add(const ledger::AttemptRecord& attempt);
  void add(const ledger::WorkerRecord& worker);

  void run() { statement_.run(); }

 private:
  Statement& pack(std::string bytes);

  static constexpr std::size_t kMostPacked = 4;
  Statement& statement_;
  std::array<std::string, kMostPacked> packed_;
  std::size_t packedCount_ = 0;
};

// The row at which the statement stands. BadNumbers for one that cannot be read.
void read(Statement& row, ledger::Counters& counters);
void read(Statement& row, ledger::KeyRecord& key);
void read(Statement& row, ledger::JobRecord& job);
void read(Statement& row, ledger::JobProgress& progress);
void read(Statement& row, ledger::RoundRecord& round);
void read(Statement& row, ledger::ArrayRecord& array);
void read(Statement& row, ledger::RangeRecord& range);
void read(Statement& row, ledger::TaskRecord& task);
void read(Statement& row, ledger::AttemptRecord& attempt);
void read(Statement& row, ledger::WorkerRecord& worker);

}  // namespace parallel::scheduler::store
