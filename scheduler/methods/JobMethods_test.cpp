// Jobs through their whole life, as clients and workers see it.
#include "scheduler/methods/JobMethods.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "scheduler/methods/ownThreads.h"
#include "scheduler/methods/testing/RunningService.h"
#include "scheduler/methods/testing/WaitingCall.h"
#include "scheduler/testing/FakeServerCall.h"
#include "scheduler/testing/containers.h"

namespace parallel::scheduler::methods {
namespace {

using testing::errorOf;
using ::testing::HasSubstr;
using testing::RunningService;
using toolbox::LocalBlob;
using zksmessages::AttemptResult;
using zksmessages::Ending;
using zksmessages::OutputFile;

zksmessages::SubmitJobRequest jobOf(const std::string& key, std::uint64_t tasks = 1) {
  zksmessages::SubmitJobRequest request;
  request.set_key(key);
  request.mutable_job()->set_name("test");
  auto* array = request.mutable_job()->add_arrays();
  array->set_count(tasks);
  array->mutable_command()->add_argv("true");
  return request;
}

// A worker of a test: what it was told, and what it says.
class Worker {
 public:
  Worker(RunningService& service, const std::string& key, std::uint32_t cores = 2) : service_(service), cores_(cores) {
    zksmessages::JoinRequest request;
    request.set_key(key);
    request.mutable_resources()->set_cores(cores);
    number_ = service_.workers().join(request).worker();
  }

  zksmessages::TakeRequest takeRequest() {
    zksmessages::TakeRequest request;
    request.set_worker(number_);
    request.set_sequence(++sequence_);
    request.mutable_room()->set_cores(cores_);
    request.set_limit(10);
    for (const auto& attempt : held_)
      *request.add_held()->mutable_attempt() = attempt;
    return request;
  }
  zksmessages::TakeReply take(const zksmessages::TakeRequest& request) {
    zksmessages::TakeReply reply = service_.workers().take(request);
    for (const auto& grant : reply.grants())
      held_.push_back(grant.attempt());
    return reply;
  }
  zksmessages::TakeReply take() { return take(takeRequest()); }

  zksmessages::RenewReply renew(const zksmessages::AttemptKey* attempt = nullptr, std::uint64_t offset = 0,
                                const std::string& output = "") {
    zksmessages::RenewRequest request;
    request.set_worker(number_);
    for (const auto& key : held_) {
      auto* held = request.add_held();
      *held->mutable_attempt() = key;
      held->set_started(true);
    }
    if (attempt != nullptr) {
      auto* piece = request.add_output();
      *piece->mutable_attempt() = *attempt;
      piece->set_stream(OutputFile::STREAM_STANDARD_OUTPUT);
      piece->set_offset(offset);
      piece->set_content(output);
    }
    return service_.workers().renew(request);
  }

  zksmessages::FinishReply finish(const std::vector<AttemptResult>& results) {
    zksmessages::FinishRequest request;
    request.set_worker(number_);
    for (const AttemptResult& result : results)
      *request.add_results() = result;
    return service_.workers().finish(request);
  }
  zksmessages::FinishReply succeed(const zksmessages::AttemptKey& attempt, const std::string& output = "") {
    return finish({resultOf(attempt, Ending::REASON_SUCCESS, output)});
  }

  static AttemptResult resultOf(const zksmessages::AttemptKey& attempt, Ending::Reason reason,
                                const std::string& output = "",
                                OutputFile::Stream stream = OutputFile::STREAM_STANDARD_OUTPUT) {
    AttemptResult result;
    *result.mutable_attempt() = attempt;
    result.mutable_ending()->set_reason(reason);
    result.mutable_info()->set_exit_status(0);
    auto* file = result.add_files();
    file->set_stream(stream);
    file->mutable_content()->set_content(output);
    return result;
  }

  std::uint64_t number() const { return number_; }
  void forgetHeld() { held_.clear(); }

