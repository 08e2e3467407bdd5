#include "scheduler/store/sqlite/Database.h"

#include <sqlite3.h>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/systemError.h"
#include "scheduler/store/sqlite/Statement.h"

namespace parallel::scheduler::store {

namespace {

// "disk I/O error (1034: Input/output error)"
std::string reasonOf(sqlite3* connection, int code) {
  std::string reason = sqlite3_errstr(code);
  if (connection != nullptr && sqlite3_extended_errcode(connection) == code)
    reason = sqlite3_errmsg(connection);
  reason += " (SQLite's code " + std::to_string(code);
  if (const int error = connection != nullptr ? sqlite3_system_errno(connection) : 0; error != 0)
    reason += ": " + errors::systemErrorText(error);
  return reason + ")";
}

}  // namespace

Database::Database(const std::filesystem::path& path, const Options& options) : path_(path) {
  sqlite3* connection = nullptr;
  const int flags =
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE | (options.isNew ? SQLITE_OPEN_CREATE : 0);
  const int code = sqlite3_open_v2(path.c_str(), &connection, flags, options.vfs);
  connection_.reset(connection);
  check(code, "opening it");
}

Database::~Database() = default;

void Database::Close::operator()(sqlite3* connection) const noexcept {
  sqlite3_close_v2(connection);
}

void Database::check(int code, const char* doing) const {
  switch (code & 0xFF) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
      return;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      throw Exception<parallel::store::DatabaseDamaged>(path_.string(), doing, reasonOf(connection_.get(), code));
    case SQLITE_FULL:
      throw Exception<parallel::store::DatabaseFull>(path_.string(), doing, reasonOf(connection_.get(), code));
    default:
      throw Exception<parallel::store::DatabaseFailed>(path_.string(), doing, reasonOf(connection_.get(), code));
  }
}

void Database::run(const std::string& sql) {
  check(sqlite3_exec(connection_.get(), sql.c_str(), nullptr, nullptr, nullptr), sql.c_str());
}

std::int64_t Database::number(const std::string& sql) {
  Statement statement(*this, sql);
  statement.step();
  return statement.signedNumber();
}

std::string Database::text(const std::string& sql) {
  Statement statement(*this, sql);
  statement.step();
  return statement.text();
}

std::int64_t Database::changedRows() const noexcept {
  return sqlite3_changes64(connection_.get());
}

Transaction::Transaction(Database& database) : database_(database) {
  database_.run("BEGIN IMMEDIATE");
}

Transaction::~Transaction() {
  if (!isOpen_)
    return;
  try {
    database_.run("ROLLBACK");
  } catch (const std::exception&) {
    // SQLite has rolled back by itself, or the connection is of no more use: then the next one rolls back.
  }
}

void Transaction::commit() {
  database_.run("COMMIT");
  isOpen_ = false;
}

}  // namespace parallel::scheduler::store
