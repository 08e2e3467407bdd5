#include "platform/spf/grpc/internal/client/LifeCheck.h"

#include <algorithm>
#include <utility>

namespace agent::spf::grpc_transport::internal {

LifeCheck::LifeCheck(grpc::CompletionQueue& queue, Options options)
    : queue_(queue), options_(std::move(options)), silence_(options_.interval, options_.timeout) {}

void LifeCheck::start() {
  waitUntil(silence_.next(lastSign_));
}

void LifeCheck::stop() noexcept {
  const parallel::threads::MutexLock lock(mutex_);
  stopped_ = true;
  alarm_.Cancel();
}

// The queue must not be used once it has been shut down, which comes after stop().
void LifeCheck::waitUntil(Silence::TimePoint time) {
  const auto pause = std::max(time - std::chrono::steady_clock::now(), Silence::Duration::zero());
  const parallel::threads::MutexLock lock(mutex_);
  if (!stopped_)
    alarm_.Set(&queue_, std::chrono::system_clock::now() + pause, tag_.arm(shared_from_this()));
}

void LifeCheck::onAlarm(bool ok) {
  if (!ok)
    return;
  const Silence::TimePoint lastSign = lastSign_.load(std::memory_order_relaxed);
  switch (silence_.step(lastSign, std::chrono::steady_clock::now())) {
    case Silence::Step::GiveUp:
      return options_.silent();
    case Silence::Step::Ask:
      options_.ask();
      break;
    case Silence::Step::Wait:
      break;
  }
  waitUntil(silence_.next(lastSign));
}

}  // namespace agent::spf::grpc_transport::internal
