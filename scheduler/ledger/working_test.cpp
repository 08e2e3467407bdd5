// What workers do, and what becomes of their attempts.
#include <gtest/gtest.h>

#include "scheduler/ledger/testing/Scene.h"

namespace parallel::scheduler::ledger {
namespace {

using namespace std::chrono_literals;
using testing::exitCode;
using testing::kSuccess;
using testing::Scene;

ArraySpec arrayOf(std::uint64_t count) {
  ArraySpec array;
  array.count = count;
  return array;
}

TEST(Working, TasksGoInTheOrderOfTheirNumbersUntilAllHaveEnded) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(3));
  const WorkerId worker = scene.join();
  for (TaskNumber task = 0; task < 3; ++task) {
    EXPECT_EQ(scene.ledger().progress(job)->ended, std::nullopt);
    EXPECT_EQ(scene.run(worker).task, task);
  }
  EXPECT_EQ(scene.count(job, TaskState::succeeded), 3U);
  EXPECT_EQ(scene.ledger().progress(job)->ended, scene.now().wall);
  EXPECT_TRUE(scene.take(worker).grants.empty());
}

TEST(Working, AGrantIsShownAsGrantedUntilItsStartIsReported) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(1));
  const WorkerId worker = scene.join();
  const AttemptKey attempt = scene.takeOne(worker);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::granted);
  scene.start(worker, attempt);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::running);
  EXPECT_EQ(scene.attempt(attempt).state, AttemptState::started);
}

TEST(Working, AMillionTasksAreOneRowUntilTheyAreGranted) {
  Scene scene;
  scene.submit(arrayOf(1'000'000));
  EXPECT_EQ(scene.books().tables().ranges.size(), 1U);
  const WorkerId worker = scene.join();
  scene.take(worker, 2);
  EXPECT_EQ(scene.books().tables().ranges.size(), 1U);
  EXPECT_EQ(scene.books().tables().tasks.size(), 2U);
}

TEST(Working, RoomBeyondTheWorkerTakesAheadButNothingThatItCannotHold) {
  Scene scene;
  ArraySpec large = arrayOf(1);
  large.needs = {3, 0, {}};
  scene.submit(large);
  const JobId job = scene.submit(arrayOf(9));
  const WorkerId worker = scene.join({2, 1000, {}});
  scene.giveRoom(worker, {6, 1000, {}});
  const Taken taken = scene.take(worker, 9);
  EXPECT_EQ(taken.grants.size(), 6U);
  for (const Grant& grant : taken.grants)
    EXPECT_EQ(grant.attempt.job, job);
}

TEST(Working, GrantsFitTheRoom) {
  Scene scene;
  ArraySpec array = arrayOf(10);
  array.needs = {2, 100, {{"gpu", 1}}};
  scene.submit(array);
  EXPECT_EQ(scene.take(scene.join({16, 1000, {{"gpu", 3}}}), 9).grants.size(), 3U);
  EXPECT_EQ(scene.take(scene.join({5, 1000, {{"gpu", 3}}}), 9).grants.size(), 2U);
  EXPECT_EQ(scene.take(scene.join({16, 1000, {}}), 9).grants.size(), 0U);
}

TEST(Working, ALostAnswerIsRepeated) {
  Scene scene;
  scene.submit(arrayOf(3));
  const WorkerId worker = scene.join();
  scene.takeInVain(worker, 2);
  scene.restart();
  const auto grants = scene.repeatTake(worker, 2).grants;
  ASSERT_EQ(grants.size(), 2U);
  EXPECT_EQ(grants[0].attempt.task, 0U);
  EXPECT_EQ(grants[1].attempt.task, 1U);
  EXPECT_EQ(grants[1].attempt.number, 2U);
}

TEST(Working, AGrantThatNeverArrivedIsNoAttempt) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(2));
  const WorkerId worker = scene.join();
  scene.takeInVain(worker);
  const AttemptKey attempt = scene.takeOne(worker);
  EXPECT_EQ(attempt.task, 0U);
  EXPECT_EQ(attempt.number, 2U);
  EXPECT_FALSE(scene.books().tables().attempts.contains({job, 0, 1}));
  EXPECT_EQ(scene.books().tables().ranges.size(), 1U);
}

TEST(Working, AnOldTakeThatComesLateIsRefused) {
  Scene scene;
  scene.submit(arrayOf(3));
  const WorkerId worker = scene.join();
  scene.takeOne(worker);
  scene.takeOne(worker);
  const auto late = scene.keep(scene.ledger().take({worker, 1, {}, {8, 0, {}}, 1}, scene.now()));
  EXPECT_EQ(late.refusal(), Refusal::staleTake);
}

