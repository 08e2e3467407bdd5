// Why a ledger refuses an event. A refused event changes nothing.
#pragma once

#include <cstdint>
#include <variant>

#include "scheduler/ledger/Changes.h"

namespace parallel::scheduler::ledger {

enum class Refusal : std::uint8_t {
  keyConflict,        // the key stands for a job, or a round, of another content
  unknownJob,         //
  jobDeleted,         // the key stands for a job that was deleted
  jobClosed,          // it takes no more tasks
  extensionConflict,  // these tasks are there with another content, or do not follow the last one
  badArray,           // an array of no tasks, or more tasks than can be numbered
  badDependency,      // on a job or a task that is not there, or on a later task of the same job
  jobUnfinished,      // it cannot be deleted yet
  nothingToRetry,     //
  unknownTask,        //
  unknownWorker,      // it must join, again
  staleTake,          // a later one was answered already
};

// What an event led to: its answer, and what must be kept before the answer may be given.
template <class Answer>
struct Decision {
  std::variant<Answer, Refusal> outcome;
  Changes changes{};

  bool isRefused() const { return std::holds_alternative<Refusal>(outcome); }
  const Answer& answer() const { return std::get<Answer>(outcome); }
  Refusal refusal() const { return std::get<Refusal>(outcome); }
};

}  // namespace parallel::scheduler::ledger
