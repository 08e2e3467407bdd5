// The names of what a ledger keeps, and the states that a task, an attempt and a worker may have.
#pragma once

#include <array>
#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>

namespace parallel::scheduler::ledger {

// Given by the ledger, from 1 on, and never twice.
enum class JobId : std::uint64_t {};
enum class WorkerId : std::uint64_t {};

// Tasks are numbered within their job, from 0 on. A job's arrays follow one another without a gap.
using TaskNumber = std::uint64_t;

// One run of a task. Numbers grow over the whole ledger and none comes twice; 0 is no attempt.
using AttemptNumber = std::uint64_t;

struct AttemptKey {
  JobId job{};
  TaskNumber task = 0;
  AttemptNumber number = 0;

  auto operator<=>(const AttemptKey&) const = default;
};

enum class TaskState : std::uint8_t {
  waiting,    // for other tasks
  ready,      // for a worker, or for the end of its delay
  granted,    // given to a worker, which has not said yet that it runs
  running,    //
  succeeded,  // the first of the states in which a task has ended
  failed,     //
  cancelled,  //
  skipped,    // a task that it waited for did not succeed
};
inline constexpr std::size_t kTaskStateCount = 8;

constexpr bool hasEnded(TaskState state) {
  return state >= TaskState::succeeded;
}

// How many tasks are in each state.
using TaskCounts = std::array<std::uint64_t, kTaskStateCount>;

enum class AttemptState : std::uint8_t {
  granted,
  started,
  lapsed,  // its worker is unreachable: it may deliver until a successor is granted
  ended,
};

enum class WorkerState : std::uint8_t {
  active,
  unreachable,  // its lease lapsed
  gone,         // in the books for their history only
};

// What ended an attempt, or a task.
enum class EndReason : std::uint8_t {
  none,
  success,
  exitCode,        // Ending::code is the exit code
  signal,          // Ending::code is the signal's number
  outOfMemory,     //
  timeLimit,       //
  notStarted,      // the worker could not start the command
  workerLost,      //
  tookWorkerDown,  // several workers were lost while each of them ran this task alone
  cancelled,       //
  dependency,      // a task that it waited for did not succeed
  superseded,      // an attempt only: it lapsed, and a successor was granted
  handedBack,      // an attempt only: its worker gave it back, not done
};
inline constexpr std::size_t kEndReasonCount = 13;

struct Ending {
  EndReason reason = EndReason::none;
  std::int32_t code = 0;

  bool operator==(const Ending&) const = default;
};

// What a client sent, in short; two of equal digest are the same. Opaque here.
using Digest = std::string;

// Units of time only: the ledger reads no clock, and each event says when it came in.
using Duration = std::chrono::nanoseconds;
using WallTime = std::chrono::sys_time<std::chrono::milliseconds>;

// When an event came in, by both of the service's clocks.
struct Moment {
  Duration running{};  // the monotonic clock, from any origin; for leases and delays
  WallTime wall{};     // for the books, and for what is kept until a day
};

}  // namespace parallel::scheduler::ledger
