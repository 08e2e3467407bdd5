// The cores of this process, shared out to attempts: each core to one of them, as long as there are enough.
#pragma once

#include <cstddef>
#include <set>
#include <vector>

namespace parallel::worker {

// Threads: one at a time.
class CoreSet {
 public:
  explicit CoreSet(const std::vector<int>& cores) : free_(cores.begin(), cores.end()) {}

  // So many of them; none when there are not so many free ones.
  std::vector<int> take(std::size_t count) {
    if (count == 0 || count > free_.size())
      return {};
    std::vector<int> taken(free_.begin(), std::next(free_.begin(), static_cast<std::ptrdiff_t>(count)));
    for (const int core : taken)
      free_.erase(core);
    return taken;
  }
  void giveBack(const std::vector<int>& cores) { free_.insert(cores.begin(), cores.end()); }

 private:
  std::set<int> free_;
};

// The calling thread, and what it starts, run on these cores from now on; none: on all of `otherwise`.
void pinThisThread(const std::vector<int>& cores, const std::vector<int>& otherwise) noexcept;

}  // namespace parallel::worker