TEST(Working, ARepeatedResultGetsTheFirstVerdict) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(1));
  const WorkerId worker = scene.join();
  const AttemptKey attempt = scene.takeOne(worker);
  EXPECT_TRUE(scene.finishInVain(worker, attempt).isAccepted);
  scene.restart();
  const Verdict again = scene.finish(worker, attempt, exitCode(1));
  EXPECT_TRUE(again.isAccepted);
  EXPECT_EQ(again.ending, kSuccess);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::succeeded);
  EXPECT_EQ(scene.attempt(attempt).details, "output");
}

TEST(Working, OneMessageWithTheSameResultTwiceGetsOneVerdictTwice) {
  Scene scene;
  scene.submit(arrayOf(1));
  const WorkerId worker = scene.join();
  const AttemptKey attempt = scene.takeOne(worker);
  const Finish event{worker, {{attempt, kSuccess, ""}, {attempt, exitCode(3), ""}}};
  const auto answer = scene.keep(scene.ledger().finish(event, scene.now())).answer();
  ASSERT_EQ(answer.verdicts.size(), 2U);
  EXPECT_TRUE(answer.verdicts[1].isAccepted);
  EXPECT_EQ(answer.verdicts[1].ending, kSuccess);
}

TEST(Working, ResultsOfStrangersAndOfUnknownAttemptsAreRefused) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(1));
  const AttemptKey attempt = scene.takeOne(scene.join());
  const WorkerId stranger = scene.join();
  EXPECT_FALSE(scene.finish(stranger, attempt).isAccepted);
  EXPECT_FALSE(scene.finish(stranger, {job, 0, 99}).isAccepted);
  EXPECT_FALSE(scene.finish(stranger, {JobId{99}, 0, attempt.number}).isAccepted);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::granted);
}

TEST(Working, AWorkerCannotSayThatATaskWasCancelledOrSkipped) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(1));
  const WorkerId worker = scene.join();
  const AttemptKey attempt = scene.takeOne(worker);
  for (const EndReason reason : {EndReason::none, EndReason::workerLost, EndReason::tookWorkerDown,
                                 EndReason::cancelled, EndReason::dependency, EndReason::superseded})
    EXPECT_FALSE(scene.finishInVain(worker, attempt, {reason, 0}).isAccepted);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::granted);
}

TEST(Working, WhatIsHandedBackIsNoAttempt) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(1));
  const WorkerId worker = scene.join();
  const AttemptKey attempt = scene.takeAndStart(worker);
  EXPECT_TRUE(scene.finish(worker, attempt, {EndReason::handedBack, 0}).isAccepted);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::ready);
  EXPECT_TRUE(scene.books().tables().tasks.empty());
  EXPECT_EQ(scene.run(worker).task, 0U);
}

TEST(Working, ARepeatedJoinIsTheSameWorker) {
  Scene scene;
  Join join;
  join.key = "one and the same";
  const WorkerId first = scene.keep(scene.ledger().join(join, scene.now())).answer().worker;
  EXPECT_EQ(scene.keep(scene.ledger().join(join, scene.now())).answer().worker, first);
  scene.restart();
  EXPECT_EQ(scene.keep(scene.ledger().join(join, scene.now())).answer().worker, first);
}

TEST(Working, WhoJoinsAnewKeepsWhatItRunsAndLosesWhatItDoesNot) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(3));
  Join join;
  join.key = "worker";
  join.resources = {8, 0, {}};
  const WorkerId worker = scene.keep(scene.ledger().join(join, scene.now())).answer().worker;
  const auto grants = scene.keep(scene.ledger().take({worker, 1, {}, {8, 0, {}}, 3}, scene.now())).answer().grants;
  ASSERT_EQ(grants.size(), 3U);
  scene.keep(scene.ledger().renew({worker, {{grants[1].attempt, true}}}, scene.now()));
  join.sequence = 1;
  join.held = {{grants[0].attempt, true}, {{job, 7, 99}, true}};
  const auto joined = scene.keep(scene.ledger().join(join, scene.now())).answer();
  EXPECT_EQ(joined.stop, (std::vector<AttemptKey>{{job, 7, 99}}));
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::running);
  EXPECT_EQ(scene.stateOf(job, 1), TaskState::ready);
  EXPECT_EQ(scene.task(job, 1).ending.reason, EndReason::workerLost);
  EXPECT_EQ(scene.stateOf(job, 2), TaskState::ready);
}

