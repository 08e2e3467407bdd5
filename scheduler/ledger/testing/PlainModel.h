// What a ledger should do, written as plainly as can be: each task is a value of its own, and each question a loop.
#pragma once

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "scheduler/ledger/Books.h"
#include "scheduler/ledger/clientEvents.h"
#include "scheduler/ledger/workerEvents.h"

namespace parallel::scheduler::ledger::testing {

class PlainModel {
 public:
  struct Task {
    TaskKey key;
    ArraySpec spec;
    TaskNumber arrayFirst = 0;
    TaskState state = TaskState::waiting;
    AttemptNumber attempt = 0;
    RetryCounts retries{};
    std::uint32_t deaths = 0;
    bool alone = false;
    std::optional<Duration> delayedUntil;
  };
  struct Attempt {
    AttemptKey key;
    WorkerId worker{};
    AttemptState state = AttemptState::granted;
    bool alone = false;
    bool counted = false;  // as a loss, when it lapsed
    bool accepted = false;
    Ending ending{};
  };
  struct Worker {
    Resources resources;
    WorkerState state = WorkerState::active;
    Duration heard{};
  };
  struct Job {
    std::int32_t priority = 0;
    bool held = false;
    bool open = false;
    bool hadEnded = false;
  };

  void submit(JobId id, const SubmitJob& event) {
    jobs_[id] = {event.priority, event.held, event.open};
    extend(id, event.arrays);
  }
  void extend(JobId id, const std::vector<ArraySpec>& arrays) {
    for (const ArraySpec& spec : arrays) {
      const TaskNumber first = countOf(id);
      for (TaskNumber task = first; task < first + spec.count; ++task) {
        Task added;
        added.key = {id, task};
        added.spec = spec;
        added.arrayFirst = first;
        for (Dependency& dependency : added.spec.dependencies)
          dependency.job = dependency.job == JobId{} ? id : dependency.job;
        tasks_.emplace(added.key, std::move(added));
      }
    }
    settle();
  }
  void close(JobId id) {
    jobs_.at(id).open = false;
    settle();
  }
  Job& job(JobId id) { return jobs_.at(id); }
  TaskNumber countOf(JobId id) const {
    return static_cast<TaskNumber>(
        std::count_if(tasks_.begin(), tasks_.end(), [id](const auto& entry) { return entry.first.job == id; }));
  }

  void join(WorkerId id, const Resources& resources, Duration now) {
    workers_[id] = {resources, WorkerState::active, now};
  }
  bool isThere(WorkerId id) const { return workers_.at(id).state != WorkerState::gone; }

  // Whatever a worker sends: what it has is its own.
  std::vector<AttemptKey> hear(WorkerId id, const std::vector<HeldAttempt>& held, Duration now) {
    workers_.at(id).heard = now;
    workers_.at(id).state = WorkerState::active;
    std::vector<AttemptKey> stop;
    for (const auto& [key, isStarted] : held) {
      Attempt* attempt = find(key, id);
      if (!attempt) {
        stop.push_back(key);
        continue;
      }
      Task& task = taskOf(*attempt);
      if (attempt->state == AttemptState::lapsed) {
        const bool ran = attempt->counted;
        clear(*attempt, task);
        task.delayedUntil.reset();
        attempt->state = ran ? AttemptState::started : AttemptState::granted;
      }
      if (isStarted)
        attempt->state = AttemptState::started;
      task.state = attempt->state == AttemptState::started ? TaskState::running : TaskState::granted;
    }
    return stop;
  }
  // With a new `take`: what it does not have never arrived, or was lost.
  void takeBack(WorkerId id, const std::vector<HeldAttempt>& held) {
    for (auto& [number, attempt] : attempts_) {
      if (attempt.worker != id || attempt.state == AttemptState::ended)
        continue;
      const bool isHeld = std::any_of(held.begin(), held.end(),
                                      [&key = attempt.key](const HeldAttempt& other) { return other.attempt == key; });
      if (isHeld)
        continue;
      const bool neverArrived = attempt.state == AttemptState::granted;
      lose(attempt, LossCause::explained);
      if (neverArrived)
        attempt.ending = {};
    }
    settle();
  }
  // Empty when the ledger could grant this; then it is granted.
  std::string grant(WorkerId id, const Grant& grant, Resources& room) {
    const std::optional<Turn> best = bestFor(id, room);
    Task& task = tasks_.at({grant.attempt.job, grant.attempt.task});
    if (!best)
      return "nothing may be granted";
    if (*best != turnOf(task) || !mayBeGranted(task, id, opennessOf(id), room))
      return "it was not its turn";
    if (grant.alone != task.alone)
      return "a suspect runs alone, and nobody else";
    if (Attempt* before = live(task))
      end(*before, false, {EndReason::superseded, 0});
    room.subtract(task.spec.needs);
    task.state = TaskState::granted;
    task.attempt = grant.attempt.number;
    attempts_[grant.attempt.number] = {grant.attempt, id, AttemptState::granted, grant.alone};
    settle();
    return {};
  }
  // Nothing goes to a worker that may not be there any more.
  bool couldGrant(WorkerId id, const Resources& room) const {
    return workers_.at(id).state == WorkerState::active && bestFor(id, room).has_value();
  }

