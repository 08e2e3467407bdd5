// What clients ask for, who goes first, and what waits for what.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "scheduler/ledger/testing/Scene.h"

namespace parallel::scheduler::ledger {
namespace {

using namespace std::chrono_literals;
using testing::exitCode;
using testing::Scene;

ArraySpec tasks(std::uint64_t count) {
  ArraySpec array;
  array.count = count;
  return array;
}

SubmitJob jobOf(std::string key, std::vector<ArraySpec> arrays) {
  SubmitJob event;
  event.key = std::move(key);
  event.digest = "content";
  event.arrays = std::move(arrays);
  return event;
}

ArraySpec after(ArraySpec array, const Dependency& dependency) {
  array.dependencies.push_back(dependency);
  return array;
}

constexpr auto kWholeJob = Dependency::Kind::wholeJob;
constexpr auto kOneTask = Dependency::Kind::oneTask;
constexpr auto kSameIndex = Dependency::Kind::sameIndex;

// The jobs of the next grants, in order.
std::vector<JobId> turns(Scene& scene, WorkerId worker, int count) {
  std::vector<JobId> jobs;
  for (int turn = 0; turn < count; ++turn)
    jobs.push_back(scene.takeOne(worker).job);
  return jobs;
}

// --- submitting ---

TEST(Submitting, TheSameKeyIsTheSameJob) {
  Scene scene;
  const SubmitJob event = jobOf("key", {tasks(2)});
  const auto first = scene.keep(scene.ledger().submitJob(event, scene.now()));
  EXPECT_FALSE(first.answer().isRepeat);
  scene.restart();
  const auto again = scene.keep(scene.ledger().submitJob(event, scene.now()));
  EXPECT_TRUE(again.answer().isRepeat);
  EXPECT_EQ(again.answer().job, first.answer().job);
  EXPECT_TRUE(again.changes.empty());
}

TEST(Submitting, TheSameKeyWithAnotherContentIsAConflict) {
  Scene scene;
  SubmitJob event = jobOf("key", {tasks(2)});
  scene.submit(event);
  event.digest = "other";
  EXPECT_EQ(scene.keep(scene.ledger().submitJob(event, scene.now())).refusal(), Refusal::keyConflict);
}

TEST(Submitting, KeysOfDeletedJobsAreRemembered) {
  Scene scene;
  SubmitJob event = jobOf("key", {});
  const JobId job = scene.submit(event);
  scene.keep(scene.ledger().deleteJob(job, scene.now()));
  scene.restart();
  EXPECT_EQ(scene.keep(scene.ledger().submitJob(event, scene.now())).refusal(), Refusal::jobDeleted);
  event.digest = "other";
  EXPECT_EQ(scene.keep(scene.ledger().submitJob(event, scene.now())).refusal(), Refusal::keyConflict);
}

TEST(Submitting, ArraysOfNoTaskOrOfTooManyAreRefused) {
  Scene scene;
  const auto refusalOf = [&](std::vector<ArraySpec> arrays) {
    return scene.keep(scene.ledger().submitJob(jobOf("key", std::move(arrays)), scene.now())).refusal();
  };
  EXPECT_EQ(refusalOf({tasks(0)}), Refusal::badArray);
  EXPECT_EQ(refusalOf({tasks(std::numeric_limits<std::uint64_t>::max())}), Refusal::badArray);
  constexpr auto kHalf = std::numeric_limits<std::uint64_t>::max() / 4;
  EXPECT_EQ(refusalOf({tasks(kHalf), tasks(kHalf), tasks(kHalf)}), Refusal::badArray);
}

TEST(Submitting, DependenciesMustBeThere) {
  Scene scene;
  const JobId job = scene.submit(tasks(3));
  const JobId unknown{99};
  const JobId self{};
  const auto refusalOf = [&](ArraySpec array, const Dependency& dependency) {
    return scene.keep(scene.ledger().submitJob(jobOf("key", {tasks(2), after(array, dependency)}), scene.now()))
        .refusal();
  };
  EXPECT_EQ(refusalOf(tasks(1), {kWholeJob, unknown, 0}), Refusal::badDependency);
  EXPECT_EQ(refusalOf(tasks(1), {kWholeJob, self, 0}), Refusal::badDependency);
  EXPECT_EQ(refusalOf(tasks(1), {kOneTask, job, 3}), Refusal::badDependency);
  EXPECT_EQ(refusalOf(tasks(1), {kOneTask, self, 2}), Refusal::badDependency);
  EXPECT_EQ(refusalOf(tasks(2), {kSameIndex, job, 2}), Refusal::badDependency);
  EXPECT_EQ(refusalOf(tasks(3), {kSameIndex, self, 0}), Refusal::badDependency);
  EXPECT_EQ(refusalOf(tasks(1), {kOneTask, job, std::numeric_limits<TaskNumber>::max()}), Refusal::badDependency);
}

TEST(Submitting, AnOpenJobTakesMoreTasksAndEndsOnceItIsClosed) {
  Scene scene;
  SubmitJob event = jobOf("key", {tasks(1)});
  event.open = true;
  const JobId job = scene.submit(event);
  const WorkerId worker = scene.join();
  scene.run(worker);
  EXPECT_EQ(scene.ledger().progress(job)->ended, std::nullopt);

  const ExtendJob more{job, 1, "more", {tasks(2), tasks(1)}};
  EXPECT_EQ(scene.keep(scene.ledger().extendJob(more, scene.now())).answer().nextTask, 4U);
  scene.restart();
  const auto again = scene.keep(scene.ledger().extendJob(more, scene.now())).answer();
  EXPECT_TRUE(again.isRepeat);
  EXPECT_EQ(again.nextTask, 4U);
  for (int task = 0; task < 3; ++task)
    scene.run(worker);
  scene.keep(scene.ledger().closeJob(job, scene.now()));
  EXPECT_TRUE(scene.ledger().progress(job)->ended);
}

TEST(Submitting, ExtensionsThatDoNotFitAreRefused) {
  Scene scene;
  SubmitJob event = jobOf("key", {tasks(2)});
  event.open = true;
  const JobId job = scene.submit(event);
  const auto refusalOf = [&](TaskNumber first, const Digest& digest) {
    return scene.keep(scene.ledger().extendJob({job, first, digest, {tasks(1)}}, scene.now())).refusal();
  };
  EXPECT_EQ(refusalOf(3, "more"), Refusal::extensionConflict);
  EXPECT_EQ(refusalOf(1, "more"), Refusal::extensionConflict);
  EXPECT_EQ(refusalOf(0, "more"), Refusal::extensionConflict);
  scene.keep(scene.ledger().closeJob(job, scene.now()));
  EXPECT_EQ(refusalOf(2, "more"), Refusal::jobClosed);
  EXPECT_EQ(scene.ledger().extendJob({JobId{99}, 0, "", {}}, scene.now()).refusal(), Refusal::unknownJob);
}

TEST(Submitting, AJobWithoutTasksHasEnded) {
  Scene scene;
  EXPECT_TRUE(scene.ledger().progress(scene.submit(std::vector<ArraySpec>{}))->ended);
}

// --- versions ---

TEST(Versions, GrowWithEachChangeAndSurviveARestart) {
  Scene scene;
  const JobId job = scene.submit(tasks(1));
  const WorkerId worker = scene.join();
  std::uint64_t version = scene.ledger().progress(job)->version;
  const auto expectGrowth = [&] {
    EXPECT_EQ(scene.ledger().progress(job)->version, version + 1);
    version = scene.ledger().progress(job)->version;
    scene.restart();
  };
  const AttemptKey attempt = scene.takeOne(worker);
  expectGrowth();
  scene.start(worker, attempt);
  expectGrowth();
  scene.finish(worker, attempt);
  expectGrowth();
  EXPECT_EQ(scene.keep(scene.ledger().setPriority(job, 3, scene.now())).answer().version, version + 1);
  expectGrowth();
  EXPECT_EQ(scene.keep(scene.ledger().setPriority(job, 3, scene.now())).answer().version, version);
  scene.renew(worker);
  EXPECT_EQ(scene.ledger().progress(job)->version, version);
}

// --- who goes first ---

TEST(Turns, AJobOfTwoDoesNotWaitForOneOfAMillion) {
  Scene scene;
  const JobId large = scene.submit(tasks(1'000'000));
  const WorkerId worker = scene.join({100, 1 << 30, {}});
  EXPECT_EQ(turns(scene, worker, 3), (std::vector<JobId>{large, large, large}));
  const JobId small = scene.submit(tasks(2));
  EXPECT_EQ(turns(scene, worker, 4), (std::vector<JobId>{small, small, large, large}));
}

TEST(Turns, TheGreaterPriorityGoesFirst) {
  Scene scene;
  const JobId low = scene.submit(tasks(2));
  SubmitJob event = jobOf("high", {tasks(2)});
  event.priority = 1;
  const JobId high = scene.submit(event);
  const WorkerId worker = scene.join();
  EXPECT_EQ(turns(scene, worker, 1), std::vector{high});
  scene.keep(scene.ledger().setPriority(low, 2, scene.now()));
  scene.restart();
  EXPECT_EQ(turns(scene, worker, 3), (std::vector<JobId>{low, low, high}));
}

TEST(Turns, WhatDoesNotFitDoesNotStandInTheWay) {
  Scene scene;
  ArraySpec large = tasks(1);
  large.needs.cores = 100;
  const JobId first = scene.submit(large);
  const JobId second = scene.submit(tasks(1));
  EXPECT_EQ(turns(scene, scene.join(), 1), std::vector{second});
  EXPECT_EQ(scene.ledger().whyWaiting(first, 0)->kind, WaitReason::Kind::needs);
}

TEST(Turns, OnlySoManyOfAnArrayRunAtOnce) {
  Scene scene;
  ArraySpec array = tasks(5);
  array.atOnce = 2;
  const JobId job = scene.submit(array);
  const WorkerId worker = scene.join();
  const auto grants = scene.take(worker, 5).grants;
  ASSERT_EQ(grants.size(), 2U);
  EXPECT_EQ(scene.ledger().whyWaiting(job, 2)->kind, WaitReason::Kind::atOnce);
  scene.restart();
  EXPECT_FALSE(scene.ledger().hasWorkFor(worker, {8, 0, {}}));
  scene.finish(worker, grants[0].attempt);
  EXPECT_EQ(scene.take(worker, 5).grants.size(), 1U);
}

TEST(Turns, AHeldJobWaits) {
  Scene scene;
  SubmitJob event = jobOf("held", {tasks(2)});
  event.held = true;
  const JobId job = scene.submit(event);
  const WorkerId worker = scene.join();
  EXPECT_TRUE(scene.take(worker).grants.empty());
  EXPECT_EQ(scene.ledger().whyWaiting(job, 0)->kind, WaitReason::Kind::held);
  scene.keep(scene.ledger().release(job, scene.now()));
  scene.takeOne(worker);
  scene.keep(scene.ledger().hold(job, scene.now()));
  scene.restart();
  EXPECT_TRUE(scene.take(worker).grants.empty());
}

TEST(Turns, SuspectsGetTheirWorkerAlthoughNoneIsEverIdle) {
  Scene scene;
  const JobId suspect = scene.submit(tasks(1));
  const WorkerId lost = scene.join();
  scene.takeAndStart(lost);
  scene.lose(lost);
  scene.submit(tasks(1'000));
  const std::vector<WorkerId> workers{scene.join(), scene.join()};
  std::map<WorkerId, std::vector<AttemptKey>> running;
  const auto fill = [&](WorkerId worker) {
    for (const Grant& grant : scene.take(worker, 2).grants)
      running[worker].push_back(grant.attempt);
  };
  scene.keep(scene.ledger().hold(suspect, scene.now()));
  fill(workers[0]);
  fill(workers[1]);
  scene.keep(scene.ledger().release(suspect, scene.now()));
  for (int round = 0; round < 3 && scene.stateOf(suspect, 0) == TaskState::ready; ++round) {
    for (const WorkerId worker : workers) {
      scene.finish(worker, running[worker].back());
      running[worker].pop_back();
      fill(worker);
    }
  }
  EXPECT_EQ(scene.stateOf(suspect, 0), TaskState::granted);
}

TEST(Turns, TheReasonIsThereWhenThereIsNoWorker) {
  Scene scene;
  const JobId job = scene.submit(tasks(1));
  EXPECT_EQ(scene.ledger().whyWaiting(job, 0)->kind, WaitReason::Kind::noWorker);
  scene.join();
  EXPECT_EQ(scene.ledger().whyWaiting(job, 0)->kind, WaitReason::Kind::turn);
  EXPECT_EQ(scene.ledger().whyWaiting(job, 1), std::nullopt);
}

// --- dependencies ---

TEST(Dependencies, OneTaskAfterAnotherOfTheSameJob) {
  Scene scene;
  const JobId job = scene.submit({tasks(1), after(tasks(1), {kOneTask, JobId{}, 0})});
  const WorkerId worker = scene.join();
  EXPECT_EQ(scene.stateOf(job, 1), TaskState::waiting);
  EXPECT_EQ(scene.ledger().whyWaiting(job, 1),
            (WaitReason{WaitReason::Kind::dependency, Dependency{kOneTask, job, 0}}));
  scene.run(worker);
  EXPECT_EQ(scene.stateOf(job, 1), TaskState::ready);
}

TEST(Dependencies, TheSameIndexIsReadyAsSoonAsItsOwnTaskIs) {
  Scene scene;
  const JobId first = scene.submit(tasks(3));
  const JobId second = scene.submit(after(tasks(3), {kSameIndex, first, 0}));
  const WorkerId worker = scene.join();
  const auto grants = scene.take(worker, 3).grants;
  scene.finish(worker, grants[1].attempt);
  EXPECT_EQ(scene.stateOf(second, 0), TaskState::waiting);
  EXPECT_EQ(scene.stateOf(second, 1), TaskState::ready);
  scene.restart();
  scene.finish(worker, grants[2].attempt, exitCode(1));
  EXPECT_EQ(scene.stateOf(second, 2), TaskState::skipped);
  scene.finish(worker, grants[0].attempt);
  EXPECT_EQ(scene.stateOf(second, 0), TaskState::ready);
}

TEST(Dependencies, AJobIsWaitedForUntilItIsClosedAndAllItsTasksHaveEnded) {
  Scene scene;
  SubmitJob open = jobOf("open", {tasks(1)});
  open.open = true;
  const JobId first = scene.submit(open);
  const JobId second = scene.submit(after(tasks(2), {kWholeJob, first, 0}));
  scene.run(scene.join());
  EXPECT_EQ(scene.count(second, TaskState::waiting), 2U);
  scene.restart();
  scene.keep(scene.ledger().closeJob(first, scene.now()));
  EXPECT_EQ(scene.count(second, TaskState::ready), 2U);
}

TEST(Dependencies, WhatWaitsForWhatWillNotSucceedIsSkippedDownTheChain) {
  Scene scene;
  const JobId first = scene.submit(tasks(1));
  const JobId second = scene.submit(after(tasks(1), {kOneTask, first, 0}));
  const JobId third = scene.submit(after(tasks(5), {kWholeJob, second, 0}));
  scene.run(scene.join(), exitCode(1));
  EXPECT_EQ(scene.stateOf(second, 0), TaskState::skipped);
  EXPECT_EQ(scene.count(third, TaskState::skipped), 5U);
  EXPECT_TRUE(scene.ledger().progress(third)->ended);
}

TEST(Dependencies, OnWhatHasEndedBeforeAreSettledAtOnce) {
  Scene scene;
  const JobId first = scene.submit(tasks(2));
  const WorkerId worker = scene.join();
  scene.run(worker);
  scene.run(worker, exitCode(1));
  scene.restart();
  const JobId same = scene.submit(after(tasks(2), {kSameIndex, first, 0}));
  EXPECT_EQ(scene.stateOf(same, 0), TaskState::ready);
  EXPECT_EQ(scene.stateOf(same, 1), TaskState::skipped);
  const JobId whole = scene.submit(after(tasks(1), {kWholeJob, first, 0}));
  EXPECT_EQ(scene.stateOf(whole, 0), TaskState::skipped);
}

TEST(Dependencies, AllOfSeveralMustSucceed) {
  Scene scene;
  ArraySpec both = after(tasks(2), {kSameIndex, JobId{}, 0});
  const JobId job = scene.submit({tasks(2), tasks(2), after(both, {kSameIndex, JobId{}, 2})});
  const WorkerId worker = scene.join();
  const auto grants = scene.take(worker, 4).grants;
  ASSERT_EQ(grants.size(), 4U);
  scene.finish(worker, grants[0].attempt);
  EXPECT_EQ(scene.stateOf(job, 4), TaskState::waiting);
  scene.finish(worker, grants[2].attempt);
  EXPECT_EQ(scene.stateOf(job, 4), TaskState::ready);
  scene.finish(worker, grants[1].attempt);
  scene.finish(worker, grants[3].attempt, exitCode(1));
  EXPECT_EQ(scene.stateOf(job, 5), TaskState::skipped);
}

TEST(Dependencies, AVeryLongChainIsSkippedToItsEnd) {
  Scene scene;
  std::vector<ArraySpec> chain{tasks(1)};
  constexpr TaskNumber kLength = 20'000;
  for (TaskNumber task = 1; task < kLength; ++task)
    chain.push_back(after(tasks(1), {kOneTask, JobId{}, task - 1}));
  const JobId job = scene.submit(std::move(chain));
  scene.run(scene.join(), exitCode(1));
  EXPECT_EQ(scene.count(job, TaskState::skipped), kLength - 1);
}

// --- cancel ---

TEST(Cancelling, SettlesTheBooksAtOnceAndSaysWhatIsLeft) {
  Scene scene;
  const JobId job = scene.submit(tasks(4));
  const JobId waiting = scene.submit(after(tasks(4), {kSameIndex, job, 0}));
  const WorkerId worker = scene.join();
  scene.run(worker);
  const AttemptKey attempt = scene.takeAndStart(worker);
  const auto answer = scene.keep(scene.ledger().cancel({job, std::nullopt}, scene.now())).answer();
  EXPECT_EQ(answer.stopped, 3U);
  EXPECT_EQ(answer.alreadyEnded, 1U);
  ASSERT_EQ(answer.running.size(), 1U);
  EXPECT_EQ(answer.running[0].attempt, attempt);
  EXPECT_EQ(answer.running[0].worker, worker);
  EXPECT_EQ(scene.count(job, TaskState::cancelled), 3U);
  EXPECT_EQ(scene.count(waiting, TaskState::skipped), 3U);
  scene.restart();
  const Verdict verdict = scene.finishInVain(worker, attempt);
  EXPECT_FALSE(verdict.isAccepted);
  EXPECT_EQ(verdict.ending.reason, EndReason::cancelled);
  EXPECT_EQ(scene.renew(worker).stop, std::vector{attempt});
}

TEST(Cancelling, SomeTasksOfAJobLeavesTheOthers) {
  Scene scene;
  SubmitJob event = jobOf("open", {tasks(10)});
  event.open = true;
  const JobId job = scene.submit(event);
  TaskSet some(TaskSpan{2, 3});
  some.add(TaskSpan{8, 20});
  EXPECT_EQ(scene.keep(scene.ledger().cancel({job, some}, scene.now())).answer().stopped, 4U);
  EXPECT_EQ(scene.count(job, TaskState::ready), 6U);
  EXPECT_TRUE(scene.ledger().progress(job)->open);
  const auto again = scene.keep(scene.ledger().cancel({job, some}, scene.now()));
  EXPECT_EQ(again.answer().alreadyEnded, 4U);
  EXPECT_TRUE(again.changes.empty());
}

TEST(Cancelling, ALapsedAttemptCannotDeliverAnyMore) {
  Scene scene;
  const JobId job = scene.submit(tasks(1));
  const WorkerId worker = scene.join();
  const AttemptKey attempt = scene.takeAndStart(worker);
  scene.lapse(worker);
  scene.keep(scene.ledger().cancel({job, std::nullopt}, scene.now()));
  EXPECT_FALSE(scene.finish(worker, attempt).isAccepted);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::cancelled);
  EXPECT_EQ(scene.stateOf(worker), WorkerState::gone);
}

// --- retry ---

TEST(Retrying, OpensARoundForWhatDidNotSucceedAndForWhatWasSkippedForIt) {
  Scene scene;
  const JobId job = scene.submit(tasks(3));
  const JobId same = scene.submit(after(tasks(3), {kSameIndex, job, 0}));
  const JobId whole = scene.submit(after(tasks(1), {kWholeJob, job, 0}));
  const WorkerId worker = scene.join();
  const auto grants = scene.take(worker, 2).grants;
  scene.finish(worker, grants[0].attempt);
  scene.finish(worker, grants[1].attempt, exitCode(1));
  scene.keep(scene.ledger().cancel({job, std::nullopt}, scene.now()));
  EXPECT_EQ(scene.count(same, TaskState::skipped), 2U);
  EXPECT_EQ(scene.stateOf(whole, 0), TaskState::skipped);
  scene.restart();

  const auto retried = scene.keep(scene.ledger().retry({job, "again", std::nullopt}, scene.now())).answer();
  EXPECT_EQ(retried.round, 2U);
  EXPECT_EQ(scene.count(job, TaskState::ready), 2U);
  EXPECT_EQ(scene.count(job, TaskState::succeeded), 1U);
  EXPECT_EQ(scene.count(same, TaskState::waiting), 2U);
  EXPECT_EQ(scene.stateOf(whole, 0), TaskState::waiting);
  EXPECT_EQ(scene.ledger().progress(job)->ended, std::nullopt);
  scene.restart();
  for (int task = 0; task < 6; ++task)
    scene.run(worker);
  EXPECT_EQ(scene.count(same, TaskState::succeeded), 3U);
  EXPECT_EQ(scene.stateOf(whole, 0), TaskState::succeeded);
  EXPECT_EQ(scene.task(job, 1).round, 2U);
}

TEST(Retrying, TheSameKeyIsTheSameRound) {
  Scene scene;
  const JobId job = scene.submit(tasks(1));
  const WorkerId worker = scene.join();
  scene.run(worker, exitCode(1));
  scene.keep(scene.ledger().retry({job, "again", std::nullopt}, scene.now()));
  scene.run(worker, exitCode(1));
  scene.restart();
  const auto again = scene.keep(scene.ledger().retry({job, "again", std::nullopt}, scene.now()));
  EXPECT_TRUE(again.answer().isRepeat);
  EXPECT_EQ(again.answer().round, 2U);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::failed);
  EXPECT_EQ(scene.keep(scene.ledger().retry({job, "once more", std::nullopt}, scene.now())).answer().round, 3U);
}

TEST(Retrying, CountsItsRetriesAnew) {
  Scene scene;
  ArraySpec array = tasks(1);
  array.retries.exitCode.limit = 1;
  const JobId job = scene.submit(array);
  const WorkerId worker = scene.join();
  for (int attempt = 0; attempt < 2; ++attempt)
    scene.run(worker, exitCode(1));
  scene.keep(scene.ledger().retry({job, "again", std::nullopt}, scene.now()));
  scene.run(worker, exitCode(1));
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::ready);
}

TEST(Retrying, OnlyTheTasksNamed) {
  Scene scene;
  const JobId job = scene.submit(tasks(4));
  scene.keep(scene.ledger().cancel({job, std::nullopt}, scene.now()));
  scene.keep(scene.ledger().retry({job, "some", TaskSet(TaskSpan{1, 2})}, scene.now()));
  EXPECT_EQ(scene.count(job, TaskState::ready), 2U);
  EXPECT_EQ(scene.count(job, TaskState::cancelled), 2U);
}

TEST(Retrying, WhatNeedsNoneIsRefused) {
  Scene scene;
  const JobId job = scene.submit(tasks(1));
  EXPECT_EQ(scene.keep(scene.ledger().retry({job, "a", std::nullopt}, scene.now())).refusal(), Refusal::nothingToRetry);
  EXPECT_EQ(scene.ledger().retry({JobId{99}, "a", std::nullopt}, scene.now()).refusal(), Refusal::unknownJob);
}

TEST(Retrying, WhatStillWaitsForAFailureStaysSkipped) {
  Scene scene;
  const JobId one = scene.submit(tasks(1));
  const JobId other = scene.submit(tasks(1));
  const JobId both = scene.submit(after(after(tasks(1), {kOneTask, one, 0}), {kOneTask, other, 0}));
  const WorkerId worker = scene.join();
  scene.run(worker, exitCode(1));
  scene.run(worker, exitCode(1));
  scene.keep(scene.ledger().retry({one, "a", std::nullopt}, scene.now()));
  EXPECT_EQ(scene.stateOf(both, 0), TaskState::skipped);
  scene.keep(scene.ledger().retry({other, "a", std::nullopt}, scene.now()));
  EXPECT_EQ(scene.stateOf(both, 0), TaskState::waiting);
}

TEST(Retrying, CancelledTasksOfOneJobComeBackWithThoseThatTheyWaitFor) {
  Scene scene;
  const JobId job = scene.submit({tasks(1), after(tasks(1), {kOneTask, JobId{}, 0})});
  scene.keep(scene.ledger().cancel({job, std::nullopt}, scene.now()));
  scene.keep(scene.ledger().retry({job, "a", std::nullopt}, scene.now()));
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::ready);
  EXPECT_EQ(scene.stateOf(job, 1), TaskState::waiting);
}

