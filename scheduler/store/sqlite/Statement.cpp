#include "scheduler/store/sqlite/Statement.h"

#include <sqlite3.h>

namespace parallel::scheduler::store {

Statement::Statement(Database& database, std::string_view sql) : database_(database) {
  sqlite3_stmt* statement = nullptr;
  const int code = sqlite3_prepare_v3(database.connection_.get(), sql.data(), static_cast<int>(sql.size()),
                                      SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
  statement_.reset(statement);
  database.check(code, "preparing a statement");
}

void Statement::Finalize::operator()(sqlite3_stmt* statement) const noexcept {
  sqlite3_finalize(statement);
}

Statement& Statement::bindNumber(std::int64_t number) {
  database_.check(sqlite3_bind_int64(statement_.get(), ++parameter_, number), "binding a number");
  return *this;
}

Statement& Statement::bind(const std::string& text) {
  const int code =
      sqlite3_bind_text64(statement_.get(), ++parameter_, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
  database_.check(code, "binding a text");
  return *this;
}

Statement& Statement::bindBytes(std::string_view bytes) {
  const char* data = bytes.data() != nullptr ? bytes.data() : "";  // null would bind NULL
  database_.check(sqlite3_bind_blob64(statement_.get(), ++parameter_, data, bytes.size(), SQLITE_STATIC),
                  "binding bytes");
  return *this;
}

Statement& Statement::bindNull() {
  database_.check(sqlite3_bind_null(statement_.get(), ++parameter_), "binding nothing");
  return *this;
}

bool Statement::step() {
  column_ = 0;
  const int code = sqlite3_step(statement_.get());
  if (code == SQLITE_ROW)
    return true;
  struct Reset {
    Statement& statement;
    ~Reset() { statement.reset(); }
  };
  const Reset atEnd{*this};
  database_.check(code, sqlite3_sql(statement_.get()));
  return false;
}

void Statement::run() {
  while (step()) {
  }
}

void Statement::reset() noexcept {
  sqlite3_reset(statement_.get());
  sqlite3_clear_bindings(statement_.get());
  parameter_ = 0;
}

std::int64_t Statement::signedNumber() {
  return sqlite3_column_int64(statement_.get(), column_++);
}

std::string Statement::text() {
  const int column = column_++;
  const void* bytes = sqlite3_column_blob(statement_.get(), column);
  const auto nbytes = static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column));
  return bytes == nullptr ? std::string() : std::string(static_cast<const char*>(bytes), nbytes);
}

bool Statement::skipNull() {
  if (sqlite3_column_type(statement_.get(), column_) != SQLITE_NULL)
    return false;
  ++column_;
  return true;
}

}  // namespace parallel::scheduler::store
