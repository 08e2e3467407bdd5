// The names of a struct's fields, each with its position. Names are added, never changed or taken away.
// Ownership: structs share a table that does not change any more; who adds a name does so in a table of its own.
// Threads:   a table that does not change may be read by any number of threads.
#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

class qxFieldNames {
 public:
  static constexpr std::size_t kNoField = static_cast<std::size_t>(-1);

  qxFieldNames() = default;
  // `BadFieldName` when one is empty, not UTF-8 or there twice.
  explicit qxFieldNames(std::span<const std::string> names);

  const std::vector<std::string>& all() const noexcept { return names_; }
  std::size_t size() const noexcept { return names_.size(); }
  std::size_t find(std::string_view name) const;
  // The name must be good and new. Nothing is changed when it throws.
  void add(std::string name);

 private:
  void indexNewNames();

  struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const noexcept { return std::hash<std::string_view>()(name); }
  };

  std::vector<std::string> names_;
  // Where each name stands; kept only for many fields, where searching would take long.
  std::unordered_map<std::string, std::size_t, NameHash, std::equal_to<>> index_;
};

namespace qx_detail {

void checkFieldName(std::string_view name);

}  // namespace qx_detail
