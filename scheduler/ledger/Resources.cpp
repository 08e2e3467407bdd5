#include "scheduler/ledger/Resources.h"

#include <algorithm>

namespace parallel::scheduler::ledger {

bool Resources::covers(const Resources& needs) const {
  const auto hasEnough = [this](const auto& need) {
    const auto& [name, amount] = need;
    const auto place = named.find(name);
    return amount == 0 || (place != named.end() && place->second >= amount);
  };
  return cores >= needs.cores && memoryBytes >= needs.memoryBytes &&
         std::all_of(needs.named.begin(), needs.named.end(), hasEnough);
}

void Resources::subtract(const Resources& needs) {
  cores -= needs.cores;
  memoryBytes -= needs.memoryBytes;
  for (const auto& [name, amount] : needs.named) {
    if (amount > 0)
      named.at(name) -= amount;
  }
}

Resources Resources::upTo(const Resources& most) const {
  Resources least{std::min(cores, most.cores), std::min(memoryBytes, most.memoryBytes), {}};
  for (const auto& [name, amount] : named) {
    if (const auto place = most.named.find(name); place != most.named.end())
      least.named[name] = std::min(amount, place->second);
  }
  return least;
}

}  // namespace parallel::scheduler::ledger