  Verdict finish(WorkerId id, const Result& result, Duration now) {
    if (isThere(id))
      hear(id, {}, now);
    Attempt* attempt = find(result.attempt, id);
    if (!attempt) {
      const auto known = attempts_.find(result.attempt.number);
      return known == attempts_.end() ? Verdict{result.attempt, false, {}}
                                      : Verdict{result.attempt, known->second.accepted, known->second.ending};
    }
    Task& task = taskOf(*attempt);
    if (attempt->state == AttemptState::lapsed)
      clear(*attempt, task);
    end(*attempt, true, result.ending);
    task.delayedUntil.reset();
    if (result.ending.reason == EndReason::handedBack) {
      task.state = TaskState::ready;
    } else if (result.ending.reason == EndReason::success) {
      task.state = TaskState::succeeded;
    } else {
      task.alone = false;
      retryOrFail(task, result.ending, now);
    }
    settle();
    return {result.attempt, true, result.ending};
  }
  void workerLost(WorkerId id, LossCause cause) {
    for (auto& [number, attempt] : attempts_) {
      if (attempt.worker == id && attempt.state != AttemptState::ended)
        lose(attempt, cause);
    }
    workers_.at(id).state = WorkerState::gone;
    settle();
  }
  void tick(Duration now) {
    now_ = now;
    for (auto& [id, worker] : workers_) {
      if (worker.state != WorkerState::active || now - worker.heard < std::chrono::minutes(1))
        continue;
      worker.state = WorkerState::unreachable;
      for (auto& [number, attempt] : attempts_) {
        if (attempt.worker == id && attempt.state != AttemptState::ended)
          lapse(attempt);
      }
    }
    for (auto& [key, task] : tasks_) {
      if (task.delayedUntil && *task.delayedUntil <= now)
        task.delayedUntil.reset();
    }
    settle();
  }
  // Leases and delays begin anew.
  void restart(Duration now) {
    for (auto& [id, worker] : workers_)
      worker.heard = now;
    for (auto& [key, task] : tasks_) {
      if (task.delayedUntil)
        task.delayedUntil = now + delays_.at(key);
    }
  }
  void cancel(JobId id, const TaskSet& some) {
    for (auto& [key, task] : tasks_) {
      if (key.job != id || !some.contains(key.task) || hasEnded(task.state))
        continue;
      if (Attempt* attempt = live(task))
        end(*attempt, false, {EndReason::cancelled, 0});
      task.state = TaskState::cancelled;
      task.delayedUntil.reset();
    }
    settle();
  }
  // Whether there was anything to retry.
  bool retry(JobId id) {
    bool areAny = false;
    for (auto& [key, task] : tasks_) {
      const bool isWanted = task.state == TaskState::failed || task.state == TaskState::cancelled;
      if (key.job == id && isWanted && !isHopeless(task)) {
        renewRound(task);
        areAny = true;
      }
    }
    settle();
    return areAny;
  }

  std::map<TaskKey, TaskState> states() const {
    std::map<TaskKey, TaskState> all;
    for (const auto& [key, task] : tasks_)
      all.emplace(key, task.state);
    return all;
  }

 private:
  using Turn = std::tuple<std::int64_t, std::uint64_t, JobId>;

