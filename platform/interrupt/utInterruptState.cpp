#include "platform/interrupt/utInterruptState.h"

#include <atomic>
#include <memory>
#include <utility>

#include "platform/threads/Mutex.h"

namespace {

using Source = std::function<bool()>;

std::atomic<bool> pending{false};
static_assert(std::atomic<bool>::is_always_lock_free, "request() is called from signal handlers");

struct SourceSlot {
  parallel::threads::Mutex mutex;
  std::shared_ptr<const Source> source ZKS_GUARDED_BY(mutex);
};

SourceSlot& slot() {
  static SourceSlot instance;
  return instance;
}

// Called outside the lock, so that a source may itself set another one or check for interrupts.
bool askSource() {
  std::shared_ptr<const Source> source;
  {
    const parallel::threads::MutexLock lock(slot().mutex);
    source = slot().source;
  }
  return source != nullptr && (*source)();
}

}  // namespace

void utInterruptState::ThrowIfInterruptPending() {
  const bool asked = askSource();
  if (pending.exchange(false) || asked)
    throw Corvane::System::InterruptException();
}

void utInterruptState::request() noexcept {
  pending.store(true);
}

bool utInterruptState::isPending() noexcept {
  return pending.load();
}

void utInterruptState::clear() noexcept {
  pending.store(false);
}

void utInterruptState::setSource(std::function<bool()> source) {
  auto next = source ? std::make_shared<const Source>(std::move(source)) : nullptr;
  const parallel::threads::MutexLock lock(slot().mutex);
  slot().source.swap(next);
}
