#include "platform/spf/core/internal/CancelNotice.h"

#include <utility>

namespace agent::spf::core::internal {

using parallel::threads::MutexLock;

void CancelNotice::setCallback(std::function<void()> callback) {
  {
    MutexLock lock(mutex_);
    callback_ = std::move(callback);
    const auto self = std::this_thread::get_id();
    ended_.wait(lock, [&]() ZKS_REQUIRES(mutex_) { return runner_ == std::thread::id() || runner_ == self; });
    if (!isCancelled() || runner_ == self)
      return;
  }
  runCallback();
}

void CancelNotice::setFollowUp(const std::function<void()>& followUp) {
  {
    const MutexLock lock(mutex_);
    followUp_ = followUp;
  }
  if (followUp && isCancelled())
    followUp();
}

void CancelNotice::run() {
  runCallback();
  std::function<void()> followUp;
  {
    const MutexLock lock(mutex_);
    followUp = followUp_;
  }
  if (followUp)
    followUp();
}

void CancelNotice::runCallback() {
  const std::function<void()> callback = takeCallback();
  if (!callback)
    return;
  try {
    callback();
  } catch (...) {  // NOLINT(bugprone-empty-catch): a callback's own failure has nobody to go to
  }
  const MutexLock lock(mutex_);
  runner_ = std::thread::id();
  ended_.notifyAll();
}

// Empty when there is none to run. Otherwise this thread is the runner now.
std::function<void()> CancelNotice::takeCallback() {
  MutexLock lock(mutex_);
  ended_.wait(lock, [this]() ZKS_REQUIRES(mutex_) { return runner_ == std::thread::id(); });
  if (callback_)
    runner_ = std::this_thread::get_id();
  return std::exchange(callback_, nullptr);
}

}  // namespace agent::spf::core::internal
