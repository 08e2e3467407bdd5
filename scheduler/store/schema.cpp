#include "scheduler/store/schema.h"

#include <array>
#include <string>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "scheduler/ledger/names.h"
#include "scheduler/store/sqlite/Statement.h"

namespace parallel::scheduler::store {

namespace {

// The numbers of states that stand in the conditions of indexes.
static_assert(static_cast<int>(ledger::TaskState::succeeded) == 4);
static_assert(static_cast<int>(ledger::AttemptState::ended) == 3);

constexpr const char* kFormat1 = R"sql(
CREATE TABLE counters (
  only INTEGER PRIMARY KEY CHECK (only = 1),
  next_job INTEGER NOT NULL, next_worker INTEGER NOT NULL, next_attempt INTEGER NOT NULL);

CREATE TABLE keys (
  key TEXT PRIMARY KEY, digest BLOB NOT NULL, job INTEGER NOT NULL) WITHOUT ROWID;

CREATE TABLE jobs (
  job INTEGER PRIMARY KEY, key TEXT NOT NULL, name TEXT NOT NULL, submitted INTEGER NOT NULL, details BLOB NOT NULL);

CREATE TABLE progress (
  job INTEGER PRIMARY KEY REFERENCES jobs ON DELETE CASCADE,
  version INTEGER NOT NULL, priority INTEGER NOT NULL, held INTEGER NOT NULL, open INTEGER NOT NULL,
  round INTEGER NOT NULL, counts BLOB NOT NULL, ended INTEGER);

CREATE TABLE rounds (
  job INTEGER REFERENCES jobs ON DELETE CASCADE, round INTEGER, key TEXT NOT NULL, begun INTEGER NOT NULL,
  PRIMARY KEY (job, round)) WITHOUT ROWID;

CREATE TABLE arrays (
  job INTEGER REFERENCES jobs ON DELETE CASCADE, first INTEGER, last INTEGER NOT NULL, digest BLOB NOT NULL,
  needs BLOB NOT NULL, at_once INTEGER NOT NULL, deaths_allowed INTEGER NOT NULL, retries BLOB NOT NULL,
  dependencies BLOB NOT NULL, details BLOB NOT NULL,
  PRIMARY KEY (job, first));

CREATE TABLE ranges (
  job INTEGER REFERENCES jobs ON DELETE CASCADE, last INTEGER, first INTEGER NOT NULL, state INTEGER NOT NULL,
  PRIMARY KEY (job, last)) WITHOUT ROWID;

CREATE TABLE tasks (
  job INTEGER REFERENCES jobs ON DELETE CASCADE, task INTEGER, state INTEGER NOT NULL, round INTEGER NOT NULL,
  attempt INTEGER NOT NULL, retries BLOB, deaths INTEGER NOT NULL, alone INTEGER NOT NULL, delay INTEGER NOT NULL,
  reason INTEGER NOT NULL, code INTEGER NOT NULL,
  PRIMARY KEY (job, task)) WITHOUT ROWID;
-- Those in progress for a start, and the few that did not succeed among a million that did.
CREATE INDEX tasks_not_succeeded ON tasks (state, job, task) WHERE state <> 4;

CREATE TABLE attempts (
  job INTEGER REFERENCES jobs ON DELETE CASCADE, task INTEGER, number INTEGER, worker INTEGER NOT NULL,
  sequence INTEGER NOT NULL, round INTEGER NOT NULL, state INTEGER NOT NULL, alone INTEGER NOT NULL,
  accepted INTEGER NOT NULL, reason INTEGER NOT NULL, code INTEGER NOT NULL, granted INTEGER NOT NULL, ended INTEGER,
  details BLOB NOT NULL,
  PRIMARY KEY (job, task, number)) WITHOUT ROWID;
CREATE INDEX attempts_not_ended ON attempts (job, task, number) WHERE state <> 3;

CREATE TABLE workers (
  worker INTEGER PRIMARY KEY, key TEXT NOT NULL, name TEXT NOT NULL, resources BLOB NOT NULL, state INTEGER NOT NULL,
  draining INTEGER NOT NULL, sequence INTEGER NOT NULL);

-- A blob without content is a file.
CREATE TABLE blobs (
  digest BLOB PRIMARY KEY, nbytes INTEGER NOT NULL, used INTEGER NOT NULL, content BLOB);
CREATE INDEX blobs_by_use ON blobs (used);

CREATE TABLE pins (
  holder TEXT, digest BLOB, PRIMARY KEY (holder, digest)) WITHOUT ROWID;
CREATE INDEX pins_by_digest ON pins (digest);
)sql";

// The n-th makes format n + 1 of format n.
constexpr std::array<const char*, kStoreFormat> kSteps{kFormat1};

void keepCopy(Database& database, std::int64_t format) {
  const std::string copy = database.path().string() + ".format-" + std::to_string(format);
  if (std::filesystem::exists(copy))  // of a migration that was cut off: the store is still what it was then
    return;
  const std::string unfinished = copy + ".new";
  std::filesystem::remove(unfinished);
  Statement vacuum(database, "VACUUM INTO ?");
  vacuum.bind(unfinished).run();
  std::filesystem::rename(unfinished, copy);
}

}  // namespace

void migrate(Database& database) {
  const std::int64_t format = database.number("PRAGMA user_version");
  if (format > kStoreFormat)
    throw Exception<parallel::store::StoreTooNew>(database.path().parent_path().string(), format, kStoreFormat);
  if (format == kStoreFormat)
    return;
  if (format > 0)
    keepCopy(database, format);
  Transaction transaction(database);
  for (std::int64_t step = format; step < kStoreFormat; ++step)
    database.run(kSteps.at(static_cast<std::size_t>(step)));
  database.run("PRAGMA user_version = " + std::to_string(kStoreFormat));
  transaction.commit();
}

}  // namespace parallel::scheduler::store
