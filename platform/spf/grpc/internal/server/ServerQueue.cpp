#include "platform/spf/grpc/internal/server/ServerQueue.h"

#include <utility>

#include "platform/spf/grpc/internal/wire/CompletionTag.h"

namespace agent::spf::grpc_transport::internal {

using parallel::threads::MutexLock;

void ServerQueue::start() {
  threads_[0] = std::thread([this] { work(Role::server); });
  threads_[1] = std::thread([this] { work(Role::guard); });
}

void ServerQueue::shutdown() {
  queue_->Shutdown();
  {
    const MutexLock lock(mutex_);
    ended_ = true;
    changed_.notifyAll();
  }
  for (std::thread& thread : threads_)
    if (thread.joinable())
      thread.join();
}

bool ServerQueue::runSoon(const std::function<void()>& handler) {
  {
    const MutexLock lock(mutex_);
    if (guard_ == Guard::absent)
      return false;
  }
  next_ = handler;
  return true;
}

void ServerQueue::work(Role role) {
  while (role != Role::none)
    role = role == Role::server ? serve() : guard();
}

ServerQueue::Role ServerQueue::serve() {
  while (serveCompletion(*queue_))
    if (const auto handler = std::exchange(next_, nullptr))
      if (!runHandler(handler))
        return Role::guard;
  return Role::none;
}

// False when the guard has taken the queue over meanwhile.
bool ServerQueue::runHandler(const std::function<void()>& handler) {
  const std::uint64_t call = holdQueue();
  handler();
  const MutexLock lock(mutex_);
  if (holder_ != call)
    return false;
  holder_ = 0;
  return true;
}

std::uint64_t ServerQueue::holdQueue() {
  const MutexLock lock(mutex_);
  if (guard_ == Guard::asleep)
    changed_.notifyAll();
  return holder_ = ++calls_;
}

ServerQueue::Role ServerQueue::guard() {
  MutexLock lock(mutex_);
  while (!ended_) {
    guard_ = Guard::asleep;
    changed_.wait(lock, [this]() ZKS_REQUIRES(mutex_) { return ended_ || holder_ != 0; });
    guard_ = Guard::watching;
    if (watch(lock)) {
      holder_ = 0;
      guard_ = Guard::absent;
      return Role::server;
    }
  }
  guard_ = Guard::absent;
  return Role::none;
}

// True when a handler holds the queue up; false when none has run for a while.
bool ServerQueue::watch(MutexLock& lock) {
  for (int looksInVain = 0; looksInVain < kLooksInVain && !ended_; ++looksInVain) {
    const std::uint64_t calls = calls_;
    const std::uint64_t holder = holder_;
    changed_.waitFor(lock, kLook, [this]() ZKS_REQUIRES(mutex_) { return ended_; });
    if (calls_ != calls)
      looksInVain = 0;
    else if (holder_ != 0 && holder_ == holder)
      return true;
  }
  return false;
}

}  // namespace agent::spf::grpc_transport::internal
