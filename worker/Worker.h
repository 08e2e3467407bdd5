// A worker: joins a service, takes attempts, runs them side by side within what it has, and hands in what they came to.
//
// Attempts start in the order in which they came. While the service is away they run on, and results are kept until a
// line to it is there again. What each message means: docs/ledger.md.
// Ownership: the logger must outlive it.
// Threads:   any may call; it has threads of its own, one for each kind of message and one for each running attempt.
// Errors:    the constructor throws std::system_error when its folders cannot be made.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "execution/ScratchArea.h"
#include "platform/threads/Mutex.h"
#include "platform/zksmessages/jobs.pb.h"
#include "worker/AttemptRunner.h"
#include "worker/CoreSet.h"
#include "worker/InputCache.h"
#include "worker/ResultQueue.h"
#include "worker/Room.h"
#include "worker/ServiceLine.h"

namespace parallel::worker {

struct WorkerSettings {
  std::string name;
  zksmessages::Resources resources;
  std::vector<int> cores = {};  // to which attempts are pinned; empty: to none
  std::filesystem::path scratchParent;
  std::filesystem::path cache = {};  // empty: a folder that goes with the worker
  std::uint64_t cacheBytes = std::uint64_t{10} << 30U;
  // Between the polite and the last signal to an attempt that must end.
  std::chrono::nanoseconds killGrace = std::chrono::seconds(10);
  // Ends by itself when nothing runs and the service has been away for so long,
  std::chrono::nanoseconds awayLimit = std::chrono::minutes(10);
  // or when there was nothing to do for so long; nothing: never.
  std::optional<std::chrono::nanoseconds> idleLimit = std::nullopt;
};

class Worker {
 public:
  using Logger = ServiceLine::Logger;

  Worker(WorkerSettings settings, ServiceLine::Connect connect, Logger& logger);
  // Ends what runs without handing in.
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // Takes nothing more, ends what runs, hands back what was not done. Returns at once.
  void stop();
  // All is done after stop(), or a limit is reached. Look a few times a second.
  bool hasEnded();

 private:
  using Clock = std::chrono::steady_clock;
  enum class Phase { Queued, Running, Done };
  struct Attempt {
    Assignment assignment;
    zksmessages::Resources needs;
    bool alone = false;
    bool reportStart = false;
    Phase phase = Phase::Queued;
    bool isStarted = false;   // as the service is to be told
    bool isReported = false;  // as it was told
    bool isUnwanted = false;  // nobody waits for its result
    std::stop_source stop{};
    std::vector<int> cores{};
    Clock::time_point since = Clock::now();
    std::string standardOutput{};  // where it is written to while it runs
    std::string standardError{};
  };
  using AttemptShare = std::shared_ptr<Attempt>;
  using Held = google::protobuf::RepeatedPtrField<zksmessages::HeldAttempt>;
  using Keys = google::protobuf::RepeatedPtrField<zksmessages::AttemptKey>;

  // --- messages ---
  void greet(const toolbox::Connection& connection);
  void takeAll();
  void renewAll();
  void finishAll();
  void putAll();
  std::optional<zksmessages::TakeRequest> nextTake() ZKS_REQUIRES(mutex_);
  void accept(const zksmessages::TakeReply& reply) ZKS_REQUIRES(mutex_);
  void renewOnce(const ServiceLine::Link& link);
  zksmessages::RenewRequest nextRenew() ZKS_REQUIRES(mutex_);
  void handIn(const ServiceLine::Link& link, std::vector<AttemptOutcome> outcomes);
  void settle(std::vector<AttemptOutcome> outcomes, const zksmessages::FinishReply& reply) ZKS_REQUIRES(mutex_);
  void put(const ServiceLine::Link& link, const AttemptOutcome& outcome) const;
  void fetch(const zksmessages::Blob& blob, const std::string& path, const std::stop_token& stop);
  bool hasNews() const ZKS_REQUIRES(mutex_);
  Clock::time_point dueAfter(Clock::time_point last) const ZKS_REQUIRES(mutex_);
  void setHeld(Held& held) const ZKS_REQUIRES(mutex_);
  void obey(const Keys& unwanted) ZKS_REQUIRES(mutex_);

  // --- attempts ---
  void startWhatFits() ZKS_REQUIRES(mutex_);
  void runAttempts();
  void runOne(const AttemptShare& attempt);
  void handBack(const AttemptShare& attempt) ZKS_REQUIRES(mutex_);
  void handBackWhatWaitsTooLong() ZKS_REQUIRES(mutex_);
  void finished(const AttemptShare& attempt, AttemptOutcome outcome) ZKS_REQUIRES(mutex_);
  bool runsAny() const ZKS_REQUIRES(mutex_) { return running_ > 0 || !queue_.empty(); }
  void beginEnd() ZKS_REQUIRES(mutex_);
  void wakeAll();

  const WorkerSettings settings_;
  Logger& logger_;
  execution::ScratchArea area_;
  const std::filesystem::path spool_;
  InputCache cache_;
  AttemptRunner runner_;
  const std::string key_;

  mutable threads::Mutex mutex_;
  threads::ConditionVariable mayTake_;
  threads::ConditionVariable mayRenew_;
  threads::ConditionVariable mayRun_;
  threads::ConditionVariable mayHandIn_;
  threads::ConditionVariable mayPut_;
  std::uint64_t worker_ ZKS_GUARDED_BY(mutex_) = 0;
  std::uint64_t sequence_ ZKS_GUARDED_BY(mutex_) = 0;
  std::chrono::nanoseconds renewEvery_ ZKS_GUARDED_BY(mutex_) = std::chrono::seconds(15);
  std::map<std::uint64_t, AttemptShare> held_ ZKS_GUARDED_BY(mutex_);
  std::deque<AttemptShare> queue_ ZKS_GUARDED_BY(mutex_);
  std::deque<AttemptShare> toRun_ ZKS_GUARDED_BY(mutex_);
  zksmessages::Resources free_ ZKS_GUARDED_BY(mutex_);
  CoreSet freeCores_ ZKS_GUARDED_BY(mutex_);
  std::size_t running_ ZKS_GUARDED_BY(mutex_) = 0;
  bool runsAlone_ ZKS_GUARDED_BY(mutex_) = false;
  WorkMeasure measure_ ZKS_GUARDED_BY(mutex_);
  ResultQueue results_ ZKS_GUARDED_BY(mutex_);
  std::deque<AttemptOutcome> toPut_ ZKS_GUARDED_BY(mutex_);
  Clock::time_point tryResultsAt_ ZKS_GUARDED_BY(mutex_) = Clock::now();
  std::vector<zksmessages::RenewReply::Wanted> wanted_ ZKS_GUARDED_BY(mutex_);
  bool renewNow_ ZKS_GUARDED_BY(mutex_) = false;
  bool takes_ ZKS_GUARDED_BY(mutex_) = false;  // a take is under way
  bool stopping_ ZKS_GUARDED_BY(mutex_) = false;
  bool closing_ ZKS_GUARDED_BY(mutex_) = false;
  std::optional<Clock::time_point> endBy_ ZKS_GUARDED_BY(mutex_);
  Clock::time_point lastWork_ ZKS_GUARDED_BY(mutex_) = Clock::now();
  std::size_t idleRunners_ ZKS_GUARDED_BY(mutex_) = 0;
  std::vector<std::thread> runners_ ZKS_GUARDED_BY(mutex_);

  std::stop_source stopCalls_;
  ServiceLine line_;
  std::vector<std::thread> threads_;
};

}  // namespace parallel::worker
