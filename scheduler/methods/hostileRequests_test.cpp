// What a peer may send that is no request: one identified error each, and the ledger is as it was.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <set>
#include <string>

#include "platform/errors/Exception.h"
#include "platform/errors/IException.h"
#include "platform/errors/catalogue.h"
#include "scheduler/methods/testing/RunningService.h"
#include "scheduler/methods/testing/WaitingCall.h"
#include "scheduler/testing/containers.h"

namespace parallel::scheduler::methods {
namespace {

using scheduler::testing::containerOf;
using scheduler::testing::requestOf;
using ::testing::AnyOf;
using testing::RunningService;
using ::testing::StartsWith;
using testing::WaitingCall;
using zksmessages::Ending;

class HostileRequests : public ::testing::Test {
 protected:
  HostileRequests() {
    zksmessages::SubmitJobRequest job;
    job.set_key("there");
    job.mutable_job()->add_arrays()->set_count(3);
    job.mutable_job()->mutable_arrays(0)->mutable_command()->add_argv("true");
    service_.jobs().submitJob(job);
    zksmessages::JoinRequest join;
    join.set_key("worker");
    join.mutable_resources()->set_cores(1);
    service_.workers().join(join);
  }

  ledger::Kept memory() {
    ledger::Kept kept;
    service_.methods().keeper().run([&](BookKeeper::Turn& turn) { kept = turn.ledger().memory(); });
    return kept;
  }

  // The identifier of the error that the method ends with; empty: none.
  std::string errorOf(const std::string& method, const std::string& request) {
    for (const auto& named : JobMethods::all()) {
      if (named.name != method)
        continue;
      WaitingCall call(request, method);
      try {
        (service_.methods().*named.method)(call);
        call.goOn();
        return "";
      } catch (const IException& failure) {
        return failure.identifier();
      } catch (const std::exception& failure) {
        return std::string("unidentified: ") + failure.what();
      }
    }
    return "no such method";
  }

  void expectRefused(const std::string& method, const std::string& request, const std::string& error) {
    const ledger::Kept before = memory();
    EXPECT_EQ(errorOf(method, request), "parallel:" + error) << method;
    EXPECT_EQ(memory(), before) << method;
  }

