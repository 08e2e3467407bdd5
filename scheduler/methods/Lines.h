// The lines of a text, by number. A line feed ends a line; the last one may be without.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace parallel::scheduler::methods {

std::uint64_t countLines(std::string_view text);

// Of a text of fewer than 2^32 bytes.
class Lines {
 public:
  explicit Lines(std::string text);

  std::uint64_t count() const noexcept { return ends_.size(); }
  // Without its line feed.
  std::string_view at(std::uint64_t number) const;
  std::uint64_t nbytes() const noexcept { return text_.size() + ends_.size() * sizeof(std::uint32_t); }

 private:
  std::string text_;
  std::vector<std::uint32_t> ends_;
};

}  // namespace parallel::scheduler::methods
