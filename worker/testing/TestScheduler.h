// For tests: a service in this process that keeps the real ledger, and whose line can be cut.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/spf/core/Closable.h"
#include "platform/spf/inprocess/connectInProcess.h"
#include "platform/threads/Mutex.h"
#include "scheduler/ledger/Books.h"
#include "scheduler/ledger/Ledger.h"
#include "toolbox/Connection.h"
#include "toolbox/testing/messageMethods.h"

namespace parallel::worker {

// Threads: any.
class TestScheduler {
 public:
  TestScheduler() : ledger_(std::make_unique<Ledger>(books_)), service_(std::make_shared<agent::spf::core::Service>()) {
    blobs_.addTo(*service_);
    toolbox::addMessageMethod<zksmessages::JoinRequest>(*service_, "join", [this](const auto& r) { return join(r); });
    toolbox::addMessageMethod<zksmessages::TakeRequest>(*service_, "take", [this](const auto& r) { return take(r); });
    toolbox::addMessageMethod<zksmessages::RenewRequest>(*service_, "renew",
                                                         [this](const auto& r) { return renew(r); });
    toolbox::addMessageMethod<zksmessages::FinishRequest>(*service_, "finish",
                                                          [this](const auto& r) { return finish(r); });
  }
  ~TestScheduler() { cut(); }

  using JobId = scheduler::ledger::JobId;
  using Reason = scheduler::ledger::EndReason;

  JobId submit(const zksmessages::TaskArray& array, const scheduler::ledger::RetryRules& retries = {}) {
    const threads::MutexLock lock(mutex_);
    scheduler::ledger::SubmitJob event;
    event.key = "job" + std::to_string(arrays_.size());
    scheduler::ledger::ArraySpec spec;
    spec.count = array.count();
    if (array.has_needs())
      spec.needs = resourcesOf(array.needs());
    spec.retries = retries;
    event.arrays.push_back(spec);
    const JobId job = keep(ledger_->submitJob(event, now())).job;
    arrays_[static_cast<std::uint64_t>(job)] = array;
    changed_.notifyAll();
    return job;
  }
  // In the first array of the job.
  static zksmessages::TaskArray scripts(std::uint64_t count, const std::string& script) {
    zksmessages::TaskArray array;
    array.set_count(count);
    for (const std::string& argument : {std::string("/bin/sh"), std::string("-c"), script})
      array.mutable_command()->add_argv(argument);
    return array;
  }

  toolbox::Connection connect() {
    const threads::MutexLock lock(mutex_);
    if (away_)
      throw std::runtime_error("the test's service is away");
    ++connections_;
    auto invokable = agent::spf::inprocess::connectInProcess(service_);
    links_.push_back(invokable);
    return {std::move(invokable), "the test's service"};
  }

  // Ends all connections. While it is away there is no new one.
  void cut(bool away = true) {
    std::vector<std::weak_ptr<agent::spf::core::Invokable>> links;
    {
      const threads::MutexLock lock(mutex_);
      away_ = away;
      links.swap(links_);
      ++cuts_;
      changed_.notifyAll();
    }
    for (const auto& link : links) {
      if (const auto open = std::dynamic_pointer_cast<agent::spf::core::Closable>(link.lock()))
        open->close();
    }
  }
  void comeBack() {
    const threads::MutexLock lock(mutex_);
    away_ = false;
  }
  // All that is in memory is read back from the books; workers are forgotten when told so.
  void restart() {
    const threads::MutexLock lock(mutex_);
    ledger_ = std::make_unique<Ledger>(books_, books_.kept(), now());
  }

  void cancel(JobId job) {
    const threads::MutexLock lock(mutex_);
    scheduler::ledger::Cancel event;
    event.job = job;
    keep(ledger_->cancel(event, now()));
  }
  // The next verdicts are "later".
  void answerLater(int times) {
    const threads::MutexLock lock(mutex_);
    later_ = times;
  }
  // As the next that joins is told.
  void setRenewEvery(std::chrono::milliseconds time) {
    const threads::MutexLock lock(mutex_);
    renewEvery_ = time;
  }
  // They are not answered meanwhile.
  void holdFinishes(bool hold) {
    const threads::MutexLock lock(mutex_);
    holdsFinishes_ = hold;
    changed_.notifyAll();
  }
  void watch(zksmessages::RenewReply::Wanted wanted) {
    const threads::MutexLock lock(mutex_);
    wanted_ = std::move(wanted);
  }

