#include "scheduler/store/GroupCommit.h"

#include <exception>
#include <future>
#include <memory>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace parallel::scheduler::store {

using threads::MutexLock;

namespace {

// A promise that is dropped says that the store has failed.
void waitFor(std::future<void>& outcome) try { outcome.get(); } catch (const std::future_error&) {
  throw Exception<parallel::store::StoreFailed>("it failed while this was waiting to be written");
}

}  // namespace

GroupCommit::GroupCommit(Database& database, Files& files, Reserve& reserve, Failed failed)
    : database_(database), folders_(files), reserve_(reserve), failed_(std::move(failed)), thread_([this] {
        serve();
      }) {}

GroupCommit::~GroupCommit() {
  {
    const MutexLock lock(mutex_);
    closing_ = true;
    changed_.notifyAll();
  }
  thread_.join();
}

void GroupCommit::write(Write write, Kept kept) {
  add(When::inTurn, {std::move(write), std::move(kept)});
}

void GroupCommit::writeAndWait(Write write) {
  auto promise = std::make_shared<std::promise<void>>();
  std::future<void> outcome = promise->get_future();
  this->write(std::move(write), [promise = std::move(promise)] { promise->set_value(); });
  waitFor(outcome);
}

void GroupCommit::runQuestion(const std::function<void(Database&)>& question, When when) {
  auto promise = std::make_shared<std::promise<void>>();
  std::future<void> outcome = promise->get_future();
  auto run = [&question, promise = std::move(promise), isAnswered = false](Group& group) mutable {
    if (std::exchange(isAnswered, true))  // the group is run again: who asked has gone
      return;
    try {
      question(group.database);
      promise->set_value();
    } catch (...) {
      promise->set_exception(std::current_exception());
    }
  };
  add(when, {std::move(run), {}});
  waitFor(outcome);
}

void GroupCommit::add(When when, Item item) {
  const MutexLock lock(mutex_);
  if (failure_)
    throw Exception<parallel::store::StoreFailed>(*failure_);
  (when == When::inTurn ? writes_ : questions_).push_back(std::move(item));
  changed_.notifyAll();
}

// --- The thread of the commits ---

void GroupCommit::serve() {
  Items questions;
  Items writes;
  while (takeGroup(questions, writes)) {
    Group group{database_, folders_};
    for (const Item& question : questions)
      question.write(group);
    if (!writes.empty() && !keep(writes))
      break;
    for (const Item& item : writes) {
      if (item.kept)
        item.kept();
    }
  }
}

// False when there is nothing left and nothing more will come.
bool GroupCommit::takeGroup(Items& questions, Items& writes) {
  questions.clear();
  writes.clear();
  MutexLock lock(mutex_);
  changed_.wait(lock, [this]() ZKS_REQUIRES(mutex_) { return closing_ || !questions_.empty() || !writes_.empty(); });
  questions.swap(questions_);
  writes.swap(writes_);
  return !questions.empty() || !writes.empty();
}

bool GroupCommit::keep(Items& writes) try {
  try {
    commit(writes);
  } catch (const Exception<parallel::store::DatabaseFull>&) {
    if (!reserve_.give())
      throw;
    commit(writes);
  }
  return true;
} catch (const std::exception& failure) {
  fail(failure.what());
  writes.clear();
  return false;
}

void GroupCommit::commit(Items& writes) {
  folders_.clear();
  Transaction transaction(database_);
  Group group{database_, folders_};
  for (const Item& item : writes)
    item.write(group);
  folders_.sync();
  transaction.commit();
}

void GroupCommit::fail(const std::string& reason) {
  Items dropped;
  {
    const MutexLock lock(mutex_);
    failure_ = reason;
    dropped.swap(writes_);
    dropped.insert(dropped.end(), std::make_move_iterator(questions_.begin()),
                   std::make_move_iterator(questions_.end()));
    questions_.clear();
  }
  failed_(reason);
}

}  // namespace parallel::scheduler::store
