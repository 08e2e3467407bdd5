// Threads that run tasks which may block: as many as there are tasks at once, kept for the next ones.
#pragma once

#include <functional>
#include <memory>

namespace agent::spf::core::internal {

// Threads: run() from any thread. Errors: run() throws std::system_error when no thread can be had; a task must not
// throw. Closing: join() waits for all tasks, except one that is calling it; what is run afterwards runs on the
// caller's thread.
//            The destructor joins.
class WorkerThreads {
 public:
  WorkerThreads();
  ~WorkerThreads();
  WorkerThreads(const WorkerThreads&) = delete;
  WorkerThreads& operator=(const WorkerThreads&) = delete;

  void run(std::function<void()> task);
  void join();
  // True on a thread of this object.
  bool isOwnThread() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace agent::spf::core::internal