TEST(Working, AJoinThatComesLateTakesNothingBack) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(1));
  const WorkerId worker = scene.join();
  scene.takeOne(worker);
  Join late;
  late.key = scene.books().tables().workers.at(worker).key;
  scene.keep(scene.ledger().join(late, scene.now()));
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::granted);
}

TEST(Working, UnknownWorkersMustJoin) {
  Scene scene;
  EXPECT_EQ(scene.ledger().take({WorkerId{7}, 1, {}, {}, 1}, scene.now()).refusal(), Refusal::unknownWorker);
  EXPECT_EQ(scene.ledger().renew({WorkerId{7}, {}}, scene.now()).refusal(), Refusal::unknownWorker);
  EXPECT_EQ(scene.ledger().drainWorker(WorkerId{7}, scene.now()).refusal(), Refusal::unknownWorker);
  EXPECT_EQ(scene.ledger().workerLost(WorkerId{7}, LossCause::explained, scene.now()).refusal(),
            Refusal::unknownWorker);
}

TEST(Working, ADrainedWorkerKeepsWhatItHasAndGetsNothingMore) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(2));
  const WorkerId worker = scene.join();
  const AttemptKey attempt = scene.takeOne(worker);
  EXPECT_EQ(scene.keep(scene.ledger().drainWorker(worker, scene.now())).answer().attempts, 1U);
  scene.restart();
  EXPECT_TRUE(scene.take(worker).grants.empty());
  EXPECT_FALSE(scene.ledger().hasWorkFor(worker, {8, 0, {}}));
  EXPECT_TRUE(scene.finish(worker, attempt).isAccepted);
  EXPECT_EQ(scene.stateOf(job, 1), TaskState::ready);
}

// --- leases ---

TEST(Leases, AWorkerThatIsHeardOfKeepsItsAttempts) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(1));
  const WorkerId worker = scene.join();
  scene.takeAndStart(worker);
  scene.pass(10min, {worker});
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::running);
}

// The lapsed task is a suspect, for which the idle one is kept free; so another task would go to the unreachable one.
TEST(Leases, AnUnreachableWorkerIsOfferedNothing) {
  Scene scene;
  scene.submit(arrayOf(1));
  const WorkerId silent = scene.join();
  scene.takeAndStart(silent);
  const WorkerId idle = scene.join();
  scene.lapse(silent, {idle});
  scene.submit(arrayOf(1));
  EXPECT_FALSE(scene.ledger().hasWorkFor(silent, {8, 0, {}}));
  EXPECT_TRUE(scene.ledger().hasWorkFor(idle, {8, 0, {}}));
  scene.renew(silent);
  EXPECT_TRUE(scene.ledger().hasWorkFor(silent, {8, 0, {}}));
}

TEST(Leases, WhenOneLapsesItsTasksAreReadyForOthers) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(2));
  const WorkerId worker = scene.join();
  scene.takeAndStart(worker);
  scene.takeOne(worker);
  scene.pass(59s);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::running);
  scene.pass(1s);
  EXPECT_EQ(scene.stateOf(worker), WorkerState::unreachable);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::ready);
  EXPECT_EQ(scene.task(job, 0).retries[static_cast<std::size_t>(EndReason::workerLost)], 1U);
  EXPECT_EQ(scene.task(job, 1).retries[static_cast<std::size_t>(EndReason::workerLost)], 0U);
}

TEST(Leases, ARestartGivesEachAFullMinute) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(1));
  scene.takeAndStart(scene.join());
  scene.pass(59s);
  scene.restart();
  scene.pass(59s);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::running);
  scene.pass(1s);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::ready);
}

TEST(Leases, TimeInWhichTheServiceStoodStillDoesNotCount) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(1));
  scene.takeAndStart(scene.join());
  Moment later = scene.now();
  later.running += 24h;
  scene.keep(scene.ledger().tick(later));
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::running);
}

TEST(Leases, ALapsedAttemptDeliversUntilItsSuccessorIsGranted) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(1));
  const WorkerId worker = scene.join();
  const AttemptKey attempt = scene.takeAndStart(worker);
  scene.lapse(worker);
  scene.restart();
  EXPECT_TRUE(scene.finish(worker, attempt).isAccepted);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::succeeded);
}

