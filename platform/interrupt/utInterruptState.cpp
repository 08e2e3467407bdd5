#include "platform/interrupt/utInterruptState.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <utility>

namespace {

using Source = std::function<bool()>;

std::atomic<bool> pending{false};
static_assert(std::atomic<bool>::is_always_lock_free, "request() is called from signal handlers");

thread_local unsigned long thrown = 0;

struct SourceSlot {
  std::mutex mutex;
  std::shared_ptr<const Source> source;  // guarded by mutex
};

SourceSlot& slot() {
  static SourceSlot instance;
  return instance;
}

// Called outside the lock, so that a source may itself set another one or check for interrupts.
bool askSource() {
  std::shared_ptr<const Source> source;
  {
    const std::scoped_lock lock(slot().mutex);
    source = slot().source;
  }
  return source != nullptr && (*source)();
}

}  // namespace

void utInterruptState::ThrowIfInterruptPending() {
  const bool asked = askSource();
  if (!pending.exchange(false) && !asked)
    return;
  ++thrown;
  throw Corvane::System::InterruptException();
}

unsigned long utInterruptState::thrownOnThisThread() noexcept {
  return thrown;
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
  const std::scoped_lock lock(slot().mutex);
  slot().source.swap(next);
}
