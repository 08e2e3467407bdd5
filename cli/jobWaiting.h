// Waiting for a job's end, with what there is to see of it meanwhile.
#pragma once

#include <cstdint>

#include "cli/JobSession.h"
#include "platform/zksmessages/jobs.pb.h"

namespace zks {

// The job as it is now.
parallel::zksmessages::JobSummary lookAtJob(JobSession& session, std::uint64_t job);

// Returns once the job has ended. Shows its progress on a terminal.
parallel::zksmessages::JobSummary waitForEnd(JobSession& session, std::uint64_t job);

// Says how to come back to a job that goes on without zks. Before an interrupt passes on.
void sayThatItGoesOn(std::uint64_t job) noexcept;

// "Job 7 (fit) failed: 100 tasks: 97 succeeded, 3 failed" and, on standard error, why some of them did.
void tellHowItEnded(JobSession& session, const parallel::zksmessages::JobSummary& job);

}  // namespace zks
