// Long random histories of larger worlds, beside a plain model of what should be. A failure prints how to repeat it.
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "scheduler/ledger/testing/PlainModel.h"
#include "scheduler/ledger/testing/Scene.h"
#include "scheduler/ledger/testing/invariants.h"

namespace parallel::scheduler::ledger {
namespace {

using testing::PlainModel;
using testing::Scene;

template <class Number>
Number upTo(Number greatest) {
  return *rc::gen::inRange<Number>(0, greatest + 1);
}

bool isLikely() {
  return upTo(3) > 0;
}

template <class Element>
Element anyOf(const std::vector<Element>& elements) {
  return elements.at(upTo(elements.size() - 1));
}

class History {
 public:
  History() { model_.tick(scene_.now().running); }

  void step() {
    switch (upTo(15)) {
      case 0:
        return submit();
      case 1:
        return extendOrClose();
      case 2:
        return join();
      case 3:
      case 4:
      case 5:
        return take();
      case 6:
      case 7:
        return renew();
      case 8:
      case 9:
      case 10:
        return finish();
      case 11:
        return pass();
      case 12:
        return lose();
      case 13:
        return cancelOrRetry();
      case 14:
        return steer();
      default:
        scene_.restart();
        return model_.restart(scene_.now().running);
    }
  }

  void check() const {
    std::string complaint = testing::complaintOf(scene_.books().tables());
    RC_ASSERT(complaint == "");
    RC_ASSERT(testing::statesOf(scene_.books().tables(), complaint) == model_.states());
    for (const WorkerId worker : livingWorkers()) {
      const Resources room = scene_.roomOf(worker);
      RC_ASSERT(scene_.ledger().hasWorkFor(worker, room) == model_.couldGrant(worker, room));
    }
  }

 private:
  std::vector<WorkerId> livingWorkers() const {
    std::vector<WorkerId> living;
    for (const WorkerId worker : workers_) {
      if (model_.isThere(worker))
        living.push_back(worker);
    }
    return living;
  }

  ArraySpec anyArray(TaskNumber earlierTasks, JobId self) {
    ArraySpec array;
    array.count = 1 + upTo<std::uint64_t>(4);
    array.needs.cores = upTo(2U);
    array.atOnce = upTo(2) == 0 ? 1 + upTo<std::uint64_t>(2) : 0;
    array.deathsAllowed = 1 + upTo(1U);
    array.retries.exitCode = {upTo(2U), std::chrono::seconds(upTo(3)), {}};
    if (!isLikely())
      array.retries.workerLost = {upTo(1U), std::chrono::seconds(upTo(2)), {}};
    const int dependencies = upTo(2);
    for (int each = 0; each < dependencies; ++each)
      addDependency(array, earlierTasks, self);
    return array;
  }

  void addDependency(ArraySpec& array, TaskNumber earlierTasks, JobId self) {
    const bool onOther = !jobs_.empty() && isLikely();
    const JobId job = onOther ? anyOf(jobs_) : JobId{};
    const TaskNumber count = onOther ? model_.countOf(job) : earlierTasks;
    const bool onJob = onOther && job != self && upTo(2) == 0;
    if (onJob)
      array.dependencies.push_back({Dependency::Kind::wholeJob, job, 0});
    else if (count >= array.count && isLikely())
      array.dependencies.push_back({Dependency::Kind::sameIndex, job, upTo(count - array.count)});
    else if (count > 0)
      array.dependencies.push_back({Dependency::Kind::oneTask, job, upTo(count - 1)});
  }

  std::vector<ArraySpec> anyArrays(TaskNumber tasks, JobId self) {
    std::vector<ArraySpec> arrays(1 + upTo<std::size_t>(1));
    for (ArraySpec& array : arrays) {
      array = anyArray(tasks, self);
      tasks += array.count;
    }
    return arrays;
  }

  void submit() {
    if (jobs_.size() == 4)
      return;
    SubmitJob event;
    event.arrays = anyArrays(0, JobId{});
    event.priority = upTo(1);
    event.held = !isLikely();
    event.open = !isLikely();
    jobs_.push_back(scene_.submit(event));
    model_.submit(jobs_.back(), event);
  }

  void extendOrClose() {
    if (jobs_.empty())
      return;
    const JobId job = anyOf(jobs_);
    const TaskNumber next = model_.countOf(job);
    if (isLikely() && next < 15) {
      const ExtendJob event{job, next, "more", anyArrays(next, job)};
      const auto decision = scene_.keep(scene_.ledger().extendJob(event, scene_.now()));
      RC_ASSERT(decision.isRefused() == !model_.job(job).open);
      if (!decision.isRefused())
        model_.extend(job, event.arrays);
    } else {
      scene_.keep(scene_.ledger().closeJob(job, scene_.now()));
      model_.close(job);
    }
  }

  void join() {
    if (livingWorkers().size() == 3)
      return;
    const Resources resources{1 + upTo(3U), 0, {}};
    workers_.push_back(scene_.join(resources));
    model_.join(workers_.back(), resources, scene_.now().running);
  }

