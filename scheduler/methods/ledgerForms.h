// What the ledger and the messages say in common, one into the other. What a message may hold is not checked here.
#pragma once

#include "platform/zksmessages/jobs.pb.h"
#include "scheduler/ledger/clientEvents.h"
#include "scheduler/ledger/records.h"
#include "scheduler/ledger/workerEvents.h"

namespace parallel::scheduler::methods {

ledger::Resources fromMessage(const zksmessages::Resources& message);
zksmessages::Resources toMessage(const ledger::Resources& resources);

ledger::AttemptKey fromMessage(const zksmessages::AttemptKey& message);
zksmessages::AttemptKey toMessage(const ledger::AttemptKey& key);

ledger::Ending fromMessage(const zksmessages::Ending& message);
zksmessages::Ending toMessage(ledger::Ending ending);

zksmessages::TaskState toMessage(ledger::TaskState state);
zksmessages::TaskCounts toMessage(const ledger::TaskCounts& counts);

zksmessages::JobSummary summaryOf(const ledger::JobRecord& job, const ledger::JobProgress& progress);

// What the ledger is told of an array. `details` stays empty.
ledger::ArraySpec specOf(const zksmessages::TaskArray& array);

}  // namespace parallel::scheduler::methods