 private:
  RunningService& service_;
  std::uint32_t cores_;
  std::uint64_t number_ = 0;
  std::uint64_t sequence_ = 0;
  std::vector<zksmessages::AttemptKey> held_;
};

class JobMethodsTest : public ::testing::Test {
 protected:
  std::uint64_t submit(const zksmessages::SubmitJobRequest& request) {
    return service_.jobs().submitJob(request).job();
  }

  zksmessages::JobSummary summary(std::uint64_t job) { return service_.jobs().describeJob(job).summary(); }

  zksmessages::ListTasksReply tasks(std::uint64_t job) {
    zksmessages::ListTasksRequest request;
    request.set_job(job);
    return service_.jobs().listTasks(request);
  }

  zksmessages::WaitForChangeReply waitFor(std::uint64_t job, std::uint64_t version, int seconds) {
    zksmessages::WaitForChangeRequest request;
    request.set_job(job);
    request.set_version(version);
    request.mutable_wait()->set_seconds(seconds);
    return service_.jobs().waitForChange(request);
  }

  std::string outputOf(std::uint64_t job, std::uint64_t task, std::uint64_t offset = 0, int wait = 0) {
    zksmessages::ReadOutputRequest request;
    request.set_job(job);
    request.set_task(task);
    request.set_stream(OutputFile::STREAM_STANDARD_OUTPUT);
    request.set_offset(offset);
    request.mutable_wait()->set_seconds(wait);
    return service_.jobs().readOutput(request).bytes;
  }

