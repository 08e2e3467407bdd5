// What attempts came to: as workers hand it in, and as it is kept.
#pragma once

#include <string>
#include <vector>

#include "platform/spf/core/Service.h"
#include "platform/zksmessages/jobs.pb.h"
#include "scheduler/ledger/workerEvents.h"
#include "scheduler/store/Store.h"

namespace parallel::scheduler::methods {

// One result of a request to finish, on its way into the books.
class DeliveredResult {
 public:
  // Contents of at most so many bytes together stay in the row of their attempt; others become blobs.
  static constexpr std::size_t kMostInRow = std::size_t{16} << 10;

  // `BadRequestField`. `field` is what the result is called.
  DeliveredResult(const agent::spf::core::ServerCall& call, const std::string& field,
                  zksmessages::AttemptResult result);

  // Puts contents that are not few into the store, and sees which blobs are missing. Waits for the store.
  void keepBlobs(store::Store& store, store::WallTime now);

  const ledger::AttemptKey& attempt() const noexcept { return attempt_; }
  ledger::Ending ending() const noexcept { return ending_; }
  // False when nothing can be decided yet.
  bool isReady() const noexcept { return !undecided_.later() && undecided_.missing_blobs_size() == 0; }
  const zksmessages::FinishReply::Verdict& undecided() const noexcept { return undecided_; }
  // Of the blobs that it names.
  const std::vector<store::Digest>& digests() const noexcept { return digests_; }
  std::string details() const { return result_.SerializeAsString(); }

 private:
  zksmessages::AttemptResult result_;
  const ledger::AttemptKey attempt_;
  const ledger::Ending ending_;
  std::vector<std::string> contents_;
  std::vector<store::Digest> digests_;
  zksmessages::FinishReply::Verdict undecided_;
};

// As it is kept.
zksmessages::AttemptResult resultOf(const ledger::AttemptRecord& attempt);

// The end of what it wrote to its standard error, in lines for people.
std::string errorEndOf(const zksmessages::AttemptResult& result);

}  // namespace parallel::scheduler::methods
