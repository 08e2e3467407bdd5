#include "platform/spf/core/internal/WorkerThreads.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace agent::spf::core::internal {

// Shared with the threads, so that one that outlives the object (it runs the destructor) still has it.
struct WorkerThreads::State {
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<std::function<void()>> tasks;  // guarded by mutex, as all below
  std::size_t idle = 0;
  bool closed = false;
  std::vector<std::thread> threads;

  void work() {
    std::unique_lock lock(mutex);
    for (;;) {
      ++idle;
      wake.wait(lock, [this] { return closed || !tasks.empty(); });
      --idle;
      if (tasks.empty())
        return;
      std::function<void()> task = std::move(tasks.front());
      tasks.pop_front();
      lock.unlock();
      task();
      task = nullptr;  // what it held may take a while to end: not under the lock
      lock.lock();
    }
  }
};

WorkerThreads::WorkerThreads() : state_(std::make_shared<State>()) {}

WorkerThreads::~WorkerThreads() {
  join();
}

void WorkerThreads::join() {
  std::vector<std::thread> threads;
  {
    const std::lock_guard lock(state_->mutex);
    state_->closed = true;
    threads.swap(state_->threads);
    state_->wake.notify_all();
  }
  for (std::thread& thread : threads) {
    if (thread.get_id() == std::this_thread::get_id())
      thread.detach();
    else
      thread.join();
  }
}

void WorkerThreads::run(std::function<void()> task) {
  std::unique_lock lock(state_->mutex);
  if (state_->closed) {
    lock.unlock();
    return task();
  }
  if (state_->idle <= state_->tasks.size())
    state_->threads.emplace_back([state = state_] { state->work(); });
  state_->tasks.push_back(std::move(task));
  state_->wake.notify_one();
}

bool WorkerThreads::isOwnThread() const {
  const std::lock_guard lock(state_->mutex);
  for (const std::thread& thread : state_->threads)
    if (thread.get_id() == std::this_thread::get_id())
      return true;
  return false;
}

}  // namespace agent::spf::core::internal