  RunningService service_;
};

// An empty blob, to be put.
std::string putRequest() {
  zksmessages::PutBlobRequest request;
  request.mutable_holder()->set_key("put");
  request.set_sha256(std::string(store::Digest::of("").bytes()));
  return request.SerializeAsString();
}

TEST_F(HostileRequests, NoMethodTakesWhatIsNoRequest) {
  for (const auto& named : JobMethods::all()) {
    const bool hasFile = std::string(named.name) == "putBlob";
    const auto items = [&](const std::string& description) {
      return hasFile ? containerOf({description, ""}) : containerOf({description});
    };
    expectRefused(named.name, "", "scheduler:MalformedRequest");
    expectRefused(named.name, containerOf({}), "scheduler:WrongItemCount");
    expectRefused(named.name, containerOf({"", "", ""}), "scheduler:WrongItemCount");
    expectRefused(named.name, items("\xFF\xFF\xFF"), "scheduler:UnreadableDescription");
    const std::string whole = items(hasFile ? putRequest() : "");
    for (std::size_t size = 0; size < whole.size(); ++size)
      expectRefused(named.name, whole.substr(0, size), "scheduler:MalformedRequest");
    expectRefused(named.name, whole + "x", "scheduler:MalformedRequest");
  }
}

TEST_F(HostileRequests, NoJobIsSubmittedThatCannotBeRun) {
  using zksmessages::SubmitJobRequest;
  using zksmessages::TaskArray;
  const auto withArray = [](const std::function<void(TaskArray&)>& change) {
    SubmitJobRequest request;
    request.set_key("new");
    TaskArray& array = *request.mutable_job()->add_arrays();
    array.set_count(2);
    array.mutable_command()->add_argv("true");
    change(array);
    return requestOf(request);
  };
  const std::string bad = "scheduler:BadJobField";
  expectRefused("submitJob", withArray([](TaskArray& array) { array.set_count(0); }), bad);
  expectRefused("submitJob", withArray([](TaskArray& array) { array.set_count(std::uint64_t{1} << 63U); }), bad);
  expectRefused("submitJob", withArray([](TaskArray& array) { array.clear_command(); }), bad);
  expectRefused("submitJob", withArray([](TaskArray& array) { array.set_deaths_allowed(0); }), bad);
  expectRefused("submitJob",
                withArray([](TaskArray& array) { array.set_first_index(std::numeric_limits<std::int64_t>::max()); }),
                bad);
  expectRefused("submitJob", withArray([](TaskArray& array) {
                  array.set_first_index(-1);
                  array.set_index_step(std::numeric_limits<std::int64_t>::min());
                }),
                bad);
  expectRefused("submitJob", withArray([](TaskArray& array) { array.mutable_lines()->set_content("one line"); }), bad);
  expectRefused("submitJob", withArray([](TaskArray& array) { array.mutable_lines()->set_sha256("short"); }), bad);
  expectRefused("submitJob",
                withArray([](TaskArray& array) { array.mutable_command()->add_inputs()->set_name("../up"); }), bad);
  expectRefused("submitJob", withArray([](TaskArray& array) { array.mutable_command()->add_inputs()->set_name("in"); }),
                bad);
  expectRefused("submitJob", withArray([](TaskArray& array) {
                  array.mutable_command()->mutable_standard_input()->set_content(std::string(70'000, 'x'));
                }),
                bad);
  expectRefused("submitJob", withArray([](TaskArray& array) {
                  array.mutable_command()->mutable_standard_input()->set_content("x");
                  array.mutable_command()->mutable_standard_input()->set_sha256(std::string(32, 'x'));
                }),
                bad);
  expectRefused("submitJob", withArray([](TaskArray& array) { array.mutable_command()->set_in_place_folder("here"); }),
                bad);
  expectRefused("submitJob", withArray([](TaskArray& array) {
                  array.mutable_retries()->mutable_signal()->mutable_first_delay()->set_seconds(-1);
                }),
                bad);
  expectRefused("submitJob", withArray([](TaskArray& array) {
                  array.add_dependencies()->set_kind(static_cast<zksmessages::Dependency::Kind>(77));
                }),
                bad);
  expectRefused("submitJob", withArray([](TaskArray& array) { (*array.mutable_needs()->mutable_named())[""] = 1; }),
                bad);
  expectRefused("submitJob", withArray([](TaskArray& array) { array.add_dependencies()->set_job(99); }),
                "scheduler:BadDependency");
  expectRefused("submitJob", withArray([](TaskArray& array) {
                  array.add_dependencies()->set_kind(zksmessages::Dependency::KIND_ONE_TASK);
                }),
                "scheduler:BadDependency");
  SubmitJobRequest request;
  expectRefused("submitJob", requestOf(request), "scheduler:BadRequestField");
  request.set_key(std::string(129, 'k'));
  expectRefused("submitJob", requestOf(request), "scheduler:BadRequestField");
  request.set_key("a b");
  expectRefused("submitJob", requestOf(request), "scheduler:BadRequestField");
  request.set_key("good");
  expectRefused("submitJob", requestOf(request), bad);
}

TEST_F(HostileRequests, WhatIsNotThereIsNamedByItsError) {
  const std::string unknown = "scheduler:UnknownJob";
  zksmessages::JobRequest job;
  job.set_job(std::numeric_limits<std::uint64_t>::max());
  for (const char* method : {"closeJob", "hold", "release", "deleteJob", "describeJob"})
    expectRefused(method, requestOf(job), unknown);
  for (const char* method : {"setPriority", "cancel", "listTasks", "waitForChange", "fetchOutputs", "readOutput"})
    expectRefused(method, containerOf({""}),
                  method == std::string("readOutput") ? "scheduler:BadRequestField" : unknown);
  job.set_job(1);
  expectRefused("deleteJob", requestOf(job), "scheduler:JobUnfinished");
  expectRefused("drainWorker", containerOf({""}), "scheduler:UnknownWorker");
  expectRefused("take", containerOf({""}), "scheduler:UnknownWorker");
  expectRefused("renew", containerOf({""}), "scheduler:UnknownWorker");
  expectRefused("join", containerOf({""}), "scheduler:BadRequestField");
  expectRefused("retry", containerOf({""}), "scheduler:BadRequestField");
  expectRefused("findBlobs", containerOf({""}), "scheduler:BadRequestField");
  expectRefused("putBlob", containerOf({"", ""}), "scheduler:BadRequestField");
  expectRefused("getBlob", containerOf({""}), "scheduler:BadRequestField");
  expectRefused("extendJob", containerOf({""}), "scheduler:BadJobField");
  zksmessages::GetBlobRequest blob;
  blob.set_sha256(std::string(32, 'x'));
  expectRefused("getBlob", requestOf(blob), "store:NoSuchBlob");
}

TEST_F(HostileRequests, SpansStatesAndNumbersAreChecked) {
  const std::string bad = "scheduler:BadRequestField";
  zksmessages::CancelRequest cancel;
  cancel.set_job(1);
  cancel.add_tasks()->set_first(1);
  expectRefused("cancel", requestOf(cancel), bad);
  cancel.mutable_tasks(0)->set_last(std::numeric_limits<std::uint64_t>::max());
  expectRefused("cancel", requestOf(cancel), bad);
  zksmessages::ListTasksRequest list;
  list.set_job(1);
  list.add_states(static_cast<zksmessages::TaskState>(99));
  expectRefused("listTasks", requestOf(list), bad);
  list.clear_states();
  list.set_limit(10'001);
  expectRefused("listTasks", requestOf(list), bad);
  zksmessages::ListJobsRequest jobs;
  jobs.set_limit(1001);
  expectRefused("listJobs", requestOf(jobs), bad);
  zksmessages::FetchOutputsRequest fetch;
  fetch.set_job(1);
  fetch.set_first_task(1);
  expectRefused("fetchOutputs", requestOf(fetch), bad);
  zksmessages::ReadOutputRequest read;
  read.set_job(1);
  read.set_stream(zksmessages::OutputFile::STREAM_STANDARD_OUTPUT);
  expectRefused("readOutput", requestOf(read), "scheduler:UnknownAttempt");
  read.set_nbytes((1U << 20U) + 1);
  expectRefused("readOutput", requestOf(read), bad);
}

TEST_F(HostileRequests, ResultsThatCannotBeAreRefused) {
  using zksmessages::AttemptResult;
  const std::string bad = "scheduler:BadRequestField";
  const auto finishOf = [](const std::function<void(AttemptResult&)>& change) {
    zksmessages::FinishRequest request;
    request.set_worker(1);
    AttemptResult& result = *request.add_results();
    result.mutable_ending()->set_reason(Ending::REASON_SUCCESS);
    change(result);
    return requestOf(request);
  };
  // 257 has the lowest byte of a success.
  expectRefused("finish", finishOf([](AttemptResult& result) {
                  result.mutable_ending()->set_reason(static_cast<Ending::Reason>(257));
                }),
                bad);
  expectRefused("finish", finishOf([](AttemptResult& result) { result.add_files()->set_name("/etc/passwd"); }), bad);
  expectRefused("finish", finishOf([](AttemptResult& result) { result.add_files()->set_name("no blob"); }), bad);
  expectRefused("finish", finishOf([](AttemptResult& result) {
                  for (int i = 0; i < 2; ++i) {
                    result.add_files()->set_name("twice");
                    result.mutable_files(i)->mutable_content()->set_content("x");
                  }
                }),
                bad);
  expectRefused("finish", finishOf([](AttemptResult& result) { result.set_error_end(std::string(5000, 'x')); }), bad);

  // Of no attempt: no error, and nothing else.
  const ledger::Kept before = memory();
  EXPECT_EQ(errorOf("finish", finishOf([](AttemptResult& result) { result.mutable_attempt()->set_job(1); })), "");
  EXPECT_EQ(memory(), before);
}

TEST_F(HostileRequests, NobodyKeepsBlobsForAnAttemptThatIsNotThere) {
  zksmessages::FindBlobsRequest find;
  find.mutable_holder()->mutable_attempt()->set_job(1);
  find.add_sha256(std::string(32, 'x'));
  expectRefused("findBlobs", requestOf(find), "scheduler:UnknownAttempt");
  find.mutable_holder()->set_job(99);
  expectRefused("findBlobs", requestOf(find), "scheduler:UnknownJob");
  find.mutable_holder()->set_key("a/b");
  expectRefused("findBlobs", requestOf(find), "scheduler:BadRequestField");
  EXPECT_TRUE(service_.methods().keeper().store().blobs().holders("attempt ").empty());
}

TEST_F(HostileRequests, EachMethodIsForItsCallersOnly) {
  using agent::spf::core::PeerRole;
  const std::set<std::string> forWorkers{"findBlobs", "putBlob", "getBlob", "join", "take", "renew", "finish"};
  const auto refused = [&](const JobMethods::NamedMethod& named, PeerRole role) {
    WaitingCall call("", named.name);
    call.setRole(role);
    try {
      service_.methods().serve(named, call);
    } catch (const IException& failure) {
      return failure.identifier() == "parallel:scheduler:NotAllowed";
    }
    return false;
  };
  for (const auto& named : JobMethods::all()) {
    EXPECT_TRUE(refused(named, PeerRole::none)) << named.name;
    EXPECT_FALSE(refused(named, PeerRole::client)) << named.name;
    EXPECT_EQ(refused(named, PeerRole::worker), !forWorkers.contains(named.name)) << named.name;
  }
}

TEST_F(HostileRequests, WorkersKeepBlobsForTheirAttemptsOnly) {
  zksmessages::FindBlobsRequest find;
  find.mutable_holder()->set_key("new");
  WaitingCall call(requestOf(find), "findBlobs");
  call.setRole(agent::spf::core::PeerRole::worker);
  EXPECT_THROW(service_.methods().findBlobs(call), Exception<parallel::scheduler::NotAllowed>);
}

TEST(JobBytes, SubmitJobIsAsTheDocumentationSays) {
  RunningService service;
  const std::string request = scheduler::testing::raw(
      "\x00\x00\x00\x00\x01\x00\x12\x0A\x02k1\x12\x0C\x2A\x0A\x08\x02\x12\x06\x0A\x04true\xFF\xFF");
  const std::string reply = scheduler::testing::raw("\x00\x00\x00\x00\x01\x00\x3F\x0A\x3D\x0A\x37") +
                            "type.googleapis.com/parallel.zksmessages.SubmitJobReply" +
                            scheduler::testing::raw("\x12\x02\x08\x01\xFF\xFF");
  WaitingCall call(request, "submitJob");
  service.methods().submitJob(call);
  call.goOn();
  EXPECT_EQ(call.replyText(), reply);
  EXPECT_EQ(call.replySize(), static_cast<long>(reply.size()));
}

}  // namespace
}  // namespace parallel::scheduler::methods