  static bool isActive(const Task& task) {
    return task.state == TaskState::granted || task.state == TaskState::running;
  }
  Task& taskOf(const Attempt& attempt) { return tasks_.at({attempt.key.job, attempt.key.task}); }
  Attempt* find(const AttemptKey& key, WorkerId worker) {
    const auto place = attempts_.find(key.number);
    const bool fits = place != attempts_.end() && place->second.key == key && place->second.worker == worker &&
                      place->second.state != AttemptState::ended;
    return fits ? &place->second : nullptr;
  }
  Attempt* live(const Task& task) {
    const auto place = attempts_.find(task.attempt);
    return place != attempts_.end() && place->second.state != AttemptState::ended ? &place->second : nullptr;
  }
  int attemptsOf(WorkerId id) const {
    return static_cast<int>(std::count_if(attempts_.begin(), attempts_.end(), [id](const auto& entry) {
      return entry.second.worker == id && entry.second.state != AttemptState::ended;
    }));
  }

  static void end(Attempt& attempt, bool accepted, Ending ending) {
    attempt.state = AttemptState::ended;
    attempt.accepted = accepted;
    attempt.ending = ending;
  }
  static void clear(Attempt& attempt, Task& task) {
    if (attempt.counted) {
      --task.retries.at(static_cast<std::size_t>(EndReason::workerLost));
      task.deaths -= attempt.alone ? 1 : 0;
    }
    attempt.counted = false;
    task.alone = attempt.alone;
  }
  void retryOrFail(Task& task, Ending ending, Duration now) {
    const RetryRule* rule = task.spec.retries.find(ending);
    std::uint32_t& retries = task.retries.at(static_cast<std::size_t>(ending.reason));
    if (!rule || retries >= rule->limit) {
      task.state = TaskState::failed;
      return;
    }
    task.state = TaskState::ready;
    const Duration delay = rule->delayBefore(++retries);
    task.delayedUntil = delay > Duration::zero() ? std::optional(now + delay) : std::nullopt;
    delays_[task.key] = delay;
  }
  void countLoss(Task& task, bool ranAlone, LossCause cause) {
    if (cause == LossCause::unexplained)
      task.alone = true;
    if (cause == LossCause::unexplained && ranAlone && ++task.deaths >= task.spec.deathsAllowed)
      task.state = TaskState::failed;
    else
      retryOrFail(task, {EndReason::workerLost, 0}, now_);
  }
  void lapse(Attempt& attempt) {
    Task& task = taskOf(attempt);
    attempt.counted = attempt.state == AttemptState::started;
    attempt.state = AttemptState::lapsed;
    if (attempt.counted) {
      countLoss(task, attempt.alone, LossCause::unexplained);
    } else {
      task.alone = true;
      task.state = TaskState::ready;
    }
    if (hasEnded(task.state))
      end(attempt, false, {EndReason::workerLost, 0});
  }
  void lose(Attempt& attempt, LossCause cause) {
    Task& task = taskOf(attempt);
    const Attempt before = attempt;
    const bool isExplained = cause == LossCause::explained;
    if (before.state == AttemptState::lapsed && isExplained)
      clear(attempt, task);
    end(attempt, false, {EndReason::workerLost, 0});
    if (before.state == AttemptState::started) {
      countLoss(task, before.alone, cause);
    } else if (before.state == AttemptState::lapsed && isExplained && before.counted) {
      retryOrFail(task, {EndReason::workerLost, 0}, now_);
    } else {
      task.alone = task.alone || (before.state == AttemptState::granted && !isExplained);
      task.state = TaskState::ready;
      if (before.state != AttemptState::lapsed || isExplained)
        task.delayedUntil.reset();
    }
  }
  void renewRound(Task& task) {
    task.state = TaskState::waiting;
    task.retries = {};
    task.deaths = 0;
    task.alone = false;
    task.attempt = 0;
  }

