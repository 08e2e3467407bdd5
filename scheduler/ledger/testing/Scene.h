// A ledger with its books, and workers that do as they are told: the words in which its tests are written.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "scheduler/ledger/Books.h"
#include "scheduler/ledger/Ledger.h"
#include "scheduler/ledger/testing/words.h"

namespace parallel::scheduler::ledger::testing {

// After each event the books hold what the ledger has in memory.
class Scene {
 public:
  // --- jobs ---
  JobId submit(const ArraySpec& array) { return submit(std::vector{array}); }
  JobId submit(std::vector<ArraySpec> arrays) {
    SubmitJob event;
    event.arrays = std::move(arrays);
    return submit(event);
  }
  JobId submit(SubmitJob event) {
    if (event.key.empty())
      event.key = "job " + std::to_string(++keys_);
    return keep(ledger_->submitJob(event, now_)).answer().job;
  }

  // --- workers ---
  WorkerId join(Resources resources = {8, 1 << 30, {}}) {
    Join event;
    event.key = "worker " + std::to_string(++keys_);
    event.resources = resources;
    const WorkerId worker = keep(ledger_->join(event, now_)).answer().worker;
    room_[worker] = std::move(resources);
    return worker;
  }
  // From now on its takes name that room.
  void giveRoom(WorkerId worker, Resources room) { room_[worker] = std::move(room); }
  Taken take(WorkerId worker, std::uint32_t limit = 1) {
    ++sequence_[worker];
    return repeatTake(worker, limit);
  }
  Taken repeatTake(WorkerId worker, std::uint32_t limit = 1) {
    const Taken taken = keep(ledger_->take(takeOf(worker, limit), now_)).answer();
    for (const Grant& grant : taken.grants)
      held_[worker].emplace(grant.attempt, false);
    drop(worker, taken.stop);
    return taken;
  }
  // One grant, which there must be.
  AttemptKey takeOne(WorkerId worker) {
    const Taken taken = take(worker);
    EXPECT_EQ(taken.grants.size(), 1U);
    return taken.grants.empty() ? AttemptKey{} : taken.grants[0].attempt;
  }
  // The answer is lost on its way.
  void takeInVain(WorkerId worker, std::uint32_t limit = 1) {
    ++sequence_[worker];
    keep(ledger_->take(takeOf(worker, limit), now_));
  }
  // Says that it runs.
  void start(WorkerId worker, const AttemptKey& attempt) {
    held_[worker][attempt] = true;
    renew(worker);
  }
  AttemptKey takeAndStart(WorkerId worker) {
    const AttemptKey attempt = takeOne(worker);
    start(worker, attempt);
    return attempt;
  }
  Renewed renew(WorkerId worker) {
    Renewed renewed = keep(ledger_->renew({worker, heldBy(worker)}, now_)).answer();
    drop(worker, renewed.stop);
    return renewed;
  }
  Verdict finish(WorkerId worker, const AttemptKey& attempt, Ending ending = kSuccess) {
    const Verdict verdict = finishInVain(worker, attempt, ending);
    held_[worker].erase(attempt);
    return verdict;
  }
  Verdict finishInVain(WorkerId worker, const AttemptKey& attempt, Ending ending = kSuccess) {
    return keep(ledger_->finish({worker, {{attempt, ending, "output"}}}, now_)).answer().verdicts.at(0);
  }
  // A task from the grant to its end.
  AttemptKey run(WorkerId worker, Ending ending = kSuccess) {
    const AttemptKey attempt = takeOne(worker);
    EXPECT_TRUE(finish(worker, attempt, ending).isAccepted);
    return attempt;
  }
  void lose(WorkerId worker, LossCause cause = LossCause::unexplained) {
    keep(ledger_->workerLost(worker, cause, now_));
    held_.erase(worker);
  }

  // --- time ---
  // Passes in seconds, each with its tick; these workers are heard of.
  void pass(Duration time, const std::vector<WorkerId>& heard = {}) {
    for (const Duration end = now_.running + time; now_.running < end;) {
      now_.running += std::chrono::seconds(1);
      now_.wall += std::chrono::seconds(1);
      for (const WorkerId worker : heard)
        keep(ledger_->renew({worker, heldBy(worker)}, now_));
      keep(ledger_->tick(now_));
    }
  }
  void lapse(WorkerId worker, const std::vector<WorkerId>& heard = {}) {
    pass(std::chrono::seconds(61), heard);
    EXPECT_NE(stateOf(worker), WorkerState::active);
  }
  // The service dies, and another one begins.
  void restart() {
    ledger_ = std::make_unique<Ledger>(books_, books_.kept(), now_);
    expectMemoryIsKept();
  }

  // --- what there is ---
  TaskState stateOf(JobId job, TaskNumber task) const {
    if (const auto row = books_.tables().tasks.find({job, task}); row != books_.tables().tasks.end())
      return row->second.state;
    const auto range = books_.tables().ranges.lower_bound({job, task});
    return range->second.state;
  }
  const TaskRecord& task(JobId job, TaskNumber number) const { return books_.tables().tasks.at({job, number}); }
  const AttemptRecord& attempt(const AttemptKey& key) const { return books_.tables().attempts.at(key); }
  WorkerState stateOf(WorkerId worker) const { return books_.tables().workers.at(worker).state; }
  std::uint64_t count(JobId job, TaskState state) const {
    return ledger_->progress(job)->counts.at(static_cast<std::size_t>(state));
  }
  Ledger& ledger() { return *ledger_; }
  const Books& books() const { return books_; }
  Moment now() const { return now_; }
  std::uint64_t sequenceOf(WorkerId worker) { return sequence_[worker]; }

  template <class Answer>
  Decision<Answer> keep(Decision<Answer> decision) {
    EXPECT_TRUE(!decision.isRefused() || decision.changes.empty());
    books_.apply(decision.changes);
    expectMemoryIsKept();
    return decision;
  }

  std::vector<HeldAttempt> heldBy(WorkerId worker) const {
    std::vector<HeldAttempt> held;
    if (const auto place = held_.find(worker); place != held_.end()) {
      for (const auto& [attempt, isStarted] : place->second)
        held.push_back({attempt, isStarted});
    }
    return held;
  }

  // What a take of this worker offers: a core less for each attempt that it has.
  Resources roomOf(WorkerId worker) const {
    Resources room = room_.at(worker);
    room.cores -= std::min(room.cores, static_cast<std::uint32_t>(heldBy(worker).size()));
    return room;
  }

 private:
  Take takeOf(WorkerId worker, std::uint32_t limit) {
    return {worker, sequence_[worker], heldBy(worker), roomOf(worker), limit};
  }
  void drop(WorkerId worker, const std::vector<AttemptKey>& attempts) {
    for (const AttemptKey& attempt : attempts)
      held_[worker].erase(attempt);
  }
  void expectMemoryIsKept() const { EXPECT_TRUE(ledger_->memory() == withoutDetails(books_.kept())); }

  Books books_;
  Moment now_{std::chrono::hours(1), {}};
  std::unique_ptr<Ledger> ledger_ = std::make_unique<Ledger>(books_, Kept{}, now_);
  int keys_ = 0;
  std::map<WorkerId, Resources> room_;
  std::map<WorkerId, std::uint64_t> sequence_;
  std::map<WorkerId, std::map<AttemptKey, bool>> held_;
};

}  // namespace parallel::scheduler::ledger::testing
