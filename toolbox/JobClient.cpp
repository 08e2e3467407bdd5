#include "toolbox/JobClient.h"

#include <utility>

#include "toolbox/typedCall.h"

namespace parallel::toolbox {
namespace {

using zksmessages::JobRequest;

std::size_t countFiles(const zksmessages::FetchOutputsReply& outputs) {
  std::size_t count = 0;
  for (const zksmessages::TaskOutputs& task : outputs.tasks())
    count += static_cast<std::size_t>(task.files_size());
  return count;
}

std::string textOf(const tova::factory::qxArrayProxy& bytes) {
  return {static_cast<const char*>(qxGetData(bytes.get())), qxGetNumberOfElements(bytes.get())};
}

}  // namespace

JobClient::JobClient(const Connection& connection, std::shared_ptr<TransferProgress> progress, ErrorForm errors)
    : client_(connection, std::move(progress), errors) {}

template <class Result>
Result JobClient::ask(const std::string& method, const google::protobuf::Message& request) const {
  return typedCall<Result>(client_, method, request);
}

template <class Result>
Result JobClient::askOfJob(const std::string& method, std::uint64_t job) const {
  JobRequest request;
  request.set_job(job);
  return ask<Result>(method, request);
}

zksmessages::SubmitJobReply JobClient::submitJob(const zksmessages::SubmitJobRequest& request) const {
  return ask<zksmessages::SubmitJobReply>("submitJob", request);
}

zksmessages::ExtendJobReply JobClient::extendJob(const zksmessages::ExtendJobRequest& request) const {
  return ask<zksmessages::ExtendJobReply>("extendJob", request);
}

zksmessages::JobChangedReply JobClient::closeJob(std::uint64_t job) const {
  return askOfJob<zksmessages::JobChangedReply>("closeJob", job);
}

zksmessages::ListJobsReply JobClient::listJobs(const zksmessages::ListJobsRequest& request) const {
  return ask<zksmessages::ListJobsReply>("listJobs", request);
}

zksmessages::DescribeJobReply JobClient::describeJob(std::uint64_t job) const {
  return askOfJob<zksmessages::DescribeJobReply>("describeJob", job);
}

zksmessages::ListTasksReply JobClient::listTasks(const zksmessages::ListTasksRequest& request) const {
  return ask<zksmessages::ListTasksReply>("listTasks", request);
}

zksmessages::WaitForChangeReply JobClient::waitForChange(const zksmessages::WaitForChangeRequest& request) const {
  return ask<zksmessages::WaitForChangeReply>("waitForChange", request);
}

JobOutputs JobClient::fetchOutputs(const zksmessages::FetchOutputsRequest& request) const {
  Reply reply = client_.call("fetchOutputs", {packedItem(request)});
  zksmessages::FetchOutputsReply tasks;
  takeResult(reply, "fetchOutputs", tasks);
  reply.expectItems(1 + countFiles(tasks), "the tasks and each of their files");
  return {std::move(tasks), std::move(reply)};
}

OutputPiece JobClient::readOutput(const zksmessages::ReadOutputRequest& request) const {
  Reply reply = client_.call("readOutput", {packedItem(request)});
  reply.expectItems(2, "the place and the bytes");
  zksmessages::ReadOutputReply place;
  takeResult(reply, "readOutput", place);
  return {std::move(place), textOf(reply.takePlain())};
}

zksmessages::CancelReply JobClient::cancel(const zksmessages::CancelRequest& request) const {
  return ask<zksmessages::CancelReply>("cancel", request);
}

zksmessages::RetryReply JobClient::retry(const zksmessages::RetryRequest& request) const {
  return ask<zksmessages::RetryReply>("retry", request);
}

zksmessages::JobChangedReply JobClient::hold(std::uint64_t job) const {
  return askOfJob<zksmessages::JobChangedReply>("hold", job);
}

zksmessages::JobChangedReply JobClient::release(std::uint64_t job) const {
  return askOfJob<zksmessages::JobChangedReply>("release", job);
}

zksmessages::JobChangedReply JobClient::setPriority(const zksmessages::SetPriorityRequest& request) const {
  return ask<zksmessages::JobChangedReply>("setPriority", request);
}

void JobClient::deleteJob(std::uint64_t job) const {
  askOfJob<zksmessages::JobChangedReply>("deleteJob", job);
}

zksmessages::PruneReply JobClient::prune(const zksmessages::PruneRequest& request) const {
  return ask<zksmessages::PruneReply>("prune", request);
}

zksmessages::ListWorkersReply JobClient::listWorkers() const {
  return ask<zksmessages::ListWorkersReply>("listWorkers", zksmessages::ListWorkersRequest());
}

zksmessages::DrainWorkerReply JobClient::drainWorker(std::uint64_t worker) const {
  zksmessages::DrainWorkerRequest request;
  request.set_worker(worker);
  return ask<zksmessages::DrainWorkerReply>("drainWorker", request);
}

zksmessages::DescribeServiceReply JobClient::describeService() const {
  return ask<zksmessages::DescribeServiceReply>("describeService", zksmessages::DescribeServiceRequest());
}

}  // namespace parallel::toolbox
