// So much of each thing that tasks need and workers have.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace parallel::scheduler::ledger {

// What a worker has or has left, or what a task needs. What is not named is not there, and not needed.
struct Resources {
  std::uint32_t cores = 0;
  std::uint64_t memoryBytes = 0;
  std::map<std::string, std::uint64_t> named{};  // "gpu" to 2

  bool covers(const Resources& needs) const;
  // Of resources that cover the needs.
  void subtract(const Resources& needs);
  // Of each thing the lesser amount.
  Resources upTo(const Resources& most) const;

  auto operator<=>(const Resources&) const = default;
};

}  // namespace parallel::scheduler::ledger
