#include "toolbox/JobClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <vector>

#include "platform/spf/inprocess/connectInProcess.h"
#include "scheduler/calls/ReplyWriter.h"
#include "scheduler/calls/RequestReader.h"
#include "transport/streams/FunctionalByteSink.h"

namespace parallel::toolbox {
namespace {

using agent::spf::core::ServerCall;
using agent::spf::core::Service;
using scheduler::ReplyWriter;
using scheduler::RequestReader;
using testing::ElementsAre;
using testing::HasSubstr;

zksmessages::ResultPayload payloadOf(const google::protobuf::Message& message) {
  zksmessages::ResultPayload payload;
  payload.mutable_result()->set_type_url("type.googleapis.com/" + message.GetDescriptor()->full_name());
  payload.mutable_result()->set_value(message.SerializeAsString());
  return payload;
}

void writeBytes(spf::transport::ByteSink& sink, const std::string& bytes) {
  sink.write(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size());
}

// What is handed to a typed call arrives as the method's request, and what the method answers is its result. `Request` is
// the message that the handler reads; it answers with `reply` and then these items.
template <class Request>
Request serve(const std::string& method, const google::protobuf::Message& reply,
              const std::function<void(const JobClient&)>& action, const std::vector<std::string>& files = {},
              const std::vector<std::string>& plains = {}) {
  Request seen;
  const auto service = std::make_shared<Service>();
  service->add(method, [&](ServerCall& call) {
    RequestReader request(call.request(), method);
    request.expectItems(1);
    request.readMessage(seen, {});
    request.expectEnd();
    ReplyWriter writer(call.reply(), static_cast<std::int32_t>(1 + files.size() + plains.size()));
    writer.writeMessage(payloadOf(reply));
    for (const std::string& file : files)
      writer.writeItem([&](spf::transport::ByteSink& sink) { writeBytes(sink, file); });
    for (const std::string& plain : plains)
      writer.writePlain(plain.size(), [&](spf::transport::ByteSink& sink) { writeBytes(sink, plain); });
    writer.finish();
  });
  const Connection connection(agent::spf::inprocess::connectInProcess(service), "the test's service");
  action(JobClient(connection));
  return seen;
}

TEST(JobClient, SubmitSendsTheWholeDescriptionAndGivesTheJob) {
  zksmessages::SubmitJobRequest request;
  request.set_key("a-key");
  request.mutable_job()->set_name("fit");
  request.mutable_job()->set_priority(-3);
  auto& array = *request.mutable_job()->add_arrays();
  array.set_count(1'000'000);
  array.set_first_index(-5);
  array.set_index_step(2);
  array.mutable_command()->add_argv("fit");
  array.mutable_command()->add_argv("{index}");
  (*array.mutable_command()->mutable_environment())["A"] = "1";
  array.mutable_command()->mutable_limits()->mutable_wall_time()->set_seconds(60);
  auto& input = *array.mutable_command()->add_inputs();
  input.set_name("data");
  input.mutable_content()->set_sha256(std::string(32, '\xE3'));
  input.mutable_content()->set_content(std::string("\0\xFF bytes", 8));
  input.mutable_content()->set_nbytes(8);
  input.set_executable(true);
  array.mutable_needs()->set_cores(2);
  (*array.mutable_needs()->mutable_named())["gpu"] = 1;
  array.mutable_retries()->mutable_worker_lost()->set_limit(0);
  array.mutable_retries()->add_exit_codes(75);
  array.add_dependencies()->set_job(6);
  array.set_deaths_allowed(0);
  zksmessages::SubmitJobReply reply;
  reply.set_job(7);
  reply.add_missing_blobs(std::string(32, '\x01'));
  zksmessages::SubmitJobReply got;
  const auto seen = serve<zksmessages::SubmitJobRequest>("submitJob", reply,
                                                         [&](const JobClient& jobs) { got = jobs.submitJob(request); });
  EXPECT_EQ(seen.SerializeAsString(), request.SerializeAsString());
  EXPECT_EQ(got.SerializeAsString(), reply.SerializeAsString());
}

TEST(JobClient, EachCallSendsItsRequestToItsMethodAndGivesItsAnswer) {
  zksmessages::JobChangedReply changed;
  changed.set_version(12);
  const std::map<std::string, std::function<zksmessages::JobChangedReply(const JobClient&)>> ofJob = {
      {"closeJob", [](const JobClient& jobs) { return jobs.closeJob(7); }},
      {"hold", [](const JobClient& jobs) { return jobs.hold(7); }},
      {"release", [](const JobClient& jobs) { return jobs.release(7); }},
  };
  for (const auto& [method, action] : ofJob) {
    const auto seen = serve<zksmessages::JobRequest>(
        method, changed,
        [&call = action, &name = method](const JobClient& jobs) { EXPECT_EQ(call(jobs).version(), 12U) << name; });
    EXPECT_EQ(seen.job(), 7U) << method;
  }
  EXPECT_EQ(
      serve<zksmessages::JobRequest>("deleteJob", changed, [](const JobClient& jobs) { jobs.deleteJob(9); }).job(), 9U);

  zksmessages::DescribeJobReply description;
  description.mutable_summary()->set_name("fit");
  serve<zksmessages::JobRequest>("describeJob", description,
                                 [](const JobClient& jobs) { EXPECT_EQ(jobs.describeJob(7).summary().name(), "fit"); });

  zksmessages::ListWorkersReply workers;
  workers.add_workers()->mutable_since_heard()->set_seconds(3);
  serve<zksmessages::ListWorkersRequest>("listWorkers", workers, [](const JobClient& jobs) {
    EXPECT_EQ(jobs.listWorkers().workers(0).since_heard().seconds(), 3);
  });

  zksmessages::DescribeServiceReply service;
  service.set_host("node1");
  serve<zksmessages::DescribeServiceRequest>(
      "describeService", service, [](const JobClient& jobs) { EXPECT_EQ(jobs.describeService().host(), "node1"); });

  zksmessages::DrainWorkerReply drained;
  drained.set_attempts(4);
  EXPECT_EQ(serve<zksmessages::DrainWorkerRequest>(
                "drainWorker", drained, [](const JobClient& jobs) { EXPECT_EQ(jobs.drainWorker(2).attempts(), 4U); })
                .worker(),
            2U);
}

template <class Request, class Answer>
void expectPassesBoth(const std::string& method, const Request& request, const Answer& answer,
                      Answer (JobClient::*call)(const Request&) const) {
  Answer got;
  const auto seen = serve<Request>(method, answer, [&](const JobClient& jobs) { got = (jobs.*call)(request); });
  EXPECT_EQ(seen.SerializeAsString(), request.SerializeAsString()) << method;
  EXPECT_EQ(got.SerializeAsString(), answer.SerializeAsString()) << method;
}

TEST(JobClient, RequestsAndAnswersOfTheOtherMethodsPassAsTheyAre) {
  zksmessages::ExtendJobRequest extend;
  extend.set_first_task(4);
  zksmessages::ExtendJobReply extended;
  extended.set_next_task(9);
  expectPassesBoth("extendJob", extend, extended, &JobClient::extendJob);

  zksmessages::ListJobsRequest list;
  list.set_before(8);
  zksmessages::ListJobsReply listed;
  listed.add_jobs()->mutable_counts()->set_running(3);
  listed.mutable_jobs(0)->set_ended(1'700'000'000'000);
  expectPassesBoth("listJobs", list, listed, &JobClient::listJobs);

  zksmessages::ListTasksRequest tasks;
  tasks.add_states(zksmessages::TASK_STATE_FAILED);
  zksmessages::ListTasksReply listedTasks;
  listedTasks.add_tasks()->mutable_ending()->set_reason(zksmessages::Ending::REASON_SIGNAL);
  listedTasks.set_next_task(0);
  expectPassesBoth("listTasks", tasks, listedTasks, &JobClient::listTasks);

  zksmessages::WaitForChangeRequest wait;
  wait.mutable_wait()->set_seconds(30);
  zksmessages::WaitForChangeReply waited;
  waited.mutable_summary()->set_version(5);
  expectPassesBoth("waitForChange", wait, waited, &JobClient::waitForChange);

  zksmessages::CancelRequest cancel;
  cancel.add_tasks()->set_last(3);
  zksmessages::CancelReply cancelled;
  cancelled.add_running()->mutable_attempt()->set_task(3);
  expectPassesBoth("cancel", cancel, cancelled, &JobClient::cancel);

  zksmessages::RetryRequest retry;
  retry.set_key("k");
  zksmessages::RetryReply retried;
  retried.set_round(2);
  expectPassesBoth("retry", retry, retried, &JobClient::retry);

  zksmessages::SetPriorityRequest priority;
  priority.set_priority(-1);
  zksmessages::JobChangedReply changed;
  changed.set_version(3);
  expectPassesBoth("setPriority", priority, changed, &JobClient::setPriority);

  zksmessages::PruneRequest prune;
  prune.set_ended_before(99);
  zksmessages::PruneReply pruned;
  pruned.add_jobs(1);
  expectPassesBoth("prune", prune, pruned, &JobClient::prune);
}

TEST(JobClient, OutputsComeWithTheirFilesInOrder) {
  zksmessages::FetchOutputsReply reply;
  auto& first = *reply.add_tasks();
  first.add_files()->set_name("a");
  first.add_files()->set_name("b");
  auto& second = *reply.add_tasks();
  second.set_task(1);
  second.add_files()->set_name("c");
  reply.set_next_task(2);
  zksmessages::FetchOutputsRequest request;
  request.set_job(7);
  request.set_last_task(9);
  const auto seen = serve<zksmessages::FetchOutputsRequest>(
      "fetchOutputs", reply,
      [&](const JobClient& jobs) {
        JobOutputs outputs = jobs.fetchOutputs(request);
        EXPECT_EQ(outputs.tasks.SerializeAsString(), reply.SerializeAsString());
        std::vector<std::string> files(3);
        for (std::string& file : files) {
          spf::transport::FunctionalByteSink sink(
              [&](const std::byte* data, std::size_t n) { file.append(reinterpret_cast<const char*>(data), n); });
          outputs.files.takeBytes(sink);
        }
        EXPECT_THAT(files, ElementsAre("one", "", "three"));
      },
      {"one", "", "three"});
  EXPECT_EQ(seen.last_task(), 9U);
}

TEST(JobClient, OutputsWithAnotherNumberOfFilesAreMalformed) {
  zksmessages::FetchOutputsReply reply;
  reply.add_tasks()->add_files()->set_name("a");
  serve<zksmessages::FetchOutputsRequest>("fetchOutputs", reply, [&](const JobClient& jobs) {
    try {
      jobs.fetchOutputs({});
      ADD_FAILURE() << "no error";
    } catch (const std::exception& error) {
      EXPECT_THAT(error.what(), HasSubstr("malformed"));
    }
  });
}

TEST(JobClient, OutputReadComesWithItsPlace) {
  zksmessages::ReadOutputReply reply;
  reply.set_attempt(2);
  reply.set_next_offset(14);
  reply.set_ended(true);
  zksmessages::ReadOutputRequest request;
  request.set_offset(10);
  request.set_stream(zksmessages::OutputFile::STREAM_STANDARD_ERROR);
  const auto seen = serve<zksmessages::ReadOutputRequest>("readOutput", reply,
                                                          [&](const JobClient& jobs) {
                                                            const OutputPiece piece = jobs.readOutput(request);
                                                            EXPECT_EQ(piece.place.next_offset(), 14U);
                                                            EXPECT_TRUE(piece.place.ended());
                                                            EXPECT_EQ(piece.bytes, "\xFF me");
                                                          },
                                                          {}, {"\xFF me"});
  EXPECT_EQ(seen.SerializeAsString(), request.SerializeAsString());
}

TEST(JobClient, AnotherMessageThanTheMethodsIsMalformed) {
  serve<zksmessages::JobRequest>("hold", zksmessages::PruneReply(), [](const JobClient& jobs) {
    try {
      jobs.hold(7);
      ADD_FAILURE() << "no error";
    } catch (const std::exception& error) {
      EXPECT_THAT(error.what(), HasSubstr("JobChangedReply"));
    }
  });
}

}  // namespace
}  // namespace parallel::toolbox
