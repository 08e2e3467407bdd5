// Threads that run tasks which may block. They are made as they are needed, kept for later tasks, and end when none came
// for a while.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <limits>
#include <memory>

namespace agent::spf::core::internal {

// Threads: any. Errors: a task must not throw. Closing: join() waits for all tasks, except one that is calling it; what
// is run afterwards runs on the caller's thread. The destructor joins.
class WorkerThreads {
 public:
  struct Options {
    std::size_t least = 0;  // made by the constructor, and kept until join()
    std::size_t most = std::numeric_limits<std::size_t>::max();
    std::chrono::milliseconds idleTime{2'000};  // after which a thread ends
  };

  WorkerThreads() : WorkerThreads(Options()) {}
  // std::system_error when the least number of threads cannot be had.
  explicit WorkerThreads(const Options& options);
  ~WorkerThreads();
  WorkerThreads(const WorkerThreads&) = delete;
  WorkerThreads& operator=(const WorkerThreads&) = delete;

  // Runs the task at once on a thread of this object. std::system_error when none can be had; the task is not run then.
  void run(std::function<void()> task);
  // Runs the task when its turn comes: at once if a thread can be had, else after tasks that came before it. Never fails
  // for want of a thread where `least` is above zero.
  void runInLine(std::function<void()> task);
  void join();
  // True on a thread of this object.
  bool isOwnThread() const;
  // How many threads there are.
  std::size_t count() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace agent::spf::core::internal