  // --- what there is ---
  bool waitFor(const std::function<bool()>& condition) {
    threads::MutexLock lock(mutex_);
    return changed_.waitFor(lock, std::chrono::seconds(60), condition);
  }
  bool waitUntilEnded(JobId job) {
    return waitFor([&]() ZKS_NO_THREAD_SAFETY_ANALYSIS { return ledger_->progress(job)->ended.has_value(); });
  }
  bool waitForState(JobId job, scheduler::ledger::TaskState state, std::uint64_t count = 1) {
    return waitFor([&]() ZKS_NO_THREAD_SAFETY_ANALYSIS { return countNow(job, state) >= count; });
  }
  std::uint64_t count(JobId job, scheduler::ledger::TaskState state) const {
    const threads::MutexLock lock(mutex_);
    return countNow(job, state);
  }
  // Of those results that were accepted, by task.
  std::map<std::uint64_t, std::vector<zksmessages::AttemptResult>> accepted() const {
    const threads::MutexLock lock(mutex_);
    return accepted_;
  }
  std::vector<zksmessages::RenewRequest> renewals() const {
    const threads::MutexLock lock(mutex_);
    return renewals_;
  }
  std::size_t finishes() const {
    const threads::MutexLock lock(mutex_);
    return finishes_;
  }
  toolbox::MemoryBlobs& blobs() { return blobs_; }

 private:
  using Ledger = scheduler::ledger::Ledger;
  using Key = scheduler::ledger::AttemptKey;

  static scheduler::ledger::Moment now() {
    const auto wall = std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now());
    return {std::chrono::steady_clock::now().time_since_epoch(), wall};
  }
  static scheduler::ledger::Resources resourcesOf(const zksmessages::Resources& resources) {
    return {resources.cores(), resources.memory_bytes(), {resources.named().begin(), resources.named().end()}};
  }
  static Key keyOf(const zksmessages::AttemptKey& key) { return {JobId(key.job()), key.task(), key.number()}; }
  static zksmessages::AttemptKey messageOf(const Key& key) {
    zksmessages::AttemptKey message;
    message.set_job(static_cast<std::uint64_t>(key.job));
    message.set_task(key.task);
    message.set_number(key.number);
    return message;
  }
  template <class Request>
  static std::vector<scheduler::ledger::HeldAttempt> heldOf(const Request& request) {
    std::vector<scheduler::ledger::HeldAttempt> held;
    for (const auto& attempt : request.held())
      held.push_back({keyOf(attempt.attempt()), attempt.started()});
    return held;
  }
  template <class Reply>
  static void setStop(Reply& reply, const std::vector<Key>& stop) {
    for (const Key& key : stop)
      *reply.add_stop() = messageOf(key);
  }
  template <class Answer>
  Answer keep(scheduler::ledger::Decision<Answer> decision) ZKS_REQUIRES(mutex_) {
    if (decision.isRefused())
      throw std::runtime_error("the ledger refuses: " + std::to_string(static_cast<int>(decision.refusal())));
    books_.apply(decision.changes);
    changed_.notifyAll();
    return decision.answer();
  }
  std::uint64_t countNow(JobId job, scheduler::ledger::TaskState state) const ZKS_REQUIRES(mutex_) {
    return ledger_->progress(job)->counts.at(static_cast<std::size_t>(state));
  }

  zksmessages::JoinReply join(const zksmessages::JoinRequest& request) {
    const threads::MutexLock lock(mutex_);
    const auto joined = keep(ledger_->join(
        {request.key(), request.name(), resourcesOf(request.resources()), request.sequence(), heldOf(request)}, now()));
    zksmessages::JoinReply reply;
    reply.set_worker(static_cast<std::uint64_t>(joined.worker));
    reply.mutable_renew_every()->set_seconds(renewEvery_.count() / 1000);
    reply.mutable_renew_every()->set_nanos(static_cast<std::int32_t>(renewEvery_.count() % 1000 * 1'000'000));
    setStop(reply, joined.stop);
    return reply;
  }

