// What the store costs: changes of a ledger beside commits of nothing, blobs beside a bare write and sync.
//
//   store_bench [FOLDER]
//
// FOLDER is on the disk to be measured; the current directory unless it is given.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"
#include "scheduler/store/Store.h"
#include "scheduler/store/sqlite/Statement.h"

namespace {

using namespace parallel::scheduler;  // NOLINT(google-build-using-namespace)
using store::Store;
namespace fs = std::filesystem;

constexpr store::WallTime kNow{};

// A folder of the benchmark's own, gone at its end.
class Folder {
 public:
  explicit Folder(const fs::path& parent) : path_((parent / "zks-store-bench-XXXXXX").string()) {
    if (::mkdtemp(path_.data()) == nullptr)
      errors::throwSystemError("mkdtemp");
  }
  ~Folder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  fs::path file(const char* name) const { return fs::path(path_) / name; }

 private:
  std::string path_;
};

// The floor of a group: one transaction that changes one number, committed and synced as the store's are.
class EmptyCommits {
 public:
  explicit EmptyCommits(const fs::path& file) : database_(file, {.isNew = true, .vfs = nullptr}) {
    database_.run("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; CREATE TABLE t (a); INSERT INTO t VALUES (0)");
    change_.emplace(database_, "UPDATE t SET a = a + 1");
  }
  void commit() {
    store::Transaction transaction(database_);
    change_->run();
    transaction.commit();
  }

 private:
  store::Database database_;
  std::optional<store::Statement> change_;
};

// What the end of one task changes: the task, its attempt, and the counts of its job.
ledger::Changes endOfTask(ledger::TaskNumber task) {
  const ledger::JobId job{1};
  ledger::Changes changes;
  changes.progress[job] = {.job = job, .version = task, .counts = {0, 0, 0, 0, task, 0, 0, 0}};
  changes.tasks[{job, task}] =
      ledger::TaskRecord{.job = job, .task = task, .state = ledger::TaskState::succeeded, .attempt = task + 1};
  changes.attempts[{job, task, task + 1}] = ledger::AttemptRecord{.key = {job, task, task + 1},
                                                                  .worker = ledger::WorkerId{1},
                                                                  .sequence = task,
                                                                  .round = 1,
                                                                  .state = ledger::AttemptState::ended,
                                                                  .accepted = true,
                                                                  .ending = {ledger::EndReason::success, 0},
                                                                  .granted = {},
                                                                  .ended = kNow,
                                                                  .details = std::string(100, 'x')};
  return changes;
}

class LedgerWork {
 public:
  explicit LedgerWork(Store& store) : ledger_(store.ledger()) {
    ledger::Changes job;
    job.jobs[ledger::JobId{1}].id = ledger::JobId{1};
    keep({job});
  }
  // So many ends of tasks that come at once; over when the last one is durable.
  void endTasks(std::size_t count) {
    std::vector<ledger::Changes> all;
    for (std::size_t i = 0; i < count; ++i)
      all.push_back(endOfTask(next_++));
    keep(std::move(all));
  }

 private:
  void keep(std::vector<ledger::Changes> all) {
    std::promise<void> kept;
    for (std::size_t i = 0; i < all.size(); ++i)
      ledger_.keep(std::move(all[i]), i + 1 == all.size() ? [&kept] { kept.set_value(); } : store::GroupCommit::Kept());
    kept.get_future().get();
  }

  store::LedgerStore& ledger_;
  ledger::TaskNumber next_ = 0;
};

void measureLedger(const fs::path& parent, std::size_t groupSize) {
  const Folder folder(parent);
  Store store(folder.file("store"));
  LedgerWork work(store);
  EmptyCommits empty(folder.file("empty.db"));
  constexpr int kGroups = 20;
  const auto rate = [&](const std::function<void()>& group) {
    const double seconds = bench::secondsOf([&] {
      for (int i = 0; i < kGroups; ++i)
        group();
    });
    return kGroups * static_cast<double>(groupSize) / seconds;
  };
  const std::vector<bench::Contender> contenders{
      {"one empty commit for the group", [&] { return rate([&] { empty.commit(); }); }},
      {"ends of tasks", [&] { return rate([&] { work.endTasks(groupSize); }); }}};
  bench::tableOf("Groups of " + std::to_string(groupSize), "a second", contenders,
                 bench::measureInterleaved(contenders), 0, 0)
      .print(std::cout);
  std::cout << '\n';
}

// The floor of a blob: its bytes written beside, synced, renamed, the folder synced.
void writeBare(const fs::path& folder, const std::string& content, int number) {
  const fs::path beside = folder / "beside";
  const files::UniqueFd file(::open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  for (std::size_t done = 0; done < content.size();) {
    const ssize_t written = ::write(file.get(), content.data() + done, content.size() - done);
    if (written < 0)
      errors::throwSystemError("write");
    done += static_cast<std::size_t>(written);
  }
  ::fsync(file.get());
  fs::rename(beside, folder / std::to_string(number));
  const files::UniqueFd opened(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ::fsync(opened.get());
}

void measureBlobs(const fs::path& parent, std::size_t nbytes) {
  const Folder folder(parent);
  Store store(folder.file("store"));
  fs::create_directory(folder.file("bare"));
  std::string content(nbytes, 'x');
  int number = 0;
  const int count = nbytes > (std::size_t{1} << 20) ? 1 : 10;
  const auto rate = [&](const std::function<void()>& put) {
    const double seconds = bench::secondsOf([&] {
      for (int i = 0; i < count; ++i) {
        content.replace(0, 8, std::to_string(10'000'000 + ++number));  // another blob each time
        put();
      }
    });
    constexpr double kMebibyte = 1 << 20;
    return count * static_cast<double>(nbytes) / kMebibyte / seconds;
  };
  const std::vector<bench::Contender> contenders{
      {"bare write, sync, rename, sync",
       [&] { return rate([&] { writeBare(folder.file("bare"), content, number); }); }},
      {"put", [&] { return rate([&] { store.blobs().put("holder", content, kNow); }); }}};
  bench::tableOf("Blob of " + std::to_string(nbytes) + " bytes", "MiB/s", contenders,
                 bench::measureInterleaved(contenders), 0, 1)
      .print(std::cout);
  std::cout << '\n';
}

}  // namespace

int main(int argc, char** argv) {
  const fs::path parent = argc > 1 ? argv[1] : ".";
  for (const std::size_t groupSize : {1, 10, 100, 1000})
    measureLedger(parent, groupSize);
  constexpr std::size_t kSmall = store::BlobStore::kSmallBytes;
  for (const std::size_t nbytes :
       {std::size_t{4096}, kSmall / 4, kSmall, kSmall + 1, 4 * kSmall, std::size_t{64} << 20})
    measureBlobs(parent, nbytes);
}
