// Typed calls of the methods for clients of jobs that the service keeps. The methods: docs/methods.md.
//
// The trap: an answer may be lost after the service has done what was asked. submitJob, extendJob and retry name a key or
// a first task, so that the same request again does nothing twice; the others may simply be repeated.
//
// Ownership: borrows the connection.
// Threads:   one call at a time per client; clients are cheap.
// Errors:    those of SchedulerClient, as its form of errors has them. What the service refuses carries the service's words.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/zksmessages/jobs.pb.h"
#include "toolbox/SchedulerClient.h"

namespace parallel::toolbox {

// Some tasks' outputs. Their files are still to be taken, in the order of `tasks`; dropping them ends the transfer.
struct JobOutputs {
  zksmessages::FetchOutputsReply tasks;
  Reply files;
};

// A piece of what an attempt has written.
struct OutputPiece {
  zksmessages::ReadOutputReply place;
  std::string bytes;
};

class JobClient {
 public:
  // `progress` may be null; it then goes unwatched.
  explicit JobClient(const Connection& connection, std::shared_ptr<TransferProgress> progress = nullptr,
                     ErrorForm errors = ErrorForm::OneMessage);

  zksmessages::SubmitJobReply submitJob(const zksmessages::SubmitJobRequest& request) const;
  zksmessages::ExtendJobReply extendJob(const zksmessages::ExtendJobRequest& request) const;
  zksmessages::JobChangedReply closeJob(std::uint64_t job) const;

  zksmessages::ListJobsReply listJobs(const zksmessages::ListJobsRequest& request) const;
  zksmessages::DescribeJobReply describeJob(std::uint64_t job) const;
  zksmessages::ListTasksReply listTasks(const zksmessages::ListTasksRequest& request) const;
  zksmessages::WaitForChangeReply waitForChange(const zksmessages::WaitForChangeRequest& request) const;

  // `MalformedReply` when it has not as many items as files.
  JobOutputs fetchOutputs(const zksmessages::FetchOutputsRequest& request) const;
  OutputPiece readOutput(const zksmessages::ReadOutputRequest& request) const;

  zksmessages::CancelReply cancel(const zksmessages::CancelRequest& request) const;
  zksmessages::RetryReply retry(const zksmessages::RetryRequest& request) const;
  zksmessages::JobChangedReply hold(std::uint64_t job) const;
  zksmessages::JobChangedReply release(std::uint64_t job) const;
  zksmessages::JobChangedReply setPriority(const zksmessages::SetPriorityRequest& request) const;
  void deleteJob(std::uint64_t job) const;
  zksmessages::PruneReply prune(const zksmessages::PruneRequest& request) const;

  zksmessages::ListWorkersReply listWorkers() const;
  zksmessages::DrainWorkerReply drainWorker(std::uint64_t worker) const;
  zksmessages::DescribeServiceReply describeService() const;

 private:
  template <class Result>
  Result ask(const std::string& method, const google::protobuf::Message& request) const;
  template <class Result>
  Result askOfJob(const std::string& method, std::uint64_t job) const;

  SchedulerClient client_;
};

}  // namespace parallel::toolbox
