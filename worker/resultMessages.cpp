#include "worker/resultMessages.h"

#include <google/protobuf/util/time_util.h>

#include <chrono>

namespace parallel::worker {

using execution::ProcessLimits;
using execution::ProcessResult;
using google::protobuf::util::TimeUtil;
using std::chrono::nanoseconds;
using zksmessages::Ending;
using zksmessages::TesselTaskExecutionInfo;
using Outcome = ProcessResult::Outcome;

namespace {

google::protobuf::Duration toMessage(nanoseconds time) {
  return TimeUtil::NanosecondsToDuration(time.count());
}

// A limit that no counter of nanoseconds holds is none.
std::optional<nanoseconds> timeOf(const google::protobuf::Duration& time) {
  constexpr std::int64_t kMostSeconds = std::int64_t{100} * 365 * 24 * 3600;
  if (time.seconds() > kMostSeconds)
    return std::nullopt;
  return nanoseconds(TimeUtil::DurationToNanoseconds(time));
}

}  // namespace

ProcessLimits limitsOf(const zksmessages::TaskLimits& limits) {
  ProcessLimits result;
  if (limits.has_wall_time())
    result.wallTime = timeOf(limits.wall_time());
  if (limits.has_cpu_time())
    result.cpuTime = timeOf(limits.cpu_time());
  if (limits.has_memory_bytes())
    result.memoryBytes = limits.memory_bytes();
  if (limits.has_file_bytes())
    result.fileBytes = limits.file_bytes();
  if (limits.has_open_files())
    result.openFiles = limits.open_files();
  return result;
}

Ending endingOf(const ProcessResult& result) {
  Ending ending;
  switch (result.outcome) {
    case Outcome::Exited:
      ending.set_reason(result.exitStatus == 0 ? Ending::REASON_SUCCESS : Ending::REASON_EXIT_CODE);
      ending.set_code(result.exitStatus);
      break;
    case Outcome::Signalled:
      ending.set_reason(Ending::REASON_SIGNAL);
      ending.set_code(result.signal);
      break;
    case Outcome::TimedOut:
      ending.set_reason(Ending::REASON_TIME_LIMIT);
      break;
    case Outcome::NotStarted:
      ending.set_reason(Ending::REASON_NOT_STARTED);
      break;
    case Outcome::Stopped:
      ending.set_reason(Ending::REASON_HANDED_BACK);
      break;
  }
  return ending;
}

TesselTaskExecutionInfo infoOf(const ProcessResult& result) {
  TesselTaskExecutionInfo info;
  switch (result.outcome) {
    case Outcome::Exited:
      info.set_outcome(TesselTaskExecutionInfo::OUTCOME_EXITED);
      info.set_exit_status(result.exitStatus);
      break;
    case Outcome::Signalled:
      info.set_outcome(TesselTaskExecutionInfo::OUTCOME_SIGNALLED);
      info.set_signal(result.signal);
      break;
    case Outcome::TimedOut:
      info.set_outcome(TesselTaskExecutionInfo::OUTCOME_TIMED_OUT);
      break;
    case Outcome::NotStarted:
      info.set_outcome(TesselTaskExecutionInfo::OUTCOME_NOT_STARTED);
      break;
    case Outcome::Stopped:
      break;
  }
  info.set_message(result.message);
  *info.mutable_wall_time() = toMessage(result.wallTime);
  *info.mutable_user_time() = toMessage(result.userTime);
  *info.mutable_system_time() = toMessage(result.systemTime);
  info.set_peak_memory_bytes(result.peakMemoryBytes);
  return info;
}

}  // namespace parallel::worker
