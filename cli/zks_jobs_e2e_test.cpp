// The commands of kept jobs against a service of the test's own making: what they ask, and how they show the answers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "cli/testing/FakeJobService.h"
#include "cli/testing/ZksFixture.h"
#include "platform/digest/Sha256.h"

namespace zks {
namespace {

using namespace parallel::zksmessages;  // NOLINT(google-build-using-namespace)
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

JobSummary summaryOf(std::uint64_t job, const std::string& name) {
  JobSummary summary;
  summary.set_job(job);
  summary.set_name(name);
  summary.set_key("key-" + name);
  summary.set_submitted(1'795'352'709'123);
  summary.set_version(1);
  summary.set_round(1);
  return summary;
}

JobSummary succeeded(std::uint64_t job, const std::string& name, std::uint64_t tasks = 1) {
  JobSummary summary = summaryOf(job, name);
  summary.set_ended(1'795'352'719'000);
  summary.mutable_counts()->set_succeeded(tasks);
  return summary;
}

OutputFile outputOf(const std::string& name, const std::string& content,
                    OutputFile::Stream stream = OutputFile::STREAM_FILE) {
  OutputFile file;
  file.set_name(name);
  file.set_stream(stream);
  file.mutable_content()->set_nbytes(content.size());
  file.mutable_content()->set_sha256(std::string(parallel::digest::Digest::of(content).bytes()));
  return file;
}

class ZksJobs : public ZksFixture {
 protected:
  ZksJobs() { ::setenv("TZ", "UTC", 1); }

  void start() {
    service.start(path("s"));
    setAddress("unix:" + path("s"));
  }

  void knows(const JobSummary& job) {
    WaitForChangeReply reply;
    *reply.mutable_summary() = job;
    service.answer<WaitForChangeRequest>("waitForChange", reply);
  }

  void accepts(std::uint64_t job) {
    SubmitJobReply reply;
    reply.set_job(job);
    service.answer<SubmitJobRequest>("submitJob", reply);
  }

