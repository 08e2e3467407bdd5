// How a process ran, as the messages say it, and its limits.
#pragma once

#include "execution/ProcessRunner.h"
#include "platform/zksmessages/jobs.pb.h"

namespace parallel::worker {

execution::ProcessLimits limitsOf(const zksmessages::TaskLimits& limits);

// Of one that was stopped: handed back.
zksmessages::Ending endingOf(const execution::ProcessResult& result);
zksmessages::TesselTaskExecutionInfo infoOf(const execution::ProcessResult& result);

}  // namespace parallel::worker