  bool hasJobEnded(JobId id) const {
    return !jobs_.at(id).open && std::all_of(tasks_.begin(), tasks_.end(), [id](const auto& entry) {
      return entry.first.job != id || hasEnded(entry.second.state);
    });
  }
  bool hasJobSucceeded(JobId id) const {
    return std::all_of(tasks_.begin(), tasks_.end(), [id](const auto& entry) {
      return entry.first.job != id || entry.second.state == TaskState::succeeded;
    });
  }
  TaskState dependeeOf(const Task& task, const Dependency& dependency) const {
    if (dependency.kind == Dependency::Kind::wholeJob) {
      if (!hasJobEnded(dependency.job))
        return TaskState::waiting;
      return hasJobSucceeded(dependency.job) ? TaskState::succeeded : TaskState::failed;
    }
    const TaskNumber index = dependency.kind == Dependency::Kind::sameIndex ? task.key.task - task.arrayFirst : 0;
    return tasks_.at({dependency.job, dependency.task + index}).state;
  }
  bool isHopeless(const Task& task) const {
    return std::any_of(task.spec.dependencies.begin(), task.spec.dependencies.end(), [&](const Dependency& dependency) {
      const TaskState state = dependeeOf(task, dependency);
      return hasEnded(state) && state != TaskState::succeeded;
    });
  }
  bool isFree(const Task& task) const {
    return std::all_of(task.spec.dependencies.begin(), task.spec.dependencies.end(), [&](const Dependency& dependency) {
      return dependeeOf(task, dependency) == TaskState::succeeded;
    });
  }
  void settle() {
    for (bool isSettled = false; !isSettled;) {
      isSettled = true;
      for (auto& [key, task] : tasks_) {
        const TaskState before = task.state;
        if (task.state == TaskState::skipped && !isHopeless(task))
          renewRound(task);
        if (task.state == TaskState::waiting && isHopeless(task))
          task.state = TaskState::skipped;
        if (task.state == TaskState::waiting && isFree(task))
          task.state = TaskState::ready;
        isSettled = isSettled && task.state == before;
      }
    }
    for (auto& [id, worker] : workers_) {
      if (worker.state == WorkerState::unreachable && attemptsOf(id) == 0)
        worker.state = WorkerState::gone;
    }
  }

  std::uint64_t activeOf(JobId job, std::optional<TaskNumber> arrayFirst) const {
    std::uint64_t sum = 0;
    for (const auto& [key, task] : tasks_) {
      if (key.job == job && isActive(task) && (!arrayFirst || task.arrayFirst == *arrayFirst))
        sum += arrayFirst ? 1 : std::max<std::uint64_t>(1, task.spec.needs.cores);
    }
    return sum;
  }
  Turn turnOf(const Task& task) const {
    const JobId id = task.key.job;
    return {-std::int64_t{jobs_.at(id).priority}, activeOf(id, std::nullopt), id};
  }
  bool isOffered(const Task& task) const {
    return task.state == TaskState::ready && !task.delayedUntil && !jobs_.at(task.key.job).held &&
           (task.spec.atOnce == 0 || activeOf(task.key.job, task.arrayFirst) < task.spec.atOnce);
  }
  bool isKeptFree(WorkerId id) const {
    std::optional<std::pair<Turn, Resources>> suspect;
    for (const auto& [key, task] : tasks_) {
      if (task.alone && isOffered(task) && workers_.at(id).resources.covers(task.spec.needs)) {
        const std::pair<Turn, Resources> candidate{turnOf(task), task.spec.needs};
        if (!suspect || candidate < *suspect)
          suspect = candidate;
      }
    }
    if (!suspect)
      return false;
    return std::none_of(workers_.begin(), workers_.end(), [&](const auto& entry) {
      return entry.second.state == WorkerState::active && entry.second.resources.covers(suspect->second) &&
             std::pair(attemptsOf(entry.first), entry.first) < std::pair(attemptsOf(id), id);
    });
  }
  // Whether the worker is given tasks at all: those that share it, those that are alone.
  struct Openness {
    bool forOthers = true;
    bool forSuspects = true;
  };
  Openness opennessOf(WorkerId id) const {
    if (attemptsOf(id) == 0)
      return {true, true};
    const bool runsSuspect = std::any_of(attempts_.begin(), attempts_.end(), [id](const auto& entry) {
      return entry.second.worker == id && entry.second.state != AttemptState::ended && entry.second.alone;
    });
    return {!runsSuspect && !isKeptFree(id), false};
  }
  bool mayBeGranted(const Task& task, WorkerId id, Openness open, const Resources& room) const {
    return isOffered(task) && room.covers(task.spec.needs) && workers_.at(id).resources.covers(task.spec.needs) &&
           (task.alone ? open.forSuspects : open.forOthers);
  }
  std::optional<Turn> bestFor(WorkerId id, const Resources& room) const {
    const Openness open = opennessOf(id);
    std::optional<Turn> best;
    for (const auto& [key, task] : tasks_) {
      if (mayBeGranted(task, id, open, room) && (!best || turnOf(task) < *best))
        best = turnOf(task);
    }
    return best;
  }

  std::map<JobId, Job> jobs_;
  std::map<TaskKey, Task> tasks_;
  std::map<AttemptNumber, Attempt> attempts_;
  std::map<WorkerId, Worker> workers_;
  std::map<TaskKey, Duration> delays_;
  Duration now_{};
};

}  // namespace parallel::scheduler::ledger::testing
