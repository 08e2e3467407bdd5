// How many descriptors the daemon's own process may have open.
#pragma once

#include <cstddef>
#include <cstdint>

namespace parallel::scheduler {

struct DescriptorLimit {
  std::uint64_t usual = 0;  // what was set before: what programs that were started here expect
  std::uint64_t now = 0;
};

// Raises the soft limit to the hard one: the soft limit protects programs that count descriptors in a set of bits, and
// this is none of them.
DescriptorLimit raiseDescriptorLimit() noexcept;

// How many connections leave descriptors for tasks and files: half of them, and 1000 at most.
std::size_t connectionsWithin(std::uint64_t descriptors) noexcept;

}  // namespace parallel::scheduler
