// One connection to an SQLite database: the few things that the store does with it. SQLite's header is included in this
// folder only.
//
// Threads: one at a time for a connection with its statements and transactions.
// Errors:  parallel::store::DatabaseDamaged, DatabaseFull or DatabaseFailed, with SQLite's own words and its name of the
//          error. Whatever failed has not happened, except for a commit: whether that has, only a new connection can tell.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

struct sqlite3;

namespace parallel::scheduler::store {

class Database {
 public:
  struct Options {
    bool isNew = false;         // made if it is not there
    const char* vfs = nullptr;  // SQLite's name of a file system; null: the usual one
  };

  Database(const std::filesystem::path& path, const Options& options);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  const std::filesystem::path& path() const noexcept { return path_; }
  // One or several statements whose rows are of no interest.
  void run(const std::string& sql);
  // The first column of the only row.
  std::int64_t number(const std::string& sql);
  std::string text(const std::string& sql);
  // Rows changed by the last statement.
  std::int64_t changedRows() const noexcept;

  // Throws what an SQLite code means, if it is an error.
  void check(int code, const char* doing) const;

 private:
  friend class Statement;
  struct Close {
    void operator()(sqlite3* connection) const noexcept;
  };

  std::filesystem::path path_;
  std::unique_ptr<sqlite3, Close> connection_;
};

// All or nothing. Rolled back unless it was committed.
class Transaction {
 public:
  explicit Transaction(Database& database);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void commit();

 private:
  Database& database_;
  bool isOpen_ = true;
};

}  // namespace parallel::scheduler::store