// --- delete ---

TEST(Deleting, OnlyWhatHasEnded) {
  Scene scene;
  const JobId job = scene.submit(tasks(1));
  EXPECT_EQ(scene.keep(scene.ledger().deleteJob(job, scene.now())).refusal(), Refusal::jobUnfinished);
  scene.run(scene.join());
  scene.keep(scene.ledger().deleteJob(job, scene.now()));
  EXPECT_TRUE(scene.books().tables().jobs.empty());
  EXPECT_TRUE(scene.books().tables().tasks.empty());
  EXPECT_TRUE(scene.books().tables().attempts.empty());
  EXPECT_EQ(scene.ledger().progress(job), std::nullopt);
  EXPECT_EQ(scene.ledger().deleteJob(job, scene.now()).refusal(), Refusal::unknownJob);
}

TEST(Deleting, ADependentOfADeletedJobGoesOn) {
  Scene scene;
  const JobId first = scene.submit(tasks(1));
  const JobId second = scene.submit(after(tasks(1), {kWholeJob, first, 0}));
  const WorkerId worker = scene.join();
  scene.run(worker);
  scene.keep(scene.ledger().deleteJob(first, scene.now()));
  scene.restart();
  EXPECT_EQ(scene.run(worker).job, second);
}

TEST(Deleting, PruneTakesWhatEndedBeforeThatTime) {
  Scene scene;
  const JobId early = scene.submit(std::vector<ArraySpec>{});
  scene.pass(10s);
  const JobId late = scene.submit(std::vector<ArraySpec>{});
  scene.submit(tasks(1));
  const auto pruned = scene.keep(scene.ledger().prune(scene.now().wall, scene.now())).answer();
  EXPECT_EQ(pruned.jobs, std::vector{early});
  EXPECT_TRUE(scene.ledger().progress(late));
}

}  // namespace
}  // namespace parallel::scheduler::ledger
