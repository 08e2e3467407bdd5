#include "platform/spf/core/internal/WorkerThreads.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <iterator>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/errors/systemError.h"
#include "platform/threads/Mutex.h"

namespace agent::spf::core::internal {

using parallel::threads::MutexLock;

namespace {

bool isThisThread(const std::thread& thread) {
  return thread.get_id() == std::this_thread::get_id();
}

void joinAll(std::vector<std::thread>& threads) {
  for (std::thread& thread : threads) {
    if (isThisThread(thread))
      thread.detach();
    else
      thread.join();
  }
}

}  // namespace

// Shared with the threads, so that one that outlives the object (it runs the destructor) still has it.
struct WorkerThreads::State {
  explicit State(const Options& chosen) : options(chosen) {}

  const Options options;
  mutable parallel::threads::Mutex mutex;
  parallel::threads::ConditionVariable wake;
  std::deque<std::function<void()>> tasks ZKS_GUARDED_BY(mutex);
  std::size_t idle ZKS_GUARDED_BY(mutex) = 0;
  bool closed ZKS_GUARDED_BY(mutex) = false;
  std::vector<std::thread> threads ZKS_GUARDED_BY(mutex);
  std::vector<std::thread> ended ZKS_GUARDED_BY(mutex);  // about to return, to be joined

  // `self`: this, for the thread to share. std::system_error when no more can be had.
  void addThread(const std::shared_ptr<State>& self) ZKS_REQUIRES(mutex) {
    if (threads.size() >= options.most)
      errors::throwSystemError("all threads are busy", EAGAIN);
    threads.reserve(threads.size() + 1);  // a thread that could not be kept would end the process
    ended.reserve(ended.size() + threads.size() + 1);
    threads.push_back(std::thread([self] { self->work(); }));
  }

  void addThreadIfNeeded(const std::shared_ptr<State>& self, bool mayWait) ZKS_REQUIRES(mutex) {
    if (idle > tasks.size())
      return;
    try {
      addThread(self);
    } catch (const std::system_error&) {
      if (!mayWait || threads.empty())
        throw;
    }
  }

  // The task itself when it is the caller's to run, since the threads have been joined.
  std::function<void()> add(std::function<void()> task, const std::shared_ptr<State>& self, bool mayWait) {
    std::vector<std::thread> toJoin;
    {
      const MutexLock lock(mutex);
      if (closed)
        return task;
      addThreadIfNeeded(self, mayWait);
      tasks.push_back(std::move(task));
      wake.notifyOne();
      toJoin.swap(ended);
    }
    joinAll(toJoin);
    return nullptr;
  }

  void fillUp(const std::shared_ptr<State>& self) {
    const MutexLock lock(mutex);
    while (threads.size() < options.least)
      addThread(self);
  }

  void work() {
    while (const std::function<void()> task = nextTask())
      task();  // also ends it, and what it holds, without the lock
  }

  // Empty when this thread is to end.
  std::function<void()> nextTask() {
    MutexLock lock(mutex);
    ++idle;
    const auto hasNews = [this]() ZKS_REQUIRES(mutex) { return closed || !tasks.empty(); };
    while (!wake.waitFor(lock, options.idleTime, hasNews))
      if (threads.size() > options.least)
        break;
    --idle;
    if (tasks.empty()) {
      leave();
      return nullptr;
    }
    std::function<void()> task = std::move(tasks.front());
    tasks.pop_front();
    return task;
  }

  // After close() the threads are no longer in the list, but with whoever joins them.
  void leave() ZKS_REQUIRES(mutex) {
    const auto self = std::find_if(threads.begin(), threads.end(), isThisThread);
    if (self == threads.end())
      return;
    ended.push_back(std::move(*self));
    threads.erase(self);
  }

  std::vector<std::thread> close() {
    const MutexLock lock(mutex);
    closed = true;
    std::vector<std::thread> all = std::exchange(threads, {});
    std::move(ended.begin(), ended.end(), std::back_inserter(all));
    ended.clear();
    wake.notifyAll();
    return all;
  }
};

WorkerThreads::WorkerThreads(const Options& options) : state_(std::make_shared<State>(options)) {
  try {
    state_->fillUp(state_);
  } catch (...) {
    join();
    throw;
  }
}

WorkerThreads::~WorkerThreads() {
  join();
}

void WorkerThreads::join() {
  std::vector<std::thread> threads = state_->close();
  joinAll(threads);
}

void WorkerThreads::run(std::function<void()> task) {
  if (const auto unwanted = state_->add(std::move(task), state_, false))
    unwanted();
}

void WorkerThreads::runInLine(std::function<void()> task) {
  if (const auto unwanted = state_->add(std::move(task), state_, true))
    unwanted();
}

bool WorkerThreads::isOwnThread() const {
  const MutexLock lock(state_->mutex);
  return std::any_of(state_->threads.begin(), state_->threads.end(), isThisThread);
}

std::size_t WorkerThreads::count() const {
  const MutexLock lock(state_->mutex);
  return state_->threads.size();
}

}  // namespace agent::spf::core::internal
