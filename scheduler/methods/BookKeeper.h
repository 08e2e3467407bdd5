// Keeps the books of a service: its ledger, and the store that holds what the ledger decides.
//
// Events take turns. What a turn changes is committed in one transaction, and only then anybody is told of it: of a change,
// of a refusal, and of what was merely read in the turn. Every second the ledger is told the time.
//
// Ownership: owns the store and the ledger. Calls that wait in it are let go by its destructor, with an error.
// Threads:   any. What runs in a turn keeps all others waiting; what is told afterwards runs on the thread of the commits,
//            where it must not wait.
// Errors:    those of Store at the start; parallel::store::StoreFailed when the store has failed. The owner of the process
//            then ends it: `failed` of the options has been called.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "platform/threads/Mutex.h"
#include "scheduler/ledger/Ledger.h"
#include "scheduler/methods/Alarms.h"
#include "scheduler/store/Store.h"

namespace parallel::scheduler::methods {

class BookKeeper {
 public:
  struct Options {
    std::filesystem::path folder{};
    store::StoreOptions store{};
    // For tests; empty: this machine's clocks.
    std::function<ledger::Moment()> clock{};
  };

  // Told of what becomes durable: which jobs changed, with their versions. A deleted job has the greatest version of all.
  using ChangedJobs = std::vector<std::pair<ledger::JobId, std::uint64_t>>;
  using Listener = std::function<void(const ChangedJobs&)>;

  class Turn;
  // Runs at the end of each turn that changed something, in that turn.
  using Watcher = std::function<void(Turn&)>;

  // Each may be empty. The listener runs on the thread of the commits, where it must not wait; the tidier on a thread of its
  // own every minute, before the store is tidied.
  struct Observers {
    Watcher watcher{};
    Listener listener{};
    std::function<void()> tidier{};
  };

  explicit BookKeeper(Options options);
  ~BookKeeper();
  BookKeeper(const BookKeeper&) = delete;
  BookKeeper& operator=(const BookKeeper&) = delete;

  // Before the first turn: from now on time passes.
  void start(Observers observers);
  // After the last one: commits what was decided, and tells it. Alarms ring no more.
  void stop();

  // One turn: `work` has the ledger for itself.
  void run(const std::function<void(Turn&)>& work);
  // What runs every second, and every minute.
  void tick();
  void tidy();

  store::Store& store() noexcept { return *store_; }
  Alarms& alarms() noexcept { return alarms_; }
  ledger::Moment now() const;
  const std::filesystem::path& folder() const noexcept { return options_.folder; }

 private:
  bool keep(Turn& turn);
  void tickEverySecond(Alarms::Clock::time_point time);
  void tidyEveryMinute();

  const Options options_;
  Observers observers_;
  std::atomic<std::uint64_t> underWay_{0};  // turns that are being committed
  std::unique_ptr<store::Store> store_;
  threads::Mutex mutex_;
  std::unique_ptr<ledger::Ledger> ledger_ ZKS_GUARDED_BY(mutex_);
  threads::Mutex tidyMutex_;
  threads::ConditionVariable closed_;
  bool isClosing_ ZKS_GUARDED_BY(tidyMutex_) = false;
  Alarms alarms_;
  std::thread tidying_;
};

// The ledger, while nobody else has it.
class BookKeeper::Turn {
 public:
  using Told = std::function<void()>;
  using Write = store::GroupCommit::Write;

  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  ledger::Ledger& ledger() noexcept { return ledger_; }
  ledger::Moment now() const noexcept { return now_; }

  // Takes over what a decision changes, and gives its outcome.
  template <class Answer>
  std::variant<Answer, ledger::Refusal> take(ledger::Decision<Answer> decision) {
    changes_.merge(std::move(decision.changes));
    return std::move(decision.outcome);
  }
  // In the same transaction, after the changes. It may run twice.
  void writeBeside(Write write) { beside_.push_back(std::move(write)); }
  // Runs once all that was decided until now is durable; never when that fails.
  void tell(Told told) { told_.push_back(std::move(told)); }

  const ledger::Changes& changes() const noexcept { return changes_; }

 private:
  friend class BookKeeper;
  Turn(ledger::Ledger& ledger, ledger::Moment now) : ledger_(ledger), now_(now) {}

  ledger::Ledger& ledger_;
  const ledger::Moment now_;
  ledger::Changes changes_;
  std::vector<Write> beside_;
  std::vector<Told> told_;
};

}  // namespace parallel::scheduler::methods
