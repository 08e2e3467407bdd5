// Who pins blobs, by the names that the store keeps.
#pragma once

#include <string>

#include "scheduler/ledger/names.h"
#include "scheduler/store/BlobStore.h"

namespace parallel::scheduler::methods {

inline constexpr const char* kKeyHolders = "key ";
inline constexpr const char* kAttemptHolders = "attempt ";

// A job that is about to be submitted.
inline store::Holder holderOfKey(const std::string& key) {
  return kKeyHolders + key;
}

inline store::Holder holderOfJob(ledger::JobId job) {
  return "job " + std::to_string(static_cast<std::uint64_t>(job));
}

// "attempt 17.3.1": job, task, number.
inline store::Holder holderOfAttempt(const ledger::AttemptKey& key) {
  return kAttemptHolders + std::to_string(static_cast<std::uint64_t>(key.job)) + "." + std::to_string(key.task) + "." +
         std::to_string(key.number);
}

}  // namespace parallel::scheduler::methods
