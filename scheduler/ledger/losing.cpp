// Workers that leave, or that nothing is heard of any more; and time that passes.
#include <utility>

#include "scheduler/ledger/Ledger.h"
#include "scheduler/ledger/internal/Step.h"

namespace parallel::scheduler::ledger {

Decision<Drained> Ledger::drainWorker(WorkerId id, Moment now) {
  Worker* worker = state_->findWorker(id);
  if (!worker)
    return {Refusal::unknownWorker};
  Step step(*state_, now);
  if (!std::exchange(worker->record.draining, true))
    step.write(*worker);
  return {Drained{worker->attempts.size()}, std::move(step).finish()};
}

Decision<Lost> Ledger::workerLost(WorkerId id, LossCause cause, Moment now) {
  Worker* worker = state_->findWorker(id);
  if (!worker)
    return {Refusal::unknownWorker};
  Step step(*state_, now);
  const auto attempts = worker->attempts;
  for (const AttemptNumber number : attempts)
    step.lose(state_->attempts.at(number), cause);
  step.remove(*worker);
  return {Lost{{id}}, std::move(step).finish()};
}

Decision<Lost> Ledger::tick(Moment now) {
  Step step(*state_, now);
  Lost answer{state_->leases.takeLapsed(state_->leaseClock.time())};
  for (const WorkerId id : answer.workers)
    step.lapse(*state_->findWorker(id));
  for (const TaskKey& task : state_->delays.takeEnded(now.running))
    step.endDelay(task);
  return {std::move(answer), std::move(step).finish()};
}

}  // namespace parallel::scheduler::ledger