TEST(Leases, ALapsedAttemptIsRefusedOnceItsSuccessorIsGranted) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(1));
  const WorkerId lost = scene.join();
  const WorkerId other = scene.join();
  const AttemptKey attempt = scene.takeAndStart(lost);
  scene.lapse(lost, {other});
  const AttemptKey successor = scene.takeOne(other);
  const Verdict verdict = scene.finish(lost, attempt);
  EXPECT_FALSE(verdict.isAccepted);
  EXPECT_EQ(verdict.ending.reason, EndReason::superseded);
  EXPECT_EQ(scene.stateOf(lost), WorkerState::gone);
  EXPECT_TRUE(scene.finish(other, successor).isAccepted);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::succeeded);
}

TEST(Leases, AWorkerThatIsHeardOfAgainHasItsAttemptsBack) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(2));
  const WorkerId worker = scene.join();
  const AttemptKey running = scene.takeAndStart(worker);
  const AttemptKey granted = scene.takeOne(worker);
  scene.lapse(worker);
  EXPECT_TRUE(scene.renew(worker).stop.empty());
  EXPECT_EQ(scene.stateOf(worker), WorkerState::active);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::running);
  EXPECT_EQ(scene.stateOf(job, 1), TaskState::granted);
  EXPECT_EQ(scene.task(job, 0).retries, RetryCounts{});
  EXPECT_FALSE(scene.task(job, 0).alone);
  EXPECT_TRUE(scene.finish(worker, running).isAccepted);
  EXPECT_TRUE(scene.finish(worker, granted).isAccepted);
}

TEST(Leases, AWorkerThatIsHeardOfTooLateIsToldToStop) {
  Scene scene;
  scene.submit(arrayOf(1));
  const WorkerId lost = scene.join();
  const WorkerId other = scene.join();
  const AttemptKey attempt = scene.takeAndStart(lost);
  const AttemptKey kept = [&] {
    scene.submit(arrayOf(1));
    return scene.takeAndStart(lost);
  }();
  scene.lapse(lost, {other});
  EXPECT_EQ(scene.takeOne(other).task, attempt.task);
  EXPECT_EQ(scene.renew(lost).stop, std::vector{attempt});
  EXPECT_TRUE(scene.finish(lost, kept).isAccepted);
}

TEST(Leases, AnIdleWorkerThatLapsesIsGone) {
  Scene scene;
  const WorkerId worker = scene.join();
  scene.lapse(worker);
  EXPECT_EQ(scene.stateOf(worker), WorkerState::gone);
  EXPECT_EQ(scene.ledger().take({worker, 1, {}, {}, 1}, scene.now()).refusal(), Refusal::unknownWorker);
}

// --- tasks that end badly ---

TEST(Retries, WithoutARuleAFailureIsFinal) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(1));
  scene.run(scene.join(), exitCode(3));
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::failed);
  EXPECT_EQ(scene.task(job, 0).ending, exitCode(3));
}

TEST(Retries, EachReasonHasItsOwnNumber) {
  Scene scene;
  ArraySpec array = arrayOf(1);
  array.retries.exitCode.limit = 1;
  array.retries.signal.limit = 1;
  const JobId job = scene.submit(array);
  const WorkerId worker = scene.join();
  scene.run(worker, exitCode(1));
  scene.restart();
  scene.run(worker, {EndReason::signal, 11});
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::ready);
  scene.run(worker, {EndReason::signal, 11});
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::failed);
  EXPECT_EQ(scene.task(job, 0).ending, (Ending{EndReason::signal, 11}));
}

TEST(Retries, ComeAfterTheirDelay) {
  Scene scene;
  ArraySpec array = arrayOf(1);
  array.retries.exitCode = {2, 10s, {}};
  const JobId job = scene.submit(array);
  const WorkerId worker = scene.join();
  scene.run(worker, exitCode(1));
  EXPECT_TRUE(scene.take(worker).grants.empty());
  EXPECT_EQ(scene.ledger().whyWaiting(job, 0)->kind, WaitReason::Kind::delay);
  scene.pass(10s);
  scene.run(worker, exitCode(1));
  scene.pass(19s);
  EXPECT_TRUE(scene.take(worker).grants.empty());
  EXPECT_EQ(scene.ledger().nextDelayEnd(), scene.now().running + 1s);
  scene.pass(1s);
  scene.run(worker);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::succeeded);
}

TEST(Retries, ARestartBeginsTheDelayAnew) {
  Scene scene;
  ArraySpec array = arrayOf(1);
  array.retries.exitCode = {1, 10s, {}};
  scene.submit(array);
  const WorkerId worker = scene.join();
  scene.run(worker, exitCode(1));
  scene.pass(9s);
  scene.restart();
  scene.pass(9s);
  EXPECT_TRUE(scene.take(worker).grants.empty());
  scene.pass(1s);
  scene.run(worker);
}

