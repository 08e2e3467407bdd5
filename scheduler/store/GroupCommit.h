// Writes to one database, by one thread, in groups: all that came while a transaction was being committed goes into the
// next one. A disk that takes five milliseconds for a commit then commits for a thousand peers at once.
//
// Threads: any, but not from within what it runs.
// Errors:  a write that throws, or a commit that fails, is the end: nothing of the group is answered, nobody knows what
//          the disk has, and every further call throws parallel::store::StoreFailed. Who owns the store ends the process;
//          the next start reads the truth back. Only of a full disk it recovers once, with the reserve (Reserve.h).
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "platform/threads/Mutex.h"
#include "scheduler/store/Reserve.h"
#include "scheduler/store/SyncedFolders.h"
#include "scheduler/store/sqlite/Database.h"

namespace parallel::scheduler::store {

class GroupCommit {
 public:
  // What a write may use. Both are the group's: nothing that it does is durable before the group is.
  struct Group {
    Database& database;
    SyncedFolders& folders;  // those in which files were made or renamed; synced before the commit
  };
  using Write = std::function<void(Group&)>;
  using Kept = std::function<void()>;
  using Failed = std::function<void(const std::string& reason)>;

  // Borrows all three. `failed` is called once, on the thread of the commits, when the store can no longer be used.
  GroupCommit(Database& database, Files& files, Reserve& reserve, Failed failed);
  // Commits what was given to it before.
  ~GroupCommit();
  GroupCommit(const GroupCommit&) = delete;
  GroupCommit& operator=(const GroupCommit&) = delete;

  // Writes in the order of the calls. A write may run twice, the first time rolled back. `kept` runs on the thread of the
  // commits once the write is durable; it must not wait, nor throw.
  void write(Write write, Kept kept);
  // The same, and waits until it is durable. What the write throws ends the store.
  void writeAndWait(Write write);

  // Runs the question in its turn, and waits for the answer: that shows every write before it, committed or not. What it
  // throws is thrown here and harms nobody.
  template <class Question>
  std::invoke_result_t<Question, Database&> ask(Question question) {
    std::optional<std::invoke_result_t<Question, Database&>> answer;
    runQuestion([&](Database& database) { answer.emplace(question(database)); }, When::inTurn);
    return std::move(*answer);
  }
  // The same, of what is committed only.
  template <class Question>
  std::invoke_result_t<Question, Database&> askCommitted(Question question) {
    std::optional<std::invoke_result_t<Question, Database&>> answer;
    runQuestion([&](Database& database) { answer.emplace(question(database)); }, When::betweenGroups);
    return std::move(*answer);
  }

 private:
  enum class When { inTurn, betweenGroups };
  struct Item {
    Write write;
    Kept kept;
  };
  using Items = std::vector<Item>;

  void runQuestion(const std::function<void(Database&)>& question, When when);
  void add(When when, Item item);
  void serve();
  bool takeGroup(Items& questions, Items& writes);
  // False when the store has failed.
  bool keep(Items& writes);
  void commit(Items& writes);
  void fail(const std::string& reason);

  Database& database_;
  SyncedFolders folders_;
  Reserve& reserve_;
  Failed failed_;
  threads::Mutex mutex_;
  threads::ConditionVariable changed_;
  Items questions_ ZKS_GUARDED_BY(mutex_);
  Items writes_ ZKS_GUARDED_BY(mutex_);
  bool closing_ ZKS_GUARDED_BY(mutex_) = false;
  std::optional<std::string> failure_ ZKS_GUARDED_BY(mutex_);
  std::thread thread_;
};

}  // namespace parallel::scheduler::store
