#include "platform/spf/grpc/internal/ServerQueue.h"

#include <system_error>
#include <utility>

#include "platform/spf/grpc/internal/CompletionTag.h"

namespace agent::spf::grpc_transport::internal {

ServerQueue::ServerQueue(std::unique_ptr<grpc::ServerCompletionQueue> queue, core::internal::WorkerThreads& threads)
    : queue_(std::move(queue)), threads_(threads) {}

void ServerQueue::start() {
  threads_.run([this] { work(Role::server); });
}

void ServerQueue::shutdown() {
  queue_->Shutdown();
  const std::lock_guard lock(mutex_);
  ended_ = true;
  end_.notify_all();
}

void ServerQueue::runNext(std::function<void()> handler, bool isQuick) {
  next_ = {std::move(handler), isQuick};
}

void ServerQueue::work(Role role) {
  while (role != Role::none)
    role = role == Role::server ? serve() : guard();
}

ServerQueue::Role ServerQueue::serve() {
  while (serveCompletion(*queue_)) {
    if (!next_.handler)
      continue;
    const Role role = run(std::exchange(next_, {}));
    if (role != Role::server)
      return role;
  }
  return Role::none;
}

ServerQueue::Role ServerQueue::run(const Next& next) {
  const std::uint64_t call = begin(next.isQuick);
  if (call == 0) {
    const bool handedOn = handOn();
    next.handler();
    return handedOn ? Role::guard : Role::server;
  }
  next.handler();
  return keeps(call) ? Role::server : Role::guard;
}

// The number of the call when its handler may hold the queue; else 0.
std::uint64_t ServerQueue::begin(bool isQuick) {
  const std::lock_guard lock(mutex_);
  ++calls_;
  return holder_ = isQuick && guarded_ ? calls_ : 0;
}

// False when the guard has taken the queue over.
bool ServerQueue::keeps(std::uint64_t call) {
  const std::lock_guard lock(mutex_);
  if (holder_ != call)
    return false;
  holder_ = 0;
  return true;
}

// False when there is no thread to take it: the calls then have to wait for each other.
bool ServerQueue::handOn() {
  try {
    threads_.run([this] { work(Role::server); });
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

ServerQueue::Role ServerQueue::guard() {
  std::unique_lock lock(mutex_);
  if (std::exchange(guarded_, true))
    return Role::none;  // one is enough
  Role next = Role::none;
  for (int looks = 0; looks < kLooksInVain && next == Role::none && !ended_; ++looks) {
    const std::uint64_t calls = calls_;
    const std::uint64_t holder = holder_;
    end_.wait_for(lock, kLook, [this] { return ended_; });
    if (calls_ != calls)
      looks = 0;
    else if (holder_ != 0 && holder_ == holder)
      next = Role::server;
  }
  if (next == Role::server)
    holder_ = 0;
  guarded_ = false;
  return next;
}

}  // namespace agent::spf::grpc_transport::internal