  RunningService service_;
};

TEST_F(JobMethodsTest, TaskIsSubmittedTakenFinishedAndFetched) {
  const std::uint64_t job = submit(jobOf("one", 2));
  Worker worker(service_, "w");
  const auto taken = worker.take();
  ASSERT_EQ(taken.grants_size(), 2);
  ASSERT_EQ(taken.arrays_size(), 1);
  EXPECT_EQ(taken.arrays(0).array().command().argv(0), "true");
  const auto finished = worker.succeed(taken.grants(0).attempt(), "out");
  ASSERT_EQ(finished.verdicts_size(), 1);
  EXPECT_TRUE(finished.verdicts(0).accepted());
  EXPECT_EQ(summary(job).counts().succeeded(), 1U);
  EXPECT_EQ(summary(job).counts().granted(), 1U);

  zksmessages::FetchOutputsRequest fetch;
  fetch.set_job(job);
  fetch.set_last_task(1);
  auto outputs = service_.jobs().fetchOutputs(fetch);
  ASSERT_EQ(outputs.tasks.tasks_size(), 1);
  EXPECT_EQ(outputs.tasks.tasks(0).state(), zksmessages::TASK_STATE_SUCCEEDED);
  EXPECT_FALSE(outputs.tasks.has_next_task());
  EXPECT_EQ(outputs.tasks.tasks(0).files(0).content().nbytes(), 3U);
  EXPECT_EQ(outputOf(job, 0), "out");
}

TEST_F(JobMethodsTest, SameKeyGivesTheSameJobAndAnotherContentIsRefused) {
  const auto first = service_.jobs().submitJob(jobOf("key"));
  const auto again = service_.jobs().submitJob(jobOf("key"));
  EXPECT_FALSE(first.is_repeat());
  EXPECT_TRUE(again.is_repeat());
  EXPECT_EQ(again.job(), first.job());
  EXPECT_THAT(errorOf([&] { submit(jobOf("key", 2)); }), HasSubstr("The key \"key\" stands for something else"));
  service_.restart();
  EXPECT_EQ(submit(jobOf("key")), first.job());
}

TEST_F(JobMethodsTest, ContentInsideTheMessageAndAsBlobAreTheSameJob) {
  auto inside = jobOf("key");
  inside.mutable_job()->mutable_arrays(0)->mutable_command()->mutable_standard_input()->set_content("input");
  const std::uint64_t job = submit(inside);
  auto named = jobOf("key");
  const LocalBlob blob = LocalBlob::ofBytes("input");
  auto* input = named.mutable_job()->mutable_arrays(0)->mutable_command()->mutable_standard_input();
  input->set_sha256(std::string(blob.digest().bytes()));
  input->set_nbytes(blob.nbytes());
  const auto again = service_.jobs().submitJob(named);
  EXPECT_TRUE(again.is_repeat());
  EXPECT_EQ(again.job(), job);
}

TEST_F(JobMethodsTest, MissingBlobsAreNamedPutAndThenTheJobIsSubmitted) {
  const LocalBlob blob = LocalBlob::ofBytes(std::string(200'000, 'x'));
  auto request = jobOf("key");
  auto* input = request.mutable_job()->mutable_arrays(0)->mutable_command()->add_inputs();
  input->set_name("data");
  input->mutable_content()->set_sha256(std::string(blob.digest().bytes()));
  input->mutable_content()->set_nbytes(blob.nbytes());
  const auto missing = service_.jobs().submitJob(request);
  EXPECT_EQ(missing.job(), 0U);
  ASSERT_EQ(missing.missing_blobs_size(), 1);
  EXPECT_EQ(missing.missing_blobs(0), blob.digest().bytes());
  zksmessages::BlobHolder holder;
  holder.set_key("key");
  service_.blobs().putMissing(holder, {blob});
  const std::uint64_t job = submit(request);
  EXPECT_NE(job, 0U);

  // It stays while the job does: an hour after its last use, too.
  service_.pass(std::chrono::hours(2));
  service_.methods().keeper().tidy();
  std::string got;
  spf::transport::FunctionalByteSink sink(
      [&](const std::byte* data, std::size_t n) { got.append(reinterpret_cast<const char*>(data), n); });
  service_.blobs().get(input->content(), sink);
  EXPECT_EQ(got, std::string(200'000, 'x'));
}

TEST_F(JobMethodsTest, WaitingTakeIsGrantedWhatComes) {
  Worker worker(service_, "w");
  auto request = worker.takeRequest();
  request.mutable_wait()->set_seconds(60);
  auto taken = std::async(std::launch::async, [&] { return service_.workers().take(request); });
  const std::uint64_t job = submit(jobOf("late"));
  const auto reply = taken.get();
  ASSERT_EQ(reply.grants_size(), 1);
  EXPECT_EQ(reply.grants(0).attempt().job(), job);
}

TEST_F(JobMethodsTest, NextTakeOfTheWorkerLetsTheWaitingOneGo) {
  Worker worker(service_, "w");
  auto request = worker.takeRequest();
  request.mutable_wait()->set_seconds(60);
  testing::WaitingCall waiting(scheduler::testing::requestOf(request), "take");
  service_.methods().take(waiting);
  EXPECT_EQ(worker.take().grants_size(), 0);
  waiting.goOn();
  zksmessages::ResultPayload payload;
  ASSERT_TRUE(payload.ParseFromString(scheduler::testing::itemsOf(waiting.replyText()).at(0)));
  EXPECT_EQ(payload.result().value(), "");
}

TEST_F(JobMethodsTest, WaitingTakeWhoseWorkerHasGoneIsGrantedNothing) {
  Worker worker(service_, "w");
  auto request = worker.takeRequest();
  request.mutable_wait()->set_seconds(60);
  testing::WaitingCall waiting(scheduler::testing::requestOf(request), "take");
  service_.methods().take(waiting);
  waiting.cancel();
  const std::uint64_t job = submit(jobOf("one"));
  EXPECT_EQ(summary(job).counts().ready(), 1U);
  EXPECT_EQ(worker.take().grants_size(), 1);
}

TEST_F(JobMethodsTest, RepeatedTakeAndFinishGetTheFirstAnswer) {
  submit(jobOf("one"));
  Worker worker(service_, "w");
  const auto request = worker.takeRequest();
  const auto first = service_.workers().take(request);
  const auto again = service_.workers().take(request);
  ASSERT_EQ(first.grants_size(), 1);
  EXPECT_EQ(again.SerializeAsString(), first.SerializeAsString());
  EXPECT_TRUE(worker.succeed(first.grants(0).attempt()).verdicts(0).accepted());
  const auto repeat = worker.finish({Worker::resultOf(first.grants(0).attempt(), Ending::REASON_EXIT_CODE)});
  EXPECT_TRUE(repeat.verdicts(0).accepted());
  EXPECT_EQ(repeat.verdicts(0).ending().reason(), Ending::REASON_SUCCESS);
}

TEST_F(JobMethodsTest, LostWorkersTaskIsGrantedAnewAndItsLateResultRefused) {
  const std::uint64_t job = submit(jobOf("one"));
  Worker lost(service_, "lost");
  const auto taken = lost.take();
  ASSERT_EQ(taken.grants_size(), 1);
  lost.renew();
  service_.pass(std::chrono::seconds(120));
  Worker other(service_, "other");
  const auto anew = other.take();
  ASSERT_EQ(anew.grants_size(), 1);
  EXPECT_EQ(anew.grants(0).attempt().job(), job);
  EXPECT_GT(anew.grants(0).attempt().number(), taken.grants(0).attempt().number());
  const auto late = lost.succeed(taken.grants(0).attempt());
  EXPECT_FALSE(late.verdicts(0).accepted());
  EXPECT_EQ(late.verdicts(0).ending().reason(), Ending::REASON_SUPERSEDED);
  EXPECT_TRUE(other.succeed(anew.grants(0).attempt()).verdicts(0).accepted());
}

TEST_F(JobMethodsTest, RunningAttemptsOutliveTheService) {
  const std::uint64_t job = submit(jobOf("one"));
  Worker worker(service_, "w");
  const auto taken = worker.take();
  worker.renew();
  service_.restart();
  EXPECT_EQ(summary(job).counts().running(), 1U);
  EXPECT_TRUE(worker.succeed(taken.grants(0).attempt(), "late").verdicts(0).accepted());
  EXPECT_EQ(outputOf(job, 0), "late");
}

TEST_F(JobMethodsTest, LinesOfAnArrayComeWithTheirGrants) {
  auto request = jobOf("lines", 3);
  request.mutable_job()->mutable_arrays(0)->mutable_lines()->set_content("one\n\nthree");
  submit(request);
  const auto taken = Worker(service_, "w", 3).take();
  ASSERT_EQ(taken.grants_size(), 3);
  EXPECT_EQ(taken.grants(0).line(), "one");
  EXPECT_EQ(taken.grants(1).line(), "");
  EXPECT_EQ(taken.grants(2).line(), "three");

  auto wrong = jobOf("wrong", 3);
  wrong.mutable_job()->mutable_arrays(0)->mutable_lines()->set_content("one\ntwo\n");
  EXPECT_THAT(errorOf([&] { submit(wrong); }), HasSubstr("arrays[0].lines: 2 lines for 3 tasks"));
}

TEST_F(JobMethodsTest, LinesThatCameAsABlobAreCountedToo) {
  const LocalBlob blob = LocalBlob::ofBytes("one\ntwo\n");
  zksmessages::BlobHolder holder;
  holder.set_key("lines");
  service_.blobs().putMissing(holder, {blob});
  auto request = jobOf("lines", 3);
  auto* lines = request.mutable_job()->mutable_arrays(0)->mutable_lines();
  lines->set_sha256(std::string(blob.digest().bytes()));
  lines->set_nbytes(blob.nbytes());
  EXPECT_THAT(errorOf([&] { submit(request); }), HasSubstr("arrays[0].lines: 2 lines for 3 tasks"));
}

TEST_F(JobMethodsTest, WaitForChangeAnswersAtTheChange) {
  const std::uint64_t job = submit(jobOf("one"));
  const std::uint64_t version = summary(job).version();
  EXPECT_EQ(waitFor(job, version - 1, 60).summary().version(), version);
  EXPECT_EQ(waitFor(job, version, 0).summary().version(), version);
  auto waiting = std::async(std::launch::async, [&] { return waitFor(job, version, 60); });
  service_.jobs().hold(job);
  const auto changed = waiting.get().summary();
  EXPECT_GT(changed.version(), version);
  EXPECT_TRUE(changed.held());
  EXPECT_THAT(errorOf([&] { waitFor(999, 0, 60); }), HasSubstr("There is no job 999"));
}

TEST_F(JobMethodsTest, OutputOfARunningAttemptIsBroughtByRenewals) {
  const std::uint64_t job = submit(jobOf("one"));
  Worker worker(service_, "w");
  const auto attempt = worker.take().grants(0).attempt();
  EXPECT_EQ(worker.renew().output_size(), 0);
  EXPECT_EQ(outputOf(job, 0), "");
  const auto wanted = worker.renew();
  ASSERT_EQ(wanted.output_size(), 1);
  EXPECT_EQ(wanted.output(0).offset(), 0U);
  auto reading = std::async(std::launch::async, [&] { return outputOf(job, 0, 0, 60); });
  worker.renew(&attempt, 0, "first");
  EXPECT_EQ(reading.get(), "first");
  auto end = std::async(std::launch::async, [&] { return outputOf(job, 0, 5, 60); });
  worker.succeed(attempt, "first and last");
  EXPECT_EQ(end.get(), " and last");
}

TEST_F(JobMethodsTest, LargeOutputsArePutAsBlobsBeforeTheyAreFinished) {
  const std::uint64_t job = submit(jobOf("one"));
  Worker worker(service_, "w");
  const auto attempt = worker.take().grants(0).attempt();
  const std::string output = scheduler::testing::patternOf(300'000);
  const LocalBlob blob = LocalBlob::ofBytes(output);
  AttemptResult result;
  *result.mutable_attempt() = attempt;
  result.mutable_ending()->set_reason(Ending::REASON_SUCCESS);
  auto* file = result.add_files();
  file->set_name("folder/big");
  file->mutable_content()->set_sha256(std::string(blob.digest().bytes()));
  file->mutable_content()->set_nbytes(blob.nbytes());
  const auto missing = worker.finish({result});
  ASSERT_EQ(missing.verdicts(0).missing_blobs_size(), 1);
  EXPECT_FALSE(missing.verdicts(0).accepted());
  zksmessages::BlobHolder holder;
  *holder.mutable_attempt() = attempt;
  service_.blobs().putMissing(holder, {blob});
  EXPECT_TRUE(worker.finish({result}).verdicts(0).accepted());

  service_.pass(std::chrono::hours(2));
  service_.methods().keeper().tidy();
  zksmessages::FetchOutputsRequest fetch;
  fetch.set_job(job);
  auto outputs = service_.jobs().fetchOutputs(fetch);
  std::string got;
  spf::transport::FunctionalByteSink sink(
      [&](const std::byte* data, std::size_t n) { got.append(reinterpret_cast<const char*>(data), n); });
  outputs.files.takeBytes(sink);
  EXPECT_EQ(got, output);
  // With the job its blobs go.
  service_.jobs().deleteJob(job);
  service_.pass(std::chrono::hours(2));
  service_.methods().keeper().tidy();
  EXPECT_THAT(errorOf([&] { service_.blobs().get(file->content(), sink); }), HasSubstr("The store has no blob"));
}

TEST_F(JobMethodsTest, OutputThatIsABlobIsReadPieceByPiece) {
  const std::uint64_t job = submit(jobOf("one"));
  Worker worker(service_, "w");
  const auto attempt = worker.take().grants(0).attempt();
  const std::string output = scheduler::testing::patternOf(3'000'000);
  const LocalBlob blob = LocalBlob::ofBytes(output);
  zksmessages::BlobHolder holder;
  *holder.mutable_attempt() = attempt;
  service_.blobs().putMissing(holder, {blob});
  auto result = Worker::resultOf(attempt, Ending::REASON_SUCCESS);
  *result.mutable_files(0)->mutable_content() = blob.described();
  EXPECT_TRUE(worker.finish({result}).verdicts(0).accepted());
  std::string got;
  for (std::string piece = outputOf(job, 0); !piece.empty(); piece = outputOf(job, 0, got.size()))
    got += piece;
  EXPECT_EQ(got, output);
  EXPECT_EQ(outputOf(job, 0, 2'999'999), output.substr(2'999'999));
  EXPECT_EQ(outputOf(job, 0, 5'000'000), "");
}

TEST_F(JobMethodsTest, TasksAreListedWithTheReasonAndTheEndOfTheirErrors) {
  auto request = jobOf("one", 3);
  request.mutable_job()->mutable_arrays(0)->set_first_index(10);
  request.mutable_job()->mutable_arrays(0)->set_index_step(5);
  const std::uint64_t job = submit(request);
  EXPECT_EQ(tasks(job).tasks(2).why_waiting(), "there is no worker");
  Worker worker(service_, "w", 1);
  const auto attempt = worker.take().grants(0).attempt();
  auto failed =
      Worker::resultOf(attempt, Ending::REASON_EXIT_CODE, "no such file\n", OutputFile::STREAM_STANDARD_ERROR);
  failed.mutable_ending()->set_code(7);
  worker.finish({failed});
  const auto listed = tasks(job);
  ASSERT_EQ(listed.tasks_size(), 3);
  EXPECT_EQ(listed.tasks(0).state(), zksmessages::TASK_STATE_FAILED);
  EXPECT_EQ(listed.tasks(0).error_end(), "no such file\n");
  EXPECT_EQ(listed.tasks(0).ending().code(), 7);
  EXPECT_EQ(listed.tasks(0).worker(), worker.number());
  EXPECT_EQ(listed.tasks(2).index(), 20);
  EXPECT_EQ(listed.tasks(2).why_waiting(), "others go first");

  zksmessages::ListTasksRequest page;
  page.set_job(job);
  page.set_limit(1);
  page.add_states(zksmessages::TASK_STATE_READY);
  const auto first = service_.jobs().listTasks(page);
  ASSERT_EQ(first.tasks_size(), 1);
  EXPECT_EQ(first.tasks(0).task(), 1U);
  EXPECT_EQ(first.next_task(), 2U);
}

TEST_F(JobMethodsTest, JobsAreListedTheNewestFirst) {
  for (const char* key : {"a", "b", "c"})
    submit(jobOf(key));
  zksmessages::ListJobsRequest request;
  request.set_limit(2);
  const auto page = service_.jobs().listJobs(request);
  ASSERT_EQ(page.jobs_size(), 2);
  EXPECT_EQ(page.jobs(0).key(), "c");
  request.set_before(page.next_before());
  const auto last = service_.jobs().listJobs(request);
  ASSERT_EQ(last.jobs_size(), 1);
  EXPECT_EQ(last.jobs(0).key(), "a");
  EXPECT_EQ(last.next_before(), 0U);
}

TEST_F(JobMethodsTest, OpenJobIsExtendedOnceAndClosed) {
  auto request = jobOf("open");
  request.mutable_job()->set_open(true);
  const std::uint64_t job = submit(request);
  zksmessages::ExtendJobRequest more;
  more.set_job(job);
  more.set_first_task(1);
  *more.add_arrays() = request.job().arrays(0);
  EXPECT_EQ(service_.jobs().extendJob(more).next_task(), 2U);
  EXPECT_TRUE(service_.jobs().extendJob(more).is_repeat());
  service_.jobs().closeJob(job);
  more.set_first_task(2);
  EXPECT_THAT(errorOf([&] { service_.jobs().extendJob(more); }), HasSubstr("takes no more tasks"));
  EXPECT_EQ(service_.jobs().describeJob(job).description().arrays_size(), 2);
}

TEST_F(JobMethodsTest, CancelRetryAndDelete) {
  const std::uint64_t job = submit(jobOf("one", 3));
  Worker worker(service_, "w", 1);
  const auto attempt = worker.take().grants(0).attempt();
  EXPECT_THAT(errorOf([&] { service_.jobs().deleteJob(job); }), HasSubstr("has not ended"));
  zksmessages::CancelRequest cancel;
  cancel.set_job(job);
  const auto cancelled = service_.jobs().cancel(cancel);
  EXPECT_EQ(cancelled.stopped(), 3U);
  ASSERT_EQ(cancelled.running_size(), 1);
  EXPECT_EQ(cancelled.running(0).worker(), worker.number());
  ASSERT_EQ(worker.renew().stop_size(), 1);
  EXPECT_EQ(worker.succeed(attempt).verdicts(0).ending().reason(), Ending::REASON_CANCELLED);
  zksmessages::RetryRequest retry;
  retry.set_job(job);
  retry.set_key("again");
  EXPECT_EQ(service_.jobs().retry(retry).round(), 2U);
  EXPECT_TRUE(service_.jobs().retry(retry).is_repeat());
  service_.jobs().cancel(cancel);
  service_.jobs().deleteJob(job);
  EXPECT_THAT(errorOf([&] { summary(job); }), HasSubstr("There is no job"));
  EXPECT_THAT(errorOf([&] { submit(jobOf("one", 3)); }), HasSubstr("has been deleted since"));
}

TEST_F(JobMethodsTest, WorkersAndTheServiceAreDescribed) {
  Worker worker(service_, "w", 4);
  submit(jobOf("one"));
  const auto workers = service_.jobs().listWorkers();
  ASSERT_EQ(workers.workers_size(), 1);
  EXPECT_EQ(workers.workers(0).resources().cores(), 4U);
  EXPECT_EQ(service_.jobs().drainWorker(worker.number()).attempts(), 0U);
  EXPECT_EQ(worker.take().grants_size(), 0);
  const auto service = service_.jobs().describeService();
  EXPECT_EQ(service.version(), "1.2.3");
  EXPECT_EQ(service.jobs(), 1U);
  EXPECT_EQ(service.workers(), 1U);
  EXPECT_EQ(service.counts().ready(), 1U);
}

TEST_F(JobMethodsTest, BlobsForAKeyThatNobodySubmitsAreKeptForADay) {
  const LocalBlob blob = LocalBlob::ofBytes("forgotten");
  zksmessages::BlobHolder holder;
  holder.set_key("forgotten");
  service_.blobs().putMissing(holder, {blob});
  const auto isThere = [&] {
    service_.methods().keeper().tidy();
    zksmessages::Blob named;
    named.set_sha256(std::string(blob.digest().bytes()));
    named.set_nbytes(blob.nbytes());
    spf::transport::FunctionalByteSink sink([](const std::byte*, std::size_t) {});
    return errorOf([&] { service_.blobs().get(named, sink); }).empty();
  };
  EXPECT_TRUE(isThere());
  service_.pass(std::chrono::hours(23));
  EXPECT_TRUE(isThere());
  service_.pass(std::chrono::hours(2));
  isThere();  // from now on it is unused
  service_.pass(std::chrono::hours(2));
  EXPECT_FALSE(isThere());
}

TEST_F(JobMethodsTest, BlobsForAnAttemptThatHasEndedAreLetGo) {
  const std::uint64_t job = submit(jobOf("one"));
  Worker worker(service_, "w");
  zksmessages::BlobHolder holder;
  *holder.mutable_attempt() = worker.take().grants(0).attempt();
  service_.blobs().putMissing(holder, {LocalBlob::ofBytes("output")});
  store::BlobStore& blobs = service_.methods().keeper().store().blobs();
  service_.methods().keeper().tidy();
  EXPECT_EQ(blobs.holders("attempt ").size(), 1U);
  zksmessages::CancelRequest cancel;
  cancel.set_job(job);
  service_.jobs().cancel(cancel);
  service_.methods().keeper().tidy();
  EXPECT_TRUE(blobs.holders("attempt ").empty());
}

TEST(JobMethods, FullStoreTakesNoJobs) {
  RunningService service({.bytes = 1000, .files = {}});
  zksmessages::BlobHolder holder;
  holder.set_key("full");
  service.blobs().putMissing(holder, {LocalBlob::ofBytes(std::string(920, 'x'))});
  EXPECT_THAT(errorOf([&] { service.jobs().submitJob(jobOf("one")); }), HasSubstr("The store takes no more jobs"));
}

// Answers whose call ends the process at once: as if it had been killed before the answer went out.
class DeadlyCall : public scheduler::testing::FakeServerCall {
 public:
  using FakeServerCall::FakeServerCall;
  std::shared_ptr<agent::spf::core::DeferredReply> defer() override { return std::make_shared<Deadly>(); }

  static constexpr int kExitCode = 7;

 private:
  class Deadly : public agent::spf::core::DeferredReply {
   public:
    void resume(std::function<void(ServerCall&)> /*rest*/) override { ::_exit(kExitCode); }
  };
};

TEST(JobMethods, JobWhoseAnswerWasLostWithTheServiceIsFoundByItsKey) {
  const files::testing::TemporaryDirectory place;
  const auto makeMethods = [&] {
    BookKeeper::Options keeper;
    keeper.folder = place.file("store");
    return std::make_unique<JobMethods>(JobMethods::Options{std::move(keeper), {}, ""});
  };
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const auto methods = makeMethods();
    DeadlyCall call(scheduler::testing::requestOf(jobOf("key")), "submitJob");
    methods->submitJob(call);
    ::pause();
    ::_exit(1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(WEXITSTATUS(status), DeadlyCall::kExitCode);

  const auto methods = makeMethods();
  scheduler::testing::FakeServerCall call(scheduler::testing::requestOf(jobOf("key")), "submitJob");
  methods->submitJob(call);
  methods->keeper().stop();  // until it is answered
  zksmessages::ResultPayload payload;
  zksmessages::SubmitJobReply reply;
  ASSERT_TRUE(payload.ParseFromString(scheduler::testing::itemsOf(call.replyText()).at(0)));
  ASSERT_TRUE(reply.ParseFromString(payload.result().value()));
  EXPECT_TRUE(reply.is_repeat());
  EXPECT_EQ(reply.job(), 1U);
}

// Says on which thread it ends.
struct NotedEnd {
  std::promise<std::thread::id>& where;
  ~NotedEnd() { where.set_value(std::this_thread::get_id()); }
};

TEST(JobMethods, LastShareOnAThreadOfTheKeeperIsLetGoOnAnother) {
  for (const bool isOwn : {false, true}) {
    std::promise<std::thread::id> where;
    std::thread owner([&] {
      if (isOwn)
        markOwnThread();
      DeleteElsewhere()(new NotedEnd{where});
    });
    const std::thread::id id = owner.get_id();
    EXPECT_EQ(where.get_future().get() != id, isOwn);
    owner.join();
  }
}

TEST(JobMethods, StoreThatFailsAnswersNothingAndTellsItsOwner) {
  const files::testing::TemporaryDirectory place;
  std::promise<std::string> failed;
  BookKeeper::Options keeper;
  keeper.folder = place.file("store");
  keeper.store.failed = [&](const std::string& reason) { failed.set_value(reason); };
  JobMethods methods({std::move(keeper), {}, ""});
  // A write that throws is what a disk that refuses it looks like to the store.
  methods.keeper().run([](BookKeeper::Turn& turn) {
    turn.writeBeside([](store::GroupCommit::Group&) { throw std::runtime_error("the disk is broken"); });
  });
  EXPECT_THAT(failed.get_future().get(), HasSubstr("the disk is broken"));
  scheduler::testing::FakeServerCall call(scheduler::testing::requestOf(jobOf("key")), "submitJob");
  EXPECT_THROW(methods.submitJob(call), Exception<parallel::store::StoreFailed>);
  EXPECT_EQ(call.replyText(), "");
}

}  // namespace
}  // namespace parallel::scheduler::methods
