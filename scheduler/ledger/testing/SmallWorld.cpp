#include "scheduler/ledger/testing/SmallWorld.h"

#include <algorithm>
#include <sstream>

#include "scheduler/ledger/testing/words.h"

namespace parallel::scheduler::ledger::testing {
namespace {

const Resources kRoom{2, 0, {}};

void write(std::ostream& out, const AttemptKey& key) {
  out << static_cast<std::uint64_t>(key.job) << '.' << key.task << '.' << key.number << ' ';
}

void write(std::ostream& out, Ending ending) {
  out << static_cast<int>(ending.reason) << '/' << ending.code << ' ';
}

void write(std::ostream& out, const Books::Tables& books) {
  out << books.counters.nextAttempt << ' ' << static_cast<std::uint64_t>(books.counters.nextWorker) << '\n';
  for (const auto& [id, job] : books.progress)
    out << job.round << job.open << job.ended.has_value();
  for (const auto& [key, range] : books.ranges)
    out << 'r' << static_cast<std::uint64_t>(key.job) << ' ' << range.tasks.first << '-' << key.task
        << int(range.state);
  for (const auto& [key, task] : books.tasks) {
    out << 't' << static_cast<std::uint64_t>(key.job) << ' ' << key.task << int(task.state) << ' ' << task.round << ' '
        << task.attempt << ' ' << task.deaths << task.alone;
    for (const std::uint32_t retries : task.retries)
      out << retries;
    write(out, task.ending);
  }
  for (const auto& [key, attempt] : books.attempts) {
    write(out, key);
    out << static_cast<std::uint64_t>(attempt.worker) << ' ' << attempt.sequence << ' ' << int(attempt.state)
        << attempt.alone << attempt.accepted;
    write(out, attempt.ending);
  }
  for (const auto& [id, worker] : books.workers)
    out << 'w' << static_cast<std::uint64_t>(id) << ' ' << int(worker.state) << ' ' << worker.sequence;
}

}  // namespace

// Tells the ledger, keeps what comes of it, and looks whether the books are right.
template <class Tell>
auto SmallWorld::tell(Tell event, bool mayRevive) {
  std::string complaint;
  const auto before = statesOf(books_, complaint);
  Books books(std::move(books_));
  Ledger ledger(books, books.kept(), kNow);
  auto decision = event(ledger);
  books.apply(decision.changes);
  require(ledger.memory() == withoutDetails(books.kept()), "the memory of the ledger is not what the books keep");
  books_ = books.tables();
  complaint = complaintOf(books_);
  require(complaint.empty(), complaint);
  notePast(before, mayRevive);
  return decision;
}

SmallWorld::SmallWorld(const std::vector<SubmitJob>& jobs, int troubles) : troubles_(troubles) {
  for (const SubmitJob& job : jobs)
    tell([&](Ledger& ledger) { return ledger.submitJob(job, kNow); });
}

// Each task ends once in each round.
void SmallWorld::notePast(const std::map<TaskKey, TaskState>& before, bool mayRevive) {
  std::string complaint;
  for (const auto& [key, state] : statesOf(books_, complaint)) {
    const auto known = before.find(key);
    const TaskState old = known == before.end() ? TaskState::waiting : known->second;
    if (state == old)
      continue;
    Past& past = past_[key];
    if (hasEnded(old)) {
      require(mayRevive && old != TaskState::succeeded && !hasEnded(state), "a task that had ended changed its state");
      ++past.revivals;
    } else if (hasEnded(state)) {
      ++past.ends;
    }
    require(past.ends - past.revivals == (hasEnded(state) ? 1 : 0), "a task ended twice in one round");
  }
}

// A repeated result gets the first verdict, and what was acknowledged is in the books.
void SmallWorld::noteVerdict(const Verdict& verdict) {
  const auto [first, isFirst] = verdicts_.emplace(verdict.attempt, verdict);
  require(first->second.isAccepted == verdict.isAccepted && first->second.ending == verdict.ending,
          "a repeated result got another verdict");
  if (verdict.isAccepted && verdict.ending.reason == EndReason::success) {
    const auto task = books_.tasks.find({verdict.attempt.job, verdict.attempt.task});
    require(task != books_.tasks.end() && task->second.state == TaskState::succeeded,
            "an acknowledged success was lost");
  }
}

std::vector<HeldAttempt> SmallWorld::heldBy(const SmallWorker& worker) {
  std::vector<HeldAttempt> held;
  for (const auto& [key, attempt] : worker.held)
    held.push_back({key, attempt.isStarted});
  return held;
}

void SmallWorld::forget(SmallWorker& worker, const std::vector<AttemptKey>& attempts) {
  for (const AttemptKey& key : attempts)
    worker.held.erase(key);
}

bool SmallWorld::lives(WorkerId id) const {
  return std::any_of(workers_.begin(), workers_.end(),
                     [id](const SmallWorker& worker) { return worker.isAlive && worker.id == id; });
}

bool SmallWorld::hasAllEnded() const {
  return std::all_of(books_.progress.begin(), books_.progress.end(), [](const auto& row) { return row.second.ended; });
}

// --- what workers do ---

void SmallWorld::join(std::size_t index, Line line) {
  SmallWorker& worker = workers_.at(index);
  Join event;
  event.key = std::to_string(index) + "/" + std::to_string(worker.life);
  event.resources = kRoom;
  event.sequence = worker.sequence;
  event.held = heldBy(worker);
  const auto decision = tell([&](Ledger& ledger) { return ledger.join(event, kNow); });
  if (line == Line::losesTheAnswer)
    return;
  worker.id = decision.answer().worker;
  worker.isUnanswered = false;
  forget(worker, decision.answer().stop);
}

void SmallWorld::take(std::size_t index, Line line) {
  SmallWorker& worker = workers_.at(index);
  Take event{*worker.id, worker.sequence + (worker.isUnanswered ? 0 : 1), heldBy(worker), kRoom, 1};
  const auto decision = tell([&](Ledger& ledger) { return ledger.take(event, kNow); });
  if (decision.changes.empty() && (decision.isRefused() || decision.answer().grants.empty()) && !worker.isUnanswered) {
    if (decision.isRefused() && line == Line::holds)
      worker.id.reset();
    return;  // the number may be used again
  }
  worker.sequence = event.sequence;
  worker.lastTake = event;
  worker.isUnanswered = line == Line::losesTheAnswer;
  if (line == Line::losesTheAnswer)
    return;
  if (decision.isRefused()) {
    worker.id.reset();
    return;
  }
  for (const Grant& grant : decision.answer().grants)
    worker.held.try_emplace(grant.attempt, HeldByWorker{false, grant.reportStart, {}});
  forget(worker, decision.answer().stop);
}

void SmallWorld::renew(std::size_t index, Line line, std::optional<AttemptKey> starting) {
  SmallWorker& worker = workers_.at(index);
  Renew event{*worker.id, heldBy(worker)};
  for (HeldAttempt& attempt : event.held)
    attempt.isStarted = attempt.isStarted || attempt.attempt == starting;
  const auto decision = tell([&](Ledger& ledger) { return ledger.renew(event, kNow); });
  if (line == Line::losesTheAnswer)
    return;
  if (decision.isRefused()) {
    worker.id.reset();
    return;
  }
  forget(worker, decision.answer().stop);
  if (starting && worker.held.contains(*starting))
    run(index, *starting);
}

void SmallWorld::run(std::size_t index, const AttemptKey& attempt) {
  HeldByWorker& held = workers_.at(index).held.at(attempt);
  held.isStarted = true;
  Past& past = past_[{attempt.job, attempt.task}];
  ++past.runs;
  const auto array = std::prev(books_.arrays.upper_bound({attempt.job, attempt.task}));
  require(array->second.retries.workerLost.limit != 0 || past.runs <= past.revivals + 1,
          "a task ran twice that must not");
}

void SmallWorld::finish(std::size_t index, const AttemptKey& attempt, Ending ending, Line line) {
  SmallWorker& worker = workers_.at(index);
  worker.held.at(attempt).result = ending;
  const Finish event{*worker.id, {{attempt, ending, "output"}}};
  const auto decision = tell([&](Ledger& ledger) { return ledger.finish(event, kNow); });
  noteVerdict(decision.answer().verdicts.at(0));
  worker.lastFinish = event;
  if (line == Line::holds)
    worker.held.erase(attempt);
}

void SmallWorld::die(std::size_t index) {
  SmallWorker& worker = workers_.at(index);
  worker.isAlive = false;
  worker.held.clear();
}

void SmallWorld::begin(std::size_t index) {
  SmallWorker& worker = workers_.at(index);
  const int life = worker.life + 1;
  worker = {};
  worker.life = life;
}

// --- what happens to workers ---

// Nothing is heard of the worker for a minute; of the others that live there is, if they count as reachable.
void SmallWorld::lapse(WorkerId id) {
  std::vector<WorkerId> heard;
  for (const auto& [other, row] : books_.workers) {
    if (other != id && row.state == WorkerState::active && lives(other))
      heard.push_back(other);
  }
  tell([&](Ledger& ledger) {
    Moment now = kNow;
    Changes all;
    std::optional<Decision<Lost>> last;
    for (int step = 0; step < 12; ++step) {
      now.running += std::chrono::seconds(5);
      for (const WorkerId other : heard)
        all.merge(ledger.renew({other, {}}, now).changes);
      last = ledger.tick(now);
      all.merge(last->changes);
    }
    return Decision<Lost>{last->outcome, all};
  });
}

void SmallWorld::lose(WorkerId id, LossCause cause) {
  tell([&](Ledger& ledger) { return ledger.workerLost(id, cause, kNow); });
}

void SmallWorld::cancel() {
  isCancelled_ = true;
  tell([](Ledger& ledger) { return ledger.cancel({JobId{1}, std::nullopt}, kNow); });
}

void SmallWorld::retry() {
  isRetried_ = true;
  tell([](Ledger& ledger) { return ledger.retry({JobId{1}, "again", std::nullopt}, kNow); }, true);
}

// --- which events there are ---

void SmallWorld::addSends(std::vector<Event>& events, const std::string& name,
                          std::function<void(SmallWorld&, Line)> send) const {
  events.push_back({name, [send](SmallWorld& world) { send(world, Line::holds); }, 0});
  events.push_back({name + ", answer lost", [send](SmallWorld& world) { send(world, Line::losesTheAnswer); }, 1});
}

void SmallWorld::addEventsOf(std::size_t index, std::vector<Event>& events) const {
  const SmallWorker& worker = workers_.at(index);
  const std::string name = "worker " + std::to_string(index);
  if (!worker.isAlive) {
    events.push_back({name + " begins anew", [index](SmallWorld& world) { world.begin(index); }, 0});
    return;
  }
  if (!worker.id) {
    addSends(events, name + " joins", [index](SmallWorld& world, Line line) { world.join(index, line); });
    return;
  }
  if (worker.held.size() < 2)
    addSends(events, name + " takes", [index](SmallWorld& world, Line line) { world.take(index, line); });
  if (!worker.held.empty())
    addSends(events, name + " renews", [index](SmallWorld& world, Line line) { world.renew(index, line, {}); });
  for (const auto& [key, held] : worker.held) {
    const AttemptKey attempt = key;
    const std::string what = name + " attempt " + std::to_string(key.number);
    if (!held.isStarted && held.reportStart)
      addSends(events, what + " reports its start",
               [=](SmallWorld& world, Line line) { world.renew(index, line, attempt); });
    if (!held.isStarted && !held.reportStart)
      events.push_back({what + " starts", [=](SmallWorld& world) { world.run(index, attempt); }, 0});
    if (!held.isStarted)
      continue;
    for (const Ending ending : {kSuccess, exitCode(1)}) {
      if (!held.result || held.result == ending)
        addSends(events, what + " hands in " + std::to_string(ending.code),
                 [=](SmallWorld& world, Line line) { world.finish(index, attempt, ending, line); });
    }
  }
}

void SmallWorld::addTroubles(std::size_t index, std::vector<Event>& events) const {
  const SmallWorker& worker = workers_.at(index);
  const std::string name = "worker " + std::to_string(index);
  if (worker.isAlive)
    events.push_back({name + " dies", [index](SmallWorld& world) { world.die(index); }, 1});
  if (worker.lastTake)
    events.push_back({name + " its last take comes again",
                      [take = *worker.lastTake](SmallWorld& world) {
                        world.tell([&](Ledger& ledger) { return ledger.take(take, kNow); });
                      },
                      1});
  if (worker.lastFinish)
    events.push_back({name + " its last result comes again",
                      [finish = *worker.lastFinish](SmallWorld& world) {
                        const auto decision = world.tell([&](Ledger& ledger) { return ledger.finish(finish, kNow); });
                        world.noteVerdict(decision.answer().verdicts.at(0));
                      },
                      1});
}

// What is noticed of workers: of living ones by mistake only.
void SmallWorld::addLosses(std::vector<Event>& events) const {
  for (const auto& [known, row] : books_.workers) {
    const WorkerId id = known;
    const std::string name = "of worker " + std::to_string(static_cast<std::uint64_t>(id));
    if (row.state == WorkerState::active)
      events.push_back(
          {"the lease " + name + " lapses", [id](SmallWorld& world) { world.lapse(id); }, lives(id) ? 1 : 0});
    if (row.state == WorkerState::gone || lives(id))
      continue;
    events.push_back({"the end " + name, [id](SmallWorld& world) { world.lose(id, LossCause::unexplained); }, 0});
    events.push_back(
        {"the explained end " + name, [id](SmallWorld& world) { world.lose(id, LossCause::explained); }, 0});
  }
}

std::vector<SmallWorld::Event> SmallWorld::events() const {
  std::vector<Event> all;
  for (const std::size_t index : {0U, 1U}) {
    addEventsOf(index, all);
    addTroubles(index, all);
  }
  addLosses(all);
  if (!isCancelled_)
    all.push_back({"cancel", [](SmallWorld& world) { world.cancel(); }, 1});
  if (!isRetried_)
    all.push_back({"retry", [](SmallWorld& world) { world.retry(); }, 1});
  std::erase_if(all, [this](const Event& event) { return event.trouble > troubles_; });
  return all;
}

SmallWorld SmallWorld::after(const Event& event) const {
  SmallWorld next = *this;
  next.troubles_ -= event.trouble;
  event.happen(next);
  return next;
}

void SmallWorld::requireThatAllCanEnd() const {
  SmallWorld world = *this;
  const auto known = books_.workers;
  for (const auto& [id, row] : known) {
    if (row.state != WorkerState::gone && !lives(id))
      world.lose(id, LossCause::explained);
  }
  for (int round = 0; round < 20 && !world.hasAllEnded(); ++round) {
    world.workOff(0);
    world.workOff(1);
  }
  require(world.hasAllEnded(), "not all tasks can end");
}

// The worker takes what it is given, and brings it to its end.
void SmallWorld::workOff(std::size_t index) {
  SmallWorker& worker = workers_.at(index);
  if (!worker.isAlive)
    begin(index);
  if (!worker.id)
    join(index, Line::holds);
  take(index, Line::holds);
  while (worker.id && !worker.held.empty()) {
    const auto [key, held] = *worker.held.begin();
    if (!held.isStarted)
      renew(index, Line::holds, key);
    if (worker.id && worker.held.contains(key))
      finish(index, key, held.result.value_or(kSuccess), Line::holds);
  }
}

std::string SmallWorld::signature() const {
  std::ostringstream out;
  write(out, books_);
  for (const SmallWorker& worker : workers_) {
    out << '\n' << worker.isAlive << worker.life << ' ' << worker.sequence << worker.isUnanswered;
    out << (worker.id ? static_cast<std::uint64_t>(*worker.id) : 0) << ' ';
    for (const auto& [key, held] : worker.held) {
      write(out, key);
      out << held.isStarted << held.reportStart;
      write(out, held.result.value_or(Ending{}));
    }
    if (worker.lastTake) {
      out << 't' << worker.lastTake->sequence << ' ';
      for (const HeldAttempt& held : worker.lastTake->held)
        out << held.attempt.number << held.isStarted;
    }
    if (worker.lastFinish) {
      write(out, worker.lastFinish->results[0].attempt);
      write(out, worker.lastFinish->results[0].ending);
    }
  }
  for (const auto& [key, past] : past_)
    out << '\n' << past.ends << past.revivals << past.runs;
  for (const auto& [key, verdict] : verdicts_) {
    write(out, key);
    out << verdict.isAccepted;
    write(out, verdict.ending);
  }
  out << troubles_ << isCancelled_ << isRetried_;
  return std::move(out).str();
}

}  // namespace parallel::scheduler::ledger::testing