  zksmessages::TakeReply take(const zksmessages::TakeRequest& request) {
    threads::MutexLock lock(mutex_);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(request.wait().seconds());
    const scheduler::ledger::WorkerId worker{request.worker()};
    const auto room = resourcesOf(request.room());
    const std::size_t cuts = cuts_;
    changed_.waitUntil(lock, deadline,
                       [&]() ZKS_REQUIRES(mutex_) { return cuts_ != cuts || ledger_->hasWorkFor(worker, room); });
    if (cuts_ != cuts)
      throw std::runtime_error("cut");
    const auto taken = keep(ledger_->take({worker, request.sequence(), heldOf(request), room, request.limit()}, now()));
    zksmessages::TakeReply reply;
    setStop(reply, taken.stop);
    std::map<std::uint64_t, zksmessages::TaskArray> arrays;
    for (const auto& grant : taken.grants) {
      auto* message = reply.add_grants();
      *message->mutable_attempt() = messageOf(grant.attempt);
      message->set_round(grant.round);
      message->set_array_first(grant.arrayFirst);
      message->set_alone(grant.alone);
      message->set_report_start(grant.reportStart);
      message->set_line("line " + std::to_string(grant.attempt.task));
      arrays[message->attempt().job()] = arrays_.at(message->attempt().job());
    }
    for (const auto& [job, array] : arrays) {
      auto* message = reply.add_arrays();
      message->set_job(job);
      *message->mutable_array() = array;
    }
    return reply;
  }

  zksmessages::RenewReply renew(const zksmessages::RenewRequest& request) {
    const threads::MutexLock lock(mutex_);
    renewals_.push_back(request);
    const auto renewed = keep(ledger_->renew({scheduler::ledger::WorkerId(request.worker()), heldOf(request)}, now()));
    zksmessages::RenewReply reply;
    setStop(reply, renewed.stop);
    if (wanted_)
      *reply.add_output() = *wanted_;
    return reply;
  }

  zksmessages::FinishReply finish(const zksmessages::FinishRequest& request) {
    threads::MutexLock lock(mutex_);
    const std::size_t cuts = cuts_;
    changed_.wait(lock, [&]() ZKS_REQUIRES(mutex_) { return !holdsFinishes_ || cuts_ != cuts; });
    ++finishes_;
    zksmessages::FinishReply reply;
    for (const auto& result : request.results()) {
      auto* message = reply.add_verdicts();
      *message->mutable_attempt() = result.attempt();
      if (later_ > 0) {
        --later_;
        message->set_later(true);
        continue;
      }
      const scheduler::ledger::Ending ending{static_cast<Reason>(result.ending().reason()), result.ending().code()};
      const auto finished = keep(ledger_->finish(
          {scheduler::ledger::WorkerId(request.worker()), {{keyOf(result.attempt()), ending, ""}}}, now()));
      message->set_accepted(finished.verdicts.at(0).isAccepted);
      // A repeat gets the first verdict again.
      if (message->accepted() && told_.insert(result.attempt().number()).second)
        accepted_[result.attempt().task()].push_back(result);
    }
    return reply;
  }

  mutable threads::Mutex mutex_;
  threads::ConditionVariable changed_;
  scheduler::ledger::Books books_ ZKS_GUARDED_BY(mutex_);
  std::unique_ptr<Ledger> ledger_ ZKS_GUARDED_BY(mutex_);
  std::map<std::uint64_t, zksmessages::TaskArray> arrays_ ZKS_GUARDED_BY(mutex_);
  std::map<std::uint64_t, std::vector<zksmessages::AttemptResult>> accepted_ ZKS_GUARDED_BY(mutex_);
  std::set<std::uint64_t> told_ ZKS_GUARDED_BY(mutex_);
  std::vector<zksmessages::RenewRequest> renewals_ ZKS_GUARDED_BY(mutex_);
  std::optional<zksmessages::RenewReply::Wanted> wanted_ ZKS_GUARDED_BY(mutex_);
  std::vector<std::weak_ptr<agent::spf::core::Invokable>> links_ ZKS_GUARDED_BY(mutex_);
  bool away_ ZKS_GUARDED_BY(mutex_) = false;
  std::size_t cuts_ ZKS_GUARDED_BY(mutex_) = 0;
  std::size_t connections_ ZKS_GUARDED_BY(mutex_) = 0;
  std::size_t finishes_ ZKS_GUARDED_BY(mutex_) = 0;
  std::chrono::milliseconds renewEvery_ ZKS_GUARDED_BY(mutex_){50};
  bool holdsFinishes_ ZKS_GUARDED_BY(mutex_) = false;
  int later_ ZKS_GUARDED_BY(mutex_) = 0;
  toolbox::MemoryBlobs blobs_;
  std::shared_ptr<agent::spf::core::Service> service_;
};

}  // namespace parallel::worker
