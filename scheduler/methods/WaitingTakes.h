// Takes of workers for which there was no work: they wait, and are granted what comes.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>

#include "scheduler/methods/Alarms.h"
#include "scheduler/methods/BookKeeper.h"

namespace parallel::scheduler::methods {

// Threads: in turns of the keeper only. What waits is let go at its time, which is a turn of its own.
class WaitingTakes {
 public:
  // Runs once what it is told is durable; nothing: the time is over, or the worker has sent another take.
  using Answer = std::function<void(const ledger::Taken&)>;

  struct Waiting {
    ledger::Take event{};
    // Set when nobody waits for the answer any more.
    std::shared_ptr<const std::atomic<bool>> isGivenUp{};
    Answer answer{};
  };

  // `mayGrant` says whether the store has room for results.
  WaitingTakes(BookKeeper& keeper, std::function<bool()> mayGrant) : keeper_(keeper), mayGrant_(std::move(mayGrant)) {}

  // In the place of the one that the worker had waiting.
  void add(BookKeeper::Turn& turn, Waiting waiting, Alarms::Clock::time_point deadline);
  // The worker has come back with another take.
  void drop(BookKeeper::Turn& turn, ledger::WorkerId worker);
  // Grants what there is by now.
  void serve(BookKeeper::Turn& turn);

 private:
  struct Entry {
    Waiting waiting;
    Alarms::Id alarm;
    std::uint64_t number = 0;
  };

  void expire(BookKeeper::Turn& turn, ledger::WorkerId worker, std::uint64_t number);
  static void answer(BookKeeper::Turn& turn, const Waiting& waiting, ledger::Taken taken);

  BookKeeper& keeper_;
  const std::function<bool()> mayGrant_;
  std::map<ledger::WorkerId, Entry> entries_;
  std::uint64_t count_ = 0;
};

}  // namespace parallel::scheduler::methods
