// A prepared SQL statement: bound in the order of its parameters, read in the order of its columns.
//
//     Statement find(database, "SELECT name, size FROM files WHERE owner = ? AND day >= ?");
//     for (find.bind(owner).bind(day); find.step();) {
//       const std::string name = find.text();
//       const std::uint64_t size = find.number();
//     }
//
// A whole number of 64 bits without a sign is kept as the number with a sign that has the same bits.
// Threads and errors: those of its Database, which must outlive it.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "scheduler/store/sqlite/Database.h"

struct sqlite3_stmt;

namespace parallel::scheduler::store {

class Statement {
 public:
  Statement(Database& database, std::string_view sql);

  // The next parameter. Text and bytes must stay where they are until the statement has been reset.
  template <class Number>
  requires(std::is_integral_v<Number> || std::is_enum_v<Number>) Statement& bind(Number number) {
    return bindNumber(static_cast<std::int64_t>(number));
  }
  Statement& bind(const std::string& text);
  Statement& bind(std::string&& text) = delete;
  Statement& bindBytes(std::string_view bytes);
  Statement& bindNull();

  // True when there is a row. At the end the statement is reset.
  bool step();
  // To its end, for statements without rows.
  void run();
  // Ready to be bound anew.
  void reset() noexcept;

  // The next column of the row.
  std::uint64_t number() { return static_cast<std::uint64_t>(signedNumber()); }
  template <class Number>
  Number as() {
    return static_cast<Number>(signedNumber());
  }
  std::int64_t signedNumber();
  std::string text();
  std::string bytes() { return text(); }
  // Whether the next column is null; it is passed over then.
  bool skipNull();

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const noexcept;
  };

  Statement& bindNumber(std::int64_t number);

  Database& database_;
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
  int parameter_ = 0;
  int column_ = 0;
};

}  // namespace parallel::scheduler::store
