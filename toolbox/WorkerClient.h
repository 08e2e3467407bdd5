// Typed calls of the methods for workers. What they mean: docs/ledger.md; what they carry: docs/methods.md.
//
// Ownership: borrows the client.
// Threads:   one call at a time.
// Errors:    as SchedulerClient's.
#pragma once

#include "platform/zksmessages/jobs.pb.h"
#include "toolbox/SchedulerClient.h"
#include "toolbox/typedCall.h"

namespace parallel::toolbox {

class WorkerClient {
 public:
  explicit WorkerClient(const SchedulerClient& client) : client_(client) {}

  zksmessages::JoinReply join(const zksmessages::JoinRequest& request) const {
    return typedCall<zksmessages::JoinReply>(client_, "join", request);
  }
  // Answers when there is something to do, or when request.wait() is over.
  zksmessages::TakeReply take(const zksmessages::TakeRequest& request) const {
    return typedCall<zksmessages::TakeReply>(client_, "take", request);
  }
  zksmessages::RenewReply renew(const zksmessages::RenewRequest& request) const {
    return typedCall<zksmessages::RenewReply>(client_, "renew", request);
  }
  zksmessages::FinishReply finish(const zksmessages::FinishRequest& request) const {
    return typedCall<zksmessages::FinishReply>(client_, "finish", request);
  }

 private:
  const SchedulerClient& client_;
};

}  // namespace parallel::toolbox