TEST(Losses, OnlyStartedAttemptsCount) {
  Scene scene;
  ArraySpec array = arrayOf(2);
  array.retries.workerLost.limit = 0;  // never run twice
  const JobId job = scene.submit(array);
  const WorkerId worker = scene.join();
  const auto grants = scene.take(worker, 2).grants;
  ASSERT_EQ(grants.size(), 2U);
  EXPECT_TRUE(grants[0].reportStart);
  scene.start(worker, grants[0].attempt);
  scene.lose(worker, LossCause::explained);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::failed);
  EXPECT_EQ(scene.task(job, 0).ending.reason, EndReason::workerLost);
  EXPECT_EQ(scene.stateOf(job, 1), TaskState::ready);
}

TEST(Losses, ALostWorkerHasNothingToDeliver) {
  Scene scene;
  scene.submit(arrayOf(1));
  const WorkerId worker = scene.join();
  const AttemptKey attempt = scene.takeAndStart(worker);
  scene.lose(worker);
  const Verdict verdict = scene.finish(worker, attempt);
  EXPECT_FALSE(verdict.isAccepted);
  EXPECT_EQ(verdict.ending.reason, EndReason::workerLost);
}

TEST(Losses, AnUnexplainedOneMakesSuspectsThatRunAlone) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(2));
  const WorkerId lost = scene.join();
  scene.takeAndStart(lost);
  scene.takeOne(lost);
  scene.lose(lost);
  scene.submit(arrayOf(5));
  scene.restart();

  const WorkerId worker = scene.join();
  const auto grants = scene.take(worker, 5).grants;
  ASSERT_EQ(grants.size(), 1U);
  EXPECT_EQ(grants[0].attempt.job, job);
  EXPECT_TRUE(grants[0].alone);
  EXPECT_TRUE(grants[0].reportStart);
  EXPECT_TRUE(scene.take(worker, 5).grants.empty());
  EXPECT_EQ(scene.ledger().whyWaiting(job, 1)->kind, WaitReason::Kind::alone);
  scene.finish(worker, grants[0].attempt);
}

TEST(Losses, AnExplainedOneMakesNoSuspects) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(1));
  const WorkerId worker = scene.join();
  scene.takeAndStart(worker);
  scene.lose(worker, LossCause::explained);
  EXPECT_FALSE(scene.task(job, 0).alone);
}

TEST(Losses, AnExplanationThatComesLateClearsTheSuspects) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(2));
  const WorkerId worker = scene.join();
  scene.takeAndStart(worker);
  scene.takeOne(worker);
  scene.lapse(worker);
  EXPECT_TRUE(scene.task(job, 0).alone);
  scene.lose(worker, LossCause::explained);
  EXPECT_FALSE(scene.task(job, 0).alone);
  EXPECT_EQ(scene.stateOf(job, 1), TaskState::ready);
  EXPECT_FALSE(scene.books().tables().tasks.contains({job, 1}));
}

// Loses a worker that runs the task.
void takeDown(Scene& scene, LossCause cause) {
  const WorkerId worker = scene.join();
  scene.takeAndStart(worker);
  scene.lose(worker, cause);
}

TEST(Losses, ATaskThatTakesItsWorkerDownThreeTimesAloneFails) {
  Scene scene;
  const JobId job = scene.submit(arrayOf(1));
  takeDown(scene, LossCause::unexplained);  // among others, for all that is known
  takeDown(scene, LossCause::unexplained);
  takeDown(scene, LossCause::explained);
  takeDown(scene, LossCause::unexplained);
  scene.restart();
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::ready);
  takeDown(scene, LossCause::unexplained);
  EXPECT_EQ(scene.stateOf(job, 0), TaskState::failed);
  EXPECT_EQ(scene.task(job, 0).ending.reason, EndReason::tookWorkerDown);
}

TEST(Losses, ASuspectThatLetsItsWorkerLiveIsNoneAnyMore) {
  Scene scene;
  ArraySpec array = arrayOf(1);
  array.retries.exitCode.limit = 1;
  const JobId job = scene.submit(array);
  takeDown(scene, LossCause::unexplained);
  scene.run(scene.join(), exitCode(1));
  EXPECT_FALSE(scene.task(job, 0).alone);
  EXPECT_FALSE(scene.take(scene.join()).grants.at(0).alone);
}

}  // namespace
}  // namespace parallel::scheduler::ledger