  FakeJobService service;
};

TEST_F(ZksJobs, SubmitDescribesTheJob) {
  accepts(7);
  knows(succeeded(7, "fit", 50));
  start();
  writeFile(path("data.csv"), "1,2\n");
  writeFile(path("in{x}"), "stdin");
  const auto outcome =
      zks({"submit",     "--name", "fit",      "--array",     "0-98:2%5", "--input",   "data.csv=in/{index}.csv",
           "--input",    "in{x}",  "--output", "out-{index}", "--cores",  "2",         "--memory",
           "1G",         "--time", "90s",      "--env",       "A={line}", "--retries", "3",
           "--priority", "4",      "--hold",   "--stdin",     "in{x}",    "--",        "fit",
           "{index}"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
  EXPECT_EQ(outcome.output,
            "Job 7 (fit): 50 tasks; \"zks wait 7\" waits for them, \"zks fetch 7\" brings the outputs\n");
  const auto requests = service.requests<SubmitJobRequest>("submitJob");
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests[0].key().size(), 32U);
  const JobDescription& job = requests[0].job();
  EXPECT_EQ(job.name(), "fit");
  EXPECT_EQ(job.priority(), 4);
  EXPECT_TRUE(job.held());
  ASSERT_EQ(job.arrays_size(), 1);
  const TaskArray& array = job.arrays(0);
  EXPECT_EQ(array.count(), 50U);
  EXPECT_EQ(array.first_index(), 0);
  EXPECT_EQ(array.index_step(), 2);
  EXPECT_EQ(array.at_once(), 5U);
  EXPECT_EQ(array.needs().cores(), 2U);
  EXPECT_EQ(array.needs().memory_bytes(), std::uint64_t{1} << 30U);
  EXPECT_EQ(array.retries().exit_code().limit(), 3U);
  EXPECT_EQ(array.retries().signal().limit(), 3U);
  EXPECT_FALSE(array.retries().has_out_of_memory() || array.retries().has_worker_lost());
  const TaskCommand& command = array.command();
  EXPECT_THAT(command.argv(), ElementsAre("fit", "{index}"));
  EXPECT_THAT(command.outputs(), ElementsAre("out-{index}"));
  EXPECT_EQ(command.limits().wall_time().seconds(), 90);
  ASSERT_EQ(command.inputs_size(), 2);
  EXPECT_EQ(command.inputs(0).name(), "in/{index}.csv");
  EXPECT_EQ(command.inputs(0).content().content(), "1,2\n");
  EXPECT_EQ(command.inputs(1).name(), "in{{x}");
  EXPECT_EQ(command.standard_input().content(), "stdin");
  EXPECT_EQ(command.environment().at("A"), "{line}");
  EXPECT_EQ(command.environment().count("PATH"), 1U);
  EXPECT_EQ(command.environment().count("TZ"), 1U);
}

TEST_F(ZksJobs, SubmitTakesThePassagesOfTheEnvironmentThatItIsTold) {
  ::setenv("ZKS_TEST_A", "a{b", 1);
  accepts(7);
  start();
  EXPECT_EQ(zks({"submit", "--quiet", "--", "p"}).output, "7\n");
  EXPECT_EQ(zks({"submit", "--quiet", "--env", "ZKS_TEST_A", "--", "p"}).output, "7\n");
  EXPECT_EQ(zks({"submit", "--quiet", "--env-all", "--", "p"}).output, "7\n");
  EXPECT_THAT(zks({"submit", "--env", "ZKS_TEST_NONE", "--", "p"}).error, HasSubstr("there is no such variable"));
  ::unsetenv("ZKS_TEST_A");
  const auto requests = service.requests<SubmitJobRequest>("submitJob");
  ASSERT_EQ(requests.size(), 3U);
  const auto environmentOf = [&](std::size_t i) { return requests[i].job().arrays(0).command().environment(); };
  EXPECT_EQ(environmentOf(0).count("ZKS_TEST_A"), 0U);
  EXPECT_EQ(environmentOf(1).at("ZKS_TEST_A"), "a{{b");
  EXPECT_EQ(environmentOf(2).at("ZKS_TEST_A"), "a{{b");
  EXPECT_NE(requests[0].key(), requests[1].key());
}

TEST_F(ZksJobs, LinesOfAFileAndOfAListAreTasks) {
  accepts(7);
  start();
  writeFile(path("lines"), "one\ntwo\n\nfour");
  writeFile(path("list"), R"(["a b", "ä"])");
  EXPECT_EQ(zks({"submit", "--quiet", "--lines", "lines", "--", "p", "{line}"}).exitCode, 0);
  EXPECT_EQ(zks({"submit", "--quiet", "--json-list", "list", "--", "p", "{line}"}).exitCode, 0);
  const auto requests = service.requests<SubmitJobRequest>("submitJob");
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].job().arrays(0).count(), 4U);
  EXPECT_EQ(requests[0].job().arrays(0).lines().content(), "one\ntwo\n\nfour\n");
  EXPECT_EQ(requests[1].job().arrays(0).lines().content(), "a b\nä\n");
  writeFile(path("list"), "[1]");
  EXPECT_THAT(zks({"submit", "--json-list", "list", "--", "p"}).error, HasSubstr("something else than texts"));
  writeFile(path("lines"), "");
  EXPECT_THAT(zks({"submit", "--lines", "lines", "--", "p"}).error, HasSubstr("no lines"));
}

TEST_F(ZksJobs, AScriptGoesAlongWithItsOptions) {
  accepts(7);
  start();
  writeFile(path("fit.sh"), "#!/bin/sh\n# zks: --name from-script --output x\necho\n");
  writeFile(path("plain.sh"), "echo\n");
  EXPECT_EQ(zks({"submit", "--quiet", "fit.sh", "--", "1"}).exitCode, 0);
  EXPECT_EQ(zks({"submit", "--quiet", "plain.sh"}).exitCode, 0);
  const auto requests = service.requests<SubmitJobRequest>("submitJob");
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].job().name(), "from-script");
  const TaskCommand& command = requests[0].job().arrays(0).command();
  EXPECT_THAT(command.argv(), ElementsAre("./fit.sh", "1"));
  EXPECT_THAT(command.outputs(), ElementsAre("x"));
  EXPECT_EQ(command.inputs(0).name(), "fit.sh");
  EXPECT_TRUE(command.inputs(0).executable());
  EXPECT_EQ(requests[1].job().name(), "plain.sh");
  EXPECT_THAT(requests[1].job().arrays(0).command().argv(), ElementsAre("sh", "./plain.sh"));
}

