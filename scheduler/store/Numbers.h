// Several numbers and texts in one column: each number in 7-bit groups, the lowest first, the top bit set in all but the
// last; each text as the number of its bytes, then these. A sign is folded into the lowest bit.
//
// Errors: BadNumbers for bytes that are no such list, or a shorter one.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

namespace parallel::scheduler::store {

class BadNumbers : public std::runtime_error {
 public:
  BadNumbers() : std::runtime_error("a column of several numbers is cut short or too long") {}
};

class NumbersWriter {
 public:
  NumbersWriter& add(std::uint64_t number);
  NumbersWriter& addSigned(std::int64_t number);
  NumbersWriter& add(std::string_view text) = delete;
  NumbersWriter& addText(std::string_view text);
  const std::string& bytes() const noexcept { return bytes_; }

 private:
  std::string bytes_;
};

// Borrows the bytes.
class NumbersReader {
 public:
  explicit NumbersReader(std::string_view bytes) : rest_(bytes) {}

  std::uint64_t number();
  template <class Number>
  Number as() {
    return static_cast<Number>(number());
  }
  std::int64_t signedNumber();
  std::string text();
  // That there is nothing more.
  void expectEnd() const;

 private:
  std::string_view rest_;
};

}  // namespace parallel::scheduler::store
