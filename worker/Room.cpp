#include "worker/Room.h"

#include <algorithm>

namespace parallel::worker {

using zksmessages::Resources;

bool covers(const Resources& room, const Resources& needs) {
  return room.cores() >= needs.cores() && room.memory_bytes() >= needs.memory_bytes() &&
         std::all_of(needs.named().begin(), needs.named().end(), [&](const auto& need) {
           const auto found = room.named().find(need.first);
           return need.second == 0 || (found != room.named().end() && found->second >= need.second);
         });
}

void add(Resources& sum, const Resources& more) {
  sum.set_cores(sum.cores() + more.cores());
  sum.set_memory_bytes(sum.memory_bytes() + more.memory_bytes());
  for (const auto& [name, amount] : more.named())
    (*sum.mutable_named())[name] += amount;
}

void subtract(Resources& from, const Resources& less) {
  from.set_cores(from.cores() - std::min(from.cores(), less.cores()));
  from.set_memory_bytes(from.memory_bytes() - std::min(from.memory_bytes(), less.memory_bytes()));
  for (const auto& [name, amount] : less.named()) {
    std::uint64_t& left = (*from.mutable_named())[name];
    left -= std::min<std::uint64_t>(left, amount);
  }
}

Resources times(const Resources& resources, double factor) {
  Resources result;
  result.set_cores(static_cast<std::uint32_t>(resources.cores() * factor));
  result.set_memory_bytes(static_cast<std::uint64_t>(static_cast<double>(resources.memory_bytes()) * factor));
  for (const auto& [name, amount] : resources.named())
    (*result.mutable_named())[name] = static_cast<std::uint64_t>(static_cast<double>(amount) * factor);
  return result;
}

void WorkMeasure::ran(double seconds) {
  constexpr double kWeight = 0.2;
  average_ += kWeight * (seconds - average_);
}

std::chrono::milliseconds WorkMeasure::pauseBetweenResults() const {
  constexpr double kShort = 0.1;
  return std::chrono::milliseconds(average_ < kShort ? 15 : 0);
}

std::uint32_t WorkMeasure::attemptsAhead(std::uint32_t cores) const {
  constexpr double kMost = 500;
  constexpr double kShortest = 1e-4;
  const double each = kTarget / std::max(average_, kShortest) - 1;
  return static_cast<std::uint32_t>(std::clamp(each * cores, 0.0, kMost));
}

}  // namespace parallel::worker
