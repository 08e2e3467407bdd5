// A world of two workers and a few tasks, as a value: the books, what each worker knows, and what has happened.
//
// The ledger is read back from the books for every single event: each step is also a step after a crash of the service.
#pragma once

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "scheduler/ledger/Books.h"
#include "scheduler/ledger/Ledger.h"
#include "scheduler/ledger/testing/invariants.h"

namespace parallel::scheduler::ledger::testing {

struct Violation : std::runtime_error {
  using std::runtime_error::runtime_error;
};

inline void require(bool holds, const std::string& what) {
  if (!holds)
    throw Violation(what);
}

struct HeldByWorker {
  bool isStarted = false;
  bool reportStart = false;
  std::optional<Ending> result;  // once it has one, it stays
};

struct SmallWorker {
  bool isAlive = true;
  int life = 0;  // one more each time that it begins anew
  std::optional<WorkerId> id;
  std::uint64_t sequence = 0;
  bool isUnanswered = false;  // the last take
  std::map<AttemptKey, HeldByWorker> held;
  std::optional<Take> lastTake;
  std::optional<Finish> lastFinish;
};

class SmallWorld {
 public:
  static constexpr Moment kNow{std::chrono::hours(1), {}};

  // So many troubles may come: a death, a lapse, a lost answer, a repeated message, a cancel, a retry.
  SmallWorld(const std::vector<SubmitJob>& jobs, int troubles);

  struct Event {
    std::string name;
    std::function<void(SmallWorld&)> happen;
    int trouble = 0;
  };
  std::vector<Event> events() const;
  // What the world may become with this event.
  SmallWorld after(const Event& event) const;
  // With workers that live and lines that hold, all tasks end.
  void requireThatAllCanEnd() const;
  // Equal for worlds that go on alike.
  std::string signature() const;

 private:
  enum class Line { holds, losesTheAnswer };
  struct Past {
    int ends = 0;
    int revivals = 0;
    int runs = 0;
  };

  // The events of one worker.
  void addEventsOf(std::size_t index, std::vector<Event>& events) const;
  void addSends(std::vector<Event>& events, const std::string& name, std::function<void(SmallWorld&, Line)> send) const;
  void addTroubles(std::size_t index, std::vector<Event>& events) const;
  void addLosses(std::vector<Event>& events) const;

  void join(std::size_t index, Line line);
  void take(std::size_t index, Line line);
  void renew(std::size_t index, Line line, std::optional<AttemptKey> starting);
  void run(std::size_t index, const AttemptKey& attempt);
  void finish(std::size_t index, const AttemptKey& attempt, Ending ending, Line line);
  void die(std::size_t index);
  void begin(std::size_t index);
  void workOff(std::size_t index);
  void lapse(WorkerId id);
  void lose(WorkerId id, LossCause cause);
  void cancel();
  void retry();

  template <class Tell>
  auto tell(Tell event, bool mayRevive = false);
  void notePast(const std::map<TaskKey, TaskState>& before, bool mayRevive);
  void noteVerdict(const Verdict& verdict);
  void forget(SmallWorker& worker, const std::vector<AttemptKey>& attempts);
  bool hasAllEnded() const;
  bool lives(WorkerId id) const;
  static std::vector<HeldAttempt> heldBy(const SmallWorker& worker);

  Books::Tables books_;
  std::array<SmallWorker, 2> workers_;
  std::map<TaskKey, Past> past_;
  std::map<AttemptKey, Verdict> verdicts_;
  int troubles_;
  bool isCancelled_ = false;
  bool isRetried_ = false;
};

}  // namespace parallel::scheduler::ledger::testing
