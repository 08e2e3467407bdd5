#include "scheduler/ledger/internal/ReadyQueue.h"

#include <tuple>

namespace parallel::scheduler::ledger {

bool Turn::operator<(const Turn& other) const {
  return std::tie(other.priority, coresInUse, job) < std::tie(priority, other.coresInUse, other.job);
}

void ReadyQueue::insert(const Demand& demand, const Turn& turn) {
  queues_[demand].insert(turn);
}

void ReadyQueue::erase(const Demand& demand, const Turn& turn) {
  const auto queue = queues_.find(demand);
  if (queue == queues_.end())
    return;
  queue->second.erase(turn);
  if (queue->second.empty())
    queues_.erase(queue);
}

namespace {

// The first turn among the demands that fit.
template <class Queues, class Fits>
std::optional<ReadyQueue::Choice> firstTurn(const Queues& queues, Fits fits) {
  const typename Queues::value_type* best = nullptr;
  for (const auto& queue : queues) {
    if (fits(queue.first) && (!best || *queue.second.begin() < *best->second.begin()))
      best = &queue;
  }
  return best ? std::optional(ReadyQueue::Choice{best->first, *best->second.begin()}) : std::nullopt;
}

}  // namespace

std::optional<ReadyQueue::Choice> ReadyQueue::next(const Resources& room, bool alone) const {
  return firstTurn(queues_,
                   [&](const Demand& demand) { return (alone || !demand.alone) && room.covers(demand.needs); });
}

std::optional<ReadyQueue::Choice> ReadyQueue::nextAlone(const Resources& worker) const {
  return firstTurn(queues_, [&](const Demand& demand) { return demand.alone && worker.covers(demand.needs); });
}

}  // namespace parallel::scheduler::ledger
