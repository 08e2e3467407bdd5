#include "scheduler/store/LedgerTables.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "scheduler/store/Numbers.h"
#include "scheduler/store/records.h"

namespace parallel::scheduler::store {

using namespace ledger;  // NOLINT(google-build-using-namespace): every record is one of its types

namespace {

// What columns a row has, in the order of records.cpp.
#define ZKS_ATTEMPT_COLUMNS \
  "job, task, number, worker, sequence, round, state, alone, accepted, reason, code, granted, ended"

constexpr const char* kTaskColumns =
    "SELECT job, task, state, round, attempt, retries, deaths, alone, delay, reason, code FROM tasks ";
constexpr const char* kWholeAttempt = "SELECT " ZKS_ATTEMPT_COLUMNS ", details FROM attempts ";
constexpr const char* kAttemptWithoutDetails = "SELECT " ZKS_ATTEMPT_COLUMNS ", x'' FROM attempts ";
constexpr const char* kArrayColumns =
    "SELECT job, first, last, digest, needs, at_once, deaths_allowed, retries, dependencies, ";
#undef ZKS_ATTEMPT_COLUMNS

// The greatest number that the tables put above all smaller ones.
std::int64_t inTables(std::uint64_t number) {
  return static_cast<std::int64_t>(
      std::min(number, static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())));
}

template <class Rows>
void write(Statement& statement, const Rows& rows) {
  for (const auto& [key, row] : rows) {
    BoundRow bound(statement);
    bound.add(row);
    bound.run();
  }
}

void bindKey(Statement& statement, const TaskKey& key) {
  statement.bind(key.job).bind(key.task);
}

void bindKey(Statement& statement, const AttemptKey& key) {
  statement.bind(key.job).bind(key.task).bind(key.number);
}

template <class Rows>
void edit(Statement& put, Statement& erase, const Rows& rows) {
  for (const auto& [key, row] : rows) {
    if (row) {
      BoundRow bound(put);
      bound.add(*row);
      bound.run();
    } else {
      bindKey(erase, key);
      erase.run();
    }
  }
}

}  // namespace

