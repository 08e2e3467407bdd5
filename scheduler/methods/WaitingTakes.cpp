#include "scheduler/methods/WaitingTakes.h"

#include <utility>

namespace parallel::scheduler::methods {

using ledger::Taken;
using ledger::WorkerId;

void WaitingTakes::add(BookKeeper::Turn& turn, Waiting waiting, Alarms::Clock::time_point deadline) {
  const WorkerId worker = waiting.event.worker;
  drop(turn, worker);
  const std::uint64_t number = ++count_;
  const Alarms::Id alarm = keeper_.alarms().set(deadline, [this, worker, number] {
    keeper_.run([&](BookKeeper::Turn& later) { expire(later, worker, number); });
  });
  entries_.emplace(worker, Entry{std::move(waiting), alarm, number});
}

void WaitingTakes::drop(BookKeeper::Turn& turn, WorkerId worker) {
  const auto found = entries_.find(worker);
  if (found == entries_.end())
    return;
  keeper_.alarms().take(found->second.alarm);
  answer(turn, found->second.waiting, {});
  entries_.erase(found);
}

void WaitingTakes::serve(BookKeeper::Turn& turn) {
  if (entries_.empty() || !mayGrant_())
    return;
  for (auto next = entries_.begin(); next != entries_.end();) {
    const auto entry = next++;
    const Waiting& waiting = entry->second.waiting;
    if (!*waiting.isGivenUp) {
      if (!turn.ledger().hasWorkFor(entry->first, waiting.event.room))
        continue;
      auto outcome = turn.take(turn.ledger().take(waiting.event, turn.now()));
      if (auto* taken = std::get_if<Taken>(&outcome))
        answer(turn, waiting, std::move(*taken));
      else
        answer(turn, waiting, {});
    }
    keeper_.alarms().take(entry->second.alarm);
    entries_.erase(entry);
  }
}

void WaitingTakes::expire(BookKeeper::Turn& turn, WorkerId worker, std::uint64_t number) {
  const auto found = entries_.find(worker);
  if (found == entries_.end() || found->second.number != number)
    return;
  answer(turn, found->second.waiting, {});
  entries_.erase(found);
}

void WaitingTakes::answer(BookKeeper::Turn& turn, const Waiting& waiting, Taken taken) {
  turn.tell([answer = waiting.answer, taken = std::move(taken)] { answer(taken); });
}

}  // namespace parallel::scheduler::methods