TEST_F(ZksJobs, LargeInputsArePutBeforeTheJobIsSubmitted) {
  const std::string large = someBytes(200'000);
  writeFile(path("large"), large);
  const std::string digest(parallel::digest::Digest::of(large).bytes());
  service.on<FindBlobsRequest>("findBlobs", [&](const FindBlobsRequest&) {
    FindBlobsReply reply;
    auto& missing = *reply.add_missing();
    missing.set_sha256(digest);
    return answerOf(reply);
  });
  service.on<PutBlobRequest>("putBlob", [](const PutBlobRequest&) { return answerOf(PutBlobReply()); });
  accepts(7);
  start();
  const auto outcome = zks({"submit", "--quiet", "--key", "my-key", "--input", "large", "--", "p"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.error;
  const auto puts = service.requests<PutBlobRequest>("putBlob");
  ASSERT_EQ(puts.size(), 1U);
  EXPECT_EQ(puts[0].holder().key(), "my-key");
  EXPECT_EQ(puts[0].sha256(), digest);
  const auto requests = service.requests<SubmitJobRequest>("submitJob");
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests[0].key(), "my-key");
  EXPECT_FALSE(requests[0].job().arrays(0).command().inputs(0).content().has_content());
}

TEST_F(ZksJobs, ASubmitThatFindsBlobsGoneMakesAnotherTry) {
  int tries = 0;
  service.on<SubmitJobRequest>("submitJob", [&](const SubmitJobRequest&) {
    SubmitJobReply reply;
    if (++tries == 1)
      reply.add_missing_blobs(std::string(32, 'x'));
    else
      reply.set_job(8);
    return answerOf(reply);
  });
  start();
  EXPECT_EQ(zks({"submit", "--quiet", "--", "p"}).output, "8\n");
  const auto requests = service.requests<SubmitJobRequest>("submitJob");
  ASSERT_EQ(requests.size(), 2U);
  EXPECT_EQ(requests[0].key(), requests[1].key());
}

TEST_F(ZksJobs, JobsAreNamedByNumberNameOrLast) {
  service.on<ListJobsRequest>("listJobs", [](const ListJobsRequest& request) {
    ListJobsReply reply;
    if (request.name().empty() || request.name() == "fit")
      *reply.add_jobs() = summaryOf(request.name().empty() ? 9 : 4, "fit");
    return answerOf(reply);
  });
  service.on<JobRequest>("hold", [](const JobRequest&) { return answerOf(JobChangedReply()); });
  start();
  EXPECT_THAT(zks({"hold", "7", "fit", "last"}).output,
              testing::AllOf(HasSubstr("Job 7 held"), HasSubstr("Job 4 held"), HasSubstr("Job 9 held")));
  const auto outcome = zks({"hold", "other"});
  EXPECT_EQ(outcome.exitCode, 1);
  EXPECT_EQ(outcome.error, "zks: there is no job \"other\"\n");
}

TEST_F(ZksJobs, JobsAreATableForPeopleAndAListForPrograms) {
  ListJobsReply reply;
  JobSummary& running = *reply.add_jobs();
  running = summaryOf(12, "fit \"x\"");
  running.mutable_counts()->set_running(2);
  running.mutable_counts()->set_failed(1);
  running.mutable_counts()->set_succeeded(7);
  *reply.add_jobs() = succeeded(3, "sort");
  service.answer<ListJobsRequest>("listJobs", reply);
  start();
  EXPECT_EQ(zks({"jobs"}).output,
            "JOB  NAME     STATE      DONE  FAILED  SUBMITTED            ENDED\n"
            " 12  fit \"x\"  running    8/10       1  2026-11-22 13:05:09\n"
            "  3  sort     succeeded   1/1       0  2026-11-22 13:05:09  2026-11-22 13:05:19\n");
  EXPECT_EQ(
      zks({"jobs", "--json"}).output,
      "[\n"
      R"(  {"job": 12, "name": "fit \"x\"", "state": "running", "submitted": "2026-11-22T13:05:09.123Z", "ended": null, )"
      R"("priority": 0, "held": false, "open": false, "round": 1, "key": "key-fit \"x\"", "tasks": {"waiting": 0, )"
      R"("ready": 0, "granted": 0, "running": 2, "succeeded": 7, "failed": 1, "cancelled": 0, "skipped": 0}},)"
      "\n"
      R"(  {"job": 3, "name": "sort", "state": "succeeded", "submitted": "2026-11-22T13:05:09.123Z", )"
      R"("ended": "2026-11-22T13:05:19.000Z", "priority": 0, "held": false, "open": false, "round": 1, "key": "key-sort", )"
      R"("tasks": {"waiting": 0, "ready": 0, "granted": 0, "running": 0, "succeeded": 1, "failed": 0, "cancelled": 0, )"
      R"("skipped": 0}})"
      "\n]\n");
}

TEST_F(ZksJobs, TasksComePageByPageWithTheirNotes) {
  service.on<ListTasksRequest>("listTasks", [](const ListTasksRequest& request) {
    ListTasksReply reply;
    TaskSummary& task = *reply.add_tasks();
    task.set_task(request.first_task());
    if (request.first_task() == 0) {
      task.set_state(TASK_STATE_FAILED);
      task.set_attempt(2);
      task.set_worker(1);
      task.set_index(10);
      task.mutable_ending()->set_reason(Ending::REASON_EXIT_CODE);
      task.mutable_ending()->set_code(3);
      task.mutable_info()->mutable_wall_time()->set_nanos(250'000'000);
      task.set_error_end("first\nno such file\n");
      reply.set_next_task(5);
    } else {
      task.set_state(TASK_STATE_READY);
      task.set_why_waiting("no worker has 64 cores");
    }
    return answerOf(reply);
  });
  start();
  const std::string table = zks({"tasks", "7"}).output;
  EXPECT_THAT(table, HasSubstr("0     10  failed        2       1  0.25 s  exit code 3: no such file\n"));
  EXPECT_THAT(table, HasSubstr("no worker has 64 cores"));
  EXPECT_EQ(
      zks({"tasks", "7", "--json"}).output,
      "[\n"
      R"(  {"task": 0, "index": 10, "state": "failed", "attempt": 2, "worker": 1, "ending": {"reason": "exit_code", "code": 3}, )"
      R"("why_waiting": "", "seconds": 0.25, "cpu_seconds": 0, "peak_memory_bytes": 0, "message": "", )"
      R"("error_end": "first\nno such file\n"},)"
      "\n"
      R"(  {"task": 5, "index": 0, "state": "ready", "attempt": 0, "worker": 0, "ending": {"reason": "none", "code": 0}, )"
      R"("why_waiting": "no worker has 64 cores", "seconds": null, "cpu_seconds": null, "peak_memory_bytes": null, )"
      R"("message": "", "error_end": ""})"
      "\n]\n");
  EXPECT_EQ(zks({"tasks", "7", "--state", "failed", "--limit", "1", "--json"}).exitCode, 0);
  const auto last = service.requests<ListTasksRequest>("listTasks").back();
  EXPECT_THAT(last.states(), ElementsAre(TASK_STATE_FAILED));
  EXPECT_EQ(last.limit(), 1U);
}

TEST_F(ZksJobs, WorkersAndTheServiceAreShown) {
  ListWorkersReply workers;
  auto& worker = *workers.add_workers();
  worker.set_worker(1);
  worker.set_name("node1");
  worker.mutable_resources()->set_cores(2);
  worker.set_draining(true);
  worker.set_attempts(3);
  worker.mutable_since_heard()->set_seconds(12);
  service.answer<ListWorkersRequest>("listWorkers", workers);
  DescribeServiceReply description;
  description.set_version("1.2");
  description.set_host("node0");
  description.set_process(42);
  description.set_store("/store");
  description.set_started(1'795'352'709'000);
  description.set_jobs(3);
  description.set_room("10.0 GiB free");
  service.answer<DescribeServiceRequest>("describeService", description);
  DrainWorkerReply drained;
  drained.set_attempts(1);
  service.answer<DrainWorkerRequest>("drainWorker", drained);
  start();
  EXPECT_EQ(zks({"workers"}).output,
            "WORKER  NAME   STATE     RESOURCES  TASKS     HEARD\n"
            "     1  node1  draining  2 cores        3  12 s ago\n");
  EXPECT_EQ(zks({"workers", "--json"}).output,
            "[\n  {\"worker\": 1, \"name\": \"node1\", \"state\": \"draining\", \"resources\": {\"cores\": 2, "
            "\"memory_bytes\": 0, "
            "\"named\": {}}, \"attempts\": 3, \"seconds_since_heard\": 12}\n]\n");
  EXPECT_EQ(zks({"workers", "drain", "1"}).output, "Worker 1 gets nothing new and still has 1 task\n");
  EXPECT_THAT(zks({"status"}).output, HasSubstr("Runs on:  node0, process 42\n"));
  EXPECT_THAT(zks({"status", "--json"}).output,
              testing::AllOf(HasSubstr(R"("version": "1.2", "host": "node0", "process": 42, "store": "/store", )"
                                       R"("started": "2026-11-22T13:05:09.000Z", "jobs": 3)"),
                             HasSubstr(R"("room": "10.0 GiB free"})")));
}

TEST_F(ZksJobs, WaitEndsWithTheJobsAndTellsWhetherAllSucceeded) {
  service.on<WaitForChangeRequest>("waitForChange", [](const WaitForChangeRequest& request) {
    WaitForChangeReply reply;
    if (request.version() == 0) {
      *reply.mutable_summary() = summaryOf(request.job(), "fit");
      reply.mutable_summary()->mutable_counts()->set_running(3);
    } else {
      *reply.mutable_summary() = succeeded(request.job(), "fit", 3);
      if (request.job() == 8) {
        reply.mutable_summary()->mutable_counts()->set_succeeded(2);
        reply.mutable_summary()->mutable_counts()->set_failed(1);
      }
    }
    return answerOf(reply);
  });
  ListTasksReply failed;
  failed.add_tasks()->set_task(2);
  failed.mutable_tasks(0)->mutable_ending()->set_reason(Ending::REASON_TIME_LIMIT);
  service.answer<ListTasksRequest>("listTasks", failed);
  start();
  const auto good = zks({"wait", "7"});
  EXPECT_EQ(good.exitCode, 0);
  EXPECT_EQ(good.output, "Job 7 (fit) succeeded: 3 tasks: 3 succeeded\n");
  const auto bad = zks({"wait", "7", "8"});
  EXPECT_EQ(bad.exitCode, 1);
  EXPECT_THAT(bad.output, HasSubstr("Job 8 (fit) failed: 3 tasks: 2 succeeded, 1 failed\n"));
  EXPECT_THAT(bad.error, HasSubstr("zks: task 2: its time was over\n"));
}

TEST_F(ZksJobs, WaitGoesOnWithTheServiceThatComesNext) {
  std::atomic<bool> isOver{false};
  service.on<WaitForChangeRequest>("waitForChange", [&](const WaitForChangeRequest&) {
    WaitForChangeReply reply;
    *reply.mutable_summary() = succeeded(7, "fit", 1);
    if (!isOver) {
      reply.mutable_summary()->clear_ended();
      reply.mutable_summary()->mutable_counts()->set_running(1);
    }
    return answerOf(reply);
  });
  start();
  const auto waiting = startZks({"wait", "7"});
  while (service.requests<WaitForChangeRequest>("waitForChange").empty())
    std::this_thread::yield();
  service.stop();
  isOver = true;
  service.start(path("s"));
  const auto outcome = waiting->wait();
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_EQ(outcome.output, "Job 7 (fit) succeeded: 1 task: 1 succeeded\n");
  EXPECT_THAT(outcome.error, HasSubstr("waiting for it to come back"));
}

TEST_F(ZksJobs, CtrlCEndsTheWaitAndSaysHowToComeBack) {
  JobSummary job = summaryOf(7, "fit");
  job.mutable_counts()->set_running(1);
  knows(job);
  start();
  const auto waiting = startZks({"wait", "7"});
  while (service.requests<WaitForChangeRequest>("waitForChange").empty())
    std::this_thread::yield();
  waiting->send(SIGINT);
  const auto outcome = waiting->wait();
  EXPECT_EQ(outcome.exitCode, 130);
  EXPECT_THAT(outcome.error, HasSubstr("job 7 goes on; \"zks wait 7\" comes back to it, \"zks cancel 7\" ends it"));
}

TEST_F(ZksJobs, FetchPutsEachTasksOutputsIntoItsFolderAndResumes) {
  knows(succeeded(7, "fit", 2));
  service.on<FetchOutputsRequest>("fetchOutputs", [](const FetchOutputsRequest& request) {
    FetchOutputsReply reply;
    const std::string number = std::to_string(request.first_task());
    auto& task = *reply.add_tasks();
    task.set_task(request.first_task());
    *task.add_files() = outputOf("sub/out", "result " + number);
    *task.add_files() = outputOf("", "said " + number, OutputFile::STREAM_STANDARD_OUTPUT);
    *task.add_files() = outputOf("", "", OutputFile::STREAM_STANDARD_ERROR);
    if (request.first_task() == 0)
      reply.set_next_task(1);
    return answerOf(reply, {"result " + number, "said " + number, ""});
  });
  start();
  const auto first = zks({"fetch", "7", "--to", "out"});
  EXPECT_EQ(first.exitCode, 0) << first.error;
  EXPECT_EQ(first.output, "Job 7: 4 files of 2 tasks fetched, 0 were there already\n");
  EXPECT_EQ(readFile(path("out/0/sub/out")), "result 0");
  EXPECT_EQ(readFile(path("out/1/stdout")), "said 1");
  EXPECT_THAT(namesIn("out/1"), ElementsAre("stdout", "sub"));
  EXPECT_EQ(zks({"fetch", "7", "--to", "out"}).output, "Job 7: 0 files of 2 tasks fetched, 4 were there already\n");
  writeFile(path("out/0/sub/out"), "mine");
  const auto differing = zks({"fetch", "7", "--to", "out"});
  EXPECT_EQ(differing.exitCode, 1);
  EXPECT_THAT(differing.error, HasSubstr("is there already and differs; --force replaces it"));
  EXPECT_EQ(readFile(path("out/0/sub/out")), "mine");
  EXPECT_EQ(zks({"fetch", "7", "--to", "out", "--force"}).exitCode, 0);
  EXPECT_EQ(readFile(path("out/0/sub/out")), "result 0");
  EXPECT_EQ(zks({"fetch", "7", "--to", "printed", "--print"}).output, "said 0said 1");
  EXPECT_THAT(namesIn("printed/1"), ElementsAre("sub"));
}

TEST_F(ZksJobs, FetchOfOneTaskGoesRightIntoTheFolder) {
  knows(succeeded(7, "fit"));
  FetchOutputsReply reply;
  *reply.add_tasks()->add_files() = outputOf("tool", "#!/bin/sh\n");
  reply.mutable_tasks(0)->mutable_files(0)->set_executable(true);
  service.on<FetchOutputsRequest>("fetchOutputs",
                                  [reply](const FetchOutputsRequest&) { return answerOf(reply, {"#!/bin/sh\n"}); });
  start();
  EXPECT_EQ(zks({"fetch", "7"}).exitCode, 0);
  EXPECT_EQ(readFile(path("tool")), "#!/bin/sh\n");
  EXPECT_EQ(::access(path("tool").c_str(), X_OK), 0);
}

TEST_F(ZksJobs, WhatArrivesDamagedOrLiesOutsideIsRefused) {
  knows(succeeded(7, "fit"));
  std::string name = "out";
  std::string sent = "other bytes";
  service.on<FetchOutputsRequest>("fetchOutputs", [&](const FetchOutputsRequest&) {
    FetchOutputsReply reply;
    *reply.add_tasks()->add_files() = outputOf(name, "right bytes");
    return answerOf(reply, {sent});
  });
  start();
  const auto damaged = zks({"fetch", "7", "--to", "out"});
  EXPECT_EQ(damaged.exitCode, 1);
  EXPECT_THAT(damaged.error, HasSubstr("did not arrive as it was sent"));
  EXPECT_THAT(namesIn("out"), ElementsAre());
  sent = "right bytes";
  name = "../escaped";
  EXPECT_THAT(zks({"fetch", "7", "--to", "out"}).error, HasSubstr("outside of its folder"));
  EXPECT_FALSE(std::filesystem::exists(path("escaped")));
}

TEST_F(ZksJobs, LogsFollowATaskToItsEnd) {
  knows(succeeded(7, "fit"));
  ListTasksReply tasks;
  tasks.add_tasks()->set_attempt(3);
  service.answer<ListTasksRequest>("listTasks", tasks);
  service.on<ReadOutputRequest>("readOutput", [](const ReadOutputRequest& request) {
    const std::string all = request.stream() == OutputFile::STREAM_STANDARD_ERROR ? "oh" : "hello\nworld\n";
    const std::string piece = all.substr(request.offset(), 5);
    ReadOutputReply reply;
    reply.set_attempt(request.attempt());
    reply.set_next_offset(request.offset() + piece.size());
    reply.set_ended(reply.next_offset() == all.size());
    return answerOf(reply, {}, {piece});
  });
  start();
  EXPECT_EQ(zks({"logs", "7", "-f"}).output, "hello\nworld\n");
  EXPECT_EQ(zks({"logs", "7", "0"}).output, "hello\nworld\n");
  EXPECT_EQ(zks({"logs", "7", "--stderr"}).error, "oh");
  EXPECT_EQ(service.requests<ReadOutputRequest>("readOutput").front().attempt(), 3U);
}

TEST_F(ZksJobs, LogsOfOneOfManyNeedsItsNumber) {
  knows(succeeded(7, "fit", 5));
  start();
  const auto outcome = zks({"logs", "7"});
  EXPECT_EQ(outcome.exitCode, 2);
  EXPECT_THAT(outcome.error, HasSubstr("job 7 has 5 tasks; say which one"));
}

TEST_F(ZksJobs, SubmitWithFollowIsAsTheTaskItself) {
  accepts(7);
  JobSummary job = succeeded(7, "fit");
  job.mutable_counts()->set_succeeded(0);
  job.mutable_counts()->set_failed(1);
  knows(job);
  ListTasksReply tasks;
  tasks.add_tasks()->set_attempt(1);
  tasks.mutable_tasks(0)->set_state(TASK_STATE_FAILED);
  tasks.mutable_tasks(0)->mutable_ending()->set_reason(Ending::REASON_EXIT_CODE);
  tasks.mutable_tasks(0)->mutable_ending()->set_code(3);
  service.answer<ListTasksRequest>("listTasks", tasks);
  service.on<ReadOutputRequest>("readOutput", [](const ReadOutputRequest& request) {
    const std::string all = request.stream() == OutputFile::STREAM_STANDARD_ERROR ? "oh\n" : "hello\n";
    ReadOutputReply reply;
    reply.set_next_offset(all.size());
    reply.set_ended(true);
    return answerOf(reply, {}, {all});
  });
  FetchOutputsReply outputs;
  *outputs.add_tasks()->add_files() = outputOf("made", "bytes");
  service.on<FetchOutputsRequest>("fetchOutputs",
                                  [outputs](const FetchOutputsRequest&) { return answerOf(outputs, {"bytes"}); });
  start();
  const auto outcome = zks({"submit", "--follow", "--output", "made", "--", "p"});
  EXPECT_EQ(outcome.exitCode, 3);
  EXPECT_EQ(outcome.output, "hello\n");
  EXPECT_THAT(outcome.error, HasSubstr("oh\n"));
  EXPECT_EQ(readFile(path("made")), "bytes");
}

TEST_F(ZksJobs, CancelRetryAndPruneSayWhatCameOfIt) {
  CancelReply cancelled;
  cancelled.set_stopped(3);
  cancelled.set_already_ended(2);
  auto& running = *cancelled.add_running();
  running.mutable_attempt()->set_task(4);
  running.set_worker(1);
  service.answer<CancelRequest>("cancel", cancelled);
  RetryReply retried;
  retried.set_round(2);
  service.answer<RetryRequest>("retry", retried);
  PruneReply pruned;
  pruned.add_jobs(1);
  service.answer<PruneRequest>("prune", pruned);
  start();
  EXPECT_EQ(zks({"cancel", "7", "--task", "1-5"}).output,
            "Job 7 cancelled: 3 tasks stopped, 2 had ended, task 4 may run until worker 1 is heard of\n");
  EXPECT_EQ(service.requests<CancelRequest>("cancel")[0].tasks(0).last(), 5U);
  EXPECT_EQ(zks({"retry", "7"}).output, "Job 7 round 2 has begun\n");
  EXPECT_EQ(service.requests<RetryRequest>("retry")[0].key().size(), 32U);
  EXPECT_EQ(zks({"prune", "--older-than", "30d"}).output, "1 job deleted\n");
}

}  // namespace
}  // namespace zks
