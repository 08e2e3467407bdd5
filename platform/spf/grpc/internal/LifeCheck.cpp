#include "platform/spf/grpc/internal/LifeCheck.h"

#include <utility>

namespace agent::spf::grpc_transport::internal {

LifeCheck::LifeCheck(grpc::CompletionQueue& queue, Options options) : queue_(queue), options_(std::move(options)) {}

void LifeCheck::start() {
  wait(options_.interval);
}

void LifeCheck::stop() noexcept {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  alarm_.Cancel();
}

// The queue must not be used once it has been shut down, which comes after stop().
void LifeCheck::wait(std::chrono::milliseconds time) {
  const std::lock_guard lock(mutex_);
  if (!stopped_)
    alarm_.Set(&queue_, std::chrono::system_clock::now() + time, tag_.arm(shared_from_this()));
}

void LifeCheck::onAlarm(bool ok) {
  if (!ok)
    return;
  const unsigned signs = signs_.load(std::memory_order_relaxed);
  if (std::exchange(signsBefore_, signs) != signs)
    asked_ = false;
  else if (std::exchange(asked_, true))
    return options_.lost();
  else
    options_.ask();
  wait(asked_ ? options_.timeout : options_.interval);
}

}  // namespace agent::spf::grpc_transport::internal