  void take() {
    if (livingWorkers().empty())
      return;
    const WorkerId worker = anyOf(livingWorkers());
    const auto held = scene_.heldBy(worker);
    Resources room = scene_.roomOf(worker);
    const std::uint32_t limit = 1 + upTo(2U);
    const bool isLost = !isLikely();
    if (isLost)
      scene_.takeInVain(worker, limit);
    const auto stop = model_.hear(worker, held, scene_.now().running);
    model_.takeBack(worker, held);
    const Taken taken = isLost ? scene_.keep(repeated(worker, held, limit)).answer() : scene_.take(worker, limit);
    RC_ASSERT(taken.stop == stop);
    for (const Grant& grant : taken.grants) {
      RC_ASSERT(model_.grant(worker, grant, room) == "");
      given_.push_back({worker, grant.attempt});
    }
    if (!isLost && taken.grants.size() < limit)
      RC_ASSERT(!model_.couldGrant(worker, room));
  }
  // The same take once more. Its answer is lost, too: the next one takes the grants back.
  Decision<Taken> repeated(WorkerId worker, const std::vector<HeldAttempt>& held, std::uint32_t limit) {
    return scene_.ledger().take({worker, scene_.sequenceOf(worker), held, scene_.roomOf(worker), limit}, scene_.now());
  }

  void renew() {
    if (livingWorkers().empty())
      return;
    const WorkerId worker = anyOf(livingWorkers());
    auto held = scene_.heldBy(worker);
    if (!held.empty() && isLikely()) {
      HeldAttempt& starting = held.at(upTo(held.size() - 1));
      starting.isStarted = true;
      const auto stop = model_.hear(worker, held, scene_.now().running);
      scene_.start(worker, starting.attempt);
      return;
    }
    const auto stop = model_.hear(worker, held, scene_.now().running);
    RC_ASSERT(scene_.renew(worker).stop == stop);
  }

  void finish() {
    if (given_.empty())
      return;
    const auto [worker, attempt] = anyOf(given_);
    const auto kind = upTo(4);
    const Ending ending = kind == 0   ? Ending{EndReason::handedBack, 0}
                          : kind == 1 ? testing::exitCode(1)
                                      : testing::kSuccess;
    const Verdict verdict = scene_.finish(worker, attempt, ending);
    const Verdict expected = model_.finish(worker, {attempt, ending, ""}, scene_.now().running);
    RC_ASSERT(verdict.isAccepted == expected.isAccepted);
    RC_ASSERT(verdict.ending == expected.ending);
  }

  void pass() {
    std::vector<WorkerId> heard;
    for (const WorkerId worker : livingWorkers()) {
      if (isLikely())
        heard.push_back(worker);
    }
    const int count = upTo(40);
    for (int second = 0; second < count; ++second) {
      for (const WorkerId worker : heard) {
        if (!model_.isThere(worker))
          continue;
        model_.hear(worker, scene_.heldBy(worker), scene_.now().running);
        scene_.renew(worker);
      }
      scene_.pass(std::chrono::seconds(1));
      model_.tick(scene_.now().running);
    }
  }

  void lose() {
    if (livingWorkers().empty() || isLikely())
      return;
    const WorkerId worker = anyOf(livingWorkers());
    const LossCause cause = upTo(1) == 0 ? LossCause::explained : LossCause::unexplained;
    scene_.lose(worker, cause);
    model_.tick(scene_.now().running);
    model_.workerLost(worker, cause);
  }

  void cancelOrRetry() {
    if (jobs_.empty())
      return;
    const JobId job = anyOf(jobs_);
    if (isLikely()) {
      const std::string key = "retry " + std::to_string(++retries_);
      const auto decision = scene_.keep(scene_.ledger().retry({job, key, std::nullopt}, scene_.now()));
      RC_ASSERT(model_.retry(job) == !decision.isRefused());
    } else {
      const TaskNumber first = upTo<TaskNumber>(5);
      const TaskSet some(TaskSpan{first, first + upTo<TaskNumber>(3)});
      scene_.keep(scene_.ledger().cancel({job, some}, scene_.now()));
      model_.cancel(job, some);
    }
  }

  void steer() {
    if (jobs_.empty())
      return;
    const JobId job = anyOf(jobs_);
    const int what = upTo(2);
    if (what == 0) {
      const std::int32_t priority = upTo(2);
      scene_.keep(scene_.ledger().setPriority(job, priority, scene_.now()));
      model_.job(job).priority = priority;
    } else {
      const bool holds = what == 1 && !isLikely();
      scene_.keep(holds ? scene_.ledger().hold(job, scene_.now()) : scene_.ledger().release(job, scene_.now()));
      model_.job(job).held = holds;
    }
  }

  mutable Scene scene_;
  PlainModel model_;
  std::vector<JobId> jobs_;
  std::vector<WorkerId> workers_;
  std::vector<std::pair<WorkerId, AttemptKey>> given_;
  int retries_ = 0;
};

RC_GTEST_PROP(Histories, GoAsAPlainModelSays, ()) {
  History history;
  const int steps = *rc::gen::inRange(50, 250);
  for (int step = 0; step < steps; ++step) {
    history.step();
    history.check();
  }
}

}  // namespace
}  // namespace parallel::scheduler::ledger
