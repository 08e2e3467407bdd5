#include "platform/spf/core/internal/CancelNotice.h"

#include <utility>

namespace agent::spf::core::internal {

void CancelNotice::setCallback(std::function<void()> callback) {
  std::unique_lock lock(mutex_);
  callback_ = std::move(callback);
  const auto self = std::this_thread::get_id();
  ended_.wait(lock, [&] { return runner_ == std::thread::id() || runner_ == self; });
  if (isCancelled() && runner_ != self)
    runLocked(lock);
}

void CancelNotice::run() {
  std::unique_lock lock(mutex_);
  ended_.wait(lock, [&] { return runner_ == std::thread::id(); });
  runLocked(lock);
}

void CancelNotice::runLocked(std::unique_lock<std::mutex>& lock) {
  const std::function<void()> callback = std::exchange(callback_, nullptr);
  if (!callback)
    return;
  runner_ = std::this_thread::get_id();
  lock.unlock();
  try {
    callback();
  } catch (...) {  // NOLINT(bugprone-empty-catch): a callback's own failure has nobody to go to
  }
  lock.lock();
  runner_ = std::thread::id();
  ended_.notify_all();
}

}  // namespace agent::spf::core::internal
