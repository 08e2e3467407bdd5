// Why a task waits, for people.
#pragma once

#include <string>

#include "scheduler/ledger/WaitReason.h"

namespace parallel::scheduler::methods {

// "for job 17 to succeed"
std::string waitReasonText(const ledger::WaitReason& reason);

}  // namespace parallel::scheduler::methods