struct LedgerTables::Statements {
  explicit Statements(Database& db)
      : deleteJob(db, "DELETE FROM jobs WHERE job = ?"),
        dropTasks(db, "DELETE FROM tasks WHERE job = ? AND task BETWEEN ? AND ?"),
        putCounters(db, "REPLACE INTO counters VALUES (1, ?, ?, ?)"),
        putKey(db, "REPLACE INTO keys VALUES (?, ?, ?)"),
        // Not REPLACE, which would delete the job's rows everywhere first.
        putJob(db,
               "INSERT INTO jobs VALUES (?1, ?2, ?3, ?4, ?5) ON CONFLICT (job) DO UPDATE SET "
               "key = ?2, name = ?3, submitted = ?4, details = ?5"),
        putProgress(db, "REPLACE INTO progress VALUES (?, ?, ?, ?, ?, ?, ?, ?)"),
        putRound(db, "REPLACE INTO rounds VALUES (?, ?, ?, ?)"),
        putArray(db, "REPLACE INTO arrays VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
        putRange(db, "REPLACE INTO ranges VALUES (?, ?, ?, ?)"),
        eraseRange(db, "DELETE FROM ranges WHERE job = ? AND last = ?"),
        putTask(db, "REPLACE INTO tasks VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
        eraseTask(db, "DELETE FROM tasks WHERE job = ? AND task = ?"),
        putAttempt(db, "REPLACE INTO attempts VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
        eraseAttempt(db, "DELETE FROM attempts WHERE job = ? AND task = ? AND number = ?"),
        putWorker(db, "REPLACE INTO workers VALUES (?, ?, ?, ?, ?, ?, ?)"),
        findAttempt(db, std::string(kWholeAttempt) + "WHERE job = ? AND task = ? AND number = ?"),
        findTasks(db, "SELECT task FROM tasks WHERE job = ? AND state = ? AND task BETWEEN ? AND ? ORDER BY task") {}

  Statement deleteJob;
  Statement dropTasks;
  Statement putCounters;
  Statement putKey;
  Statement putJob;
  Statement putProgress;
  Statement putRound;
  Statement putArray;
  Statement putRange;
  Statement eraseRange;
  Statement putTask;
  Statement eraseTask;
  Statement putAttempt;
  Statement eraseAttempt;
  Statement putWorker;
  Statement findAttempt;
  Statement findTasks;
};

LedgerTables::LedgerTables(Database& database)
    : database_(database), statements_(std::make_unique<Statements>(database)) {}

LedgerTables::~LedgerTables() = default;

void LedgerTables::apply(const Changes& changes) {
  Statements& st = *statements_;
  for (const JobId job : changes.deletedJobs)
    st.deleteJob.bind(job).run();
  for (const auto& [job, span] : changes.droppedTasks)
    st.dropTasks.bind(job).bind(inTables(span.first)).bind(inTables(span.last)).run();
  if (changes.counters) {
    BoundRow bound(st.putCounters);
    bound.add(*changes.counters);
    bound.run();
  }
  write(st.putKey, changes.keys);
  write(st.putJob, changes.jobs);  // before the rows that refer to it
  write(st.putProgress, changes.progress);
  write(st.putRound, changes.rounds);
  write(st.putArray, changes.arrays);
  edit(st.putRange, st.eraseRange, changes.ranges);
  edit(st.putTask, st.eraseTask, changes.tasks);
  edit(st.putAttempt, st.eraseAttempt, changes.attempts);
  write(st.putWorker, changes.workers);
}

namespace {

// Every row of a statement whose parameters are bound.
template <class Record>
std::vector<Record> rowsOf(Database& database, Statement& statement) try {
  std::vector<Record> rows;
  while (statement.step()) {
    rows.emplace_back();
    read(statement, rows.back());
  }
  return rows;
} catch (const BadNumbers& bad) {
  throw Exception<parallel::store::DatabaseDamaged>(database.path().string(), "reading a row", bad.what());
}

template <class Record>
std::vector<Record> rowsOf(Database& database, const std::string& sql) {
  Statement statement(database, sql);
  return rowsOf<Record>(database, statement);
}

template <class Record>
std::optional<Record> rowOf(Database& database, Statement& statement) {
  std::vector<Record> rows = rowsOf<Record>(database, statement);
  return rows.empty() ? std::nullopt : std::optional(std::move(rows.front()));
}

}  // namespace

Kept LedgerTables::kept() {
  Kept kept;
  const auto counters = rowsOf<Counters>(database_, "SELECT next_job, next_worker, next_attempt FROM counters");
  if (!counters.empty())
    kept.counters = counters.front();
  kept.keys = rowsOf<KeyRecord>(database_, "SELECT * FROM keys");
  kept.progress = rowsOf<JobProgress>(database_, "SELECT * FROM progress");
  kept.rounds = rowsOf<RoundRecord>(database_, "SELECT * FROM rounds");
  kept.arrays = rowsOf<ArrayRecord>(database_, std::string(kArrayColumns) + "x'' FROM arrays ORDER BY job, first");
  kept.ranges = rowsOf<RangeRecord>(database_, "SELECT * FROM ranges");
  // Both conditions: the first is that of the index.
  kept.tasks = rowsOf<TaskRecord>(
      database_, std::string(kTaskColumns) + "WHERE state <> 4 AND state IN (0, 1, 2, 3) ORDER BY job, task");
  kept.attempts = rowsOf<AttemptRecord>(
      database_, std::string(kAttemptWithoutDetails) + "WHERE state <> 3 ORDER BY job, task, number");
  kept.workers = rowsOf<WorkerRecord>(database_, "SELECT * FROM workers WHERE state <> 2");
  static_assert(static_cast<int>(WorkerState::gone) == 2);
  return kept;
}

std::optional<JobRecord> LedgerTables::job(JobId id) {
  Statement find(database_, "SELECT * FROM jobs WHERE job = ?");
  find.bind(id);
  return rowOf<JobRecord>(database_, find);
}

std::vector<JobRecord> LedgerTables::jobsAfter(JobId after, std::size_t limit) {
  Statement find(database_, "SELECT * FROM jobs WHERE job > ? ORDER BY job LIMIT ?");
  find.bind(after).bind(limit);
  return rowsOf<JobRecord>(database_, find);
}

std::vector<JobRecord> LedgerTables::jobsBefore(JobId before, const std::string& name, std::size_t limit) {
  Statement find(database_,
                 "SELECT job, key, name, submitted, x'' FROM jobs WHERE job < ?1 AND (?2 = '' OR name = ?2) "
                 "ORDER BY job DESC LIMIT ?3");
  find.bind(inTables(static_cast<std::uint64_t>(before))).bind(name).bind(limit);
  return rowsOf<JobRecord>(database_, find);
}

std::optional<JobProgress> LedgerTables::progress(JobId job) {
  Statement find(database_, "SELECT * FROM progress WHERE job = ?");
  find.bind(job);
  return rowOf<JobProgress>(database_, find);
}

TaskCounts LedgerTables::counts() {
  TaskCounts sum{};
  for (const JobProgress& progress : rowsOf<JobProgress>(database_, "SELECT * FROM progress")) {
    for (std::size_t state = 0; state < sum.size(); ++state)
      sum.at(state) += progress.counts.at(state);
  }
  return sum;
}

std::uint64_t LedgerTables::jobCount() {
  return static_cast<std::uint64_t>(database_.number("SELECT count(*) FROM jobs"));
}

std::vector<ArrayRecord> LedgerTables::arraysFrom(TaskKey task, std::size_t limit) {
  Statement find(database_,
                 std::string(kArrayColumns) + "details FROM arrays WHERE job = ? AND last >= ? ORDER BY first LIMIT ?");
  find.bind(task.job).bind(inTables(task.task)).bind(limit);
  return rowsOf<ArrayRecord>(database_, find);
}

std::vector<RangeRecord> LedgerTables::rangesFrom(TaskKey task, std::size_t limit) {
  Statement find(database_, "SELECT * FROM ranges WHERE job = ? AND last >= ? ORDER BY last LIMIT ?");
  find.bind(task.job).bind(inTables(task.task)).bind(limit);
  return rowsOf<RangeRecord>(database_, find);
}

std::optional<ArrayRecord> LedgerTables::arrayOf(TaskKey task) {
  Statement find(database_, std::string(kArrayColumns) +
                                "details FROM arrays WHERE job = ?1 AND first <= ?2 AND last >= ?2 "
                                "ORDER BY first DESC LIMIT 1");
  find.bind(task.job).bind(inTables(task.task));
  return rowOf<ArrayRecord>(database_, find);
}

std::optional<TaskRecord> LedgerTables::task(TaskKey key) {
  Statement find(database_, std::string(kTaskColumns) + "WHERE job = ? AND task = ?");
  bindKey(find, key);
  return rowOf<TaskRecord>(database_, find);
}

std::vector<TaskRecord> LedgerTables::tasksFrom(TaskKey first, std::optional<TaskState> state, std::size_t limit) {
  std::string sql = std::string(kTaskColumns) + "WHERE job = ? AND task >= ? ";
  if (state == TaskState::succeeded)  // most of them: they have no index of their own
    sql += "AND state = 4 ";
  else if (state)
    sql += "AND state <> 4 AND state = " + std::to_string(static_cast<int>(*state)) + " ";
  Statement find(database_, sql + "ORDER BY task LIMIT ?");
  find.bind(first.job).bind(inTables(first.task)).bind(limit);
  return rowsOf<TaskRecord>(database_, find);
}

std::optional<AttemptRecord> LedgerTables::attempt(const AttemptKey& key) {
  bindKey(statements_->findAttempt, key);
  return rowOf<AttemptRecord>(database_, statements_->findAttempt);
}

std::vector<AttemptRecord> LedgerTables::attemptsOf(TaskKey task) {
  Statement find(database_, std::string(kWholeAttempt) + "WHERE job = ? AND task = ? ORDER BY number");
  bindKey(find, task);
  return rowsOf<AttemptRecord>(database_, find);
}

TaskSet LedgerTables::endedTasks(JobId job, TaskSpan bounds, TaskState state) {
  Statement& find = statements_->findTasks;
  find.bind(job).bind(state).bind(inTables(bounds.first)).bind(inTables(bounds.last));
  TaskSet found;
  while (find.step()) {
    const TaskNumber task = find.number();
    found.add(TaskSpan{task, task});
  }
  return found;
}

}  // namespace parallel::scheduler::store
