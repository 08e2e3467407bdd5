#include "scheduler/methods/BookKeeper.h"

#include <chrono>
#include <limits>

#include "scheduler/methods/ownThreads.h"

namespace parallel::scheduler::methods {

using threads::MutexLock;

namespace {

ledger::Moment machineMoment() {
  return {std::chrono::steady_clock::now().time_since_epoch(),
          std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now())};
}

BookKeeper::ChangedJobs changedJobs(const ledger::Changes& changes) {
  BookKeeper::ChangedJobs jobs;
  for (const auto& [id, progress] : changes.progress)
    jobs.emplace_back(id, progress.version);
  for (const ledger::JobId id : changes.deletedJobs)
    jobs.emplace_back(id, std::numeric_limits<std::uint64_t>::max());
  return jobs;
}

}  // namespace

BookKeeper::BookKeeper(Options options)
    : options_(std::move(options)), store_(std::make_unique<store::Store>(options_.folder, options_.store)) {
  const MutexLock lock(mutex_);
  ledger_ = std::make_unique<ledger::Ledger>(store_->ledger(), store_->ledger().load(), now());
}

BookKeeper::~BookKeeper() {
  stop();
}

void BookKeeper::start(Observers observers) {
  observers_ = std::move(observers);
  tickEverySecond(Alarms::Clock::now() + std::chrono::seconds(1));
  tidying_ = std::thread([this] { tidyEveryMinute(); });
}

void BookKeeper::stop() {
  {
    const MutexLock lock(tidyMutex_);
    isClosing_ = true;
    closed_.notifyAll();
  }
  if (tidying_.joinable())
    tidying_.join();
  alarms_.stop();
  store_.reset();
}

ledger::Moment BookKeeper::now() const {
  return options_.clock ? options_.clock() : machineMoment();
}

void BookKeeper::run(const std::function<void(Turn&)>& work) {
  MutexLock lock(mutex_);
  Turn turn(*ledger_, now());
  work(turn);
  if (observers_.watcher && !turn.changes_.empty())
    observers_.watcher(turn);
  if (keep(turn))
    return;
  lock.unlock();
  for (const Turn::Told& tell : turn.told_)
    tell();
}

// In the turn: what is decided first is kept first. False when there is nothing to wait for.
bool BookKeeper::keep(Turn& turn) {
  if (turn.changes_.empty() && turn.beside_.empty() && (turn.told_.empty() || underWay_ == 0))
    return false;
  auto told = [this, jobs = changedJobs(turn.changes_), waiting = std::move(turn.told_)] {
    markOwnThread();
    for (const Turn::Told& tell : waiting)
      tell();
    if (observers_.listener && !jobs.empty())
      observers_.listener(jobs);
    --underWay_;
  };
  Turn::Write beside;
  if (!turn.beside_.empty())
    beside = [writes = std::move(turn.beside_)](store::GroupCommit::Group& group) {
      for (const Turn::Write& write : writes)
        write(group);
    };
  ++underWay_;
  store_->ledger().keep(std::move(turn.changes_), std::move(beside), std::move(told));
  return true;
}

void BookKeeper::tick() {
  run([](Turn& turn) { turn.take(turn.ledger().tick(turn.now())); });
}

void BookKeeper::tidy() {
  if (observers_.tidier)
    observers_.tidier();
  store_->tidy(now().wall);
}

void BookKeeper::tickEverySecond(Alarms::Clock::time_point time) {
  alarms_.set(time, [this] {
    tickEverySecond(Alarms::Clock::now() + std::chrono::seconds(1));
    tick();
  });
}

// Collecting blobs may take long: it keeps neither turns nor alarms waiting.
void BookKeeper::tidyEveryMinute() {
  MutexLock lock(tidyMutex_);
  while (!closed_.waitFor(lock, std::chrono::minutes(1), [this]() ZKS_REQUIRES(tidyMutex_) { return isClosing_; })) {
    lock.unlock();
    try {
      tidy();
    } catch (const std::exception&) {  // when the store has failed its owner was told; else the next minute tries again
    }
    lock.lock();
  }
}

}  // namespace parallel::scheduler::methods
